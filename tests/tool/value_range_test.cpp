// The conversions between the file range and the engine's, the PSF's
// normalisation, and the PNG test by content.
#include <cmath>
#include <random>

#include "engine/deconv.h"
#include "tests/tool/tool_fixture.h"
#include "tool/image_io.h"
#include "tool/value_range.h"

namespace {

TEST(ValueRange, InputIsDividedBy255WhateverItsDepth) {
  TempDir dir;
  write_file(dir / "deep.pgm", std::string("P5\n3 1\n65535\n") + std::string("\xff\xff\x00\x64\x01\x00", 6));
  CImg<float> image;
  load_image(image, (dir / "deep.pgm").c_str());
  scale_to_unit(image);
  EXPECT_EQ(image(0), 257.0f);  // not clamped
  EXPECT_EQ(image(1), 100.0f / 255.0f);
  EXPECT_EQ(image(2), 256.0f / 255.0f);
}

TEST(ValueRange, ResultIsClampedAndScaledKeepingFractions) {
  CImg<float> result(6, 1, 1, 1, -0.5f, 0.0f, 0.5f, 1.0f, 1.5f, NAN);
  scale_to_file_range(result);
  EXPECT_EQ(result(0), 0.0f);
  EXPECT_EQ(result(1), 0.0f);
  EXPECT_EQ(result(2), 127.5f);
  EXPECT_EQ(result(3), 255.0f);
  EXPECT_EQ(result(4), 255.0f);
  EXPECT_TRUE(std::isnan(result(5)));
}

TEST(ValueRange, PsfIsNormalisedInDoublePrecision) {
  std::mt19937 rng(7);
  std::uniform_real_distribution<float> value(0, 1);
  CImg<float> psf(31, 17, 1, 3);
  for (float& v : psf) v = value(rng);
  const CImg<float> original(psf);
  double sum = 0;
  for (float v : original) sum += v;
  normalize_to_unit_sum(psf);
  for (size_t k = 0; k < psf.size(); ++k) ASSERT_EQ(psf[k], (float)((double)original[k] / sum)) << k;

  CImg<float> empty;
  try {
    normalize_to_unit_sum(empty);
    FAIL() << "no exception";
  } catch (cimg_library::CImgInstanceException& e) {
    EXPECT_STREQ(e.what(), "[instance(0,0,0,0,(nil),non-shared)] CImg<float>::sum() : Empty instance.");
  }
}

TEST(InputIsPng, LooksAtTheContentNotTheName) {
  TempDir dir;
  write_file(dir / "png.jpg", std::string("\x89PNG\r\n\x1a\n", 8) + std::string(600, 'x'));
  write_file(dir / "jpeg.png", std::string("\xff\xd8\xff\xe0", 4) + std::string(600, 'x'));
  write_file(dir / "short.png", "\x89PNG");
  EXPECT_TRUE(input_is_png((dir / "png.jpg").c_str()));
  EXPECT_FALSE(input_is_png((dir / "jpeg.png").c_str()));
  EXPECT_FALSE(input_is_png((dir / "short.png").c_str()));
  const std::string missing = dir / "missing.png";
  try {
    input_is_png(missing.c_str());
    FAIL() << "no exception";
  } catch (cimg_library::CImgIOException& e) {
    EXPECT_EQ(std::string(e.what()), "cimg::fopen() : Failed to open file '" + missing + "' with mode 'rb'.");
  }
}

}  // namespace
