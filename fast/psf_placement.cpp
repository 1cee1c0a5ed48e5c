// The PSF on the picture's grid, prepared step for step as deconv's engine
// prepares it (canvas, first moment, support, placement), so that the two
// engines restore with the same kernel. Only the last step differs: the
// kernel's middle goes to the origin, where that engine leaves it one sample
// short and rolls its result back afterwards.
#include <cmath>
#include <stdexcept>

#include "fast/problem.h"

namespace deconv {
namespace fast {

namespace {

// A plane of w x h floats, row by row.
struct Plane {
  int w, h;
  std::vector<float> v;
  float& at(int x, int y) { return v[(size_t)y * w + x]; }
};

// Divides every sample by the plane's sum, in double, one division each.
template <class V>
void normalize(V& samples) {
  double sum = 0;
  for (const float p : samples) sum += p;
  for (float& p : samples) p = (float)((double)p / sum);
}

// The PSF in the middle of a zero canvas of 2w + 1 squared (rows that do
// not fit are cut on both sides), at the offset the image library's
// centred resize gives: half the size difference, truncated.
Plane canvas(const float* psf, const int w, const int h) {
  const int side = 2 * w + 1;
  Plane c{side, side, std::vector<float>((size_t)side * side, 0.0f)};
  const int x0 = (int)(0.5f * (float)(side - w)), y0 = (int)(0.5f * (float)(side - h));
  for (int y = 0; y < h; ++y)
    for (int x = 0; x < w; ++x)
      if (y + y0 >= 0 && y + y0 < side) c.at(x + x0, y + y0) = psf[(size_t)y * w + x];
  return c;
}

// The pixel of a centroid, a half going up.
long long pixel_of(const float centroid) { return (long long)floorf(centroid + 0.5f); }

// Moves the canvas's first moment to its centre pixel. The position sums
// count from 1 and are not divided by the sum, which is 1 already.
void recentre(Plane& c) {
  float cx = 0, cy = 0;
  for (int y = 0; y < c.h; ++y)
    for (int x = 0; x < c.w; ++x) {
      const float p = c.at(x, y);
      cx += (x + 1) * p;
      cy += (y + 1) * p;
    }
  if (!std::isfinite(cx) || !std::isfinite(cy)) throw std::invalid_argument("the PSF's centre is not finite");
  const long long dx = (long long)ceilf(c.w * 0.5f) - pixel_of(cx);
  const long long dy = (long long)ceilf(c.h * 0.5f) - pixel_of(cy);
  if (std::llabs(dx) >= c.w || std::llabs(dy) >= c.h)
    throw std::invalid_argument("the PSF's centre of mass lies outside it: its taps have both signs");
  Plane moved{c.w, c.h, std::vector<float>(c.v.size(), 0.0f)};
  for (int y = 0; y < c.h; ++y)
    for (int x = 0; x < c.w; ++x) {
      const long long sx = x - dx, sy = y - dy;  // zeros come in, nothing wraps
      if (sx >= 0 && sx < c.w && sy >= 0 && sy < c.h) moved.at(x, y) = c.at((int)sx, (int)sy);
    }
  c = std::move(moved);
  normalize(c.v);
}

// The smallest odd number at least two more than the side of the box the
// canvas's non-zero taps fill.
int support_band(Plane& c) {
  int x0 = c.w, x1 = -1, y0 = c.h, y1 = -1;
  for (int y = 0; y < c.h; ++y)
    for (int x = 0; x < c.w; ++x)
      if (c.at(x, y) != 0.0f) {
        x0 = std::min(x0, x), x1 = std::max(x1, x);
        y0 = std::min(y0, y), y1 = std::max(y1, y);
      }
  const int m = x1 < 0 ? 0 : std::max(x1 - x0 + 1, y1 - y0 + 1);
  return (m + 2) % 2 ? m + 2 : m + 3;
}

}  // namespace

PlacedPsf place_psf_as_exact_engine(const float* psf, const int psf_width, const int psf_height, const int width,
                                    const int height) {
  Plane c = canvas(psf, psf_width, psf_height);
  recentre(c);
  PlacedPsf placed;
  placed.sizes = {height, width};
  placed.band = support_band(c);
  placed.taper_lag = 1;
  placed.samples.assign((size_t)width * height, 0.0f);
  // deconv's engine puts tap (i, j) at (i + x0 + width / 2, j + y0 + height
  // / 2), wrapped; one more along each axis brings the middle to the origin.
  // The taps that land are renormalised (the picture may cut some off); the
  // rest of the plane is zeros.
  const int x0 = (int)(0.5f * (float)(width - c.w)), y0 = (int)(0.5f * (float)(height - c.h));
  std::vector<std::pair<size_t, float>> taps;
  double sum = 0;
  for (int j = std::max(0, -y0); j < std::min(c.h, height - y0); ++j)
    for (int i = std::max(0, -x0); i < std::min(c.w, width - x0); ++i)
      if (c.at(i, j) != 0.0f) {
        taps.emplace_back((size_t)((j + y0 + height / 2 + 1) % height) * width + (i + x0 + width / 2 + 1) % width,
                          c.at(i, j));
        sum += c.at(i, j);
      }
  for (const auto& [at, value] : taps) placed.samples[at] = (float)((double)value / sum);
  return placed;
}

}  // namespace fast
}  // namespace deconv
