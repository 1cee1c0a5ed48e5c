// Normalisation of a PSF or kernel to unit sum, done in double precision
// wherever the run normalises: the PSF as loaded, on its canvas, at picture
// size, and the taper's Gaussian.
#include "engine/deconv.h"

double checked_sum(const CImg<float>& img) {
  if (img.is_empty())
    throw cimg_library::CImgInstanceException(
        "[instance(%u,%u,%u,%u,%p,%sshared)] CImg<%s>::sum() : Empty instance.", deconv_instance(img));
  return img.sum();
}

void normalize_to_unit_sum(CImg<float>& img) {
  const double sum = checked_sum(img);
  // One double division per pixel, not a multiplication by 1/sum.
  for (float& p : img) p = (float)((double)p / sum);
}
