// Output bytes of restorations pinned by their SHA-256, taken before any change
// for speed: a faster path must give the same bytes. One worker, one order of
// sums; with more, a byte may differ by one.
#include "tests/support.h"
#include "tool/image_io.h"

namespace {

std::string sha256(const std::string& path) {
  std::string digest(64, ' ');
  std::FILE* const pipe = popen(("sha256sum '" + path + "'").c_str(), "r");
  const size_t got = std::fread(&digest[0], 1, 64, pipe);
  pclose(pipe);
  return got == 64 ? digest : "unreadable";
}

CImg<float> disk(int radius) {
  CImg<float> img(2 * radius + 1, 2 * radius + 1);
  cimg_forXY(img, x, y) img(x, y) = std::hypot(x - radius, y - radius) <= radius ? 255 : 0;
  return img;
}

class PinnedResults : public SemaphoreTest {
 protected:
  TempDir dir;
};

TEST_F(PinnedResults, RestorationsKeepTheirBytes) {
  CImg<float> photo, colour_psf(7, 7, 1, 3);
  for (int c = 0; c < 3; ++c) colour_psf.get_shared_channel(c) = gaussian(7, 1.2f);
  load_image(photo, DECONV_TESTDATA "/astronaut.png");
  struct {
    int x, y, w, h;
    bool grey;
    CImg<float> psf;
    const char* strength;
    const char* sha256;
  } cases[] = {
      {60, 40, 160, 128, false, gaussian(9, 1.6f), "10",
       "dfacaa353ea1003f3fb3feb0e61f06d2e411baa6a9c9f1911277450363a07822"},  // even sides
      {200, 90, 151, 131, true, disk(3), "30",
       "ce8eb49cc3605ee8bc28289e25e1d60baf6a10ff3ed238d34fc98aa6239c4f31"},  // odd sides
      {30, 250, 127, 113, true, CImg<float>(9, 1, 1, 1, 255), "10",
       "f28ef2815211d582ff7fe13a6db6823fa198daaed2ddfdb2dcdc91e55c40c86a"},  // prime sides, linear motion
      {300, 120, 211, 199, false, gaussian(7, 1.0f), "0",
       "7956caacfe9bea778e27c675121adc7f0e2404cdb8bccdfcc9fe68140e1ca450"},  // prime, no regularisation
      {100, 300, 64, 48, false, CImg<float>(4, 4, 1, 1, 255), "200",
       "ca58c2978a11215d0aacff731416a1ab5d41c28debc55f6dea6ae2fa229a2a15"},  // an even PSF
      {250, 250, 23, 19, false, gaussian(31, 4.0f), "10",
       "6a9c2693845b84cd6f539d3adf3c6cd000fa118837b475799560665261bbe8a8"},  // the PSF larger than the picture
      {60, 40, 96, 80, false, CImg<float>(1, 1, 1, 1, 255), "10",
       "9ad1d5978836d3f8eadc6ccefa76418b84c8ebf2c417ea986b38d92b13850326"},  // nothing to undo
      {60, 40, 160, 160, false, colour_psf, "10",
       "9192bd93634e1679e18c1119633bc1de56fd34d61fc5b2da43c5b81d9d02e097"},  // the first plane sums to 1/3: centring overshoots
  };
  for (const auto& c : cases) {
    CImg<float> sharp = photo.get_crop(c.x, c.y, c.x + c.w - 1, c.y + c.h - 1);
    if (c.grey) sharp = (sharp.get_channel(0) + sharp.get_channel(1) + sharp.get_channel(2)) / 3;
    sharp.get_convolve(c.psf.get_channel(0) / c.psf.get_channel(0).sum(), 1).round().save_pnm((dir / "blurred.pnm").c_str());
    c.psf.save_pnm((dir / "psf.pgm").c_str());
    ASSERT_EQ(dir.run(std::string("blurred.pnm psf.pgm restored.pnm 1 95 ") + c.strength).first, 0);
    EXPECT_EQ(sha256(dir / "restored.pnm"), c.sha256) << c.w << "x" << c.h;
    // The derivative jobs add into S in the order they finish.
    for (const char* workers : {" 2", " 3", " 8"}) {
      ASSERT_EQ(dir.run(std::string("blurred.pnm psf.pgm more.pnm") + workers + " 95 " + c.strength).first, 0);
      EXPECT_LE((load(dir / "more.pnm") - load(dir / "restored.pnm")).abs().max(), 1) << c.w << "x" << c.h << workers;
    }
  }
  // The bundled example, a PNG in, as the demo restores it.
  ASSERT_EQ(dir.run(std::string("'") + DECONV_SOURCE "/examples/astronaut_blurred.png' '" DECONV_SOURCE
                                                     "/examples/motion_psf.png' restored.pnm 1")
                .first,
            0);
  EXPECT_EQ(sha256(dir / "restored.pnm"), "ce0b510b5d143740dc9bfd3082f967b4a064988af861fd6d16e431d6af2441c2");
}

}  // namespace
