// Reading and writing files with the real converters: formats, routes by name
// and by content, bit depth, the PNM writer's truncation and JPEG quality.
#include <cstdio>

#include "tests/tool/tool_fixture.h"
#include "tool/image_io.h"

namespace {

class ImageFiles : public ::testing::Test {
 protected:
  void SetUp() override {
    picture.assign(12, 9, 1, 3);
    cimg_forXYC(picture, x, y, c) picture(x, y, 0, c) = 10 + 9 * x + 7 * y + 30 * c;
    write_pnm(dir / "colour.ppm", picture);
    write_pnm(dir / "grey.pgm", picture.get_channel(0));
  }
  CImg<float> load(const std::string& name) {
    CImg<float> img;
    load_image(img, (dir / name).c_str());
    return img;
  }
  TempDir dir;
  CImg<float> picture;
};

TEST_F(ImageFiles, LosslessFormatsComeBackExactly) {
  convert_with_imagemagick(dir / "colour.ppm", dir / "colour.png");
  convert_with_imagemagick(dir / "grey.pgm", dir / "grey.png");
  convert_with_imagemagick(dir / "colour.ppm", dir / "UPPER.PNG");
  for (const char* name : {"colour.ppm", "colour.png", "UPPER.PNG"}) EXPECT_EQ(load(name), picture) << name;
  EXPECT_EQ(load("grey.pgm"), picture.get_channel(0));
  EXPECT_EQ(load("grey.png"), picture.get_channel(0));
  // Unknown extensions: the content decides, or the converter tries.
  std::rename((dir / "colour.png").c_str(), (dir / "colour.unknown").c_str());
  EXPECT_EQ(load("colour.unknown"), picture);
  std::rename((dir / "colour.ppm").c_str(), (dir / "colour.data").c_str());
  EXPECT_EQ(load("colour.data"), picture);
}

TEST_F(ImageFiles, JpegLoadsThroughTheConverterEvenUnderAPnmName) {
  convert_with_imagemagick(dir / "colour.ppm", dir / "colour.jpg", "-quality 98");
  std::rename((dir / "colour.jpg").c_str(), (dir / "looks_like.pnm").c_str());
  const CImg<float> img = load("looks_like.pnm");
  ASSERT_TRUE(img.is_sameXYZC(picture));
  EXPECT_LT((img - picture).abs().max(), 12);
}

TEST_F(ImageFiles, SixteenBitValuesComeThroughUnscaled) {
  write_file(dir / "deep.pgm", std::string("P5\n2 1\n65535\n") + std::string("\x03\xe8\xff\xff", 4));
  convert_with_imagemagick(dir / "deep.pgm", dir / "deep.png");
  const CImg<float> img = load("deep.png");
  EXPECT_EQ(img(0), 1000.0f);
  EXPECT_EQ(img(1), 65535.0f);
}

TEST_F(ImageFiles, SavingTruncatesToBytes) {
  const CImg<float> values(4, 1, 1, 1, 254.9f, 127.5f, 0.99f, 255.0f);
  save_other(values, (dir / "saved.pgm").c_str(), 95);
  EXPECT_EQ(load("saved.pgm"), CImg<float>(4, 1, 1, 1, 254.0f, 127.0f, 0.0f, 255.0f));
}

std::string jpeg_quality(const std::string& path) {
  const std::string command = "/usr/bin/identify -format %Q '" + path + "'";
  std::FILE* const pipe = popen(command.c_str(), "r");
  char quality[32] = {0};
  if (!std::fgets(quality, sizeof quality, pipe)) quality[0] = 0;
  pclose(pipe);
  return quality;
}

TEST_F(ImageFiles, PngInputsSaveAtFullQualityOthersAtTheirArgument) {
  save_result(picture, (dir / "from_png.jpg").c_str(), true, 37);
  save_result(picture, (dir / "from_jpeg.jpg").c_str(), false, 37);
  EXPECT_EQ(jpeg_quality(dir / "from_png.jpg"), "100");
  EXPECT_EQ(jpeg_quality(dir / "from_jpeg.jpg"), "37");
}

TEST_F(ImageFiles, VolumetricJpegSavesWarnOnceWithoutALineEnd) {
  const CImg<float> volume(4, 4, 2, 1, 100.0f);
  const std::string target = dir / "volume.jpg";
  ::testing::internal::CaptureStderr();
  save_result(volume, target.c_str(), false, 90);
  const std::string err = ::testing::internal::GetCapturedStderr();
  char expected[512];
  std::snprintf(expected, sizeof expected,
                "\n[CImg] *** Warning ***[instance(4,4,2,1,%p,non-shared)] CImg<float>::save_jpeg() : Instance is "
                "volumetric, only the first slice will be saved in file '%s'.",
                (const void*)volume.data(), target.c_str());
  EXPECT_EQ(err, expected);
}

TEST_F(ImageFiles, EmptyResultsAreInstanceErrors) {
  const CImg<float> empty;
  EXPECT_THROW(save_result(empty, (dir / "e.png").c_str(), true, 90), cimg_library::CImgInstanceException);
  EXPECT_THROW(save_result(empty, (dir / "e.jpg").c_str(), false, 90), cimg_library::CImgInstanceException);
  EXPECT_THROW(save_result(picture, nullptr, false, 90), cimg_library::CImgArgumentException);
}

TEST_F(ImageFiles, ReportsComeBackAfterALoadOfTheLibrarysOwnFormat) {
  picture.save_cimg((dir / "no_extension").c_str());
  EXPECT_EQ(load("no_extension"), picture);
  ::testing::internal::CaptureStderr();
  EXPECT_THROW(load("missing.png"), cimg_library::CImgIOException);
  const std::string err = ::testing::internal::GetCapturedStderr();
  EXPECT_NE(err.find("[CImg] *** CImgIOException *** [instance(0,0,0,0,(nil),non-shared)] CImg<float>::load() : "
                     "Failed to open file '" + dir / "missing.png" + "'."),
            std::string::npos)
      << err;
}

}  // namespace
