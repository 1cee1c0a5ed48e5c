// Restoration in linear light and around clipped highlights: the sRGB curve,
// the clipped set dilated as the blur spreads light, restore() decoding and
// encoding again, a clipped lamp that does not ring, and the light of files.
#include <gmock/gmock.h>

#include <cmath>
#include <random>

#include "imaging/srgb.h"
#include "lib/highlights.h"
#include "picture/light.h"
#include "picture/picture_file.h"
#include "tests/library_support.h"

namespace {

using deconv::imaging::srgb_decode;
using deconv::imaging::srgb_decode_exact;
using deconv::imaging::srgb_encode;
using deconv::imaging::srgb_encode_exact;

const std::string camera = "/usr/lib/python3/dist-packages/skimage/data/camera.png";

// Every 8-bit value comes back to well within half a step; the tables stay
// within 4e-6 of the formulas, across the knee too, and beyond 0..1 (mirrored below 0).
TEST(SrgbCurve, GivesEveryEightBitValueBackAndFollowsTheFormulas) {
  for (int k = 0; k < 256; ++k) EXPECT_NEAR(srgb_encode(srgb_decode(k / 255.0f)) * 255, k, 0.01) << k;
  for (int i = 0; i <= 100000; ++i) {
    const double v = i / 100000.0;
    ASSERT_NEAR(srgb_decode((float)v), srgb_decode_exact(v), 4e-6) << v;
    ASSERT_NEAR(srgb_encode((float)v), srgb_encode_exact(v), 4e-6) << v;
  }
  EXPECT_NEAR(srgb_decode_exact(0.5), 0.214041, 1e-6);  // the standard's own curve, not a plain gamma
  EXPECT_NEAR(srgb_encode_exact(0.002), 0.02584, 1e-6);  // its straight segment
  EXPECT_FLOAT_EQ(srgb_encode(-0.25f), -srgb_encode(0.25f));
  EXPECT_NEAR(srgb_decode(1.5f), srgb_decode_exact(1.5), 1e-5);
  EXPECT_TRUE(std::isnan(srgb_encode(NAN)));
  // The array forms agree with the one-sample ones, and come back.
  const std::vector<float> given = {0.0f, 0.25f, 1.0f, 2.0f, -0.5f};
  std::vector<float> many = given;
  srgb_encode(many.data(), many.size());
  for (size_t i = 0; i < many.size(); ++i) EXPECT_FLOAT_EQ(many[i], srgb_encode(given[i])) << given[i];
  srgb_decode(many.data(), many.size());
  for (size_t i = 0; i < many.size(); ++i) EXPECT_NEAR(many[i], given[i], 1e-5) << given[i];
}

// One clipped sample and a PSF whose taps lie to its right: the samples its
// light reaches are weighed 0, none to the left; nothing clipped, or no level, gives no weights.
TEST(HighlightWeights, FollowTheBlurFromEachClippedSample) {
  deconv::spectral::Workers workers(2);
  std::vector<float> data(9 * 16, 0.5f);
  data[4 * 16 + 6] = 1.0f;
  const std::vector<float> psf = {0, 0, 0.2f, 0.3f, 0.5f};  // centre at 2: offsets 0, 1, 2
  size_t masked = 0;
  const std::vector<float> w = libdeconv::highlight_weights(data.data(), {9, 16}, psf.data(), {1, 5}, 0.98f, workers,
                                                            &masked);
  ASSERT_EQ(w.size(), data.size());
  EXPECT_EQ(masked, 3u);
  for (int x = 0; x < 16; ++x) EXPECT_EQ(w[4 * 16 + x], x >= 6 && x <= 8 ? 0.0f : 1.0f) << x;
  EXPECT_TRUE(libdeconv::highlight_weights(data.data(), {9, 16}, psf.data(), {1, 5}, 1.01f, workers).empty());
  EXPECT_TRUE(libdeconv::highlight_weights(data.data(), {9, 16}, psf.data(), {1, 5}, 0.0f, workers).empty());
  // At the last column the light leaves the picture: nothing wraps round.
  data[4 * 16 + 6] = 0.5f, data[2 * 16 + 15] = 1.0f;
  const std::vector<float> edge = libdeconv::highlight_weights(data.data(), {9, 16}, psf.data(), {1, 5}, 0.98f, workers);
  EXPECT_EQ(std::count(edge.begin(), edge.end(), 0.0f), 1);
}

deconv::Image camera_crop(int x, int y, int w, int h) { return estimate_eval::photo_crop(camera, x, y, w, h, true); }

// With light "encoded" the picture is decoded, restored and encoded again:
// a delta PSF gives an 8-bit picture back, a blur the linear restoration of
// the decoded picture, encoded, the same samples left out. The filter cannot
// leave samples out: it says so where a level was named, and is silent where
// the level is automatic, as richardson-lucy is with the highlights off.
TEST(RestoreInLight, DecodesRestoresAndEncodesAgainAndTellsOfClippedSamples) {
  const deconv::Image picture = camera_crop(100, 80, 64, 56);
  deconv::Image delta(1, 1, 1);
  delta.pixels[0] = 1;
  deconv::RestoreOptions options;
  options.method = "richardson-lucy", options.iterations = 8, options.light = "encoded", options.workers = 2;
  const deconv::Image same = deconv::restore(picture, delta, options);
  for (size_t i = 0; i < picture.pixels.size(); ++i) ASSERT_NEAR(same.pixels[i] * 255, picture.pixels[i] * 255, 0.01) << i;

  deconv::Image lit = picture;  // a lamp, clipped
  for (int y = 20; y < 26; ++y)
    for (int x = 30; x < 36; ++x) lit.at(x, y) = 1;
  const deconv::Image psf = deconv::draw_psf("gaussian:1.5");
  std::vector<std::string> said_encoded, said_linear;
  options.notice = [&](const std::string& m) { said_encoded.push_back(m); };
  deconv::Image via_library = deconv::restore(lit, psf, options);
  deconv::Image decoded = lit;
  srgb_decode(decoded.pixels.data(), decoded.pixels.size());
  deconv::RestoreOptions linear = options;
  linear.light = "linear", linear.highlights = srgb_decode(0.98f);
  linear.notice = [&](const std::string& m) { said_linear.push_back(m); };
  deconv::Image by_hand = deconv::restore(decoded, psf, linear);
  srgb_encode(by_hand.pixels.data(), by_hand.pixels.size());
  for (size_t i = 0; i < by_hand.pixels.size(); ++i) ASSERT_NEAR(via_library.pixels[i], by_hand.pixels[i], 1e-6) << i;
  ASSERT_EQ(said_encoded.size(), 1u);
  EXPECT_EQ(said_encoded, said_linear);
  EXPECT_THAT(said_encoded[0], testing::StartsWith("left "));

  options.light = "display";
  EXPECT_THAT(thrown<deconv::Error>([&] { deconv::restore(picture, psf, options); }),
              testing::HasSubstr("unknown light 'display'"));
  const auto notices = [&](const std::string& method, float highlights) {
    std::vector<std::string> said;
    deconv::RestoreOptions told;
    told.method = method, told.highlights = highlights, told.iterations = 3, told.strength = 10;
    told.notice = [&](const std::string& m) { said.push_back(m); };
    deconv::restore(lit, psf, told);
    return said;
  };
  EXPECT_THAT(notices("wiener", 0.99f), testing::ElementsAre(testing::StartsWith("36 samples are clipped highlights")));
  EXPECT_THAT(notices("wiener", 0), testing::IsEmpty());
  EXPECT_THAT(notices("richardson-lucy", -1), testing::IsEmpty());
}

// Told the picture is encoded, the estimator gives the decoded picture's estimate, to the bit.
TEST(RestoreInLight, TheEstimatorDecodesToo) {
  const deconv::Image picture = blurred(camera_crop(140, 60, 240, 200), deconv::draw_psf("motion:7,30"), 1);
  deconv::Image decoded = picture;
  srgb_decode(decoded.pixels.data(), decoded.pixels.size());
  deconv::EstimateOptions options;
  options.max_size = 15, options.threads = 2;
  const deconv::PsfEstimate from_light = deconv::estimate_psf(decoded, options);
  options.light = "encoded";
  const deconv::PsfEstimate from_encoded = deconv::estimate_psf(picture, options);
  EXPECT_EQ(from_encoded.psf.pixels, from_light.psf.pixels);
  EXPECT_EQ(from_encoded.description, from_light.description);
  options.light = "gamma";
  EXPECT_THAT(thrown<deconv::Error>([&] { deconv::estimate_psf(picture, options); }),
              testing::HasSubstr("unknown light 'gamma'"));
}

// The root mean square over 1-pixel rings about a point of each ring's mean
// error: detail averages out along a ring, a ring of the restoration's own does not.
double ringing(const deconv::Image& restored, const deconv::Image& truth, double cx, double cy, int inner, int outer) {
  std::vector<double> sum(outer, 0), count(outer, 0);
  for (int y = 0; y < truth.height; ++y)
    for (int x = 0; x < truth.width; ++x) {
      const int r = (int)std::hypot(x - cx, y - cy);
      if (r >= inner && r < outer) sum[r] += restored.at(x, y) - truth.at(x, y), count[r] += 1;
    }
  double s = 0;
  for (int r = inner; r < outer; ++r) s += std::pow(sum[r] / count[r], 2);
  return std::sqrt(s / (outer - inner));
}

// A lamp eight times the clipping level, clipped: left out of the fit, it
// rings a third as much as when its clipped values are believed, the rest no worse.
TEST(Highlights, AClippedLampDoesNotRing) {
  deconv::Image truth = camera_crop(150, 100, 112, 112);
  const double cx = 56, cy = 50;
  for (int y = 0; y < truth.height; ++y)
    for (int x = 0; x < truth.width; ++x)
      truth.at(x, y) = std::hypot(x - cx, y - cy) < 4 ? 8.0f : truth.at(x, y) * 0.6f;
  const deconv::Image psf = deconv::draw_psf("gaussian:2");
  deconv::Image data = blurred(truth, psf, 1);
  for (float& v : data.pixels) v = std::min(v, 1.0f);
  deconv::RestoreOptions options;
  options.method = "richardson-lucy", options.iterations = 40, options.workers = 2;
  options.highlights = -1;
  const deconv::Image believed = deconv::restore(data, psf, options);
  options.highlights = 0;
  const deconv::Image masked = deconv::restore(data, psf, options);
  const int reach = 4 + psf.width / 2 + 1;
  const double rings_believed = ringing(believed, truth, cx, cy, reach, 45);
  const double rings_masked = ringing(masked, truth, cx, cy, reach, 45);
  EXPECT_LT(rings_masked, rings_believed / 3) << rings_masked << " " << rings_believed;
  double far_believed = 0, far_masked = 0;
  for (int y = 0; y < truth.height; ++y)
    for (int x = 0; x < truth.width; ++x)
      if (std::hypot(x - cx, y - cy) > 45) {
        far_believed += std::pow(believed.at(x, y) - truth.at(x, y), 2);
        far_masked += std::pow(masked.at(x, y) - truth.at(x, y), 2);
      }
  EXPECT_LT(far_masked, far_believed * 1.05) << far_masked << " " << far_believed;
  // The lamp itself keeps its clipped values.
  EXPECT_FLOAT_EQ(masked.at((int)cx, (int)cy), 1.0f);
}

// A photograph as a camera forms it (decoded, blurred, Poisson noise,
// encoded, 8 bits), restored in light: the automatic stop lands within 0.6 dB
// of the best iteration count. Its sides differ: a noise measure that took
// the step where the transforms wrap round stopped 3 dB short.
TEST(RestoreInLight, StopsNearTheBestIterationOnAPhotograph) {
  deconv::Image light = camera_crop(180, 60, 160, 128);
  srgb_decode(light.pixels.data(), light.pixels.size());
  for (float& v : light.pixels) v *= 0.7f;
  const deconv::Image psf = deconv::draw_psf("gaussian:2");
  deconv::Image stored = blurred(light, psf, 1), truth = light;
  std::mt19937 rng(3);
  for (float& v : stored.pixels)
    v = std::round(srgb_encode(std::min(1.0f, std::poisson_distribution<int>(v * 3000)(rng) / 3000.0f)) * 255) / 255;
  srgb_encode(truth.pixels.data(), truth.pixels.size());
  const auto psnr = [&](const deconv::Image& out) {
    double sum = 0;
    for (size_t i = 0; i < out.pixels.size(); ++i) sum += std::pow(std::clamp(out.pixels[i], 0.0f, 1.0f) - truth.pixels[i], 2);
    return 10 * std::log10(out.pixels.size() / sum);
  };
  deconv::RestoreOptions options;
  options.method = "richardson-lucy", options.light = "encoded", options.workers = 2;
  const double automatic = psnr(deconv::restore(stored, psf, options));
  double best = 0;
  for (const int iterations : {4, 6, 8, 11, 15, 20, 27}) {
    options.iterations = iterations;
    best = std::max(best, psnr(deconv::restore(stored, psf, options)));
  }
  EXPECT_GT(automatic, best - 0.6) << automatic << " " << best;
}

// --light auto: a JPEG is encoded, a 16-bit TIFF linear, and so is a file
// whose colour space or ICC tone curve says linear; deconv-restore's
// richardson-lucy takes that choice.
TEST(PictureLight, CommandsTakeAJpegForEncodedAndASixteenBitTiffForLinear) {
  TempDir dir;
  const deconv::Image picture = camera_crop(100, 80, 48, 40);
  write_picture(dir / "photo.jpg", picture, SampleDepth::u8);
  write_picture(dir / "counts.tif", picture, SampleDepth::u16);
  write_picture(dir / "psf.png", deconv::draw_psf("gaussian:1.2"), SampleDepth::u16);
  EXPECT_EQ(light_of(read_picture(dir / "photo.jpg")), "encoded");
  EXPECT_EQ(light_of(read_picture(dir / "counts.tif")), "linear");
  EXPECT_EQ(light_for("linear", read_picture(dir / "photo.jpg")), "linear");

  PictureFile file;
  file.depth = SampleDepth::u8;
  EXPECT_EQ(light_of(file), "encoded");
  file.header.attribute("oiio:ColorSpace", "linear");
  EXPECT_EQ(light_of(file), "linear");
  file.depth = SampleDepth::u16;
  file.header.attribute("oiio:ColorSpace", "sRGB");
  EXPECT_EQ(light_of(file), "encoded");
  // An ICC profile whose one tag is a red tone curve of gamma 1, then 2.2.
  std::vector<unsigned char> icc(160, 0);
  const unsigned char table[] = {1, 'r', 'T', 'R', 'C', 0, 0, 0, 144, 0, 0, 0, 14, 'c', 'u', 'r', 'v', 0, 0, 0, 0, 0, 0, 0, 1};
  std::copy(std::begin(table), std::end(table), icc.begin() + 131);
  for (const auto& [gamma, light] : {std::pair{0x100, "linear"}, {0x233, "encoded"}}) {
    icc[156] = gamma >> 8, icc[157] = gamma & 0xFF;
    file.header.attribute("ICCProfile", OIIO::TypeDesc(OIIO::TypeDesc::UINT8, (int)icc.size()), icc.data());
    EXPECT_EQ(light_of(file), light);
  }

  const auto result = [&](const std::string& input, const std::string& light) {
    const auto [status, said] = shell("cd '" + dir.path + "' && " DECONV_RESTORE_BINARY
                                      " --psf psf.png --method richardson-lucy --iterations 5 --depth float --light " +
                                      light + " " + input + " out-" + light + ".tif");
    EXPECT_EQ(status, 0) << said;
    return read_picture(dir / ("out-" + light + ".tif")).image.pixels;
  };
  for (const auto& [input, chosen, other] : {std::tuple<std::string, std::string, std::string>{"photo.jpg", "encoded", "linear"},
                                             {"counts.tif", "linear", "encoded"}}) {
    const std::vector<float> automatic = result(input, "auto");
    EXPECT_EQ(automatic, result(input, chosen)) << input;
    EXPECT_NE(automatic, result(input, other)) << input;
  }
}

}  // namespace
