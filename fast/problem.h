// The second engine: restorations on real transforms, for any number of axes,
// the same bits for any number of threads. A Problem holds what every
// channel's restoration shares (the grid's transforms, the PSF's spectrum,
// the weighting spectra's tables and the edge taper's band); the stages are
// free functions over it, one a file:
//
//   psf_placement.cpp  the PSF on the picture's grid, prepared as deconv's
//                      engine prepares it
//   problem.cpp        the PSF's spectrum and the per-axis tables
//   edge_taper.cpp     the borders blended towards the blurred picture
//   wiener.cpp         the generalised Wiener filter
//
// Richardson-Lucy (richardson_lucy.h) prepares a problem of its own, on a
// grid wider than the picture.
//
// Nothing here knows about files, options or the library's types.
#ifndef DECONV_FAST_PROBLEM_H
#define DECONV_FAST_PROBLEM_H

#include <vector>

#include "spectral/real_fft.h"

namespace deconv {
namespace fast {

using spectral::Complex;
using spectral::RealArray;
using spectral::RealFft;
using spectral::Spectrum;
using spectral::Workers;

// A PSF placed on the grid of a picture: its origin at sample 0, wrapping
// around every axis, normalised to sum 1.
struct PlacedPsf {
  std::vector<int> sizes;  // the grid's, outermost axis first
  RealArray samples;
  // The width of the edge taper's band along every axis: the PSF's extent
  // and a margin.
  int band = 0;
  // The taper blends with the picture blurred and read this many samples
  // further along every axis: deconv's engine places its PSF one sample short
  // of the origin, and its taper keeps that offset.
  int taper_lag = 0;
};

// The PSF (one plane of psf_width x psf_height, normalised to sum 1) as
// deconv's engine prepares it for a width x height picture: on a square
// canvas of twice its width and one, centred on its first moment's pixel and
// renormalised, then placed on the picture's grid, renormalised again where
// the picture cut some of it off. The band is the canvas's support and a
// margin. Throws std::invalid_argument where the first moment lies off the
// canvas (taps of both signs).
PlacedPsf place_psf_as_exact_engine(const float* psf, int psf_width, int psf_height, int width, int height);

class Problem {
 public:
  Problem(const PlacedPsf& psf, Workers& workers);

  const RealFft& fft;
  const std::vector<int> sizes;
  const int band, taper_lag;
  // The PSF's spectrum, unscaled, in the transforms' filter order
  // (RealFft::filter_index): the order in which the filters read it.
  Spectrum psf_spectrum;
  // Per axis, |D(k)|^2 = 2 - 2 cos(2 pi k / n) of the first difference along
  // it, for each of its frequencies (the last axis: its half spectrum's).
  // The weighting spectra are sums of these:
  //   S = 50 + 25 sum |D|^2,   N = sum |D|^2.
  std::vector<std::vector<float>> difference_power;
  // Per axis, exp(2 pi i lag k / n): the taper's offset as a phase.
  std::vector<std::vector<Complex>> taper_phase;

  // For every row of the spectrum (all axes but the last), the sum of the
  // other axes' difference power and the product of their taper phases.
  std::vector<float> row_power;
  std::vector<Complex> row_phase;
};

// Blends the band along every border of `plane` towards the plane blurred by
// the PSF, into `tapered` (both of the grid's size): an S-shaped ramp of erf
// weights, the smaller weight where two bands cross. `spectrum` is scratch of
// the grid's frequencies.
void taper_edges(const Problem& problem, const float* plane, float* tapered, Spectrum& spectrum, Workers& workers);

// Restores the tapered plane in place with
//   X = S conj(H) Y / (S |H|^2 + lambda N + 1e-17).
void wiener_solve(const Problem& problem, float lambda, float* plane, Spectrum& spectrum, Workers& workers);

// Calls f(value, i, row, u) for the i-th value of a strip of the spectrum
// (RealFft::Strip), in `row` of the spectrum and column u of its half
// spectrum. A strip runs along a row's columns (one axis) or down a column.
template <class F>
void each_frequency(const Problem& problem, Complex* const values, const size_t count, const size_t first,
                    const size_t step, F f) {
  const size_t half = problem.fft.half();
  if (step % half) {
    for (size_t i = 0; i < count; ++i) f(values[i], i, (first + i * step) / half, (first + i * step) % half);
    return;
  }
  const size_t u = first % half, row = first / half, rows = step / half;
  for (size_t i = 0; i < count; ++i) f(values[i], i, row + i * rows, u);
}

}  // namespace fast
}  // namespace deconv

#endif
