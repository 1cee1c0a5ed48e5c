// The widefield PSF: its widths against the textbook ones, its symmetry and
// its light, the numbers it refuses, and the stack deconv-psf writes.
#include "psf/widefield.h"

#include <cmath>

#include "picture/picture_file.h"
#include "psf/named.h"
#include "tests/support.h"

namespace {

// The full width at half maximum of a profile through its largest sample,
// in samples, each half-maximum crossing placed by linear interpolation.
double fwhm(const std::vector<double>& profile) {
  const size_t top = std::max_element(profile.begin(), profile.end()) - profile.begin();
  const double half = profile[top] / 2;
  size_t right = top, left = top;
  while (right + 1 < profile.size() && profile[right + 1] > half) ++right;
  while (left > 0 && profile[left - 1] > half) --left;
  if (right + 1 == profile.size() || left == 0) return NAN;  // the profile never falls to half
  const double r = right + (profile[right] - half) / (profile[right] - profile[right + 1]);
  const double l = left - (profile[left] - half) / (profile[left] - profile[left - 1]);
  return r - l;
}

CImg<float> widefield(const std::string& numbers) {
  std::vector<std::string> words;
  std::istringstream in(numbers);
  for (std::string word; in >> word;) words.push_back(word);
  return draw_named_psf("widefield", words);
}

struct Setting {
  const char* name;
  double na, wavelength, index, pixel, z_step;
  int planes;
};

void PrintTo(const Setting& s, std::ostream* out) { *out << s.name; }

class Widefield : public testing::TestWithParam<Setting> {};

// The focal plane is the Airy pattern exactly (FWHM 0.514 lambda / NA),
// within 1 % on samples ten times finer. Along the axis the textbook 0.88
// lambda / (n - sqrt(n^2 - NA^2)) holds for a pupil lit evenly in cos(theta);
// the integral weighs it evenly in rho^2, so the width comes out up to 6 %
// wider as the aperture angle grows, never narrower (paraxial optics would be
// 20 to 45 % wider). At the default depth, an odd cube but for its depth,
// the focus on its middle voxel, mirror-symmetric about each axis (a plane
// off by one, a phase of the wrong parity or a radius from the corner breaks
// one of these); every plane passes the focal plane's light within 4 %, and
// the axis falls below a tenth of the peak before the outermost planes.
TEST_P(Widefield, WidthsAreTheTextbookOnesAndThePsfIsSymmetric) {
  const Setting s = GetParam();
  const auto draw = [&](double scale, const std::string& planes) {
    return widefield(std::to_string(s.na) + " " + std::to_string(s.wavelength) + " " + std::to_string(s.index) + " " +
                     std::to_string(s.pixel * scale) + " " + std::to_string(s.z_step * scale) + planes);
  };
  const CImg<float> p = draw(1, " " + std::to_string(s.planes)), q = draw(4, "");
  ASSERT_EQ(p.depth(), s.planes);
  const int mid = p.width() / 2, focus = p.depth() / 2;
  std::vector<double> across, along;
  for (int x = 0; x < p.width(); ++x) across.push_back(p(x, mid, focus));
  for (int z = 0; z < p.depth(); ++z) along.push_back(p(mid, mid, z));
  EXPECT_NEAR(fwhm(across) * s.pixel / (0.514 * s.wavelength / s.na), 1, 0.01) << s.name;
  const double axial = 0.88 * s.wavelength / (s.index - std::sqrt(s.index * s.index - s.na * s.na));
  EXPECT_NEAR(fwhm(along) * s.z_step / axial, 1.03, 0.03) << s.name;

  EXPECT_TRUE(q.width() == q.height() && q.width() % 2 == 1 && q.depth() % 2 == 1 && q.depth() > 1) << s.name;
  EXPECT_TRUE(q.max() == 1 && q(q.width() / 2, q.height() / 2, q.depth() / 2) == 1 && q.min() >= 0) << s.name;
  for (const char* axis : {"x", "y", "z"}) EXPECT_LT((q - q.get_mirror(axis)).abs().max(), 1e-6) << axis;
  const double focal = q.get_shared_slice(q.depth() / 2).sum();
  for (int z = 0; z < q.depth(); ++z) EXPECT_NEAR(q.get_shared_slice(z).sum() / focal, 1, 0.04) << s.name << " " << z;
  EXPECT_LT(q(q.width() / 2, q.height() / 2, 0), 0.1) << s.name;
}

INSTANTIATE_TEST_SUITE_P(Objectives, Widefield,
                         testing::Values(Setting{"oil_1_4", 1.4, 520, 1.515, 20, 40, 41},
                                         Setting{"water_1_2", 1.2, 600, 1.333, 25, 50, 61},
                                         Setting{"air_0_75", 0.75, 510, 1.0, 30, 100, 61}),
                         [](const auto& info) { return std::string(info.param.name); });

// A sample whose index differs from the immersion's (Gibson & Lanni's
// aberration, the stack centred on its brightest point): a mismatch of a
// millionth is none at any depth; oil into water 10 um deep stretches the
// axial width over one and a half times and leans it off symmetry about focus.
TEST(WidefieldMismatch, DeepInWaterUnderOilTheAxisStretchesAndLeansAndNoMismatchChangesNothing) {
  const CImg<float> matched = widefield("1.4 520 1.515 40 80 41");
  const CImg<float> barely = widefield("1.4 520 1.515 40 80 41 1.515001 5000");
  ASSERT_TRUE(barely.width() == matched.width() && barely.depth() == matched.depth());
  EXPECT_LT((barely - matched).abs().max(), 2e-3);

  const CImg<float> water = widefield("1.4 520 1.515 40 80 41 1.33 10000");
  const int mid = water.width() / 2;
  EXPECT_EQ(water(mid, mid, water.depth() / 2), 1);
  std::vector<double> along, matched_along;
  for (int z = 0; z < water.depth(); ++z)
    along.push_back(water(mid, mid, z)), matched_along.push_back(matched(mid, mid, z));
  EXPECT_GT(fwhm(along) / fwhm(matched_along), 1.5);
  EXPECT_GT((water - water.get_mirror("z")).abs().max(), 0.05);
  EXPECT_LT((water - water.get_mirror("x")).abs().max(), 1e-6);
}

TEST(WidefieldRefusals, ImpossibleNumbersAreRefusedInOneLine) {
  const struct {
    const char* numbers;
    const char* reason;
  } cases[] = {
      {"1.4 520 1.515 100", "widefield takes NA WAVELENGTH INDEX PIXEL ZSTEP [PLANES [SAMPLE_INDEX DEPTH]]"},
      {"1.4 520 1.515 100 200 11 1.33", "widefield takes NA WAVELENGTH INDEX PIXEL ZSTEP [PLANES [SAMPLE_INDEX"},
      {"1.33 520 1.33 100 200", "the numerical aperture must be below the immersion's refractive index"},
      {"0 520 1.33 100 200", "'0' is not a numerical aperture above 0"},
      {"1.2 -520 1.33 100 200", "'-520' is not a wavelength in nm above 0"},
      {"0.5 520 0.9 100 200", "a refractive index must be from 1 to 3"},
      {"1.2 520 1.33 100 200 0 1e6 1000", "a refractive index must be from 1 to 3"},
      {"1.2 520 1.33 100 200 0 1.45 -1", "'-1' is not a depth in nm (0 or more)"},
      {"1.2 520 1.33 100 200 0 1.45 2e5", "DEPTH is more than 200 wavelengths"},
      {"1.2 520 1.33 100 nan", "'nan' is not a z step in nm above 0"},
      {"1.2 520 1.33 100 200 -1", "'-1' is not a number of planes (0 chooses)"},
      {"1.2 520 1.33 100 200 10", "PLANES must be odd and whole"},
      {"1.2 520 1.33 100 200 10.5", "PLANES must be odd and whole"},
      {"1.2 520 1.33 0.01 200 11", "wider than 2001 pixels"},
      {"1.2 520 1.33 100 200 2003", "deeper than 2001 planes"},
      {"1.2 520 1.33 100 1e-300", "deeper than 2001 planes"},
      {"1.2 520 1.33 5 200 101", "more than 67108864 samples"},
      {"1.2 520 1.33 100 1e9 3", "would take too long to draw"},
      {"1.2 520 1.33 1e7 1000 2001", "would take too long to draw"},
  };
  for (const auto& c : cases) {
    const std::string message = thrown<std::invalid_argument>([&] { widefield(c.numbers); });
    EXPECT_NE(message.find(c.reason), std::string::npos) << c.numbers << ": " << message;
    EXPECT_EQ(message.find('\n'), std::string::npos) << message;
  }
}

// deconv-psf writes 16-bit TIFF pages that read back as the planes drawn; a format of one plane is refused.
TEST(WidefieldCommand, WritesA16BitStackThatReadsBackAsItsPlanes) {
  TempDir dir;
  const std::string command = "cd " + dir.path + " && " DECONV_PSF_BINARY " widefield 1.2 520 1.33 100 200 ";
  ASSERT_EQ(std::system((command + "psf.tif").c_str()), 0);
  const PictureFile file = read_picture(dir / "psf.tif", SampleScale::raw);
  const CImg<float> drawn = widefield("1.2 520 1.33 100 200");
  ASSERT_TRUE(file.image.width == drawn.width() && file.image.height == drawn.height() && file.image.depth == drawn.depth() &&
              file.image.channels == 1);
  EXPECT_EQ(file.depth, SampleDepth::u16);
  double worst = 0;
  cimg_forXYZ(drawn, x, y, z) worst = std::max(worst, std::abs(file.image.at(x, y, z, 0) / 65535.0 - drawn(x, y, z)));
  EXPECT_LT(worst, 1.0 / 65535);  // rounded to 16 bits, no more
  const auto [status, err] = shell(command + "psf.png");
  EXPECT_EQ(status, 11) << err;
  EXPECT_NE(err.find("TIFF"), std::string::npos) << err;
}

}  // namespace
