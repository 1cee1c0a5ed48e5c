// Richardson-Lucy on 3-D phantoms, beside scikit-image's richardson_lucy
// (bench/richardson_lucy_reference.py), in one run: beads and filaments,
// Gaussian and widefield PSFs, Poisson noise at two photon levels on a
// background. For each: the best PSNR and the iteration reaching it, for
// both (up to 300 iterations), the PSNR at 20 iterations, and where the
// automatic stop lands. Then the CPU of 20 iterations on a 48 x 256 x 256
// stack for both, and a 2-D star field against the Wiener filter
// (`bench_richardson_lucy --stars`: that alone).
#include <sys/stat.h>

#include <chrono>
#include <cmath>
#include <cstdio>
#include <ctime>
#include <fstream>
#include <random>
#include <string>
#include <vector>

#include "deconv/deconv.h"
#include "fast/richardson_lucy.h"

namespace {

using deconv::spectral::Complex;
using deconv::spectral::RealArray;
using deconv::spectral::RealFft;
using deconv::spectral::Spectrum;
using deconv::spectral::Workers;

constexpr int most = 300;

double cpu_now() {
  timespec t;
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &t);
  return t.tv_sec + 1e-9 * t.tv_nsec;
}

struct Volume {
  int z, y, x;
  std::vector<float> v;
  Volume(int z, int y, int x) : z(z), y(y), x(x), v((size_t)z * y * x, 0.0f) {}
  float& at(int k, int j, int i) { return v[((size_t)k * y + j) * x + i]; }
  std::vector<int> sizes() const { return {z, y, x}; }
};

// `object` blurred by `psf` (its middle at n / 2), zeros beyond the borders.
Volume blur(Volume& object, Volume& psf, Workers& workers) {
  const std::vector<int> e = {deconv::spectral::good_size(object.z + psf.z),
                              deconv::spectral::good_size(object.y + psf.y),
                              deconv::spectral::good_size(object.x + psf.x)};
  const RealFft& fft = RealFft::of(e);
  RealArray a(fft.samples(), 0.0f), h(fft.samples(), 0.0f);
  for (int k = 0; k < object.z; ++k)
    for (int j = 0; j < object.y; ++j)
      for (int i = 0; i < object.x; ++i) a[((size_t)k * e[1] + j) * e[2] + i] = object.at(k, j, i);
  double sum = 0;
  for (const float p : psf.v) sum += p;
  for (int k = 0; k < psf.z; ++k)
    for (int j = 0; j < psf.y; ++j)
      for (int i = 0; i < psf.x; ++i)
        h[((size_t)((k - psf.z / 2 + e[0]) % e[0]) * e[1] + (j - psf.y / 2 + e[1]) % e[1]) * e[2] +
          (i - psf.x / 2 + e[2]) % e[2]] = (float)(psf.at(k, j, i) / sum);
  Spectrum A(fft.frequencies()), H(fft.frequencies());
  fft.forward(a.data(), A.data(), workers);
  fft.forward(h.data(), H.data(), workers);
  for (size_t f = 0; f < A.size(); ++f) A[f] *= H[f] / (float)fft.samples();
  fft.backward(A.data(), a.data(), workers);
  Volume out(object.z, object.y, object.x);
  for (int k = 0; k < object.z; ++k)
    for (int j = 0; j < object.y; ++j)
      for (int i = 0; i < object.x; ++i) out.at(k, j, i) = std::max(0.0f, a[((size_t)k * e[1] + j) * e[2] + i]);
  return out;
}

Volume gaussian_psf(double sxy, double sz) {
  Volume p(2 * (int)std::ceil(3 * sz) + 1, 2 * (int)std::ceil(3 * sxy) + 1, 2 * (int)std::ceil(3 * sxy) + 1);
  for (int k = 0; k < p.z; ++k)
    for (int j = 0; j < p.y; ++j)
      for (int i = 0; i < p.x; ++i) {
        const double dz = k - p.z / 2, dy = j - p.y / 2, dx = i - p.x / 2;
        p.at(k, j, i) = (float)std::exp(-(dx * dx + dy * dy) / (2 * sxy * sxy) - dz * dz / (2 * sz * sz));
      }
  return p;
}

