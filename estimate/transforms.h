// Real-to-complex FFTW transforms of one size, planned once and reused for
// every plane of that size (FFTW's new-array execute), on as many threads as
// help. Planning holds the process-wide FftwPlannerLock.
#ifndef DECONV_ESTIMATE_TRANSFORMS_H
#define DECONV_ESTIMATE_TRANSFORMS_H

#include <fftw3.h>

#include <complex>
#include <cstdlib>
#include <new>
#include <vector>

namespace deconv {
namespace estimation {

// Memory as FFTW wants it (aligned for its SIMD codelets).
template <class T>
struct FftwAllocator {
  using value_type = T;
  FftwAllocator() = default;
  template <class U>
  FftwAllocator(const FftwAllocator<U>&) {}
  T* allocate(size_t n) {
    void* p = fftwf_malloc(n * sizeof(T));
    if (!p) throw std::bad_alloc();
    return static_cast<T*>(p);
  }
  void deallocate(T* p, size_t) { fftwf_free(p); }
  template <class U>
  bool operator==(const FftwAllocator<U>&) const { return true; }
  template <class U>
  bool operator!=(const FftwAllocator<U>&) const { return false; }
};

using RealPlane = std::vector<float, FftwAllocator<float>>;
using Spectrum = std::vector<std::complex<float>, FftwAllocator<std::complex<float>>>;

class Transforms {
 public:
  Transforms(int width, int height, int threads);
  ~Transforms();
  Transforms(const Transforms&) = delete;
  Transforms& operator=(const Transforms&) = delete;

  int width() const { return width_; }
  int height() const { return height_; }
  int half() const { return width_ / 2 + 1; }  // spectrum row length
  size_t pixels() const { return (size_t)width_ * height_; }
  size_t frequencies() const { return (size_t)height_ * half(); }
  RealPlane real() const { return RealPlane(pixels(), 0.0f); }
  Spectrum spectrum() const { return Spectrum(frequencies()); }

  void forward(const RealPlane& in, Spectrum& out) const;
  // Unnormalised (a round trip multiplies by pixels()); `in` is destroyed.
  void backward(Spectrum& in, RealPlane& out) const;

 private:
  int width_, height_;
  fftwf_plan forward_ = nullptr, backward_ = nullptr;
};

// A side at least `n` whose factors are 2, 3, 5 and 7 only.
int good_size(int n);

}  // namespace estimation
}  // namespace deconv

#endif
