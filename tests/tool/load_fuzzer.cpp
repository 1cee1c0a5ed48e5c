// Fuzzes the native readers the command's routes hand files to, the first
// byte picking one, the rest the file (through /proc/self/fd). A CImg
// exception is a fair refusal; what a sanitizer sees is not. Not fuzzed:
// sizes (capped at 2^24 values, own-format files of over 4096 images
// skipped), nor leaks (a refused file left open is closed here).
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <functional>
#include <string>

#include "tool/image_io.h"

using cimg_library::CImg;

namespace {
int file = -1;
std::string name;
}  // namespace

int lowest_free_descriptor() {
  const int fd = dup(0);
  close(fd);
  return fd;
}

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  file = memfd_create("load_fuzzer", 0);
  name = "/proc/self/fd/" + std::to_string(file);
  cimg_library::cimg::exception_mode(0);  // refusals are expected: no reports
  return 0;
}

// The number of images a file of the library's own format names first.
bool names_many_images(const uint8_t* data, size_t size) {
  const std::string head(reinterpret_cast<const char*>(data), std::min<size_t>(size, 64));
  unsigned long count = 0;
  return std::sscanf(head.c_str(), "%lu", &count) == 1 && count > 4096;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 1 || (data[0] % 8 == 7 && names_many_images(data + 1, size - 1))) return 0;
  if (ftruncate(file, 0) != 0 || pwrite(file, data + 1, size - 1, 0) != (ssize_t)(size - 1)) return 0;
  CImg<float> img;
  const char* const path = name.c_str();
  const int free_before = lowest_free_descriptor();
  try {
    const std::function<void()> readers[] = {
        [&] { img.load_pnm(path); },
        [&] { img.load_pfm(path); },
        [&] {  // as the route hands it over: refused and RLE headers never reach the reader
          if (inspect_bmp(path) == BmpHeader::native) img.load_bmp(path);
        },
        [&] { img.load_ascii(path); },
        [&] { img.load_dlm(path); },
        [&] { img.load_inr(path); },
        [&] { img.load_pandore(path); },
        [&] { img.load_cimg(path); }};
    readers[data[0] % 8]();
  } catch (cimg_library::CImgException&) {
  }
  if (lowest_free_descriptor() > free_before) close(free_before);  // the one file a reader opened
  return 0;
}
