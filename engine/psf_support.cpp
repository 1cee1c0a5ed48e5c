// Two small measurements of the PSF on its canvas: RecenterPsf moves its first
// moment to the centre pixel and normalises it (for deconv_nonblind), and
// FindSupport gives the odd width of the box it really fills, which becomes the
// edge taper's band (for taper_and_gradient_master).
#include <climits>
#include <cmath>

#include "engine/deconv.h"

namespace {

// A centroid rounded to its pixel, a half going up. One that is not finite
// (a PSF that sums to 0, or holds NaN or infinity) or beyond an int has no
// pixel: it gives INT_MIN, as the processor's own conversion would.
long long pixel_of(const float centroid) {
  const float rounded = floorf(centroid + 0.5f);
  return std::isfinite(rounded) && rounded >= (float)INT_MIN && rounded < -(float)INT_MIN ? (long long)rounded
                                                                                          : INT_MIN;
}

}  // namespace

void CDeconv::RecenterPsf(CImg<float>& psf) {
  const int w = psf.width(), h = psf.height();
  if (w != h || w % 2 != 1) throw cimg_library::CImgArgumentException("PSF must be square with odd dimensions");

  // Position sums counted from 1 and not divided by the PSF's sum: the PSF is
  // taken to sum to 1 already, so they stand for the centroid. A plane that
  // sums to something else is moved by that much more, by design.
  float cx = 0, cy = 0;
  for (int y = 0; y < h; ++y)
    for (int x = 0; x < w; ++x) {
      const float p = psf(x, y);
      cx += (x + 1) * p;
      cy += (y + 1) * p;
    }
  // The centroid's pixel against the centre pixel. A centroid with no pixel
  // asks for a shift past the canvas, which leaves only zeros: the sum below
  // is then 0 and the PSF NaN, which restores to a black picture.
  const long long dx = (long long)ceilf(w * 0.5f) - pixel_of(cx);
  const long long dy = (long long)ceilf(h * 0.5f) - pixel_of(cy);
  if (std::llabs(dx) >= w || std::llabs(dy) >= h)
    psf.fill(0.0f);
  else
    psf.shift((int)dx, (int)dy, 0, 0, 0);  // zeros come in, nothing wraps
  normalize_to_unit_sum(psf);
}

int CDeconv::FindSupport(CImg<float>& psf) {
  CImg<float> box(psf);
  box.autocrop(0.0f, "xy");
  const int m = std::max(box.width(), box.height());
  return (m + 2) % 2 ? m + 2 : m + 3;  // the smallest odd number >= m + 2
}
