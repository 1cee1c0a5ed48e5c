// Runs of the external converters for loading and saving.
#include "tool/converters.h"

#include <cstdarg>
#include <cstdlib>
#include <string>
#include <vector>

#include "tool/value_range.h"

namespace {

const char* find_gm() { return cimg::graphicsmagick_path(); }

// A fresh name in the temporary folder, with the extension if it has one.
std::string temporary_name(const char* extension) {
  char name[1024];
  do {
    std::snprintf(name, sizeof name, "%s/%s%s%s", temporary_folder(), cimg::filenamerand(), *extension ? "." : "",
                  extension);
  } while (file_exists(name));
  return name;
}

// Runs a command line through the shell. Its status is not looked at: what
// decides is whether the file it should make is there afterwards.
void run_shell(const std::string& command) {
  if (std::system(command.c_str())) {
  }
}

// A command line in the converters' fixed-size buffer.
std::string command_line(const char* format, ...) {
  char command[1024];
  va_list args;
  va_start(args, format);
  std::vsnprintf(command, sizeof command, format, args);
  va_end(args);
  return command;
}

}  // namespace

const Converter imagemagick = {
    find_convert,
    "%s \"%s\" pnm:-",
    "%s \"%s\" \"%s\"",
    "%s -quality %u \"%s\" \"%s\"",
    "[instance(%u,%u,%u,%u,%p,%sshared)] CImg<%s>::load_imagemagick_external() : Failed to load file '%s' "
    "with external command 'convert'.",
    "[instance(%u,%u,%u,%u,%p,%sshared)] CImg<%s>::save_imagemagick_external() : Failed to save file '%s' "
    "with external command 'convert'.",
};

const Converter graphicsmagick = {
    find_gm,
    "%s convert \"%s\" pnm:-",
    "%s convert \"%s\" \"%s\"",
    "%s convert -quality %u \"%s\" \"%s\"",
    "[instance(%u,%u,%u,%u,%p,%sshared)] CImg<%s>::load_graphicsmagick_external() : Failed to load file '%s' "
    "with external command 'gm'.",
    "[instance(%u,%u,%u,%u,%p,%sshared)] CImg<%s>::save_graphicsmagick_external() : Failed to save file '%s' "
    "with external command 'gm'.",
};

bool file_exists(const char* path) {
  std::FILE* const file = std::fopen(path, "rb");
  if (file) std::fclose(file);
  return file != nullptr;
}

const char* temporary_folder() {
  const char* const folder = cimg::temporary_path();
  return *folder ? folder : cimg::temporary_path(".");
}

void load_gzipped(CImg<float>& img, const char* path) {
  std::fclose(open_file(path, "rb"));
  char body[1024];
  cimg::split_filename(path, body);
  const std::string unpacked = temporary_name(cimg::split_filename(body));
  run_shell(command_line("%s -c \"%s\" > \"%s\"", cimg::gunzip_path(), path, unpacked.c_str()));
  if (!file_exists(unpacked.c_str()))
    throw CImgIOException(
        "[instance(%u,%u,%u,%u,%p,%sshared)] CImg<%s>::load_gzip_external() : Failed to load file '%s' with external "
        "command 'gunzip'.",
        deconv_instance(img), path);
  try {
    load_image(img, unpacked.c_str());
  } catch (...) {
    std::remove(unpacked.c_str());
    throw;
  }
  std::remove(unpacked.c_str());
}

const char* find_convert() {
  static std::string path;
  if (path.empty()) {
    path = "convert";
    for (const char* candidate : {"./convert", "./im_mac/bin/convert", "./mactools/im_mac/bin/convert"})
      if (std::FILE* const file = std::fopen(candidate, "r")) {
        std::fclose(file);
        path = candidate;
        break;
      }
  }
  return path.c_str();
}

void load_with_converter(CImg<float>& img, const char* path, const Converter& converter) {
  std::fclose(open_file(path, "rb"));
  const std::string command = command_line(converter.piped_load, converter.path(), path);
  // A missing converter does not make popen fail: the shell starts, complains
  // on stderr, and the PNM reader finds an empty stream.
  if (std::FILE* const pipe = popen(command.c_str(), "r")) {
    try {
      img.load_pnm(pipe);
    } catch (...) {  // whatever the reader throws: an empty stream, an impossible size
      pclose(pipe);
      throw CImgIOException(converter.load_failure, deconv_instance(img), path);
    }
    pclose(pipe);
    return;
  }
  const std::string pnm = temporary_name("pnm");
  run_shell(command_line(converter.file_load, converter.path(), path, pnm.c_str()));
  try {
    img.load_pnm(pnm.c_str());
  } catch (...) {
    std::remove(pnm.c_str());
    throw CImgIOException(converter.load_failure, deconv_instance(img), path);
  }
  std::remove(pnm.c_str());
}

void write_pnm(const CImg<float>& result, const char* path, const unsigned int maximum) {
  std::FILE* const file = open_file(path, "wb");
  const unsigned int channels = result.spectrum() == 1 ? 1 : 3, W = result.width(), H = result.height();
  const unsigned int bytes = maximum > 255 ? 2 : 1;
  std::fprintf(file, "P%c\n%u %u\n%u\n", channels == 1 ? '5' : '6', W, H, maximum);
  const float* planes[3] = {result.data(0, 0, 0, 0), nullptr, nullptr};
  for (unsigned int c = 1; c < channels; ++c)
    planes[c] = (int)c < result.spectrum() ? result.data(0, 0, 0, c) : nullptr;
  std::vector<unsigned char> row(channels * W * bytes);
  for (unsigned int y = 0; y < H; ++y) {
    for (unsigned int c = 0; c < channels; ++c) {
      const float* const from = planes[c] ? planes[c] + (size_t)y * W : nullptr;
      for (unsigned int x = 0; x < W; ++x) {
        const unsigned int value = from ? to_file_value(from[x], (float)maximum) : 0;
        unsigned char* const at = &row[(x * channels + c) * bytes];
        if (bytes == 2)
          at[0] = (unsigned char)(value >> 8), at[1] = (unsigned char)value;
        else
          at[0] = (unsigned char)value;
      }
    }
    std::fwrite(row.data(), 1, row.size(), file);
  }
  std::fclose(file);
}

void save_with_converter(const CImg<float>& img, const char* path, unsigned int quality, const Converter& converter,
                         const unsigned int maximum) {
  const std::string pnm = temporary_name(img.spectrum() == 1 ? "pgm" : "ppm");
  write_pnm(img, pnm.c_str(), maximum);
  run_shell(command_line(converter.save, converter.path(), quality, pnm.c_str(), path));
  if (!file_exists(path)) throw CImgIOException(converter.save_failure, deconv_instance(img), path);
  std::remove(pnm.c_str());
}
