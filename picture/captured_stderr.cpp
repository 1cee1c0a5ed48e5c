// fd 2 is swapped for a memfd and swapped back; stdio's buffer is flushed at
// each swap so that nothing printed before lands in the capture or is lost.
#include "picture/captured_stderr.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdio>

CapturedStderr::CapturedStderr() {
  std::fflush(stderr);
  captured_ = memfd_create("captured-stderr", MFD_CLOEXEC);
  saved_ = captured_ < 0 ? -1 : fcntl(2, F_DUPFD_CLOEXEC, 3);
  if (saved_ < 0 || dup2(captured_, 2) < 0) {
    if (saved_ >= 0) close(saved_);
    saved_ = -1;
  }
}

CapturedStderr::~CapturedStderr() {
  std::fflush(stderr);
  if (saved_ >= 0) {
    dup2(saved_, 2);
    close(saved_);
  }
  if (captured_ >= 0) close(captured_);
}

std::string CapturedStderr::first_line() const {
  std::fflush(stderr);
  std::string text;
  char buffer[512];
  for (off_t at = 0; captured_ >= 0 && text.find('\n') == std::string::npos;) {
    const ssize_t n = pread(captured_, buffer, sizeof buffer, at);
    if (n <= 0) break;
    text.append(buffer, (size_t)n);
    at += n;
  }
  return text.substr(0, text.find('\n'));
}
