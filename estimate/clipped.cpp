// Clipped highlights. A lamp or a glint far above the sensor's white comes
// out as a flat top whose blur was cut off: no kernel explains it, and its
// huge steps outweigh every edge of the picture in the kernel step and in the
// likelihood fits. The samples at the picture's top, and everything as far
// as the kernel reaches from them, are ignored: filled smoothly (with the
// picture's own noise) for the fits that need a whole plane, and their
// gradients dropped where the kernel is solved.
#include <algorithm>
#include <cmath>
#include <random>

#include "estimate/estimate.h"

namespace deconv {
namespace estimation {

namespace {

// Marks every sample within `reach` (a square) of a marked one: a running
// count along rows, then along columns.
Image dilate(const Image& marked, int reach) {
  const int w = marked.width, h = marked.height;
  Image rows(w, h, 1), out(w, h, 1);
  for (int y = 0; y < h; ++y) {
    std::vector<int> prefix(w + 1, 0);
    for (int x = 0; x < w; ++x) prefix[x + 1] = prefix[x] + (marked.at(x, y) > 0);
    for (int x = 0; x < w; ++x) rows.at(x, y) = prefix[std::min(w, x + reach + 1)] > prefix[std::max(0, x - reach)];
  }
  for (int x = 0; x < w; ++x) {
    std::vector<int> prefix(h + 1, 0);
    for (int y = 0; y < h; ++y) prefix[y + 1] = prefix[y] + (rows.at(x, y) > 0);
    for (int y = 0; y < h; ++y) out.at(x, y) = prefix[std::min(h, y + reach + 1)] > prefix[std::max(0, y - reach)];
  }
  return out;
}

// `plane` with its unknown samples (known 0) filled from the known ones by
// push-pull: the known samples averaged down by halves until every sample
// is known, then the coarse values brought back up bilinearly.
Image push_pull(const Image& plane, const Image& known) {
  const int w = plane.width, h = plane.height;
  bool all = true;
  for (float k : known.pixels) all = all && k > 0;
  if (all) return plane;
  const int w2 = (w + 1) / 2, h2 = (h + 1) / 2;
  Image coarse(w2, h2, 1), coarse_known(w2, h2, 1);
  if (w == 1 && h == 1) return plane;  // nothing known anywhere: left as it is
  for (int y = 0; y < h2; ++y)
    for (int x = 0; x < w2; ++x) {
      double sum = 0, weight = 0;
      for (int j = 2 * y; j < std::min(h, 2 * y + 2); ++j)
        for (int i = 2 * x; i < std::min(w, 2 * x + 2); ++i) sum += plane.at(i, j) * known.at(i, j), weight += known.at(i, j);
      coarse.at(x, y) = weight > 0 ? (float)(sum / weight) : 0;
      coarse_known.at(x, y) = weight > 0;
    }
  const Image filled = push_pull(coarse, coarse_known);
  Image out = plane;
  for (int y = 0; y < h; ++y)
    for (int x = 0; x < w; ++x)
      if (!(known.at(x, y) > 0)) {
        const double cx = std::min(w2 - 1.0, std::max(0.0, (x - 0.5) / 2)), cy = std::min(h2 - 1.0, std::max(0.0, (y - 0.5) / 2));
        out.at(x, y) = (float)bilinear(filled, cx, cy);
      }
  return out;
}

}  // namespace

Image clipped_samples(const Image& plane) {
  const Tuning& tune = tuning();
  Image clipped(plane.width, plane.height, 1);
  const Spread spread = robust_spread(plane);
  if (!(spread.width > 0) || plane.pixels.empty()) return clipped;
  const float peak = *std::max_element(plane.pixels.begin(), plane.pixels.end());
  const float top = (float)(peak - tune.clip_margin * spread.width);
  // A flat top is clipped; a lone sample at the peak is only the brightest.
  for (int y = 0; y < plane.height; ++y)
    for (int x = 0; x < plane.width; ++x) {
      if (plane.at(x, y) < top) continue;
      int around = 0;
      if (x > 0) around += plane.at(x - 1, y) >= top;
      if (y > 0) around += plane.at(x, y - 1) >= top;
      if (x + 1 < plane.width) around += plane.at(x + 1, y) >= top;
      if (y + 1 < plane.height) around += plane.at(x, y + 1) >= top;
      clipped.at(x, y) = around >= 2;
    }
  return clipped;
}

Image near_clipped(const Image& clipped, int width, int height, int reach) {
  const Image at_scale = resample(clipped, width, height);
  Image marked(width, height, 1);
  bool any = false;
  for (size_t i = 0; i < marked.pixels.size(); ++i) any |= (marked.pixels[i] = at_scale.pixels[i] > 0.01f) > 0;
  return any ? dilate(marked, reach) : marked;
}

bool any_marked(const Image& ignore) {
  return std::any_of(ignore.pixels.begin(), ignore.pixels.end(), [](float v) { return v > 0; });
}

void drop_ignored(RealPlane& gx, RealPlane& gy, int canvas_width, const Image& ignore) {
  for (int y = 0; y < ignore.height; ++y)
    for (int x = 0; x < ignore.width; ++x)
      if (ignore.at(x, y) > 0) gx[(size_t)y * canvas_width + x] = gy[(size_t)y * canvas_width + x] = 0;
}

Image fill_ignored(const Image& plane, const Image& ignore, const NoiseModel& noise) {
  if (!any_marked(ignore)) return plane;
  Image known(plane.width, plane.height, 1);
  for (size_t i = 0; i < known.pixels.size(); ++i) known.pixels[i] = ignore.pixels[i] > 0 ? 0.0f : 1.0f;
  Image out = push_pull(plane, known);
  // The fill is as noisy as the picture, or the likelihood would take its
  // smoothness for blur.
  std::mt19937 rng(1);
  std::normal_distribution<float> gauss(0, 1);
  for (size_t i = 0; i < out.pixels.size(); ++i)
    if (known.pixels[i] == 0) out.pixels[i] += (float)std::sqrt(noise.variance(out.pixels[i])) * gauss(rng);
  return out;
}

}  // namespace estimation
}  // namespace deconv
