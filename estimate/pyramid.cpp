// The scales of the estimation and the planes they need: the luminance, the
// picture and the kernel resampled, and the periodic canvas of a plane.
#include <algorithm>
#include <cmath>

#include "estimate/estimate.h"

namespace deconv {
namespace estimation {

Image luminance(const Image& picture) {
  Image out(picture.width, picture.height, 1);
  const size_t n = (size_t)picture.width * picture.height;
  if (picture.channels >= 3) {
    for (size_t i = 0; i < n; ++i)
      out.pixels[i] =
          0.299f * picture.pixels[i] + 0.587f * picture.pixels[n + i] + 0.114f * picture.pixels[2 * n + i];
  } else {
    std::copy(picture.pixels.begin(), picture.pixels.begin() + n, out.pixels.begin());
  }
  return out;
}

Image crop(const Image& plane, int x, int y, int width, int height) {
  Image out(width, height, 1);
  for (int j = 0; j < height; ++j)
    std::copy_n(&plane.pixels[(size_t)(y + j) * plane.width + x], width, &out.pixels[(size_t)j * width]);
  return out;
}

namespace {

// One axis: `n` samples from `m`, a triangle filter as wide as the step when
// shrinking (anti-aliased), linear interpolation when growing.
struct Taps {
  std::vector<int> first;
  std::vector<std::vector<float>> weights;
};

Taps taps(int m, int n) {
  Taps t;
  const double step = (double)m / n, half = std::max(1.0, step);
  for (int i = 0; i < n; ++i) {
    const double centre = (i + 0.5) * step - 0.5;
    const int lo = (int)std::floor(centre - half) + 1, hi = (int)std::ceil(centre + half) - 1;
    std::vector<float> w;
    double sum = 0;
    for (int k = lo; k <= hi; ++k) {
      const double v = std::max(0.0, 1 - std::fabs(k - centre) / half);
      w.push_back((float)v);
      sum += v;
    }
    for (float& v : w) v = (float)(v / sum);
    t.first.push_back(lo);
    t.weights.push_back(w);
  }
  return t;
}

}  // namespace

Image resample(const Image& plane, int width, int height) {
  if (width == plane.width && height == plane.height) return plane;
  const Taps tx = taps(plane.width, width), ty = taps(plane.height, height);
  Image rows(width, plane.height, 1), out(width, height, 1);
  for (int y = 0; y < plane.height; ++y)
    for (int x = 0; x < width; ++x) {
      float v = 0;
      const std::vector<float>& w = tx.weights[x];
      for (size_t k = 0; k < w.size(); ++k)
        v += w[k] * plane.at(std::min(plane.width - 1, std::max(0, tx.first[x] + (int)k)), y);
      rows.at(x, y) = v;
    }
  for (int y = 0; y < height; ++y) {
    const std::vector<float>& w = ty.weights[y];
    for (int x = 0; x < width; ++x) {
      float v = 0;
      for (size_t k = 0; k < w.size(); ++k)
        v += w[k] * rows.at(x, std::min(plane.height - 1, std::max(0, ty.first[y] + (int)k)));
      out.at(x, y) = v;
    }
  }
  return out;
}

double bilinear(const Image& plane, const double x, const double y) {
  const int x0 = (int)std::floor(x), y0 = (int)std::floor(y);
  const double fx = x - x0, fy = y - y0;
  double v = 0;
  for (int j = 0; j < 2; ++j)
    for (int i = 0; i < 2; ++i) {
      const int xi = x0 + i, yj = y0 + j;
      if (xi < 0 || yj < 0 || xi >= plane.width || yj >= plane.height) continue;
      v += (i ? fx : 1 - fx) * (j ? fy : 1 - fy) * plane.at(xi, yj);
    }
  return v;
}

Image resize_kernel(const Image& kernel, int side) {
  Image out(side, side, 1);
  const double f = (double)side / kernel.width, c_in = kernel.width / 2, c_out = side / 2;
  double sum = 0;
  for (int y = 0; y < side; ++y)
    for (int x = 0; x < side; ++x) {
      const double sx = (x - c_out) / f + c_in, sy = (y - c_out) / f + c_in;
      const double v = bilinear(kernel, sx, sy);
      out.at(x, y) = (float)std::max(0.0, v);
      sum += std::max(0.0, v);
    }
  if (sum > 0)
    for (float& v : out.pixels) v = (float)(v / sum);
  else
    out.at(side / 2, side / 2) = 1;
  return out;
}

Image enlarge_kernel(const Image& kernel, const int factor) {
  const int side = factor * kernel.width | 1;
  const double c_in = kernel.width / 2, c_out = side / 2;
  Image out(side, side, 1);
  double sum = 0;
  for (int y = 0; y < side; ++y)
    for (int x = 0; x < side; ++x)
      sum += out.at(x, y) = (float)std::max(0.0, bilinear(kernel, (x - c_out) / factor + c_in, (y - c_out) / factor + c_in));
  for (float& v : out.pixels) v = (float)(v / sum);
  return out;
}

std::vector<Level> pyramid(int kernel_side) {
  std::vector<Level> levels;
  const double ratio = std::sqrt(0.5);
  for (int l = 0;; ++l) {
    const double scale = std::pow(ratio, l);
    int side = (int)std::ceil(kernel_side * scale);
    side += side % 2 == 0;
    levels.push_back({scale, std::max(3, side)});
    if (side <= 5) break;
  }
  std::reverse(levels.begin(), levels.end());
  return levels;
}

RealPlane periodic_extension(const Image& plane, int width, int height) {
  const int w = plane.width, h = plane.height;
  RealPlane out((size_t)width * height, 0.0f);
  // Across a band the canvas is the plane mirrored at the edge it leaves,
  // blended smoothly into the plane mirrored at the edge it comes back to.
  const auto blend = [](int i, int band) {
    const double t = (i + 0.5) / band;
    return (float)(t * t * (3 - 2 * t));
  };
  const auto mirror = [](int i, int n) { return std::min(n - 1, std::max(0, i)); };
  const int bx = width - w, by = height - h;
  for (int y = 0; y < h; ++y) {
    float* row = &out[(size_t)y * width];
    std::copy_n(&plane.pixels[(size_t)y * w], w, row);
    for (int i = 0; i < bx; ++i) {
      const float s = blend(i, bx);
      const float leaving = plane.at(mirror(w - 1 - i, w), y), coming = plane.at(mirror(bx - 1 - i, w), y);
      row[w + i] = (1 - s) * leaving + s * coming;
    }
  }
  for (int i = 0; i < by; ++i) {
    const float s = blend(i, by);
    const float* leaving = &out[(size_t)mirror(h - 1 - i, h) * width];
    const float* coming = &out[(size_t)mirror(by - 1 - i, h) * width];
    float* row = &out[(size_t)(h + i) * width];
    for (int x = 0; x < width; ++x) row[x] = (1 - s) * leaving[x] + s * coming[x];
  }
  return out;
}

}  // namespace estimation
}  // namespace deconv
