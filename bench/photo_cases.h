// Test pictures made the way the evaluations and their samples in the suite
// make them, and measured alike: a photograph's crop blurred as a lens blurs a
// scene, a PSF drawn by hand, what deconv writes for it, and its PSNR.
#ifndef DECONV_BENCH_PHOTO_CASES_H
#define DECONV_BENCH_PHOTO_CASES_H

#include <random>

#include "engine/deconv.h"
#include "tool/value_range.h"

// The side x side crop at (x, y) of the photograph blurred by `psf` (the blur
// taken from beyond the crop), with Gaussian noise of `noise` times 255,
// rounded and clamped to bytes.
inline CImg<float> blurred_crop(const CImg<float>& photo, const CImg<float>& psf, int x, int y, int side, double noise,
                                unsigned seed) {
  const int margin = psf.width();
  CImg<float> out = photo.get_crop(x - margin, y - margin, x + side - 1 + margin, y + side - 1 + margin)
                        .convolve(psf / psf.sum(), 1)
                        .crop(margin, margin, margin + side - 1, margin + side - 1);
  std::mt19937 rng(seed);
  std::normal_distribution<float> gauss(0.0f, (float)(noise * 255));
  for (float& v : out) v = std::min(255.0f, std::max(0.0f, std::round(v + (noise > 0 ? gauss(rng) : 0.0f))));
  return out;
}

// A round Gaussian PSF as a user draws one by hand: taps 0..255.
inline CImg<float> gaussian(int size, float sigma) {
  const float white = 255;
  return CImg<float>(size, size, 1, 1, 0).draw_gaussian(size / 2, size / 2, sigma, &white).round();
}

// PSNR against the sharp picture over the interior (`border` pixels left out,
// where the taper works), at the best whole-pixel offset up to `shift`: a
// restoration stands one pixel toward +x and +y, by design.
inline double interior_psnr(const CImg<float>& result, const CImg<float>& sharp, int border, int shift) {
  const int right = result.width() - 1 - border, bottom = result.height() - 1 - border;
  const CImg<float> reference = sharp.get_crop(border, border, right, bottom);
  double best = 0;
  for (int dy = -shift; dy <= shift; ++dy)
    for (int dx = -shift; dx <= shift; ++dx)
      best = std::max(best, result.get_crop(border + dx, border + dy, right + dx, bottom + dy).PSNR(reference, 255));
  return best;
}

// What deconv writes for this picture (bytes' values) with this PSF and
// strength. The engine holds the machine's semaphore names.
inline CImg<float> deconv_restored(const CImg<float>& picture, const CImg<float>& psf, int strength) {
  CImg<float> image = picture / 255.0f, kernel(psf), output(image.width(), image.height(), 1, image.spectrum());
  normalize_to_unit_sum(kernel);
  CDeconv engine(2, strength);
  engine.deconv_nonblind(output, image, kernel);
  for (float& v : output) v = (float)to_file_value(v, 255);
  return output;
}

#endif
