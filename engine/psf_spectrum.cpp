// The PSF job, first of the first batch: turns the working PSF into its
// spectrum at the picture's size, psf_fft, which the taper jobs blur with and
// the solve inverts. Opening the psf_fft_done latch is its last act.
#include "engine/deconv.h"

void CDeconv::calculate_fft_of_psf() {
  CImg<float> psf_padded;
  psf.move_to(psf_padded);  // the engine's PSF is consumed; only its spectrum remains

  // The PSF's middle lands at (width - 1, height - 1), one pixel short of the
  // origin. Nothing removes the resulting phase factor: the taper's blur comes
  // out one pixel toward -x and -y, and the restoration one toward +x and +y.
  place_kernel(psf_padded, width, height);
  // Renormalised in case the picture was smaller than the PSF and cut some off.
  normalize_to_unit_sum(psf_padded);

  forward_spectrum(std::move(psf_padded), &fft_mutex).move_to(psf_fft);
  sem_post(psf_fft_done);
}
