// The readers' and writers' own libraries print on stderr as they fail
// (libpng's "libpng error: ...", then OpenImageIO's pending errors): while a
// CapturedStderr lives, the process's stderr goes to a file in memory
// instead, so that a command prints its one line and no more. For commands,
// which read and write from one thread: another thread's messages meanwhile
// would be captured too.
#ifndef DECONV_PICTURE_CAPTURED_STDERR_H
#define DECONV_PICTURE_CAPTURED_STDERR_H

#include <string>

class CapturedStderr {
 public:
  CapturedStderr();
  ~CapturedStderr();
  CapturedStderr(const CapturedStderr&) = delete;
  CapturedStderr& operator=(const CapturedStderr&) = delete;

  // The first line printed so far: a reason where OpenImageIO's error has none.
  std::string first_line() const;

 private:
  int saved_ = -1;     // the real stderr, put back at the end
  int captured_ = -1;  // the memory file that stands in for it
};

#endif
