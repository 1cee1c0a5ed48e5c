// A stand-in for picture/picture_file.cpp (OpenImageIO), built only while the
// `picture` target is not in the tree, so that deconv-estimate can be built
// and tested: reads through the tool's loader (8-bit pictures), writes through
// its converter under a temporary name renamed into place. Remove it when
// picture_file.cpp lands.
#include <unistd.h>

#include <cstdio>

#include "picture/picture_file.h"
#include "tool/image_io.h"

PictureFile read_picture(const std::string& path, SampleScale scale) {
  CImg<float> img;
  cimg_library::cimg::exception_mode(0);  // the reason goes into the one line, not the library's report
  try {
    load_image(img, path.c_str());
  } catch (const std::exception& e) {
    throw deconv::Error("cannot read " + path + ": " + e.what());
  }
  if (img.is_empty()) throw deconv::Error("cannot read " + path + ": no picture");
  PictureFile file;
  file.image = deconv::Image(img.width(), img.height(), img.spectrum());
  const float divisor = scale == SampleScale::unit ? 255.0f : 1.0f;
  for (size_t i = 0; i < file.image.pixels.size(); ++i) file.image.pixels[i] = img[i] / divisor;
  return file;
}

void write_picture(const std::string& path, const deconv::Image& image, SampleDepth depth, const PictureFile*,
                   const deconv::Image*) {
  const float maximum = depth == SampleDepth::u8 ? 255.0f : 65535.0f;
  CImg<float> img(image.width, image.height, 1, image.channels);
  for (size_t i = 0; i < image.pixels.size(); ++i) img[i] = image.pixels[i];  // 0..1: the converter scales
  const size_t slash = path.find_last_of('/'), dot = path.find_last_of('.');
  const std::string ext = dot != std::string::npos && (slash == std::string::npos || dot > slash) ? path.substr(dot) : "";
  const std::string staged = path + ".part" + std::to_string(getpid()) + ext;
  try {
    save_other(img, staged.c_str(), 100, (unsigned)maximum);
  } catch (const std::exception& e) {
    std::remove(staged.c_str());
    throw deconv::Error("cannot write " + path + ": " + e.what());
  }
  if (std::rename(staged.c_str(), path.c_str()) != 0) {
    std::remove(staged.c_str());
    throw deconv::Error("cannot write " + path + ": the folder refused it");
  }
}
