// deconv-psf: the shape of each kind, measured back from the saved pictures.
#include <cctype>
#include <cmath>
#include <regex>

#include "psf/kernels.h"
#include "tests/support.h"
#include "tool/image_io.h"

namespace {

// Sum, centroid and second central moments of a PSF picture.
struct Moments {
  double sum = 0, x = 0, y = 0, xx = 0, yy = 0, xy = 0;
  explicit Moments(const CImg<float>& p) {
    cimg_forXY(p, i, j) sum += p(i, j), x += i * p(i, j), y += j * p(i, j);
    x /= sum, y /= sum;
    cimg_forXY(p, i, j) xx += p(i, j) * (i - x) * (i - x), yy += p(i, j) * (j - y) * (j - y),
        xy += p(i, j) * (i - x) * (j - y);
    xx /= sum, yy /= sum, xy /= sum;
  }
};

// Draws with the command, reads the picture back.
CImg<float> drawn(const TempDir& dir, const std::string& args) {
  EXPECT_EQ(std::system(("cd " + dir.path + " && " DECONV_PSF_BINARY " " + args + " psf.png").c_str()), 0) << args;
  return load(dir / "psf.png");
}

TEST(DeconvPsf, EveryKindIsCentredOddAndAsSymmetricAsItsShape) {
  // Each point-symmetric, some also mirror-symmetric about both axes.
  for (const auto& [p, mirrored] : {std::pair{gaussian_psf(1.7), true}, {disk_psf(4.3), true}, {box_psf(4, 7), true},
                                    {box_psf(2.5, 1), true}, {motion_psf(9, 30), false}, {motion_psf(12, 90), true},
                                    {motion_psf(7.5, 0), true}, {motion_psf(20, 135), false}}) {
    EXPECT_TRUE(p.width() == p.height() && p.width() % 2 == 1 && p.min() >= 0 && p.max() == 1) << p.width();
    for (const char* axis : {"x", "y", "xy"})
      EXPECT_TRUE((!mirrored && !axis[1]) || (p - p.get_mirror(axis)).abs().max() < 1e-5) << axis;
    // The first moment at the middle pixel, where deconv takes the origin.
    const Moments m(p);
    EXPECT_NEAR(m.x, p.width() / 2, 1e-4);
    EXPECT_NEAR(m.y, p.height() / 2, 1e-4);
  }
}

TEST(DeconvPsf, MotionLengthAndAngleComeBackFromTheSecondMoments) {
  TempDir dir;
  for (const auto& [length, degrees] : {std::pair{5.0, 0.0}, {9.0, 30.0}, {12.0, 45.0}, {15.0, 73.0}, {21.0, 90.0},
                                        {8.0, 135.0}, {25.0, 200.0}, {6.5, -60.0}}) {
    const CImg<float> p = drawn(dir, "motion " + std::to_string(length) + " " + std::to_string(degrees));
    const Moments m(p);
    // An evenly weighted line of length L has variance L^2 / 12 along itself.
    const double major = (m.xx + m.yy) / 2 + std::sqrt((m.xx - m.yy) * (m.xx - m.yy) / 4 + m.xy * m.xy);
    EXPECT_NEAR(std::sqrt(12 * major), length, 0.5) << length << " at " << degrees;
    // The direction as seen: y grows downwards, so counter-clockwise is -y.
    const double seen = std::atan2(-2 * m.xy, m.xx - m.yy) / 2 * 180 / M_PI;
    EXPECT_NEAR(std::remainder(seen - degrees, 180.0), 0, 2) << length << " at " << degrees;
  }
}

TEST(DeconvPsf, DiskRadiusAndGaussianSigmaComeBackAndFilesKeepTheirTaps) {
  TempDir dir;
  for (const double radius : {1.5, 3.0, 4.3, 10.0}) {
    const CImg<float> p = drawn(dir, "disk " + std::to_string(radius));
    EXPECT_NEAR(std::sqrt(p.sum() / p.max() / M_PI), radius, 0.05) << radius;
  }
  for (const double sigma : {0.8, 2.0, 3.5}) {  // cut at 3 sigma: a little narrower
    EXPECT_NEAR(std::sqrt(Moments(gaussian_psf(sigma)).xx) / sigma, 0.98, 0.02) << sigma;
  }
  // Taps too faint for 8 bits make a 16-bit file; the others stay 8-bit.
  EXPECT_EQ(drawn(dir, "gaussian 2").max(), 255);
  EXPECT_EQ(drawn(dir, "motion 12 30").max(), 65535);
  // Bad command lines: one line on stderr, status 1, nothing written.
  for (const char* args : {"", "blob 3", "gaussian 0", "gaussian x2", "disk -1", "motion 12", "box 3", "box 3 1e9",
                           "widefield 1.4 520 1.33 100 200", "widefield 1.2 520 1.33 100 200 4"}) {
    const auto [status, err] = shell("cd " + dir.path + " && " DECONV_PSF_BINARY " " + args + " bad.png");
    EXPECT_EQ(status, 1) << args;
    EXPECT_TRUE(err.rfind("deconv-psf: ", 0) == 0 && std::count(err.begin(), err.end(), '\n') == 1) << err;
    EXPECT_FALSE(std::ifstream(dir / "bad.png").good()) << args;
  }
}

// A file name is a name to deconv-psf and deconv-strength, never a command:
// each is written or read under its own name, and nothing runs.
TEST(DeconvPsf, NamesAreNeverRunByAShell) {
  TempDir dir;
  for (const std::string name : {"a$(touch RAN).png", "b`touch RAN`.png", "c\".png", "d'$(touch RAN)'.png"}) {
    const std::string quoted = "'" + std::regex_replace(name, std::regex("'"), "'\\''") + "'";
    ASSERT_EQ(std::system(("cd " + dir.path + " && " DECONV_PSF_BINARY " disk 3 " + quoted).c_str()), 0) << name;
    EXPECT_TRUE(std::ifstream(dir / name).good()) << name;
    const auto [status, chosen] = shell("cd " + dir.path + " && " DECONV_STRENGTH_BINARY " " + quoted + " " + quoted);
    EXPECT_TRUE(status == 0 && std::isdigit(chosen[0])) << name << ": " << chosen;
  }
  EXPECT_FALSE(std::ifstream(dir / "RAN").good());
}

}  // namespace