// A widefield microscope's PSF, scalar and paraxial (Born & Wolf): NA 1.2,
// 520 nm, water, 100 nm pixels, 250 nm planes.
Volume widefield_psf() {
  Volume p(21, 31, 31);
  const double k0 = 2 * M_PI / 0.52, na = 1.2, n = 1.33;
  for (int k = 0; k < p.z; ++k)
    for (int j = 0; j < p.y; ++j)
      for (int i = 0; i < p.x; ++i) {
        const double r = 0.1 * std::hypot(i - p.x / 2, j - p.y / 2), z = 0.25 * (k - p.z / 2);
        const double v = k0 * na * r, u = k0 * na * na * z / n;
        std::complex<double> sum = 0;
        for (int s = 0; s < 200; ++s) {
          const double rho = (s + 0.5) / 200;
          sum += std::cyl_bessel_j(0.0, v * rho) * std::polar(1.0, -u * rho * rho / 2) * rho / 200.0;
        }
        p.at(k, j, i) = (float)std::norm(2.0 * sum);
      }
  return p;
}

Volume beads(int z, int y, int x, std::mt19937& rng) {
  Volume o(z, y, x);
  for (int b = 0; b < z * y * x / 400; ++b) o.at(rng() % z, rng() % y, rng() % x) = 0.3f + (rng() % 1000) / 1428.0f;
  return o;
}

// Curved filaments: walks of slowly turning direction.
Volume filaments(int z, int y, int x, std::mt19937& rng) {
  Volume o(z, y, x);
  std::normal_distribution<double> turn(0, 0.15);
  for (int f = 0; f < 12; ++f) {
    double p[3] = {(double)(rng() % z), (double)(rng() % y), (double)(rng() % x)};
    double d[3] = {0.2, 1, 1};
    for (int s = 0; s < 400; ++s) {
      for (double& c : d) c += turn(rng);
      const double len = std::sqrt(d[0] * d[0] + d[1] * d[1] + d[2] * d[2]);
      for (int a = 0; a < 3; ++a) p[a] += 0.5 * d[a] / len;
      const int k = (int)p[0], j = (int)p[1], i = (int)p[2];
      if (k < 0 || j < 0 || i < 0 || k >= z || j >= y || i >= x) break;
      o.at(k, j, i) = 0.6f;
    }
  }
  return o;
}

void write_raw(const std::string& path, const std::vector<float>& v) {
  std::ofstream(path, std::ios::binary).write(reinterpret_cast<const char*>(v.data()), v.size() * sizeof(float));
}

double psnr(const float* estimate, const Volume& truth) {
  double mse = 0, peak = 0;
  for (size_t i = 0; i < truth.v.size(); ++i) {
    mse += std::pow((double)estimate[i] - truth.v[i], 2);
    peak = std::max(peak, (double)truth.v[i]);
  }
  return 10 * std::log10(peak * peak / (mse / truth.v.size()));
}

struct Case {
  std::string name;
  Volume truth, psf, data;
  float background;
};

Case make_case(const std::string& object, const std::string& psf_name, double photons, int z, int y, int x,
               unsigned seed, Workers& workers) {
  std::mt19937 rng(seed);
  Volume truth = object == "beads" ? beads(z, y, x, rng) : filaments(z, y, x, rng);
  Volume psf = psf_name == "gaussian" ? gaussian_psf(1.5, 3.0) : widefield_psf();
  const float background = 10;
  for (float& t : truth.v) t *= (float)photons;
  Volume mean = blur(truth, psf, workers);
  for (float& m : mean.v) m = (float)std::poisson_distribution<int>(m + background)(rng);
  return {object + " " + psf_name + " " + std::to_string((int)photons), truth, psf, mean, background};
}

std::string reference(const Case& c, const std::string& folder, bool timing) {
  write_raw(folder + "/data.raw", c.data.v);
  write_raw(folder + "/psf.raw", c.psf.v);
  write_raw(folder + "/truth.raw", c.truth.v);
  char command[1024];
  std::snprintf(command, sizeof command, "python3 %s/bench/richardson_lucy_reference.py %s %d %d %d %d %d %d %g %d %s",
                DECONV_SOURCE, folder.c_str(), c.truth.z, c.truth.y, c.truth.x, c.psf.z, c.psf.y, c.psf.x,
                c.background, timing ? 20 : most, timing ? "time" : "");
  std::string out;
  if (FILE* p = popen(command, "r")) {
    char line[256];
    while (std::fgets(line, sizeof line, p)) out += line;
    pclose(p);
  }
  return out;
}

