// The shared part of a restoration: the PSF's spectrum, one forward
// transform, and the closed forms of the first differences' power spectra,
// which deconv's engine gets by transforming the difference kernels.
#include <cmath>

#include "fast/problem.h"

namespace deconv {
namespace fast {

namespace {

constexpr double two_pi = 6.283185307179586476925286766559;

}  // namespace

Problem::Problem(const PlacedPsf& psf, Workers& workers)
    : fft(RealFft::of(psf.sizes)), sizes(psf.sizes), band(psf.band), taper_lag(psf.taper_lag),
      psf_spectrum(fft.frequencies()) {
  {
    Spectrum scratch(fft.frequencies());
    fft.forward_in_filter_order(psf.samples.data(), psf_spectrum.data(), scratch.data(), workers);
  }
  const size_t axes = sizes.size();
  for (size_t a = 0; a < axes; ++a) {
    const int n = sizes[a];
    const int count = a + 1 == axes ? fft.half() : n;
    std::vector<float> power(count);
    std::vector<Complex> phase(count);
    for (int k = 0; k < count; ++k) {
      const double angle = two_pi * k / n;
      power[k] = (float)(2 - 2 * std::cos(angle));
      const double lag = two_pi * (double)((long long)k * taper_lag % n) / n;
      phase[k] = Complex((float)std::cos(lag), (float)std::sin(lag));
    }
    difference_power.push_back(std::move(power));
    taper_phase.push_back(std::move(phase));
  }
  // Rows, the first axis outermost: their multi-index read like a number.
  row_power.assign(fft.rows(), 0.0f);
  row_phase.assign(fft.rows(), Complex(1, 0));
  for (size_t r = 0; r < fft.rows(); ++r) {
    size_t rest = r;
    float power = 0;
    Complex phase(1, 0);
    for (size_t a = axes - 1; a-- > 0;) {
      const size_t k = rest % sizes[a];
      rest /= sizes[a];
      power += difference_power[a][k];
      phase *= taper_phase[a][k];
    }
    row_power[r] = power;
    row_phase[r] = phase;
  }
}

}  // namespace fast
}  // namespace deconv
