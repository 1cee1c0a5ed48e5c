// deconv-strength on a few blurred photographs whose right strength is not in
// doubt; the evaluation over 320 pictures is bench/strength_bench.cpp.
#include <cmath>
#include <random>

#include "engine/deconv.h"
#include "bench/photo_cases.h"
#include "psf/kernels.h"
#include "tests/support.h"
#include "tool/value_range.h"

namespace {

constexpr int side = 160, border = 20;


class Strength : public SemaphoreTest {
 protected:
  // deconv-strength's answer for `picture` saved as picture.pnm and turned
  // into `name` by the converter with `options`, or -1.
  int chosen(const CImg<float>& picture, const CImg<float>& psf, const std::string& name,
             const std::string& options = "") {
    picture.save_pnm((dir / "picture.pnm").c_str());
    (psf / psf.max() * 255).round().save_pnm((dir / "psf.pgm").c_str());
    const std::string convert = name == "picture.pnm" ? "" : "convert picture.pnm " + options + " " + name + " && ";
    const auto [status, out] = shell("cd " + dir.path + " && " + convert + DECONV_STRENGTH_BINARY " " + name + " psf.pgm");
    return status == 0 ? std::atoi(out.c_str()) : -1;
  }
  TempDir dir;
};

TEST_F(Strength, NoiseRaisesTheChoice) {
  const CImg<float> photo = load(std::string(DECONV_TESTDATA) + "/astronaut.png"), psf = disk_psf(5);
  const int clean = chosen(blurred_crop(photo, psf, 170, 40, side, 0, 7), psf, "picture.pnm");
  const int noisy = chosen(blurred_crop(photo, psf, 170, 40, side, 0.02, 7), psf, "picture.pnm");
  std::printf("a disk of radius 5: strength %d without noise, %d at 2 %% noise\n", clean, noisy);
  EXPECT_LE(clean, 5);
  EXPECT_GE(noisy, 3 * clean);
}

// A JPEG empties its high frequencies of grain, which GCV over all of them
// would take for a clean picture and answer 4 to 8, 1.4 and 2.7 dB below the
// default on these two; the right choice is well above the default, and a
// quarter above that for the same pixels in a lossless file.
TEST_F(Strength, OnAJpegTheChoiceBeatsTheDefault) {
  const struct {
    const char* photo;
    int x, y;
    CImg<float> psf;
  } cases[] = {{"chelsea.png", 150, 60, disk_psf(4)}, {"rocket.jpg", 260, 120, motion_psf(15, 100)}};
  for (const auto& c : cases) {
    const CImg<float> photo = load(std::string(DECONV_TESTDATA) + "/" + c.photo);
    const CImg<float> sharp = photo.get_crop(c.x, c.y, c.x + side - 1, c.y + side - 1);
    const int strength = chosen(blurred_crop(photo, c.psf, c.x, c.y, side, 0.02, 11), c.psf, "picture.jpg", "-quality 90");
    ASSERT_TRUE(strength >= 1 && strength <= 200) << c.photo;
    const CImg<float> jpeg = load(dir / "picture.jpg");
    const double choice = interior_psnr(deconv_restored(jpeg, c.psf, strength), sharp, border, 2);
    const double fallback = interior_psnr(deconv_restored(jpeg, c.psf, 10), sharp, border, 2);
    std::printf("%s at 2 %% noise as JPEG: strength %d, %.2f dB; default 10, %.2f dB\n", c.photo, strength, choice,
                fallback);
    EXPECT_GE(choice, fallback + 0.5) << c.photo;
    // The same pixels without the file's format to tell of their compression.
    EXPECT_EQ(strength, std::lround(1.25 * chosen(jpeg, c.psf, "picture.pnm"))) << c.photo;
  }
}

}  // namespace