// The width of the brightest source of `image` (w x h, sky taken off), by its
// second moments in a window of 9 pixels around it: 2.355 sigma.
double brightest_width(const std::vector<float>& image, int w, int h, float sky) {
  size_t peak = 0;
  for (size_t i = 0; i < image.size(); ++i)
    if (image[i] > image[peak]) peak = i;
  const int px = (int)(peak % w), py = (int)(peak / w);
  double sum = 0, xx = 0, yy = 0;
  for (int y = std::max(0, py - 9); y <= std::min(h - 1, py + 9); ++y)
    for (int x = std::max(0, px - 9); x <= std::min(w - 1, px + 9); ++x) {
      const double v = std::max(0.0f, image[y * w + x] - sky);
      sum += v, xx += v * (x - px) * (x - px), yy += v * (y - py) * (y - py);
    }
  return 2.355 * std::sqrt((xx + yy) / (2 * sum));
}

// A star field of Moffat stars (FWHM 3, beta 3) on a sky of 20 counts, with
// Poisson noise: Richardson-Lucy (automatic stop) against the Wiener filter
// (automatic strength), by PSNR against the true field and the brightest
// star's width.
void star_field() {
  const int w = 256, h = 256, side = 25;
  std::mt19937 rng(13);
  Volume truth(1, h, w);
  for (int s = 0; s < 300; ++s) truth.at(0, 12 + rng() % (h - 24), 12 + rng() % (w - 24)) += (float)(50 * std::pow(100.0, (rng() % 1000) / 1000.0));
  truth.at(0, h / 2, w / 2) = 20000;
  Volume psf(1, side, side);
  const double alpha = 3 / (2 * std::sqrt(std::pow(2.0, 1 / 3.0) - 1));
  for (int y = 0; y < side; ++y)
    for (int x = 0; x < side; ++x)
      psf.at(0, y, x) = (float)std::pow(1 + (std::pow(x - side / 2, 2) + std::pow(y - side / 2, 2)) / (alpha * alpha), -3);
  Workers workers(2);
  Volume observed = blur(truth, psf, workers);
  const float sky = 20;
  for (float& v : observed.v) v = (float)std::poisson_distribution<int>(v + sky)(rng);
  deconv::Image picture(w, h, 1), kernel(side, side, 1);
  float top = 0;
  for (const float v : observed.v) top = std::max(top, v);
  std::copy(psf.v.begin(), psf.v.end(), kernel.pixels.begin());
  // The filter takes the field in 0..1, its sky off; Richardson-Lucy the counts.
  for (size_t i = 0; i < picture.pixels.size(); ++i) picture.pixels[i] = (observed.v[i] - sky) / top;
  deconv::RestoreOptions wiener;
  wiener.strength = deconv::choose_strength(picture, kernel);
  const deconv::Image filtered = deconv::restore(picture, kernel, wiener);
  std::vector<float> filtered_counts(filtered.pixels.size());
  for (size_t i = 0; i < filtered_counts.size(); ++i) filtered_counts[i] = filtered.pixels[i] * top;
  std::copy(observed.v.begin(), observed.v.end(), picture.pixels.begin());
  deconv::RestoreOptions rl;
  rl.method = "richardson-lucy", rl.background = sky;
  const deconv::Image restored = deconv::restore(picture, kernel, rl);
  std::vector<float> blurred(observed.v);
  for (float& v : blurred) v -= sky;
  std::printf("star field 256 x 256, Moffat FWHM 3: PSNR blurred %.2f, Wiener (strength %d) %.2f, "
              "Richardson-Lucy %.2f dB; the brightest star's width %.2f px blurred, %.2f Wiener, %.2f "
              "Richardson-Lucy\n",
              psnr(blurred.data(), truth), wiener.strength, psnr(filtered_counts.data(), truth),
              psnr(restored.pixels.data(), truth), brightest_width(blurred, w, h, 0),
              brightest_width(filtered_counts, w, h, 0), brightest_width(restored.pixels, w, h, 0));
}

}  // namespace

