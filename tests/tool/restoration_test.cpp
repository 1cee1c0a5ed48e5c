// Whole restorations through the binary: public-domain photographs blurred
// here with known PSFs come back closer to the sharp original.
//
// The measure is PSNR against the sharp picture over the interior (a border of
// 16 pixels is left out, where the taper works), at the best whole-pixel
// offset: the restoration stands one pixel toward +x and +y by design, and a
// PSF whose first plane does not sum to 1 moves it further.
#include <cmath>

#include "tests/tool/tool_fixture.h"
#include "tool/image_io.h"

namespace {

CImg<float> load(const std::string& path) {
  CImg<float> img;
  load_image(img, path.c_str());
  return img;
}

// A crop of a photograph, in grey (the mean of its planes) or in colour.
CImg<float> sharp_picture(const std::string& photo, int w, int h, bool grey) {
  CImg<float> img = load(test_photo(photo)).get_crop(60, 40, 60 + w - 1, 40 + h - 1);
  if (grey) img = img.get_channel(0) / 3 + img.get_channel(1) / 3 + img.get_channel(2) / 3;
  return img;
}

// Convolution with the first plane of the PSF normalised to sum 1, the
// picture's edge repeated outward, as a lens would blur a larger scene.
CImg<float> blurred(const CImg<float>& sharp, const CImg<float>& psf) {
  const CImg<float> k = psf.get_channel(0) / psf.get_channel(0).sum();
  const int cx = k.width() / 2, cy = k.height() / 2;
  CImg<float> out(sharp.width(), sharp.height(), 1, sharp.spectrum(), 0);
  cimg_forXYC(out, x, y, c) {
    double sum = 0;
    cimg_forXY(k, i, j) sum += k(i, j) * sharp(std::clamp(x + cx - i, 0, sharp.width() - 1),
                                               std::clamp(y + cy - j, 0, sharp.height() - 1), 0, c);
    out(x, y, 0, c) = (float)sum;
  }
  return out;
}

CImg<float> gaussian(int size, float sigma) {
  CImg<float> k(size, size);
  cimg_forXY(k, x, y) k(x, y) = std::exp(-(std::pow(x - size / 2, 2) + std::pow(y - size / 2, 2)) / (2 * sigma * sigma));
  return k * (255 / k.max());
}

CImg<float> disk(int radius) {
  CImg<float> k(2 * radius + 1, 2 * radius + 1, 1, 1, 0);
  cimg_forXY(k, x, y) if (std::hypot(x - radius, y - radius) <= radius + 0.01) k(x, y) = 255;
  return k;
}

CImg<float> from_taps(int w, int h, std::initializer_list<float> taps) {
  CImg<float> k(w, h);
  std::copy(taps.begin(), taps.end(), k.begin());
  return k;
}

CImg<float> colour_of(const CImg<float>& plane) {
  CImg<float> k(plane.width(), plane.height(), 1, 3);
  for (int c = 0; c < 3; ++c) k.get_shared_channel(c) = plane;
  return k;
}

struct Case {
  const char* name;
  const char* photo;
  int width, height;
  bool grey;
  CImg<float> psf;
  int strength;
  double min_gain_db;
  int max_shift;
};

void PrintTo(const Case& c, std::ostream* os) { *os << c.name; }

class Restoration : public ToolTest, public ::testing::WithParamInterface<Case> {};

TEST_P(Restoration, BringsThePictureCloserToTheSharpOne) {
  const Case& p = GetParam();
  const CImg<float> sharp = sharp_picture(p.photo, p.width, p.height, p.grey);
  const CImg<float> blur = blurred(sharp, p.psf);
  write_pnm(in("blurred.pnm"), blur);
  write_pnm(in("psf.pnm"), p.psf);
  const RunResult r = run_deconv({"blurred.pnm", "psf.pnm", "restored.pnm", "2", "95", std::to_string(p.strength)},
                                 dir.path());
  ASSERT_EQ(r.status, 0) << r.err;
  const CImg<float> restored = load(in("restored.pnm"));
  ASSERT_TRUE(restored.is_sameXYZC(sharp));
  const double before = psnr_best_shift(load(in("blurred.pnm")), sharp, 16, p.max_shift);
  const double after = psnr_best_shift(restored, sharp, 16, p.max_shift);
  RecordProperty("psnr_blurred", std::to_string(before));
  RecordProperty("psnr_restored", std::to_string(after));
  std::printf("%s: blurred %.2f dB, restored %.2f dB\n", p.name, before, after);
  EXPECT_GT(after, before + p.min_gain_db) << "blurred " << before << " dB, restored " << after << " dB";
}

INSTANTIATE_TEST_SUITE_P(
    Photographs, Restoration,
    ::testing::Values(
        Case{"gaussianColourEven", "astronaut.png", 160, 128, false, gaussian(9, 1.6f), 10, 1.5, 2},
        Case{"gaussianGreyOdd", "rocket.jpg", 151, 131, true, gaussian(9, 1.6f), 10, 1.5, 2},
        Case{"motionGreyPrime", "astronaut.png", 127, 113, true, from_taps(9, 1, {1, 1, 1, 1, 1, 1, 1, 1, 1}), 10, 2, 2},
        Case{"diskColourPrime", "rocket.jpg", 131, 109, false, disk(3), 10, 2, 2},
        Case{"evenBox", "astronaut.png", 144, 144, true, CImg<float>(4, 4, 1, 1, 255), 10, 2, 2},
        Case{"asymmetric", "astronaut.png", 150, 120, false,
             from_taps(5, 5, {255, 0, 0, 0, 0, 0, 200, 0, 0, 0, 0, 0, 150, 90, 0, 0, 0, 0, 60, 0, 0, 0, 0, 0, 30}), 10, 1.5, 3},
        // No regularisation is a plain inverse filter: fine for a PSF whose
        // spectrum stays well away from zero (here |H| >= 1/9).
        Case{"noRegularisation", "astronaut.png", 128, 128, true, from_taps(3, 3, {1, 4, 1, 4, 16, 4, 1, 4, 1}), 0, 0.5, 2},
        Case{"heavyRegularisation", "astronaut.png", 128, 128, false, gaussian(9, 1.6f), 200, 0.3, 2},
        // One plane of three survives, summing to a third: centring overshoots
        // by several pixels, and the picture is restored off its place.
        Case{"colourPsf", "astronaut.png", 160, 160, false, colour_of(gaussian(7, 1.2f)), 10, 1, 8}),
    [](const auto& info) { return std::string(info.param.name); });

TEST_F(ToolTest, AOnePixelPsfOnlyMovesThePicture) {
  const CImg<float> sharp = sharp_picture("astronaut.png", 96, 80, false);
  write_pnm(in("sharp.pnm"), sharp);
  write_pnm(in("impulse.pgm"), CImg<float>(1, 1, 1, 1, 255));
  ASSERT_EQ(run_deconv({"sharp.pnm", "impulse.pgm", "out.pnm", "2"}, dir.path()).status, 0);
  const CImg<float> out = load(in("out.pnm"));
  // Nearly identical one pixel toward +x and +y; the regularisation softens a little.
  EXPECT_GT(psnr_best_shift(out, sharp, 16, 1), 30);
}

TEST_F(ToolTest, TheWorkerCountDoesNotChangeTheResult) {
  const CImg<float> sharp = sharp_picture("rocket.jpg", 140, 100, false);
  write_pnm(in("blurred.pnm"), blurred(sharp, gaussian(7, 1.2f)));
  write_pnm(in("psf.pnm"), gaussian(7, 1.2f));
  CImg<float> first;
  for (const int workers : {1, 2, 3, 8}) {
    ASSERT_EQ(run_deconv({"blurred.pnm", "psf.pnm", "out.pnm", std::to_string(workers)}, dir.path()).status, 0);
    const CImg<float> out = load(in("out.pnm"));
    if (first.is_empty()) {
      first = out;
      continue;
    }
    // The three derivative jobs add into S in whatever order they finish, so
    // the last bit of a float may differ, and a byte by one at most.
    EXPECT_LE((out - first).abs().max(), 1) << workers << " workers";
  }
}

}  // namespace
