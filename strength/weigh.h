// The spectra a strength choice weighs: each channel tapered as the
// restoration tapers it, then one forward transform, every frequency of its
// half spectrum counted for itself and for its mirror image.
#ifndef DECONV_STRENGTH_WEIGH_H
#define DECONV_STRENGTH_WEIGH_H

#include "fast/problem.h"
#include "strength/choice.h"

// `planes`: `channels` planes of the problem's grid, one after another.
StrengthChoice weigh_picture(const deconv::fast::Problem& problem, const float* planes, int channels,
                             deconv::fast::Workers& workers);

#endif
