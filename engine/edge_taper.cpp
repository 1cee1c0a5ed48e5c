// Edge taper, one job per channel of the first batch: blends a band along the
// four borders of a plane towards the plane blurred by the PSF, so that the
// periodic transforms of the solve see softer edges. Waits on the psf_fft_done
// latch for the PSF job's spectrum; the tapered plane is what the solve reads.
#include <cmath>

#include "engine/deconv.h"

namespace {

// |erf(u)| by Winitzki's closed form, in single precision; 1.2732395f is 4/pi.
float erf_magnitude(const float u) {
  const float a = (0.140012f * u) * u;
  const float e = expf(((0 - u * u) * (1.2732395f + a)) / (a + 1));
  return sqrtf(1 - e);
}

// Weight of the sharp pixel at position p along an axis of n pixels: an S-shaped
// ramp 0.5 (1 + erf((d - h) s)) of the distance d from the nearer border, which
// stops at d = t and is 1 beyond.
float taper_weight(const int p, const int n, const int t, const int h, const float s) {
  if (p < t) {
    const int m = p - h;
    const float sign = p < h ? -1.0f : 1.0f;
    return (erf_magnitude(m * s) * 0.5f) * sign + 0.5f;
  }
  if (p + t >= n) {
    const int m = (t - h) + p - n;
    const float sign = p + t - n >= h ? -1.0f : 1.0f;
    return (erf_magnitude(m * s) * 0.5f) * sign + 0.5f;
  }
  return 1.0f;
}

}  // namespace

void CDeconv::fftconv(CImg<float>& result, CImg<float>& image, CImgList<float>& kernel_fft) {
  fft_convolve(result, image, kernel_fft, &fft_mutex);
}

void CDeconv::fftconv(CImg<float>& result, CImg<float>& image, CImg<float>& kernel) {
  fft_convolve(result, image, kernel, &fft_mutex);
}

namespace {

// Blends the band of width t along the borders of image towards blurred(x, y).
template <class Blurred>
void blend_borders(CImg<float>& image, const Blurred& blurred, const int width, const int height, const int t) {
  const int h = t / 2;
  const float s = (float)(1 / std::sqrt((double)(4 * t)));  // the float nearest 1/sqrt(4t)
  std::vector<float> column_weight(image.width());
  for (int x = 0; x < image.width(); ++x) column_weight[x] = taper_weight(x, width, t, h, s);

  const int W = image.width(), H = image.height();
  for (int y = 0; y < H; ++y) {
    const bool whole_row = y < t || y > H - t - 1;
    int x = whole_row || t > 0 ? 0 : W - t;
    if (x >= W) continue;
    const float wy = taper_weight(y, height, t, h, s);
    // A middle row visits only its two bands: at x == t it jumps to W - t.
    // For W between t and 2t that jump goes backwards and the walk never ends;
    // nothing compares the picture's size with the PSF's, deliberately.
    while (x < W) {
      float w = std::min(column_weight[x], wy);  // corners take the smaller weight
      w = std::max(0.0f, w);
      w = std::min(1.0f, w);
      image(x, y) = (1 - w) * blurred(x, y) + w * image(x, y);
      ++x;
      if (!whole_row && x == t) x = W - t;
    }
  }
}

}  // namespace

void CDeconv::taper_edges(CImg<float>& image, const int taper_width, const bool use_gaussian) {
  sem_wait(psf_fft_done);  // pass the latch and leave it open for the next job
  sem_post(psf_fft_done);

  const int t = taper_width;
  // The blur keeps the PSF's one-pixel displacement: it is not re-aligned.
  if (!use_gaussian) {
    // Only the bands are read, so the blurred plane stays in the FFT buffer.
    fft_convolve_read(
        image, psf_fft, [&](const auto& blurred) { blend_borders(image, blurred, width, height, t); }, &fft_mutex);
    return;
  }
  CImg<float> gaussian(width, height, 1, 1);
  const float sigma = (float)t / 3.0f;
  const float color = 255.0f;
  gaussian.draw_gaussian((float)(width / 2), (float)(height / 2), CImg<float>::matrix(sigma, 0, 0, sigma), &color,
                         1.0f);
  normalize_to_unit_sum(gaussian);
  CImg<float> blurred;  // the convolution gives it the plane's size
  fftconv(blurred, image, gaussian);
  blend_borders(image, blurred, width, height, t);
}
