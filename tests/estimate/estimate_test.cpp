// deconv-estimate on photographs blurred by known kernels: shapes, fits,
// refusals, the command; a sample of bench/estimate_bench.cpp's evaluation.
#include <gmock/gmock.h>

#include "bench/estimate_cases.h"
#include "tests/support.h"

namespace {

using namespace estimate_eval;

const Photo& photo(const std::string& name) {
  static const std::vector<Photo> list = photos(DECONV_TESTDATA);
  return *std::find_if(list.begin(), list.end(), [&](const Photo& p) { return p.name == name; });
}

Case blurred_case(const std::string& name, Kind kind, double noise, unsigned seed, int side = 320) {
  std::mt19937 rng(seed);
  return make_case(photo(name), kind, noise, side, rng);
}

struct KernelCase {
  const char* photo;
  Kind kind;
  double noise;
  unsigned seed;
};

// Kernels come back in shape, as deconv takes them: an odd square, its
// largest tap 1, its first moment on the middle pixel.
TEST(Kernels, ComeBackInShapeAfterAlignment) {
  for (const KernelCase& k : {KernelCase{"camera.png", Kind::shake, 0.005, 22}, {"astronaut.png", Kind::shake, 0.005, 2},
                              {"motorcycle_left.png", Kind::motion, 0.01, 3}, {"coffee.png", Kind::disk, 0, 4}}) {
    const Case c = blurred_case(k.photo, k.kind, k.noise, k.seed);
    const deconv::PsfEstimate e = deconv::estimate_psf(to_image(c.blurred, 1.0f / 255));
    const double similarity = shape_similarity(e.psf, c.blur.psf);
    std::printf("%s %s %.1f %.1f: %s, similarity %.2f\n", k.photo, kind_name(k.kind), c.blur.a, c.blur.b,
                e.description.c_str(), similarity);
    EXPECT_GE(similarity, 0.65) << k.photo;  // these score 0.73 to 0.94; a wrong length or fragments under 0.6
    EXPECT_TRUE(e.psf.width % 2 == 1 && e.psf.width == e.psf.height) << k.photo;
    EXPECT_FLOAT_EQ(*std::max_element(e.psf.pixels.begin(), e.psf.pixels.end()), 1.0f);
    double cx, cy;
    deconv::estimation::first_moment(e.psf, cx, cy);
    EXPECT_TRUE(std::fabs(cx - e.psf.width / 2) < 1e-3 && std::fabs(cy - e.psf.height / 2) < 1e-3) << cx << " " << cy;
  }
}

// The root mean square distance of a kernel's taps from its first moment.
double spread(const deconv::Image& k) {
  double cx, cy, sum = deconv::estimation::first_moment(k, cx, cy), squares = 0;
  for (int y = 0; y < k.height; ++y)
    for (int x = 0; x < k.width; ++x) squares += k.at(x, y) * ((x - cx) * (x - cx) + (y - cy) * (y - cy));
  return std::sqrt(squares / sum);
}

// The refinement at full resolution: a long shake keeps the faint part of
// its path (refined from the band's brightest taps alone these came out at
// 0.48, 0.67 and 0.78, their tails cut; now 0.71, 0.80 and 0.86), a compact
// disk does not grow into a halo (as thick and as wide as the truth), and
// the kernel is the same whatever the number of threads.
TEST(Kernels, ALongShakeKeepsItsTailACompactDiskDoesNotGrow) {
  const struct {
    KernelCase k;
    double least;
  } shakes[] = {{{"chelsea.png", Kind::shake, 0.005, 20}, 0.65},
                {{"motorcycle_left.png", Kind::shake, 0.005, 20}, 0.75},
                {{"coffee.png", Kind::shake, 0.005, 22}, 0.84}};
  for (const auto& s : shakes) {
    const Case c = blurred_case(s.k.photo, s.k.kind, s.k.noise, s.k.seed);
    const deconv::PsfEstimate e = deconv::estimate_psf(to_image(c.blurred, 1.0f / 255));
    const double similarity = shape_similarity(e.psf, c.blur.psf);
    std::printf("%s shake %.1f: %s, similarity %.2f\n", s.k.photo, c.blur.a, e.description.c_str(), similarity);
    EXPECT_GE(similarity, s.least) << s.k.photo;
  }
  // Disks of radius 9.2 and 2.1 (now 0.99 and 1.10 times as wide as the
  // truth): from the brightest taps alone the first came out 1.10 times as
  // wide; from a cut at 0.1 of the peak the second 1.54 times as wide and
  // half as thick again.
  for (const auto& [seed, widest] : {std::pair{4u, 1.05}, {8u, 1.15}}) {
    const Case disk = blurred_case("coffee.png", Kind::disk, 0, seed);
    deconv::EstimateOptions one, two;
    one.threads = 1, two.threads = 2;
    const deconv::PsfEstimate e = deconv::estimate_psf(to_image(disk.blurred, 1.0f / 255), one);
    EXPECT_LE(thickness(e.psf, disk.blur.psf), 1.15) << disk.blur.a;
    EXPECT_LE(spread(e.psf), widest * spread(to_image(disk.blur.psf, 1.0f))) << disk.blur.a;
    EXPECT_EQ(deconv::estimate_psf(to_image(disk.blurred, 1.0f / 255), two).psf.pixels, e.psf.pixels) << disk.blur.a;
  }
}

// Each fit within the goals (these cases reach 0.2 pixel, 1.3 degrees, 0.1
// pixel and 5 %; bench_estimate prints the share within the goals), drawn
// by deconv-psf's code from the printed numbers.
TEST(Models, FitWithinTheirTolerances) {
  for (const KernelCase& m : {KernelCase{"camera.png", Kind::motion, 0.005, 5}, {"chelsea.png", Kind::motion, 0.005, 17},
                              {"chelsea.png", Kind::disk, 0.005, 7}, {"coffee.png", Kind::disk, 0.005, 8},
                              {"astronaut.png", Kind::gaussian, 0.005, 9}, {"motorcycle_left.png", Kind::gaussian, 0.005, 10}}) {
    const Case c = blurred_case(m.photo, m.kind, m.noise, m.seed);
    deconv::EstimateOptions options;
    options.model = kind_name(m.kind);
    const deconv::PsfEstimate e = deconv::estimate_psf(to_image(c.blurred, 1.0f / 255), options);
    std::printf("%s: true %.2f %.1f, fitted %s\n", m.photo, c.blur.a, c.blur.b, e.description.c_str());
    EXPECT_TRUE(fit_within_tolerance(e.description, c.blur)) << m.photo << ": " << e.description;
    double a = 0, b = 0;
    std::sscanf(e.description.c_str(), "%*s %lf %lf", &a, &b);
    EXPECT_EQ(deconv::estimation::draw(kind_name(m.kind), a, b).pixels, e.psf.pixels) << m.photo;
  }
}

deconv::Image grey(int w, int h, float value, float noise) {
  deconv::Image img(w, h, 1);
  std::mt19937 rng(1);
  std::normal_distribution<float> g(0, noise);
  for (float& v : img.pixels) v = std::round((value + (noise > 0 ? g(rng) : 0.0f)) * 255) / 255;
  return img;
}

deconv::Image with_nan(deconv::Image img, int x, int y) {
  img.at(x, y) = NAN;
  return img;
}

TEST(Refusals, SayWhy) {
  const std::pair<deconv::Image, const char*> cases[] = {
      {to_image(blurred_case("camera.png", Kind::motion, 0, 1).blurred.get_crop(0, 0, 99, 99), 1.0f / 255), "too small"},
      {grey(300, 300, 0.5f, 0.002f), "too flat"},
      {to_image(blurred_case("camera.png", Kind::disk, 0.08, 1).blurred, 1.0f / 255), "too noisy"},
      {deconv::Image(), "empty"},
      {with_nan(grey(300, 300, 0.5f, 0.01f), 7, 9), "1 samples that are not finite (NaN or infinite), the first at x 7, y 9"}};
  for (const auto& c : cases)
    EXPECT_THAT(thrown<deconv::Error>([&] { deconv::estimate_psf(c.first); }), ::testing::HasSubstr(c.second));
}

// A plane that uses a small part of its type's range, as a faint 16-bit
// detector's does, is judged by its own spread: estimated as the same plane
// stretched over the range, not refused as flat. Offset and scale are
// 2000 + 720 x of 65535, a plane of 2000 to 2720 counts.
TEST(Refusals, AFaintPlaneIsJudgedByItsOwnSpread) {
  const Case c = blurred_case("camera.png", Kind::motion, 0.005, 5);
  deconv::Image faint = to_image(c.blurred, 1.0f / 255), stretched = faint;
  for (float& v : faint.pixels) v = std::round(2000 + 720 * v) / 65535;
  for (size_t i = 0; i < faint.pixels.size(); ++i) stretched.pixels[i] = (faint.pixels[i] * 65535 - 2000) / 720;
  const deconv::PsfEstimate from_faint = deconv::estimate_psf(faint), from_stretched = deconv::estimate_psf(stretched);
  const double faint_similarity = shape_similarity(from_faint.psf, c.blur.psf);
  EXPECT_GE(faint_similarity, 0.65);
  EXPECT_NEAR(faint_similarity, shape_similarity(from_stretched.psf, c.blur.psf), 0.1);
  // Faint and noisy stays refused: the same plane under noise of a fifth of its spread.
  std::mt19937 rng(3);
  std::normal_distribution<float> noise(0, 0.2f * 720 / 65535);
  for (float& v : faint.pixels) v += noise(rng);
  EXPECT_THAT(thrown<deconv::Error>([&] { deconv::estimate_psf(faint); }), ::testing::HasSubstr("too noisy"));
}

// Progress: every scale of the pyramid from the coarsest to the picture's own,
// then the refinement and the check, in that order.
TEST(Progress, EveryStageAndScaleInOrder) {
  const Case c = blurred_case("camera.png", Kind::motion, 0, 5);
  std::vector<std::pair<std::string, double>> told;
  deconv::EstimateOptions options;
  options.progress = [&](const std::string& stage, double scale) { told.emplace_back(stage, scale); };
  deconv::estimate_psf(to_image(c.blurred, 1.0f / 255), options);
  ASSERT_GE(told.size(), 4u);
  const size_t scales = told.size() - 2;
  for (size_t i = 0; i < scales; ++i) {
    EXPECT_EQ(told[i].first, "coarse to fine");
    if (i) EXPECT_GT(told[i].second, told[i - 1].second);
  }
  EXPECT_EQ(told[scales - 1].second, 1.0);
  EXPECT_EQ(told[scales], std::make_pair(std::string("refining"), 1.0));
  EXPECT_EQ(told[scales + 1], std::make_pair(std::string("checking"), 1.0));
}

// The command: statuses, the line it prints, the file it writes or leaves alone.
std::pair<int, std::string> run(const TempDir& dir, const std::string& args) {
  return shell("cd '" + dir.path + "' && " DECONV_ESTIMATE_BINARY " " + args + " </dev/null");
}

TEST(Command, StatusesAndFiles) {
  TempDir dir;
  const Case c = blurred_case("camera.png", Kind::motion, 0, 5);
  c.blurred.save_pnm((dir / "blurred.pgm").c_str());
  CImg<float>(300, 300, 1, 1, 128).save_pnm((dir / "flat.pgm").c_str());

  for (const auto& [args, says] : {std::pair{"blurred.pgm psf.png", "kernel "}, {"--model motion blurred.pgm psf.png", "motion "}}) {
    const auto [status, text] = run(dir, args);
    EXPECT_TRUE(status == 0 && text.rfind(says, 0) == 0) << status << " " << text;
    EXPECT_EQ(load(dir / "psf.png").max(), 65535) << "16 bits, the largest tap white";
  }

  const struct {
    const char* args;
    int status;
    const char* says;
  } failures[] = {
      {"", 1, "INPUT and PSF_OUT"},
      {"--size 2 blurred.pgm out.png", 1, "--size"},
      {"--region 1,2,3 blurred.pgm out.png", 1, "--region"},
      {"--model box blurred.pgm out.png", 1, "unknown model"},
      {"--frobnicate blurred.pgm out.png", 1, "unknown option"},
      {"missing.pgm out.png", 11, "missing.pgm"},
      {"flat.pgm out.png", 11, "flat.pgm: cannot estimate the blur: the picture is too flat"},
      {"--region 250,0,100,100 blurred.pgm out.png", 11, "not inside the picture"},
  };
  for (const auto& f : failures) {
    const auto [status, text] = run(dir, f.args);
    EXPECT_EQ(status, f.status) << f.args;
    EXPECT_NE(text.find(f.says), std::string::npos) << f.args << ": " << text;
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 1) << f.args << ": " << text;
    EXPECT_FALSE(std::ifstream(dir / "out.png").good()) << f.args;
  }
  EXPECT_THAT(run(dir, "--help"), ::testing::Pair(0, ::testing::HasSubstr("--region X,Y,W,H")));
  // Progress on stderr only when asked: the command's stderr is not a terminal here.
  EXPECT_THAT(run(dir, "--progress blurred.pgm psf.png"),
              ::testing::Pair(0, ::testing::HasSubstr("deconv-estimate: blurred.pgm: refining at scale 1\n")));
  EXPECT_THAT(run(dir, "blurred.pgm psf.png"), ::testing::Pair(0, ::testing::StartsWith("kernel ")));
}

