// The PSF kernels: each one builds its taps around the middle pixel and is then
// scaled so that its largest tap is 1.
#include "psf/kernels.h"

#include <cmath>

namespace {

// Scales the taps so that the largest is 1.
CImg<float> peak_at_one(CImg<float> psf) {
  const float peak = psf.max();
  if (peak > 0) psf /= peak;
  return psf;
}

// The share of the unit interval around c that lies within [-half, half].
double coverage(double c, double half) { return std::max(0.0, std::min(c + 0.5, half) - std::max(c - 0.5, -half)); }

}  // namespace

int odd_side(const double reach) { return 2 * (int)std::ceil(reach) + 1; }

CImg<float> gaussian_psf(const double sigma) {
  const int side = odd_side(3 * sigma), mid = side / 2;
  CImg<float> psf(side, side, 1, 1, 0.0f);
  cimg_forXY(psf, x, y) {
    const double r2 = (x - mid) * (x - mid) + (y - mid) * (y - mid);
    if (r2 <= 9 * sigma * sigma) psf(x, y) = (float)std::exp(-r2 / (2 * sigma * sigma));
  }
  return peak_at_one(psf);
}

CImg<float> motion_psf(const double length, const double degrees) {
  // The line as many evenly spaced points, each shared among the four pixels
  // around it in proportion to its closeness (bilinear): an anti-aliased line
  // whose mass is spread evenly along its length and centred on the middle.
  const int side = odd_side(length / 2 + 1), mid = side / 2;
  const double angle = degrees * M_PI / 180, dx = std::cos(angle), dy = -std::sin(angle);
  const int points = std::max(2, (int)std::ceil(length * 32));
  CImg<double> taps(side, side, 1, 1, 0.0);
  for (int i = 0; i < points; ++i) {
    const double t = length * ((i + 0.5) / points - 0.5);
    const double x = mid + t * dx, y = mid + t * dy;
    const int x0 = (int)std::floor(x), y0 = (int)std::floor(y);
    const double fx = x - x0, fy = y - y0;
    taps(x0, y0) += (1 - fx) * (1 - fy);
    taps(x0 + 1, y0) += fx * (1 - fy);
    taps(x0, y0 + 1) += (1 - fx) * fy;
    taps(x0 + 1, y0 + 1) += fx * fy;
  }
  return peak_at_one(CImg<float>(taps));
}

CImg<float> disk_psf(const double radius) {
  // Each pixel's share of the disk, from a 16 x 16 grid of points in it.
  const int side = odd_side(radius), mid = side / 2, grid = 16;
  CImg<float> psf(side, side, 1, 1, 0.0f);
  cimg_forXY(psf, x, y) {
    int inside = 0;
    for (int j = 0; j < grid; ++j)
      for (int i = 0; i < grid; ++i) {
        const double px = x - mid - 0.5 + (i + 0.5) / grid, py = y - mid - 0.5 + (j + 0.5) / grid;
        inside += px * px + py * py <= radius * radius;
      }
    psf(x, y) = (float)inside / (grid * grid);
  }
  return peak_at_one(psf);
}

CImg<float> box_psf(const double width, const double height) {
  const int side = odd_side(std::max(width, height) / 2), mid = side / 2;
  CImg<float> psf(side, side, 1, 1, 0.0f);
  cimg_forXY(psf, x, y) psf(x, y) = (float)(coverage(x - mid, width / 2) * coverage(y - mid, height / 2));
  return peak_at_one(psf);
}

unsigned int file_maximum(const CImg<float>& psf) {
  for (const float tap : psf)
    if (tap > 0 && tap * 255.0f < 1.0f) return 65535;
  return 255;
}
