// The library's pictures seen as the engine's images, without copying: a CImg
// that shares an Image's planes (same layout: planes one after another, each
// row by row).
#ifndef DECONV_LIB_IMAGE_VIEWS_H
#define DECONV_LIB_IMAGE_VIEWS_H

#include "deconv/deconv.h"
#include "spectral/workers.h"
#include "imaging/cimg_config.h"

// Helpers of the library's own, outside namespace deconv so that they are not
// exported.
namespace libdeconv {

using deconv::Error;
using deconv::Image;

inline cimg_library::CImg<float> shared_view(Image& image) {
  return cimg_library::CImg<float>(image.pixels.data(), image.width, image.height, 1, image.channels, true);
}

// A PSF's first plane, copied: the engine changes the PSF it is given.
inline cimg_library::CImg<float> first_plane(const Image& psf) {
  return cimg_library::CImg<float>(psf.pixels.data(), psf.width, psf.height, 1, 1, false);
}

// Throws Error unless `image` holds width x height x channels samples, none of
// its sides 0. `what` names it in the message ("the picture", "the PSF").
void require_picture(const Image& image, const char* what);

// Flush-to-zero and denormals-are-zero for a scope, as deconv runs its
// engine and as the second engine runs every loop.
using deconv::spectral::FlushDenormals;

// The worker count to use: `requested`, or the machine's cores for 0.
int worker_count(int requested);

}  // namespace libdeconv

#endif
