// What deconv-restore's files keep of their input: Exif in PNG, JPEG and
// TIFF, a JPEG's quality (read back by ImageMagick's own estimate), and FITS
// files that astropy reads without a warning.
#include <gmock/gmock.h>

#include <sstream>

#include "picture/format_details.h"
#include "picture/picture_file.h"
#include "tests/library_support.h"

namespace {

const std::string restore_binary = DECONV_RESTORE_BINARY;

class RestoredFile : public ::testing::Test {
 protected:
  void SetUp() override { photo = testdata_crop("coffee.png", 200, 100, 96, 64); }
  int restore(const std::string& args) {
    return shell("cd '" + dir.path + "' && " + restore_binary + " --psf gaussian:1 --strength 10 " + args).first;
  }
  // ImageMagick's estimate of a JPEG's quality.
  int quality_of(const std::string& name) {
    return std::atoi(shell("identify -format %Q '" + (dir / name) + "'").second.c_str());
  }
  TempDir dir;
  deconv::Image photo;
};

TEST_F(RestoredFile, ExifGoesOverToEveryFormat) {
  PictureFile camera;
  camera.header.attribute("Orientation", 6);
  camera.header.attribute("Make", "Acme");
  camera.header.attribute("FNumber", 2.8f);
  write_picture(dir / "camera.jpg", photo, SampleDepth::u8, &camera);
  for (const char* out : {"out.png", "out.jpg", "out.tif"}) {
    ASSERT_EQ(restore(std::string("camera.jpg ") + out), 0) << out;
    const OIIO::ImageSpec header = read_picture(dir / out).header;
    EXPECT_EQ(header.get_int_attribute("Orientation"), 6) << out;
    EXPECT_EQ(header.get_string_attribute("Make"), "Acme") << out;
    EXPECT_FLOAT_EQ(header.get_float_attribute("FNumber"), 2.8f) << out;
  }
  // Readers look for eXIf before the pixels; a picture without Exif gets none.
  const std::string png = read_file(dir / "out.png");
  EXPECT_LT(png.find("eXIf"), png.find("IDAT"));
  write_picture(dir / "plain.png", photo, SampleDepth::u8);
  ASSERT_EQ(restore("plain.png plain-out.png"), 0);
  EXPECT_EQ(read_file(dir / "plain-out.png").find("eXIf"), std::string::npos);
}

// The input's quality where its tables are libjpeg's scaled ones, --quality
// over it, 95 for a picture that has none.
TEST_F(RestoredFile, JpegQualityComesFromTheInputOrTheCommandLine) {
  write_picture(dir / "in.png", photo, SampleDepth::u8);
  for (const int quality : {20, 83, 97}) {
    const std::string name = "in-" + std::to_string(quality) + ".jpg";
    ASSERT_EQ(shell("cd '" + dir.path + "' && convert in.png -quality " + std::to_string(quality) + " " + name).first,
              0);
    ASSERT_EQ(restore(name + " same.jpg"), 0);
    EXPECT_EQ(quality_of("same.jpg"), quality);
    ASSERT_EQ(restore("--quality 40 " + name + " forty.jpg"), 0);
    EXPECT_EQ(quality_of("forty.jpg"), 40);
  }
  ASSERT_EQ(restore("in.png default.jpg"), 0);
  EXPECT_EQ(quality_of("default.jpg"), 95);
  for (const char* bad : {"0", "101", "high"}) EXPECT_EQ(restore(std::string("--quality ") + bad + " in.png x.jpg"), 1);
}

// The estimate against libjpeg's own encoder, from the lowest quality to the
// highest; a camera's own tables are no quality at all.
TEST(JpegQuality, ReadsWhatLibjpegWrote) {
  TempDir dir;
  for (const int quality : {1, 10, 49, 50, 51, 75, 92, 100}) {
    const std::string name = dir / ("q" + std::to_string(quality) + ".jpg");
    ASSERT_EQ(shell("convert -size 16x16 gradient: -quality " + std::to_string(quality) + " '" + name + "'").first, 0);
    EXPECT_EQ(jpeg_quality(file_head(name, 1 << 16)), quality);
  }
  std::vector<unsigned char> own = file_head(dir / "q75.jpg", 1 << 16);
  for (size_t i = 0; i + 5 < own.size(); ++i)
    if (own[i] == 0xFF && own[i + 1] == 0xDB) own[i + 5] += 3;  // the first entry of each table
  EXPECT_EQ(jpeg_quality(own), 0);
  EXPECT_EQ(jpeg_quality({}), 0);
}

// `script` run by astropy's Python with warnings as errors, `path` its sys.argv[1].
std::pair<int, std::string> astropy(const std::string& script, const std::string& path) {
  return shell("/usr/bin/python3 -W error -c 'import sys\nimport numpy as np\nfrom astropy.io import fits\n" + script +
               "' '" + path + "'");
}

// FITS files as astropy takes them: whole 2880-byte records, standard cards
// and the picture's shape; an astronomer's cards go over to the restored file.
TEST_F(RestoredFile, FitsIsReadByAstropyWithoutWarnings) {
  PictureFile camera;
  camera.header.attribute("Make", "Acme");  // a string the FITS writer would garble
  write_picture(dir / "camera.jpg", photo, SampleDepth::u8, &camera);
  write_picture(dir / "grey.png", testdata_crop("camera.png", 0, 0, 37, 29, true), SampleDepth::u16);
  ASSERT_EQ(astropy("h = fits.PrimaryHDU(np.random.default_rng(1).random((23, 31)).astype(np.float32))\n"
                    "h.header[\"OBJECT\"] = \"M 31\"; h.header[\"OBSERVER\"] = \"O\\x27Neil\"; h.header[\"EXPTIME\"] = 30.5\n"
                    "h.writeto(sys.argv[1])", dir / "sky.fits").first, 0);
  for (const auto& [args, shape] : {std::pair{"camera.jpg out.fits", "(3, 64, 96)"}, {"grey.png grey.fits", "(29, 37)"},
                                    {"--depth float grey.png float.fits", "(29, 37)"},
                                    {"--depth float sky.fits sky-out.fits", "(23, 31) M 31 O'Neil 30.5"}}) {
    ASSERT_EQ(restore(args), 0) << args;
    const std::string name = dir / std::string(args).substr(std::string(args).rfind(' ') + 1);
    EXPECT_EQ(read_file(name).size() % 2880, 0u) << args;
    EXPECT_THAT(astropy("with fits.open(sys.argv[1]) as f:\n    f.verify(\"exception\"); h = f[0]; repr(h.header)\n"
                        "    print(h.data.shape, *[h.header[k] for k in (\"OBJECT\", \"OBSERVER\", \"EXPTIME\") if k in h.header])",
                        name),
                ::testing::Pair(0, std::string(shape) + "\n"));
  }
}

// FITS against astropy sample by sample, both ways: the first row of the file
// is the picture's bottom row, planes follow one another, and 16 bits carry
// BZERO. A picture of 3 x 2 pixels and 2 planes, each sample its own value.
TEST(FitsAgainstAstropy, SamplesStandWhereAstropyPutsThem) {
  TempDir dir;
  for (const auto& [depth, range, type] : {std::tuple{SampleDepth::u8, 255.0f, "uint8"}, {SampleDepth::u16, 65535.0f, "uint16"},
                                           {SampleDepth::f32, 1.0f, "float32"}}) {
    SCOPED_TRACE(type);
    deconv::Image image(3, 2, 2);
    for (size_t i = 0; i < image.pixels.size(); ++i) image.pixels[i] = (float)(10 * i + 5) / range;
    write_picture(dir / "ours.fits", image, depth);
    // astropy's data[c][row][x] with row 0 first in the file: the picture's bottom row.
    const auto [status, said] = astropy("with fits.open(sys.argv[1]) as f: print(\" \".join(str(float(v)) for v in "
                                        "f[0].data[:, ::-1, :].flatten()))", dir / "ours.fits");
    ASSERT_EQ(status, 0) << said;
    std::istringstream values(said);
    for (size_t i = 0; i < image.pixels.size(); ++i) {
      double v = -1;
      values >> v;
      EXPECT_NEAR(v, 10 * i + 5, 1e-3) << i;
    }
    // astropy's file of the same samples, read back here.
    ASSERT_EQ(astropy("d = (np.arange(12) * 10 + 5).astype(np.float64).reshape(2, 2, 3)[:, ::-1, :]\n"
                      "fits.PrimaryHDU(d.astype(np." + std::string(type) + ")).writeto(sys.argv[1], overwrite=True)",
                      dir / "theirs.fits").first, 0);
    const PictureFile theirs = read_picture(dir / "theirs.fits");
    EXPECT_EQ(theirs.depth, depth);
    for (size_t i = 0; i < image.pixels.size(); ++i) EXPECT_NEAR(theirs.image.pixels[i] * range, 10 * i + 5, 1e-3) << i;
  }
}

// Files as observatories write them, through astropy: other sample types,
// scaled integers, the image in an extension behind an empty primary array,
// and a tile-compressed one; odd sizes. Each reads back as its values.
TEST(FitsFromAstropy, EveryLayoutReadsAsItsValues) {
  TempDir dir;
  for (const char* layout : {"fits.PrimaryHDU(d.astype(np.float64))",
                             "fits.PrimaryHDU(((d - 10) * 2).astype(np.int32)); h.header[\"BSCALE\"] = 0.5; h.header[\"BZERO\"] = 10",
                             "fits.HDUList([fits.PrimaryHDU(), fits.ImageHDU(d.astype(np.float32))])",
                             "fits.HDUList([fits.PrimaryHDU(), fits.CompImageHDU(d.astype(np.int16))])"}) {
    // Samples 0..3192 over 37 x 29 pixels, row r of the picture at the file's row 28 - r.
    ASSERT_EQ(astropy(std::string("d = (np.arange(29 * 37) * 3 % 3193).astype(np.float64).reshape(29, 37)[::-1]\nh = ") +
                      layout + "\nh.writeto(sys.argv[1], overwrite=True)", dir / "sky.fits").first, 0) << layout;
    const PictureFile sky = read_picture(dir / "sky.fits");
    ASSERT_TRUE(sky.image.width == 37 && sky.image.height == 29) << layout;
    EXPECT_EQ(sky.depth, SampleDepth::f32) << layout;
    for (size_t i = 0; i < sky.image.pixels.size(); i += 7)
      ASSERT_NEAR(sky.image.pixels[i], (double)(i * 3 % 3193), 1e-3) << layout << " at " << i;
  }
}

}  // namespace
