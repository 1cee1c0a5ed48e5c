// Helpers of the library's and the commands' tests: crops of the test
// photographs, blurs, PSFs cut with their sky, and the seams of tiles.
#ifndef DECONV_TESTS_LIBRARY_SUPPORT_H
#define DECONV_TESTS_LIBRARY_SUPPORT_H

#include "bench/estimate_cases.h"
#include "tests/support.h"

// A crop of a photograph of .cache/testdata, 0..1; `grey`: its first channel.
inline deconv::Image testdata_crop(const std::string& name, int x, int y, int w, int h, bool grey = false) {
  return estimate_eval::photo_crop(std::string(DECONV_TESTDATA) + "/" + name, x, y, w, h, grey);
}

inline CImg<float> as_cimg(const deconv::Image& image) {
  return CImg<float>(image.pixels.data(), image.width, image.height, image.depth, image.channels);
}

// `sharp` blurred by `psf` (odd sides, centred), with CImg's `boundary`
// beyond the borders (1: repeated, 3: mirrored).
inline deconv::Image blurred(const deconv::Image& sharp, const deconv::Image& psf, int boundary) {
  const CImg<float> kernel = as_cimg(psf);
  return estimate_eval::to_image(as_cimg(sharp).convolve(kernel / kernel.sum(), boundary), 1);
}

// `psf` in the middle of a square of `side`, every tap lifted by `pedestal`
// of its peak: a star cut with its sky.
inline deconv::Image framed(const deconv::Image& psf, int side, float pedestal) {
  CImg<float> out(side, side, 1, 1, 0.0f);
  return estimate_eval::to_image(out.draw_image((side - psf.width) / 2, (side - psf.height) / 2, as_cimg(psf)) + pedestal, 1);
}

// The largest difference at least `margin` samples inside along x and y
// (`margin_z` along z), over the whole's range.
inline double seam(const deconv::Image& tiled, const deconv::Image& whole, int margin, int margin_z = 0) {
  const auto [low, high] = std::minmax_element(whole.pixels.begin(), whole.pixels.end());
  double worst = 0;
  for (int c = 0; c < whole.channels; ++c)
    for (int z = margin_z; z < whole.depth - margin_z; ++z)
      for (int y = margin; y < whole.height - margin; ++y)
        for (int x = margin; x < whole.width - margin; ++x)
          worst = std::max(worst, (double)std::fabs(tiled.at(x, y, z, c) - whole.at(x, y, z, c)));
  return worst / (*high - *low);
}

#endif
