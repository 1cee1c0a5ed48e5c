// The sparse-prior restoration: its per-sample step and the whole reach the
// true minimisers, samples of no weight have no say, the border band is
// restored as well as the middle, the same bits for any number of threads.
#include <gtest/gtest.h>

#include <cmath>
#include <numeric>
#include <random>

#include "fast/gradient_shrink.h"
#include "fast/sparse.h"

namespace {

using namespace deconv;

double shrink_cost(double z, double t, double c, double alpha) {
  return c * std::pow(std::fabs(z), alpha) + (z - t) * (z - t) / 2;
}

// The minimiser of c |z|^alpha + (z - t)^2 / 2 by a scan of [0, t] and a
// golden-section search around its best point.
double brute_shrink(double t, double c, double alpha) {
  const double a = std::fabs(t);
  double best = 0;
  for (int k = 1; k <= 1000; ++k)
    if (shrink_cost(a * k / 1000, a, c, alpha) < shrink_cost(best, a, c, alpha)) best = a * k / 1000;
  double lo = std::max(0.0, best - a / 1000), hi = std::min(a, best + a / 1000);
  for (int i = 0; i < 100; ++i) {
    const double m1 = lo + (hi - lo) * 0.382, m2 = lo + (hi - lo) * 0.618;
    (shrink_cost(m1, a, c, alpha) < shrink_cost(m2, a, c, alpha) ? hi : lo) = shrink_cost(m1, a, c, alpha) < shrink_cost(m2, a, c, alpha) ? m2 : m1;
  }
  const double z = shrink_cost((lo + hi) / 2, a, c, alpha) < shrink_cost(best, a, c, alpha) ? (lo + hi) / 2 : best;
  return t < 0 ? -z : z;
}

class ShrinkTest : public testing::TestWithParam<double> {};

// Over penalties from 1e-4 to 10 and gradients far beyond the table, the
// step's cost is within float rounding of the least, on the jump's right side.
TEST_P(ShrinkTest, FindsTheLeastCostForEverySample) {
  const double alpha = GetParam();
  const fast::GradientShrink shrink(alpha);
  for (const double c : {1e-4, 0.01, 1.0, 10.0}) {
    const float scale = shrink.scale_for(c);
    int wrong = 0;
    for (double t = -200 * scale; t <= 200 * scale; t += 0.73 * scale) {
      const double z = scale * shrink((float)(t / scale)), best = brute_shrink(t, c, alpha);
      const double least = shrink_cost(best, t, c, alpha);
      const bool right = shrink_cost(z, t, c, alpha) - least <= 1e-5 * (least + scale * scale) &&
                         std::fabs(z - best) <= 1e-3 * (std::fabs(t) + scale);
      if (!right && !wrong++) ADD_FAILURE() << "c " << c << ", t " << t << ": " << z << ", not " << best;
    }
    EXPECT_EQ(0, wrong) << "c " << c;
  }
}

INSTANTIATE_TEST_SUITE_P(Exponents, ShrinkTest, testing::Values(0.5, 2.0 / 3.0, 0.8, 1.0, 1.5));

struct Scene {
  std::vector<int> sizes, psf_sizes;
  std::vector<float> truth, psf, data;
};

size_t count(const std::vector<int>& sizes) { return std::accumulate(sizes.begin(), sizes.end(), size_t{1}, std::multiplies<>()); }

void place(size_t i, const std::vector<int>& shape, std::vector<int>& at) {
  for (size_t a = shape.size(); a-- > 0; i /= shape[a]) at[a] = (int)(i % shape[a]);
}

// A Gaussian PSF of `sigma` along each axis, normalised.
std::vector<float> gaussian(const std::vector<int>& psf_sizes, double sigma) {
  std::vector<float> psf(count(psf_sizes));
  std::vector<int> at(psf_sizes.size());
  double sum = 0;
  for (size_t t = 0; t < psf.size(); ++t) {
    place(t, psf_sizes, at);
    double r = 0;
    for (size_t a = 0; a < at.size(); ++a) r += std::pow(at[a] - psf_sizes[a] / 2, 2);
    sum += psf[t] = (float)std::exp(-r / (2 * sigma * sigma));
  }
  for (float& p : psf) p = (float)(p / sum);
  return psf;
}

// Flat discs (spheres) of random levels over a ramp, wider than the data by
// the PSF; the data are its middle blurred (the blur reaches in from beyond
// the borders), with Gaussian noise.
Scene scene(const std::vector<int>& sizes, const std::vector<int>& psf_sizes, double sigma, double noise,
            unsigned seed) {
  Scene s{sizes, psf_sizes, {}, gaussian(psf_sizes, sigma), {}};
  std::vector<int> wide;
  for (size_t a = 0; a < sizes.size(); ++a) wide.push_back(sizes[a] + psf_sizes[a]);
  std::mt19937 rng(seed);
  std::uniform_real_distribution<double> uniform(0, 1);
  std::vector<float> world(count(wide));
  std::vector<int> at(wide.size()), tap(wide.size());
  for (size_t i = 0; i < world.size(); ++i) place(i, wide, at), world[i] = 0.2f + 0.3f * at.back() / wide.back();
  for (int d = 0; d < 40; ++d) {
    std::vector<double> centre;
    for (const int w : wide) centre.push_back(uniform(rng) * w);
    const double radius = 2 + uniform(rng) * wide.back() / 6, level = uniform(rng);
    for (size_t i = 0; i < world.size(); ++i) {
      place(i, wide, at);
      double r = 0;
      for (size_t a = 0; a < at.size(); ++a) r += std::pow(at[a] - centre[a], 2);
      if (r < radius * radius) world[i] = (float)level;
    }
  }
  const size_t n = count(sizes);
  s.truth.resize(n), s.data.resize(n);
  std::normal_distribution<double> gauss(0, noise);
  for (size_t i = 0; i < n; ++i) {
    place(i, sizes, at);
    size_t j = 0;
    for (size_t a = 0; a < at.size(); ++a) j = j * wide[a] + at[a] + psf_sizes[a] / 2;
    s.truth[i] = world[j];
    double sum = 0;
    for (size_t t = 0; t < s.psf.size(); ++t) {
      place(t, psf_sizes, tap);
      size_t k = 0;
      for (size_t a = 0; a < at.size(); ++a) k = k * wide[a] + at[a] + psf_sizes[a] - 1 - tap[a];
      sum += s.psf[t] * world[k];
    }
    s.data[i] = (float)(sum + (noise > 0 ? gauss(rng) : 0));
  }
  return s;
}

// Photon and read noise, of variance a * signal + b.
Scene with_photon_noise(Scene s, double a = 2e-3, double b = 2e-5) {
  std::mt19937 rng(8);
  for (float& d : s.data) d += (float)(std::normal_distribution<double>(0, std::sqrt(a * d + b))(rng));
  return s;
}

std::vector<float> restore(const Scene& s, const fast::SparseOptions& options, int threads = 2) {
  spectral::Workers workers(threads);
  std::vector<float> object(s.data.size());
  fast::sparse_restore(s.data.data(), object.data(), s.sizes, s.psf.data(), s.psf_sizes, options, workers);
  return object;
}

// a x = b by elimination with partial pivoting.
std::vector<double> solve(std::vector<std::vector<double>> a, std::vector<double> b) {
  const size_t n = b.size();
  for (size_t k = 0; k < n; ++k) {
    size_t p = k;
    for (size_t i = k + 1; i < n; ++i)
      if (std::fabs(a[i][k]) > std::fabs(a[p][k])) p = i;
    std::swap(a[k], a[p]), std::swap(b[k], b[p]);
    for (size_t i = k + 1; i < n; ++i) {
      const double f = a[i][k] / a[k][k];
      for (size_t j = k; j < n; ++j) a[i][j] -= f * a[k][j];
      b[i] -= f * b[k];
    }
  }
  std::vector<double> x(n);
  for (size_t k = n; k-- > 0;) {
    double s = b[k];
    for (size_t j = k + 1; j < n; ++j) s -= a[k][j] * x[j];
    x[k] = s / a[k][k];
  }
  return x;
}

// With alpha 2 the objective is quadratic: its minimiser solves
// (K' W K + 2 lambda sum D' D) x = K' W y over the data's grid widened by the
// PSF less one (a fast size), its differences periodic there. The iterations,
// carrying their multipliers, reach it; a fixed penalty stops short.
TEST(SparseRestore, ReachesTheMinimiserOfItsObjective) {
  Scene s = scene({10, 13}, {3, 3}, 0.8, 0.02, 7);
  std::mt19937 rng(3);
  std::vector<float> weights(s.data.size());
  for (float& w : weights) w = rng() % 5 ? 0.5f + (rng() % 100) / 100.0f : 0.0f;
  const size_t n = 12 * 15;
  const double lambda = 2e-3;
  std::vector<std::vector<double>> a(n, std::vector<double>(n, 0.0));
  std::vector<double> b(n, 0.0);
  for (int r = 0; r < 10; ++r)
    for (int c = 0; c < 13; ++c) {
      // The row of K for data sample (r, c): the PSF's taps, flipped.
      std::vector<std::pair<size_t, double>> row;
      for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 3; ++j)
          row.push_back({(size_t)((r - i + 1 + 12) % 12 * 15 + (c - j + 1 + 15) % 15), s.psf[i * 3 + j]});
      const double w = weights[r * 13 + c];
      for (const auto& [p, kp] : row) {
        b[p] += w * kp * s.data[r * 13 + c];
        for (const auto& [q, kq] : row) a[p][q] += w * kp * kq;
      }
    }
  for (size_t i = 0; i < n; ++i)
    for (const size_t next : {i / 15 * 15 + (i % 15 + 1) % 15, (i / 15 + 1) % 12 * 15 + i % 15})
      for (const auto& [p, sign_p] : {std::make_pair(next, 1.0), std::make_pair(i, -1.0)})
        for (const auto& [q, sign_q] : {std::make_pair(next, 1.0), std::make_pair(i, -1.0)})
          a[p][q] += 2 * lambda * sign_p * sign_q;
  const std::vector<double> best = solve(a, b);

