// Richardson-Lucy on the second engine: restores what a blur took, non-negative,
// nothing wrapped round, stops near its best iteration, flat regions flat
// under its prior, weights, the same bits for any number of threads.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <random>

#include "fast/richardson_lucy.h"

namespace {

using namespace deconv;

struct Scene {
  std::vector<int> sizes, psf_sizes;
  std::vector<float> truth, psf, data;
};

void place(size_t i, const std::vector<int>& shape, std::vector<int>& at) {
  for (size_t a = shape.size(); a-- > 0; i /= shape[a]) at[a] = (int)(i % shape[a]);
}

// s.data: s.truth blurred by s.psf with zeros beyond the borders, on a
// background of 10 counts, with Poisson noise where `photons` is not 0.
void observe(Scene& s, const double photons, std::mt19937& rng) {
  std::vector<int> at(s.sizes.size()), tap(s.sizes.size());
  s.data.assign(s.truth.size(), 0.0f);
  for (size_t i = 0; i < s.truth.size(); ++i) {
    if (!s.truth[i]) continue;
    place(i, s.sizes, at);
    for (size_t t = 0; t < s.psf.size(); ++t) {
      place(t, s.psf_sizes, tap);
      size_t j = 0;
      bool inside = true;
      for (size_t a = 0; a < s.sizes.size(); ++a) {
        const int p = at[a] + tap[a] - s.psf_sizes[a] / 2;
        inside &= p >= 0 && p < s.sizes[a];
        j = j * s.sizes[a] + (inside ? p : 0);
      }
      if (inside) s.data[j] += s.truth[i] * s.psf[t];
    }
  }
  for (float& d : s.data) d = photons ? (float)std::poisson_distribution<int>(d + 10)(rng) : d + 10;
}


// Points blurred by a Gaussian of `sigma` along each axis, observed.
Scene scene(const std::vector<int>& sizes, const std::vector<double>& sigma, double photons, unsigned seed) {
  Scene s{sizes, {}, {}, {}, {}};
  size_t n = 1, taps = 1;
  for (size_t a = 0; a < sizes.size(); ++a) {
    s.psf_sizes.push_back(2 * (int)std::ceil(3 * sigma[a]) + 1);
    n *= sizes[a], taps *= s.psf_sizes[a];
  }
  std::mt19937 rng(seed);
  s.truth.assign(n, 0.0f);
  for (size_t i = 0; i < n / 150; ++i) s.truth[rng() % n] = (float)(photons ? photons : 100) * (0.5f + (rng() % 100) / 200.0f);
  std::vector<int> tap(sizes.size());
  double sum = 0;
  for (size_t t = 0; t < taps; ++t) {
    place(t, s.psf_sizes, tap);
    double r = 0;
    for (size_t a = 0; a < sizes.size(); ++a) r += std::pow((tap[a] - s.psf_sizes[a] / 2) / sigma[a], 2);
    s.psf.push_back((float)std::exp(-r / 2));
    sum += s.psf.back();
  }
  for (float& p : s.psf) p = (float)(p / sum);
  observe(s, photons, rng);
  return s;
}

double psnr(const std::vector<float>& estimate, const std::vector<float>& truth) {
  double mse = 0, peak = 0;
  for (size_t i = 0; i < truth.size(); ++i) mse += std::pow(estimate[i] - truth[i], 2), peak = std::max(peak, (double)truth[i]);
  return 10 * std::log10(peak * peak / (mse / truth.size()));
}

std::vector<float> restore(const Scene& s, int iterations, int threads = 2, bool accelerate = true,
                           float total_variation = 0, const float* weights = nullptr) {
  spectral::Workers workers(threads);
  fast::RichardsonLucyOptions options;
  options.iterations = iterations;
  options.background = 10;
  options.accelerate = accelerate;
  options.total_variation = total_variation;
  options.weights = weights;
  std::vector<float> out(s.data.size());
  fast::richardson_lucy(s.data.data(), out.data(), s.sizes, s.psf.data(), s.psf_sizes, options, workers);
  return out;
}

// Without noise the iterations climb towards the object in 2-D and 3-D,
// extrapolated ones further than plain ones; no sample is negative.
TEST(RichardsonLucy, ClimbsTowardsTheObjectAndFasterExtrapolated) {
  for (const Scene& s : {scene({60, 70}, {1.5, 1.5}, 0, 1), scene({12, 40, 36}, {2.0, 1.2, 1.2}, 0, 2)}) {
    std::vector<float> blurred = s.data;
    for (float& b : blurred) b -= 10;
    const double before = psnr(blurred, s.truth);
    const std::vector<float> quick = restore(s, 200), slow = restore(s, 200, 2, false);
    EXPECT_GT(psnr(quick, s.truth), before + 2) << s.sizes.size();
    EXPECT_GT(psnr(quick, s.truth), psnr(slow, s.truth)) << s.sizes.size();
    EXPECT_GE(*std::min_element(quick.begin(), quick.end()), 0.0f);
  }
}

// A bright point at the left border: a periodic restoration would ring at the right one.
TEST(RichardsonLucy, NothingWrapsRoundFromTheFarBorder) {
  Scene s = scene({40, 64}, {2.0, 2.0}, 0, 3);
  std::fill(s.truth.begin(), s.truth.end(), 0.0f);
  s.truth[20 * 64 + 1] = 1000;
  std::mt19937 rng(3);
  observe(s, 0, rng);
  const std::vector<float> out = restore(s, 40);
  double far = 0;
  for (int y = 0; y < 40; ++y)
    for (int x = 56; x < 64; ++x) far = std::max(far, (double)out[y * 64 + x]);
  EXPECT_LT(far, 0.01);
  EXPECT_GT(out[20 * 64 + 1], 300);
}

// At a few hundred photons and a few tens, the automatic stop is within 0.3 dB of the best of 100.
TEST(RichardsonLucy, StopsNearItsBestIteration) {
  for (const double photons : {30.0, 300.0}) {
    const Scene s = scene({16, 48, 48}, {2.5, 1.3, 1.3}, photons, 4);
    double best = 0;
    spectral::Workers workers(2);
    fast::RichardsonLucyOptions options;
    options.iterations = 100;
    options.background = 10;
    options.each_iteration = [&](int, const float* o) { best = std::max(best, psnr(std::vector<float>(o, o + s.truth.size()), s.truth)); };
    std::vector<float> out(s.data.size());
    fast::richardson_lucy(s.data.data(), out.data(), s.sizes, s.psf.data(), s.psf_sizes, options, workers);
    EXPECT_GE(psnr(restore(s, 0), s.truth), best - 0.3) << photons;
    // A bound on the automatic stop holds; an earlier stop stands.
    options.iterations = 0;
    options.each_iteration = nullptr;
    const auto run = [&] {
      return fast::richardson_lucy(s.data.data(), out.data(), s.sizes, s.psf.data(), s.psf_sizes, options, workers)
          .iterations;
    };
    const int own = run();
    options.at_most = 3;
    EXPECT_EQ(std::min(own, 3), run()) << photons;
  }
}

// The total variation's prior keeps a noisy flat square flat, at its level,
// where plain iterations turn its noise into grain.
TEST(RichardsonLucy, ATotalVariationPriorKeepsFlatRegionsFlat) {
  Scene s = scene({64, 64}, {1.5, 1.5}, 20, 6);
  std::fill(s.truth.begin(), s.truth.end(), 0.0f);
  for (int y = 16; y < 48; ++y)
    for (int x = 16; x < 48; ++x) s.truth[y * 64 + x] = 30;
  std::mt19937 rng(6);
  observe(s, 20, rng);
  const auto spread = [](const std::vector<float>& v) {
    double sum = 0, squares = 0;
    for (int y = 24; y < 40; ++y)
      for (int x = 24; x < 40; ++x) sum += v[y * 64 + x], squares += v[y * 64 + x] * v[y * 64 + x];
    const double mean = sum / 256;
    return std::make_pair(mean, std::sqrt(squares / 256 - mean * mean));
  };
  const auto plain = spread(restore(s, 40)), smooth = spread(restore(s, 40, 2, true, 0.01f));
  EXPECT_LT(smooth.second, 0.7 * plain.second);
  EXPECT_NEAR(smooth.first, 30, 2);
}

TEST(RichardsonLucy, GivesTheSameBitsForAnyNumberOfThreads) {
  const Scene s = scene({20, 50, 45}, {2.0, 1.5, 1.5}, 100, 5);
  const std::vector<float> one = restore(s, 0, 1);
  for (const int threads : {2, 8}) EXPECT_EQ(restore(s, 0, threads), one);
  EXPECT_EQ(restore(s, 10, 1, true, 0.01f), restore(s, 10, 8, true, 0.01f));
}

// Weights of 0 take samples out of the fit: whatever those hold (even NaN),
// the rest is the same to the bit, the start's mean included; objects only
// they reach keep the data. Weights of 1 are no weights at all.
TEST(RichardsonLucy, SamplesWeighedZeroLeaveTheResultAlone) {
  Scene s = scene({48, 56}, {1.5, 1.5}, 0, 6);
  std::vector<float> weights(s.data.size(), 1.0f);
  const std::vector<float> plain = restore(s, 15);
  EXPECT_EQ(restore(s, 15, 2, true, 0, weights.data()), plain);
  // A block out of the fit: 12 x 14 samples, wider than the PSF (11 taps).
  for (int y = 10; y < 22; ++y)
    for (int x = 20; x < 34; ++x) weights[y * 56 + x] = 0;
  const std::vector<float> first = restore(s, 15, 2, true, 0, weights.data());
  Scene changed = s;
  for (size_t i = 0; i < weights.size(); ++i)
    if (!weights[i]) changed.data[i] = i % 7 ? 5000.0f * (i % 3) : NAN;
  const std::vector<float> second = restore(changed, 15, 2, true, 0, weights.data());
  for (int y = 0; y < 48; ++y)
    for (int x = 0; x < 56; ++x) {
      const size_t i = y * 56 + x;
      const bool inside = y >= 15 && y < 17 && x >= 25 && x < 29;  // beyond the PSF's reach of any weighed datum
      EXPECT_TRUE((!weights[i] || first[i] == second[i]) && (!inside || first[i] == std::max(s.data[i] - 10, 0.0f)))
          << x << "," << y << ": " << first[i] << " " << second[i];
    }
  EXPECT_NE(first, plain);
}

}  // namespace
