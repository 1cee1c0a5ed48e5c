// Circular convolution: where a kernel's origin lands, the gain, and the
// checks on the kernel spectrum.
#include <random>

#include "spectral/fft.h"
#include "tests/support/test_support.h"

namespace {

CImg<float> ramp(int w, int h) {
  CImg<float> img(w, h);
  cimg_forXY(img, x, y) img(x, y) = 1 + x + 10 * y;
  return img;
}

// image moved by (dx, dy) with wrap-around: out(x, y) = in(x - dx, y - dy).
CImg<float> rolled(const CImg<float>& img, int dx, int dy) {
  CImg<float> out(img, false);
  cimg_forXY(out, x, y) out(x, y) = img(cimg_library::cimg::mod(x - dx, img.width()), cimg_library::cimg::mod(y - dy, img.height()));
  return out;
}

void expect_close(const CImg<float>& a, const CImg<float>& b, float tolerance = 1e-3f) {
  ASSERT_TRUE(a.is_sameXYZC(b));
  for (size_t k = 0; k < a.size(); ++k) ASSERT_NEAR(a[k], b[k], tolerance) << "at offset " << k;
}

CImgList<float> impulse_spectrum(int w, int h, int x, int y) {
  CImg<float> impulse(w, h, 1, 1, 0);
  impulse(x, y) = 1;
  return forward_spectrum(impulse, nullptr);
}

TEST(FftConvolve, TransformedImpulsesKeepOrMoveThePicture) {
  const CImg<float> image = ramp(7, 6);
  CImg<float> result;
  fft_convolve(result, image, impulse_spectrum(7, 6, 0, 0), nullptr);
  expect_close(result, image);
  fft_convolve(result, image, impulse_spectrum(7, 6, 1, 0), nullptr);
  expect_close(result, rolled(image, 1, 0));  // the last column wraps to column 0
}

struct Placement {
  const char* name;
  int image_w, image_h, kernel_w, kernel_h, one_x, one_y;  // a kernel with a single 1
  int dx, dy;                                              // how the picture moves
};

void PrintTo(const Placement& p, std::ostream* os) { *os << p.name; }

class KernelPlacement : public ::testing::TestWithParam<Placement> {};

// The middle of an odd kernel lands one pixel short of the origin, so the
// picture moves toward -x and -y. That offset is by design.
TEST_P(KernelPlacement, MovesThePictureAsTheKernelLands) {
  const Placement& p = GetParam();
  const CImg<float> image = ramp(p.image_w, p.image_h);
  CImg<float> kernel(p.kernel_w, p.kernel_h, 1, 1, 0);
  kernel(p.one_x, p.one_y) = 1;
  CImg<float> result;
  fft_convolve(result, image, kernel, nullptr);
  expect_close(result, rolled(image, p.dx, p.dy));
}

INSTANTIATE_TEST_SUITE_P(
    Kernels, KernelPlacement,
    ::testing::Values(Placement{"odd3x3", 8, 6, 3, 3, 1, 1, -1, -1}, Placement{"odd3x3OddImage", 9, 7, 3, 3, 1, 1, -1, -1},
                      Placement{"even4x4", 8, 6, 4, 4, 2, 2, 0, 0},
                      // 9 x 9 on 5 x 5: cropped around its middle, which lands at (4, 4).
                      Placement{"largerThanImage", 5, 5, 9, 9, 4, 4, -1, -1},
                      Placement{"widthOne", 1, 6, 3, 3, 1, 1, 0, -1}),
    [](const auto& info) { return std::string(info.param.name); });

TEST(FftConvolve, KernelOutsideTheCropIsLost) {
  const CImg<float> image = ramp(5, 5);
  CImg<float> kernel(9, 9, 1, 1, 0);
  kernel(4, 4) = 1;
  kernel(0, 0) = 5;  // falls outside a 5 x 5 picture
  CImg<float> result;
  fft_convolve(result, image, kernel, nullptr);
  expect_close(result, rolled(image, -1, -1));
}

TEST(FftConvolve, KernelSumIsTheGain) {
  const CImg<float> image = ramp(10, 8);
  CImg<float> kernel(3, 3, 1, 1, 2.0f / 9);
  CImg<float> result;
  fft_convolve(result, image, kernel, nullptr);
  EXPECT_NEAR(result.mean(), 2 * image.mean(), 1e-3);
}

TEST(FftConvolve, ResultTakesTheImageSize) {
  const CImg<float> image = ramp(6, 4);
  CImg<float> result(2, 9, 1, 3, 7.0f);
  fft_convolve(result, image, impulse_spectrum(6, 4, 0, 0), nullptr);
  expect_close(result, image);
}

TEST(FftConvolve, ABadKernelSpectrumThrows189) {
  const CImg<float> image = ramp(6, 4);
  CImg<float> result;
  CImgList<float> spectrum = impulse_spectrum(6, 4, 0, 0);
  CImgList<float> one(spectrum[0]), three(spectrum);
  three.insert(spectrum[0]);
  for (const CImgList<float>* bad : {&one, &three}) {
    try {
      fft_convolve(result, image, *bad, nullptr);
      ADD_FAILURE() << bad->size() << " entries accepted";
    } catch (int code) {
      EXPECT_EQ(code, 189);
    }
  }
  try {
    fft_convolve(result, ramp(6, 5), spectrum, nullptr);
    ADD_FAILURE() << "another size accepted";
  } catch (int code) {
    EXPECT_EQ(code, 189);
  }
  EXPECT_TRUE(result.is_empty()) << "result was touched before the check";
}

}  // namespace
