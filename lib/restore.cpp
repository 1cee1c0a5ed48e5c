// restore() and choose_strength(): deconv's own engine, each call with a
// private pool and private semaphores, behind checks that turn the engine's
// fatal paths (an empty or weightless PSF, a picture too small for the edge
// taper, no worker at all) into errors the caller can catch.
#include <algorithm>
#include <cmath>
#include <cstring>

#include "engine/deconv.h"
#include "lib/checks.h"
#include "lib/image_views.h"
#include "strength/weigh.h"

namespace deconv {

namespace {

using namespace libdeconv;

// A PSF the engine can centre and normalise: finite, of positive weight.
void require_psf(const Image& psf) {
  require_picture(psf, "the PSF");
  double sum = 0;
  for (size_t i = 0; i < (size_t)psf.width * psf.height; ++i) {
    if (!std::isfinite(psf.pixels[i])) throw Error("the PSF holds a value that is not finite");
    sum += psf.pixels[i];
  }
  if (!(sum > 0)) throw Error("the PSF's samples do not add up to a positive weight");
}

// The edge taper's walk along a middle row never ends when the picture's
// width lies between the band and twice the band (and some middle row
// exists). The band is the support of the PSF as the engine prepares it.
void require_taper_ends(CDeconv& engine, const CImg<float>& kernel, const int width, const int height) {
  CImg<float> prepared(kernel);
  engine.prepare_psf(prepared);
  const int band = engine.FindSupport(prepared);
  if (band > 0 && width >= band && width < 2 * band && height > 2 * band)
    throw Error("the picture (" + std::to_string(width) + " x " + std::to_string(height) +
                ") is too small for this PSF: its edge band is " + std::to_string(band) +
                " pixels wide, so the picture must be at least " + std::to_string(2 * band) + " pixels wide");
}

CImg<float> normalized_kernel(const Image& psf) {
  CImg<float> kernel = first_plane(psf);
  normalize_to_unit_sum(kernel);
  return kernel;
}

// The restoration stands one pixel toward +x and +y of the picture (the PSF's
// origin is one pixel short of its middle); rolling it back is exact. Done in
// place, a row at a time from the top, so that no second picture is held: only
// the first row, which the last one needs, is kept aside.
void align(Image& image) {
  const size_t width = image.width, height = image.height;
  std::vector<float> first(width);
  // Row `to` takes row `from` moved one sample to the left, its first sample last.
  const auto roll_row = [width](const float* from, float* to) {
    const float head = from[0];
    std::memmove(to, from + 1, (width - 1) * sizeof(float));
    to[width - 1] = head;
  };
  for (int c = 0; c < image.channels; ++c) {
    float* const plane = image.pixels.data() + c * width * height;
    std::copy(plane, plane + width, first.begin());
    for (size_t y = 0; y + 1 < height; ++y) roll_row(plane + (y + 1) * width, plane + y * width);
    roll_row(first.data(), plane + (height - 1) * width);
  }
}

}  // namespace

Image restore(const Image& blurred, const Image& psf, const RestoreOptions& options) {
  require_picture(blurred, "the picture");
  return restore(Image(blurred), psf, options);
}

Image restore(Image&& blurred, const Image& psf, const RestoreOptions& options) {
  if (std::optional<CheckedInputs> checked = check_restore_inputs(blurred, psf, options))
    return restore(std::move(blurred), checked->psf, checked->options);
  require_picture(blurred, "the picture");
  require_psf(psf);
  if (options.strength > 200) throw Error("the strength is above 200");
  const int workers = worker_count(options.workers);
  const int strength = options.strength >= 0 ? options.strength : choose_strength(blurred, psf, options.compressed);

  DenormalsAsZero denormals;
  CImg<float> kernel = normalized_kernel(psf);
  {
    // The result takes the place of the picture: each channel's job transforms
    // its whole plane into the thread's buffer before it writes the plane back,
    // and the tapered input is of no use to anyone afterwards. A second
    // picture would add about a sixth to the peak memory.
    CImg<float> planes = shared_view(blurred);
    CDeconv engine(workers, strength, CDeconv::SEMAPHORES_PRIVATE);
    require_taper_ends(engine, kernel, blurred.width, blurred.height);
    engine.deconv_nonblind(planes, planes, kernel);
  }
  Image result = std::move(blurred);
  blurred = Image();
  if (options.align) align(result);
  if (options.clamp)
    for (float& v : result.pixels) v = v < 0 ? 0.0f : v > 1 ? 1.0f : v;
  return result;
}

int choose_strength(const Image& blurred, const Image& psf, const bool compressed) {
  check_strength_inputs(blurred, psf);
  require_picture(blurred, "the picture");
  require_psf(psf);
  DenormalsAsZero denormals;
  CImg<float> kernel = normalized_kernel(psf);
  CImg<float> image(blurred.pixels.data(), blurred.width, blurred.height, 1, blurred.channels, false);
  CDeconv engine(worker_count(0), 10, CDeconv::SEMAPHORES_PRIVATE);
  require_taper_ends(engine, kernel, blurred.width, blurred.height);
  engine.deconv_prepare(image, kernel);
  const int strength = weigh_picture(image, engine).strength();
  // A quarter more brings bench/strength_bench.cpp's JPEGs from 0.30 to
  // 0.25 dB of the best strength of a grid (half or twice more do no better),
  // and leaves its PNGs alone.
  return compressed ? std::min(200, (int)std::lround(strength * 1.25)) : strength;
}

}  // namespace deconv
