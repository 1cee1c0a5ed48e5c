// The library's restoration on its two engines, beside scikit-image's wiener
// (bench/wiener_reference.py) and the floor of the second engine's own
// transforms: bare FFTW ESTIMATE plans, real to complex and back, one for the
// PSF and four a channel, on one thread. Grey and colour, nine sizes, the
// measures of each size taken one after the other, in one run. Prints CPU and
// wall seconds, the ratios the second engine is held to, and the memory a
// call adds per sample.
//
//   bench_engines [--quick]     (--quick: the three smallest sizes)
//   bench_engines --memory WIDTH HEIGHT CHANNELS     (one measure of memory)
#include <fftw3.h>
#include <malloc.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fstream>
#include <functional>
#include <random>
#include <string>
#include <vector>

#include "deconv/deconv.h"

namespace {

struct Cost {
  double cpu = 0, wall = 0;
};

double cpu_now() {
  timespec t;
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &t);
  return t.tv_sec + 1e-9 * t.tv_nsec;
}

double wall_now() { return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count(); }

// The median of `reps` runs of f, by CPU time.
Cost measure(int reps, const std::function<void()>& f) {
  std::vector<Cost> runs;
  for (int i = 0; i < reps; ++i) {
    const double c = cpu_now(), w = wall_now();
    f();
    runs.push_back({cpu_now() - c, wall_now() - w});
  }
  std::sort(runs.begin(), runs.end(), [](const Cost& a, const Cost& b) { return a.cpu < b.cpu; });
  return runs[runs.size() / 2];
}

// A /proc/self/status figure in kB.
long status_kb(const char* field) {
  std::ifstream in("/proc/self/status");
  for (std::string line; std::getline(in, line);)
    if (line.rfind(field, 0) == 0) return std::atol(line.c_str() + std::strlen(field));
  return 0;
}

deconv::Image noise_picture(int width, int height, int channels) {
  deconv::Image picture(width, height, channels);
  std::mt19937 rng(1);
  for (float& v : picture.pixels) v = std::uniform_real_distribution<float>(0, 1)(rng);
  return picture;
}

deconv::RestoreOptions options_at_strength_10() {
  deconv::RestoreOptions options;
  options.strength = 10, options.workers = 2;
  return options;
}

// The most memory a restoration adds to the process that holds its picture,
// in bytes per sample: in a new process of this program (--memory), where
// every large block goes back to the system when it is freed.
double added_bytes(const char* self, int width, int height, int channels) {
  const std::string command = std::string(self) + " --memory " + std::to_string(width) + " " +
                              std::to_string(height) + " " + std::to_string(channels);
  double bytes = -1;
  if (FILE* p = popen(command.c_str(), "r")) {
    if (std::fscanf(p, "%lf", &bytes) != 1) bytes = -1;
    pclose(p);
  }
  return bytes;
}

int print_added_bytes(int width, int height, int channels) {
  mallopt(M_MMAP_THRESHOLD, 1 << 17);
  const deconv::Image picture = noise_picture(width, height, channels);
  std::ofstream("/proc/self/clear_refs") << "5";  // the peak, set back to the present
  const long before = status_kb("VmRSS:");
  deconv::restore(picture, deconv::draw_psf("gaussian:2"), options_at_strength_10());
  std::printf("%.2f\n", (status_kb("VmHWM:") - before) * 1024.0 / picture.pixels.size());
  return 0;
}

Cost floor_cost(int width, int height, int channels, int reps) {
  std::vector<float, std::allocator<float>> real((size_t)width * height);
  fftwf_complex* spectrum = fftwf_alloc_complex((size_t)height * (width / 2 + 1));
  float* plane = fftwf_alloc_real((size_t)width * height);
  const fftwf_plan forward = fftwf_plan_dft_r2c_2d(height, width, plane, spectrum, FFTW_ESTIMATE);
  const fftwf_plan backward = fftwf_plan_dft_c2r_2d(height, width, spectrum, plane, FFTW_ESTIMATE);
  std::fill(plane, plane + (size_t)width * height, 0.5f);
  const Cost cost = measure(reps, [&] {
    fftwf_execute(forward);
    for (int c = 0; c < channels; ++c)
      for (int i = 0; i < 2; ++i) fftwf_execute(forward), fftwf_execute(backward);
  });
  fftwf_destroy_plan(forward);
  fftwf_destroy_plan(backward);
  fftwf_free(spectrum);
  fftwf_free(plane);
  return cost;
}

