// Restorations of photographs by deconv's engine: each PSF below blurs crops
// of the eight sample photographs (Debian's, in .cache/testdata) as a lens
// blurs a scene, rounded to bytes, and each is restored as deconv restores it.
// Prints the PSNR over the interior (at the best whole-pixel offset) of the
// blurred and of the restored crops, by PSF, and their least gain. The suite
// pins the bytes of a sample of these cases (tests/tool/pinned_results_test.cpp).
//
// It makes engines, so it runs in a /dev/shm of its own (the engine's
// semaphore names are the machine's): it starts itself again under
// `unshare` first.
#include <unistd.h>

#include <cmath>
#include <cstdio>
#include <string>
#include <vector>

#include "bench/photo_cases.h"
#include "tool/image_io.h"
#include "tool/value_range.h"

namespace {

constexpr int side = 160, border = 16;

struct Psf {
  const char* name;
  CImg<float> taps;  // the first plane blurs; all planes restore
  int strength;
};

std::vector<Psf> psfs() {
  CImg<float> disk(7, 7), colour(7, 7, 1, 3), l_shape(5, 5, 1, 1, 0);
  cimg_forXY(disk, x, y) disk(x, y) = std::hypot(x - 3, y - 3) <= 3 ? 255 : 0;
  for (int c = 0; c < 3; ++c) colour.get_shared_channel(c) = gaussian(7, 1.2f);
  for (int i = 0; i < 5; ++i) l_shape(i, i) = l_shape(i, 4) = 255 - 40 * i;
  return {{"Gaussian 1.6, 9 x 9", gaussian(9, 1.6f), 10},
          {"linear motion 9", CImg<float>(9, 1, 1, 1, 255), 10},
          {"disk 3", disk, 10},
          {"box 4 x 4 (even)", CImg<float>(4, 4, 1, 1, 255), 10},
          {"asymmetric L", l_shape, 10},
          {"binomial 3 x 3, strength 0", CImg<float>(3, 3, 1, 1, 1.0, 4.0, 1.0, 4.0, 16.0, 4.0, 1.0, 4.0, 1.0), 0},
          {"Gaussian 1.6, strength 200", gaussian(9, 1.6f), 200},
          {"colour planes (centring overshoots)", colour, 10}};
}

}  // namespace

int main(int argc, char** argv) {
  restart_in_own_shm(argv);
  (void)argc;
  flush_denormals_to_zero();
  const char* photos[] = {"astronaut.png", "camera.png", "chelsea.png", "coffee.png", "hubble_deep_field.jpg",
                          "motorcycle_left.png", "retina.jpg", "rocket.jpg"};
  std::printf("Restorations of %zu photographs' %d x %d crops, 8 bits, by deconv's engine (PSNR over the interior)\n\n",
              std::size(photos), side, side);
  std::vector<CImg<float>> loaded;
  for (const char* name : photos) {
    loaded.emplace_back();
    load_image(loaded.back(), (std::string(DECONV_TESTDATA) + "/" + name).c_str());
    if (loaded.back().spectrum() == 1) loaded.back().resize(-100, -100, 1, 3);
  }
  std::printf("| PSF | Strength | Blurred | Restored | Least gain |\n|---|---|---|---|---|\n");
  for (const Psf& psf : psfs()) {
    double blurred_sum = 0, restored_sum = 0, least = 1e9;
    for (const CImg<float>& photo : loaded) {
      const int x = photo.width() / 3, y = photo.height() / 3;
      const CImg<float> sharp = photo.get_crop(x, y, x + side - 1, y + side - 1);
      const CImg<float> blurred = blurred_crop(photo, psf.taps.get_channel(0), x, y, side, 0, 1);
      const CImg<float> restored = deconv_restored(blurred, psf.taps, psf.strength);
      const double before = std::min(60.0, interior_psnr(blurred, sharp, border, 2)),
                   after = interior_psnr(restored, sharp, border, 8);
      blurred_sum += before, restored_sum += after, least = std::min(least, after - before);
    }
    std::printf("| %s | %d | %.2f dB | %.2f dB | %+.2f dB |\n", psf.name, psf.strength, blurred_sum / std::size(photos),
                restored_sum / std::size(photos), least);
  }
  std::printf("\n");
  return 0;
}
