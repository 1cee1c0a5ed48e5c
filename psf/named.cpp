#include "psf/named.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <stdexcept>

#include "psf/widefield.h"

namespace {

// The widest PSF drawn: a blur wider than this many pixels is no use to deconv.
constexpr int widest = 2001;

struct Kind {
  const char* name;
  const char* arguments;  // as the usage line names them
  int count;
  CImg<float> (*draw)(const double* values);
  double (*reach)(const double* values);  // how far from the middle the blur reaches
};

const Kind kinds[] = {
    {"gaussian", "SIGMA", 1, [](const double* v) { return gaussian_psf(v[0]); }, [](const double* v) { return 3 * v[0]; }},
    {"motion", "LENGTH ANGLE", 2, [](const double* v) { return motion_psf(v[0], v[1]); },
     [](const double* v) { return v[0] / 2 + 1; }},
    {"disk", "RADIUS", 1, [](const double* v) { return disk_psf(v[0]); }, [](const double* v) { return v[0]; }},
    {"box", "WIDTH HEIGHT", 2, [](const double* v) { return box_psf(v[0], v[1]); },
     [](const double* v) { return std::max(v[0], v[1]) / 2; }},
};

// A whole argument as a finite number, or NaN.
double number(const std::string& text) {
  char* end = nullptr;
  const double value = std::strtod(text.c_str(), &end);
  return end != text.c_str() && !*end && std::isfinite(value) ? value : NAN;
}

// More samples than this would take a gigabyte and minutes to draw; no
// microscope's stack needs them.
constexpr double most_samples = 1 << 26;
// Bessel functions and phases evaluated for the integral: about fifteen
// seconds' worth.
constexpr double most_evaluations = 1 << 25;
// Products summed over the pupil: about five seconds' worth.
constexpr double most_sums = 1LL << 33;

CImg<float> widefield(const std::vector<std::string>& numbers) {
  if (numbers.size() != 5 && numbers.size() != 6 && numbers.size() != 8)
    throw std::invalid_argument(
        "widefield takes NA WAVELENGTH INDEX PIXEL ZSTEP [PLANES [SAMPLE_INDEX DEPTH]] (lengths in nm)");
  static const char* const what[] = {"a numerical aperture above 0", "a wavelength in nm above 0",
                                     "a refractive index above 0",   "a pixel size in nm above 0",
                                     "a z step in nm above 0",       "a number of planes (0 chooses)",
                                     "a refractive index above 0",   "a depth in nm (0 or more)"};
  double v[8] = {};
  for (size_t i = 0; i < numbers.size(); ++i) {
    v[i] = number(numbers[i]);
    const bool may_be_0 = i == 5 || i == 7;
    if (std::isnan(v[i]) || v[i] < 0 || (v[i] == 0 && !may_be_0))
      throw std::invalid_argument("widefield: '" + numbers[i] + "' is not " + what[i]);
  }
  const Objective objective{v[0], v[1], v[2], v[3], v[4], v[6], v[7]};
  // Past 3 (no immersion or cell comes near) the axial width shrinks towards
  // nothing and the search for the focus below would never end.
  const auto unlikely = [](const double index) { return index < 1 || index > 3; };
  if (unlikely(objective.index) || (numbers.size() == 8 && unlikely(objective.sample_index)))
    throw std::invalid_argument("widefield: a refractive index must be from 1 to 3");
  if (!(objective.aperture < objective.index))
    throw std::invalid_argument("widefield: the numerical aperture must be below the immersion's refractive index");
  if (v[5] != 0 && !(std::fmod(v[5], 2) == 1))
    throw std::invalid_argument("widefield: PLANES must be odd and whole, the focal plane in the middle");
  // The spherical aberration of a mismatch grows with depth; past a tenth of
  // a millimetre in green light no widefield stack is worth restoring, and
  // the pupil's phase would need tens of thousands of steps.
  if (objective.depth > 200 * objective.wavelength)
    throw std::invalid_argument("widefield: DEPTH is more than 200 wavelengths below the coverslip");

  // By default four axial half-widths either side of focus: the central
  // lobe and the out-of-focus cone around it, where a widefield stack's
  // blur lies.
  const double half_depth = v[5] > 0 ? (v[5] - 1) / 2 : std::ceil(4 * axial_fwhm(objective) / objective.z_step);
  if (!(half_depth <= (widest - 1) / 2))
    throw std::invalid_argument("widefield: the PSF would be deeper than " + std::to_string(widest) + " planes");
  const WidefieldReach reach = widefield_reach(objective, (int)half_depth);
  if (!(reach.rings <= (widest - 1) / 2))
    throw std::invalid_argument("widefield: the PSF would be wider than " + std::to_string(widest) + " pixels");
  // Far from focus the cone may outgrow the widest picture; its edge is then cut.
  const int side = odd_side(std::min(std::max(reach.rings, reach.cone), (widest - 1) / 2.0));
  const int planes = 2 * (int)half_depth + 1;
  if ((double)side * side * planes > most_samples)
    throw std::invalid_argument(
        "widefield: the PSF would hold more than 67108864 samples; give fewer PLANES or larger PIXEL and ZSTEP");
  const double focus = widefield_focus(objective);
  // Bessel functions at most one for each pixel of the octant, and a phase
  // for each plane, each at every step of the pupil; then a sum of those
  // steps for every column of the octant and plane.
  const double octant = (side / 2 + 1) * (side / 2 + 2) / 2.0, steps = widefield_steps(objective, focus, side, planes);
  if ((octant + planes) * steps > most_evaluations || octant * planes * steps > most_sums)
    throw std::invalid_argument(
        "widefield: the PSF would take too long to draw: give fewer PLANES, a larger PIXEL or a smaller ZSTEP");
  CImg<float> psf = widefield_psf(objective, focus, side, planes);
  // Under-sampled rings could still sum to nothing or overflow; never seen,
  // but a PSF of no weight would only fail later, far from its cause.
  const bool finite = std::all_of(psf.begin(), psf.end(), [](const float v) { return std::isfinite(v); });
  if (!finite || !(psf.max() > 0)) throw std::invalid_argument("widefield: the integral came out empty or not finite");
  return psf;
}

}  // namespace

