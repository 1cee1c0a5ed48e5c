// deconv-psf KIND ARGS... OUTPUT
//
//   gaussian SIGMA | motion LENGTH ANGLE | disk RADIUS | box WIDTH HEIGHT
//
// Draws the PSF picture of a common blur for deconv, and saves it the way
// deconv saves its results: a temporary PNM and the converter, which picks the
// format by OUTPUT's name (PNG keeps 16 bits, where the taps need them).
// Silent on success; a bad command line gives one line on stderr and status 1;
// a failed save gives deconv's statuses 10, 11 or 12.
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "psf/kernels.h"
#include "tool/exit_status.h"
#include "tool/image_io.h"

namespace {

// The widest PSF drawn: a blur wider than this many pixels is no use to deconv.
constexpr int widest = 2001;

int refuse(const std::string& message) {
  std::fprintf(stderr, "deconv-psf: %s\n", message.c_str());
  return 1;
}

// A whole argument as a finite number, or NaN.
double number(const char* text) {
  char* end = nullptr;
  const double value = std::strtod(text, &end);
  return end != text && !*end && std::isfinite(value) ? value : NAN;
}

struct Kind {
  const char* name;
  const char* arguments;  // as the usage line names them
  int count;
  CImg<float> (*draw)(const double* values);
};

const Kind kinds[] = {
    {"gaussian", "SIGMA", 1, [](const double* v) { return gaussian_psf(v[0]); }},
    {"motion", "LENGTH ANGLE", 2, [](const double* v) { return motion_psf(v[0], v[1]); }},
    {"disk", "RADIUS", 1, [](const double* v) { return disk_psf(v[0]); }},
    {"box", "WIDTH HEIGHT", 2, [](const double* v) { return box_psf(v[0], v[1]); }},
};

// How far from the middle the blur reaches, for the size check.
double reach(const Kind& kind, const double* v) {
  const std::string name = kind.name;
  if (name == "gaussian") return 3 * v[0];
  if (name == "motion") return v[0] / 2 + 1;
  if (name == "disk") return v[0];
  return std::max(v[0], v[1]) / 2;
}

const char* const usage =
    "usage: deconv-psf gaussian SIGMA | motion LENGTH ANGLE | disk RADIUS | box WIDTH HEIGHT, then OUTPUT";

}  // namespace

int main(int argc, char** argv) {
  return run_with_exit_status([&] {
    if (argc < 2) return refuse(usage);
    const Kind* kind = nullptr;
    for (const Kind& k : kinds)
      if (!std::strcmp(argv[1], k.name)) kind = &k;
    if (!kind) return refuse(std::string("unknown kind '") + argv[1] + "'; " + usage);
    if (argc != kind->count + 3)
      return refuse(std::string("usage: deconv-psf ") + kind->name + " " + kind->arguments + " OUTPUT");

    double values[2];
    for (int i = 0; i < kind->count; ++i) {
      values[i] = number(argv[2 + i]);
      const bool is_angle = i == 1 && !std::strcmp(kind->name, "motion");
      if (std::isnan(values[i]) || (!is_angle && values[i] <= 0))
        return refuse(std::string(kind->name) + ": '" + argv[2 + i] + "' is not a " +
                      (is_angle ? "number of degrees" : "number of pixels above 0"));
    }
    if (odd_side(reach(*kind, values)) > widest)
      return refuse(std::string(kind->name) + ": the PSF would be wider than " + std::to_string(widest) + " pixels");

    cimg_library::cimg::srand();  // temporary names differ between runs
    const CImg<float> psf = kind->draw(values);
    save_result(psf, argv[argc - 1], true, 100, file_maximum(psf));
    return 0;
  });
}
