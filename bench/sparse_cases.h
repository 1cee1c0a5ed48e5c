// Sparse scenes for the strength evaluation: point sources on a flat sky, as
// a telescope sees a star field or a microscope fluorescent spots. The true
// scene holds each source as a small Gaussian (FWHM 1.5 pixels, just
// resolved, so that a restoration has a width to reach); the picture is that
// scene blurred by a Moffat or Gaussian PSF with noise whose variance grows
// with the signal (photon noise, its level given at the sky). Widths are
// measured as a user measures a star: the area above half its peak.
#ifndef DECONV_BENCH_SPARSE_CASES_H
#define DECONV_BENCH_SPARSE_CASES_H

#include <algorithm>
#include <cmath>
#include <random>
#include <vector>

#include "imaging/cimg_config.h"

using cimg_library::CImg;

constexpr double source_sigma = 1.5 / 2.3548;  // FWHM 1.5 pixels

// A Moffat PSF of this FWHM and exponent beta, sampled at pixel centres on an
// odd square of `side`, the largest tap 1.
inline CImg<float> moffat_psf(double fwhm, double beta, int side) {
  const double alpha = fwhm / (2 * std::sqrt(std::pow(2.0, 1 / beta) - 1));
  CImg<float> psf(side, side);
  cimg_forXY(psf, x, y) {
    const double r2 = (x - side / 2) * (x - side / 2) + (y - side / 2) * (y - side / 2);
    psf(x, y) = (float)std::pow(1 + r2 / (alpha * alpha), -beta);
  }
  return psf;
}

// A Gaussian PSF of standard deviation sigma on an odd square of `side`.
inline CImg<float> gaussian_psf_of_side(double sigma, int side) {
  CImg<float> psf(side, side);
  cimg_forXY(psf, x, y) {
    const double r2 = (x - side / 2) * (x - side / 2) + (y - side / 2) * (y - side / 2);
    psf(x, y) = (float)std::exp(-r2 / (2 * sigma * sigma));
  }
  return psf;
}

struct Source {
  double x, y, flux;
};

// Adds a source of `flux` at (x, y) to `scene`, as the small Gaussian it is.
inline void draw_source(CImg<float>& scene, const Source& s) {
  const double norm = s.flux / (2 * M_PI * source_sigma * source_sigma);
  for (int y = std::max(0, (int)s.y - 4); y <= std::min(scene.height() - 1, (int)s.y + 5); ++y)
    for (int x = std::max(0, (int)s.x - 4); x <= std::min(scene.width() - 1, (int)s.x + 5); ++x) {
      const double r2 = (x - s.x) * (x - s.x) + (y - s.y) * (y - s.y);
      scene(x, y) += (float)(norm * std::exp(-r2 / (2 * source_sigma * source_sigma)));
    }
}

struct SparseScene {
  CImg<float> truth, blurred;
  std::vector<Source> measured;  // isolated bright sources; the first is where a PSF is cut
};

