// Rows are stored bottom first, as FITS viewers show them, so row 0 of a
// picture is the file's last.
#include "picture/fits_file.h"

#include <fitsio.h>

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

namespace {

using deconv::Error;
using deconv::Image;

struct FitsCloser {
  void operator()(fitsfile* file) const {
    int status = 0;
    fits_close_file(file, &status);
  }
};
using FitsFile = std::unique_ptr<fitsfile, FitsCloser>;

std::string reason(const int status) {
  char text[FLEN_STATUS] = "";
  fits_get_errstatus(status, text);
  fits_clear_errmsg();
  return text;
}

[[noreturn]] void damaged(const std::string& path, const std::string& why) {
  throw Error("cannot read " + path + ": " + why);
}

bool starts_as_fits(const std::string& path) {
  std::FILE* const file = std::fopen(path.c_str(), "rb");
  if (!file) return false;
  char start[9] = {};
  const bool fits = std::fread(start, 1, 9, file) == 9 && !std::strncmp(start, "SIMPLE  =", 9);
  std::fclose(file);
  return fits;
}

// Moves to the first HDU holding an image, the primary one first: many
// observatories leave the primary array empty and put the image in an
// extension, and cfitsio shows a tile-compressed one as an image.
void find_image(fitsfile* file, const std::string& path) {
  for (int status = 0;;) {
    int type = 0, axes = 0;
    fits_get_hdu_type(file, &type, &status);
    if (!status && type == IMAGE_HDU) fits_get_img_dim(file, &axes, &status);
    if (status) damaged(path, reason(status));
    if (type == IMAGE_HDU && axes > 0) return;
    if (fits_movrel_hdu(file, 1, nullptr, &status)) {
      if (status == END_OF_FILE) damaged(path, "the FITS file holds no image");
      damaged(path, reason(status));
    }
  }
}

// Cards of the array's layout, scaling, nulls and checksums describe the
// file, not the picture: they are written anew.
bool describes_the_array(const char* card) {
  const int kind = fits_get_keyclass(const_cast<char*>(card));
  return kind == TYP_STRUC_KEY || kind == TYP_CMPRS_KEY || kind == TYP_SCAL_KEY || kind == TYP_NULL_KEY ||
         kind == TYP_DIM_KEY || kind == TYP_CKSUM_KEY || kind == TYP_COMM_KEY || kind == TYP_CONT_KEY;
}

// The numeric and string cards, each keyword's first.
void read_cards(fitsfile* file, OIIO::ImageSpec& header) {
  int status = 0, count = 0;
  fits_get_hdrspace(file, &count, nullptr, &status);
  for (int n = 1; n <= count && !status; ++n) {
    char card[FLEN_CARD] = "", keyword[FLEN_KEYWORD] = "", value[FLEN_VALUE] = "";
    if (fits_read_record(file, n, card, &status) || describes_the_array(card)) continue;
    int length = 0;
    fits_get_keyname(card, keyword, &length, &status);
    fits_parse_value(card, value, nullptr, &status);
    char type = 0;
    if (status || !*keyword || !*value || header.find_attribute(keyword) || fits_get_keytype(value, &type, &status)) {
      status = 0;
      continue;
    }
    if (type == 'C') {
      char text[FLEN_VALUE] = "";
      fits_read_key(file, TSTRING, keyword, text, nullptr, &status);
      header.attribute(keyword, std::string(text));
    } else if (type == 'I' || type == 'F') {
      double number = 0;
      fits_read_key(file, TDOUBLE, keyword, &number, nullptr, &status);
      header.attribute(keyword, (float)number);
    }
    status = 0;
  }
  fits_clear_errmsg();
}

}  // namespace

bool read_fits(const std::string& path, const SampleScale scale, PictureFile& picture) {
  if (!starts_as_fits(path)) return false;
  fitsfile* opened = nullptr;
  int status = 0;
  // The disk file's name as it stands: cfitsio's other openers read brackets
  // and suffixes in a name as filters.
  if (fits_open_diskfile(&opened, path.c_str(), READONLY, &status)) damaged(path, reason(status));
  const FitsFile file(opened);
  find_image(file.get(), path);

  int type = 0, axes = 0;
  long sizes[3] = {1, 1, 1};
  fits_get_img_param(file.get(), 3, &type, &axes, sizes, &status);
  fits_get_img_equivtype(file.get(), &type, &status);  // BITPIX 16 with BZERO 32768: USHORT_IMG
  if (status) damaged(path, reason(status));
  const long width = sizes[0], height = axes >= 2 ? sizes[1] : 1, channels = axes >= 3 ? sizes[2] : 1;
  if (axes < 2 || axes > 3 || width < 1 || height < 1 || channels < 1 || width > 1000000000 ||
      height > 1000000000 || channels > 1024)
    damaged(path, "the FITS array is not a picture of two or three axes");
  require_memory(path, width, height, (int)channels);

  picture.depth = type == BYTE_IMG ? SampleDepth::u8 : type == USHORT_IMG ? SampleDepth::u16 : SampleDepth::f32;
  const float range = scale == SampleScale::raw || picture.depth == SampleDepth::f32 ? 1.0f
                      : picture.depth == SampleDepth::u8                             ? 255.0f
                                                                                     : 65535.0f;
  picture.header = OIIO::ImageSpec((int)width, (int)height, (int)channels,
                                   picture.depth == SampleDepth::u8    ? OIIO::TypeDesc::UINT8
                                   : picture.depth == SampleDepth::u16 ? OIIO::TypeDesc::UINT16
                                                                       : OIIO::TypeDesc::FLOAT);
  read_cards(file.get(), picture.header);

  const size_t count = (size_t)width * height * channels;
  std::vector<float> stored(count);
  int any_null = 0;
  if (fits_read_img(file.get(), TFLOAT, 1, (LONGLONG)count, nullptr, stored.data(), &any_null, &status))
    damaged(path, status == END_OF_FILE ? "the file ends before its last pixel" : reason(status));
  picture.image = Image((int)width, (int)height, (int)channels);
  const size_t plane = (size_t)width * height;
  for (long c = 0; c < channels; ++c)
    for (long row = 0; row < height; ++row) {
      const float* const in = stored.data() + c * plane + (size_t)row * width;
      float* const out = picture.image.pixels.data() + c * plane + (size_t)(height - 1 - row) * width;
      for (long x = 0; x < width; ++x) out[x] = in[x] / range;
    }
  return true;
}

