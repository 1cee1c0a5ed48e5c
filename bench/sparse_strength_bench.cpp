// The library's strength choice on sparse scenes beside photographs. Star
// fields (400 sources, most below the noise, Moffat PSFs, 512 pixels square)
// and fluorescent spots (80 sources, Gaussian PSFs, 256 pixels square), each
// with four isolated bright sources, at three noise levels and two sky levels
// (bench/sparse_cases.h), restored with the PSF given exactly and with the PSF
// cut from the picture's first bright source, as a user cuts it from a star.
// Each picture is restored at the strength deconv::choose_strength gives and
// at every strength of a grid from 1 to 200, and measured by its PSNR against
// the true scene (over the interior, 1 as the peak) and by the mean FWHM of
// its isolated sources. Prints by scene, PSF and noise (over two PSFs and two
// sky levels): the chosen strength and the grid's best by PSNR, their PSNRs
// and the chosen one's worst shortfall, the FWHM of the scene, of the picture,
// of the chosen restoration and of the best one and the chosen one's worst
// excess; the cases that miss (more than 0.5 dB short of the best or 10 %
// wider than it) and those whose sources come out wider than the picture's.
// Then the photographs of bench/strength_photographs.h, chosen by the
// library. `--cases` prints every case too.
//
// Everything goes through libdeconv, whose engines have semaphores of their
// own: it needs no /dev/shm of its own.
#include <unistd.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>
#include <tuple>

#include "bench/photo_cases.h"
#include "bench/sparse_cases.h"
#include "bench/strength_photographs.h"
#include "deconv/deconv.h"

namespace {

constexpr int border = 20;
const int grid[] = {1, 2, 3, 5, 7, 10, 15, 20, 30, 50, 70, 100, 150, 200};

deconv::Image to_image(const CImg<float>& picture) {
  deconv::Image image(picture.width(), picture.height(), picture.spectrum());
  std::copy(picture.begin(), picture.end(), image.pixels.begin());
  return image;
}

CImg<float> to_cimg(const deconv::Image& image) {
  return CImg<float>(image.pixels.data(), image.width, image.height, 1, image.channels);
}

CImg<float> restored(const deconv::Image& picture, const deconv::Image& psf, int strength) {
  deconv::RestoreOptions options;
  options.strength = strength;
  options.workers = 1;
  return to_cimg(deconv::restore(picture, psf, options));
}

struct Measure {
  double psnr, fwhm;
};

struct Case {
  int chosen, best_strength;
  double chosen_db, best_db, truth_fwhm, blurred_fwhm, chosen_fwhm, best_fwhm;
};

struct Group {
  int cases = 0;
  double chosen = 0, best_strength = 0, chosen_db = 0, best_db = 0, worst_db = 0;
  double truth_fwhm = 0, blurred_fwhm = 0, chosen_fwhm = 0, best_fwhm = 0, worst_width = 0;
  int misses = 0;  // more than 0.5 dB short or 10 % wider
  int wider_than_picture = 0;
  void add(const Case& c) {
    ++cases;
    chosen += c.chosen, best_strength += c.best_strength, chosen_db += c.chosen_db, best_db += c.best_db;
    truth_fwhm += c.truth_fwhm, blurred_fwhm += c.blurred_fwhm, chosen_fwhm += c.chosen_fwhm, best_fwhm += c.best_fwhm;
    const double short_db = c.best_db - c.chosen_db, wider = c.chosen_fwhm / c.best_fwhm - 1;
    worst_db = std::max(worst_db, short_db), worst_width = std::max(worst_width, wider);
    misses += short_db > 0.5 || wider > 0.1;
    wider_than_picture += c.chosen_fwhm > c.blurred_fwhm;
  }
  void merge(const Group& o) {
    cases += o.cases, chosen += o.chosen, best_strength += o.best_strength;
    chosen_db += o.chosen_db, best_db += o.best_db, worst_db = std::max(worst_db, o.worst_db);
    truth_fwhm += o.truth_fwhm, blurred_fwhm += o.blurred_fwhm, chosen_fwhm += o.chosen_fwhm;
    best_fwhm += o.best_fwhm, worst_width = std::max(worst_width, o.worst_width);
    misses += o.misses, wider_than_picture += o.wider_than_picture;
  }
};

// The mean FWHM of the scene's isolated sources in `picture`.
double mean_fwhm(const CImg<float>& picture, const SparseScene& scene, double radius) {
  double sum = 0;
  for (const Source& s : scene.measured) sum += source_fwhm(picture, s, radius);
  return sum / scene.measured.size();
}

Measure measure(const CImg<float>& result, const SparseScene& scene, double radius) {
  return {10 * std::log10(1 / interior_mse(result, scene.truth, border, 1)), mean_fwhm(result, scene, radius)};
}

Case evaluate(const SparseScene& scene, const CImg<float>& psf, double psf_fwhm) {
  const double radius = 1.5 * psf_fwhm + 2;
  const deconv::Image picture = to_image(scene.blurred), kernel = to_image(psf);
  Case c{};
  c.chosen = deconv::choose_strength(picture, kernel);
  const Measure chosen = measure(restored(picture, kernel, c.chosen), scene, radius);
  c.chosen_db = chosen.psnr, c.chosen_fwhm = chosen.fwhm;
  c.truth_fwhm = mean_fwhm(scene.truth, scene, radius);
  c.blurred_fwhm = mean_fwhm(scene.blurred, scene, radius);
  c.best_db = -1e30;
  for (const int s : grid) {
    const Measure m = measure(restored(picture, kernel, s), scene, radius);
    if (m.psnr > c.best_db) c.best_db = m.psnr, c.best_strength = s, c.best_fwhm = m.fwhm;
  }
  return c;
}

void print_groups(const std::map<std::tuple<std::string, std::string, double>, Group>& groups) {
  std::printf("Sparse scenes: by scene, PSF and noise at the sky, over two PSFs and two sky levels\n");
  std::printf(
      "scene  PSF   noise | strength     | PSNR chosen  best  worst | FWHM scene picture chosen best worst | "
      "misses wider\n");
  Group all;
  const auto row = [](const char* scene, const char* psf, const char* noise, const Group& g) {
    const double n = g.cases;
    std::printf(
        "%-6s %-5s %-5s | %5.1f %5.1f  |     %6.2f %6.2f %5.2f |      %5.2f   %5.2f  %5.2f %5.2f %3.0f %% | %2d/%-2d "
        "%3d\n",
        scene, psf, noise, g.chosen / n, g.best_strength / n, g.chosen_db / n, g.best_db / n, g.worst_db,
        g.truth_fwhm / n, g.blurred_fwhm / n, g.chosen_fwhm / n, g.best_fwhm / n, 100 * g.worst_width, g.misses,
        g.cases, g.wider_than_picture);
  };
  for (const auto& [key, g] : groups) {
    char noise[16];
    std::snprintf(noise, sizeof noise, "%.1f%%", std::get<2>(key) * 100);
    row(std::get<0>(key).c_str(), std::get<1>(key).c_str(), noise, g);
    all.merge(g);
  }
  row("all", "", "", all);
}

}  // namespace