// A side x side scene of `sky` with `faint` sources whose blurred peaks lie
// between faint_low and faint_high (log-uniform), and four isolated sources of
// blurred peak `bright`, blurred by `psf` beyond the crop, with noise of
// standard deviation noise * sqrt(value / sky).
inline SparseScene sparse_scene(const CImg<float>& psf, int side, double sky, int faint, double faint_low,
                                double faint_high, double bright, double noise, unsigned seed) {
  const int margin = psf.width();
  const CImg<float> kernel = psf / psf.sum();
  // The blurred peak of a source of flux 1, to set fluxes by their peaks.
  CImg<float> one(2 * margin + 1, 2 * margin + 1, 1, 1, 0);
  draw_source(one, {(double)margin, (double)margin, 1.0});
  const double unit_peak = one.get_convolve(kernel).max();

  std::mt19937 rng(seed);
  std::uniform_real_distribution<double> unit(0, 1);
  SparseScene s;
  const double third = side / 3.0;
  for (const auto& [fx, fy] : {std::pair{1.5, 1.5}, {0.5, 0.5}, {2.5, 0.5}, {0.5, 2.5}})
    s.measured.push_back({fx * third + unit(rng), fy * third + unit(rng), bright / unit_peak});
  std::vector<Source> sources = s.measured;
  while ((int)sources.size() < faint + 4) {
    const Source f{-margin + unit(rng) * (side + 2 * margin), -margin + unit(rng) * (side + 2 * margin),
                   faint_low * std::pow(faint_high / faint_low, unit(rng)) / unit_peak};
    const bool near_measured = std::any_of(s.measured.begin(), s.measured.end(), [&](const Source& m) {
      return std::hypot(f.x - m.x, f.y - m.y) < 2.0 * margin / 3;
    });
    if (!near_measured) sources.push_back(f);
  }
  CImg<float> wide(side + 2 * margin, side + 2 * margin, 1, 1, (float)sky);
  for (const Source& source : sources) draw_source(wide, {source.x + margin, source.y + margin, source.flux});
  s.truth = wide.get_crop(margin, margin, margin + side - 1, margin + side - 1);
  s.blurred = wide.get_convolve(kernel).crop(margin, margin, margin + side - 1, margin + side - 1);
  std::normal_distribution<double> gauss(0, 1);
  for (float& v : s.blurred) v += (float)(noise * std::sqrt(std::max((double)v, sky) / sky) * gauss(rng));
  return s;
}

// The PSF as a user cuts it from the picture: the square of `side` around the
// source's nearest pixel, less the median of its border (the sky), negative
// taps set to 0.
inline CImg<float> cut_psf(const CImg<float>& picture, const Source& star, int side) {
  const int x0 = (int)std::lround(star.x) - side / 2, y0 = (int)std::lround(star.y) - side / 2;
  CImg<float> psf = picture.get_crop(x0, y0, x0 + side - 1, y0 + side - 1);
  std::vector<float> border;
  cimg_forXY(psf, x, y) if (x == 0 || y == 0 || x == side - 1 || y == side - 1) border.push_back(psf(x, y));
  std::nth_element(border.begin(), border.begin() + border.size() / 2, border.end());
  const float sky = border[border.size() / 2];
  for (float& v : psf) v = std::max(0.0f, v - sky);
  return psf;
}

// The FWHM in pixels of the source near (x, y): twice the radius of the disk
// whose area the pixels above half its peak cover (the peak over the sky of
// the ring from `radius` to `radius` + 3), the picture sampled on a grid four
// times finer by bilinear interpolation.
inline double source_fwhm(const CImg<float>& picture, const Source& s, double radius) {
  std::vector<float> ring;
  for (int y = (int)(s.y - radius - 4); y <= (int)(s.y + radius + 4); ++y)
    for (int x = (int)(s.x - radius - 4); x <= (int)(s.x + radius + 4); ++x) {
      const double r = std::hypot(x - s.x, y - s.y);
      if (r >= radius && r < radius + 3) ring.push_back(picture(x, y));
    }
  std::nth_element(ring.begin(), ring.begin() + ring.size() / 2, ring.end());
  const double sky = ring[ring.size() / 2];
  std::vector<std::pair<double, float>> samples;  // distance, value
  double peak = -1e30;
  for (double y = s.y - radius; y <= s.y + radius; y += 0.25)
    for (double x = s.x - radius; x <= s.x + radius; x += 0.25) {
      const double r = std::hypot(x - s.x, y - s.y);
      if (r > radius) continue;
      const float v = picture.linear_atXY((float)x, (float)y);
      samples.push_back({r, v});
      if (r < 1.5) peak = std::max(peak, (double)v);
    }
  const double half = sky + (peak - sky) / 2;
  int above = 0;
  for (const auto& [r, v] : samples) above += v >= half;
  return 2 * std::sqrt(above / 16.0 / M_PI);
}

#endif