  fast::SparseOptions options;
  options.alpha = 2, options.lambda = (float)lambda, options.weights = weights.data();
  options.outer_steps = 1, options.inner_steps = 600;
  const std::vector<float> object = restore(s, options);
  for (int r = 0; r < 10; ++r)
    for (int c = 0; c < 13; ++c) EXPECT_NEAR(object[r * 13 + c], best[r * 15 + c], 2e-4) << r << ", " << c;
  options.multipliers = false;
  const std::vector<float> plain = restore(s, options);
  double off = 0;
  for (int r = 0; r < 10; ++r)
    for (int c = 0; c < 13; ++c) off = std::max(off, std::fabs(plain[r * 13 + c] - best[r * 15 + c]));
  EXPECT_GT(off, 1e-3);
}

// Samples of no weight (a clipped highlight) hold anything: the same bits,
// the automatic lambda included; given all weights 1, the garbage shows.
TEST(SparseRestore, SamplesOfNoWeightHaveNoSay) {
  for (const bool photons : {false, true}) {
    Scene s =
        photons ? with_photon_noise(scene({64, 96}, {7, 7}, 1.2, 0.0, 11)) : scene({64, 96}, {7, 7}, 1.2, 0.01, 11);
    std::vector<float> weights(s.data.size(), 1.0f);
    for (int r = 20; r < 30; ++r)
      for (int c = 5; c < 15; ++c) weights[r * 96 + c] = 0;
    fast::SparseOptions options;
    options.weights = weights.data();
    EXPECT_EQ(photons, fast::noise_line(s.data.data(), s.sizes, options.weights).a > 0) << photons;
    const std::vector<float> first = restore(s, options);
    for (size_t i = 0; i < s.data.size(); ++i)
      if (!weights[i]) s.data[i] = 5.0f + (float)(i % 7);
    const std::vector<float> second = restore(s, options);
    EXPECT_EQ(0, std::memcmp(first.data(), second.data(), first.size() * sizeof(float))) << photons;
    options.weights = nullptr;
    const std::vector<float> weighed = restore(s, options);
    EXPECT_GT(std::fabs(weighed[25 * 96 + 10] - first[25 * 96 + 10]), 1.0f);
  }
}

