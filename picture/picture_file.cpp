// Pictures read and written through OpenImageIO. Integer files are read in
// their own type and divided by their range in single precision, so that an
// 8-bit picture gives exactly the samples deconv makes of it (v / 255.0f).
// Results are staged under a temporary name in the target's folder and
// renamed over the target only once they are complete.
#include "picture/picture_file.h"
#include "picture/stack_file.h"

#include <OpenImageIO/filesystem.h>
#include <OpenImageIO/strutil.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <memory>

#include "picture/captured_stderr.h"
#include "picture/fits_file.h"
#include "picture/format_details.h"

namespace {

using deconv::Error;
using deconv::Image;

[[noreturn]] void cannot_read(const std::string& path, const std::string& reason) {
  throw Error("cannot read " + path + ": " + reason);
}

[[noreturn]] void cannot_write(const std::string& path, const std::string& reason) {
  throw Error("cannot write " + path + ": " + reason);
}

// The first line of an OpenImageIO error, which may go on for lines, each
// reporting the one before ("PNG read error: ...", "PNG library error").
std::string first_line(const std::string& error) { return error.substr(0, error.find('\n')); }

// What the readers would misname: to the reader its name picks, a folder or
// an empty file is "Not a PNG file".
void require_file(const std::string& path) {
  struct stat status;
  if (stat(path.c_str(), &status) != 0) cannot_read(path, std::strerror(errno));
  if (S_ISDIR(status.st_mode)) cannot_read(path, "a directory, not a picture");
  if (S_ISREG(status.st_mode) && status.st_size == 0) cannot_read(path, "an empty file");
}

// OpenImageIO says "Could not open file ..." where the system has a plainer word.
std::string open_failure(const std::string& path, const CapturedStderr& printed) {
  const std::string error = first_line(OIIO::geterror());
  if (access(path.c_str(), R_OK) != 0) return std::strerror(errno);
  if (!error.empty()) return error;
  return printed.first_line().empty() ? "not a picture this program can read" : printed.first_line();
}

// The bytes a header may make the reader ask for: the machine's memory, or
// less where a build says so (the fuzzer's, under its own limit).
double memory_for_planes() {
#ifdef DECONV_PICTURE_MEMORY
  return DECONV_PICTURE_MEMORY;
#else
  return (double)sysconf(_SC_PHYS_PAGES) * (double)sysconf(_SC_PAGE_SIZE);
#endif
}

SampleDepth depth_of(const OIIO::TypeDesc& format) {
  if (format == OIIO::TypeDesc::UINT8 || format == OIIO::TypeDesc::INT8) return SampleDepth::u8;
  if (format == OIIO::TypeDesc::UINT16 || format == OIIO::TypeDesc::INT16) return SampleDepth::u16;
  return SampleDepth::f32;
}

// A band of interleaved samples of type T, `count` pixels from pixel `first`
// of the picture on, into the planes, each divided by `range` (or taken as it
// is for range 0).
template <class T>
void deinterleave(const T* const samples, const size_t first, const size_t count, const int channels, const float range,
                  const std::vector<Image*>& planes, const std::vector<int>& sources) {
  for (size_t p = 0; p < planes.size(); ++p) {
    Image& plane = *planes[p];
    const size_t size = (size_t)plane.width * plane.height;
    for (int c = 0; c < plane.channels; ++c) {
      float* const out = plane.pixels.data() + c * size + first;
      const T* in = samples + sources[p] + c;
      if (range > 0)
        for (size_t i = 0; i < count; ++i, in += channels) out[i] = (float)*in / range;
      else
        for (size_t i = 0; i < count; ++i, in += channels) out[i] = (float)*in;
    }
  }
}

// Rows of about a megabyte: small enough to stay in the cache between the
// decoder and the planes, large enough that a call costs nothing beside them.
int band_rows(const int width, const int channels, const size_t sample_size, const int height) {
  const size_t row = (size_t)width * channels * sample_size;
  return (int)std::max<size_t>(1, std::min<size_t>(height, (1 << 20) / row));
}

// The file's samples in their own type, a band of rows at a time, so that the
// planes are the only copy of the whole picture. Tiled files are read whole.
template <class T>
void read_samples(OIIO::ImageInput& in, const std::string& path, const OIIO::TypeDesc type, const float range,
                  PictureFile& picture) {
  const OIIO::ImageSpec& header = in.spec();
  const int band =
      header.tile_width ? header.height : band_rows(header.width, header.nchannels, sizeof(T), header.height);
  std::vector<T> samples((size_t)header.width * band * header.nchannels);
  std::vector<Image*> planes{&picture.image};
  std::vector<int> sources{0};
  if (!picture.alpha.empty()) {
    planes.push_back(&picture.alpha);
    sources.push_back(header.alpha_channel);
  }
  for (int y = 0; y < header.height; y += band) {
    const int rows = std::min(band, header.height - y);
    const int page = in.current_subimage();  // a stack's pages are read one after another
    const bool read = header.tile_width ? in.read_image(page, 0, 0, header.nchannels, type, samples.data())
                                        : in.read_scanlines(page, 0, header.y + y, header.y + y + rows, header.z, 0,
                                                            header.nchannels, type, samples.data());
    if (!read) cannot_read(path, first_line(in.geterror()));
    deinterleave(samples.data(), (size_t)y * header.width, (size_t)rows * header.width, header.nchannels, range, planes,
                 sources);
  }
}

}  // namespace

