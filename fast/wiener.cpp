// The generalised Wiener filter, last stage of a restoration: the tapered
// plane's spectrum is weighted by
//   X = S conj(H) Y / (S |H|^2 + lambda N + 1e-17)
// and transformed back. The steps are rounded to float in deconv's engine's
// association, so that the two engines agree to float rounding.
#include "fast/problem.h"

namespace deconv {
namespace fast {

void wiener_solve(const Problem& problem, const float lambda, float* const plane, Spectrum& spectrum,
                  Workers& workers) {
  const RealFft& fft = problem.fft;
  fft.forward(plane, spectrum.data(), workers);
  // The inverse transform is unscaled: 1 / samples folds into the gain.
  const float scale = (float)(1.0 / (double)fft.samples());
  const std::vector<float>& last = problem.difference_power.back();
  for_spectrum_rows(problem, workers, [&](const size_t row, const size_t first, const size_t count) {
    const float rows_power = problem.row_power[row];
    for (size_t u = 0; u < count; ++u) {
      const size_t k = first + u;
      const float n = rows_power + last[u];
      const float s = (n * 25.0f) + 50.0f;
      const float hr = problem.psf_spectrum[k].real(), hi = problem.psf_spectrum[k].imag();
      // 1e-17f keeps d positive where H and N are both zero, so such a
      // frequency gives 0 and not NaN.
      const float d = (n * lambda + 1e-17f) + (hr * hr + hi * hi) * s;
      const float g = (s * (1.0f / d)) * scale;
      const float yr = spectrum[k].real(), yi = spectrum[k].imag();
      spectrum[k] = Complex(g * (hr * yr + hi * yi), g * (hr * yi - hi * yr));
    }
  });
  fft.backward(spectrum.data(), plane, workers);
}

}  // namespace fast
}  // namespace deconv
