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
  // The inverse transform is unscaled: 1 / samples folds into the gain.
  const float scale = (float)(1.0 / (double)fft.samples());
  const std::vector<float>& last = problem.difference_power.back();
  fft.filter(
      plane, plane, spectrum.data(),
      [&](Complex* values, size_t count, size_t first, size_t step) {
        const Complex* const h = problem.psf_spectrum.data() + fft.filter_index(first);
        each_frequency(problem, values, count, first, step, [&](Complex& y, size_t i, size_t row, size_t u) {
          const float n = problem.row_power[row] + last[u];
          const float s = (n * 25.0f) + 50.0f;
          const float hr = h[i].real(), hi = h[i].imag();
          // 1e-17f keeps d positive where H and N are both zero, so such a
          // frequency gives 0 and not NaN.
          const float d = (n * lambda + 1e-17f) + (hr * hr + hi * hi) * s;
          const float g = (s * (1.0f / d)) * scale;
          const float yr = y.real(), yi = y.imag();
          y = Complex(g * (hr * yr + hi * yi), g * (hr * yi - hi * yr));
        });
      },
      workers);
}

}  // namespace fast
}  // namespace deconv
