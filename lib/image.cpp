// The picture type of the public header, and the checks every entry makes on
// the pictures it is given.
#include <algorithm>
#include <thread>

#include "lib/image_views.h"

deconv::Image::Image(const int width, const int height, const int channels) : Image(width, height, 1, channels) {}

deconv::Image::Image(const int width, const int height, const int depth, const int channels)
    : width(width), height(height), depth(depth), channels(channels) {
  if (width < 0 || height < 0 || depth < 0 || channels < 0) throw Error("an image cannot have a negative size");
  pixels.assign((size_t)width * height * depth * channels, 0.0f);
}

namespace libdeconv {

void require_picture(const Image& image, const char* const what) {
  if (image.width <= 0 || image.height <= 0 || image.depth <= 0 || image.channels <= 0)
    throw Error(std::string(what) + " is empty");
  const size_t samples = (size_t)image.width * image.height * image.depth * image.channels;
  if (image.pixels.size() != samples)
    throw Error(std::string(what) + " holds " + std::to_string(image.pixels.size()) +
                " samples, not width x height x depth x channels = " + std::to_string(samples));
}


int worker_count(const int requested) {
  if (requested < 0) throw Error("the worker count is negative");
  return requested > 0 ? requested : (int)std::max(1u, std::thread::hardware_concurrency());
}

}  // namespace libdeconv
