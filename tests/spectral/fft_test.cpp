// The FFT entry against a naive double-precision DFT, its scaling and layout,
// its lock, and circular convolution.
#include <dlfcn.h>

#include <atomic>
#include <complex>
#include <cstring>
#include <random>
#include <thread>

#include "spectral/fft.h"
#include "tests/support.h"

// This program's own fftwf_malloc and pthread_mutex_lock stand in front of the
// libraries' ones, to fail the buffer or count the locks.
static bool fail_malloc = false, count_locks = false;
static std::atomic<int> locks{0}, planner_locks{0};

extern "C" void* fftwf_malloc(size_t n) {
  static const auto real = (void* (*)(size_t))dlsym(RTLD_NEXT, "fftwf_malloc");
  return fail_malloc ? nullptr : real(n);
}

extern "C" int pthread_mutex_lock(pthread_mutex_t* mutex) {
  static const auto real = (int (*)(pthread_mutex_t*))dlsym(RTLD_NEXT, "pthread_mutex_lock");
  if (count_locks) ++(mutex == fftw_planner_mutex() ? planner_locks : locks);  // other tests lock from many threads
  return real(mutex);
}

namespace {

CImg<float> noise(int w, int h, int c, unsigned seed) {
  std::mt19937 rng(seed);
  CImg<float> img(w, h, 1, c);
  for (float& v : img) v = std::uniform_real_distribution<float>(-1, 1)(rng);
  return img;
}

TEST(Fft, MatchesANaiveDftForwardAndInverse) {
  // Single precision rounds each output sample to about 4e-7 * log2(N) of the
  // input's L2 norm. A spread of frequencies is checked on the larger sizes;
  // sizes that are not multiples of 4 leave samples outside the copies' tiles.
  for (const auto& [w, h, d] : {std::array{1, 1, 1}, {1, 7, 1}, {8, 1, 1}, {9, 6, 1}, {17, 13, 1}, {6, 5, 3}, {1021, 769, 1}}) {
    const CImg<float> re = noise(w, h * d, 1, w).resize(w, h, d, 1, -1), im = noise(w, h * d, 1, h).resize(w, h, d, 1, -1);
    const double tolerance = 4e-7 * std::max(1.0, std::log2(w * h * d)) * std::sqrt(re.get_sqr().sum() + im.get_sqr().sum());
    for (const int sign : {-1, 1}) {
      CImg<float> out_re(re), out_im(im);
      CImg<float>::FFT(out_re, out_im, sign > 0, nullptr);
      const double n = sign > 0 ? w * h * d : 1;
      for (int t = 0; t < d; ++t)
        for (int v = 0; v < h; v += std::max(1, h / 9))
          for (int u = 0; u < w; u += std::max(1, w / 9)) {
            std::complex<double> sum = 0;
            cimg_forXYZ(re, x, y, z) sum += std::complex<double>(re(x, y, z), im(x, y, z)) *
                                            std::polar(1.0, sign * 2 * M_PI * ((double)u * x / w + (double)v * y / h + (double)t * z / d));
            ASSERT_NEAR(out_re(u, v, t), sum.real() / n, tolerance / n) << w << "x" << h << "x" << d << " " << u << "," << v << "," << t;
            ASSERT_NEAR(out_im(u, v, t), sum.imag() / n, tolerance / n) << w << "x" << h << "x" << d << " " << u << "," << v << "," << t;
          }
    }
  }
}

TEST(Fft, ScalingAndChannels) {
  CImg<float> three(3, 1, 1, 1, 5.0, 0.0, 0.0), zeros;
  CImg<float>::FFT(three, zeros, true, nullptr);  // a true division by n, not a product with 1/n
  EXPECT_EQ(three, CImg<float>(3, 1, 1, 1, 5.0f / 3.0f));
  const CImg<float> colour = noise(12, 7, 3, 5);
  const CImgList<float> all = forward_spectrum(colour, nullptr);
  for (int c = 0; c < 3; ++c) {
    const CImgList<float> one = forward_spectrum(colour.get_channel(c), nullptr);
    EXPECT_TRUE(one[0] == all[0].get_channel(c) && one[1] == all[1].get_channel(c)) << c;
  }
}

TEST(Fft, TheLockIsTakenToPlanAndToDestroyAndKeptWhenTheBufferFails) {
  pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
  CImg<float> re(16, 8, 1, 2, 1.0f), im, larger(2048, 1024, 1, 1, 1.0f), larger_im;
  count_locks = true;
  CImg<float>::FFT(re, im, false, &mutex);
  CImg<float>::FFT(re, im, true, nullptr);  // no lock at all
  count_locks = false;
  EXPECT_EQ(locks, 2);
  EXPECT_EQ(planner_locks, 4);  // the process's planner, whoever the caller
  fail_malloc = true;  // the thread's buffer must grow for this one
  EXPECT_EQ(thrown<cimg_library::CImgInstanceException>([&] { CImg<float>::FFT(larger, larger_im, false, &mutex); }),
            "Encountered null pointer: <mkl>fftwf_malloc failed");
  fail_malloc = false;
  EXPECT_EQ(pthread_mutex_trylock(&mutex), EBUSY);  // deliberately left locked
}

TEST(Fft, ThreadsSharingTheLockGetTheSequentialResults) {
  pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
  std::vector<CImgList<float>> alone, together(6);
  std::vector<std::thread> threads;
  for (int i = 0; i < 6; ++i) alone.push_back(forward_spectrum(noise(96 + i, 80, 1, i), nullptr));
  for (int i = 0; i < 6; ++i)
    threads.emplace_back([&, i] {
      for (int round = 0; round < 20; ++round) together[i] = forward_spectrum(noise(96 + i, 80, 1, i), &mutex);
    });
  for (std::thread& t : threads) t.join();
  for (int i = 0; i < 6; ++i) EXPECT_TRUE(together[i][0] == alone[i][0] && together[i][1] == alone[i][1]) << i;
}

TEST(FftConvolve, WhereTheKernelsOriginLandsAndItsGain) {
  // {image w, h, kernel w, h, its single 1 at x, y, how the picture moves}.
  // The middle of an odd kernel lands one pixel short of the origin, by
  // design, so the picture moves toward -x and -y.
  const int cases[][8] = {{8, 6, 3, 3, 1, 1, -1, -1}, {9, 7, 3, 3, 1, 1, -1, -1}, {8, 6, 4, 4, 2, 2, 0, 0},
                          {5, 5, 9, 9, 4, 4, -1, -1} /* cropped around its middle */, {1, 6, 3, 3, 1, 1, 0, -1}};
  for (const auto& c : cases) {
    CImg<float> image = noise(c[0], c[1], 1, 3), kernel(c[2], c[3], 1, 1, 0), result(2, 2, 1, 3);
    kernel(c[4], c[5]) = 1;
    fft_convolve(result, image, kernel, nullptr);
    EXPECT_LT((result - image.get_shift(c[6], c[7], 0, 0, 2)).abs().max(), 1e-5) << c[0] << "x" << c[1] << " by " << c[2];
  }
  const CImg<float> image = noise(7, 6, 1, 4);
  CImg<float> impulse(7, 6, 1, 1, 0), result;
  impulse(1, 0) = 1;  // a transformed impulse at (1, 0) moves by +1 in x
  fft_convolve(result, image, forward_spectrum(impulse, nullptr), nullptr);
  EXPECT_LT((result - image.get_shift(1, 0, 0, 0, 2)).abs().max(), 1e-5);
  fft_convolve(result, image + 1, CImg<float>(3, 3, 1, 1, 2.0f / 9), nullptr);
  EXPECT_NEAR(result.mean(), 2 * (image.mean() + 1), 1e-5);
}

TEST(FftConvolve, ReadInPlaceGivesTheWrittenBitsEverywhere) {
  // Sizes with and without whole 4 x 4 tiles, and a single column.
  for (const auto& [w, h] : {std::pair{12, 8}, {13, 7}, {1, 6}, {66, 5}}) {
    const CImg<float> image = noise(w, h, 1, w), kernel = noise(w, h, 1, h);
    const CImgList<float> spectrum = forward_spectrum(kernel, nullptr);
    CImg<float> written, read(w, h);
    fft_convolve(written, image, spectrum, nullptr);
    fft_convolve_read(image, spectrum, [&](const auto& sample) { cimg_forXY(read, x, y) read(x, y) = sample(x, y); },
                      nullptr);
    EXPECT_EQ(std::memcmp(written.data(), read.data(), read.size() * sizeof(float)), 0) << w << "x" << h;
  }
}

}  // namespace
