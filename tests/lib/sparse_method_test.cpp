// restore() with method "sparse": channels and planes each on its own, a
// strength, tiles, and what the method cannot do.
#include <gmock/gmock.h>

#include <cmath>
#include <cstring>

#include "tests/library_support.h"

namespace {

using ::testing::HasSubstr;

deconv::RestoreOptions sparse(int strength = -1) {
  deconv::RestoreOptions options;
  options.method = "sparse";
  options.strength = strength;
  options.workers = 2;
  return options;
}

deconv::Image plane(const deconv::Image& image, int index) {
  deconv::Image one(image.width, image.height, 1);
  const size_t n = one.pixels.size();
  std::copy(image.pixels.begin() + index * n, image.pixels.begin() + (index + 1) * n, one.pixels.begin());
  return one;
}

bool same_bits(const deconv::Image& a, const deconv::Image& b) {
  return a.pixels.size() == b.pixels.size() && !std::memcmp(a.pixels.data(), b.pixels.data(), a.pixels.size() * 4);
}

// A colour picture's channels, and a stack's planes under a 2-D PSF, come out
// as each restored alone (the prior's weight each its own); a heavier given strength smooths more.
TEST(SparseMethod, RestoresChannelsAndPlanesEachOnItsOwn) {
  const deconv::Image colour = testdata_crop("astronaut.png", 120, 80, 64, 48);
  const deconv::Image psf = deconv::draw_psf("gaussian:1.5");
  const deconv::Image restored = deconv::restore(colour, psf, sparse());
  deconv::Image stack(64, 48, 3, 1);
  stack.pixels = colour.pixels;
  std::vector<std::string> notices;
  deconv::RestoreOptions options = sparse();
  options.notice = [&](const std::string& message) { notices.push_back(message); };
  const deconv::Image planes = deconv::restore(stack, psf, options);
  for (int c = 0; c < 3; ++c) {
    const deconv::Image alone = deconv::restore(plane(colour, c), psf, sparse());
    EXPECT_TRUE(same_bits(alone, plane(restored, c))) << "channel " << c;
    EXPECT_TRUE(same_bits(alone, plane(planes, c))) << "plane " << c;
  }
  EXPECT_THAT(notices, testing::ElementsAre(HasSubstr("each of the stack's 3 planes")));
  const auto roughness = [](const deconv::Image& image) {
    double sum = 0;
    for (size_t i = 1; i < image.pixels.size(); ++i) sum += std::fabs(image.pixels[i] - image.pixels[i - 1]);
    return sum;
  };
  const deconv::Image grey = plane(colour, 0);
  EXPECT_GT(roughness(deconv::restore(grey, psf, sparse(1))), 1.1 * roughness(deconv::restore(grey, psf, sparse(200))));
}

// Tiles restore nearly what the whole does: the prior is not convex and its
// few steps reach far, so a few samples in a thousand differ by more than a
// hundredth of the range (at 4 and at 8 PSF extents of overlap alike), none by a tenth.
TEST(SparseMethod, TilesGiveTheWholesResult) {
  const deconv::Image grey = testdata_crop("camera.png", 60, 40, 320, 240, true);
  const deconv::Image psf = deconv::draw_psf("gaussian:1.2");
  deconv::RestoreOptions options = sparse(10);
  const deconv::Image whole = deconv::restore(grey, psf, options);
  options.memory = 3 << 20;
  std::string said;
  options.notice = [&](const std::string& message) { said += message; };
  const deconv::Image tiled = deconv::restore(grey, psf, options);
  EXPECT_THAT(said, HasSubstr("overlapping tiles"));
  double most = 0;
  int off = 0;
  for (int y = 0; y < whole.height; ++y)
    for (int x = 0; x < whole.width; ++x) {
      const double d = std::fabs(whole.at(x, y) - tiled.at(x, y));
      most = std::max(most, d);
      off += d > 1e-2;
    }
  EXPECT_LT(off, whole.width * whole.height / 200);
  EXPECT_LT(most, 0.1);
}

TEST(SparseMethod, RefusesWhatItCannotDo) {
  deconv::Image grey(32, 32, 1);
  for (size_t i = 0; i < grey.pixels.size(); ++i) grey.pixels[i] = (float)(i % 7) / 7;
  const deconv::Image psf = deconv::draw_psf("gaussian:1");
  deconv::RestoreOptions options = sparse();
  options.exact = true;
  EXPECT_THAT(thrown<deconv::Error>([&] { deconv::restore(grey, psf, options); }), HasSubstr("Wiener filter only, not sparse"));
  EXPECT_THAT(thrown<deconv::Error>([&] { deconv::restore(grey, psf, sparse(201)); }), HasSubstr("above 200"));
  deconv::Image volume_psf(5, 5, 3, 1);
  volume_psf.pixels.assign(75, 1.0f);
  EXPECT_THAT(thrown<deconv::Error>([&] { deconv::restore(grey, volume_psf, sparse()); }), HasSubstr("at least as deep"));
}

}  // namespace
