// A program of the installed library's users: a flat grey picture must come
// back flat whatever the blur, and the library's refusals must be catchable
// as deconv::Error outside it.
#include <deconv/deconv.h>

#include <algorithm>
#include <cstdio>

int main() {
  deconv::Image grey(64, 48, 3);
  std::fill(grey.pixels.begin(), grey.pixels.end(), 0.5f);
  const deconv::Image sharp = deconv::restore(grey, deconv::draw_psf("motion:9,30"));
  const auto range = std::minmax_element(sharp.pixels.begin(), sharp.pixels.end());
  std::printf("%dx%dx%d %.4f %.4f\n", sharp.width, sharp.height, sharp.channels, *range.first, *range.second);
  try {
    deconv::draw_psf("blob:1");
  } catch (const deconv::Error& e) {
    std::printf("%s\n", e.what());
  }
}
