// The library's two engines: the second agrees with deconv's own, the same bits for any workers; stacks.
#include <gmock/gmock.h>

#include <cmath>

#include "tests/library_support.h"

namespace {

deconv::Image restored(const deconv::Image& blurred, const deconv::Image& psf, bool exact, bool align,
                       int workers = 2) {
  deconv::RestoreOptions options;
  options.strength = 10, options.workers = workers, options.exact = exact, options.align = align;
  return deconv::restore(blurred, psf, options);
}

// Grey and colour, even, odd and prime sizes, square and oblong PSFs, one
// whose canvas is wider than the picture, aligned or not: the engines differ
// by float rounding only, at most 2e-4 anywhere and 1e-5 on average (a kernel
// a pixel off or a weight dropped from S or N is far beyond that). The second
// gives the same bits for 1, 2 and 8 workers.
TEST(Engines, TheSecondAgreesWithDeconvsOwnAndGivesTheSameBitsForAnyWorkers) {
  const struct {
    deconv::Image picture;
    const char* psf;
    bool align;
  } cases[] = {
      {testdata_crop("camera.png", 100, 60, 160, 120), "motion:9,30", true},
      {testdata_crop("coffee.png", 200, 100, 151, 101), "gaussian:2", false},
      {testdata_crop("chelsea.png", 40, 20, 127, 131), "box:7,3", true},
      {testdata_crop("astronaut.png", 150, 50, 96, 64), "motion:15,100", false},
      {testdata_crop("camera.png", 0, 0, 30, 200), "disk:5", true},  // the canvas is 23 wide, the band 13
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
    for (const int workers : {1, 8}) EXPECT_EQ(restored(c.picture, psf, false, c.align, workers).pixels, ours.pixels) << workers;
  }
}

// A 2-D PSF restores every plane as that plane alone; a 3-D PSF restores a
// volume with richardson-lucy, refused on a single picture and by the filter;
// so are unknown methods and richardson-lucy on the exact engine.
TEST(Engines, StacksByPlaneOrAsVolumes) {
  const deconv::Image plane = testdata_crop("camera.png", 100, 60, 64, 48);
  deconv::Image stack(64, 48, 3, 1);
  for (int z = 0; z < 3; ++z)
    for (size_t i = 0; i < plane.pixels.size(); ++i) stack.pixels[z * plane.pixels.size() + i] = plane.pixels[i] * (z + 1);
  deconv::RestoreOptions options;
  options.strength = 10, options.workers = 1;
  std::vector<std::string> notices;
  options.notice = [&](const std::string& n) { notices.push_back(n); };
  const deconv::Image psf = deconv::draw_psf("gaussian:1.5");
  const deconv::Image planes = deconv::restore(stack, psf, options);
  deconv::Image second(64, 48, 1);
  std::copy(stack.pixels.begin() + plane.pixels.size(), stack.pixels.begin() + 2 * plane.pixels.size(), second.pixels.begin());
  const deconv::Image alone = deconv::restore(second, psf, options);
  EXPECT_TRUE(std::equal(alone.pixels.begin(), alone.pixels.end(), planes.pixels.begin() + plane.pixels.size()));
  EXPECT_THAT(notices, ::testing::Contains(::testing::HasSubstr("each of the stack's 3 planes")));

  deconv::Image psf3(7, 7, 3, 1);
  for (int z = 0; z < 3; ++z) psf3.at(3, 3, z, 0) = 1, psf3.at(2, 3, z, 0) = psf3.at(4, 3, z, 0) = 0.5f;
  deconv::RestoreOptions rl = options;
  rl.method = "richardson-lucy", rl.iterations = 5;
  const deconv::Image volume = deconv::restore(stack, psf3, rl);
  EXPECT_EQ(volume.depth, 3);
  EXPECT_GE(*std::min_element(volume.pixels.begin(), volume.pixels.end()), 0.0f);
  deconv::RestoreOptions unknown = options, exact_rl = rl;
  unknown.method = "blind", exact_rl.exact = true;
  const struct {
    deconv::Image picture, psf;
    deconv::RestoreOptions options;
    const char* reason;
  } refusals[] = {{plane, psf3, rl, "at least as deep"},
                  {stack, psf3, options, "richardson-lucy a 3-D one"},
                  {plane, psf, unknown, "unknown method 'blind'"},
                  {plane, psf, exact_rl, "Wiener filter only"}};
  for (const auto& r : refusals)
    EXPECT_THAT(thrown<deconv::Error>([&] { deconv::restore(r.picture, r.psf, r.options); }), ::testing::HasSubstr(r.reason));
}

}  // namespace
