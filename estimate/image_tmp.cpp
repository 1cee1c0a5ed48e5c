// Temporary: deconv::Image's constructor, declared in lib/include/deconv/deconv.h
// and not yet defined by the library. Remove this file when the library lands.
#include "deconv/deconv.h"

namespace deconv {

Image::Image(int width, int height, int channels)
    : width(width), height(height), channels(channels), pixels((size_t)width * height * channels, 0.0f) {
  if (width < 0 || height < 0 || channels < 0) throw Error("an image cannot have a negative size");
}

}  // namespace deconv
