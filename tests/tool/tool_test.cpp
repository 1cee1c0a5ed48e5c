// Files, value ranges and the PNG test in-process, with the real converters.

#include "engine/deconv.h"
#include "tests/support.h"
#include "tool/image_io.h"
#include "tool/converters.h"
#include "tool/value_range.h"

namespace {


TEST(ValueRanges, ScaleNormaliseAndClampInTheirOwnPrecision) {
  TempDir dir;
  write_file(dir / "deep.pgm", std::string("P5\n2 1\n65535\n\xff\xff\x00\x64", 17));
  CImg<float> image = load(dir / "deep.pgm");
  scale_to_unit(image);  // whatever the depth, and unclamped
  EXPECT_EQ(image, CImg<float>(2, 1, 1, 1, 257.0f, 100.0f / 255.0f));
  // normalize_to_unit_sum's bits are the pinned results'.
  CImg<float> empty;
  EXPECT_EQ(thrown<cimg_library::CImgInstanceException>([&] { normalize_to_unit_sum(empty); }),
            "[instance(0,0,0,0,(nil),non-shared)] CImg<float>::sum() : Empty instance.");
}

TEST(ImageFiles, InputIsPngReadsTheContentNotTheName) {
  TempDir dir;
  write_file(dir / "png.jpg", std::string("\x89PNG\r\n\x1a\n", 8) + std::string(600, 'x'));
  write_file(dir / "jpeg.png", std::string("\xff\xd8\xff\xe0", 4) + std::string(600, 'x'));
  ASSERT_EQ(std::system(("convert -size 1x1 xc:red " + dir / "tiny.png").c_str()), 0);
  EXPECT_TRUE(input_is_png((dir / "png.jpg").c_str()) && input_is_png((dir / "tiny.png").c_str()));
  EXPECT_FALSE(input_is_png((dir / "jpeg.png").c_str()));  // a file it cannot open: runs_test's input URL
}

TEST(ImageFiles, ContentIsDetectedInItsOrderOfTests) {
  TempDir dir;
  const std::string pad(600, 'x'), pnm_body(2100, '\x7f');
  std::string dicom(200, '\0');
  dicom.replace(128, 4, "DICM");
  // {content, type}: two letters make a TIFF; a PNM header counts in files of
  // 2048 bytes or more, after comments and blank lines.
  for (const auto& [content, type] : {std::pair<std::string, const char*>{"II" + pad, "tif"}, {"MM" + pad, "tif"},
                                      {"GIF89a" + pad, "gif"}, {"BMII" + pad, "bmp"}, {"OFF\nII" + pad, "off"},
                                      {dicom, "dcm"}, {"\n#comment\n\nP5\n1 1\n255\n" + pnm_body, "pnm"},
                                      {"PF\n1 1\n-1\n" + pnm_body, "pfm"}, {"P5\n1 1\n255\n" + pad, nullptr},
                                      {"P5 1 1 255\n" + pnm_body, nullptr}}) {
    write_file(dir / "file", content);
    const char* const detected = detect_type((dir / "file").c_str());
    EXPECT_STREQ(detected, type) << content.substr(0, 12);
  }
}

TEST(ImageFiles, BmpHeadersTheLibrarysReaderCannotTakeAreRefused) {
  TempDir dir;
  CImg<float>(5, 3, 1, 3, 200.0f).save_bmp((dir / "good.bmp").c_str());
  const std::string good = read_file(dir / "good.bmp");
  const auto with = [&](int at, uint32_t value) {  // good.bmp with one 32-bit field changed
    std::string bmp = good;
    for (int i = 0; i < 4; ++i) bmp[at + i] = (char)(value >> 8 * i);
    return bmp;
  };
  // {content, verdict}: offsets and sizes that overflow the reader's int
  // arithmetic, a header cut short, and RLE compression, which it leaves to
  // the converters.
  for (const auto& [content, verdict] : {std::pair{good, BmpHeader::native}, {with(0x0A, 0x80000000u), BmpHeader::refused},
                                         {with(0x0E, 0x80000000u), BmpHeader::refused},
                                         {with(0x12, 0x7FFFFFFFu), BmpHeader::refused},
                                         {good.substr(0, 30), BmpHeader::refused}, {with(0x1E, 1), BmpHeader::compressed}}) {
    write_file(dir / "x.bmp", content);
    EXPECT_EQ(inspect_bmp((dir / "x.bmp").c_str()), verdict) << content.size();
  }
  EXPECT_EQ(load(dir / "good.bmp"), CImg<float>(5, 3, 1, 3, 200.0f));
}

TEST(ImageFiles, AConverterStreamTheReaderRefusesIsTheConvertersFailure) {
  TempDir dir;  // a header whose size overflows: the reader throws an argument error
  write_file(dir / "convert", "#!/bin/sh\nprintf 'P5\\n4294967295 4294967295\\n255\\n'\n");
  ASSERT_EQ(std::system(("chmod +x " + dir / "convert").c_str()), 0);
  write_file(dir / "in.png", "x");
  setenv("PATH", (dir.path + ":" + getenv("PATH")).c_str(), 1);
  CImg<float> img;
  EXPECT_EQ(thrown<cimg_library::CImgIOException>([&] { load_with_converter(img, (dir / "in.png").c_str(), imagemagick); }),
            "[instance(0,0,0,0,(nil),non-shared)] CImg<float>::load_imagemagick_external() : Failed to load file '" +
                dir / "in.png" + "' with external command 'convert'.");
}

TEST(ImageFiles, EveryRouteLoadsThePicture) {
  TempDir dir;
  CImg<float> picture(12, 9, 1, 3);
  cimg_forXYC(picture, x, y, c) picture(x, y, 0, c) = 10 + 9 * x + 7 * y + 30 * c;
  picture.save_pnm((dir / "colour.ppm").c_str());
  write_file(dir / "deep.pgm", std::string("P5\n2 1\n65535\n\x03\xe8\xff\xff", 17));
  // {file made by ImageMagick from colour.ppm, largest difference allowed}
  for (const auto& [made, tolerance] : {std::pair{"colour.png", 0}, {"UPPER.PNG", 0}, {"-channel R -separate grey.png", 0},
                                        {"png:png.unknown", 0},      // recognised by its content
                                        {"ppm:ppm.unknown", 0},      // too short to recognise: the converter reads it
                                        {"-quality 98 jpeg.jpg", 12}, {"-quality 98 jpg:jpeg.pnm", 12}}) {  // the PNM reader fails first
    const std::string target = std::strrchr(made, ' ') ? std::strrchr(made, ' ') + 1 : made;
    ASSERT_EQ(std::system(("cd " + dir.path + " && convert colour.ppm " + made).c_str()), 0);
    const std::string name = target.substr(target.find(':') + 1);
    const CImg<float> expected = name == "grey.png" ? picture.get_channel(0) : picture;
    EXPECT_LE((load(dir / name) - expected).abs().max(), tolerance) << name;
  }
  ASSERT_EQ(std::system(("convert " + dir / "deep.pgm " + dir / "deep.png").c_str()), 0);
  EXPECT_EQ(load(dir / "deep.png"), CImg<float>(2, 1, 1, 1, 1000.0f, 65535.0f));  // 16 bits, unscaled
  picture.save_cimg((dir / "no_extension").c_str());  // the library's own format leaves the reports on
  EXPECT_EQ(load(dir / "no_extension"), picture);  // a missing file's report is runs_test's
}

// (The quality by the input's type is runs_test's converter command lines.)
TEST(ImageFiles, SavingClampsScalesAndTruncates) {
  TempDir dir;
  // Clamped to 0..1, times 255 in float, truncated: 0.5 is 127, 0.999 is 254.
  // A NaN first pixel still gives an 8-bit file, with 0 for it.
  save_other(CImg<float>(7, 1, 1, 1, NAN, -0.5f, 0.5f, 0.999f, 0.0039f, 1.0f, 1.5f), (dir / "bytes.pgm").c_str(), 95);
  EXPECT_EQ(read_file(dir / "bytes.pgm"), std::string("P5\n7 1\n255\n\0\0\x7f\xfe\0\xff\xff", 18));
  CImg<float> two(2, 1, 1, 2, 1.0f);  // two channels: a zero third one
  write_pnm(two, (dir / "two.ppm").c_str());
  EXPECT_EQ(read_file(dir / "two.ppm"), std::string("P6\n2 1\n255\n\xff\xff\0\xff\xff\0", 17));
  EXPECT_THROW(save_result(CImg<float>(), (dir / "e.png").c_str(), true, 90), cimg_library::CImgInstanceException);
}

}  // namespace
