// The 3-D PSF of a widefield fluorescence microscope, from its objective's
// numbers, for deconv-psf, the library's draw_psf and deconv-restore --psf:
// the scalar Kirchhoff diffraction integral in its non-paraxial form (Born &
// Wolf, Principles of Optics, 8.8), the immersion matched to the sample,
//
//   I(r, z) = |int_0^1 J0(k NA r rho) exp(-i k z (n - sqrt(n^2 - NA^2 rho^2))) rho drho|^2,
//
// sampled at the centres of the pixels and planes. psf/named.cpp checks the
// numbers and chooses the size from widefield_extent(); widefield_psf()
// draws it.
#ifndef DECONV_PSF_WIDEFIELD_H
#define DECONV_PSF_WIDEFIELD_H

#include "psf/kernels.h"

// The numbers a microscope's user knows. Lengths in nanometres, at the sample.
struct Objective {
  double aperture = 0;    // numerical aperture, below index
  double wavelength = 0;  // emission wavelength in vacuum
  double index = 0;       // refractive index of the immersion (and of the sample)
  double pixel = 0;       // lateral size of a pixel
  double z_step = 0;      // distance between planes
};

// The axial full width at half maximum, in nm, as the textbooks give it for
// high apertures: 0.88 lambda / (n - sqrt(n^2 - NA^2)). The integral's own
// is up to 6 % wider (tests/psf/widefield_test.cpp); this sizes the stack.
double axial_fwhm(const Objective& objective);

// How far the PSF reaches from its middle, in pixels, as doubles so that
// absurd numbers can be refused before they are rounded into sizes.
struct WidefieldReach {
  double rings;  // four Airy radii (0.61 lambda / NA): the focal plane's rings
  double cone;   // the geometric cone of light at the outermost plane, plus an Airy radius
};
WidefieldReach widefield_reach(const Objective& objective, int half_depth);

// The steps in rho the integral takes for a PSF of `side` x `side` x
// `planes`: enough for several samples per radian of the integrand's phase
// at the farthest corner of the outermost plane.
double widefield_steps(const Objective& objective, int side, int planes);

// The PSF as `side` x `side` x `planes` (both odd), its focus on the middle
// pixel of the middle plane, the largest tap 1.
CImg<float> widefield_psf(const Objective& objective, int side, int planes);

#endif