int main(int argc, char** argv) {
  const bool every_case = argc > 1 && std::strcmp(argv[1], "--cases") == 0;
  flush_denormals_to_zero();
  struct Kind {
    const char* name;
    int side;
    CImg<float> psfs[2];
    double fwhms[2], skies[2], noises[3];
    struct {
      int count;                 // besides the four bright ones
      double low, high, bright;  // peaks in the blurred picture, over the sky
    } sources;
  };
  // Star fields, most sources below the noise, as a telescope sees a sky; and
  // fluorescent spots, fewer and brighter against a brighter background.
  const CImg<float> moffats[] = {moffat_psf(3, 3, 31), moffat_psf(5, 2.5, 41)};
  const CImg<float> gauss[] = {gaussian_psf_of_side(1.5, 15), gaussian_psf_of_side(2.5, 21)};
  const Kind kinds[] = {
      {"stars", 512, {moffats[0], moffats[1]}, {3, 5}, {0.02, 0.2}, {0.001, 0.003, 0.01}, {400, 0.0005, 0.01, 0.3}},
      {"spots", 256, {gauss[0], gauss[1]}, {3.53, 5.89}, {0.05, 0.2}, {0.003, 0.01, 0.03}, {80, 0.02, 0.3, 0.6}}};
  std::map<std::tuple<std::string, std::string, double>, Group> groups;
  unsigned seed = 1;
  for (const Kind& kind : kinds)
    for (int p = 0; p < 2; ++p)
      for (const double sky : kind.skies)
        for (const double noise : kind.noises) {
          const CImg<float>& psf = kind.psfs[p];
          const SparseScene scene = sparse_scene(psf, kind.side, sky, kind.sources.count, kind.sources.low,
                                                 kind.sources.high, kind.sources.bright, noise, seed++);
          for (const char* given : {"exact", "cut"}) {
            const CImg<float> used =
                std::strcmp(given, "exact") == 0 ? psf : cut_psf(scene.blurred, scene.measured[0], psf.width());
            const Case c = evaluate(scene, used, kind.fwhms[p]);
            groups[{kind.name, given, noise}].add(c);
            if (every_case)
              std::printf(
                  "%s psf %d sky %.2f noise %.3f %s: chosen %d %.2f dB fwhm %.2f; best %d %.2f dB; fwhm "
                  "scene %.2f picture %.2f best %.2f\n",
                  kind.name, p, sky, noise, given, c.chosen, c.chosen_db, c.chosen_fwhm, c.best_strength, c.best_db,
                  c.truth_fwhm, c.blurred_fwhm, c.best_fwhm);
          }
        }
  print_groups(groups);
  std::fflush(stdout);

  setenv("PATH", ("/usr/bin:" + std::string(getenv("PATH") ? getenv("PATH") : "")).c_str(), 1);
  char pattern[] = "/tmp/deconv-bench-XXXXXX";
  const std::string work = mkdtemp(pattern);
  CImg<float> psf_file;
  const StrengthTable table = photograph_strengths(
      work,
      [&](const std::string& name, const CImg<float>& picture) {
        load_image(psf_file, (work + "/psf.pgm").c_str());
        return deconv::choose_strength(to_image(picture / 255.0f), to_image(psf_file), name == "picture.jpg");
      },
      [](const CImg<float>& picture, const CImg<float>& psf, int strength) {
        deconv::RestoreOptions options;
        options.strength = strength, options.workers = 1, options.align = false;
        CImg<float> out = to_cimg(deconv::restore(to_image(picture / 255.0f), to_image(psf), options));
        for (float& v : out) v = (float)to_file_value(v, 255);
        return out;
      });
  run_or_exit("rm -rf " + work);
  print_photograph_strengths(table);
  return 0;
}
