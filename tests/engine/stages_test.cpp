// The stages of a restoration, called one by one on an engine: the PSF
// spectrum, the derivative spectra, the edge taper and the solve.
#include <signal.h>
#include <unistd.h>

#include <cmath>

#include "tests/engine/engine_fixture.h"

namespace {

CImgList<float> inverse(const CImgList<float>& spectrum) {
  CImgList<float> image(spectrum);
  return image.FFT(true, nullptr);
}

class PsfSpectrum : public EngineTest {};

struct Landing {
  const char* name;
  int psf_size, marker_x, marker_y;  // a square PSF with one marked pixel
  int width, height;                 // the picture
  int expect_x, expect_y;            // where the marker stands at picture size
};

void PrintTo(const Landing& l, std::ostream* os) { *os << l.name; }

class PsfLanding : public EngineTest, public ::testing::WithParamInterface<Landing> {};

// The middle of the PSF stands one pixel short of the origin, at
// (width - 1, height - 1): a deliberate offset that the tapering and the
// restoration carry through.
TEST_P(PsfLanding, PutsTheMiddleOnePixelShortOfTheOrigin) {
  const Landing& p = GetParam();
  set_picture(p.width, p.height);
  engine->psf.assign(p.psf_size, p.psf_size, 1, 1, 0);
  engine->psf(p.marker_x, p.marker_y) = 1;
  engine->calculate_fft_of_psf();
  EXPECT_TRUE(engine->psf.is_empty());
  ASSERT_EQ(engine->psf_fft.size(), 2u);
  const CImg<float> back = inverse(engine->psf_fft)[0];
  ASSERT_EQ(back.width(), p.width);
  ASSERT_EQ(back.height(), p.height);
  EXPECT_NEAR(back(p.expect_x, p.expect_y), 1, 1e-5);
  EXPECT_NEAR(back.sum(), 1, 1e-5);
  int latch = 0;
  sem_getvalue(engine->psf_fft_done, &latch);
  EXPECT_EQ(latch, 1);
}

INSTANTIATE_TEST_SUITE_P(Sizes, PsfLanding,
                         ::testing::Values(Landing{"odd3on8x8", 3, 1, 1, 8, 8, 7, 7},
                                           Landing{"odd3on9x9", 3, 1, 1, 9, 9, 8, 8},
                                           Landing{"pictureSized", 7, 3, 3, 7, 5, 6, 4},
                                           Landing{"widerThanWidth5", 9, 4, 4, 5, 12, 4, 11},
                                           Landing{"widerThanWidth4", 9, 4, 4, 4, 12, 0, 11},
                                           Landing{"widthOne", 3, 1, 1, 1, 6, 0, 5}),
                         [](const auto& info) { return std::string(info.param.name); });

TEST_F(PsfSpectrum, OnePixelPsfHasUnitGainEverywhere) {
  set_picture(6, 5);
  engine->psf.assign(1, 1, 1, 1, 1.0f);
  engine->calculate_fft_of_psf();
  const CImgList<float>& H = engine->psf_fft;
  for (size_t k = 0; k < H[0].size(); ++k) EXPECT_NEAR(std::hypot(H[0][k], H[1][k]), 1, 1e-6);
  EXPECT_GT(H[1].get_abs().max(), 0.5f) << "the spectrum must keep the offset's phase";
}

TEST_F(PsfSpectrum, ACutPsfIsRenormalisedToUnitGain) {
  set_picture(4, 12);
  engine->psf.assign(9, 9, 1, 1, 1.0f / 81);  // only 4 of its 9 columns fit
  engine->calculate_fft_of_psf();
  EXPECT_NEAR(engine->psf_fft[0](0, 0), 1, 1e-6);
  EXPECT_NEAR(engine->psf_fft[1](0, 0), 0, 1e-6);
}

// |Dx|^2 = 4 sin^2(pi u / W), |Dy|^2 = 4 sin^2(pi v / H).
class DerivativeSpectra : public EngineTest, public ::testing::WithParamInterface<std::pair<int, int>> {};

TEST_P(DerivativeSpectra, MatchTheClosedForm) {
  const auto [W, H] = GetParam();
  set_picture(W, H);
  engine->psf.assign(3, 3, 1, 1, 0);
  engine->psf(1, 1) = 1;
  CImg<float> picture(W, H, 1, 1, 0.5f);
  engine->taper_and_gradient_master(picture);
  for (int v = 0; v < H; ++v)
    for (int u = 0; u < W; ++u) {
      const double dx = 4 * std::pow(std::sin(M_PI * u / W), 2), dy = 4 * std::pow(std::sin(M_PI * v / H), 2);
      EXPECT_NEAR(engine->fidelity_spectrum(u, v), 50 + 25 * dx + 25 * dy, 1e-4) << u << "," << v;
      EXPECT_NEAR(engine->smoothness_spectrum(u, v), dx + dy, 1e-5) << u << "," << v;
    }
  if (W % 2 == 0 && H % 2 == 0) {
    EXPECT_NEAR(engine->fidelity_spectrum(W / 2, H / 2), 250, 1e-4);
    EXPECT_NEAR(engine->smoothness_spectrum(W / 2, H / 2), 8, 1e-5);
  }
  EXPECT_EQ(engine->fidelity_spectrum(0, 0), 50);
  EXPECT_EQ(engine->smoothness_spectrum(0, 0), 0);
  EXPECT_TRUE(engine->grad_x_power.is_empty());
  EXPECT_TRUE(engine->grad_y_power.is_empty());
}

INSTANTIATE_TEST_SUITE_P(Sizes, DerivativeSpectra,
                         ::testing::Values(std::pair{8, 6}, std::pair{7, 9}, std::pair{2, 2}, std::pair{31, 17}));

TEST(GradientKernel, UnknownTypesThrow187) {
  CImg<float> kernel;
  for (const int type : {8, -1}) {
    try {
      CDeconv::gradient_kernel(kernel, (CDeconv::GradTypes)type);
      ADD_FAILURE() << "type " << type << " accepted";
    } catch (int code) {
      EXPECT_EQ(code, 187);
    }
  }
  CDeconv::gradient_kernel(kernel, CDeconv::GRAD_LAPLACIAN);
  EXPECT_EQ(kernel.sum(), 0);
  EXPECT_EQ(kernel(1, 1), 4);
}

class EdgeTaper : public EngineTest {
 protected:
  // With a zero spectrum the blurred copy is 0, so a plane of ones comes out
  // holding the blend's weights.
  CImg<float> weights(int W, int H, int t) {
    set_picture(W, H);
    engine->psf_fft.assign(2, W, H, 1, 1, 0.0f);
    sem_post(engine->psf_fft_done);
    CImg<float> plane(W, H, 1, 1, 1.0f);
    engine->taper_edges(plane, t, false);
    return plane;
  }
};

TEST_F(EdgeTaper, WeightsRiseAlongTheBandAndStopAtItsEnd) {
  const CImg<float> t5 = weights(24, 20, 5);
  const float ramp5[] = {0.263539f, 0.375915f, 0.5f, 0.624085f, 0.736461f, 1.0f};
  for (int d = 0; d < 6; ++d) {
    EXPECT_NEAR(t5(d, 10), ramp5[d], 1e-6) << "near side, d = " << d;
    EXPECT_NEAR(t5(23 - d, 10), ramp5[d], 1e-6) << "far side, d = " << d;
    EXPECT_NEAR(t5(12, d), ramp5[d], 1e-6) << "top, d = " << d;
    EXPECT_NEAR(t5(12, 19 - d), ramp5[d], 1e-6) << "bottom, d = " << d;
  }
  EXPECT_EQ(t5(1, 0), t5(12, 0));  // corners take the smaller weight, not the product
  EXPECT_EQ(t5(12, 10), 1.0f);
}

TEST_F(EdgeTaper, NarrowAndWideBands) {
  const CImg<float> t3 = weights(10, 10, 3);
  EXPECT_NEAR(t3(0, 5), 0.341545f, 1e-6);
  EXPECT_NEAR(t3(1, 5), 0.5f, 1e-6);
  EXPECT_NEAR(t3(2, 5), 0.658455f, 1e-6);
  EXPECT_EQ(t3(3, 5), 1.0f);
  remove_semaphores();
  engine = std::make_unique<CDeconv>(1, 10);
  const CImg<float> t31 = weights(70, 64, 31);
  EXPECT_NEAR(t31(0, 32), 0.028225f, 1e-6);
  EXPECT_NEAR(t31(30, 32), 0.971775f, 1e-6);
}

TEST_F(EdgeTaper, NoBandLeavesThePlaneAlone) {
  EXPECT_EQ(weights(9, 9, 0), CImg<float>(9, 9, 1, 1, 1.0f));
}

TEST_F(EdgeTaper, AConstantPlaneStaysConstantOnBothPaths) {
  set_picture(40, 30);
  engine->psf.assign(5, 5, 1, 1, 1.0f / 25);
  engine->calculate_fft_of_psf();
  for (const bool gaussian : {false, true}) {
    CImg<float> plane(40, 30, 1, 1, 0.7f);
    engine->taper_edges(plane, 7, gaussian);
    for (float v : plane) ASSERT_NEAR(v, 0.7f, 1e-5) << (gaussian ? "gaussian" : "psf");
  }
}

TEST_F(EdgeTaper, AWidthBetweenOneAndTwoBandsNeverEnds) {
  // Deliberate: nothing compares the picture with the PSF. The walk is shown
  // looping in a child process, which an alarm ends.
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  engine.reset();
  EXPECT_EXIT(
      {
        CDeconv child(1, 10);
        child.width = 7;
        child.height = 20;
        child.psf_fft.assign(2, 7, 20, 1, 1, 0.0f);
        sem_post(child.psf_fft_done);
        CImg<float> plane(7, 20, 1, 1, 1.0f);
        alarm(2);
        child.taper_edges(plane, 5, false);
        std::exit(0);
      },
      ::testing::KilledBySignal(SIGALRM), "");
  remove_semaphores();
}

class ChannelSolve : public EngineTest {
 protected:
  // Spectra of the given constants, and a phase-only H of an impulse at (hx, 0).
  void set_spectra(int W, int H, float s, float n, int hx, int strength) {
    set_picture(W, H);
    engine->reg_strength = strength;
    engine->fidelity_spectrum.assign(W, H, 1, 1, s);
    engine->smoothness_spectrum.assign(W, H, 1, 1, n);
    CImg<float> impulse(W, H, 1, 1, 0);
    impulse(hx, 0) = 1;
    engine->psf_fft = forward_spectrum(impulse, nullptr);
  }
  CImg<float> ramp(int W, int H) {
    CImg<float> img(W, H);
    cimg_forXY(img, x, y) img(x, y) = 0.1f * x + 0.01f * y;
    return img;
  }
};

TEST_F(ChannelSolve, UndoesAShiftByTheConjugate) {
  set_spectra(8, 6, 50, 0, 1, 0);  // H moves the picture by +1 in x
  CImg<float> input = ramp(8, 6), output(8, 6);
  engine->deconv_channel(input, output);
  cimg_forXY(output, x, y) EXPECT_NEAR(output(x, y), input((x + 1) % 8, y), 1e-5);
  EXPECT_EQ(input, ramp(8, 6)) << "the input plane is only read";
}

TEST_F(ChannelSolve, RegularisationDampsByLambdaTimesN) {
  set_spectra(8, 6, 50, 8, 0, 25);  // lambda 2.5: X = 50 Y / (50 + 20)
  CImg<float> input = ramp(8, 6), output(8, 6);
  engine->deconv_channel(input, output);
  cimg_forXY(output, x, y) EXPECT_NEAR(output(x, y), input(x, y) * 50 / 70, 1e-5);
}

TEST_F(ChannelSolve, ZeroSpectraGiveZeroNotNaN) {
  set_spectra(5, 4, 50, 0, 0, 0);
  engine->psf_fft[0].fill(0);
  CImg<float> input = ramp(5, 4), output(5, 4);
  engine->deconv_channel(input, output);
  for (float v : output) EXPECT_EQ(v, 0.0f);
}

}  // namespace
