// restore() under RestoreOptions::memory: tiles against the whole for shapes
// the command's tests do not take, and refusals that name the whole picture.
#include <gmock/gmock.h>

#include <cmath>

#include "tests/library_support.h"

namespace {

// In a fifth to a tenth of the whole's memory, tiles are the whole to 1e-3 of its range.
TEST(LibraryTiles, RestoreAsTheWhole) {
  deconv::Image stack(96, 80, 4, 1);
  const deconv::Image grey = testdata_crop("camera.png", 100, 60, 96, 80, true);
  for (int z = 0; z < 4; ++z)
    for (size_t i = 0; i < grey.pixels.size(); ++i) stack.pixels[z * grey.pixels.size() + i] = grey.pixels[i] * (z + 1) * 100;
  deconv::RestoreOptions rl, filter, exact;
  rl.method = "richardson-lucy", rl.iterations = 15, rl.accelerate = false, rl.background = 5, rl.workers = 2;
  filter.strength = 20, filter.workers = 2;
  exact = filter, exact.exact = true;
  const struct {
    const char* what;
    deconv::Image picture;
    const char* psf;
    deconv::RestoreOptions options;
    size_t memory;
  } cases[] = {
      {"colour, richardson-lucy", testdata_crop("coffee.png", 100, 50, 180, 150), "motion:9,30", rl, 400 << 10},
      {"a stack of planes, richardson-lucy", stack, "gaussian:1.5", rl, 300 << 10},
      {"colour, the filter", testdata_crop("chelsea.png", 40, 20, 200, 160), "disk:3", filter, 300 << 10},
      {"deconv's engine", testdata_crop("camera.png", 0, 0, 200, 160, true), "box:5,3", exact, 600 << 10},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    const deconv::Image psf = deconv::draw_psf(c.psf);
    const deconv::Image whole = deconv::restore(c.picture, psf, c.options);
    deconv::RestoreOptions tiled = c.options;
    tiled.memory = c.memory;
    std::vector<std::string> notices;
    tiled.notice = [&](const std::string& n) { notices.push_back(n); };
    const deconv::Image parts = deconv::restore(c.picture, psf, tiled);
    EXPECT_THAT(notices, ::testing::Contains(::testing::HasSubstr("overlapping tiles")));
    ASSERT_EQ(parts.pixels.size(), whole.pixels.size());
    // Away from the picture's own edges, where the filter's taper reads the
    // far edge of what it restores (the whole's, or a tile's).
    EXPECT_LT(seam(parts, whole, 4 * std::max(psf.width, psf.height)), 1e-3);
  }
}

// A refusal names the place in the whole picture, not in a tile.
TEST(LibraryTiles, RefusalsNameTheWholePicture) {
  deconv::Image picture = testdata_crop("camera.png", 0, 0, 200, 160, true);
  picture.at(150, 120) = NAN;
  deconv::RestoreOptions options;
  options.strength = 10, options.memory = 200 << 10;
  EXPECT_THAT(thrown<deconv::Error>([&] { deconv::restore(picture, deconv::draw_psf("gaussian:1"), options); }),
              ::testing::HasSubstr("the first at x 150, y 120"));
}

}  // namespace