// A lamp forty times the full scale, clipped after the blur: held to 1 as a
// lower bound, its surroundings lose the rings a fit to the clipped values leaves.
TEST(SparseRestore, ClippedSamplesBoundTheModelFromBelow) {
  Scene s = scene({48, 64}, {9, 9}, 1.5, 0.002, 5);
  const int ly = 24, lx = 32;
  s.truth[ly * 64 + lx] = 40;
  for (int dy = -4; dy <= 4; ++dy)
    for (int dx = -4; dx <= 4; ++dx) s.data[(ly + dy) * 64 + lx + dx] += 40 * s.psf[(dy + 4) * 9 + dx + 4];
  for (float& d : s.data) d = std::min(d, 1.0f);
  fast::SparseOptions options;
  const std::vector<float> fitted = restore(s, options);
  options.clip_level = 1;
  options.near_clipped_weight = 1;
  const std::vector<float> bounded = restore(s, options);
  options.near_clipped_weight = 0.05f;
  const std::vector<float> doubted = restore(s, options);
  const auto around_lamp = [&](const std::vector<float>& x) {
    double e = 0;
    for (int y = 0; y < 48; ++y)
      for (int c = 0; c < 64; ++c) {
        const double r = std::hypot(y - ly, c - lx);
        if (r >= 3 && r <= 12) e += std::pow(x[y * 64 + c] - s.truth[y * 64 + c], 2);
      }
    return e;
  };
  EXPECT_LT(around_lamp(bounded), 0.5 * around_lamp(fitted));
  // Its neighbours weighed less, the lamp's spread light rings less.
  EXPECT_LT(around_lamp(doubted), around_lamp(bounded));
  EXPECT_GT(bounded[ly * 64 + lx], 1.5f);
}

