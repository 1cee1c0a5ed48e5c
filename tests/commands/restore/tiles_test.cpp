// deconv-restore --memory: a stack and a picture in tiles against the whole,
// and a budget too small for any tile.
#include <gmock/gmock.h>

#include <cmath>
#include <random>

#include "picture/picture_file.h"
#include "tests/library_support.h"

namespace {

const std::string restore_binary = DECONV_RESTORE_BINARY;

// A widefield stack of beads: a 40 x 120 x 120 volume blurred by a Gaussian
// longer along z, on 10 counts of background, Poisson noise.
deconv::Image bead_stack(deconv::Image& psf) {
  CImg<float> kernel(9, 9, 9), volume(120, 120, 40, 1, 0.0f);
  cimg_forXYZ(kernel, x, y, z) kernel(x, y, z) = std::exp(-((x - 4) * (x - 4) + (y - 4) * (y - 4)) / 4.5 - (z - 4) * (z - 4) / 12.5);
  std::mt19937 random(3);
  for (int i = 0; i < 200; ++i) volume(random() % 120, random() % 120, random() % 40) = 200 + random() % 800;
  volume.convolve(kernel / kernel.sum(), 0);  // zeros beyond the borders
  for (float& s : volume) s = (float)std::poisson_distribution<int>(std::max(0.0f, s) + 10)(random) / 65535.0f;
  psf = deconv::Image(9, 9, 9, 1);
  std::copy(kernel.begin(), kernel.end(), psf.pixels.begin());
  deconv::Image stack(120, 120, 40, 1);
  std::copy(volume.begin(), volume.end(), stack.pixels.begin());
  return stack;
}

// Richardson-Lucy with a fixed count and no extrapolation is one operator on
// every tile: seams below 1e-3 of the range, where a dropped overlap, a
// sample pasted off or a tile's own start would show up to a tenth.
TEST(Tiles, StackRestoresAsTheWhole) {
  TempDir dir;
  deconv::Image psf;
  write_picture(dir / "stack.tif", bead_stack(psf), SampleDepth::u16);
  write_picture(dir / "bead.tif", psf, SampleDepth::f32);
  const std::string common = " --psf bead.tif --method richardson-lucy --iterations 20 --no-accelerate --background 10 --depth float ";
  const auto run = [&](const std::string& args) {
    return shell("cd '" + dir.path + "' && " + restore_binary + common + args);
  };
  ASSERT_EQ(run("stack.tif whole.tif").first, 0);
  const auto [status, said] = run("--memory 8 stack.tif tiled.tif");
  ASSERT_EQ(status, 0) << said;
  EXPECT_THAT(said, testing::HasSubstr("overlapping tiles"));
  const deconv::Image whole = read_picture(dir / "whole.tif", SampleScale::raw).image;
  const deconv::Image tiled = read_picture(dir / "tiled.tif", SampleScale::raw).image;
  ASSERT_EQ(tiled.depth, 40);
  EXPECT_LT(seam(tiled, whole, 9, 9), 1e-3);
}

// The filter's tiles, each tapered at edges the overlap keeps off the samples
// kept, all at the middle tile's chosen strength: the whole at one strength.
TEST(Tiles, PictureRestoresAsTheWholeAtOneStrength) {
  TempDir dir;
  write_picture(dir / "photo.png", testdata_crop("coffee.png", 0, 0, 400, 300), SampleDepth::u8);
  const auto run = [&](const std::string& args) {
    return shell("cd '" + dir.path + "' && " + restore_binary + " --psf gaussian:2 --depth float " + args);
  };
  const auto [status, said] = run("--method wiener --memory 1 photo.png chosen.exr");
  ASSERT_EQ(status, 0) << said;
  EXPECT_THAT(said, testing::HasSubstr("overlapping tiles"));
  const deconv::Image chosen = read_picture(dir / "chosen.exr", SampleScale::raw).image;
  double best = 1;
  for (int strength = 1; strength <= 60 && best >= 1e-3; ++strength) {
    ASSERT_EQ(run("--strength " + std::to_string(strength) + " photo.png at.exr").first, 0);
    best = std::min(best, seam(chosen, read_picture(dir / "at.exr", SampleScale::raw).image, 20));
  }
  EXPECT_LT(best, 1e-3);
}

TEST(Tiles, TooLittleMemoryIsRefused) {
  TempDir dir;
  write_picture(dir / "photo.png", testdata_crop("coffee.png", 0, 0, 400, 300, true), SampleDepth::u8);
  const auto [status, said] = shell("cd '" + dir.path + "' && " + restore_binary +
                                    " --psf disk:60 --memory 1 photo.png out.png");
  EXPECT_EQ(status, 11);
  EXPECT_THAT(said, testing::HasSubstr("too little for the smallest tile"));
  EXPECT_THAT(shell("ls '" + dir.path + "'").second, testing::Not(testing::HasSubstr("out.png")));
  EXPECT_EQ(shell("cd '" + dir.path + "' && " + restore_binary + " --psf disk:2 --memory 0 photo.png out.png").first, 1);
}

}  // namespace