namespace {

// OpenImageIO's PNM reader is a step off on some 16-bit samples: binary PNM
// (P5, P6) is read here. False, with nothing read, for anything else.
bool read_binary_pnm(const std::string& path, const SampleScale scale, PictureFile& picture) {
  std::FILE* const file = std::fopen(path.c_str(), "rb");
  if (!file) return false;
  const auto number = [&] {  // the next decimal number of the header, past blanks and comments
    int c = std::fgetc(file);
    while (c == '#' || std::isspace(c)) {
      if (c == '#')
        while (c != '\n' && c != EOF) c = std::fgetc(file);
      c = std::fgetc(file);
    }
    long n = -1;
    for (; std::isdigit(c) && n < 1000000; c = std::fgetc(file)) n = (n < 0 ? 0 : 10 * n) + (c - '0');
    return n;
  };
  char magic[2] = {0, 0};
  const bool pnm = std::fread(magic, 1, 2, file) == 2 && magic[0] == 'P' && (magic[1] == '5' || magic[1] == '6');
  const long width = pnm ? number() : -1, height = pnm ? number() : -1, maximum = pnm ? number() : -1;
  if (width <= 0 || height <= 0 || maximum <= 0 || maximum > 65535) {
    std::fclose(file);
    return false;
  }
  const int channels = magic[1] == '5' ? 1 : 3;
  const bool wide = maximum > 255;
  try {
    require_memory(path, width, height, channels);
  } catch (...) {
    std::fclose(file);
    throw;
  }
  std::vector<unsigned char> bytes((size_t)width * height * channels * (wide ? 2 : 1));
  const bool complete = std::fread(bytes.data(), 1, bytes.size(), file) == bytes.size();
  std::fclose(file);
  if (!complete) cannot_read(path, "the file ends before its last pixel");
  picture.header =
      OIIO::ImageSpec((int)width, (int)height, channels, wide ? OIIO::TypeDesc::UINT16 : OIIO::TypeDesc::UINT8);
  picture.depth = wide ? SampleDepth::u16 : SampleDepth::u8;
  picture.image = Image((int)width, (int)height, channels);
  const float range = scale == SampleScale::raw ? 1.0f : (float)maximum;
  const size_t pixels = (size_t)width * height;
  for (size_t i = 0; i < pixels * channels; ++i) {
    const unsigned int v = wide ? bytes[2 * i] << 8 | bytes[2 * i + 1] : bytes[i];
    picture.image.pixels[(i % channels) * pixels + i / channels] = (float)v / range;
  }
  return true;
}

}  // namespace

