// deconv-strength against the strengths a user could have tried. A set of
// real photographs (Debian's sample photographs), each blurred as a lens
// blurs a scene (the blur taken beyond the crop), by five PSFs, at four noise
// levels, quantised to 8 bits; the sharp crops are kept. Each case is restored
// at the strength deconv-strength picks, at every strength of the grid 1, 2,
// 3, 5, 10, 20, 30, 50, 100, and compared with its sharp crop.
#include <cmath>
#include <map>
#include <random>

#include "engine/deconv.h"
#include "psf/kernels.h"
#include "tests/support.h"
#include "tool/image_io.h"
#include "tool/value_range.h"

namespace {

constexpr int side = 160, border = 20;
const int grid[] = {1, 2, 3, 5, 10, 20, 30, 50, 100};

// The crop at (x, y) of the photograph blurred by `psf`, with Gaussian noise
// of `noise` times 255, rounded and clamped to bytes.
CImg<float> blurred(const CImg<float>& photo, const CImg<float>& psf, int x, int y, double noise, unsigned seed) {
  const int margin = psf.width();
  CImg<float> out = photo.get_crop(x - margin, y - margin, x + side - 1 + margin, y + side - 1 + margin)
                        .convolve(psf / psf.sum(), 1)
                        .crop(margin, margin, margin + side - 1, margin + side - 1);
  std::mt19937 rng(seed);
  std::normal_distribution<float> gauss(0.0f, (float)(noise * 255));
  for (float& v : out) v = std::min(255.0f, std::max(0.0f, std::round(v + (noise > 0 ? gauss(rng) : 0.0f))));
  return out;
}

// What deconv writes for this picture at this strength, as bytes' values.
CImg<float> restored(const CImg<float>& picture, const CImg<float>& psf, int strength) {
  CImg<float> image = picture / 255.0f, kernel(psf), output(image.width(), image.height(), 1, image.spectrum());
  normalize_to_unit_sum(kernel);
  CDeconv engine(2, strength);
  engine.deconv_nonblind(output, image, kernel);
  for (float& v : output) v = (float)to_file_value(v, 255);
  return output;
}

int chosen(const TempDir& dir, const CImg<float>& picture, const CImg<float>& psf) {
  picture.save_pnm((dir / "picture.pnm").c_str());
  (psf / psf.max() * 255).round().save_pnm((dir / "psf.pgm").c_str());
  std::FILE* const pipe =
      popen(("cd " + dir.path + " && " DECONV_STRENGTH_BINARY " picture.pnm psf.pgm 2>&1").c_str(), "r");
  int strength = -1;
  if (std::fscanf(pipe, "%d", &strength) != 1) strength = -1;
  pclose(pipe);
  return strength;
}

class Strength : public SemaphoreTest {
 protected:
  TempDir dir;
};

TEST_F(Strength, TheChoiceRestoresNearlyAsWellAsTheBestOfTheGridAndBetterThanTheDefault) {
  struct Photo {
    const char* name;
    int x, y;
  } photos[] = {{"astronaut.png", 170, 40},        {"rocket.jpg", 260, 120}, {"camera.png", 200, 60},
                {"coffee.png", 120, 100},          {"chelsea.png", 150, 60}, {"hubble_deep_field.jpg", 400, 300},
                {"motorcycle_left.png", 300, 150}, {"retina.jpg", 600, 500}};
  const CImg<float> psfs[] = {gaussian_psf(1.5), gaussian_psf(3), motion_psf(9, 30), motion_psf(15, 100), disk_psf(4)};
  const double noises[] = {0, 0.005, 0.01, 0.02};
  struct Sums {
    double chosen = 0, best = 0, fallback = 0;
    int cases = 0;
  };
  std::map<double, Sums> by_noise;
  unsigned seed = 1;
  for (const Photo& photo : photos) {
    const CImg<float> sharp_photo = load(std::string(DECONV_TESTDATA) + "/" + photo.name);
    const CImg<float> sharp = sharp_photo.get_crop(photo.x, photo.y, photo.x + side - 1, photo.y + side - 1);
    for (const CImg<float>& psf : psfs)
      for (const double noise : noises) {
        const CImg<float> picture = blurred(sharp_photo, psf, photo.x, photo.y, noise, seed++);
        const int strength = chosen(dir, picture, psf);
        ASSERT_TRUE(strength >= 1 && strength <= 200) << photo.name << " " << noise;
        double best = 0, fallback = 0;
        for (const int s : grid) {
          const double value = interior_psnr(restored(picture, psf, s), sharp, border, 2);
          best = std::max(best, value);
          if (s == 10) fallback = value;
        }
        Sums& sums = by_noise[noise];
        sums.chosen += interior_psnr(restored(picture, psf, strength), sharp, border, 2);
        sums.best += best, sums.fallback += fallback, ++sums.cases;
      }
  }
  Sums all;
  for (const auto& [noise, sums] : by_noise) {
    std::printf("noise %.1f %%: %d cases, mean PSNR chosen %.2f dB, best of the grid %.2f dB, default 10 %.2f dB\n",
                noise * 100, sums.cases, sums.chosen / sums.cases, sums.best / sums.cases, sums.fallback / sums.cases);
    all.chosen += sums.chosen, all.best += sums.best, all.fallback += sums.fallback, all.cases += sums.cases;
  }
  const double chosen_mean = all.chosen / all.cases, best_mean = all.best / all.cases;
  const double fallback_mean = all.fallback / all.cases;
  std::printf("all %d cases: chosen %.2f dB, best of the grid %.2f dB, default %.2f dB\n", all.cases, chosen_mean,
              best_mean, fallback_mean);
  EXPECT_GE(chosen_mean, best_mean - 0.3);
  EXPECT_GE(chosen_mean, fallback_mean + 0.5);
}

TEST_F(Strength, NoiseRaisesTheChoice) {
  const CImg<float> photo = load(std::string(DECONV_TESTDATA) + "/astronaut.png"), psf = disk_psf(5);
  const int clean = chosen(dir, blurred(photo, psf, 170, 40, 0, 7), psf);
  const int noisy = chosen(dir, blurred(photo, psf, 170, 40, 0.02, 7), psf);
  std::printf("a disk of radius 5: strength %d without noise, %d at 2 %% noise\n", clean, noisy);
  EXPECT_LE(clean, 3);
  EXPECT_GE(noisy, 4 * clean);
}

}  // namespace
