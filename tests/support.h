// Helpers of the tests: the engine's named semaphores, exceptions as text,
// temporary folders, commands and runs of deconv through the shell.
#ifndef DECONV_TESTS_SUPPORT_H
#define DECONV_TESTS_SUPPORT_H

#include <gtest/gtest.h>
#include <semaphore.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <sstream>

#include "bench/photo_cases.h"
#include "tool/image_io.h"

using cimg_library::CImg;
using cimg_library::CImgList;

inline bool remove_semaphores() {  // true if any of the three names existed
  bool any = false;
  for (const char* name : {"WorkAvailableSemaphore", "WorkCompleteSemaphore", "PsfFftDoneSemaphore"})
    any |= sem_unlink(name) == 0;
  return any;
}

// The text of the exception E that f throws (an int as its digits).
template <class E, class F>
std::string thrown(F f) {
  try {
    f();
  } catch (E& e) {
    if constexpr (std::is_same_v<E, int>)
      return std::to_string(e);
    else
      return e.what();
  }
  return "nothing thrown";
}

inline CImg<float> load(const std::string& path) {
  CImg<float> img;
  load_image(img, path.c_str());
  return img;
}

inline std::string read_file(const std::string& path) {
  std::stringstream content;
  content << std::ifstream(path, std::ios::binary).rdbuf();
  return content.str();
}

inline void write_file(const std::string& path, const std::string& content) {
  std::ofstream(path, std::ios::binary) << content;
}

// `command` run by the shell: its status, and its stdout and stderr together.
inline std::pair<int, std::string> shell(const std::string& command) {
  std::string out;
  FILE* pipe = popen(("{ " + command + "; } 2>&1").c_str(), "r");
  char buffer[4096];
  for (size_t n; (n = fread(buffer, 1, sizeof buffer, pipe)) > 0;) out.append(buffer, n);
  return {WEXITSTATUS(pclose(pipe)), out};
}

struct TempDir {
  std::string path;
  TempDir() {
    char pattern[] = "/tmp/deconv-test-XXXXXX";
    path = mkdtemp(pattern);
  }
  ~TempDir() { EXPECT_EQ(std::system(("rm -rf '" + path + "'").c_str()), 0); }
  std::string operator/(const std::string& name) const { return path + "/" + name; }
  // Runs the binary here with shell-quoted arguments and `env` settings;
  // status and stderr. A run past its time is killed (status 137).
  std::pair<int, std::string> run(const std::string& args, const std::string& env = "", int seconds = 60) const {
    const int status =
        std::system(("cd '" + path + "' && env " + env + " /usr/bin/timeout -s KILL " + std::to_string(seconds) +
                     " " DECONV_BINARY " " + args + " </dev/null >/dev/null 2>.stderr")
                        .c_str());
    return {WEXITSTATUS(status), read_file(path + "/.stderr")};
  }
};

// Tests that make engines or run the binary clear the semaphore names before,
// and must not leave them behind.
class SemaphoreTest : public ::testing::Test {
 protected:
  void SetUp() override { remove_semaphores(); }
  void TearDown() override { EXPECT_FALSE(remove_semaphores()) << "the semaphores were left behind"; }
};

#endif