// The planes a header asks for are weighed before a byte of them is allocated.
void require_memory(const std::string& path, const long width, const long height, const int channels) {
  const double needed = (double)width * (double)height * channels * sizeof(float), memory = memory_for_planes();
  if (needed <= memory) return;
  char reason[160];
  std::snprintf(reason, sizeof reason,
                "%ld x %ld pixels of %d channels would take %.1f GB, more than the %.1f GB of memory", width, height,
                channels, needed / 1e9, memory / 1e9);
  cannot_read(path, reason);
}

namespace {

// The samples of the page `in` stands on, into `picture`'s planes.
void read_page(OIIO::ImageInput& in, const std::string& path, const SampleScale scale, PictureFile& picture) {
  const bool unit = scale == SampleScale::unit;
  switch (depth_of(in.spec().format)) {
    case SampleDepth::u8:
      return read_samples<uint8_t>(in, path, OIIO::TypeDesc::UINT8, unit ? 255.0f : 0.0f, picture);
    case SampleDepth::u16:
      return read_samples<uint16_t>(in, path, OIIO::TypeDesc::UINT16, unit ? 65535.0f : 0.0f, picture);
    case SampleDepth::f32:
      return read_samples<float>(in, path, OIIO::TypeDesc::FLOAT, 0.0f, picture);
  }
}

// A multi-page file of equal pages as a stack (picture/stack_file.h).
void read_stack(OIIO::ImageInput& in, const std::string& path, const int pages, const SampleScale scale,
                PictureFile& stack) {
  const OIIO::ImageSpec first = stack.header;
  const StackOrder order = stack_order(first);
  if (order.channels > 1 && first.nchannels > 1)
    cannot_read(path, "its pages hold several channels each and its description more channels across pages");
  if (pages % order.channels)
    cannot_read(path, std::to_string(pages) + " pages, not a whole number of planes of " +
                          std::to_string(order.channels) + " channels");
  const int planes = pages / order.channels, channels = order.channels * first.nchannels;
  require_memory(path, first.width, (long)first.height * planes, channels);
  stack.image = Image(first.width, first.height, planes, channels);
  stack.depth = depth_of(first.format);
  stack.header.erase_attribute("ImageDescription");  // the old stack's, wrong for any other
  stack.header.alpha_channel = -1;
  PictureFile page;
  page.image = Image(first.width, first.height, first.nchannels);
  const size_t plane = (size_t)first.width * first.height;
  for (int p = 0; p < pages; ++p) {
    if (!in.seek_subimage(p, 0)) cannot_read(path, "page " + std::to_string(p + 1) + " cannot be read");
    const OIIO::ImageSpec& header = in.spec();
    if (header.width != first.width || header.height != first.height || header.nchannels != first.nchannels ||
        header.format != first.format || header.depth > 1)
      cannot_read(path, "its pages differ: page " + std::to_string(p + 1) + " is " + std::to_string(header.width) +
                            " x " + std::to_string(header.height) + " of " + std::to_string(header.nchannels) +
                            " channels, page 1 " + std::to_string(first.width) + " x " +
                            std::to_string(first.height) + " of " + std::to_string(first.nchannels));
    read_page(in, path, scale, page);
    const int z = order.channel_fastest ? p / order.channels : p % planes;
    const int c = order.channel_fastest ? p % order.channels : p / planes;
    for (int k = 0; k < first.nchannels; ++k)
      std::copy(page.image.pixels.begin() + k * plane, page.image.pixels.begin() + (k + 1) * plane,
                stack.image.pixels.begin() + ((size_t)(c * first.nchannels + k) * planes + z) * plane);
  }
}

}  // namespace

