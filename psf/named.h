// A PSF named by its kind and numbers as a person types them, checked before
// it is drawn: shared by deconv-psf, the library's draw_psf and deconv-restore.
#ifndef DECONV_PSF_NAMED_H
#define DECONV_PSF_NAMED_H

#include <string>
#include <vector>

#include "psf/kernels.h"

// "gaussian SIGMA | motion LENGTH ANGLE | disk RADIUS | box WIDTH HEIGHT |
// widefield NA WAVELENGTH INDEX PIXEL ZSTEP [PLANES [SAMPLE_INDEX DEPTH]]"
extern const char* const psf_kinds;

// The PSF of `kind` with `numbers` (as text). Throws std::invalid_argument
// with a one-line reason: an unknown kind, a wrong count of numbers, a number
// that is not one or not above 0 (angles may be anything), a PSF wider than
// 2001 pixels. A widefield PSF (psf/widefield.h) is a stack: depth PLANES
// (odd; 0 or none: enough for four axial half-widths either side of focus),
// of a point DEPTH nm into a sample of SAMPLE_INDEX where one is given;
// also refused for NA not below INDEX, an index outside 1 to 3, a DEPTH
// beyond 200 wavelengths, more than 2001 planes or 2^26 samples, or a draw
// of more than about twenty seconds.
CImg<float> draw_named_psf(const std::string& kind, const std::vector<std::string>& numbers);

#endif
