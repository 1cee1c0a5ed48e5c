// The engine's entry: prepares the PSF on the calling thread, publishes it and
// the picture's size, then runs the two batches one after the other. The last
// collection of the first batch is the only barrier between the stages.
#include "engine/deconv.h"

void CDeconv::deconv_nonblind(CImg<float>& output, CImg<float>& input, CImg<float>& psf) {
  deconv_prepare(input, psf);
  deconv_master(output, input);
}

void CDeconv::prepare_psf(CImg<float>& psf) {
  // A zero canvas of 2w + 1 squared, both sides from the width alone, so that
  // centring can move the PSF anywhere without losing it. Only the first plane
  // and slice stay; rows that do not fit are cut on both sides.
  const int w = psf.width();
  psf.resize(2 * w + 1, 2 * w + 1, 1, 1, 0, 0, 0.5f, 0.5f, 0.0f, 0.0f);
  RecenterPsf(psf);
}

void CDeconv::deconv_prepare(CImg<float>& input, CImg<float>& psf) {
  prepare_psf(psf);

  // Written while the workers sleep: the masters' fan-out orders these writes
  // before every job.
  this->psf.assign(psf, false);
  width = input.width();
  height = input.height();
  channels = input.spectrum();

  taper_and_gradient_master(input);
}
