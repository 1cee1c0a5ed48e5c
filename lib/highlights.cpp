// The weights of lib/highlights.h: the clipped samples found, then dilated by
// the PSF's support as a convolution of the two indicators on a grid wide
// enough that nothing wraps round, three real transforms in all.
#include "lib/highlights.h"

#include <algorithm>
#include <cmath>

#include "spectral/real_fft.h"

namespace libdeconv {

namespace {

using deconv::spectral::Complex;
using deconv::spectral::RealArray;
using deconv::spectral::RealFft;
using deconv::spectral::Spectrum;
using deconv::spectral::Workers;

// The place of sample `index` of an array of `sizes` on a grid of `grid`
// sizes, each axis moved by `shift` and wrapped.
size_t placed(size_t index, const std::vector<int>& sizes, const std::vector<int>& grid, const std::vector<int>& shift) {
  size_t at = 0, step = 1;
  for (size_t a = sizes.size(); a-- > 0;) {
    const long i = (long)(index % sizes[a]) + shift[a];
    index /= sizes[a];
    at += (size_t)((i + grid[a]) % grid[a]) * step;
    step *= grid[a];
  }
  return at;
}

}  // namespace

float highlights_level(const deconv::Image& blurred, const deconv::RestoreOptions& options) {
  if (options.highlights < 0) return 0;
  if (options.highlights > 0) return options.highlights;
  for (const float v : blurred.pixels)
    if (v > 1 || v < 0) return 0;  // not a file's 0..1: no level known
  return automatic_highlights;
}

std::vector<float> highlight_weights(const float* const data, const std::vector<int>& sizes, const float* const psf,
                                     const std::vector<int>& psf_sizes, const float level, Workers& workers,
                                     size_t* const masked) {
  if (masked) *masked = 0;
  size_t samples = 1, taps = 1;
  for (const int n : sizes) samples *= n;
  for (const int n : psf_sizes) taps *= n;
  if (!(level > 0) || std::none_of(data, data + samples, [&](float v) { return v >= level; })) return {};

  std::vector<int> grid, none(sizes.size(), 0), centre;
  for (size_t a = 0; a < sizes.size(); ++a) {
    grid.push_back(deconv::spectral::good_size(sizes[a] + psf_sizes[a] - 1));
    centre.push_back(-psf_sizes[a] / 2);
  }
  const RealFft& fft = RealFft::of(grid);
  RealArray clipped(fft.samples(), 0.0f), support(fft.samples(), 0.0f);
  for (size_t i = 0; i < samples; ++i) clipped[placed(i, sizes, grid, none)] = data[i] >= level ? 1.0f : 0.0f;
  for (size_t t = 0; t < taps; ++t) support[placed(t, psf_sizes, grid, centre)] = psf[t] > 0 ? 1.0f : 0.0f;
  Spectrum S(fft.frequencies()), scratch(fft.frequencies());
  fft.forward_in_filter_order(support.data(), S.data(), scratch.data(), workers);
  const float scale = (float)(1.0 / (double)fft.samples());
  fft.filter(
      clipped.data(), clipped.data(), scratch.data(),
      [&](Complex* v, const size_t count, const size_t first, size_t) {
        const Complex* const s = S.data() + fft.filter_index(first);
        for (size_t i = 0; i < count; ++i) v[i] *= s[i] * scale;
      },
      workers);
  // The convolution counts the clipped samples each sample's blur takes
  // light from: whole numbers, but for the transforms' rounding.
  std::vector<float> weights(samples);
  size_t zeros = 0;
  for (size_t i = 0; i < samples; ++i) {
    weights[i] = clipped[placed(i, sizes, grid, none)] > 0.5f ? 0.0f : 1.0f;
    zeros += weights[i] == 0;
  }
  if (masked) *masked = zeros;
  return weights;
}

}  // namespace libdeconv
