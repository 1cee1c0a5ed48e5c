// The estimator's transforms: the second engine's real transforms of one
// picture size (spectral/real_fft.h), made once for the process and run on a
// pool of the estimator's own threads.
#ifndef DECONV_ESTIMATE_TRANSFORMS_H
#define DECONV_ESTIMATE_TRANSFORMS_H

#include "spectral/real_fft.h"

namespace deconv {
namespace estimation {

using RealPlane = spectral::RealArray;
using Spectrum = spectral::Spectrum;
using spectral::good_size;

class Transforms {
 public:
  Transforms(int width, int height, int threads)
      : fft_(spectral::RealFft::of({height, width})), workers_(threads) {}
  Transforms(const Transforms&) = delete;
  Transforms& operator=(const Transforms&) = delete;

  int width() const { return fft_.width(); }
  int height() const { return (int)fft_.rows(); }
  int half() const { return fft_.half(); }  // spectrum row length
  size_t pixels() const { return fft_.samples(); }
  size_t frequencies() const { return fft_.frequencies(); }
  RealPlane real() const { return RealPlane(pixels(), 0.0f); }
  Spectrum spectrum() const { return Spectrum(frequencies()); }

  void forward(const RealPlane& in, Spectrum& out) const { fft_.forward(in.data(), out.data(), workers_); }
  // Unnormalised (a round trip multiplies by pixels()); `in` is destroyed.
  void backward(Spectrum& in, RealPlane& out) const { fft_.backward(in.data(), out.data(), workers_); }

 private:
  const spectral::RealFft& fft_;
  mutable spectral::Workers workers_;  // a pool runs one loop at a time, whoever calls
};

}  // namespace estimation
}  // namespace deconv

#endif