int main(int argc, char** argv) {
  if (argc > 1 && std::string(argv[1]) == "--stars") {  // the star field alone
    star_field();
    return 0;
  }
  char pattern[] = "/tmp/deconv-rl-XXXXXX";
  const std::string folder = mkdtemp(pattern);
  Workers workers(2);
  std::printf("%-22s | %-24s | %-24s | %-22s\n", "case (photons at peak)", "ours best (it) / at 20",
              "scikit best (it) / at 20", "ours automatic (it)");
  for (const char* object : {"beads", "filaments"})
    for (const char* psf : {"gaussian", "widefield"})
      for (const double photons : {30.0, 300.0}) {
        Case c = make_case(object, psf, photons, 32, 96, 96, 7, workers);
        std::vector<double> trace;
        deconv::fast::RichardsonLucyOptions options;
        options.background = c.background;
        options.iterations = most;
        options.each_iteration = [&](int, const float* o) { trace.push_back(psnr(o, c.truth)); };
        std::vector<float> object_out(c.data.v.size());
        double psf_sum = 0;
        for (const float p : c.psf.v) psf_sum += p;
        std::vector<float> psf_n(c.psf.v);
        for (float& p : psf_n) p = (float)(p / psf_sum);
        deconv::fast::richardson_lucy(c.data.v.data(), object_out.data(), c.data.sizes(), psf_n.data(),
                                      c.psf.sizes(), options, workers);
        size_t best = 0;
        for (size_t k = 0; k < trace.size(); ++k)
          if (trace[k] > trace[best]) best = k;
        options.iterations = 0;
        options.each_iteration = nullptr;
        const auto automatic = deconv::fast::richardson_lucy(c.data.v.data(), object_out.data(), c.data.sizes(),
                                                             psf_n.data(), c.psf.sizes(), options, workers);
        int sk_best = 0;
        double sk_psnr = 0, sk_20 = 0, sk_cpu = 0;
        std::sscanf(reference(c, folder, false).c_str(), "%d %lf %lf %lf", &sk_best, &sk_psnr, &sk_20, &sk_cpu);
        std::printf("%-22s | %6.2f (%3zu) / %6.2f     | %6.2f (%3d) / %6.2f     | %6.2f (%3d) %+.2f dB\n",
                    c.name.c_str(), trace[best], best + 1, trace[19], sk_psnr, sk_best, sk_20,
                    psnr(object_out.data(), c.truth), automatic.iterations, psnr(object_out.data(), c.truth) - sk_psnr);
        std::fflush(stdout);
      }
  // CPU of 20 iterations on a larger stack.
  {
    Case c = make_case("beads", "gaussian", 300, 48, 256, 256, 11, workers);
    double psf_sum = 0;
    for (const float p : c.psf.v) psf_sum += p;
    for (float& p : c.psf.v) p = (float)(p / psf_sum);
    std::vector<float> out(c.data.v.size());
    deconv::fast::RichardsonLucyOptions options;
    options.background = c.background;
    options.iterations = 20;
    const double start = cpu_now();
    deconv::fast::richardson_lucy(c.data.v.data(), out.data(), c.data.sizes(), c.psf.v.data(), c.psf.sizes(),
                                  options, workers);
    const double ours = cpu_now() - start;
    options.iterations = 0;
    const double auto_start = cpu_now();
    const auto automatic = deconv::fast::richardson_lucy(c.data.v.data(), out.data(), c.data.sizes(), c.psf.v.data(),
                                                         c.psf.sizes(), options, workers);
    const double ours_auto = cpu_now() - auto_start;
    double sk_cpu = 0, sk_cpu64 = 0;
    int ignored = 0;
    double a = 0, b = 0;
    std::sscanf(reference(c, folder, true).c_str(), "%d %lf %lf %lf %lf", &ignored, &a, &b, &sk_cpu, &sk_cpu64);
    std::printf("48 x 256 x 256, 20 iterations: ours %.2f s CPU; scikit-image %.2f s in single precision (%.1f times "
                "ours), %.2f s in double, as it takes a uint16 stack (%.1f times); our automatic stop: %d "
                "iterations, %.2f s\n",
                ours, sk_cpu, sk_cpu / ours, sk_cpu64, sk_cpu64 / ours, automatic.iterations, ours_auto);
  }
  star_field();
  std::system(("rm -rf '" + folder + "'").c_str());
}
