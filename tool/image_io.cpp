// The routes of a file through the library: by extension, by content, then
// through the converters. The attempts inside load and save run with the
// library's reports silenced; only the final failure is reported, with the
// library's own message texts.
#include "tool/image_io.h"

#include <cstdint>
#include <cstring>

#include "tool/converters.h"

namespace {

bool is_one_of(const char* ext, std::initializer_list<const char*> names) {
  for (const char* name : names)
    if (!cimg::strcasecmp(ext, name)) return true;
  return false;
}

void load_bmp(CImg<float>& img, const char* path) {
  switch (inspect_bmp(path)) {
    case BmpHeader::refused:
      throw CImgIOException("[instance(%u,%u,%u,%u,%p,%sshared)] CImg<%s>::load_bmp() : Invalid BMP file '%s'.",
                            deconv_instance(img), path);
    case BmpHeader::compressed:
      return load_other(img, path);
    case BmpHeader::native:
      img.load_bmp(path);
  }
}

// The reader chosen by the extension; false when the extension names none.
bool load_by_extension(CImg<float>& img, const char* path, const char* ext) {
  if (!*ext || !cimg::strcasecmp(ext, "cimg"))
    img.load_cimg(path);
  else if (is_one_of(ext, {"ppm", "pgm", "pnm", "pbm", "pnk"}))
    img.load_pnm(path);
  else if (!cimg::strcasecmp(ext, "pfm"))
    img.load_pfm(path);
  else if (!cimg::strcasecmp(ext, "bmp"))
    load_bmp(img, path);
  else if (!cimg::strcasecmp(ext, "asc"))
    img.load_ascii(path);
  else if (is_one_of(ext, {"dlm", "txt"}))
    img.load_dlm(path);
  else if (is_one_of(ext, {"hdr", "nii"}))
    img.load_analyze(path);
  else if (is_one_of(ext, {"par", "rec"}))
    img.load_parrec(path);
  else if (!cimg::strcasecmp(ext, "inr"))
    img.load_inr(path);
  else if (!cimg::strcasecmp(ext, "pan"))
    img.load_pandore(path);
  else if (is_one_of(ext, {"jpg", "jpeg", "jpe", "jfif", "jif", "png", "tif", "tiff", "exr", "mnc"}))
    load_other(img, path);
  else if (is_one_of(ext, {"arw", "cr2", "crw", "dcr", "dng", "mrw", "nef", "orf", "pix", "ptx", "raf", "srf"}))
    img.load_dcraw_external(path);
  else if (is_one_of(ext, {"dcm", "dicom"}))
    img.load_medcon_external(path);
  else if (!cimg::strcasecmp(ext, "gz"))
    load_gzipped(img, path);
  else if (is_one_of(ext, {"avi", "mov",   "asf", "divx", "flv", "mpg", "m1v", "m2v", "m4v",  "mjp", "mp4",  "mkv",
                           "mpe", "movie", "ogm", "ogg",  "ogv", "qt",  "rm",  "vob", "webm", "wmv", "xvid", "mpeg"}))
    img.load_video(path);
  else
    return false;
  return true;
}

bool starts_with(const unsigned char* bytes, size_t size, const char* text, size_t at = 0) {
  const size_t n = std::strlen(text);
  return size >= at + n && !std::memcmp(bytes + at, text, n);
}

// A PNM or PFM header line ("P1".."P9", "Pf", "PF") as the first line that is
// neither a comment nor blank, as the PNM reader skips both.
const char* pnm_header(const unsigned char* bytes, const size_t size) {
  for (size_t line = 0; line < size;) {
    size_t end = line;
    while (end < size && bytes[end] != '\n') ++end;
    if (end > line && bytes[line] != '#') {
      if (end - line != 2 || bytes[line] != 'P') return nullptr;
      const char c = bytes[line + 1];
      if (c == 'f' || c == 'F') return "pfm";
      return c >= '1' && c <= '9' ? "pnm" : nullptr;
    }
    line = end + 1;
  }
  return nullptr;
}

}  // namespace

std::FILE* open_file(const char* path, const char* mode) {
  std::FILE* const file = std::fopen(path, mode);
  if (!file) throw CImgIOException("cimg::fopen() : Failed to open file '%s' with mode '%s'.", path, mode);
  return file;
}

