// estimate_psf: the picture's luminance on its window, checked, then the
// kernel from coarse to fine, alternating the sharp image and the kernel at
// each scale, and the result cleaned, checked, centred and trimmed (or fitted
// by a model).
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <thread>

#include "estimate/estimate.h"
#include "imaging/srgb.h"

namespace deconv {

namespace estimation {

Tuning& tuning() {
  static Tuning t;
  return t;
}

namespace {

// The gradients of `plane` (on its periodic canvas) kept inside a rectangle
// and zero elsewhere and near clipped highlights (`ignore`), as spectra.
void masked_gradient_spectra(const Transforms& t, const RealPlane& plane, int x0, int y0, int x1, int y1,
                             Spectrum& sx, Spectrum& sy, size_t edges = 0, const Image* ignore = nullptr) {
  RealPlane gx, gy;
  gradients(plane, t.width(), t.height(), gx, gy);
  for (int y = 0; y < t.height(); ++y)
    for (int x = 0; x < t.width(); ++x)
      if (x < x0 || x >= x1 || y < y0 || y >= y1) gx[(size_t)y * t.width() + x] = gy[(size_t)y * t.width() + x] = 0;
  if (ignore) drop_ignored(gx, gy, t.width(), *ignore);
  if (edges) select_edges(gx, gy, edges);
  sx = t.spectrum();
  sy = t.spectrum();
  t.forward(gx, sx);
  t.forward(gy, sy);
}

// Coarse to fine on the strongest edges finds the blur's path but leaves it a
// band two or three pixels wide where the truth is one: the L0 image's steps
// are sharper than the photograph's own edges, the Tikhonov term spreads the
// kernel, and the alternation then holds the band where it is. Starting again
// from the band's core and fitting all of the sharp image's gradients with
// little Tikhonov lets the picture decide the width.
Image refine(const Transforms& t, const SharpStep& step, const Spectrum& bx, const Spectrum& by, Image kernel, int width,
             int height, double lg, double lp, double core, const Image& ignore) {
  const Tuning& tune = tuning();
  clean_kernel(kernel, core, tune.speck);
  for (int it = 0; it < tune.refine; ++it) {
    const RealPlane sharp = step.solve(kernel, lg, lp, tune.kappa);
    Spectrum sx, sy;
    masked_gradient_spectra(t, sharp, 0, 0, width, height, sx, sy, 0, &ignore);
    const SparseWeights weights{tune.refine_gamma, tune.refine_l1_inside, tune.refine_l1,
                                tune.refine_jump / (kernel.width * (it + 1.0)), tune.refine_floor, tune.refine_irls};
    kernel = solve_kernel_sparse(kernel_problem(t, sx, sy, bx, by, kernel.width), kernel, weights);
    clean_kernel(kernel, tune.refine_loop_faint, tune.speck);
    kernel = recentre_whole(kernel);
  }
  return kernel;
}

// No one core serves every blur: the band's brightest taps keep a compact
// disk or Gaussian from growing, a lower cut keeps a long shake's faint tail.
// Both are refined, and the picture's likelihood picks.
Image refine_from_two_cores(const Transforms& t, const SharpStep& step, const Spectrum& bx, const Spectrum& by,
                            const Image& kernel, const Image& plane, double lg, double lp, const Image& ignore) {
  const Tuning& tune = tuning();
  std::vector<Image> refined;
  for (const double core : {tune.refine_core, tune.refine_second_core}) {
    if (!(core > 0)) continue;
    refined.push_back(refine(t, step, bx, by, kernel, plane.width, plane.height, lg, lp, core, ignore));
    clean_kernel(refined.back(), tune.refine_faint, tune.speck);
  }
  return refined[refined.size() > 1 ? likeliest(plane, refined, tune.second_margin) : 0];
}

}  // namespace

// The free kernel of `plane` on a support of `side`, coarse to fine. The
// last scale's canvas, sharp estimate and picture gradients are left for the
// parametric fits.
struct FinestScale {
  std::unique_ptr<Transforms> transforms;
  RealPlane canvas;
  std::unique_ptr<SharpStep> step;
  Spectrum bx, by;
  Image ignore;  // near clipped highlights
};

// Tells `progress`, if the caller gave one, which stage runs at which scale.
void report(const EstimateOptions& options, const char* stage, double scale) {
  if (options.progress) options.progress(stage, scale);
}

Image free_kernel(const Image& plane, const Image& clipped, int side, int threads, FinestScale* finest,
                  const EstimateOptions& options) {
  const Tuning& tune = tuning();
  const std::vector<Level> levels = pyramid(side);
  Image kernel(3, 3, 1);
  kernel.at(1, 1) = 0.5f, kernel.at(0, 1) = 0.5f;
  double lg = tune.lambda_gradient, lp = tune.lambda_pixel;
  for (size_t l = 0; l < levels.size(); ++l) {
    const Level& level = levels[l];
    const bool last = l + 1 == levels.size();
    const int w = std::max(8, (int)std::lround(plane.width * level.scale));
    const int h = std::max(8, (int)std::lround(plane.height * level.scale));
    const int s = level.kernel_side;
    report(options, "coarse to fine", level.scale);
    const Image y = last ? plane : resample(plane, w, h);
    if (kernel.width != s) kernel = resize_kernel(kernel, s);
    auto t = std::make_unique<Transforms>(good_size(w + s), good_size(h + s), threads);
    auto canvas = std::make_unique<RealPlane>(periodic_extension(y, t->width(), t->height()));
    auto step_owner = std::make_unique<SharpStep>(*t, *canvas);
    const SharpStep& step = *step_owner;
    // The picture's gradients where its blur is all its own (a half kernel in
    // from the edges); the sharp image's over the whole picture.
    const int r = s / 2 + 1;
    const Image ignore = near_clipped(clipped, w, h, s);
    Spectrum bx, by, sx, sy;
    masked_gradient_spectra(*t, *canvas, r, r, w - r, h - r, bx, by, 0, &ignore);
    const int iterations = last ? tune.finest_iterations : tune.iterations;
    RealPlane sharp;
    for (int it = 0; it < iterations; ++it) {
      sharp = step.solve(kernel, lg, lp, tune.kappa);
      masked_gradient_spectra(*t, sharp, 0, 0, w, h, sx, sy, (size_t)(tune.edges * s), &ignore);
      const KernelProblem problem = kernel_problem(*t, sx, sy, bx, by, s);
      kernel = solve_kernel(problem, kernel, tune.gamma);
      clean_kernel(kernel, tune.loop_faint, tune.speck);
      kernel = recentre_whole(kernel);
      lg = std::max(lg / 1.1, 1e-4);
      lp = std::max(lp / 1.1, 1e-4);
    }
    if (last && tune.refine > 0) {
      report(options, "refining", 1);
      kernel = refine_from_two_cores(*t, step, bx, by, kernel, y, lg, lp, ignore);
    }
    if (last && finest) {
      finest->transforms = std::move(t);
      finest->canvas = std::move(*canvas);
      finest->step = std::make_unique<SharpStep>(*finest->transforms, finest->canvas);
      finest->bx = std::move(bx);
      finest->by = std::move(by);
      finest->ignore = ignore;
    }
  }
  clean_kernel(kernel, tune.refine > 0 ? tune.refine_faint : tune.faint, tune.speck);
  return kernel;
}

Scaled at_scale(const Image& seen, const int factor, const int side) {
  Scaled at;
  at.factor = factor;
  at.side = side / factor | 1;
  const Image values = factor == 1 ? seen : resample(seen, seen.width / factor, seen.height / factor);
  // Clipped highlights filled from around them for the fits on the whole
  // plane, and their gradients dropped at every scale.
  at.clipped = clipped_samples(values);
  const Image ignore = near_clipped(at.clipped, values.width, values.height, at.side);
  at.noise = noise_model(values, &ignore);
  at.plane = fill_ignored(values, ignore, at.noise);
  return at;
}

}  // namespace estimation

PsfEstimate estimate_psf(const Image& blurred, const EstimateOptions& options) {
  using namespace estimation;
  if (options.light != "linear") return estimate_psf(imaging::in_linear_light(blurred, options.light), imaging::for_linear_light(options));
  if (blurred.depth != 1)
    throw Error("the blur is estimated from a picture, not a stack of " + std::to_string(blurred.depth) + " planes");
  if (blurred.width <= 0 || blurred.height <= 0 || blurred.channels <= 0 ||
      blurred.pixels.size() != (size_t)blurred.width * blurred.height * blurred.channels)
    throw Error("the picture is empty");
  check_finite(blurred);
  const std::string& model = options.model;
  if (model != "kernel" && model != "motion" && model != "disk" && model != "gaussian")
    throw Error("unknown model \"" + model + "\" (kernel, motion, disk or gaussian)");
  int side = options.max_size > 0 ? options.max_size : default_max_size;
  if (side < 3) throw Error("the kernel's size must be at least 3 pixels");
  side += side % 2 == 0;
  const int threads = options.threads > 0 ? options.threads : (int)std::max(1u, std::thread::hardware_concurrency());

  const Image grey = luminance(blurred);
  Window win;
  if (options.region_width > 0 || options.region_height > 0) {
    win = {options.region_x, options.region_y, options.region_width, options.region_height};
    if (win.x < 0 || win.y < 0 || win.width <= 0 || win.height <= 0 || win.x + win.width > grey.width ||
        win.y + win.height > grey.height)
      throw Error("the region " + std::to_string(win.x) + "," + std::to_string(win.y) + "," +
                  std::to_string(win.width) + "," + std::to_string(win.height) + " is not inside the picture (" +
                  std::to_string(grey.width) + " x " + std::to_string(grey.height) + ")");
  } else {
    win = choose_window(grey, 1L << 20);
  }
  const Image seen = on_own_range(crop(grey, win.x, win.y, win.width, win.height));
  // A picture too noisy at its own scale may still show its blur where
  // averages of 2 x 2 samples (and coarser, as far as Tuning::coarsest goes)
  // have taken most of its noise out; the kernel found there is enlarged back. The fitted models are drawn at the
  // picture's own scale only.
  Scaled at = at_scale(seen, 1, side);
  while (model == "kernel" && too_noisy(at.plane, at.noise) && at.factor < tuning().coarsest) {
    Scaled coarser = at_scale(seen, 2 * at.factor, side);
    if (std::min(coarser.plane.width, coarser.plane.height) < std::max(48, 3 * coarser.side)) break;
    at = std::move(coarser);
  }
  const Image& plane = at.plane;
  const Image& clipped = at.clipped;
  const NoiseModel& noise = at.noise;
  const int scaled_side = at.side;
  check_picture(plane, scaled_side, noise, at.factor);

  FinestScale finest;
  Image kernel = free_kernel(plane, clipped, scaled_side, threads, model == "kernel" ? nullptr : &finest, options);
  check_kernel(kernel, scaled_side);
  report(options, model == "kernel" ? "checking" : "fitting", 1);
  if (model == "kernel") {
    EstimateOptions quiet = options;
    quiet.progress = nullptr;
    check_halves(plane, clipped, noise, kernel, [&](const Image& part, const Image& part_clipped, int part_side) {
      return free_kernel(part, part_clipped, part_side, threads, nullptr, quiet);
    });
  }
  if (model != "kernel")
    return fit_model(model, kernel, *finest.transforms, *finest.step, finest.canvas, finest.bx, finest.by, plane.width,
                     plane.height, finest.ignore);
  check_likelihood(plane, kernel, scaled_side, threads, noise);
  PsfEstimate result;
  result.psf = centre_and_trim(at.factor > 1 ? enlarge_kernel(kernel, at.factor) : kernel);
  result.description = "kernel " + std::to_string(result.psf.width) + " " + std::to_string(result.psf.height);
  return result;
}

}  // namespace deconv
