// Fuzzes read_picture, as the commands read a stranger's picture: the file
// gets the extension its first bytes call for, so that mutations reach its
// kind's reader. A deconv::Error is fair; what a sanitizer sees, another
// exception, or an allocation beyond the build's cap on planes is not.
#include <OpenImageIO/imageio.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>

#include "picture/picture_file.h"

namespace {

std::string folder;

const char* extension_for(const uint8_t* data, const size_t size) {
  const auto starts = [&](const char* magic, const size_t n) { return size >= n && !std::memcmp(data, magic, n); };
  if (starts("\x89PNG", 4)) return ".png";
  if (starts("\xFF\xD8", 2)) return ".jpg";
  if (starts("II*\0", 4) || starts("MM\0*", 4)) return ".tif";
  if (size >= 2 && data[0] == 'P' && data[1] >= '1' && data[1] <= '7') return ".pnm";
  if (starts("SIMPLE", 6)) return ".fits";
  return ".bin";
}

void remove_folder() { std::system(("rm -rf '" + folder + "'").c_str()); }

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  char pattern[] = "/tmp/picture_fuzzer-XXXXXX";
  folder = mkdtemp(pattern);
  std::atexit(remove_folder);
  OIIO::attribute("threads", 1);  // one run, one thread: findings replay the same way
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string path = folder + "/input" + extension_for(data, size);
  std::ofstream(path, std::ios::binary | std::ios::trunc).write(reinterpret_cast<const char*>(data), (long)size);
  try {
    const PictureFile picture = read_picture(path, size % 2 ? SampleScale::raw : SampleScale::unit);
    if (picture.image.pixels.size() != (size_t)picture.image.width * picture.image.height * picture.image.channels)
      std::abort();
  } catch (const deconv::Error&) {
  }
  std::remove(path.c_str());
  return 0;
}