// A sample of the evaluation, on its pictures of 800 pixels: a restoration
// with the estimated PSF against one with the true PSF, both at
// deconv-strength's strength.
class Evaluation : public SemaphoreTest {};

TEST_F(Evaluation, RestoresNearlyAsWellAsTheTruePsfAndNeverWorseThanTheBlur) {
  const KernelCase cases[] = {{"astronaut.png", Kind::shake, 0.005, 11},  {"camera.png", Kind::motion, 0, 12},
                              {"chelsea.png", Kind::disk, 0.01, 13},      {"coffee.png", Kind::gaussian, 0.005, 14},
                              {"motorcycle_left.png", Kind::shake, 0, 15}, {"rocket.jpg", Kind::motion, 0.01, 16}};
  int within3 = 0, worse = 0;
  for (const KernelCase& k : cases) {
    const Case c = blurred_case(k.photo, k.kind, k.noise, k.seed, picture_side);
    const Outcome o = evaluate(c, deconv::EstimateOptions());
    std::printf("%s %s: ratio %.2f (%s)\n", k.photo, kind_name(k.kind), o.ratio(), o.refused ? o.reason.c_str() : o.description.c_str());
    within3 += o.ratio() <= 3;
    worse += !o.refused && o.mse_estimated > o.mse_blurred;
  }
  // Now 4 of 6 within 3 (one shake refused, another at 4.2) and
  // none worse than its blurred picture (bench_estimate: 77 % within 3).
  EXPECT_GE(within3, 4);
  EXPECT_EQ(worse, 0);
}

}  // namespace


