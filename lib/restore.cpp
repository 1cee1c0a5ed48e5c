// restore() and choose_strength(): deconv's own engine, each call with a
// private pool and private semaphores, behind checks that turn the engine's
// fatal paths (an empty or weightless PSF, a picture too small for the edge
// taper, no worker at all) into errors the caller can catch.
#include <cmath>

#include "engine/deconv.h"
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
// origin is one pixel short of its middle); rolling it back is exact.
void align(Image& result) {
  Image rolled(result.width, result.height, result.channels);
  for (int c = 0; c < result.channels; ++c)
    for (int y = 0; y < result.height; ++y)
      for (int x = 0; x < result.width; ++x)
        rolled.at(x, y, c) = result.at((x + 1) % result.width, (y + 1) % result.height, c);
  result.pixels.swap(rolled.pixels);
}

}  // namespace

Image restore(const Image& blurred, const Image& psf, const RestoreOptions& options) {
  require_picture(blurred, "the picture");
  return restore(Image(blurred), psf, options);
}

Image restore(Image&& blurred, const Image& psf, const RestoreOptions& options) {
  require_picture(blurred, "the picture");
  require_psf(psf);
  if (options.strength > 200) throw Error("the strength is above 200");
  const int workers = worker_count(options.workers);
  const int strength = options.strength >= 0 ? options.strength : choose_strength(blurred, psf);

  DenormalsAsZero denormals;
  CImg<float> kernel = normalized_kernel(psf);
  Image result(blurred.width, blurred.height, blurred.channels);
  {
    CImg<float> input = shared_view(blurred), output = shared_view(result);
    CDeconv engine(workers, strength, CDeconv::SEMAPHORES_PRIVATE);
    require_taper_ends(engine, kernel, blurred.width, blurred.height);
    engine.deconv_nonblind(output, input, kernel);
  }
  blurred = Image();  // its tapered planes are of no use to anyone
  if (options.align) align(result);
  if (options.clamp)
    for (float& v : result.pixels) v = v < 0 ? 0.0f : v > 1 ? 1.0f : v;
  return result;
}

int choose_strength(const Image& blurred, const Image& psf) {
  require_picture(blurred, "the picture");
  require_psf(psf);
  DenormalsAsZero denormals;
  CImg<float> kernel = normalized_kernel(psf);
  CImg<float> image(blurred.pixels.data(), blurred.width, blurred.height, 1, blurred.channels, false);
  CDeconv engine(worker_count(0), 10, CDeconv::SEMAPHORES_PRIVATE);
  require_taper_ends(engine, kernel, blurred.width, blurred.height);
  engine.deconv_prepare(image, kernel);
  return weigh_picture(image, engine).strength();
}

}  // namespace deconv
