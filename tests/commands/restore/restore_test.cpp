// deconv-restore: every depth restored as the library restores it, runs at
// once that do not meet, files complete or untouched.
#include <dirent.h>
#include <gmock/gmock.h>

#include <cmath>

#include "picture/picture_file.h"
#include "tests/library_support.h"

namespace {

const std::string restore_binary = DECONV_RESTORE_BINARY;

// Runs deconv-restore in `dir` in a mount namespace of its own, after
// `mounts` and before `after`: its status, and what it and `after` print.
std::pair<int, std::string> restore(const TempDir& dir, const std::string& args, const std::string& mounts = "",
                                    const std::string& after = ":") {
  return shell("cd '" + dir.path + "' && unshare -rm sh -c '" + mounts + " " + restore_binary + " " + args +
               "; s=$?; " + after + "; exit $s'");
}

// An ICC profile with a header and no tags, which PNG's checks accept.
std::vector<unsigned char> smallest_rgb_profile() {
  std::vector<unsigned char> icc(132, 0);
  const auto put = [&](size_t at, const char* four) { std::copy(four, four + 4, icc.begin() + at); };
  icc[3] = 132;  // size, big-endian
  icc[8] = 2, icc[9] = 0x10;  // version 2.1
  put(12, "mntr"), put(16, "RGB "), put(20, "XYZ "), put(36, "acsp");
  const unsigned char d50[12] = {0, 0, 0xF6, 0xD6, 0, 1, 0, 0, 0, 0, 0xD3, 0x2D};  // the PCS illuminant
  std::copy(d50, d50 + 12, icc.begin() + 68);
  return icc;
}

class Restore : public ::testing::Test {
 protected:
  void SetUp() override {
    psf = deconv::draw_psf("gaussian:1.5");
    write_picture(dir / "psf.png", psf, SampleDepth::u16);
  }
  // The library's result for a file, as deconv-restore --strength 10 makes it.
  deconv::Image reference(const std::string& name) {
    deconv::RestoreOptions options;
    options.strength = 10, options.workers = 1;  // one worker: the float sums come in one order
    return deconv::restore(read_picture(dir / name).image, read_picture(dir / "psf.png", SampleScale::raw).image,
                           options);
  }
  TempDir dir;
  deconv::Image psf;
};

// 16 bits stay 16 (each sample within one step of the library's float), float
// stays float to the bit, and 8 bits without alignment are deconv's pixels.
TEST_F(Restore, EveryDepthKeepsItsRange) {
  const deconv::Image grey = testdata_crop("camera.png", 100, 60, 120, 90, true);
  const deconv::Image colour = testdata_crop("coffee.png", 200, 100, 100, 81);
  for (const auto& [name, picture, depth] : {std::tuple{"grey16.png", &grey, SampleDepth::u16}, {"colour16.tif", &colour, SampleDepth::u16},
                                             {"colour16.ppm", &colour, SampleDepth::u16}, {"float.tif", &grey, SampleDepth::f32}}) {
    write_picture(dir / name, *picture, depth);
    ASSERT_EQ(restore(dir, std::string("--psf psf.png --strength 10 --workers 1 ") + name + " out-" + name).first, 0) << name;
    const PictureFile out = read_picture(dir / ("out-" + std::string(name)));
    const deconv::Image expected = reference(name);
    ASSERT_EQ(out.image.pixels.size(), expected.pixels.size());
    if (out.depth == SampleDepth::f32) {
      EXPECT_EQ(out.image.pixels, expected.pixels) << name;
      continue;
    }
    EXPECT_EQ(out.depth, SampleDepth::u16) << name;
    double worst = 0;
    for (size_t i = 0; i < expected.pixels.size(); ++i) {
      const double step = std::round(out.image.pixels[i] * 65535.0);
      worst = std::max(worst, std::fabs(step - std::min(1.0f, std::max(0.0f, expected.pixels[i])) * 65535.0));
    }
    EXPECT_LE(worst, 1.0) << name;
  }

  write_picture(dir / "colour8.png", colour, SampleDepth::u8);
  ASSERT_EQ(restore(dir, "--psf psf.png --depth 8 --no-align --exact --strength 10 colour8.png ours.png").first, 0);
  ASSERT_EQ(shell("cd " + dir.path + " && unshare -rm sh -c 'mount -t tmpfs tmpfs /dev/shm && exec " DECONV_BINARY
                  " colour8.png psf.png theirs.png 1 95 10'").first, 0);
  EXPECT_EQ(read_picture(dir / "ours.png").image.pixels, read_picture(dir / "theirs.png").image.pixels);
}

std::string listing(const std::string& folder, const std::string& pattern = "") {
  return shell("ls -A " + folder + " | grep '" + pattern + "'").second;
}

// Eight runs at once, each as a lone run; one killed at work leaves nothing,
// and the next is unharmed. All on the machine's own /dev/shm.
TEST_F(Restore, RunsAtOnceNeitherMeetNorLeaveAnything) {
  write_picture(dir / "in.png", testdata_crop("chelsea.png", 0, 0, 300, 200, false), SampleDepth::u8);
  const std::string run = restore_binary + " --psf psf.png --strength 10 --workers 1 in.png";
  // The library's names; the machine-wide ones come and go with other tests.
  const std::string shm = listing("/dev/shm", "^sem.deconv");
  ASSERT_EQ(shell("cd " + dir.path + " && " + run + " alone.png").first, 0);
  shell("cd " + dir.path + " && for i in 0 1 2 3 4 5 6 7; do " + run + " at-once-$i.png & done; wait");
  for (int i = 0; i < 8; ++i)
    EXPECT_EQ(read_file(dir / ("at-once-" + std::to_string(i) + ".png")), read_file(dir / "alone.png")) << i;

  write_picture(dir / "large.png", deconv::Image(1536, 1536, 3), SampleDepth::u8);  // long enough to be killed at work
  for (const char* delay : {"0.05", "0.3", "0.6"})
    shell("cd " + dir.path + " && " + restore_binary + " --psf psf.png large.png killed.png & sleep " + delay +
          "; kill -KILL $!; wait");
  EXPECT_EQ(listing("/dev/shm", "^sem.deconv"), shm);
  EXPECT_THAT(listing(dir.path), ::testing::Not(::testing::HasSubstr(".killed")));
  ASSERT_EQ(shell("cd " + dir.path + " && " + run + " after.png").first, 0);
  EXPECT_EQ(read_file(dir / "after.png"), read_file(dir / "alone.png"));
}

// The colour profile goes over (Exif is output_test's); every failure is one
// line naming the file and the reason, status 11, the OUTPUT as it was.
TEST_F(Restore, FilesKeepTheirMetadataOrStayAsTheyWere) {
  PictureFile tagged;
  tagged.image = testdata_crop("coffee.png", 200, 100, 100, 81);
  const std::vector<unsigned char> profile = smallest_rgb_profile();
  tagged.header.attribute("ICCProfile", OIIO::TypeDesc(OIIO::TypeDesc::UINT8, (int)profile.size()), profile.data());
  write_picture(dir / "tagged.jpg", tagged.image, SampleDepth::u8, &tagged);
  ASSERT_EQ(restore(dir, "--psf psf.png tagged.jpg restored.jpg").first, 0);
  const PictureFile restored = read_picture(dir / "restored.jpg");
  const OIIO::ParamValue* icc = restored.header.find_attribute("ICCProfile");
  ASSERT_NE(icc, nullptr);
  EXPECT_EQ(std::vector<unsigned char>((const unsigned char*)icc->data(),
                                       (const unsigned char*)icc->data() + icc->type().size()),
            profile);

  write_file(dir / "junk.png", "not a picture");
  const std::string tmpfs = "mkdir -p out && mount -t tmpfs -o size=";
  const std::string kept = "cat out/kept.png; ls -A out";
  const struct {
    std::string args, mounts, after, output;
  } failures[] = {
      {"junk.png out/x.png", "", ":", "cannot read junk.png: Not a PNG file\n"},
      {"tagged.jpg missing/x.png", "", ":", "cannot write missing/x.png: No such file or directory\n"},
      {"tagged.jpg out/kept.png", tmpfs + "1m tmpfs out && echo kept > out/kept.png && mount -o remount,ro out &&",
       kept, "cannot write out/kept.png: Read-only file system\nkept\nkept.png\n"},
      {"tagged.jpg out/kept.png", tmpfs + "8k tmpfs out && echo kept > out/kept.png &&", kept,
       "cannot write out/kept.png: No space left on device\nkept\nkept.png\n"},
  };
  for (const auto& f : failures) {
    const auto [status, output] = restore(dir, "--psf psf.png " + f.args, f.mounts, f.after);
    EXPECT_EQ(status, 11) << f.args;
    EXPECT_EQ(output, "deconv-restore: " + f.output) << f.args;
  }
  // A bad command line: status 1, one line, nothing read or written.
  for (const char* args : {"", "tagged.jpg", "--strength 201 tagged.jpg x.png", "--strength -1 tagged.jpg x.png",
                           "--workers 0 tagged.jpg x.png", "--depth 12 tagged.jpg x.png", "tagged.jpg x.png --psf"}) {
    const auto [status, output] = restore(dir, std::string("--psf psf.png ") + args);
    EXPECT_EQ(status, 1) << args;
    EXPECT_EQ(std::count(output.begin(), output.end(), '\n'), 1) << args << ": " << output;
    EXPECT_THAT(listing(dir.path), ::testing::Not(::testing::HasSubstr("x.png"))) << args;
  }
}

// --method richardson-lucy: the command restores as the library does, with
// the background given in the file's own counts.
TEST_F(Restore, RichardsonLucyTakesItsBackgroundInTheFilesCounts) {
  deconv::Image counts(64, 48, 1);
  for (size_t i = 0; i < counts.pixels.size(); ++i) counts.pixels[i] = (100 + (i * 7919 % 400)) / 65535.0f;
  write_picture(dir / "counts.tif", counts, SampleDepth::u16);
  ASSERT_EQ(restore(dir, "--psf psf.png --method richardson-lucy --iterations 7 --background 100 --depth float "
                         "counts.tif out.tif").first, 0);
  deconv::RestoreOptions options;
  options.method = "richardson-lucy", options.iterations = 7, options.background = 100 / 65535.0f;
  const deconv::Image expected = deconv::restore(read_picture(dir / "counts.tif").image,
                                                 read_picture(dir / "psf.png", SampleScale::raw).image, options);
  EXPECT_EQ(read_picture(dir / "out.tif").image.pixels, expected.pixels);
  EXPECT_EQ(restore(dir, "--psf psf.png --method blind counts.tif out.tif").first, 1);
}

}  // namespace
