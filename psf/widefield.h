// The 3-D PSF of a widefield fluorescence microscope, from its objective's
// numbers, for deconv-psf, the library's draw_psf and deconv-restore --psf:
// the scalar Kirchhoff diffraction integral in its non-paraxial form (Born &
// Wolf, Principles of Optics, 8.8),
//
//   I(r, z) = |int_0^1 J0(k NA r rho) exp(-i k z (n - sqrt(n^2 - NA^2 rho^2))) rho drho|^2,
//
// sampled at the centres of the pixels and planes. Where the sample's index
// differs from the immersion's, the phase is Gibson & Lanni's (J. Opt. Soc.
// Am. A 8, 1991) for a point at a depth below the coverslip (the coverslip
// as designed). psf/named.cpp checks the numbers and chooses the size from
// widefield_reach(); widefield_psf() draws it.
#ifndef DECONV_PSF_WIDEFIELD_H
#define DECONV_PSF_WIDEFIELD_H

#include "psf/kernels.h"

// The numbers a microscope's user knows. Lengths in nanometres, at the sample.
struct Objective {
  double aperture = 0;    // numerical aperture, below index
  double wavelength = 0;  // emission wavelength in vacuum
  double index = 0;       // refractive index of the immersion (and of the sample)
  double pixel = 0;       // lateral size of a pixel
  double z_step = 0;      // distance between planes, of the focus as the stage moves it
  // The sample's refractive index where it differs from the immersion's
  // (0: the same), and the depth of the point below the coverslip.
  double sample_index = 0;
  double depth = 0;
};

// Where the focus must be, as the stage puts it below the coverslip in nm,
// for the brightest image of the point: its depth when the sample matches
// the immersion, elsewhere where the mismatch's spherical aberration leaves
// the axis brightest (found on the axis alone, to a nanometre).
double widefield_focus(const Objective& objective);

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
double widefield_steps(const Objective& objective, double focus, int side, int planes);

// The PSF as `side` x `side` x `planes` (both odd), the middle plane at
// `focus`, the planes deeper as z grows, the largest tap 1.
CImg<float> widefield_psf(const Objective& objective, double focus, int side, int planes);

#endif
