// The edge taper, first stage of a restoration: the picture blurred by its
// PSF (one forward and one inverse transform) is blended into a band along
// every border, so that the periodic transforms of the solve meet softer
// edges. The ramp is deconv's engine's, axis by axis; the blur is read
// taper_lag samples further along, as that engine reads it.
#include <cmath>

#include "fast/problem.h"

namespace deconv {
namespace fast {

namespace {

// |erf(u)| by Winitzki's closed form, in single precision; 1.2732395f is 4/pi.
float erf_magnitude(const float u) {
  const float a = (0.140012f * u) * u;
  const float e = expf(((0 - u * u) * (1.2732395f + a)) / (a + 1));
  return sqrtf(1 - e);
}

// Weight of the sharp sample at position p along an axis of n samples: an
// S-shaped ramp 0.5 (1 + erf((d - h) s)) of the distance d from the nearer
// border, which stops at d = t and is 1 beyond.
float ramp(const int p, const int n, const int t, const int h, const float s) {
  if (p < t) {
    const int m = p - h;
    const float sign = p < h ? -1.0f : 1.0f;
    return (erf_magnitude(m * s) * 0.5f) * sign + 0.5f;
  }
  if (p + t >= n) {
    const int m = (t - h) + p - n;
    const float sign = p + t - n >= h ? -1.0f : 1.0f;
    return (erf_magnitude(m * s) * 0.5f) * sign + 0.5f;
  }
  return 1.0f;
}

// The ramp's weights along every axis.
std::vector<std::vector<float>> axis_weights(const std::vector<int>& sizes, const int t) {
  const float s = (float)(1 / std::sqrt((double)(4 * t)));  // the float nearest 1/sqrt(4t)
  std::vector<std::vector<float>> weights;
  for (const int n : sizes) {
    std::vector<float> w(n);
    for (int p = 0; p < n; ++p) w[p] = ramp(p, n, t, t / 2, s);
    weights.push_back(std::move(w));
  }
  return weights;
}

}  // namespace

void taper_edges(const Problem& problem, const float* const plane, float* const tapered, Spectrum& spectrum,
                 Workers& workers) {
  const RealFft& fft = problem.fft;
  const float scale = (float)(1.0 / (double)fft.samples());
  const std::vector<Complex>& last_phase = problem.taper_phase.back();
  // The blur, its offset as a phase and the inverse's scale in one product,
  // spelt out: std::complex's product checks for infinities at every step.
  fft.filter(
      plane, tapered, spectrum.data(),
      [&](Complex* values, size_t count, size_t first, size_t step) {
        const Complex* const psf = problem.psf_spectrum.data() + fft.filter_index(first);
        each_frequency(problem, values, count, first, step, [&](Complex& y, size_t i, size_t row, size_t u) {
          const Complex a = problem.row_phase[row], b = last_phase[u], h = psf[i];
          const float pr = (a.real() * b.real() - a.imag() * b.imag()) * scale;
          const float pi = (a.real() * b.imag() + a.imag() * b.real()) * scale;
          const float kr = h.real() * pr - h.imag() * pi, ki = h.real() * pi + h.imag() * pr;
          y = Complex(y.real() * kr - y.imag() * ki, y.real() * ki + y.imag() * kr);
        });
      },
      workers);

  const std::vector<std::vector<float>> weights = axis_weights(problem.sizes, problem.band);
  const std::vector<float>& across = weights.back();
  const size_t width = fft.width(), axes = problem.sizes.size();
  workers.run_ranges(fft.rows(), [&](const size_t begin, const size_t end) {
    for (size_t r = begin; r < end; ++r) {
      float row_weight = 1.0f;  // the smallest of the other axes'
      size_t rest = r;
      for (size_t a = axes - 1; a-- > 0;) {
        row_weight = std::min(row_weight, weights[a][rest % problem.sizes[a]]);
        rest /= problem.sizes[a];
      }
      const float* const sharp = plane + r * width;
      float* const out = tapered + r * width;
      for (size_t x = 0; x < width; ++x) {
        float w = std::min(across[x], row_weight);  // corners take the smaller weight
        w = std::min(1.0f, std::max(0.0f, w));
        out[x] = (1 - w) * out[x] + w * sharp[x];
      }
    }
  });
}

}  // namespace fast
}  // namespace deconv
