// Test pictures made the way the evaluations and their samples in the suite
// make them, and measured alike: a photograph's crop blurred as a lens blurs a
// scene, a PSF drawn by hand, what deconv writes for it, and its PSNR.
#ifndef DECONV_BENCH_PHOTO_CASES_H
#define DECONV_BENCH_PHOTO_CASES_H

#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
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

// MSE against the sharp picture over the interior (`border` pixels left out,
// where the taper works), at the best whole-pixel offset up to `shift`: a
// restoration stands one pixel toward +x and +y, by design.
inline double interior_mse(const CImg<float>& result, const CImg<float>& sharp, int border, int shift) {
  const int right = result.width() - 1 - border, bottom = result.height() - 1 - border;
  const CImg<float> reference = sharp.get_crop(border, border, right, bottom);
  double best = 1e300;
  for (int dy = -shift; dy <= shift; ++dy)
    for (int dx = -shift; dx <= shift; ++dx)
      best = std::min(best, result.get_crop(border + dx, border + dy, right + dx, bottom + dy).MSE(reference));
  return best;
}

inline double psnr(double mse) { return 10 * std::log10(255.0 * 255.0 / std::max(mse, 1e-10)); }

inline double interior_psnr(const CImg<float>& result, const CImg<float>& sharp, int border, int shift) {
  return psnr(interior_mse(result, sharp, border, shift));
}

// Benchmarks that make engines run in a /dev/shm of their own (the engine's
// semaphore names are the machine's): the first call starts the program
// again under `unshare` and returns only if that fails.
inline void restart_in_own_shm(char** argv) {
  if (getenv("DECONV_BENCH_OWN_SHM")) return;
  setenv("DECONV_BENCH_OWN_SHM", "1", 1);
  execlp("unshare", "unshare", "-rm", "sh", "-c", "mount -t tmpfs tmpfs /dev/shm && exec \"$0\"", argv[0], (char*)nullptr);
  std::perror("unshare");
  std::exit(1);
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
