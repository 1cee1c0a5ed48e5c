// The window of a large picture to estimate from: about the pixels asked for,
// where the picture has the most edges (gradient magnitude, measured on a
// quarter-scale copy so that noise counts little) and no clipped highlights,
// whose blur no kernel explains; and the halves of a window, on which a
// picture of few natural edges is estimated again to see the blur agree.
#include <algorithm>
#include <cmath>

#include "estimate/estimate.h"

namespace deconv {
namespace estimation {

Window choose_window(const Image& plane, long pixels) {
  const int w = plane.width, h = plane.height;
  if ((double)w * h <= 1.25 * pixels) return {0, 0, w, h};
  int ww = std::min(w, (int)std::lround(std::sqrt((double)pixels)));
  int wh = std::min(h, (int)(pixels / ww));
  ww = std::min(w, (int)(pixels / wh));
  const int f = 4, sw = w / f, sh = h / f;
  const Image small = resample(plane, sw, sh);
  // Integral image of the edge score.
  std::vector<double> integral((size_t)(sw + 1) * (sh + 1), 0.0);
  for (int y = 0; y < sh; ++y)
    for (int x = 0; x < sw; ++x) {
      const float v = small.at(x, y);
      const float gx = small.at(std::min(sw - 1, x + 1), y) - v, gy = small.at(x, std::min(sh - 1, y + 1)) - v;
      double score = std::min(0.25, std::sqrt((double)gx * gx + gy * gy));
      if (v > 0.98f) score = -0.25;  // clipped highlights
      integral[(size_t)(y + 1) * (sw + 1) + x + 1] = score + integral[(size_t)y * (sw + 1) + x + 1] +
                                                      integral[(size_t)(y + 1) * (sw + 1) + x] -
                                                      integral[(size_t)y * (sw + 1) + x];
    }
  const int bw = ww / f, bh = wh / f;
  double best = -1e300;
  Window win{0, 0, ww, wh};
  for (int y = 0; y + bh <= sh; y += 4)
    for (int x = 0; x + bw <= sw; x += 4) {
      const double s = integral[(size_t)(y + bh) * (sw + 1) + x + bw] - integral[(size_t)y * (sw + 1) + x + bw] -
                       integral[(size_t)(y + bh) * (sw + 1) + x] + integral[(size_t)y * (sw + 1) + x];
      if (s > best) best = s, win.x = x * f, win.y = y * f;
    }
  win.x = std::min(win.x, w - ww);
  win.y = std::min(win.y, h - wh);
  return win;
}

std::pair<Window, Window> halves(const Window& win) {
  Window a = win, b = win;
  if (win.width >= win.height) {
    a.width = win.width / 2, b.x = win.x + a.width, b.width = win.width - a.width;
  } else {
    a.height = win.height / 2, b.y = win.y + a.height, b.height = win.height - a.height;
  }
  return {a, b};
}

}  // namespace estimation
}  // namespace deconv
