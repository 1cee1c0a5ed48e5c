// The FFT entry against a naive transform in double precision, its sign and
// layout, its failures, and its use from several threads at once.
#include <cmath>
#include <complex>
#include <random>
#include <thread>

#include "spectral/fft.h"
#include "tests/support/test_support.h"

namespace {

using cd = std::complex<double>;

CImg<float> random_plane(int w, int h, int c, unsigned seed) {
  std::mt19937 rng(seed);
  std::uniform_real_distribution<float> value(-1, 1);
  CImg<float> img(w, h, 1, c);
  for (float& v : img) v = value(rng);
  return img;
}

// One sample of the DFT of channel c, summed in double: sign -1 forward,
// +1 inverse (then divided by W * H).
cd naive_dft(const CImg<float>& re, const CImg<float>& im, int u, int v, int c, int sign) {
  const int W = re.width(), H = re.height();
  cd sum = 0;
  for (int y = 0; y < H; ++y)
    for (int x = 0; x < W; ++x) {
      const double angle = sign * 2 * M_PI * ((double)u * x / W + (double)v * y / H);
      sum += cd(re(x, y, 0, c), im(x, y, 0, c)) * cd(std::cos(angle), std::sin(angle));
    }
  return sign > 0 ? sum / double(W * H) : sum;
}

struct Size {
  int w, h;
};

void PrintTo(const Size& s, std::ostream* os) { *os << s.w << "x" << s.h; }

class FftAgainstNaiveDft : public ::testing::TestWithParam<Size> {};

// Single precision keeps about seven digits; an FFT's rounding grows with
// log2(N). Each sample may differ from the double reference by 4e-7 * log2(N)
// of the input's L2 norm (the scale of one output sample's rounding).
TEST_P(FftAgainstNaiveDft, ForwardAndInverseOnComplexData) {
  const auto [w, h] = GetParam();
  const CImg<float> re = random_plane(w, h, 1, w * 31 + h), im = random_plane(w, h, 1, w + h * 17);
  const double norm = std::sqrt(re.get_sqr().sum() + im.get_sqr().sum());
  const double tolerance = 4e-7 * std::max(1.0, std::log2((double)w * h)) * norm;

  // Every frequency for small planes, a spread of them for the large prime one.
  std::vector<std::pair<int, int>> samples;
  const int step_u = std::max(1, w / 12), step_v = std::max(1, h / 12);
  for (int v = 0; v < h; v += step_v)
    for (int u = 0; u < w; u += step_u) samples.push_back({u, v});
  samples.push_back({w - 1, h - 1});

  for (const bool invert : {false, true}) {
    CImg<float> out_re(re), out_im(im);
    CImg<float>::FFT(out_re, out_im, invert, nullptr);
    for (const auto& [u, v] : samples) {
      const cd expected = naive_dft(re, im, u, v, 0, invert ? 1 : -1);
      const double scale = invert ? 1.0 / (w * h) : 1.0;
      ASSERT_NEAR(out_re(u, v), expected.real(), tolerance * scale) << "invert " << invert << " at " << u << "," << v;
      ASSERT_NEAR(out_im(u, v), expected.imag(), tolerance * scale) << "invert " << invert << " at " << u << "," << v;
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Sizes, FftAgainstNaiveDft,
                         ::testing::Values(Size{1, 1}, Size{1, 7}, Size{8, 1}, Size{8, 8}, Size{9, 6},
                                           Size{17, 13}, Size{64, 48}, Size{1021, 769}),
                         [](const auto& info) {
                           return std::to_string(info.param.w) + "x" + std::to_string(info.param.h);
                         });

TEST(Fft, ImpulseFixesSignAndAxes) {
  const int W = 8, H = 4;
  CImg<float> re(W, H, 1, 1, 0), im;
  re(1, 0) = 1;
  CImg<float>::FFT(re, im, false, nullptr);
  for (int v = 0; v < H; ++v)
    for (int u = 0; u < W; ++u) {
      EXPECT_NEAR(re(u, v), std::cos(2 * M_PI * u / W), 1e-6);
      EXPECT_NEAR(im(u, v), -std::sin(2 * M_PI * u / W), 1e-6);
    }
  EXPECT_LT(im(1, 0), 0);
}

TEST(Fft, ConstantHasOnlyTheZeroFrequencyAndComesBack) {
  const int W = 6, H = 5;
  CImg<float> re(W, H, 1, 1, 0.25f), im;
  CImg<float>::FFT(re, im, false, nullptr);
  EXPECT_NEAR(re(0, 0), 0.25f * W * H, 1e-5);
  for (int k = 1; k < W * H; ++k) EXPECT_NEAR(re[k], 0, 1e-5);
  for (float v : im) EXPECT_NEAR(v, 0, 1e-5);
  CImg<float>::FFT(re, im, true, nullptr);
  for (float v : re) EXPECT_NEAR(v, 0.25f, 1e-6);
}

TEST(Fft, OnePixelIsItsOwnTransform) {
  CImg<float> re(1, 1, 1, 1, 3.5f), im(1, 1, 1, 1, -2.0f);
  CImg<float>::FFT(re, im, false, nullptr);
  EXPECT_EQ(re[0], 3.5f);
  EXPECT_EQ(im[0], -2.0f);
  CImg<float>::FFT(re, im, true, nullptr);
  EXPECT_EQ(re[0], 3.5f);
  EXPECT_EQ(im[0], -2.0f);
}

TEST(Fft, ChannelsAreTransformedSeparatelyAndAnEmptyImagIsZero) {
  const CImg<float> colour = random_plane(12, 7, 3, 5);
  CImg<float> re(colour), im;
  CImg<float>::FFT(re, im, false, nullptr);
  for (int c = 0; c < 3; ++c) {
    CImg<float> plane_re = colour.get_channel(c), plane_im(12, 7, 1, 1, 0);
    CImg<float>::FFT(plane_re, plane_im, false, nullptr);
    EXPECT_EQ(plane_re, re.get_channel(c)) << "channel " << c;
    EXPECT_EQ(plane_im, im.get_channel(c)) << "channel " << c;
  }
}

TEST(Fft, InverseDividesByTheSampleCount) {
  // The division is a true float division by n = W * H: 3 / 3 is exactly 1,
  // where a multiplication by 1/3.0f would not be.
  CImg<float> re(3, 1, 1, 1, 0), im(3, 1, 1, 1, 0);
  re[0] = 3;
  CImg<float>::FFT(re, im, true, nullptr);
  for (float v : re) EXPECT_EQ(v, 1.0f);
}

TEST(Fft, RejectsEmptyRealAndMismatchedSizesLeavingBothUnchanged) {
  CImg<float> empty, imag(4, 4, 1, 1, 2.0f);
  try {
    CImg<float>::FFT(empty, imag, false, nullptr);
    FAIL() << "no exception";
  } catch (cimg_library::CImgInstanceException& e) {
    EXPECT_STREQ(e.what(), "CImgList<float>::FFT() : Input real image is empty.");
  }
  EXPECT_EQ(imag, CImg<float>(4, 4, 1, 1, 2.0f));

  CImg<float> real(4, 4, 1, 1, 1.0f), tall(4, 5, 1, 1, 2.0f);
  try {
    CImg<float>::FFT(real, tall, false, nullptr);
    FAIL() << "no exception";
  } catch (cimg_library::CImgInstanceException& e) {
    char expected[256];
    std::snprintf(expected, sizeof expected,
                  "CImgList<float>::FFT() : Real image (4,4,1,1,%p) and imaginary image (4,5,1,1,%p) have "
                  "different dimensions",
                  (void*)real.data(), (void*)tall.data());
    EXPECT_STREQ(e.what(), expected);
  }
  EXPECT_EQ(real, CImg<float>(4, 4, 1, 1, 1.0f));
  EXPECT_EQ(tall, CImg<float>(4, 5, 1, 1, 2.0f));
}

TEST(Fft, ThreadsSharingTheLockGetTheSequentialResults) {
  std::vector<CImg<float>> inputs;
  for (int i = 0; i < 6; ++i) inputs.push_back(random_plane(96 + i, 80 - i, 1, i));
  std::vector<CImgList<float>> sequential, parallel(inputs.size());
  for (const CImg<float>& img : inputs) {
    CImgList<float> s = forward_spectrum(img, nullptr);
    sequential.push_back(s.FFT(true, nullptr));
  }
  pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
  std::vector<std::thread> threads;
  for (size_t i = 0; i < inputs.size(); ++i)
    threads.emplace_back([&, i] {
      for (int round = 0; round < 20; ++round) {
        parallel[i] = forward_spectrum(inputs[i], &mutex);
        parallel[i].FFT(true, &mutex);
      }
    });
  for (std::thread& t : threads) t.join();
  for (size_t i = 0; i < inputs.size(); ++i) {
    EXPECT_EQ(parallel[i][0], sequential[i][0]);
    EXPECT_EQ(parallel[i][1], sequential[i][1]);
  }
}

TEST(FftList, FillsAMissingImagAndWarnsAboutExtraEntries) {
  CImgList<float> none;
  none.FFT(false, nullptr);
  EXPECT_TRUE(none.is_empty());

  CImgList<float> one(CImg<float>(4, 2, 1, 1, 1.0f));
  one.FFT(false, nullptr);
  ASSERT_EQ(one.size(), 2u);
  EXPECT_EQ(one[0](0, 0), 8.0f);
  EXPECT_EQ(one[1], CImg<float>(4, 2, 1, 1, 0.0f));

  CImgList<float> three(3, 4, 2, 1, 1, 1.0f);
  ::testing::internal::CaptureStderr();
  three.FFT(false, nullptr);
  const std::string err = ::testing::internal::GetCapturedStderr();
  char expected[160];
  std::snprintf(expected, sizeof expected,
                "\n[CImg] *** Warning ***CImgList<float>::FFT() : Instance list (3,%p) have more than 2 images",
                (void*)three.data());
  EXPECT_EQ(err, expected);
  EXPECT_EQ(three[0](0, 0), 8.0f);
  EXPECT_EQ(three[2], CImg<float>(4, 2, 1, 1, 1.0f));
}

}  // namespace
