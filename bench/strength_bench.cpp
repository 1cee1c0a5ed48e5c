// deconv-strength against the strengths a user could have tried, on PNG and
// on JPEG. Eight real photographs (Debian's sample photographs), each blurred
// as a lens blurs a scene (the blur taken beyond the crop) by five PSFs, at
// four noise levels, rounded to bytes; each such picture saved as PNG and as
// JPEG of quality 90 by ImageMagick's convert, then read back as deconv reads
// it. Each of the 320 pictures is restored at the strength deconv-strength
// prints for its file, at every strength of the grid 1, 2, 3, 5, 10, 20, 30,
// 50, 100, and compared with its sharp crop. Prints the mean PSNR by format
// and noise: chosen, best of the grid, default 10.
//
// It makes engines and runs deconv-strength, so it runs in a /dev/shm of its
// own (the engine's semaphore names are the machine's): it starts itself
// again under `unshare` first.
#include <unistd.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <random>
#include <string>

#include "engine/deconv.h"
#include "bench/photo_cases.h"
#include "psf/kernels.h"
#include "tool/image_io.h"
#include "tool/value_range.h"

namespace {

constexpr int side = 160, border = 20;
const int grid[] = {1, 2, 3, 5, 10, 20, 30, 50, 100};
std::string work;

void shell(const std::string& command) {
  if (std::system(command.c_str()) != 0) {
    std::fprintf(stderr, "bench_strength: failed: %s\n", command.c_str());
    std::exit(1);
  }
}


int chosen(const std::string& picture) {
  std::FILE* const pipe = popen(("cd " + work + " && " DECONV_STRENGTH_BINARY " " + picture + " psf.pgm").c_str(), "r");
  int strength = -1;
  if (std::fscanf(pipe, "%d", &strength) != 1 || pclose(pipe) != 0 || strength < 1 || strength > 200) {
    std::fprintf(stderr, "bench_strength: deconv-strength failed on %s\n", picture.c_str());
    std::exit(1);
  }
  return strength;
}

struct Sums {
  double chosen = 0, best = 0, fallback = 0, strength = 0;
  int cases = 0;
  void add(const Sums& o) {
    chosen += o.chosen, best += o.best, fallback += o.fallback, strength += o.strength, cases += o.cases;
  }
};

}  // namespace

int main(int, char** argv) {
  restart_in_own_shm(argv);
  flush_denormals_to_zero();
  setenv("PATH", ("/usr/bin:" + std::string(getenv("PATH") ? getenv("PATH") : "")).c_str(), 1);
  char pattern[] = "/tmp/deconv-bench-XXXXXX";
  work = mkdtemp(pattern);

  const struct Photo {
    const char* name;
    int x, y;
  } photos[] = {{"astronaut.png", 170, 40},        {"rocket.jpg", 260, 120}, {"camera.png", 200, 60},
                {"coffee.png", 120, 100},          {"chelsea.png", 150, 60}, {"hubble_deep_field.jpg", 400, 300},
                {"motorcycle_left.png", 300, 150}, {"retina.jpg", 600, 500}};
  const CImg<float> psfs[] = {gaussian_psf(1.5), gaussian_psf(3), motion_psf(9, 30), motion_psf(15, 100), disk_psf(4)};
  const double noises[] = {0, 0.005, 0.01, 0.02};
  const char* const formats[] = {"png", "jpg"};
  std::map<std::string, std::map<double, Sums>> table;  // by format, then noise
  unsigned seed = 1;
  for (const Photo& photo : photos) {
    CImg<float> sharp_photo;
    load_image(sharp_photo, (DECONV_SOURCE "/.cache/testdata/" + std::string(photo.name)).c_str());
    const CImg<float> sharp = sharp_photo.get_crop(photo.x, photo.y, photo.x + side - 1, photo.y + side - 1);
    for (const CImg<float>& psf : psfs) {
      (psf / psf.max() * 255).round().save_pnm((work + "/psf.pgm").c_str());
      for (const double noise : noises) {
        blurred_crop(sharp_photo, psf, photo.x, photo.y, side, noise, seed++).save_pnm((work + "/picture.pnm").c_str());
        shell("cd " + work +
              " && convert -quiet picture.pnm picture.png && convert -quiet picture.pnm -quality 90 picture.jpg");
        for (const char* format : formats) {
          const std::string name = std::string("picture.") + format;
          CImg<float> picture;
          load_image(picture, (work + "/" + name).c_str());
          const int strength = chosen(name);
          Sums one;
          one.chosen = interior_psnr(deconv_restored(picture, psf, strength), sharp, border, 2);
          for (const int s : grid) {
            const double value = interior_psnr(deconv_restored(picture, psf, s), sharp, border, 2);
            one.best = std::max(one.best, value);
            if (s == 10) one.fallback = value;
          }
          one.strength = strength, one.cases = 1;
          table[format][noise].add(one);
        }
      }
    }
  }
  shell("rm -rf " + work);

  std::printf("deconv-strength: mean PSNR over %d pictures each saved as PNG and as JPEG of quality 90\n",
              (int)(sizeof photos / sizeof *photos * sizeof psfs / sizeof *psfs * sizeof noises / sizeof *noises));
  std::printf("format  noise   chosen (mean strength)  best of the grid  default 10\n");
  for (const char* format : formats) {
    Sums all;
    const auto row = [&](const char* label, const Sums& s) {
      std::printf("%-6s  %-6s  %.2f dB (%5.1f)       %.2f dB          %.2f dB\n", format, label, s.chosen / s.cases,
                  s.strength / s.cases, s.best / s.cases, s.fallback / s.cases);
    };
    for (const auto& [noise, sums] : table[format]) {
      char label[16];
      std::snprintf(label, sizeof label, "%.1f %%", noise * 100);
      row(label, sums);
      all.add(sums);
    }
    row("all", all);
  }
  return 0;
}
