// restore() and choose_strength() on the second engine: one pool and one
// prepared problem a call, the channels one after the other, each restored
// straight into the result.
#include <stdexcept>

#include "fast/problem.h"
#include "lib/engines.h"
#include "lib/image_views.h"
#include "strength/weigh.h"

namespace libdeconv {

namespace {

using namespace deconv::fast;

PlacedPsf placed_psf(const Image& kernel, const Image& picture) {
  try {
    return place_psf_as_exact_engine(kernel.pixels.data(), kernel.width, kernel.height, picture.width, picture.height);
  } catch (const std::invalid_argument& e) {
    throw Error(e.what());
  }
}

}  // namespace

Image restore_fast(const Image& blurred, const Image& kernel, const int strength, const int workers) {
  Workers pool(workers);
  const Problem problem(placed_psf(kernel, blurred), pool);
  // The result's planes in huge pages, like the engine's own buffers.
  Image result;
  result.width = blurred.width, result.height = blurred.height, result.channels = blurred.channels;
  result.pixels.reserve(blurred.pixels.size());
  deconv::spectral::advise_huge_pages(result.pixels.data(), blurred.pixels.size() * sizeof(float));
  result.pixels.resize(blurred.pixels.size());
  Spectrum spectrum(problem.fft.frequencies());
  const float lambda = (float)strength / 10.0f;
  const size_t plane = problem.fft.samples();
  for (int c = 0; c < blurred.channels; ++c) {
    float* const out = result.pixels.data() + c * plane;
    taper_edges(problem, blurred.pixels.data() + c * plane, out, spectrum, pool);
    wiener_solve(problem, lambda, out, spectrum, pool);
  }
  return result;
}

int choose_strength_fast(const Image& blurred, const Image& kernel, const int workers) {
  Workers pool(workers);
  const Problem problem(placed_psf(kernel, blurred), pool);
  return weigh_picture(problem, blurred.pixels.data(), blurred.channels, pool).strength();
}

}  // namespace libdeconv
