// A PSF named by its kind and numbers as a person types them, checked before
// it is drawn: shared by deconv-psf, the library's draw_psf and deconv-restore.
#ifndef DECONV_PSF_NAMED_H
#define DECONV_PSF_NAMED_H

#include <string>
#include <vector>

#include "psf/kernels.h"

// "gaussian SIGMA | motion LENGTH ANGLE | disk RADIUS | box WIDTH HEIGHT"
extern const char* const psf_kinds;

// The PSF of `kind` with `numbers` (as text). Throws std::invalid_argument
// with a one-line reason: an unknown kind, a wrong count of numbers, a number
// that is not one or not above 0 (angles may be anything), a PSF wider than
// 2001 pixels.
CImg<float> draw_named_psf(const std::string& kind, const std::vector<std::string>& numbers);

#endif