// The PSNR of the samples within `band` of an edge, and of the others.
std::pair<double, double> band_and_interior(const std::vector<float>& x, const Scene& s, int band) {
  double e[2] = {0, 0}, n[2] = {0, 0};
  const int height = s.sizes[0], width = s.sizes[1];
  for (int r = 0; r < height; ++r)
    for (int c = 0; c < width; ++c) {
      const int inside = std::min(std::min(r, c), std::min(height - 1 - r, width - 1 - c)) >= band;
      e[inside] += std::pow(x[r * width + c] - s.truth[r * width + c], 2), n[inside] += 1;
    }
  return {10 * std::log10(n[0] / e[0]), 10 * std::log10(n[1] / e[1])};
}

// A restoration that wrapped the far border round, or fitted the model
// outside the data, would streak the band: here it is within 3 dB of the
// interior, and both gain on the data.
TEST(SparseRestore, RestoresTheBorderBandAsWellAsTheInterior) {
  for (const double noise : {0.0, 0.01}) {
    const Scene s = scene({80, 96}, {9, 9}, 1.6, noise, 5);
    const auto [band, interior] = band_and_interior(restore(s, {}), s, 9);
    const auto [blurred_band, blurred_interior] = band_and_interior(s.data, s, 9);
    EXPECT_GT(band, interior - 3) << "noise " << noise;
    EXPECT_GT(band, blurred_band + 2) << "noise " << noise;
    EXPECT_GT(interior, blurred_interior + 2) << "noise " << noise;
  }
}

// 1, 2 and 3 threads give the same bits on odd sizes and on a volume, which gains on its data.
TEST(SparseRestore, SameBitsForAnyNumberOfThreads) {
  for (const Scene& s : {scene({37, 50}, {5, 7}, 1.0, 0.01, 2), scene({9, 20, 17}, {3, 5, 5}, 0.9, 0.01, 4)}) {
    const std::vector<float> one = restore(s, {}, 1);
    for (const int threads : {2, 3}) EXPECT_EQ(0, std::memcmp(one.data(), restore(s, {}, threads).data(), one.size() * 4));
    double restored = 0, blurred = 0;
    for (size_t i = 0; i < one.size(); ++i)
      restored += std::pow(one[i] - s.truth[i], 2), blurred += std::pow(s.data[i] - s.truth[i], 2);
    EXPECT_LT(restored, 0.7 * blurred) << s.sizes.size() << " axes";
  }
}

// The noise's measure follows the noise added, on a line and a picture; even
// noise reads as even.
TEST(SparseRestore, MeasuresTheNoise) {
  for (const double noise : {0.005, 0.02}) {
    const Scene s = scene({128, 128}, {9, 9}, 2.0, noise, 9);
    EXPECT_NEAR(fast::noise_deviation(s.data.data(), s.sizes), noise, 0.15 * noise);
    EXPECT_NEAR(fast::noise_deviation(s.data.data(), {128 * 128}), noise, 0.25 * noise);
    const fast::NoiseLine line = fast::noise_line(s.data.data(), s.sizes);
    EXPECT_LT(line.a * 0.5, 0.2 * line.b) << noise;
  }
}

// Photon noise grows with the light, read noise does not: the line is read
// off the picture's own samples.
TEST(SparseRestore, ReadsPhotonAndReadNoiseApart) {
  const double a = 2e-3, b = 2e-5;
  const Scene s = with_photon_noise(scene({160, 160}, {9, 9}, 1.6, 0.0, 12), a, b);
  const fast::NoiseLine line = fast::noise_line(s.data.data(), s.sizes);
  EXPECT_NEAR(line.a, a, 0.2 * a);
  EXPECT_NEAR(line.b, b, 0.05 * a);  // read off levels of 0.2 and more
}

}  // namespace
