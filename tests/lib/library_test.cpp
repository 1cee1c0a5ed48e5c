// The library: deconv's numbers, an aligned result, errors for the engine's
// fatal paths, engines that run at once without meeting.
#include <dirent.h>
#include <gmock/gmock.h>

#include <cmath>
#include <thread>

#include "tests/library_support.h"
#include "tool/value_range.h"

namespace {

// Mean squared error over the interior, the result taken (dx, dy) away.
double interior_mse(const deconv::Image& result, const deconv::Image& sharp, int dx, int dy, int border = 16) {
  const int x1 = sharp.width - 1 - border, y1 = sharp.height - 1 - border;
  return as_cimg(result).crop(border + dx, border + dy, x1 + dx, y1 + dy).MSE(as_cimg(sharp).crop(border, border, x1, y1));
}

class Library : public SemaphoreTest {};

// Unaligned, an 8-bit picture divided by 255 restores to the very floats of deconv's engine.
TEST_F(Library, RestoresToTheFloatsOfDeconvsEngine) {
  const deconv::Image psf = deconv::draw_psf("motion:9,30");
  for (const deconv::Image& sharp : {testdata_crop("camera.png", 100, 60, 160, 120), testdata_crop("coffee.png", 200, 100, 150, 101)}) {
    const deconv::Image blurred = ::blurred(sharp, psf, 3);
    deconv::RestoreOptions options;
    options.strength = 10, options.workers = 1, options.align = false, options.exact = true;
    const deconv::Image ours = deconv::restore(blurred, psf, options);

    CImg<float> input = as_cimg(blurred), kernel = as_cimg(psf), output(input.width(), input.height(), 1, input.spectrum());
    normalize_to_unit_sum(kernel);
    flush_denormals_to_zero();
    CDeconv engine(1, 10);
    engine.deconv_nonblind(output, input, kernel);
    ASSERT_EQ(ours.pixels.size(), output.size());
    EXPECT_TRUE(std::equal(ours.pixels.begin(), ours.pixels.end(), output.begin())) << blurred.channels;
  }
}

// An aligned restoration matches the sharp picture best where it stands, the
// bare one a pixel toward +x and +y; far closer than the blur. Clamped, 0..1.
TEST_F(Library, AlignedResultStandsOnItsPicture) {
  const deconv::Image sharp = testdata_crop("astronaut.png", 150, 60, 200, 160), psf = deconv::draw_psf("gaussian:2");
  const deconv::Image blurred = ::blurred(sharp, psf, 3);
  deconv::RestoreOptions options;
  options.strength = 2, options.workers = 2;
  const deconv::Image aligned = deconv::restore(blurred, psf, options);
  options.align = false;
  const deconv::Image bare = deconv::restore(blurred, psf, options);
  for (int dy = -1; dy <= 1; ++dy)
    for (int dx = -1; dx <= 1; ++dx) {
      if (dx || dy) {
        EXPECT_LT(interior_mse(aligned, sharp, 0, 0), interior_mse(aligned, sharp, dx, dy));
      }
      if (dx != 1 || dy != 1) {
        EXPECT_LT(interior_mse(bare, sharp, 1, 1), interior_mse(bare, sharp, dx, dy));
      }
    }
  EXPECT_LT(interior_mse(aligned, sharp, 0, 0), interior_mse(blurred, sharp, 0, 0) / 2);

  options.clamp = true;
  const deconv::Image clamped = deconv::restore(blurred, psf, options);
  EXPECT_EQ(*std::min_element(clamped.pixels.begin(), clamped.pixels.end()), 0.0f);
  EXPECT_EQ(*std::max_element(clamped.pixels.begin(), clamped.pixels.end()), 1.0f);
}

// What would end or hang deconv's process is an error here, with its reason.
TEST_F(Library, RefusesWhatWouldEndOrHangTheEngine) {
  const deconv::Image picture = testdata_crop("camera.png", 0, 0, 64, 64), psf = deconv::draw_psf("gaussian:1");
  deconv::Image zeros(5, 5, 1), not_finite = psf, wrong_size = psf;
  not_finite.at(2, 2) = NAN;
  wrong_size.pixels.pop_back();
  deconv::RestoreOptions strong, negative, exact;
  strong.strength = 201, negative.workers = -1, exact.exact = true;
  const struct {
    deconv::Image picture, psf;
    deconv::RestoreOptions options;
    const char* reason;
  } cases[] = {
      {deconv::Image(), psf, {}, "the picture is empty"},
      {picture, deconv::Image(), {}, "the PSF is empty"},
      {picture, zeros, {}, "positive weight"},
      {picture, not_finite, {}, "not finite"},
      {picture, wrong_size, {}, "samples, not width x height"},
      {picture, psf, strong, "above 200"},
      {picture, psf, negative, "worker count is negative"},
      // The exact engine's edge taper would never end on this picture.
      {testdata_crop("camera.png", 0, 0, 20, 100), deconv::draw_psf("gaussian:2"), exact, "too small for this PSF"},
  };
  for (const auto& c : cases) {
    EXPECT_THAT(thrown<deconv::Error>([&] { deconv::restore(c.picture, c.psf, c.options); }),
                ::testing::HasSubstr(c.reason));
  }
  EXPECT_THAT(thrown<deconv::Error>([&] { deconv::draw_psf("motion:9"); }), ::testing::HasSubstr("takes LENGTH ANGLE"));
}

std::vector<std::string> shared_memory_names() {
  std::vector<std::string> names;
  if (DIR* dir = opendir("/dev/shm")) {
    while (dirent* entry = readdir(dir)) names.push_back(entry->d_name);
    closedir(dir);
  }
  std::sort(names.begin(), names.end());
  return names;
}

// Eight restorations and strength choices at once in one process, each as
// alone, no name left in /dev/shm nor the machine's names made.
TEST_F(Library, EnginesRunAtOnceWithoutMeeting) {
  const deconv::Image sharp = testdata_crop("chelsea.png", 50, 40, 150, 120), psf = deconv::draw_psf("disk:3");
  const deconv::Image blurred = ::blurred(sharp, psf, 3);
  deconv::RestoreOptions options;
  options.strength = 5, options.workers = 1;  // one worker: the float sums come in one order
  const deconv::Image alone = deconv::restore(blurred, psf, options);
  const int chosen = deconv::choose_strength(blurred, psf);
  const std::vector<std::string> before = shared_memory_names();

  std::vector<deconv::Image> results(8);
  std::vector<int> strengths(8);
  std::vector<std::thread> threads;
  for (int i = 0; i < 8; ++i)
    threads.emplace_back([&, i] {
      results[i] = deconv::restore(blurred, psf, options);
      strengths[i] = deconv::choose_strength(blurred, psf);
    });
  for (std::thread& t : threads) t.join();
  for (int i = 0; i < 8; ++i) {
    EXPECT_EQ(results[i].pixels, alone.pixels) << i;
    EXPECT_EQ(strengths[i], chosen) << i;
  }
  EXPECT_EQ(shared_memory_names(), before);
}

}  // namespace
