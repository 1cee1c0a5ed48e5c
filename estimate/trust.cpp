// When not to answer. Before: a picture too small for the kernel's support,
// with nothing but noise in it, or too noisy; the noise is the picture's own
// model (noise.cpp), which grows with the signal. After: a kernel that fills
// its whole support (the blur is larger than the support, or the estimate has
// drifted into noise), one in separate parts (a ghost, or fragments of
// texture), and one that the picture's own likelihood does not stand behind.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <functional>

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

bool too_noisy(const Image& plane, const NoiseModel& noise) {
  const double range = robust_spread(plane).width;
  return range > 0 && std::sqrt(noise.mean_variance(plane)) / range > tuning().trust_noise;
}

void check_picture(const Image& plane, int kernel_side, const NoiseModel& model, const int factor) {
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
  const double noise = std::sqrt(model.mean_variance(plane)) / range;
  const double signal = std::sqrt(std::max(0.0, var / (range * range) - noise * noise));
  // Noise and nothing else spans its own spread: that is a flat picture. A
  // faint picture well above its noise is not: it restores as well as a
  // bright one.
  const Tuning& tune = tuning();
  const bool flat = signal < tune.trust_signal * noise;
  if (noise > tune.trust_noise && signal >= noise)
    throw Error("the picture is too noisy" +
                (factor == 1 ? std::string(" (noise about ")
                             : " even at 1/" + std::to_string(factor) + " of its scale (noise there about ") +
                percent(noise) + " of its values' spread)");
  if (flat)
    throw Error("the picture is too flat (contrast " + percent(signal) + " of its values' spread, noise " +
                percent(noise) + ") to show its blur");
}

std::vector<double> kernel_parts(const Image& kernel, int gap) {
  std::vector<double> parts;
  double total = 0;
  for (const std::vector<int>& members : tap_groups(kernel, gap)) {
    double sum = 0;
    for (const int i : members) sum += kernel.pixels[i];
    parts.push_back(sum);
    total += sum;
  }
  for (double& p : parts) p /= total;
  std::sort(parts.rbegin(), parts.rend());
  return parts;
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
  // One motion of the camera or one lens draws one connected path or patch;
  // pieces far apart are a ghost of the picture's repeated structure (text,
  // a grid) or fragments of its texture, and restore worse than the blur.
  const Tuning& tune = tuning();
  const std::vector<double> parts = kernel_parts(kernel, tune.part_gap);
  if (parts.size() > 1 && parts[0] <= tune.part_main)
    throw Error("the kernel came out in " + std::to_string(parts.size()) +
                " separate parts (a ghost or fragments of the picture's texture, not one blur)");
}

void check_likelihood(const Image& plane, const Image& kernel, int kernel_side, int threads, const NoiseModel& noise) {
  // A middle part of at most 384 x 384 is enough to tell and keeps the
  // likelihood's many evaluations cheap on large pictures.
  const int w = std::min(plane.width, 384), h = std::min(plane.height, 384);
  const Image part = crop(plane, (plane.width - w) / 2, (plane.height - h) / 2, w, h);
  const Transforms t(good_size(w + kernel_side), good_size(h + kernel_side), threads);
  const RealPlane canvas = periodic_extension(part, t.width(), t.height());
  const BlurLikelihood likelihood(t, canvas, std::sqrt(noise.mean_variance(part)));
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

EdgeShares edge_shares(const Image& plane, const NoiseModel& noise) {
  EdgeShares shares;
  const Spread spread = robust_spread(plane);
  if (!(spread.width > 0)) return shares;
  const double near = 0.15 * spread.width, low = spread.low, high = spread.low + spread.width;
  double extremes = 0, steps = 0, count = 0;
  for (int y = 0; y + 2 < plane.height; y += 2)
    for (int x = 0; x + 2 < plane.width; x += 2) {
      const double v = plane.at(x, y);
      extremes += v < low + near || v > high - near;
      // Steps over two samples: well above the noise of both, and a tenth of the spread.
      const double gx = plane.at(x + 2, y) - v, gy = plane.at(x, y + 2) - v;
      const double least = std::max(0.1 * spread.width, 6 * std::sqrt(noise.variance(v)));
      steps += std::sqrt(gx * gx + gy * gy) > least;
      ++count;
    }
  if (count > 0) shares.extremes = extremes / count, shares.steps = steps / count;
  return shares;
}

bool few_natural_edges(const EdgeShares& shares) {
  const Tuning& tune = tuning();
  return shares.extremes > tune.few_extremes || shares.steps < tune.few_steps;
}

double kernel_agreement(const Image& a, const Image& b) {
  // Both on one canvas, middles on its middle; the best of small shifts.
  const int n = std::max(a.width, b.width) + 8, c = n / 2;
  std::vector<double> pa((size_t)n * n, 0.0), pb((size_t)n * n, 0.0);
  const auto place = [n, c](const Image& k, std::vector<double>& p) {
    double norm = 0;
    for (int y = 0; y < k.height; ++y)
      for (int x = 0; x < k.width; ++x) {
        const double v = k.at(x, y);
        p[(size_t)(c + y - k.height / 2) * n + c + x - k.width / 2] = v, norm += v * v;
      }
    return std::sqrt(norm);
  };
  const double na = place(a, pa), nb = place(b, pb);
  if (!(na > 0) || !(nb > 0)) return 0;
  double best = 0;
  for (int dy = -4; dy <= 4; ++dy)
    for (int dx = -4; dx <= 4; ++dx) {
      double dot = 0;
      for (int y = std::max(0, -dy); y < std::min(n, n - dy); ++y)
        for (int x = std::max(0, -dx); x < std::min(n, n - dx); ++x) dot += pa[(size_t)y * n + x] * pb[(size_t)(y + dy) * n + x + dx];
      best = std::max(best, dot / (na * nb));
    }
  return best;
}

void check_halves(const Image& plane, const Image& clipped, const NoiseModel& noise, const Image& kernel,
                  const std::function<Image(const Image&, const Image&, int)>& estimate) {
  const Tuning& tune = tuning();
  if (std::min(plane.width, plane.height) < 2 * tune.agreement_side || !few_natural_edges(edge_shares(plane, noise)))
    return;
  // Text or sky fits a kernel of its own shapes as readily as the blur's:
  // the blur is the kernel each half of the picture agrees on.
  // At half scale: the halves then cost a quarter of the whole, and a
  // kernel's shape, not its last pixel, is what is compared.
  const auto [first, second] = halves({0, 0, plane.width, plane.height});
  int side = kernel.width / 2;
  side += side % 2 == 0;
  const Image whole = resize_kernel(kernel, side);
  double least = 1;
  for (const Window& half : {first, second}) {
    const int w = half.width / 2, h = half.height / 2;
    const Image part = resample(crop(plane, half.x, half.y, half.width, half.height), w, h);
    const Image part_clipped = resample(crop(clipped, half.x, half.y, half.width, half.height), w, h);
    least = std::min(least, kernel_agreement(whole, estimate(part, part_clipped, side)));
  }
  if (least < tune.agreement)
    throw Error("the blur estimated on different parts of the picture disagrees (agreement " + percent(least) +
                "): the picture has too few natural edges (text, sky) to tell its blur; try a --region with more");
}

}  // namespace estimation
}  // namespace deconv
