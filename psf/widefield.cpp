// The widefield PSF, integrated over the pupil by Simpson's rule. The
// integrand separates into a Bessel factor that depends only on the radius
// and a defocus factor that depends only on the plane, so each is evaluated
// once (the Bessel factor once for every distinct squared radius of the
// square's first octant) and every voxel is one dot product of the two.
#include "psf/widefield.h"

#include <cmath>
#include <vector>

double axial_fwhm(const Objective& o) {
  return 0.88 * o.wavelength / (o.index - std::sqrt(o.index * o.index - o.aperture * o.aperture));
}

WidefieldReach widefield_reach(const Objective& o, const int half_depth) {
  const double airy = 0.61 * o.wavelength / o.aperture / o.pixel;
  const double tangent = o.aperture / std::sqrt(o.index * o.index - o.aperture * o.aperture);
  return {4 * airy, half_depth * o.z_step * tangent / o.pixel + airy};
}

double widefield_steps(const Objective& o, const int side, const int planes) {
  const double k = 2 * M_PI / o.wavelength;
  const double corner = std::sqrt(2.0) * (side / 2) * o.pixel, deepest = (planes / 2) * o.z_step;
  const double radians =
      k * o.aperture * corner + k * deepest * (o.index - std::sqrt(o.index * o.index - o.aperture * o.aperture));
  // Even, for Simpson's rule; 256 at least, where the integrand barely turns.
  return 2 * std::ceil(std::max(128.0, 2 * radians));
}

CImg<float> widefield_psf(const Objective& o, const int side, const int planes) {
  const int mid = side / 2, middle = planes / 2, steps = (int)widefield_steps(o, side, planes);
  const double k = 2 * M_PI / o.wavelength, n2 = o.index * o.index, na2 = o.aperture * o.aperture;

  // Simpson's weights, times the integrand's rho.
  std::vector<double> rho(steps + 1), weight(steps + 1);
  for (int s = 0; s <= steps; ++s) {
    rho[s] = (double)s / steps;
    weight[s] = (s == 0 || s == steps ? 1 : s % 2 ? 4 : 2) / (3.0 * steps) * rho[s];
  }

  // The defocus factor of each plane. The phase is measured from the axial
  // ray's, so that it stays small near focus and the sums cancel little.
  std::vector<double> defocus_cos((size_t)planes * (steps + 1)), defocus_sin(defocus_cos.size());
  for (int z = 0; z < planes; ++z)
    for (int s = 0; s <= steps; ++s) {
      const double phase = -k * (z - middle) * o.z_step * (o.index - std::sqrt(n2 - na2 * rho[s] * rho[s]));
      defocus_cos[(size_t)z * (steps + 1) + s] = std::cos(phase);
      defocus_sin[(size_t)z * (steps + 1) + s] = std::sin(phase);
    }

  // One column of intensities along z for every distinct squared radius;
  // the pixels then look theirs up.
  std::vector<int> column(2 * (size_t)mid * mid + 1, -1);
  int columns = 0;
  for (int dy = 0; dy <= mid; ++dy)
    for (int dx = dy; dx <= mid; ++dx)
      if (column[dx * dx + dy * dy] < 0) column[dx * dx + dy * dy] = columns++;
  std::vector<float> intensity((size_t)columns * planes);
  std::vector<double> bessel(steps + 1);
  for (size_t r2 = 0; r2 < column.size(); ++r2) {
    if (column[r2] < 0) continue;
    const double v = k * o.aperture * std::sqrt((double)r2) * o.pixel;
    for (int s = 0; s <= steps; ++s) bessel[s] = weight[s] * std::cyl_bessel_j(0.0, v * rho[s]);
    for (int z = 0; z < planes; ++z) {
      const double *c = &defocus_cos[(size_t)z * (steps + 1)], *si = &defocus_sin[(size_t)z * (steps + 1)];
      double re = 0, im = 0;
      for (int s = 0; s <= steps; ++s) re += bessel[s] * c[s], im += bessel[s] * si[s];
      intensity[(size_t)column[r2] * planes + z] = (float)(re * re + im * im);
    }
  }

  CImg<float> psf(side, side, planes, 1);
  cimg_forXYZ(psf, x, y, z) {
    const int dx = x - mid, dy = y - mid;
    psf(x, y, z) = intensity[(size_t)column[dx * dx + dy * dy] * planes + z];
  }
  // The largest tap 1, as every drawn PSF: the focus, on the axis.
  const float peak = psf.max();
  if (peak > 0) psf /= peak;
  return psf;
}
