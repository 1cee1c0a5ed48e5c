#include "strength/weigh.h"

#include <algorithm>

namespace {

using namespace deconv::fast;

// Adds the frequencies of spectrum rows [begin, end) to `choice`. A real
// plane's spectrum holds only half of its frequencies: every one but those
// of the first column (and the last, for an even width) stands for its
// mirror image too, of the same power.
void weigh_rows(const Problem& problem, const Spectrum& spectrum, const size_t begin, const size_t end,
                StrengthChoice& choice) {
  const int64_t width = problem.fft.width(), half = problem.fft.half();
  const int64_t height = (int64_t)problem.fft.rows();  // the frequencies' rows, for the coarse band
  const std::vector<float>& last = problem.difference_power.back();
  for (size_t row = begin; row < end; ++row)
    for (int64_t u = 0; u < half; ++u) {
      const size_t k = row * half + u;
      const float n = problem.row_power[row] + last[u];
      const float s = (n * 25.0f) + 50.0f;
      const Complex h = problem.psf_spectrum[problem.fft.filter_index(k)];
      const float hr = h.real(), hi = h.imag();
      const float P = s * (hr * hr + hi * hi), power = std::norm(spectrum[k]);
      const bool coarse = StrengthChoice::coarse(u, (int64_t)row % height, width, height);
      choice.add(P, n, power, coarse);
      if (u != 0 && 2 * u != width) choice.add(P, n, power, coarse);
    }
}

}  // namespace

StrengthChoice weigh_picture(const Problem& problem, const float* const planes, const int channels,
                             Workers& workers) {
  const RealFft& fft = problem.fft;
  RealArray tapered(fft.samples());
  Spectrum spectrum(fft.frequencies());
  // Histograms sum in double: a fixed cut of the rows, merged in order, gives
  // the same choice for any number of threads. Each histogram is a few
  // megabytes, so small pictures take one.
  const size_t parts = std::max<size_t>(1, std::min<size_t>(8, fft.frequencies() >> 20));
  StrengthChoice choice;
  for (int c = 0; c < channels; ++c) {
    taper_edges(problem, planes + (size_t)c * fft.samples(), tapered.data(), spectrum, workers);
    fft.forward(tapered.data(), spectrum.data(), workers);
    std::vector<StrengthChoice> part(parts);
    workers.run(parts, [&](const size_t p) {
      weigh_rows(problem, spectrum, fft.rows() * p / parts, fft.rows() * (p + 1) / parts, part[p]);
    });
    for (const StrengthChoice& p : part) choice.merge(p);
  }
  return choice;
}
