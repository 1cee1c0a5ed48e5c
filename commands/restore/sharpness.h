// Whether a restoration sharpened its picture: the energy of the result's
// gradients against the picture's, away from the edges that the edge taper
// changes, each less what its noise alone gives. A restoration that undoes a
// real blur raises it several times over; one that does not reach 1.1 has
// undone little of anything. The noise's part is taken off because a
// restoration that also takes the grain of a noisy photograph away lowers
// the gradients' raw energy while it sharpens every edge.
#ifndef DECONV_RESTORE_SHARPNESS_H
#define DECONV_RESTORE_SHARPNESS_H

#include "deconv/deconv.h"

// Below this ratio of gradient energies a result counts as no sharper.
constexpr double least_sharpening = 1.1;

// The mean square of the forward differences along x and y over every
// channel, `margin` pixels in from each edge (the whole picture when it is too
// small for the margin), less four times the noise's variance (each
// difference of two samples carries twice it), the noise measured on the
// finest diagonal detail of 2 x 2 blocks. At most 0 where the noise alone
// explains the gradients.
double gradient_energy(const deconv::Image& image, int margin);

#endif
