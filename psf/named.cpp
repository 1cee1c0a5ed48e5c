#include "psf/named.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <stdexcept>

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

}  // namespace

const char* const psf_kinds = "gaussian SIGMA | motion LENGTH ANGLE | disk RADIUS | box WIDTH HEIGHT";

CImg<float> draw_named_psf(const std::string& name, const std::vector<std::string>& numbers) {
  const Kind* kind = nullptr;
  for (const Kind& k : kinds)
    if (name == k.name) kind = &k;
  if (!kind) throw std::invalid_argument("unknown kind '" + name + "': " + psf_kinds);
  if ((int)numbers.size() != kind->count)
    throw std::invalid_argument(name + " takes " + kind->arguments);

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
  if (!finite || !(psf.max() > 0)) throw std::invalid_argument(name + ": too small to draw: no pixel of the PSF would hold any of it");
  return psf;
}
