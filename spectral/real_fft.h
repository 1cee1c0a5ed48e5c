// Real-to-complex transforms of arrays of any number of axes, for the second
// engine and the estimator. A transform is made once per shape and kept for
// the life of the process; every call and every iteration reuses it.
//
// The work is cut into fixed blocks, whatever the number of threads: blocks of
// 16 rows for the real transforms along the last axis, then blocks of 16
// neighbouring lines for the complex transforms along each other axis. Each
// block always runs the same FFTW plan, so a transform gives the same bits on
// one thread or on many, and the threads share the blocks out as they come.
// Lines are transformed in a scratch of their own, contiguous, which keeps
// power-of-two sizes as fast per sample as their neighbours.
#ifndef DECONV_SPECTRAL_REAL_FFT_H
#define DECONV_SPECTRAL_REAL_FFT_H

#include <fftw3.h>

#include <complex>
#include <cstddef>
#include <new>
#include <vector>

#include "spectral/workers.h"

namespace deconv {
namespace spectral {

using Complex = std::complex<float>;

// Memory as FFTW wants it (aligned for its SIMD codelets). Spectra handed to
// RealFft must be allocated so.
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

using RealArray = std::vector<float, FftwAllocator<float>>;
using Spectrum = std::vector<Complex, FftwAllocator<Complex>>;

class RealFft {
 public:
  // The transforms of arrays of `sizes`, outermost axis first, the last one
  // contiguous: {height, width} for a picture, {depth, height, width} for a
  // stack. Made on first use under the process-wide planner lock.
  static const RealFft& of(const std::vector<int>& sizes);

  const std::vector<int>& sizes() const { return sizes_; }
  int width() const { return sizes_.back(); }
  int half() const { return sizes_.back() / 2 + 1; }  // spectrum row length
  size_t rows() const { return rows_; }               // of the real array
  size_t samples() const { return rows_ * width(); }
  size_t frequencies() const { return rows_ * half(); }

  // Forward, unscaled: `in` holds samples() floats anywhere in memory; `out`
  // frequencies() values, from FftwAllocator, each row of the last axis
  // after the other.
  void forward(const float* in, Complex* out, Workers& workers) const;
  // Backward, unscaled (a round trip multiplies by samples()); `in` is
  // destroyed.
  void backward(Complex* in, float* out, Workers& workers) const;

  RealFft(const RealFft&) = delete;
  RealFft& operator=(const RealFft&) = delete;
  ~RealFft();

 private:
  // One block of one pass: where it starts (in floats of the real array for
  // the row passes, in values of the spectrum otherwise) and its plan.
  struct Block {
    size_t start;
    size_t count;  // rows or lines
    fftwf_plan plan;
  };
  struct Pass {
    std::vector<Block> blocks;
    size_t length = 0, stride = 0;  // of the lines, for the complex passes
  };

  explicit RealFft(const std::vector<int>& sizes);
  void plan_rows();
  void plan_lines(int axis);
  static void run_lines(const Pass& pass, const Block& block, Complex* spectrum);
  template <class F>
  void each_block(const Pass& pass, Workers& workers, F f) const;

  std::vector<int> sizes_;
  size_t rows_;
  Pass rows_forward_, rows_backward_;
  std::vector<Pass> lines_forward_, lines_backward_;  // one per axis but the last
  std::vector<fftwf_plan> plans_;                      // every plan, once
};

// A size at least `n` whose factors are 2, 3, 5 and 7 only: FFTW's fast sizes.
int good_size(int n);

}  // namespace spectral
}  // namespace deconv

#endif