PictureFile read_picture(const std::string& path, const SampleScale scale) {
  require_file(path);
  const CapturedStderr printed;  // outlives the reader, which prints as it closes
  PictureFile own;
  if (read_binary_pnm(path, scale, own) || read_fits(path, scale, own)) return own;
  if (png_cut_short(path)) cannot_read(path, "the file is cut short");
  // A JPEG's markers stand before its data; 4 MB holds them in any camera's file.
  const std::vector<unsigned char> magic = file_head(path, 2);
  if (magic.size() == 2 && magic[0] == 0xFF && magic[1] == 0xD8 && iptc_overruns(file_head(path, 4 << 20)))
    cannot_read(path, "its IPTC metadata runs past its block");
  auto in = OIIO::ImageInput::open(path);
  if (!in) cannot_read(path, open_failure(path, printed));
  PictureFile picture;
  picture.header = in->spec();
  picture.compressed = std::string(in->format_name()) == "jpeg";
  // The tables are in the first segments; 64 kB holds them in any file.
  if (picture.compressed) picture.quality = jpeg_quality(file_head(path, 1 << 16));
  const OIIO::ImageSpec& header = picture.header;
  if (header.width <= 0 || header.height <= 0 || header.nchannels <= 0) cannot_read(path, "the picture is empty");
  if (header.depth > 1) cannot_read(path, "a volume, not a picture");
  int pages = 1;
  while (in->seek_subimage(pages, 0)) ++pages;
  if (pages > 1) {
    read_stack(*in, path, pages, scale, picture);
    return picture;
  }
  if (!in->seek_subimage(0, 0)) cannot_read(path, "its first page cannot be read again");
  require_memory(path, header.width, header.height, header.nchannels);
  // The alpha channel, if any, is the last one: colours stand before it.
  const bool has_alpha =
      header.alpha_channel >= 0 && header.alpha_channel == header.nchannels - 1 && header.nchannels > 1;
  if (!has_alpha) picture.header.alpha_channel = -1;
  const int colours = has_alpha ? header.nchannels - 1 : header.nchannels;
  picture.image = Image(header.width, header.height, colours);
  if (has_alpha) picture.alpha = Image(header.width, header.height, 1);
  picture.depth = depth_of(header.format);
  const bool unit = scale == SampleScale::unit;
  switch (picture.depth) {
    case SampleDepth::u8:
      read_samples<uint8_t>(*in, path, OIIO::TypeDesc::UINT8, unit ? 255.0f : 0.0f, picture);
      break;
    case SampleDepth::u16:
      read_samples<uint16_t>(*in, path, OIIO::TypeDesc::UINT16, unit ? 65535.0f : 0.0f, picture);
      break;
    case SampleDepth::f32:
      read_samples<float>(*in, path, OIIO::TypeDesc::FLOAT, 0.0f, picture);
      break;
  }
  return picture;
}

bool parse_depth(const std::string& text, SampleDepth& depth) {
  if (text == "8")
    depth = SampleDepth::u8;
  else if (text == "16")
    depth = SampleDepth::u16;
  else if (text == "float")
    depth = SampleDepth::f32;
  else
    return false;
  return true;
}

