// The sparse prior (method "sparse") against the automatic Wiener filter
// (restore()'s defaults) on photographs blurred by known PSFs the old way:
// a crop of each sample photograph (Debian's, in .cache/testdata) blurred in
// its sRGB byte values with the blur taken from beyond the crop, Gaussian
// noise of 0, 1 and 2 % added, rounded to bytes. Both results are rounded
// to bytes too. Prints, by noise and by PSF, the mean PSNR of each, the
// PSNR of the border band (the samples within a PSF's extent of an edge)
// against the interior's, the cases each wins, and the CPU time per
// megapixel on one worker.
//
//   bench_sparse [alpha=A] [outer=N] [inner=N] [mu=M] [growth=G] [start=S] [scale=C] [multipliers=0|1]
//
// With no argument both go through restore(); with any, the sparse prior
// runs on the engine with those settings (scale multiplies the automatic
// lambda), for tuning.
#include <ctime>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "bench/photo_cases.h"
#include "deconv/deconv.h"
#include "fast/sparse.h"
#include "tool/image_io.h"

namespace {

constexpr int side = 192, shift = 2;

struct Psf {
  const char* name;
  CImg<float> taps;
};

std::vector<Psf> psfs() {
  CImg<float> disk(7, 7), l_shape(5, 5, 1, 1, 0);
  cimg_forXY(disk, x, y) disk(x, y) = std::hypot(x - 3, y - 3) <= 3 ? 255 : 0;
  for (int i = 0; i < 5; ++i) l_shape(i, i) = l_shape(i, 4) = 255 - 40 * i;
  return {{"Gaussian 1.6, 9 x 9", gaussian(9, 1.6f)},
          {"linear motion 9", CImg<float>(9, 1, 1, 1, 255)},
          {"disk 3", disk},
          {"asymmetric L", l_shape}};
}

struct Tuning {
  bool engine = false;
  deconv::fast::SparseOptions options;
  float scale = 1;
};

deconv::Image to_image(const CImg<float>& picture) {
  deconv::Image image(picture.width(), picture.height(), picture.spectrum());
  for (size_t i = 0; i < image.pixels.size(); ++i) image.pixels[i] = picture[i] / 255.0f;
  return image;
}

CImg<float> to_bytes(const deconv::Image& image) {
  CImg<float> out(image.width, image.height, 1, image.channels);
  for (size_t i = 0; i < image.pixels.size(); ++i)
    out[i] = std::round(255 * std::min(1.0f, std::max(0.0f, image.pixels[i])));
  return out;
}

deconv::Image sparse(const deconv::Image& blurred, const CImg<float>& psf, const Tuning& tuning) {
  deconv::Image kernel(psf.width(), psf.height(), 1);
  std::copy(psf.data(), psf.data() + psf.size(), kernel.pixels.begin());
  if (!tuning.engine) {
    deconv::RestoreOptions options;
    options.method = "sparse";
    options.workers = 1;
    return deconv::restore(blurred, kernel, options);
  }
  const double sum = psf.sum();
  for (float& p : kernel.pixels) p = (float)(p / sum);
  deconv::spectral::Workers workers(1);
  deconv::Image result(blurred.width, blurred.height, blurred.channels);
  const size_t plane = (size_t)blurred.width * blurred.height;
  const std::vector<int> sizes = {blurred.height, blurred.width}, psf_sizes = {psf.height(), psf.width()};
  for (int c = 0; c < blurred.channels; ++c) {
    deconv::fast::SparseOptions options = tuning.options;
    const float* data = blurred.pixels.data() + c * plane;
    options.lambda = tuning.scale * deconv::fast::sparse_lambda(deconv::fast::noise_deviation(data, sizes), options.alpha);
    deconv::fast::sparse_restore(data, result.pixels.data() + c * plane, sizes, kernel.pixels.data(), psf_sizes,
                                 options, workers);
  }
  return result;
}

// Squared errors over the band within `extent` of the crop's edges and over
// the rest, at the whole-pixel offset (up to `shift`) that fits best: the
// filter centres a PSF on its first moment, the sparse prior on its middle.
struct Errors {
  double band = 0, interior = 0, whole = 0;
};

Errors errors(const CImg<float>& result, const CImg<float>& sharp, const int extent) {
  Errors best;
  best.whole = 1e300;
  for (int dy = -shift; dy <= shift; ++dy)
    for (int dx = -shift; dx <= shift; ++dx) {
      double band = 0, interior = 0;
      size_t in_band = 0, inside = 0;
      cimg_forXYC(sharp, x, y, c) {
        if (x < shift || y < shift || x >= side - shift || y >= side - shift) continue;
        const double d = result(x + dx, y + dy, c) - sharp(x, y, c);
        const int edge = std::min(std::min(x, y), std::min(side - 1 - x, side - 1 - y));
        if (edge < extent) band += d * d, ++in_band;
        else interior += d * d, ++inside;
      }
      const double whole = (band + interior) / (in_band + inside);
      if (whole < best.whole) best = {band / in_band, interior / inside, whole};
    }
  return best;
}

struct Tally {
  double whole = 0, band = 0, interior = 0, seconds = 0, samples = 0;
  int cases = 0, wins = 0;
  void add(const Errors& e, double cpu, double pixels) {
    whole += psnr(e.whole), band += psnr(e.band), interior += psnr(e.interior);
    seconds += cpu, samples += pixels, ++cases;
  }
};

double cpu_seconds() { return (double)std::clock() / CLOCKS_PER_SEC; }

}  // namespace

