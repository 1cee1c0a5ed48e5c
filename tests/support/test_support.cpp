#include "tests/support/test_support.h"

#include <dirent.h>
#include <fcntl.h>
#include <semaphore.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cmath>
#include <cstring>
#include <fstream>
#include <sstream>
#include <thread>

namespace {
const char* const semaphore_names[] = {"WorkAvailableSemaphore", "WorkCompleteSemaphore", "PsfFftDoneSemaphore"};
}

bool remove_semaphores() {
  bool any = false;
  for (const char* name : semaphore_names) any |= sem_unlink(name) == 0;
  return any;
}

bool any_semaphore_exists() {
  for (const char* name : semaphore_names)
    if (file_exists(std::string("/dev/shm/sem.") + name)) return true;
  return false;
}

TempDir::TempDir() {
  char pattern[] = "/tmp/deconv-test-XXXXXX";
  path_ = mkdtemp(pattern);
}

TempDir::~TempDir() {
  const std::string command = "rm -rf '" + path_ + "'";
  if (std::system(command.c_str()) != 0) ADD_FAILURE() << "could not remove " << path_;
}

void write_file(const std::string& path, const std::string& content, const bool executable) {
  std::ofstream(path, std::ios::binary) << content;
  chmod(path.c_str(), executable ? 0755 : 0644);
}

std::string read_file(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream content;
  content << in.rdbuf();
  return content.str();
}

bool file_exists(const std::string& path) { return access(path.c_str(), F_OK) == 0; }

std::vector<std::string> list_dir(const std::string& path) {
  std::vector<std::string> names;
  if (DIR* const dir = opendir(path.c_str())) {
    while (dirent* const entry = readdir(dir))
      if (std::strcmp(entry->d_name, ".") && std::strcmp(entry->d_name, "..")) names.push_back(entry->d_name);
    closedir(dir);
  }
  return names;
}

RunResult run_deconv(const std::vector<std::string>& args, const std::string& cwd,
                     const std::map<std::string, std::string>& env, const double timeout_seconds) {
  char err_path[] = "/tmp/deconv-stderr-XXXXXX";
  const int err_fd = mkstemp(err_path);
  const pid_t pid = fork();
  if (pid == 0) {
    if (chdir(cwd.c_str()) != 0) _exit(127);
    const int null_fd = open("/dev/null", O_RDWR);
    dup2(null_fd, 0);
    dup2(null_fd, 1);
    dup2(err_fd, 2);
    for (const auto& [name, value] : env) {
      if (value.empty()) unsetenv(name.c_str());
      else setenv(name.c_str(), value.c_str(), 1);
    }
    std::vector<char*> argv{const_cast<char*>(DECONV_BINARY)};
    for (const std::string& arg : args) argv.push_back(const_cast<char*>(arg.c_str()));
    argv.push_back(nullptr);
    execv(DECONV_BINARY, argv.data());
    _exit(127);
  }
  RunResult result;
  int wait_status = 0;
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::duration<double>(timeout_seconds);
  while (waitpid(pid, &wait_status, WNOHANG) == 0) {
    if (std::chrono::steady_clock::now() > deadline) {
      kill(pid, SIGKILL);
      waitpid(pid, &wait_status, 0);
      result.timed_out = true;
      break;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  if (!result.timed_out && WIFEXITED(wait_status)) result.status = WEXITSTATUS(wait_status);
  close(err_fd);
  result.err = read_file(err_path);
  unlink(err_path);
  return result;
}

double psnr_best_shift(const CImg<float>& a, const CImg<float>& b, const int margin, const int max_shift) {
  double best = 0;
  for (int dy = -max_shift; dy <= max_shift; ++dy)
    for (int dx = -max_shift; dx <= max_shift; ++dx) {
      double squared = 0;
      long count = 0;
      for (int c = 0; c < b.spectrum(); ++c)
        for (int y = margin; y < b.height() - margin; ++y)
          for (int x = margin; x < b.width() - margin; ++x) {
            const double d = (double)a(x + dx, y + dy, 0, c) - b(x, y, 0, c);
            squared += d * d;
            ++count;
          }
      best = std::max(best, 10 * std::log10(255.0 * 255.0 / (squared / count)));
    }
  return best;
}

std::string test_photo(const std::string& name) { return std::string(DECONV_TESTDATA) + "/" + name; }