namespace {

// A result's sample in a file of `maximum` (255 or 65535): clamped to 0..1,
// scaled in single precision and truncated, as deconv saves its results; NaN
// is 0.
template <class T>
T to_sample(float unit, const float maximum) {
  unit = unit < 0 ? 0.0f : unit > 1 ? 1.0f : unit;
  const float scaled = unit * maximum;
  return scaled == scaled ? (T)scaled : 0;
}

// `count` pixels of the picture from pixel `first` on, interleaved into
// samples of type T (0..1 scaled to `maximum` for integers).
template <class T>
void interleave(const Image& image, const Image* alpha, const float maximum, const size_t first, const size_t count,
                T* const samples) {
  const int channels = image.channels + (alpha ? 1 : 0);
  const size_t pixels = (size_t)image.width * image.height;
  for (int c = 0; c < channels; ++c) {
    const float* const in = (c < image.channels ? image.pixels.data() + c * pixels : alpha->pixels.data()) + first;
    T* out = samples + c;
    for (size_t i = 0; i < count; ++i, out += channels) {
      if constexpr (std::is_same_v<T, float>)
        *out = in[i];
      else
        *out = to_sample<T>(in[i], maximum);
    }
  }
}

// The picture through the writer, interleaved in the file's type a band of
// rows at a time, so that the planes are the only copy of the whole picture.
// False at the first band the writer refuses.
bool write_rows(OIIO::ImageOutput& out, const OIIO::ImageSpec& header, const Image& image, const Image* alpha) {
  const int band = band_rows(header.width, header.nchannels, header.format.size(), header.height);
  std::vector<unsigned char> samples((size_t)header.width * band * header.nchannels * header.format.size());
  for (int y = 0; y < header.height; y += band) {
    const int rows = std::min(band, header.height - y);
    const size_t first = (size_t)y * header.width, count = (size_t)rows * header.width;
    if (header.format == OIIO::TypeDesc::UINT8)
      interleave(image, alpha, 255.0f, first, count, samples.data());
    else if (header.format == OIIO::TypeDesc::UINT16)
      interleave(image, alpha, 65535.0f, first, count, (uint16_t*)samples.data());
    else
      interleave(image, alpha, 0.0f, first, count, (float*)samples.data());
    if (!out.write_scanlines(header.y + y, header.y + y + rows, header.z, header.format, samples.data())) return false;
  }
  return true;
}

// The ImageSpec of the file to write: the metadata of `like` (or none), the
// picture's size, the channels and the depth asked for.
OIIO::ImageSpec spec_for(const Image& image, const Image* alpha, const SampleDepth depth, const PictureFile* like) {
  const OIIO::TypeDesc type = depth == SampleDepth::u8    ? OIIO::TypeDesc::UINT8
                              : depth == SampleDepth::u16 ? OIIO::TypeDesc::UINT16
                                                          : OIIO::TypeDesc::FLOAT;
  const int channels = image.channels + (alpha ? 1 : 0);
  OIIO::ImageSpec header(image.width, image.height, channels, type);
  if (like) {
    header.extra_attribs = like->header.extra_attribs;
    header.x = like->header.x, header.y = like->header.y;
  }
  header.channelnames.clear();
  static const char* const rgb[] = {"R", "G", "B"};
  for (int c = 0; c < image.channels; ++c)
    header.channelnames.push_back(image.channels == 1 ? "Y" : c < 3 ? rgb[c] : "C" + std::to_string(c));
  if (alpha) header.channelnames.push_back("A");
  header.alpha_channel = alpha ? image.channels : -1;
  // The file's own encoding of the old samples does not describe the new ones;
  // some writers (PNM) take their depth from it.
  if (depth == SampleDepth::f32)
    header.erase_attribute("oiio:BitsPerSample");
  else
    header.attribute("oiio:BitsPerSample", depth == SampleDepth::u8 ? 8 : 16);
  header.erase_attribute("oiio:UnassociatedAlpha");
  return header;
}

// The folder of `path` ("." for a bare name) and its name within it.
std::pair<std::string, std::string> split_path(const std::string& path) {
  const size_t slash = path.rfind('/');
  if (slash == std::string::npos) return {".", path};
  return {slash == 0 ? "/" : path.substr(0, slash), path.substr(slash + 1)};
}

// The mode any new file would get here: mkstemps and O_TMPFILE make theirs private.
mode_t new_file_mode() {
  const mode_t mask = umask(0);
  umask(mask);
  return 0666 & ~mask;
}

// A file beside `path` under a name nothing else has, ".NAME.XXXXXX.EXT",
// open for writing.
int open_staged(const std::string& path, std::string& staged) {
  const auto [folder, name] = split_path(path);
  const size_t dot = name.rfind('.');
  const std::string extension = dot == std::string::npos || dot == 0 ? "" : name.substr(dot);
  staged = folder + "/." + name + ".XXXXXX" + extension;
  const int fd = mkstemps(&staged[0], (int)extension.size());
  if (fd < 0) cannot_write(path, std::strerror(errno));
  fchmod(fd, new_file_mode());
  return fd;
}

void write_all(const int fd, const std::string& path, const std::vector<unsigned char>& bytes) {
  for (size_t done = 0; done < bytes.size();) {
    const ssize_t n = write(fd, bytes.data() + done, bytes.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) cannot_write(path, std::strerror(n < 0 ? errno : ENOSPC));
    done += (size_t)n;
  }
}

// Puts `bytes` in place as `path`, all or nothing: written to a file with no
// name in the target's folder (so that a process killed meanwhile leaves
// nothing), named once complete, then renamed over the target. Where the file
// system has no unnamed files, a staged name is written instead.
void publish(const std::string& path, const std::vector<unsigned char>& bytes) {
  std::string staged;
  int fd = open(split_path(path).first.c_str(), O_TMPFILE | O_WRONLY | O_CLOEXEC, new_file_mode());
  const bool unnamed = fd >= 0;
  if (!unnamed) {
    if (errno != EOPNOTSUPP && errno != EISDIR && errno != EINVAL) cannot_write(path, std::strerror(errno));
    fd = open_staged(path, staged);
  }
  try {
    write_all(fd, path, bytes);
    if (unnamed) {
      // linkat cannot replace a file: the name is taken by a staged file that is then replaced.
      close(open_staged(path, staged));
      std::remove(staged.c_str());
      const std::string self = "/proc/self/fd/" + std::to_string(fd);
      if (linkat(AT_FDCWD, self.c_str(), AT_FDCWD, staged.c_str(), AT_SYMLINK_FOLLOW) != 0)
        cannot_write(path, std::strerror(errno));
    }
    if (close(fd) != 0) {
      fd = -1;
      cannot_write(path, std::strerror(errno));
    }
    fd = -1;
    if (std::rename(staged.c_str(), path.c_str()) != 0) cannot_write(path, std::strerror(errno));
  } catch (...) {
    if (fd >= 0) close(fd);
    if (!staged.empty()) std::remove(staged.c_str());
    throw;
  }
}

// The first line of a writer's error; a writer may fail without a word.
std::string writer_error(const std::string& error) {
  const std::string line = first_line(error);
  return line.empty() ? "the writer failed" : line;
}

// Where a format cannot be encoded in memory (TIFF, SGI), its writer writes a
// staged file itself, and it is read back whole: such writers do not all look
// at the results of their own writes, and one that seeks past what it could
// not write leaves holes, which read back as zeros.
void write_through_file(OIIO::ImageOutput& out, const std::string& path, const OIIO::ImageSpec& header,
                        const Image& image, const Image* alpha) {
  std::string staged;
  close(open_staged(path, staged));
  try {
    if (!out.open(staged, header)) cannot_write(path, writer_error(out.geterror()));
    const bool written = write_rows(out, header, image, alpha);
    if (!out.close() || !written) cannot_write(path, writer_error(out.geterror()));
    struct stat status;
    if (stat(staged.c_str(), &status) != 0 || (off_t)status.st_blocks * 512 < status.st_size)
      cannot_write(path, "the file written is incomplete (is the disk full?)");
    auto in = OIIO::ImageInput::open(staged);
    std::vector<float> check((size_t)header.width * header.height * header.nchannels);
    if (!in || in->spec().width != header.width || in->spec().height != header.height ||
        !in->read_image(0, 0, 0, header.nchannels, OIIO::TypeDesc::FLOAT, check.data()))
      cannot_write(path, "the file written cannot be read back (is the disk full?)");
    if (std::rename(staged.c_str(), path.c_str()) != 0) cannot_write(path, std::strerror(errno));
  } catch (...) {
    std::remove(staged.c_str());
    throw;
  }
}

// A file in memory that writers may also read back and write over, as the
// TIFF writer does with its directories.
class MemoryFile : public OIIO::Filesystem::IOProxy {
 public:
  explicit MemoryFile(std::vector<unsigned char>& bytes) : IOProxy("", Write), bytes_(bytes) {}
  const char* proxytype() const override { return "memory"; }
  size_t read(void* buf, const size_t size) override {
    const size_t n = pread(buf, size, m_pos);
    m_pos += (int64_t)n;
    return n;
  }
  size_t write(const void* buf, const size_t size) override {
    const size_t n = pwrite(buf, size, m_pos);
    m_pos += (int64_t)n;
    return n;
  }
  size_t pread(void* buf, const size_t size, const int64_t offset) override {
    if (offset < 0 || (size_t)offset >= bytes_.size()) return 0;
    const size_t n = std::min(size, bytes_.size() - (size_t)offset);
    std::memcpy(buf, bytes_.data() + offset, n);
    return n;
  }
  size_t pwrite(const void* buf, const size_t size, const int64_t offset) override {
    if (offset < 0) return 0;
    if (bytes_.size() < (size_t)offset + size) bytes_.resize((size_t)offset + size);
    std::memcpy(bytes_.data() + offset, buf, size);
    return size;
  }
  size_t size() const override { return bytes_.size(); }

