// The spectra a strength choice weighs, from a picture that an engine has
// prepared (deconv_prepare): one forward transform of each tapered plane, on a
// thread of its own.
#ifndef DECONV_STRENGTH_WEIGH_H
#define DECONV_STRENGTH_WEIGH_H

#include "engine/deconv.h"
#include "strength/choice.h"

StrengthChoice weigh_picture(const CImg<float>& tapered, CDeconv& engine);

#endif