int main(int argc, char** argv) {
  flush_denormals_to_zero();
  Tuning tuning;
  for (int i = 1; i < argc; ++i) {
    float value = 0;
    char key[32];
    if (std::sscanf(argv[i], "%31[a-z]=%f", key, &value) != 2) return std::fprintf(stderr, "%s?\n", argv[i]), 2;
    tuning.engine = true;
    const std::string k = key;
    auto& o = tuning.options;
    if (k == "alpha") o.alpha = value;
    else if (k == "outer") o.outer_steps = (int)value;
    else if (k == "inner") o.inner_steps = (int)value;
    else if (k == "mu") o.data_penalty = value;
    else if (k == "growth") o.beta_growth = value;
    else if (k == "start") o.beta_start = value;
    else if (k == "scale") tuning.scale = value;
    else if (k == "multipliers") o.multipliers = value != 0;
    else return std::fprintf(stderr, "%s?\n", argv[i]), 2;
  }
  const char* photos[] = {"astronaut.png", "camera.png", "chelsea.png", "coffee.png", "hubble_deep_field.jpg",
                          "motorcycle_left.png", "retina.jpg", "rocket.jpg"};
  std::vector<CImg<float>> loaded;
  for (const char* name : photos) {
    loaded.emplace_back();
    load_image(loaded.back(), (std::string(DECONV_TESTDATA) + "/" + name).c_str());
  }
  std::printf("%zu photographs' %d x %d crops, 8 bits, restored by the automatic Wiener filter and the sparse prior"
              " (PSNR in dB; band: within a PSF's extent of an edge)\n\n",
              std::size(photos), side, side);
  std::printf("| Noise | PSF | Wiener | Sparse | Gain | Wiener band / interior | Sparse band / interior |"
              " Sparse better / worse |\n|---|---|---|---|---|---|---|---|\n");
  Tally all_wiener, all_sparse;
  for (const double noise : {0.0, 0.01, 0.02}) {
    for (const Psf& psf : psfs()) {
      Tally wiener, sparse_tally;
      const int extent = std::max(psf.taps.width(), psf.taps.height());
      deconv::Image kernel(psf.taps.width(), psf.taps.height(), 1);
      std::copy(psf.taps.data(), psf.taps.data() + psf.taps.size(), kernel.pixels.begin());
      unsigned seed = 1;
      for (const CImg<float>& photo : loaded) {
        const int x = photo.width() / 3, y = photo.height() / 3;
        const CImg<float> sharp = photo.get_crop(x, y, x + side - 1, y + side - 1);
        const deconv::Image blurred = to_image(blurred_crop(photo, psf.taps, x, y, side, noise, seed++));
        const double pixels = (double)side * side * blurred.channels;
        deconv::RestoreOptions options;
        options.workers = 1;
        double t0 = cpu_seconds();
        const Errors by_wiener = errors(to_bytes(deconv::restore(blurred, kernel, options)), sharp, extent);
        double t1 = cpu_seconds();
        const Errors by_sparse = errors(to_bytes(sparse(blurred, psf.taps, tuning)), sharp, extent);
        double t2 = cpu_seconds();
        wiener.add(by_wiener, t1 - t0, pixels), sparse_tally.add(by_sparse, t2 - t1, pixels);
        (by_sparse.whole < by_wiener.whole ? sparse_tally : wiener).wins++;
      }
      for (auto [from, to] : {std::make_pair(&wiener, &all_wiener), std::make_pair(&sparse_tally, &all_sparse)}) {
        to->whole += from->whole, to->band += from->band, to->interior += from->interior;
        to->seconds += from->seconds, to->samples += from->samples, to->cases += from->cases, to->wins += from->wins;
      }
      const double n = wiener.cases;
      std::printf("| %.0f %% | %s | %.2f | %.2f | %+.2f | %.2f / %.2f | %.2f / %.2f | %d / %d |\n", noise * 100,
                  psf.name, wiener.whole / n, sparse_tally.whole / n, (sparse_tally.whole - wiener.whole) / n,
                  wiener.band / n, wiener.interior / n, sparse_tally.band / n, sparse_tally.interior / n,
                  sparse_tally.wins, wiener.wins);
      std::fflush(stdout);
    }
  }
  const double n = all_wiener.cases;
  std::printf("| all | all | %.2f | %.2f | %+.2f | %.2f / %.2f | %.2f / %.2f | %d / %d |\n\n", all_wiener.whole / n,
              all_sparse.whole / n, (all_sparse.whole - all_wiener.whole) / n, all_wiener.band / n,
              all_wiener.interior / n, all_sparse.band / n, all_sparse.interior / n, all_sparse.wins,
              all_wiener.wins);
  const double wiener_rate = all_wiener.seconds / all_wiener.samples * 1e6,
               sparse_rate = all_sparse.seconds / all_sparse.samples * 1e6;
  std::printf("CPU time per megapixel (a channel's samples), one worker: Wiener %.3f s, sparse %.3f s, ratio %.2f\n",
              wiener_rate, sparse_rate, sparse_rate / wiener_rate);
  return 0;
}
