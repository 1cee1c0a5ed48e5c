// restore() and choose_strength() on deconv's own engine, each call with a
// private pool and private semaphores, behind a check that turns the engine's
// endless taper walk into an error the caller can catch.
#include "engine/deconv.h"
#include "lib/engines.h"
#include "lib/image_views.h"
#include "strength/choice.h"

namespace libdeconv {

namespace {

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

}  // namespace

Image restore_exact(Image&& blurred, const Image& kernel, const int strength, const int workers) {
  CImg<float> psf = first_plane(kernel);
  {
    // The result takes the place of the picture: each channel's job transforms
    // its whole plane into the thread's buffer before it writes the plane back,
    // and the tapered input is of no use to anyone afterwards. A second
    // picture would add about a sixth to the peak memory.
    CImg<float> planes = shared_view(blurred);
    CDeconv engine(workers, strength, CDeconv::SEMAPHORES_PRIVATE);
    require_taper_ends(engine, psf, blurred.width, blurred.height);
    engine.deconv_nonblind(planes, planes, psf);
  }
  Image result = std::move(blurred);
  blurred = Image();
  return result;
}

}  // namespace libdeconv
