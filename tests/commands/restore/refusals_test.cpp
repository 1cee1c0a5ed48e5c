// deconv-restore's refusals and repairs, the PSF it keeps, its warning of a
// result no sharper than its picture: one line each, naming the file.
#include <gmock/gmock.h>

#include <cmath>

#include "picture/picture_file.h"
#include "tests/library_support.h"

namespace {

using ::testing::HasSubstr;

deconv::Image camera(int w, int h) { return testdata_crop("camera.png", 100, 60, w, h, true); }

class Refusals : public ::testing::Test {
 protected:
  void SetUp() override {
    deconv::Image holed = camera(120, 100);
    holed.at(30, 20) = NAN;
    write_picture(dir / "holed.exr", holed, SampleDepth::f32);
    write_picture(dir / "sharp.png", camera(160, 160), SampleDepth::u8);
    write_picture(dir / "blurred.png", blurred(camera(200, 200), deconv::draw_psf("gaussian:2"), 3), SampleDepth::u8);
    write_picture(dir / "star.exr", framed(deconv::draw_psf("gaussian:2"), 31, 0.02f), SampleDepth::f32);
  }
  std::pair<int, std::string> run(const std::string& args) const {
    return shell("cd '" + dir.path + "' && " DECONV_RESTORE_BINARY " " + args + " </dev/null");
  }
  bool written(const std::string& name) const { return std::ifstream(dir / name).good(); }
  TempDir dir;
};

// The library's refusals (checks_test's) through the command: of a picture, of a PSF file, of a strength.
TEST_F(Refusals, OneLineNamingTheFileAndNothingWritten) {
  for (const auto& [args, says] : {
           std::pair{"--psf disk:2 --save-psf kept.png holed.exr out.exr",
                     "holed.exr: cannot restore: the picture holds 1 samples that are not finite (NaN or infinite), "
                     "the first at x 30, y 20, channel 0"},
           {"--psf star.exr sharp.png out.png", "sharp.png: cannot restore: the PSF stands on a background"},
           {"--psf disk:2 --strength auto holed.exr out.exr", "holed.exr: cannot restore: the picture holds 1"}}) {
    const auto [status, text] = run(args);
    EXPECT_EQ(status, 11) << args;
    EXPECT_EQ(text.rfind("deconv-restore: " + std::string(says), 0), 0u) << args << ": " << text;
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 1) << args << ": " << text;
    EXPECT_FALSE(written("out.exr") || written("out.png") || written("kept.png")) << args;
  }
}

// Repaired on request: written, finite, with one warning line saying what was done.
TEST_F(Refusals, RepairsOnRequestWithAWarning) {
  for (const auto& [args, warns] : {
           std::pair{"--repair-nonfinite --psf disk:2 holed.exr out.exr",
                     "holed.exr: replaced 1 samples that are not finite (NaN or infinite)"},
           {"--subtract-psf-background --psf star.exr --depth float sharp.png out.exr",
            "sharp.png: took the PSF's background (0.0196 of its peak) off its taps"}}) {
    const auto [status, text] = run(args);
    EXPECT_EQ(status, 0) << args << ": " << text;
    EXPECT_EQ(text.rfind("deconv-restore: warning: " + std::string(warns), 0), 0u) << args << ": " << text;
    const deconv::Image out = read_picture(dir / "out.exr").image;
    EXPECT_TRUE(std::all_of(out.pixels.begin(), out.pixels.end(), [](float v) { return std::isfinite(v); })) << args;
    std::remove((dir / "out.exr").c_str());
  }
}

// --save-psf keeps the PSF used, drawn or estimated, its largest tap white in 16 bits.
TEST_F(Refusals, SavePsfKeepsThePsfUsed) {
  ASSERT_EQ(run("--psf gaussian:2 --save-psf kept.png blurred.png out.png").first, 0);
  const deconv::Image drawn = deconv::draw_psf("gaussian:2"), kept = read_picture(dir / "kept.png").image;
  ASSERT_EQ(kept.width, drawn.width);
  // 16-bit files are written truncated, as deconv writes: within one step.
  for (size_t i = 0; i < drawn.pixels.size(); ++i) EXPECT_NEAR(kept.pixels[i], drawn.pixels[i], 1.0 / 65535) << i;

  const auto [status, text] = run("--psf auto --quiet --save-psf estimated.png blurred.png out.png");
  ASSERT_EQ(status, 0) << text;
  const deconv::Image estimated = deconv::estimate_psf(read_picture(dir / "blurred.png").image).psf;
  const deconv::Image saved = read_picture(dir / "estimated.png").image;
  ASSERT_EQ(saved.width, estimated.width);
  for (size_t i = 0; i < estimated.pixels.size(); ++i) EXPECT_NEAR(saved.pixels[i], estimated.pixels[i], 1.0 / 65535);
}

// A result with the picture's gradients (a blur far smaller than the picture's,
// the strongest regularisation) is written with a warning; one that undoes the blur is silent.
TEST_F(Refusals, WarnsOfAResultNoSharperThanItsPicture) {
  const auto [status, text] = run("--psf gaussian:0.3 --strength 200 sharp.png out.png");
  EXPECT_EQ(status, 0);
  EXPECT_THAT(text, ::testing::MatchesRegex("deconv-restore: warning: sharp.png: the result is no sharper than the "
                                            "picture \\(its gradients' energy x0\\.[0-9]+\\)\n"));
  EXPECT_TRUE(written("out.png"));
  EXPECT_EQ(run("--psf gaussian:2 --strength 10 blurred.png out.png"), std::make_pair(0, std::string()));
}

// The estimation's progress on stderr with --progress, nothing when stderr is not a terminal.
TEST_F(Refusals, ProgressOnlyWhenAsked) {
  const auto [status, text] = run("--psf auto --progress blurred.png out.png");
  EXPECT_EQ(status, 0);
  EXPECT_THAT(text, HasSubstr("deconv-restore: blurred.png: estimating the blur: coarse to fine at scale 1\n"));
  EXPECT_THAT(text, HasSubstr("deconv-restore: blurred.png: estimating the blur: refining at scale 1\n"));
  EXPECT_EQ(run("--psf auto blurred.png out.png"), std::make_pair(0, std::string()));
}

}  // namespace