BmpHeader inspect_bmp(const char* path) {
  unsigned char h[54];
  std::FILE* const file = std::fopen(path, "rb");
  const size_t size = file ? std::fread(h, 1, sizeof h, file) : 0;
  if (file) std::fclose(file);
  if (size < 2 || h[0] != 'B' || h[1] != 'M') return BmpHeader::native;  // the reader refuses it itself
  if (size < sizeof h) return BmpHeader::refused;  // the reader would work from bytes it never read
  // The reader's own arithmetic, in 64 bits: every value it forms, partial
  // sums included, must fit the int it is formed in.
  const auto field = [&h](int at) -> long long {
    return (int32_t)((uint32_t)h[at] | (uint32_t)h[at + 1] << 8 | (uint32_t)h[at + 2] << 16 |
                     (uint32_t)h[at + 3] << 24);
  };
  const long long offset = field(0x0A), header_size = field(0x0E), dx = field(0x12), dy = field(0x16),
                  compression = field(0x1E), bpp = h[0x1C] | h[0x1D] << 8;
  long long colours = field(0x2E);
  if (bpp >= 16)
    colours = 0;
  else if (!colours)
    colours = 1LL << bpp;
  const long long row = bpp == 1 ? dx / 8 + (dx % 8 ? 1 : 0) : bpp == 4 ? dx / 2 + dx % 2 : (int32_t)(dx * bpp / 8);
  const auto fits = [](long long v) { return v >= INT32_MIN && v <= INT32_MAX; };
  if (!fits(offset - 14) || !fits(offset - 14 - header_size) || !fits(4 * colours) ||
      !fits(offset - 14 - header_size - 4 * colours) || !fits(row + 3) || dy == INT32_MIN)
    return BmpHeader::refused;
  return compression == 1 || compression == 2 ? BmpHeader::compressed : BmpHeader::native;
}

const char* detect_type(const char* path) {
  unsigned char bytes[2048];
  std::FILE* const file = std::fopen(path, "rb");
  if (!file) return nullptr;
  const size_t size = std::fread(bytes, 1, sizeof bytes, file);
  std::fclose(file);
  static const unsigned char jpeg[] = {0xFF, 0xD8, 0xFF}, png[] = {0x89, 'P', 'N', 'G', 0x0D, 0x0A, 0x1A, 0x0A};
  if (starts_with(bytes, size, "OFF\n")) return "off";
  if (starts_with(bytes, size, "#INRIMAGE")) return "inr";
  if (starts_with(bytes, size, "PANDORE")) return "pan";
  if (starts_with(bytes, size, "DICM", 128)) return "dcm";
  if (size >= 3 && !std::memcmp(bytes, jpeg, 3)) return "jpg";
  if (starts_with(bytes, size, "BM")) return "bmp";
  if (starts_with(bytes, size, "GIF87a") || starts_with(bytes, size, "GIF89a")) return "gif";
  if (size >= 8 && !std::memcmp(bytes, png, 8)) return "png";
  if (starts_with(bytes, size, "II") || starts_with(bytes, size, "MM")) return "tif";
  return size == sizeof bytes ? pnm_header(bytes, size) : nullptr;
}

bool input_is_png(const char* path) {
  std::fclose(open_file(path, "rb"));
  const char* const type = detect_type(path);
  return type && !cimg::strcasecmp(type, "png");
}

void load_image(CImg<float>& img, const char* path) {
  if (!cimg::strncasecmp(path, "http://", 7) || !cimg::strncasecmp(path, "https://", 8)) {
    char local[256];
    temporary_folder();  // the library's own temporary names use it too
    cimg::load_network(path, local);
    try {
      load_image(img, local);
    } catch (...) {
      std::remove(local);
      throw;
    }
    std::remove(local);
    return;
  }

  // Each route that fails with an I/O error falls through to the next, silently.
  bool can_open = true;
  {
    QuietReports quiet;
    try {
      if (load_by_extension(img, path, cimg::split_filename(path))) return;
    } catch (CImgIOException&) {
    }
    can_open = file_exists(path);
    if (can_open) {
      try {
        // The reader of the detected type is the one its name has as an
        // extension; a type that names none ("gif", "off") has no reader.
        const char* const type = detect_type(path);
        if (type && load_by_extension(img, path, type)) return;
      } catch (CImgIOException&) {
      }
      try {
        load_other(img, path);
        return;
      } catch (CImgIOException&) {
      }
    }
  }
  if (!can_open)
    throw CImgIOException("[instance(%u,%u,%u,%u,%p,%sshared)] CImg<%s>::load() : Failed to open file '%s'.",
                          deconv_instance(img), path);
  throw CImgIOException(
      "[instance(%u,%u,%u,%u,%p,%sshared)] CImg<%s>::load() : Failed to recognize format of file '%s'.",
      deconv_instance(img), path);
}

