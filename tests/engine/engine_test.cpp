// The engine: the PSF's preparation and the stages of a restoration called one
// by one. Every test's engine is torn down with idle workers and must leave no
// semaphore name; a failed pool is runs_test's ExitStatusesAsAScriptSeesThem.
#include <cmath>
#include <memory>

#include "engine/deconv.h"
#include "tests/support.h"

namespace {

class Engine : public SemaphoreTest {
 protected:
  void SetUp() override { SemaphoreTest::SetUp(), fresh(2); }
  void TearDown() override { engine.reset(), SemaphoreTest::TearDown(); }
  void fresh(int workers) {
    engine.reset();  // two engines alive at once would share their semaphores
    engine = std::make_unique<CDeconv>(workers, 10);
  }
  void picture(int w, int h) { engine->width = w, engine->height = h, engine->channels = 1; }
  std::unique_ptr<CDeconv> engine;
};

CImg<float> taps(int w, int h, std::initializer_list<std::tuple<int, int, float>> values) {
  CImg<float> img(w, h, 1, 1, 0);
  for (const auto& [x, y, v] : values) img(x, y) = v;
  return img;
}

TEST_F(Engine, ThePsfIsCentredByItsRoundedCentroidOnACanvasTwiceItsWidthPlusOne) {
  // A pair centred between two pixels rounds up: half a pixel left of the middle.
  for (auto [psf, expected] : {std::pair{taps(9, 9, {{2, 3, 0.25f}, {3, 3, 0.75f}}), taps(9, 9, {{3, 4, 0.25f}, {4, 4, 0.75f}})},
                               {taps(9, 9, {{3, 4, 0.5f}, {4, 4, 0.5f}}), taps(9, 9, {{3, 4, 0.5f}, {4, 4, 0.5f}})},
                               {taps(9, 9, {{4, 4, 0.5f}, {5, 4, 0.5f}}), taps(9, 9, {{3, 4, 0.5f}, {4, 4, 0.5f}})}}) {
    engine->RecenterPsf(psf);
    EXPECT_EQ(psf, expected);
  }
  // A PSF with no finite centroid (sum 0, NaN, infinity) is cleared, and its
  // normalisation makes it NaN: the restoration comes out black.
  for (const float bad : {0.0f, NAN, INFINITY}) {
    CImg<float> psf = taps(9, 9, {{4, 4, bad}});
    engine->RecenterPsf(psf);
    EXPECT_TRUE(std::isnan(psf.min()) || std::isnan(psf.max())) << bad;
  }
  CImg<float> even(4, 4, 1, 1, 1.0f), colour(3, 3, 1, 3, 0);
  EXPECT_EQ(thrown<cimg_library::CImgArgumentException>([&] { engine->RecenterPsf(even); }), "PSF must be square with odd dimensions");
  for (int c = 0; c < 3; ++c) colour(1, 1, 0, c) = 1.0f / 3;  // the first plane sums to 1/3: centring overshoots
  for (auto [psf, expected] : {std::pair{CImg<float>(1, 1, 1, 1, 1.0f), taps(3, 3, {{1, 1, 1}})},
                               {taps(10, 10, {{0, 0, 0.5f}, {9, 9, 0.5f}}), taps(21, 21, {{5, 5, 0.5f}, {14, 14, 0.5f}})},
                               {taps(5, 9, {{0, 1, 0.5f}, {4, 7, 0.5f}}), taps(11, 11, {{3, 2, 0.5f}, {7, 8, 0.5f}})},
                               {taps(5, 21, {{2, 10, 1}, {2, 0, 7}}), taps(11, 11, {{5, 5, 1}})},  // rows cut away
                               {colour, taps(7, 7, {{6, 6, 1}})}}) {
    fresh(2);
    CImg<float> input(32, 32, 1, 1, 0.5f), output(32, 32);
    engine->deconv_nonblind(output, input, psf);
    EXPECT_EQ(psf, expected);
  }
  std::pair<CImg<float>, int> supports[] = {{taps(21, 21, {}), 3}, {taps(21, 21, {{10, 10, 1}}), 3},
                                            {taps(21, 21, {{3, 8, 1}, {9, 12, 1}}), 9},   // a 7 x 5 box
                                            {taps(21, 21, {{2, 2, 1}, {9, 9, 1}}), 11}};  // an 8 x 8 box
  for (auto& [psf, support] : supports) EXPECT_EQ(engine->FindSupport(psf), support);
}

TEST_F(Engine, ThePsfSpectrumPutsItsMiddleOnePixelShortOfTheOrigin) {
  // {PSF size, picture w, h, where its middle lands}; deliberate, and carried
  // into the taper and the restoration.
  for (const auto& c : {std::array{3, 8, 8, 7, 7}, {3, 9, 9, 8, 8}, {7, 7, 5, 6, 4}, {9, 5, 12, 4, 11}, {9, 4, 12, 0, 11}, {3, 1, 6, 0, 5}}) {
    picture(c[1], c[2]);
    engine->psf.assign(c[0], c[0], 1, 1, 0)(c[0] / 2, c[0] / 2) = 1;
    engine->calculate_fft_of_psf();
    CImgList<float> back(engine->psf_fft);
    EXPECT_TRUE(engine->psf.is_empty());
    EXPECT_NEAR(back.FFT(true, nullptr)[0](c[3], c[4]), 1, 1e-5) << c[0] << " on " << c[1] << "x" << c[2];
  }
  picture(6, 5);
  engine->psf.assign(1, 1, 1, 1, 1.0f);
  engine->calculate_fft_of_psf();
  EXPECT_NEAR((engine->psf_fft[0].get_sqr() + engine->psf_fft[1].get_sqr()).sqrt().mean(), 1, 1e-6);  // |H| = 1
  picture(4, 12);
  engine->psf.assign(9, 9, 1, 1, 1.0f / 81);  // cut to 4 columns, and back to unit gain
  engine->calculate_fft_of_psf();
  EXPECT_NEAR(engine->psf_fft[0](0, 0), 1, 1e-6);
}

TEST_F(Engine, DerivativeSpectraMatchTheirClosedForm) {
  for (const auto& [W, H] : {std::pair{8, 6}, {7, 9}, {2, 2}}) {
    fresh(1);  // a second batch on one engine would add to S again
    picture(W, H);
    engine->psf = taps(3, 3, {{1, 1, 1}});
    CImg<float> image(W, H, 1, 1, 0.5f);
    engine->taper_and_gradient_master(image);
    cimg_forXY(image, u, v) {  // |Dx|^2 = 4 sin^2(pi u / W), likewise |Dy|^2
      const double d = 4 * std::pow(std::sin(M_PI * u / W), 2) + 4 * std::pow(std::sin(M_PI * v / H), 2);
      EXPECT_NEAR(engine->fidelity_spectrum(u, v), 50 + 25 * d, 1e-4);
      EXPECT_NEAR(engine->smoothness_spectrum(u, v), d, 1e-5);
    }
    EXPECT_TRUE(engine->grad_x_power.is_empty() && engine->grad_y_power.is_empty());
  }
  CImg<float> kernel;
  for (const int type : {8, -1}) EXPECT_EQ(thrown<int>([&] { CDeconv::gradient_kernel(kernel, (CDeconv::GradTypes)type); }), "187");
}

TEST_F(Engine, TheTaperBlendsABandOfErfWeightsTowardsTheBlur) {
  const auto weights = [&](int W, int H, int t) {  // a zero spectrum blurs to 0: ones become weights
    picture(W, H);
    engine->psf_fft.assign(2, W, H, 1, 1, 0.0f);
    sem_post(engine->psf_fft_done);
    CImg<float> plane(W, H, 1, 1, 1.0f);
    engine->taper_edges(plane, t, false);
    return plane;
  };
  const CImg<float> t5 = weights(24, 20, 5), t3 = weights(10, 10, 3), t31 = weights(70, 64, 31);
  const float ramp[] = {0.263539f, 0.375915f, 0.5f, 0.624085f, 0.736461f, 1.0f};
  for (int d = 0; d < 6; ++d)
    EXPECT_TRUE(std::abs(t5(d, 10) - ramp[d]) < 1e-6 && t5(23 - d, 10) == t5(d, 10) && t5(12, 19 - d) == t5(d, 10)) << d;
  EXPECT_EQ(t5(1, 0), t5(12, 0));  // a corner takes the smaller weight
  EXPECT_TRUE(std::abs(t3(0, 5) - 0.341545f) < 1e-6 && std::abs(t3(2, 5) - 0.658455f) < 1e-6 && t3(3, 5) == 1);
  EXPECT_TRUE(std::abs(t31(0, 32) - 0.028225f) < 1e-6 && std::abs(t31(30, 32) - 0.971775f) < 1e-6);
  EXPECT_EQ(weights(9, 9, 0), CImg<float>(9, 9, 1, 1, 1.0f));

  picture(40, 30);
  engine->psf.assign(5, 5, 1, 1, 1.0f / 25);
  engine->calculate_fft_of_psf();
  for (const bool gaussian : {false, true}) {  // a constant plane stays constant
    CImg<float> plane(40, 30, 1, 1, 0.7f);
    engine->taper_edges(plane, 7, gaussian);
    EXPECT_LT((plane - 0.7f).abs().max(), 1e-5) << gaussian;
  }
  // Between one and two bands wide, the walk never ends, deliberately: nothing
  // compares the picture with the PSF. An alarm ends the looping child.
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  CImg<float> narrow(7, 20, 1, 1, 1.0f);
  picture(7, 20);
  engine->psf_fft.assign(2, 7, 20, 1, 1, 0.0f);
  EXPECT_EXIT((alarm(2), engine->taper_edges(narrow, 5, false), std::exit(0)), ::testing::KilledBySignal(SIGALRM), "");
}

TEST_F(Engine, TheSolveDividesByTheConjugateWithRegularisation) {
  CImg<float> input(8, 6), output(8, 6), impulse = taps(8, 6, {{1, 0, 1}});  // H moves by +1 in x
  cimg_forXY(input, x, y) input(x, y) = 0.1f * x + 0.01f * y;
  picture(8, 6);
  forward_spectrum(impulse, nullptr).move_to(engine->psf_fft);
  engine->fidelity_spectrum.assign(8, 6, 1, 1, 50);
  engine->smoothness_spectrum.assign(8, 6, 1, 1, 8);
  for (const int strength : {0, 25}) {  // lambda 2.5: X = 50 conj(H) Y / (50 + 2.5 * 8)
    engine->reg_strength = strength;
    engine->deconv_channel(input, output);
    EXPECT_LT((output - input.get_shift(-1, 0, 0, 0, 2) * (strength ? 50.0f / 70 : 1)).abs().max(), 1e-5);
  }
  engine->psf_fft.assign(2, 8, 6, 1, 1, 0.0f);
  engine->smoothness_spectrum.fill(0);
  engine->deconv_channel(input, output);  // H = N = 0 gives 0, not NaN
  EXPECT_EQ(output, CImg<float>(8, 6, 1, 1, 0.0f));
}

}  // namespace
