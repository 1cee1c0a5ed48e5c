// The real transforms of any number of axes against a naive double-precision
// DFT, and the same bits for any number of threads.
#include <gtest/gtest.h>

#include <cmath>
#include <complex>
#include <cstring>
#include <random>

#include "spectral/real_fft.h"

namespace {

using namespace deconv::spectral;

RealArray noise(size_t n, unsigned seed) {
  std::mt19937 rng(seed);
  RealArray v(n);
  for (float& x : v) x = std::uniform_real_distribution<float>(-1, 1)(rng);
  return v;
}

// The naive DFT of `x` at frequency `k` (one index per axis).
std::complex<double> naive(const RealArray& x, const std::vector<int>& sizes, const std::vector<int>& k) {
  std::complex<double> sum = 0;
  std::vector<int> at(sizes.size(), 0);
  for (size_t i = 0; i < x.size(); ++i) {
    double phase = 0;
    for (size_t a = 0; a < sizes.size(); ++a) phase += (double)at[a] * k[a] / sizes[a];
    sum += (double)x[i] * std::polar(1.0, -2 * M_PI * phase);
    for (size_t a = sizes.size(); a-- > 0 && ++at[a] == sizes[a];) at[a] = 0;
  }
  return sum;
}

class RealFftShapes : public ::testing::TestWithParam<std::vector<int>> {};

// Every stored frequency of odd, even, prime and one-sample axes in one to
// three axes (blocks cut unevenly); a round trip gives the input times the count.
TEST_P(RealFftShapes, MatchNaiveDftAndComeBack) {
  const std::vector<int> sizes = GetParam();
  const RealFft& fft = RealFft::of(sizes);
  Workers workers(3);
  const RealArray x = noise(fft.samples(), 7);
  Spectrum X(fft.frequencies());
  fft.forward(x.data(), X.data(), workers);
  // Single precision: about 1e-6 of the sum of |x| per level of the transform.
  const double tolerance = 2e-6 * fft.samples() * std::log2(2.0 * fft.samples());
  for (size_t f = 0; f < fft.frequencies(); f += 1 + fft.frequencies() / 97) {
    std::vector<int> k(sizes.size());
    k.back() = (int)(f % fft.half());
    for (size_t rest = f / fft.half(), a = sizes.size() - 1; a-- > 0; rest /= sizes[a]) k[a] = (int)(rest % sizes[a]);
    const std::complex<double> expected = naive(x, sizes, k);
    EXPECT_NEAR(X[f].real(), expected.real(), tolerance) << f;
    EXPECT_NEAR(X[f].imag(), expected.imag(), tolerance) << f;
  }
  RealArray back(fft.samples());
  fft.backward(X.data(), back.data(), workers);
  for (size_t i = 0; i < x.size(); ++i) ASSERT_NEAR(back[i] / fft.samples(), x[i], 1e-5) << i;
}

// The fused forward, change and backward is the three steps, bit for bit.
TEST_P(RealFftShapes, FilterIsForwardChangeBackward) {
  const RealFft& fft = RealFft::of(GetParam());
  Workers workers(2);
  const RealArray x = noise(fft.samples(), 5);
  const auto gain = [](size_t k) { return Complex(1.0f / (1 + k % 7), 0.25f * (k % 3)); };
  Spectrum X(fft.frequencies());
  fft.forward(x.data(), X.data(), workers);
  for (size_t k = 0; k < X.size(); ++k) X[k] *= gain(k);
  RealArray expected(fft.samples()), fused(fft.samples());
  fft.backward(X.data(), expected.data(), workers);
  fft.filter(x.data(), fused.data(), X.data(),
             [&](Complex* v, size_t count, size_t first, size_t step) {
               for (size_t i = 0; i < count; ++i) v[i] *= gain(first + i * step);
             },
             workers);
  EXPECT_EQ(0, std::memcmp(expected.data(), fused.data(), expected.size() * sizeof(float)));
  // The spectrum in filter order holds the same values where filter_index says.
  Spectrum ordered(fft.frequencies()), by_row(fft.frequencies());
  fft.forward(x.data(), by_row.data(), workers);
  fft.forward_in_filter_order(x.data(), ordered.data(), X.data(), workers);
  for (size_t k = 0; k < by_row.size(); ++k) ASSERT_EQ(ordered[fft.filter_index(k)], by_row[k]) << k;
}

INSTANTIATE_TEST_SUITE_P(RealFft, RealFftShapes,
                         ::testing::Values(std::vector<int>{1}, std::vector<int>{12}, std::vector<int>{1, 1},
                                           std::vector<int>{37, 1}, std::vector<int>{33, 20}, std::vector<int>{17, 31},
                                           std::vector<int>{5, 18, 7}, std::vector<int>{3, 40, 36}));

// 1, 2 and 8 threads give the same bits forward and back, the input at an odd address too.
TEST(RealFft, GivesTheSameBitsForAnyNumberOfThreads) {
  for (const std::vector<int>& sizes : {std::vector<int>{250, 333}, std::vector<int>{9, 70, 66}}) {
    const RealFft& fft = RealFft::of(sizes);
    const RealArray x = noise(fft.samples(), 3);
    RealArray shifted(fft.samples() + 1);
    std::copy(x.begin(), x.end(), shifted.begin() + 1);
    std::vector<Spectrum> spectra;
    std::vector<RealArray> backs;
    for (const int threads : {1, 2, 8}) {
      Workers workers(threads);
      Spectrum X(fft.frequencies());
      fft.forward(threads == 8 ? shifted.data() + 1 : x.data(), X.data(), workers);
      spectra.push_back(X);
      RealArray back(fft.samples());
      fft.backward(X.data(), back.data(), workers);
      backs.push_back(back);
    }
    for (int i : {1, 2}) {
      EXPECT_EQ(0, std::memcmp(spectra[0].data(), spectra[i].data(), spectra[0].size() * sizeof(Complex)));
      EXPECT_EQ(0, std::memcmp(backs[0].data(), backs[i].data(), backs[0].size() * sizeof(float)));
    }
  }
}

}  // namespace
