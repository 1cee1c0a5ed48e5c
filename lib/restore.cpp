// restore() and choose_strength(): the checks every call makes, then the
// engine the options ask for (lib/engines.h).
#include <algorithm>
#include <cmath>
#include <cstring>
#include <optional>

#include "lib/checks.h"
#include "lib/engines.h"
#include "lib/image_views.h"
#include "lib/light.h"
#include "lib/tiles.h"

namespace deconv {

namespace {

using namespace libdeconv;

// A PSF the engines can centre and normalise: finite, of positive weight.
void require_psf(const Image& psf) {
  require_picture(psf, "the PSF");
  double sum = 0;
  for (size_t i = 0; i < (size_t)psf.width * psf.height; ++i) {
    if (!std::isfinite(psf.pixels[i])) throw Error("the PSF holds a value that is not finite");
    sum += psf.pixels[i];
  }
  if (!(sum > 0)) throw Error("the PSF's samples do not add up to a positive weight");
}

// The PSF's first plane, normalised to sum 1 in double, one division a tap.
Image normalized_kernel(const Image& psf) {
  Image kernel(psf.width, psf.height, 1);
  std::copy(psf.pixels.begin(), psf.pixels.begin() + kernel.pixels.size(), kernel.pixels.begin());
  double sum = 0;
  for (const float p : kernel.pixels) sum += p;
  for (float& p : kernel.pixels) p = (float)((double)p / sum);
  return kernel;
}

// Rolls every plane one pixel along x and y, toward -1 (`back`: where the
// picture stands, from deconv's engine's result) or +1 (where that engine
// leaves its result, from the second engine's). Exact, in place.
void roll(Image& image, const bool back) {
  const size_t width = image.width, height = image.height;
  for (int c = 0; c < image.channels; ++c) {
    float* const plane = image.pixels.data() + c * width * height;
    for (size_t y = 0; y < height; ++y) {
      float* const row = plane + y * width;
      std::rotate(row, back ? row + 1 : row + width - 1, row + width);
    }
    std::rotate(plane, back ? plane + width : plane + (height - 1) * width, plane + width * height);
  }
}

void check_options(const RestoreOptions& options) {
  if (options.strength > 200) throw Error("the strength is above 200");
  worker_count(options.workers);  // refuses a negative count
}

int strength_for(const Image& blurred, const Image& psf, const RestoreOptions& options) {
  return options.strength >= 0 ? options.strength
                               : cautious_strength(choose_strength(blurred, psf, options.compressed), options);
}

void finish(Image& result, const RestoreOptions& options, const bool from_exact) {
  if (options.align == from_exact) roll(result, from_exact);
  if (options.clamp)
    for (float& v : result.pixels) v = v < 0 ? 0.0f : v > 1 ? 1.0f : v;
}

void tell_masked(const size_t masked, const RestoreOptions& options) {
  if (masked && options.notice)
    options.notice("left " + std::to_string(masked) +
                   " samples out of the fit: clipped highlights and the samples their blur reaches");
}

// Richardson-Lucy, behind the checks every restoration makes.
Image restore_by_richardson_lucy(Image blurred, const Image& psf, const RestoreOptions& options) {
  require_picture(psf, "the PSF");
  repair_where_asked(blurred, options);
  const std::optional<CheckedInputs> checked = check_restore_inputs(blurred, psf, options);
  const Image& kernel = checked ? checked->psf : psf;
  check_richardson_lucy(options, kernel);
  const int workers = worker_count(options.workers);
  FlushDenormals denormals;
  if (kernel.depth == 1 && blurred.depth > 1 && options.notice)
    options.notice("restored each of the stack's " + std::to_string(blurred.depth) +
                   " planes on its own with the 2-D PSF");
  size_t masked = 0;
  Image result = restore_richardson_lucy(blurred, kernel, options, workers, nullptr, {}, &masked);
  tell_masked(masked, options);
  return result;
}

// The sparse prior, behind the same checks; a 2-D PSF restores a stack's
// planes one by one.
Image restore_by_sparse(Image blurred, const Image& psf, const RestoreOptions& options) {
  require_picture(psf, "the PSF");
  repair_where_asked(blurred, options);
  const std::optional<CheckedInputs> checked = check_restore_inputs(blurred, psf, options);
  const Image& kernel = checked ? checked->psf : psf;
  const RestoreOptions& settings = checked ? checked->options : options;
  if (options.exact) throw Error("deconv's own engine has the Wiener filter only, not sparse");
  check_options(settings);
  for (const float p : kernel.pixels)
    if (!std::isfinite(p)) throw Error("the PSF holds a value that is not finite");
  if (kernel.depth > blurred.depth)
    throw Error("the PSF has " + std::to_string(kernel.depth) + " planes and the picture " +
                std::to_string(blurred.depth) + ": a 3-D PSF restores a stack at least as deep");
  FlushDenormals denormals;
  if (kernel.depth == 1 && blurred.depth > 1 && options.notice)
    options.notice("restored each of the stack's " + std::to_string(blurred.depth) +
                   " planes on its own with the 2-D PSF");
  Image result = restore_sparse(blurred, kernel, settings, worker_count(options.workers));
  if (options.clamp)
    for (float& v : result.pixels) v = v < 0 ? 0.0f : v > 1 ? 1.0f : v;
  return result;
}

// Every plane of a stack restored as a picture of its own.
Image restore_planes(const Image& stack, const Image& psf, const RestoreOptions& options) {
  Image result(stack.width, stack.height, stack.depth, stack.channels);
  const size_t plane = (size_t)stack.width * stack.height;
  for (size_t p = 0; p < (size_t)stack.depth * stack.channels; ++p) {
    Image one(stack.width, stack.height, 1);
    std::copy(stack.pixels.begin() + p * plane, stack.pixels.begin() + (p + 1) * plane, one.pixels.begin());
    RestoreOptions each = options;
    each.notice = p == 0 ? options.notice : nullptr;  // what the checks say, said once
    one = restore(std::move(one), psf, each);
    std::copy(one.pixels.begin(), one.pixels.end(), result.pixels.begin() + p * plane);
  }
  if (options.notice)
    options.notice("restored each of the stack's " + std::to_string(stack.depth) +
                   " planes on its own with the 2-D PSF");
  return result;
}

// The options with "auto" made a method: the sparse prior in light for a
// photograph as a camera saves it, the filter on the stored values else,
// and for an estimated PSF, whose errors the filter's caution forgives best.
RestoreOptions with_method(const Image& blurred, RestoreOptions options) {
  const bool photograph = options.light == "encoded" && blurred.depth == 1 && options.strength < 0 &&
                          !options.exact && !options.estimated_psf;
  options.method = photograph ? "sparse" : "wiener";
  if (!photograph) options.light = "linear";
  return options;
}

// The method's and the stack's own ways, or nothing where the picture is a
// picture for the filter.
std::optional<Image> restore_otherwise(const Image& blurred, const Image& psf, const RestoreOptions& options) {
  if (options.method == "richardson-lucy") return restore_by_richardson_lucy(blurred, psf, options);
  if (options.method == "sparse") return restore_by_sparse(blurred, psf, options);
  if (options.method != "wiener")
    throw Error("unknown method '" + options.method + "': auto, wiener, richardson-lucy or sparse");
  if (psf.depth > 1)
    throw Error("the PSF is a stack of " + std::to_string(psf.depth) +
                " planes: the Wiener filter takes a 2-D PSF, richardson-lucy a 3-D one");
  if (blurred.depth > 1) return restore_planes(blurred, psf, options);
  return std::nullopt;
}

}  // namespace

Image restore(const Image& blurred, const Image& psf, const RestoreOptions& options) {
  require_picture(blurred, "the picture");
  if (options.method == "auto") return restore(blurred, psf, with_method(blurred, options));
  if (std::optional<Image> in_light = restore_in_light(blurred, psf, options)) return std::move(*in_light);
  if (std::optional<Image> tiled = restore_in_tiles(blurred, psf, options)) return std::move(*tiled);
  if (std::optional<Image> restored = restore_otherwise(blurred, psf, options)) return std::move(*restored);
  int x = 0, y = 0, c = 0;
  // The exact engine restores in the picture's planes, and a repair changes
  // them: both work on a copy.
  if (options.exact || (options.repair_nonfinite && count_nonfinite(blurred, x, y, c)))
    return restore(Image(blurred), psf, options);
  if (std::optional<CheckedInputs> checked = check_restore_inputs(blurred, psf, options))
    return restore(blurred, checked->psf, checked->options);
  require_psf(psf);
  check_options(options);
  const int strength = strength_for(blurred, psf, options);
  FlushDenormals denormals;
  Image result = restore_fast(blurred, normalized_kernel(psf), strength, worker_count(options.workers));
  finish(result, options, false);
  return result;
}

Image restore(Image&& blurred, const Image& psf, const RestoreOptions& options) {
  require_picture(blurred, "the picture");
  if (options.method == "auto") return restore(std::move(blurred), psf, with_method(blurred, options));
  if (std::optional<Image> in_light = restore_in_light(blurred, psf, options)) {
    blurred = Image();
    return std::move(*in_light);
  }
  if (std::optional<Image> tiled = restore_in_tiles(blurred, psf, options)) {
    blurred = Image();
    return std::move(*tiled);
  }
  if (std::optional<Image> restored = restore_otherwise(blurred, psf, options)) {
    blurred = Image();
    return std::move(*restored);
  }
  repair_where_asked(blurred, options);
  if (std::optional<CheckedInputs> checked = check_restore_inputs(blurred, psf, options))
    return restore(std::move(blurred), checked->psf, checked->options);
  require_picture(blurred, "the picture");
  require_psf(psf);
  check_options(options);
  const int strength = strength_for(blurred, psf, options);
  const int workers = worker_count(options.workers);
  FlushDenormals denormals;
  Image result;
  if (options.exact) {
    result = restore_exact(std::move(blurred), normalized_kernel(psf), strength, workers);
  } else {
    result = restore_fast(blurred, normalized_kernel(psf), strength, workers);
    blurred = Image();
  }
  finish(result, options, options.exact);
  return result;
}

int choose_strength(const Image& blurred, const Image& psf, const bool compressed) {
  if (blurred.depth > 1 || psf.depth > 1) throw Error("a strength is chosen for a picture and a 2-D PSF, not a stack");
  check_strength_inputs(blurred, psf);
  require_picture(blurred, "the picture");
  require_psf(psf);
  FlushDenormals denormals;
  const int strength = choose_strength_fast(blurred, normalized_kernel(psf), worker_count(0));
  // A quarter more brings bench/strength_bench.cpp's JPEGs within 0.26 dB of
  // the best strength of a grid (half or twice more do no better), and leaves
  // its PNGs alone.
  return compressed ? std::min(200, (int)std::lround(strength * 1.25)) : strength;
}

}  // namespace deconv
