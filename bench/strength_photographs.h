// The photographs on which a strength choice is judged, and the table that
// reports it: eight real photographs (Debian's sample photographs), each
// blurred as a lens blurs a scene (the blur taken beyond the crop) by five
// PSFs, at four noise levels, rounded to bytes; each such picture saved as PNG
// and as JPEG of quality 90 by ImageMagick's convert and read back as deconv
// reads it. Each of the 320 pictures is restored at the chosen strength and at
// every strength of the grid 1, 2, 3, 5, 10, 20, 30, 50, 100, and compared
// with its sharp crop. bench/strength_bench.cpp asks deconv-strength,
// bench/sparse_strength_bench.cpp the library.
#ifndef DECONV_BENCH_STRENGTH_PHOTOGRAPHS_H
#define DECONV_BENCH_STRENGTH_PHOTOGRAPHS_H

#include <cstdio>
#include <cstdlib>
#include <map>
#include <string>

#include "bench/photo_cases.h"
#include "psf/kernels.h"
#include "tool/image_io.h"

struct StrengthSums {
  double chosen = 0, best = 0, fallback = 0, strength = 0;
  int cases = 0;
  void add(const StrengthSums& o) {
    chosen += o.chosen, best += o.best, fallback += o.fallback, strength += o.strength, cases += o.cases;
  }
};

// Mean PSNRs by format ("png", "jpg"), then by noise.
using StrengthTable = std::map<std::string, std::map<double, StrengthSums>>;

inline void run_or_exit(const std::string& command) {
  if (std::system(command.c_str()) != 0) {
    std::fprintf(stderr, "strength evaluation: failed: %s\n", command.c_str());
    std::exit(1);
  }
}

// `choose(name, picture)` gives the strength for the file `name` in `work`
// (the PSF beside it as psf.pgm), whose pixels, read back, are `picture`
// (0..255); `restore(picture, psf, strength)` gives what deconv writes for it.
template <class Choose, class Restore>
StrengthTable photograph_strengths(const std::string& work, Choose choose, Restore restore) {
  constexpr int side = 160, border = 20;
  const int grid[] = {1, 2, 3, 5, 10, 20, 30, 50, 100};
  const struct Photo {
    const char* name;
    int x, y;
  } photos[] = {{"astronaut.png", 170, 40},        {"rocket.jpg", 260, 120}, {"camera.png", 200, 60},
                {"coffee.png", 120, 100},          {"chelsea.png", 150, 60}, {"hubble_deep_field.jpg", 400, 300},
                {"motorcycle_left.png", 300, 150}, {"retina.jpg", 600, 500}};
  const CImg<float> psfs[] = {gaussian_psf(1.5), gaussian_psf(3), motion_psf(9, 30), motion_psf(15, 100), disk_psf(4)};
  const double noises[] = {0, 0.005, 0.01, 0.02};
  StrengthTable table;
  unsigned seed = 1;
  for (const Photo& photo : photos) {
    CImg<float> sharp_photo;
    load_image(sharp_photo, (DECONV_SOURCE "/.cache/testdata/" + std::string(photo.name)).c_str());
    const CImg<float> sharp = sharp_photo.get_crop(photo.x, photo.y, photo.x + side - 1, photo.y + side - 1);
    for (const CImg<float>& psf : psfs) {
      (psf / psf.max() * 255).round().save_pnm((work + "/psf.pgm").c_str());
      for (const double noise : noises) {
        blurred_crop(sharp_photo, psf, photo.x, photo.y, side, noise, seed++).save_pnm((work + "/picture.pnm").c_str());
        run_or_exit("cd " + work +
                    " && convert -quiet picture.pnm picture.png && convert -quiet picture.pnm -quality 90 picture.jpg");
        for (const char* format : {"png", "jpg"}) {
          const std::string name = std::string("picture.") + format;
          CImg<float> picture;
          load_image(picture, (work + "/" + name).c_str());
          const int strength = choose(name, picture);
          StrengthSums one;
          one.chosen = interior_psnr(restore(picture, psf, strength), sharp, border, 2);
          for (const int s : grid) {
            const double value = interior_psnr(restore(picture, psf, s), sharp, border, 2);
            one.best = std::max(one.best, value);
            if (s == 10) one.fallback = value;
          }
          one.strength = strength, one.cases = 1;
          table[format][noise].add(one);
        }
      }
    }
  }
  return table;
}

inline void print_photograph_strengths(const StrengthTable& table) {
  std::printf("Photographs: mean PSNR over 160 pictures each saved as PNG and as JPEG of quality 90\n");
  std::printf("format  noise   chosen (mean strength)  best of the grid  default 10\n");
  for (const char* format : {"png", "jpg"}) {
    StrengthSums all;
    const auto row = [&](const char* label, const StrengthSums& s) {
      std::printf("%-6s  %-6s  %.2f dB (%5.1f)       %.2f dB          %.2f dB\n", format, label, s.chosen / s.cases,
                  s.strength / s.cases, s.best / s.cases, s.fallback / s.cases);
    };
    for (const auto& [noise, sums] : table.at(format)) {
      char label[16];
      std::snprintf(label, sizeof label, "%.1f %%", noise * 100);
      row(label, sums);
      all.add(sums);
    }
    row("all", all);
  }
}

#endif