Cost wiener_cost(int width, int height, int channels, int reps) {
  const std::string command = "python3 " DECONV_SOURCE "/bench/wiener_reference.py " + std::to_string(width) + " " +
                              std::to_string(height) + " " + std::to_string(channels) + " " + std::to_string(reps);
  Cost cost{-1, -1};
  if (FILE* p = popen(command.c_str(), "r")) {
    if (std::fscanf(p, "%lf %lf", &cost.cpu, &cost.wall) != 2) cost = {-1, -1};
    pclose(p);
  }
  return cost;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc == 5 && std::strcmp(argv[1], "--memory") == 0)
    return print_added_bytes(std::atoi(argv[2]), std::atoi(argv[3]), std::atoi(argv[4]));
  const bool quick = argc > 1 && std::strcmp(argv[1], "--quick") == 0;
  std::vector<std::pair<int, int>> sizes = {{1024, 1024}, {2000, 2000}, {2048, 2048}, {2000, 1500}, {2048, 1536},
                                            {3000, 2000}, {4000, 3000}, {4096, 3072}, {6016, 4016}};
  if (quick) sizes.resize(3);
  const deconv::Image psf = deconv::draw_psf("gaussian:2");
  std::printf("%-11s %2s | %-13s | %-13s | %-13s | %-8s | %6s %6s %6s %6s | %s\n", "size", "ch", "second cpu/wall",
              "exact cpu/wall", "wiener cpu/wal", "floor", "/floor", "/wien", "w/cpu", "/exact", "bytes/sample");
  std::vector<double> per_pixel;  // second engine's CPU per pixel, grey then colour, by size
  for (const auto& [width, height] : sizes)
    for (const int channels : {1, 3}) {
      const size_t samples = (size_t)width * height * channels;
      const int reps = samples > 20000000 ? 1 : 3;
      const deconv::Image picture = noise_picture(width, height, channels);
      const deconv::RestoreOptions options = options_at_strength_10();
      deconv::restore(deconv::Image(64, 64, 1), psf, options);  // plans of other sizes do not count
      // The first call makes the plans; it is measured as users meet it.
      const Cost first = measure(1, [&] { deconv::restore(picture, psf, options); });
      const Cost second = measure(reps, [&] { deconv::restore(picture, psf, options); });
      const double bytes = added_bytes(argv[0], width, height, channels);
      deconv::RestoreOptions exact = options;
      exact.exact = true;
      const Cost theirs = measure(1, [&] { deconv::restore(picture, psf, exact); });
      const Cost wiener = wiener_cost(width, height, channels, reps);
      const Cost floor = floor_cost(width, height, channels, reps);
      per_pixel.push_back(second.cpu / samples);
      std::printf("%5dx%-5d %2d | %6.3f %6.3f | %6.3f %6.3f | %6.3f %6.3f | %8.3f | %6.2f %6.2f %6.2f %6.2f | %5.1f"
                  "  (first call %.3f s)\n",
                  width, height, channels, second.cpu, second.wall, theirs.cpu, theirs.wall, wiener.cpu, wiener.wall,
                  floor.cpu, second.cpu / floor.cpu, wiener.cpu > 0 ? second.cpu / wiener.cpu : 0,
                  second.wall / second.cpu, second.cpu / theirs.cpu, bytes, first.cpu);
      std::fflush(stdout);
    }
  // Power-of-two frames against their smooth neighbours, CPU per pixel.
  const auto index = [&](int w, int h) {
    for (size_t i = 0; i < sizes.size(); ++i)
      if (sizes[i] == std::make_pair(w, h)) return (int)i;
    return -1;
  };
  for (const auto& [pow2, near] : std::vector<std::pair<std::pair<int, int>, std::pair<int, int>>>{
           {{2048, 2048}, {2000, 2000}}, {{2048, 1536}, {2000, 1500}}, {{4096, 3072}, {4000, 3000}}}) {
    const int a = index(pow2.first, pow2.second), b = index(near.first, near.second);
    if (a < 0 || b < 0) continue;
    for (int c = 0; c < 2; ++c)
      std::printf("per pixel %dx%d / %dx%d, %s: %.2f\n", pow2.first, pow2.second, near.first, near.second,
                  c ? "colour" : "grey", per_pixel[2 * a + c] / per_pixel[2 * b + c]);
  }
}