namespace {

[[noreturn]] void cannot_make(const int status) {
  throw Error("cannot make the FITS file: " + reason(status));
}

// A result's sample clamped to 0..1, scaled and truncated as every integer
// file of these commands is; NaN is 0.
template <class Sample>
Sample integer_sample(float unit, const float maximum) {
  unit = unit < 0 ? 0.0f : unit > 1 ? 1.0f : unit;
  const float scaled = unit * maximum;
  return scaled == scaled ? (Sample)scaled : 0;
}

bool keyword_name(const std::string& name) {
  return !name.empty() && name.size() <= 8 && std::all_of(name.begin(), name.end(), [](char c) {
    return std::isupper((unsigned char)c) || std::isdigit((unsigned char)c) || c == '-' || c == '_';
  });
}

// The header's numeric and string attributes named as FITS keywords, the
// cards of the array's own layout excepted: those were written for it.
void write_cards(fitsfile* file, const OIIO::ImageSpec& header) {
  for (const OIIO::ParamValue& p : header.extra_attribs) {
    const std::string name = p.name().string();
    char card[FLEN_CARD];
    std::snprintf(card, sizeof card, "%-8s= 0", name.c_str());
    if (!keyword_name(name) || p.nvalues() != 1 || describes_the_array(card)) continue;
    int status = 0;
    if (p.type() == OIIO::TypeDesc::INT) {
      fits_update_key_lng(file, name.c_str(), p.get_int(), nullptr, &status);
    } else if (p.type() == OIIO::TypeDesc::FLOAT) {
      fits_update_key_dbl(file, name.c_str(), p.get_float(), -9, nullptr, &status);
    } else if (p.type() == OIIO::TypeDesc::STRING) {
      std::string text;  // FITS cards hold printable ASCII only
      for (const char c : p.get_string()) if (c >= ' ' && c <= '~') text += c;
      fits_update_key_str(file, name.c_str(), text.substr(0, 68).c_str(), nullptr, &status);
    }
    if (status) cannot_make(status);
  }
}

template <class Sample>
std::vector<Sample> stored_planes(const Image& image, const Image* alpha, const float maximum) {
  const int channels = image.channels + (alpha ? 1 : 0);
  const size_t plane = (size_t)image.width * image.height;
  std::vector<Sample> out;
  out.reserve(plane * channels);
  for (int c = 0; c < channels; ++c) {
    const float* const samples = c < image.channels ? image.pixels.data() + c * plane : alpha->pixels.data();
    for (int row = image.height - 1; row >= 0; --row)
      for (int x = 0; x < image.width; ++x) {
        const float v = samples[(size_t)row * image.width + x];
        out.push_back(maximum > 0 ? integer_sample<Sample>(v, maximum) : (Sample)v);
      }
  }
  return out;
}

struct Buffer {
  void* data = nullptr;
  size_t size = 0;
  ~Buffer() { std::free(data); }
};

}  // namespace

std::vector<unsigned char> fits_bytes(const OIIO::ImageSpec& header, const Image& image, const Image* alpha) {
  const int bits = header.format == OIIO::TypeDesc::UINT8    ? BYTE_IMG
                   : header.format == OIIO::TypeDesc::UINT16 ? USHORT_IMG
                                                             : FLOAT_IMG;
  const int channels = image.channels + (alpha ? 1 : 0);
  long sizes[3] = {image.width, image.height, channels};
  const LONGLONG count = (LONGLONG)image.width * image.height * channels;
  Buffer memory;
  LONGLONG length = 0;
  fitsfile* made = nullptr;
  int status = 0;
  if (fits_create_memfile(&made, &memory.data, &memory.size, 1 << 20, std::realloc, &status)) cannot_make(status);
  {
    const FitsFile file(made);
    // cfitsio writes unsigned 16-bit data as FITS has it: signed, BZERO 32768.
    fits_create_img(file.get(), bits, channels > 1 ? 3 : 2, sizes, &status);
    if (status) cannot_make(status);
    write_cards(file.get(), header);
    if (bits == BYTE_IMG) {
      auto samples = stored_planes<unsigned char>(image, alpha, 255.0f);
      fits_write_img(file.get(), TBYTE, 1, count, samples.data(), &status);
    } else if (bits == USHORT_IMG) {
      auto samples = stored_planes<unsigned short>(image, alpha, 65535.0f);
      fits_write_img(file.get(), TUSHORT, 1, count, samples.data(), &status);
    } else {
      auto samples = stored_planes<float>(image, alpha, 0.0f);
      fits_write_img(file.get(), TFLOAT, 1, count, samples.data(), &status);
    }
    // The memory grows in steps: the file ends where its data's last record does.
    LONGLONG header_start = 0, data_start = 0;
    fits_get_hduaddrll(file.get(), &header_start, &data_start, &length, &status);
    if (status) cannot_make(status);
  }  // closing writes the last record
  const auto* const bytes = static_cast<const unsigned char*>(memory.data);
  return std::vector<unsigned char>(bytes, bytes + std::min<size_t>(memory.size, (size_t)length));
}