 private:
  std::vector<unsigned char>& bytes_;
};

// OpenImageIO's PNM writer garbles 16-bit samples; the format is simple
// enough to write here: a header, then the samples, 16-bit ones big-endian.
bool is_pnm(const std::string& format, const OIIO::ImageSpec& header) {
  return format == "pnm" && header.format != OIIO::TypeDesc::FLOAT && header.alpha_channel < 0 &&
         (header.nchannels == 1 || header.nchannels == 3);
}

std::vector<unsigned char> pnm_bytes(const OIIO::ImageSpec& header, const Image& image) {
  const bool wide = header.format == OIIO::TypeDesc::UINT16;
  const std::string text = std::string(header.nchannels == 1 ? "P5" : "P6") + "\n" + std::to_string(header.width) +
                           " " + std::to_string(header.height) + "\n" + (wide ? "65535" : "255") + "\n";
  const size_t pixels = (size_t)header.width * header.height, count = pixels * header.nchannels;
  std::vector<unsigned char> bytes(text.begin(), text.end());
  bytes.resize(text.size() + count * (wide ? 2 : 1));
  unsigned char* const out = bytes.data() + text.size();
  if (!wide) {
    interleave(image, nullptr, 255.0f, 0, pixels, out);
  } else {
    std::vector<uint16_t> samples(count);
    interleave(image, nullptr, 65535.0f, 0, pixels, samples.data());
    for (size_t i = 0; i < count; ++i)
      out[2 * i] = (unsigned char)(samples[i] >> 8), out[2 * i + 1] = (unsigned char)samples[i];
  }
  return bytes;
}

// Encodes the picture in the format `path`'s name says, in memory where the
// writer allows it (it does not look at the results of its own writes), and
// puts the file in place.
void encode(const std::string& path, OIIO::ImageSpec header, const Image& image, const Image* alpha,
            const int quality) {
  auto out = OIIO::ImageOutput::create(path);
  if (!out) cannot_write(path, "no format for this name");
  if (is_pnm(out->format_name(), header)) return publish(path, pnm_bytes(header, image));
  if (!std::strcmp(out->format_name(), "openexr")) header.erase_attribute("ICCProfile");  // it has no place there
  // Deflate's level 4 rather than the writer's 6: on a 12-megapixel photograph
  // it encodes in a third of the time for a file 5 to 7 % larger, and on grainy
  // pictures, which hardly compress at all, the level changes neither. The
  // Paeth filter on every row rather than the best of five a row: 15 to 25 %
  // less time again, for files of the same size on photographs and 3 % larger
  // on grainy ones. What the caller's metadata names is kept.
  if (!std::strcmp(out->format_name(), "png")) {
    if (!header.find_attribute("png:compressionLevel")) header.attribute("png:compressionLevel", 4);
    if (!header.find_attribute("png:filter")) header.attribute("png:filter", 128);  // PNG_FILTER_PAETH
  }
  if (!std::strcmp(out->format_name(), "fits")) return publish(path, fits_bytes(header, image, alpha));
  // Whatever the metadata says of the old file's compression ("lzw" of a TIFF
  // would have the writer fall back on its own 98).
  if (!std::strcmp(out->format_name(), "jpeg"))
    header.attribute("Compression", OIIO::Strutil::fmt::format("jpeg:{}", quality));
  // The TIFF writer loses its directory in memory when the Exif one fails to go.
  if (!out->supports("ioproxy") || !std::strcmp(out->format_name(), "tiff"))
    return write_through_file(*out, path, header, image, alpha);
  std::vector<unsigned char> bytes;
  MemoryFile memory(bytes);
  void* proxy = &memory;
  header.attribute("oiio:ioproxy", OIIO::TypeDesc::PTR, &proxy);
  if (!out->open(path, header)) cannot_write(path, writer_error(out->geterror()));
  const bool written = write_rows(*out, header, image, alpha);
  if (!out->close() || !written) cannot_write(path, writer_error(out->geterror()));
  publish(path, std::strcmp(out->format_name(), "png") ? bytes : with_exif_chunk(bytes, header));
}

}  // namespace