void load_other(CImg<float>& img, const char* path) {
  {
    QuietReports quiet;  // any failure falls through to the next attempt
    try {
      load_with_converter(img, path, imagemagick);
      return;
    } catch (CImgException&) {
    }
    try {
      load_with_converter(img, path, graphicsmagick);
      return;
    } catch (CImgException&) {
    }
    try {
      img.load_cimg(path, 'z', 0);
      return;
    } catch (CImgException&) {
    }
  }
  if (!file_exists(path))
    throw CImgIOException("[instance(%u,%u,%u,%u,%p,%sshared)] CImg<%s>::load_other() : Failed to open file '%s'.",
                          deconv_instance(img), path);
  throw CImgIOException(
      "[instance(%u,%u,%u,%u,%p,%sshared)] CImg<%s>::load_other() : Failed to recognize format of file '%s'.",
      deconv_instance(img), path);
}

void save_result(const CImg<float>& img, const char* path, const bool is_png, const unsigned int quality,
                 const unsigned int maximum) {
  using cimg_library::CImgArgumentException;
  using cimg_library::CImgInstanceException;
  if (is_png) {
    if (!path)
      throw CImgArgumentException(
          "[instance(%u,%u,%u,%u,%p,%sshared)] CImg<%s>::save_png() : Specified filename is (null).",
          deconv_instance(img));
    if (img.is_empty())
      throw CImgInstanceException(
          "[instance(%u,%u,%u,%u,%p,%sshared)] CImg<%s>::save_png() : Empty image, for file '%s'.",
          deconv_instance(img), path);
    save_other(img, path, 100, maximum);
    return;
  }
  if (!path)
    throw CImgArgumentException(
        "[instance(%u,%u,%u,%u,%p,%sshared)] CImg<%s>::save_jpeg() : Specified filename is (null).",
        deconv_instance(img));
  if (img.is_empty())
    throw CImgInstanceException(
        "[instance(%u,%u,%u,%u,%p,%sshared)] CImg<%s>::save_jpeg() : Empty instance, for file '%s'.",
        deconv_instance(img), path);
  if (img.depth() > 1 && cimg::exception_mode())
    std::fprintf(cimg::output(),
                 "\n[CImg] *** Warning ***[instance(%u,%u,%u,%u,%p,%sshared)] CImg<%s>::save_jpeg() : Instance "
                 "is volumetric, only the first slice will be saved in file '%s'.",
                 deconv_instance(img), path);
  save_other(img, path, quality, maximum);
}

void save_other(const CImg<float>& img, const char* path, const unsigned int quality, const unsigned int maximum) {
  if (!path)
    throw cimg_library::CImgArgumentException(
        "[instance(%u,%u,%u,%u,%p,%sshared)] CImg<%s>::save_other() : Specified filename is (null).",
        deconv_instance(img));
  if (img.is_empty())
    throw cimg_library::CImgInstanceException(
        "[instance(%u,%u,%u,%u,%p,%sshared)] CImg<%s>::save_other() : Empty instance, for file '%s'.",
        deconv_instance(img), path);
  {
    QuietReports quiet;
    try {
      save_with_converter(img, path, quality, imagemagick, maximum);
      return;
    } catch (CImgException&) {
    }
    try {
      save_with_converter(img, path, quality, graphicsmagick, maximum);
      return;
    } catch (CImgException&) {
    }
  }
  throw CImgIOException(
      "[instance(%u,%u,%u,%u,%p,%sshared)] CImg<%s>::save_other() : Failed to save file '%s'. Format is not "
      "natively supported, and no external commands succeeded.",
      deconv_instance(img), path);
}
