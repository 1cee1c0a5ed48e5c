// The PSF's preparation: its canvas, centring by the first moment, and the
// support that sets the taper's width.
#include "tests/engine/engine_fixture.h"

namespace {

CImg<float> impulses(int w, int h, std::initializer_list<std::tuple<int, int, float>> taps) {
  CImg<float> img(w, h, 1, 1, 0);
  for (const auto& [x, y, v] : taps) img(x, y) = v;
  return img;
}

class PsfCentring : public EngineTest {};

TEST_F(PsfCentring, MovesTheMassToTheCentreAndNormalises) {
  CImg<float> centred = impulses(21, 21, {{10, 10, 1}});
  engine->RecenterPsf(centred);
  EXPECT_EQ(centred, impulses(21, 21, {{10, 10, 1}}));

  CImg<float> off = impulses(9, 9, {{2, 3, 0.25f}, {3, 3, 0.75f}});
  engine->RecenterPsf(off);
  EXPECT_EQ(off, impulses(9, 9, {{3, 4, 0.25f}, {4, 4, 0.75f}}));
}

TEST_F(PsfCentring, AHalfPixelCentroidRoundsUp) {
  // Either pair ends with its centroid half a pixel left of the centre (4, 4).
  for (const int left : {3, 4}) {
    CImg<float> pair = impulses(9, 9, {{left, 4, 0.5f}, {left + 1, 4, 0.5f}});
    engine->RecenterPsf(pair);
    EXPECT_EQ(pair, impulses(9, 9, {{3, 4, 0.5f}, {4, 4, 0.5f}})) << "pair from x = " << left;
  }
}

TEST_F(PsfCentring, RefusesShapesOtherThanOddSquares) {
  for (const auto& [w, h] : {std::pair{4, 4}, std::pair{5, 3}}) {
    CImg<float> psf(w, h, 1, 1, 1.0f);
    EXPECT_THROW(engine->RecenterPsf(psf), cimg_library::CImgArgumentException);
    EXPECT_EQ(psf, CImg<float>(w, h, 1, 1, 1.0f));
  }
}

TEST_F(PsfCentring, SupportIsTheSmallestOddWidthTwoBeyondTheBox) {
  CImg<float> canvas(21, 21, 1, 1, 0);
  EXPECT_EQ(engine->FindSupport(canvas), 3);
  canvas(10, 10) = 1;
  EXPECT_EQ(engine->FindSupport(canvas), 3);
  canvas.fill(0).draw_rectangle(3, 8, 9, 12, std::vector<float>{1.0f}.data());  // 7 x 5
  EXPECT_EQ(engine->FindSupport(canvas), 9);
  canvas.fill(0).draw_rectangle(2, 2, 9, 9, std::vector<float>{1.0f}.data());  // 8 x 8
  EXPECT_EQ(engine->FindSupport(canvas), 11);
}

// deconv_nonblind leaves the prepared PSF in its argument.
struct Canvas {
  const char* name;
  CImg<float> psf;
  CImg<float> prepared;
};

void PrintTo(const Canvas& c, std::ostream* os) { *os << c.name; }

class PsfCanvas : public SemaphoreTest, public ::testing::WithParamInterface<Canvas> {};

TEST_P(PsfCanvas, PreparesThePsfOnATwiceWideCanvas) {
  CDeconv engine(2, 10);
  CImg<float> psf = GetParam().psf, picture(32, 32, 1, 1, 0.5f), result(32, 32);
  engine.deconv_nonblind(result, picture, psf);
  const CImg<float>& expected = GetParam().prepared;
  ASSERT_TRUE(psf.is_sameXYZC(expected)) << psf.width() << "x" << psf.height() << "x" << psf.spectrum();
  for (size_t k = 0; k < psf.size(); ++k) EXPECT_NEAR(psf[k], expected[k], 1e-6) << "at offset " << k;
}

CImg<float> box(int w, int h, int x0, int y0, int bw, int bh) {
  CImg<float> img(w, h, 1, 1, 0);
  for (int y = y0; y < y0 + bh; ++y)
    for (int x = x0; x < x0 + bw; ++x) img(x, y) = 1.0f / (bw * bh);
  return img;
}

CImg<float> planes_of_thirds() {
  CImg<float> psf(3, 3, 1, 3, 0);
  for (int c = 0; c < 3; ++c) psf(1, 1, 0, c) = 1.0f / 3;
  return psf;
}

INSTANTIATE_TEST_SUITE_P(
    Shapes, PsfCanvas,
    ::testing::Values(Canvas{"onePixel", CImg<float>(1, 1, 1, 1, 1.0f), impulses(3, 3, {{1, 1, 1}})},
                      // 10 x 10 lands at (5, 5); the corners' centroid is already central.
                      Canvas{"evenSize", impulses(10, 10, {{0, 0, 0.5f}, {9, 9, 0.5f}}),
                             impulses(21, 21, {{5, 5, 0.5f}, {14, 14, 0.5f}})},
                      Canvas{"narrowAndTall", box(5, 9, 0, 0, 5, 9), box(11, 11, 3, 1, 5, 9)},
                      // 5 x 21 on 11 x 11: the top five rows (with the 7) are cut away.
                      Canvas{"tallerThanCanvas", impulses(5, 21, {{2, 10, 1}, {2, 0, 7}}), impulses(11, 11, {{5, 5, 1}})},
                      // Only the first plane stays, summing to 1/3: the centroid counts a
                      // third of the true position, and the shift overshoots to (6, 6).
                      Canvas{"threePlanes", planes_of_thirds(), impulses(7, 7, {{6, 6, 1}})}),
    [](const auto& info) { return std::string(info.param.name); });

}  // namespace
