// Shared helpers of the tests: temporary working folders, the three named
// semaphores, runs of the deconv binary, and small image measures.
#ifndef DECONV_TESTS_SUPPORT_TEST_SUPPORT_H
#define DECONV_TESTS_SUPPORT_TEST_SUPPORT_H

#include <gtest/gtest.h>

#include <map>
#include <string>
#include <vector>

#include "tool/cimg_config.h"

using cimg_library::CImg;
using cimg_library::CImgList;

// Removes "WorkAvailableSemaphore", "WorkCompleteSemaphore" and
// "PsfFftDoneSemaphore"; true if any of them existed.
bool remove_semaphores();
bool any_semaphore_exists();

// A fresh folder under /tmp, removed with everything in it at the end.
class TempDir {
 public:
  TempDir();
  ~TempDir();
  const std::string& path() const { return path_; }
  std::string operator/(const std::string& name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

void write_file(const std::string& path, const std::string& content, bool executable = false);
std::string read_file(const std::string& path);
bool file_exists(const std::string& path);
std::vector<std::string> list_dir(const std::string& path);

struct RunResult {
  int status = -1;        // exit status, or -1 if killed by a signal or timed out
  bool timed_out = false;
  std::string err;        // everything written on stderr
};

// Runs the deconv binary with these arguments in cwd. env entries replace or
// add variables; an empty value removes one. A run that outlives the time
// limit is killed.
RunResult run_deconv(const std::vector<std::string>& args, const std::string& cwd,
                     const std::map<std::string, std::string>& env = {}, double timeout_seconds = 60);

// Peak signal-to-noise ratio in dB of a against b (0..255 values) over the
// interior that a border of `margin` pixels leaves, at the best whole-pixel
// offset of a within +-max_shift: the restoration may stand a pixel or two off.
double psnr_best_shift(const CImg<float>& a, const CImg<float>& b, int margin, int max_shift);

// A public-domain photograph unpacked by the set-up script.
std::string test_photo(const std::string& name);

// A fixture for tests that run engines or the binary: the semaphore names are
// removed before and after each test.
class SemaphoreTest : public ::testing::Test {
 protected:
  void SetUp() override { remove_semaphores(); }
  void TearDown() override { EXPECT_FALSE(remove_semaphores()) << "a test left the semaphores behind"; }
};

#endif
