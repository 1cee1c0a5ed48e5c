// The library's two engines: the second agrees with deconv's own to float
// rounding, and gives the same bits for any number of workers and threads.
#include <gmock/gmock.h>

#include <cmath>
#include <thread>

#include "bench/estimate_cases.h"
#include "tests/support.h"

namespace {

deconv::Image photo(const char* name, int x, int y, int w, int h) {
  return estimate_eval::photo_crop(std::string(DECONV_TESTDATA) + "/" + name, x, y, w, h);
}

deconv::Image restored(const deconv::Image& blurred, const deconv::Image& psf, bool exact, bool align,
                       int workers = 2) {
  deconv::RestoreOptions options;
  options.strength = 10, options.workers = workers, options.exact = exact, options.align = align;
  return deconv::restore(blurred, psf, options);
}

// Grey and colour, even, odd and prime sizes, square and oblong PSFs, one
// whose canvas is wider than the picture, aligned or not: at strength 10 on
// 0..1 pictures the engines differ by float rounding only, at most 2e-4
// anywhere and 1e-5 on average. A kernel a pixel off, a taper read from the
// wrong place or a weight dropped from S or N is far beyond that.
TEST(Engines, TheSecondAgreesWithDeconvsOwnToFloatRounding) {
  const struct {
    deconv::Image picture;
    const char* psf;
    bool align;
  } cases[] = {
      {photo("camera.png", 100, 60, 160, 120), "motion:9,30", true},
      {photo("coffee.png", 200, 100, 151, 101), "gaussian:2", false},
      {photo("chelsea.png", 40, 20, 127, 131), "box:7,3", true},
      {photo("astronaut.png", 150, 50, 96, 64), "motion:15,100", false},
      {photo("camera.png", 0, 0, 30, 200), "disk:5", true},  // the canvas is 23 wide, the band 13
  };
  for (const auto& c : cases) {
    const deconv::Image psf = deconv::draw_psf(c.psf);
    const deconv::Image ours = restored(c.picture, psf, false, c.align), theirs = restored(c.picture, psf, true, c.align);
    ASSERT_EQ(ours.pixels.size(), theirs.pixels.size());
    double worst = 0, sum = 0;
    for (size_t i = 0; i < ours.pixels.size(); ++i) {
      const double d = std::fabs((double)ours.pixels[i] - theirs.pixels[i]);
      worst = std::max(worst, d), sum += d;
    }
    EXPECT_LE(worst, 2e-4) << c.psf;
    EXPECT_LE(sum / ours.pixels.size(), 1e-5) << c.psf;
  }
}

// 1, 2 and 8 workers, and four calls at once in threads of their own, give
// the same bits; so does the choice of strength.
TEST(Engines, TheSecondGivesTheSameBitsForAnyWorkers) {
  const deconv::Image picture = photo("coffee.png", 0, 0, 300, 217), psf = deconv::draw_psf("motion:11,60");
  const deconv::Image one = restored(picture, psf, false, true, 1);
  for (const int workers : {2, 8}) EXPECT_EQ(restored(picture, psf, false, true, workers).pixels, one.pixels);
  std::vector<deconv::Image> results(4);
  std::vector<int> strengths(4);
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t)
    threads.emplace_back([&, t] {
      results[t] = restored(picture, psf, false, true, 1 + t);
      strengths[t] = deconv::choose_strength(picture, psf);
    });
  for (std::thread& t : threads) t.join();
  for (int t = 0; t < 4; ++t) {
    EXPECT_EQ(results[t].pixels, one.pixels) << t;
    EXPECT_EQ(strengths[t], strengths[0]) << t;
  }
}

}  // namespace