const char* const psf_kinds =
    "gaussian SIGMA | motion LENGTH ANGLE | disk RADIUS | box WIDTH HEIGHT | widefield NA WAVELENGTH INDEX PIXEL ZSTEP "
    "[PLANES [SAMPLE_INDEX DEPTH]]";

CImg<float> draw_named_psf(const std::string& name, const std::vector<std::string>& numbers) {
  if (name == "widefield") return widefield(numbers);
  const Kind* kind = nullptr;
  for (const Kind& k : kinds)
    if (name == k.name) kind = &k;
  if (!kind) throw std::invalid_argument("unknown kind '" + name + "': " + psf_kinds);
  if ((int)numbers.size() != kind->count) throw std::invalid_argument(name + " takes " + kind->arguments);

  double values[2];
  for (int i = 0; i < kind->count; ++i) {
    values[i] = number(numbers[i]);
    const bool is_angle = i == 1 && name == "motion";
    if (std::isnan(values[i]) || (!is_angle && values[i] <= 0))
      throw std::invalid_argument(name + ": '" + numbers[i] + "' is not a " +
                                  (is_angle ? "number of degrees" : "number of pixels above 0"));
  }
  // Compared before odd_side rounds it: a reach beyond int's range would wrap
  // into a small picture of nothing like the blur.
  if (!(kind->reach(values) <= (widest - 1) / 2))
    throw std::invalid_argument(name + ": the PSF would be wider than " + std::to_string(widest) + " pixels");
  const CImg<float> psf = kind->draw(values);
  // A blur far below a pixel falls between the samples and draws as nothing
  // (or as 0/0); a PSF of no weight is no blur at all.
  const bool finite = std::all_of(psf.begin(), psf.end(), [](const float v) { return std::isfinite(v); });
  if (!finite || !(psf.max() > 0))
    throw std::invalid_argument(name + ": too small to draw: no pixel of the PSF would hold any of it");
  return psf;
}