void require_known_format(const std::string& path) {
  if (!OIIO::ImageOutput::create(path)) cannot_write(path, "no format for this name");
}

void require_stack_format(const std::string& path, const int planes) {
  if (planes <= 1) return;
  auto out = OIIO::ImageOutput::create(path);
  if (!out || std::strcmp(out->format_name(), "tiff") || !out->supports("multiimage"))
    cannot_write(path, "a stack of " + std::to_string(planes) + " planes is written as TIFF (.tif)");
}

namespace {

// A stack as TIFF pages of one channel each, channels fastest, with an ImageJ
// description on the first: what tifffile and ImageJ read as (Z, Y, X) or
// (Z, C, Y, X). Written under a staged name and renamed when complete.
void write_stack(const std::string& path, const Image& stack, const SampleDepth depth, const PictureFile* like) {
  require_stack_format(path, stack.depth);
  auto out = OIIO::ImageOutput::create(path);
  Image page(stack.width, stack.height, 1);
  OIIO::ImageSpec header = spec_for(page, nullptr, depth, like);
  header.erase_attribute("ImageDescription");
  const int pages = stack.depth * stack.channels;
  std::vector<OIIO::ImageSpec> headers(pages, header);
  headers[0].attribute("ImageDescription", imagej_description(stack));
  const size_t plane = (size_t)stack.width * stack.height;
  std::string staged;
  close(open_staged(path, staged));
  try {
    for (int p = 0; p < pages; ++p) {
      const bool opened = p == 0 ? out->open(staged, pages, headers.data())
                                 : out->open(staged, headers[p], OIIO::ImageOutput::AppendSubimage);
      if (!opened) cannot_write(path, writer_error(out->geterror()));
      const int z = p / stack.channels, c = p % stack.channels;
      const auto from = stack.pixels.begin() + ((size_t)c * stack.depth + z) * plane;
      std::copy(from, from + plane, page.pixels.begin());
      if (!write_rows(*out, headers[p], page, nullptr)) cannot_write(path, writer_error(out->geterror()));
    }
    if (!out->close()) cannot_write(path, writer_error(out->geterror()));
    struct stat status;
    if (stat(staged.c_str(), &status) != 0 || (off_t)status.st_blocks * 512 < status.st_size)
      cannot_write(path, "the file written is incomplete (is the disk full?)");
    if (std::rename(staged.c_str(), path.c_str()) != 0) cannot_write(path, std::strerror(errno));
  } catch (...) {
    std::remove(staged.c_str());
    throw;
  }
}

}  // namespace

void write_picture(const std::string& path, const Image& image, const SampleDepth depth, const PictureFile* like,
                   const Image* alpha, const int quality) {
  if (image.depth > 1) {
    const CapturedStderr printed;
    return write_stack(path, image, depth, like);
  }
  if (alpha && alpha->empty()) alpha = nullptr;
  const CapturedStderr printed;
  const int saved_at = quality > 0 ? quality : like && like->quality > 0 ? like->quality : 95;
  encode(path, spec_for(image, alpha, depth, like), image, alpha, saved_at);
}
