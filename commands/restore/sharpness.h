// Whether a restoration sharpened its picture: the energy of the result's
// gradients against the picture's, away from the edges that the edge taper
// changes. A restoration that undoes a real blur raises it several times
// over; one that does not reach 1.1 has undone little of anything.
#ifndef DECONV_RESTORE_SHARPNESS_H
#define DECONV_RESTORE_SHARPNESS_H

#include "deconv/deconv.h"

// Below this ratio of gradient energies a result counts as no sharper.
constexpr double least_sharpening = 1.1;

// The mean square of the forward differences along x and y over every
// channel, `margin` pixels in from each edge (the whole picture when it is too
// small for the margin).
double gradient_energy(const deconv::Image& image, int margin);

#endif
