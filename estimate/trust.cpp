// When not to answer. Before: a picture too small for the kernel's support,
// too flat to show its blur, or too noisy. After: a kernel that fills its
// whole support (the blur is larger than the support, or the estimate has
// drifted into noise).
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

void check_picture(const Image& plane, int kernel_side) {
  const int least = std::max(48, 3 * kernel_side);
  if (plane.width < least || plane.height < least)
    throw Error("the picture (" + std::to_string(plane.width) + " x " + std::to_string(plane.height) +
                ") is too small for a blur of up to " + std::to_string(kernel_side) + " pixels: it needs " +
                std::to_string(least) + " x " + std::to_string(least) + " (a smaller --size needs less)");
  double mean = 0, var = 0;
  for (float v : plane.pixels) mean += v;
  mean /= plane.pixels.size();
  for (float v : plane.pixels) var += (v - mean) * (v - mean);
  var /= plane.pixels.size();
  const double noise = noise_level(plane), signal = std::sqrt(std::max(0.0, var - noise * noise));
  if (noise > 0.04)
    throw Error("the picture is too noisy (noise about " + percent(noise) + " of the range)");
  if (signal < 0.02 || signal < 6 * noise)
    throw Error("the picture is too flat (contrast " + percent(signal) + " of the range, noise " + percent(noise) +
                ") to show its blur");
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

}  // namespace estimation
}  // namespace deconv
