// When not to answer. Before: a picture too small for the kernel's support,
// too flat to show its blur, or too noisy. After: a kernel that fills its
// whole support (the blur is larger than the support, or the estimate has
// drifted into noise), and one that the picture's own likelihood does not
// stand behind.
#include <algorithm>
#include <cmath>
#include <cstdio>

#include "estimate/estimate.h"

namespace deconv {
namespace estimation {

namespace {
std::string percent(double v) {
  char text[32];
  std::snprintf(text, sizeof text, "%.1f %%", 100 * v);
  return text;
}
}  // namespace

double noise_level(const Image& plane) {
  std::vector<float> d;
  d.reserve((size_t)(plane.width / 2) * (plane.height / 2));
  for (int y = 0; y + 1 < plane.height; y += 2)
    for (int x = 0; x + 1 < plane.width; x += 2)
      d.push_back(std::fabs(plane.at(x, y) - plane.at(x + 1, y) - plane.at(x, y + 1) + plane.at(x + 1, y + 1)) / 2);
  if (d.empty()) return 0;
  std::nth_element(d.begin(), d.begin() + d.size() / 2, d.end());
  return d[d.size() / 2] / 0.6745;
}

Spread robust_spread(const Image& plane) {
  // Every fourth sample of every fourth row is plenty for two percentiles.
  std::vector<float> v;
  for (int y = 0; y < plane.height; y += 4)
    for (int x = 0; x < plane.width; x += 4) v.push_back(plane.at(x, y));
  if (v.empty()) return {};
  const auto at = [&v](double share) {
    const auto k = v.begin() + (ptrdiff_t)(share * (v.size() - 1));
    std::nth_element(v.begin(), k, v.end());
    return (double)*k;
  };
  const double low = at(0.01), high = at(0.99);
  return {low, high - low};
}

Image on_own_range(const Image& plane) {
  const Spread spread = robust_spread(plane);
  if (spread.width <= 0 || (spread.width >= 0.5 && spread.width <= 2)) return plane;
  Image stretched(plane.width, plane.height, 1);
  for (size_t i = 0; i < plane.pixels.size(); ++i)
    stretched.pixels[i] = (float)((plane.pixels[i] - spread.low) / spread.width);
  return stretched;
}

void check_finite(const Image& picture) {
  size_t count = 0, first = 0;
  for (size_t i = picture.pixels.size(); i-- > 0;)
    if (!std::isfinite(picture.pixels[i])) ++count, first = i;
  if (count == 0) return;
  const size_t plane = (size_t)picture.width * picture.height;
  throw Error("the picture holds " + std::to_string(count) + " samples that are not finite (NaN or infinite), the first at x " +
              std::to_string(first % picture.width) + ", y " + std::to_string(first % plane / picture.width) +
              ", channel " + std::to_string(first / plane));
}

void check_picture(const Image& plane, int kernel_side) {
  const int least = std::max(48, 3 * kernel_side);
  if (plane.width < least || plane.height < least)
    throw Error("the picture (" + std::to_string(plane.width) + " x " + std::to_string(plane.height) +
                ") is too small for a blur of up to " + std::to_string(kernel_side) + " pixels: it needs " +
                std::to_string(least) + " x " + std::to_string(least) + " (a smaller --size needs less)");
  // Flat and noisy are measured against the values the picture uses, not
  // against its type's range: a faint plane of a 16-bit detector that spans a
  // hundredth of 0..65535 shows its blur as well as the same plane stretched.
  const double range = robust_spread(plane).width;
  if (!(range > 0)) throw Error("the picture is too flat (nearly all its samples are the same) to show its blur");
  double mean = 0, var = 0;
  for (float v : plane.pixels) mean += v;
  mean /= plane.pixels.size();
  for (float v : plane.pixels) var += (v - mean) * (v - mean);
  var /= plane.pixels.size();
  const double noise = noise_level(plane) / range;
  const double signal = std::sqrt(std::max(0.0, var / (range * range) - noise * noise));
  // Noise and nothing else spans its own spread: that is a flat picture.
  const bool flat = signal < 0.02 || signal < 6 * noise;
  if (noise > 0.04 && signal >= noise)
    throw Error("the picture is too noisy (noise about " + percent(noise) + " of its values' spread)");
  if (flat)
    throw Error("the picture is too flat (contrast " + percent(signal) + " of its values' spread, noise " +
                percent(noise) + ") to show its blur");
}

void check_kernel(const Image& kernel, int kernel_side) {
  int x0 = kernel.width, x1 = -1, y0 = kernel.height, y1 = -1, taps = 0;
  for (int y = 0; y < kernel.height; ++y)
    for (int x = 0; x < kernel.width; ++x)
      if (kernel.at(x, y) > 0) {
        x0 = std::min(x0, x), x1 = std::max(x1, x), y0 = std::min(y0, y), y1 = std::max(y1, y), ++taps;
      }
  if (x1 < 0) throw Error("no kernel came out");
  if (x1 - x0 + 1 >= kernel_side || y1 - y0 + 1 >= kernel_side)
    throw Error("the blur fills the whole " + std::to_string(kernel_side) + "-pixel support: it is larger, or not one blur (try a larger --size or a --region)");
  if (taps > 0.5 * kernel_side * kernel_side)
    throw Error("the kernel came out spread over its whole support, not a blur to stand behind");
}

void check_likelihood(const Image& plane, const Image& kernel, int kernel_side, int threads) {
  // A middle part of at most 384 x 384 is enough to tell and keeps the
  // likelihood's many evaluations cheap on large pictures.
  const int w = std::min(plane.width, 384), h = std::min(plane.height, 384);
  const Image part = crop(plane, (plane.width - w) / 2, (plane.height - h) / 2, w, h);
  const Transforms t(good_size(w + kernel_side), good_size(h + kernel_side), threads);
  const RealPlane canvas = periodic_extension(part, t.width(), t.height());
  const BlurLikelihood likelihood(t, canvas, noise_level(part));
  const double n = (double)t.pixels(), own = likelihood.score(kernel);
  Image none(1, 1, 1);
  none.pixels[0] = 1;
  const Tuning& tune = tuning();
  const double gain = (likelihood.score(none) - own) / n;
  // A kernel that hardly explains the picture better than no blur at all, or
  // barely better and worse than some plain disk, has mostly fitted the
  // picture's own texture rather than its blur. The disks are tried only
  // when the answer hangs on them, the first one that wins settling it.
  if (gain < tune.trust_least_gain)
    throw Error("the blur hardly explains the picture better than no blur (too few sharp edges)");
  if (gain >= tune.trust_gain) return;
  const auto worse_than_disk = [&](double r) { return (own - likelihood.score(draw("disk", r, 0))) / n > tune.trust_loss; };
  double radius = 1, least = 1e300;
  for (double r = 1; r <= kernel_side / 2.0; r += 1) {
    const double e = likelihood.score(draw("disk", r, 0));
    if ((own - e) / n > tune.trust_loss) radius = -1;
    if (radius < 0) break;
    if (e < least) least = e, radius = r;
  }
  if (radius < 0 || worse_than_disk(radius - 0.5) || worse_than_disk(radius + 0.5))
    throw Error("the blur could not be told apart from the picture's own texture (too few sharp edges)");
}

}  // namespace estimation
}  // namespace deconv
