// The library's refusals and repairs of what it is given: samples that are
// not finite, a PSF larger than the picture or standing on a background,
// blurs draw_psf cannot draw, pictures choose_strength cannot judge.
#include <gmock/gmock.h>

#include <cmath>
#include <random>

#include "tests/library_support.h"

namespace {

using ::testing::HasSubstr;

deconv::Image photo(int w, int h, int channels = 1) {
  return testdata_crop(channels == 1 ? "camera.png" : "astronaut.png", 120, 80, w, h, channels == 1);
}

double largest_difference(const deconv::Image& a, const deconv::Image& b, int border) {
  return (as_cimg(a) - as_cimg(b)).crop(border, border, a.width - 1 - border, a.height - 1 - border).abs().max();
}

deconv::RestoreOptions fixed_strength() {
  deconv::RestoreOptions options;
  options.strength = 10, options.workers = 1;
  return options;
}

// Refused with their count and the first one's place; repaired, the result is
// finite and, away from the repaired samples, what the whole picture gives.
// A neighbour's median is within a few grey levels of a lone sample on this
// photograph, and the restoration spreads the difference over its PSF: 0.01
// or less here, where a sample set to 0 in place of its neighbours' median
// moves the result by 0.07. A hole of five in a textured part moves it by 0.13.
TEST(Library, NonFiniteSamplesAreRefusedOrRepaired) {
  const struct {
    int channels;
    std::vector<std::array<int, 3>> places;  // x, y, channel
    float value;
    const char* first;
    double tolerance;  // of the repaired restoration against the clean one
  } cases[] = {{1, {{40, 30, 0}}, NAN, "x 40, y 30, channel 0", 0.02},
               {1, {{0, 0, 0}, {95, 79, 0}}, INFINITY, "x 0, y 0, channel 0", 0.02},
               {3, {{50, 40, 1}, {51, 40, 1}, {50, 41, 1}, {51, 41, 1}, {52, 42, 1}}, -INFINITY, "x 50, y 40, channel 1", 0.2},
               {3, {{10, 5, 2}, {70, 60, 1}}, NAN, "x 70, y 60, channel 1", 0.02}};  // the first in channel order
  for (const auto& p : cases) {
    SCOPED_TRACE(p.first);
    const deconv::Image clean = photo(96, 80, p.channels), psf = deconv::draw_psf("gaussian:1.5");
    deconv::Image holed = clean;
    for (const auto& [x, y, c] : p.places) holed.at(x, y, c) = p.value;
    EXPECT_THAT(thrown<deconv::Error>([&] { deconv::restore(holed, psf, fixed_strength()); }),
                HasSubstr(std::to_string(p.places.size()) +
                          " samples that are not finite (NaN or infinite), the first at " + p.first));
    EXPECT_THAT(thrown<deconv::Error>([&] { deconv::choose_strength(holed, psf); }), HasSubstr("not finite"));
    deconv::RestoreOptions options = fixed_strength();
    options.repair_nonfinite = true;
    std::vector<std::string> notices;
    options.notice = [&](const std::string& m) { notices.push_back(m); };
    const deconv::Image repaired = deconv::restore(holed, psf, options);
    EXPECT_TRUE(std::all_of(repaired.pixels.begin(), repaired.pixels.end(), [](float v) { return std::isfinite(v); }));
    EXPECT_THAT(notices, testing::ElementsAre(HasSubstr("replaced " + std::to_string(p.places.size()))));
    EXPECT_LT(largest_difference(repaired, deconv::restore(clean, psf, fixed_strength()), 8), p.tolerance);
  }
}

TEST(Library, AChannelWithNothingFiniteCannotBeRepaired) {
  deconv::Image all_nan(64, 64, 1);
  for (float& v : all_nan.pixels) v = NAN;
  deconv::RestoreOptions options = fixed_strength();
  options.repair_nonfinite = true;
  EXPECT_THAT(thrown<deconv::Error>([&] { deconv::restore(all_nan, deconv::draw_psf("disk:2"), options); }),
              HasSubstr("no finite sample"));
  EXPECT_THAT(thrown<deconv::Error>([&] { deconv::choose_strength(all_nan, deconv::draw_psf("disk:2")); }),
              HasSubstr("4096 samples that are not finite"));
}

// A PSF that does not fit the picture in either dimension is refused by
// restore and choose_strength; one that just fits is restored.
TEST(Library, APsfLargerThanThePictureIsRefused) {
  const struct {
    int picture_w, picture_h;
    const char* psf;  // drawn 2 wider and higher
  } cases[] = {{300, 200, "box:301,301"}, {200, 300, "box:203,3"}, {300, 200, "box:3,201"}, {203, 203, "box:201,201"}};
  for (const auto& c : cases) {
    const deconv::Image picture = photo(c.picture_w, c.picture_h), psf = deconv::draw_psf(c.psf);
    const bool fits = c.picture_w == 203;
    EXPECT_THAT(thrown<deconv::Error>([&] { deconv::restore(picture, psf, fixed_strength()); }),
                HasSubstr(fits ? "nothing thrown" : "is larger than the picture (" + std::to_string(c.picture_w) +
                                                        " x " + std::to_string(c.picture_h) + ")"))
        << c.psf;
    EXPECT_THAT(thrown<deconv::Error>([&] { deconv::choose_strength(picture, psf); }),
                HasSubstr(fits ? "" : "larger than the picture"));
  }
}

// A star cut with its sky is refused, or restored once the border's median is
// taken off as well as the clean star restores; PSFs whose border is their
// own blur (a box filling its picture, an even box's half-covered edge, a
// Gaussian in a wide margin) are taken.
TEST(Library, APsfOnABackgroundIsRefusedOrSubtracted) {
  const deconv::Image star = deconv::draw_psf("gaussian:2"), sharp = photo(160, 160);
  deconv::Image full_box(5, 5, 1);
  for (float& v : full_box.pixels) v = 1;
  // Skies of 0.02 and 0.002 (in a wide cut) stand out; 0.0005 in a small cut does not.
  const std::pair<deconv::Image, bool> cases[] = {
      {framed(star, 31, 0.02f), true},  {framed(star, 63, 0.002f), true},     {framed(star, 15, 0.0005f), false},
      {framed(star, 41, 0), false},     {full_box, false},                    {deconv::draw_psf("box:6,6"), false},
      {deconv::draw_psf("disk:4"), false}, {deconv::draw_psf("motion:15,45"), false}};
  for (size_t i = 0; i < std::size(cases); ++i) {
    const std::string said = thrown<deconv::Error>([&] { deconv::restore(sharp, cases[i].first, fixed_strength()); });
    EXPECT_EQ(said.find("stands on a background") != std::string::npos, cases[i].second) << i << ": " << said;
  }
  deconv::RestoreOptions options = fixed_strength();
  options.subtract_psf_background = true;
  int notices = 0;
  options.notice = [&](const std::string&) { ++notices; };
  const deconv::Image subtracted = deconv::restore(sharp, framed(star, 31, 0.02f), options);
  EXPECT_EQ(notices, 1);
  // What is left of the sky is the noise-free 0.02 taken off exactly, where
  // the star's own taps were above it.
  EXPECT_LT(largest_difference(subtracted, deconv::restore(sharp, framed(star, 31, 0), fixed_strength()), 20), 0.02);
}

// draw_psf refuses what it cannot draw as the blur: wider than 2001 pixels
// (however far beyond int's range) or too small to leave a tap.
TEST(Library, DrawPsfRefusesWhatItCannotDraw) {
  for (const auto& [description, refusal] : {std::pair{"gaussian:1e9", "wider than 2001"}, {"gaussian:333.4", "wider than 2001"},
                                             {"motion:1e300,0", "wider than 2001"}, {"disk:1001", "wider than 2001"},
                                             {"disk:1e-300", "too small to draw"}, {"box:1e-30,1e-30", "too small to draw"}})
    EXPECT_THAT(thrown<deconv::Error>([d = description] { deconv::draw_psf(d); }), HasSubstr(refusal)) << description;
  for (const auto& [description, side] : {std::pair{"gaussian:333.3", 2001}, {"box:2000,1", 2001}, {"gaussian:1e-30", 3}}) {
    const deconv::Image psf = deconv::draw_psf(description);
    EXPECT_TRUE(psf.width == side && *std::max_element(psf.pixels.begin(), psf.pixels.end()) == 1.0f) << description;
  }
}

// A picture without any variation gives the choice nothing to weigh.
TEST(Library, ChooseStrengthRefusesAFlatPicture) {
  deconv::Image flat(64, 64, 3);
  for (float& v : flat.pixels) v = 0.5f;
  EXPECT_THAT(thrown<deconv::Error>([&] { deconv::choose_strength(flat, deconv::draw_psf("disk:2")); }),
              HasSubstr("the picture is flat"));
  // restore() gives it back as it is, at a strength of its own.
  const deconv::Image same = deconv::restore(flat, deconv::draw_psf("disk:2"));
  EXPECT_TRUE(std::all_of(same.pixels.begin(), same.pixels.end(), [](float v) { return std::fabs(v - 0.5f) < 1e-5f; }));
  flat.at(3, 4, 2) = 0.6f;
  const int chosen = deconv::choose_strength(flat, deconv::draw_psf("disk:2"));
  EXPECT_TRUE(chosen >= 1 && chosen <= 200) << chosen;
}

// An estimated PSF restores at four times the strength chosen for it, at
// most 200 (a noisy picture's choice is above 50).
TEST(Library, AnEstimatedPsfRaisesTheChosenStrength) {
  const deconv::Image psf = deconv::draw_psf("motion:7,30");
  CImg<float> kernel = as_cimg(psf);
  const deconv::Image clean = estimate_eval::to_image(as_cimg(photo(96, 96)).get_convolve(kernel / kernel.sum()), 1);
  deconv::Image noisy = clean;
  std::mt19937 rng(3);
  std::normal_distribution<float> grain(0, 0.08f);
  for (float& v : noisy.pixels) v += grain(rng);
  deconv::RestoreOptions estimated, at;
  estimated.workers = at.workers = 1;
  estimated.estimated_psf = true;
  for (const auto& [picture, raised] : {std::pair(clean, false), std::pair(noisy, true)}) {
    const int chosen = deconv::choose_strength(picture, psf);
    EXPECT_EQ(4 * chosen > 200, raised) << chosen;
    at.strength = std::min(200, 4 * chosen);
    EXPECT_EQ(largest_difference(deconv::restore(picture, psf, estimated), deconv::restore(picture, psf, at), 0), 0);
  }
}

}  // namespace
