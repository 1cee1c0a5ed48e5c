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

namespace {

bool mismatched(const Objective& o) { return o.sample_index > 0 && o.sample_index != o.index; }

// The pupil sampled for Simpson's rule at `steps` + 1 points of rho: each
// point's weight (Simpson's, times rho, times what of its light reaches the
// coverslip) and its phase as k (depth_phase - focus * focus_rate), both
// measured from the axial ray's so that they stay small near focus. Gibson &
// Lanni's optical path difference with the coverslip as designed: the point
// at depth d in the sample (index ns), the focus at f in the immersion's
// terms (index ni), k (d sqrt(ns^2 - NA^2 rho^2) - f sqrt(ni^2 - NA^2 rho^2));
// beyond the critical angle, where NA rho > ns, the square root is imaginary
// and that light does not leave the sample.
struct Pupil {
  std::vector<double> rho, weight, depth_phase, focus_rate;
  Pupil(const Objective& o, const int steps)
      : rho(steps + 1), weight(steps + 1), depth_phase(steps + 1), focus_rate(steps + 1) {
    const double k = 2 * M_PI / o.wavelength, na2 = o.aperture * o.aperture, ni = o.index;
    const double d = mismatched(o) ? o.depth : 0, ns = mismatched(o) ? o.sample_index : ni;
    for (int s = 0; s <= steps; ++s) {
      rho[s] = (double)s / steps;
      const double sample = ns * ns - na2 * rho[s] * rho[s];
      const double propagating = std::sqrt(std::max(0.0, sample)), evanescent = std::sqrt(std::max(0.0, -sample));
      weight[s] = (s == 0 || s == steps ? 1 : s % 2 ? 4 : 2) / (3.0 * steps) * rho[s] * std::exp(-k * d * evanescent);
      depth_phase[s] = k * d * (propagating - ns);
      focus_rate[s] = k * (std::sqrt(ni * ni - na2 * rho[s] * rho[s]) - ni);
    }
  }
};

// Radians the phase turns across the pupil, at most, for foci from
// `nearest` to `farthest` (it turns most at one of the two: its turning is
// convex in the focus). Measured on a fine grid rather than bounded: deep
// in a mismatched sample the focus cancels most of the depth's phase.
double pupil_radians(const Objective& o, const double nearest, const double farthest) {
  const double k = 2 * M_PI / o.wavelength, na2 = o.aperture * o.aperture, ni = o.index;
  const double d = mismatched(o) ? o.depth : 0, ns = mismatched(o) ? o.sample_index : ni;
  const auto phase = [&](const double rho, const double f) {
    return k * (d * (std::sqrt(std::max(0.0, ns * ns - na2 * rho * rho)) - ns) -
                f * (std::sqrt(ni * ni - na2 * rho * rho) - ni));
  };
  double most = 0;
  for (const double f : {nearest, farthest}) {
    double turned = 0;
    for (int j = 0; j < 4096; ++j) turned += std::abs(phase((j + 1) / 4096.0, f) - phase(j / 4096.0, f));
    most = std::max(most, turned);
  }
  return most;
}

// Even, for Simpson's rule; 256 at least, where the integrand barely turns;
// four steps a radian.
double simpson_steps(const double radians) { return 2 * std::ceil(std::max(128.0, 2 * radians)); }

}  // namespace

double widefield_focus(const Objective& o) {
  if (!mismatched(o) || o.depth == 0) return o.depth;
  const double fwhm = axial_fwhm(o), stride = fwhm / 3;
  const double lowest = -4 * fwhm,
               highest = 2 * o.depth * std::max(o.index / o.sample_index, o.sample_index / o.index) + 4 * fwhm;
  const Pupil pupil(o, (int)simpson_steps(pupil_radians(o, lowest, highest)));
  const auto brightness = [&](const double f) {
    double re = 0, im = 0;
    for (size_t s = 0; s < pupil.rho.size(); ++s) {
      const double phase = pupil.depth_phase[s] - f * pupil.focus_rate[s];
      re += pupil.weight[s] * std::cos(phase), im += pupil.weight[s] * std::sin(phase);
    }
    return re * re + im * im;
  };
  // The brightest of foci a third of the axial width apart, where the main
  // lobe cannot hide, then a golden-section search about it.
  double best = lowest, brightest = -1;
  for (double f = lowest; f <= highest; f += stride)
    if (const double b = brightness(f); b > brightest) best = f, brightest = b;
  double a = best - stride, b = best + stride;
  const double golden = (std::sqrt(5.0) - 1) / 2;
  while (b - a > 0.01) {
    const double c = b - golden * (b - a), e = a + golden * (b - a);
    if (brightness(c) > brightness(e))
      b = e;
    else
      a = c;
  }
  return (a + b) / 2;
}

double widefield_steps(const Objective& o, const double focus, const int side, const int planes) {
  const double k = 2 * M_PI / o.wavelength, corner = std::sqrt(2.0) * (side / 2) * o.pixel;
  const double from = mismatched(o) ? focus : 0, reach = (planes / 2) * o.z_step;
  return simpson_steps(k * o.aperture * corner + pupil_radians(o, from - reach, from + reach));
}

CImg<float> widefield_psf(const Objective& o, const double focus, const int side, const int planes) {
  const int mid = side / 2, middle = planes / 2, steps = (int)widefield_steps(o, focus, side, planes);
  const double k = 2 * M_PI / o.wavelength;
  const Pupil pupil(o, steps);
  const std::vector<double>& rho = pupil.rho;
  const double from = mismatched(o) ? focus : 0;

  // The phase of each plane.
  std::vector<double> defocus_cos((size_t)planes * (steps + 1)), defocus_sin(defocus_cos.size());
  for (int z = 0; z < planes; ++z)
    for (int s = 0; s <= steps; ++s) {
      const double phase = pupil.depth_phase[s] - (from + (z - middle) * o.z_step) * pupil.focus_rate[s];
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
    for (int s = 0; s <= steps; ++s) bessel[s] = pupil.weight[s] * std::cyl_bessel_j(0.0, v * rho[s]);
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
