// A FITS file is 80-character cards in 2880-byte records, END, then the
// array in big-endian samples, NAXIS1 fastest, padded again to a record. Rows
// are stored bottom first, as FITS viewers show them, so row 0 of a picture
// is the file's last.
#include "picture/fits_file.h"

#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>

namespace {

using deconv::Error;
using deconv::Image;

constexpr size_t record = 2880, card = 80;

[[noreturn]] void damaged(const std::string& path, const std::string& reason) {
  throw Error("cannot read " + path + ": " + reason);
}

// The header's cards up to END, by keyword, as their value text; false if the
// file does not start as FITS does. `data` is where the array starts.
bool read_cards(std::FILE* file, const std::string& path, std::map<std::string, std::string>& cards, long& data) {
  char block[record];
  for (long at = 0;; at += (long)record) {
    if (std::fread(block, 1, record, file) != record) {
      if (at == 0) return false;
      damaged(path, "the FITS header has no END");
    }
    if (at == 0 && std::strncmp(block, "SIMPLE  =", 9) != 0) return false;
    for (size_t c = 0; c < record; c += card) {
      std::string keyword(block + c, 8);
      keyword.erase(keyword.find_last_not_of(' ') + 1);
      if (keyword == "END") {
        data = at + (long)record;
        return true;
      }
      if (std::strncmp(block + c + 8, "= ", 2) == 0 && !cards.count(keyword))
        cards[keyword] = std::string(block + c + 10, card - 10);
    }
    if (at > (long)(1000 * record)) damaged(path, "the FITS header has no END");
  }
}

bool number(const std::map<std::string, std::string>& cards, const std::string& keyword, double& value) {
  const auto found = cards.find(keyword);
  if (found == cards.end()) return false;
  const char* const text = found->second.c_str();
  char* end = nullptr;
  value = std::strtod(text, &end);
  return end != text && std::isfinite(value);
}

double number_or(const std::map<std::string, std::string>& cards, const std::string& keyword, const double fallback) {
  double value;
  return number(cards, keyword, value) ? value : fallback;
}

// A card's string value ('text', a quote written twice inside, trailing
// blanks not counted); false for any other value.
bool quoted(const std::string& value, std::string& text) {
  const size_t open = value.find_first_not_of(' ');
  if (open == std::string::npos || value[open] != '\'') return false;
  text.clear();
  for (size_t i = open + 1; i < value.size(); ++i) {
    if (value[i] != '\'') {
      text += value[i];
      continue;
    }
    if (i + 1 < value.size() && value[i + 1] == '\'') {
      text += '\'';
      ++i;
      continue;
    }
    text.erase(text.find_last_not_of(' ') + 1);
    return true;
  }
  return false;
}

// Cards that describe the array itself, not the picture.
bool structural(const std::string& keyword) {
  return keyword == "SIMPLE" || keyword == "BITPIX" || keyword.rfind("NAXIS", 0) == 0 || keyword == "BZERO" ||
         keyword == "BSCALE" || keyword == "EXTEND" || keyword == "END";
}

// Sample i of the array in the file's own type, big-endian.
double stored(const unsigned char* data, const int bitpix, const size_t i) {
  const size_t size = std::abs(bitpix) / 8;
  uint64_t bits = 0;
  for (size_t b = 0; b < size; ++b) bits = bits << 8 | data[i * size + b];
  switch (bitpix) {
    case 8:
      return (double)(uint8_t)bits;
    case 16:
      return (double)(int16_t)bits;
    case 32:
      return (double)(int32_t)bits;
    case 64:
      return (double)(int64_t)bits;
    case -32: {
      float f;
      const uint32_t word = (uint32_t)bits;
      std::memcpy(&f, &word, 4);
      return f;
    }
    default: {
      double d;
      std::memcpy(&d, &bits, 8);
      return d;
    }
  }
}

}  // namespace

bool read_fits(const std::string& path, const SampleScale scale, PictureFile& picture) {
  std::FILE* const file = std::fopen(path.c_str(), "rb");
  if (!file) return false;
  std::map<std::string, std::string> cards;
  long data = 0;
  std::vector<unsigned char> bytes;
  try {
    if (!read_cards(file, path, cards, data)) {
      std::fclose(file);
      return false;
    }
    double bitpix = 0, axes = 0, width = 0, height = 0;
    if (!number(cards, "BITPIX", bitpix) || !number(cards, "NAXIS", axes) || !number(cards, "NAXIS1", width) ||
        !number(cards, "NAXIS2", height))
      damaged(path, "the FITS header lacks BITPIX or the array's axes");
    const double channels = axes >= 3 ? number_or(cards, "NAXIS3", 0) : 1;
    if (bitpix != 8 && bitpix != 16 && bitpix != 32 && bitpix != 64 && bitpix != -32 && bitpix != -64)
      damaged(path, "BITPIX is not one of 8, 16, 32, 64, -32 and -64");
    if (axes < 2 || axes > 3 || width < 1 || height < 1 || channels < 1 || width > 1e9 || height > 1e9 ||
        channels > 1024)
      damaged(path, "the FITS array is not a picture of two or three axes");
    require_memory(path, (long)width, (long)height, (int)channels);
    const size_t count = (size_t)width * (size_t)height * (size_t)channels;
    bytes.resize(count * (size_t)(std::fabs(bitpix) / 8));
    if (std::fseek(file, data, SEEK_SET) != 0 || std::fread(bytes.data(), 1, bytes.size(), file) != bytes.size())
      damaged(path, "the file ends before its last pixel");
  } catch (...) {
    std::fclose(file);
    throw;
  }
  std::fclose(file);

  const int bits = (int)number_or(cards, "BITPIX", 0);
  const int width = (int)number_or(cards, "NAXIS1", 0), height = (int)number_or(cards, "NAXIS2", 0);
  const int channels = (int)number_or(cards, "NAXIS", 0) >= 3 ? (int)number_or(cards, "NAXIS3", 0) : 1;
  const double zero = number_or(cards, "BZERO", 0), factor = number_or(cards, "BSCALE", 1);
  picture.depth = bits == 8 && zero == 0 && factor == 1        ? SampleDepth::u8
                  : bits == 16 && zero == 32768 && factor == 1 ? SampleDepth::u16
                                                               : SampleDepth::f32;
  const float range = scale == SampleScale::raw || picture.depth == SampleDepth::f32 ? 1.0f
                      : picture.depth == SampleDepth::u8                             ? 255.0f
                                                                                     : 65535.0f;
  picture.header = OIIO::ImageSpec(width, height, channels,
                                   picture.depth == SampleDepth::u8    ? OIIO::TypeDesc::UINT8
                                   : picture.depth == SampleDepth::u16 ? OIIO::TypeDesc::UINT16
                                                                       : OIIO::TypeDesc::FLOAT);
  for (const auto& [keyword, value] : cards) {
    double v;
    std::string text;
    if (structural(keyword)) continue;
    if (quoted(value, text))
      picture.header.attribute(keyword, text);
    else if (number(cards, keyword, v))
      picture.header.attribute(keyword, (float)v);
  }
  picture.image = Image(width, height, channels);
  const size_t plane = (size_t)width * height;
  for (int c = 0; c < channels; ++c)
    for (int row = 0; row < height; ++row) {
      float* const out = picture.image.pixels.data() + c * plane + (size_t)(height - 1 - row) * width;
      const size_t first = c * plane + (size_t)row * width;
      for (int x = 0; x < width; ++x) out[x] = (float)(factor * stored(bytes.data(), bits, first + x) + zero) / range;
    }
  return true;
}

namespace {

void put_card(std::string& text, const std::string& keyword, const std::string& value) {
  char line[card + 1];
  std::snprintf(line, sizeof line, "%-8.8s= %20.20s", keyword.c_str(), value.c_str());
  text += line;
  text.append(card - std::strlen(line), ' ');
}

// KEYWORD = 'text': quotes inside written twice, at least 8 characters
// between the quotes, as much of the text as a card holds.
void put_string_card(std::string& text, const std::string& keyword, const std::string& value) {
  std::string quoted = "'";
  for (const char c : value) {
    if (c < ' ' || c > '~') continue;  // FITS cards hold printable ASCII only
    if (quoted.size() + (c == '\'' ? 2 : 1) > card - 11) break;
    quoted += c;
    if (c == '\'') quoted += c;
  }
  while (quoted.size() < 9) quoted += ' ';
  quoted += '\'';
  char line[card + 1];
  std::snprintf(line, sizeof line, "%-8.8s= %s", keyword.c_str(), quoted.c_str());
  text += line;
  text.append(card - std::strlen(line), ' ');
}

// A result's sample clamped to 0..1, scaled and truncated as every integer
// file of these commands is; NaN is 0.
uint32_t integer_sample(float unit, const float maximum) {
  unit = unit < 0 ? 0.0f : unit > 1 ? 1.0f : unit;
  const float scaled = unit * maximum;
  return scaled == scaled ? (uint32_t)scaled : 0;
}

}  // namespace

std::vector<unsigned char> fits_bytes(const OIIO::ImageSpec& header, const Image& image, const Image* alpha) {
  const int bits = header.format == OIIO::TypeDesc::UINT8 ? 8 : header.format == OIIO::TypeDesc::UINT16 ? 16 : -32;
  const int channels = image.channels + (alpha ? 1 : 0);
  std::string text;
  put_card(text, "SIMPLE", "T");
  put_card(text, "BITPIX", std::to_string(bits));
  put_card(text, "NAXIS", channels > 1 ? "3" : "2");
  put_card(text, "NAXIS1", std::to_string(image.width));
  put_card(text, "NAXIS2", std::to_string(image.height));
  if (channels > 1) put_card(text, "NAXIS3", std::to_string(channels));
  if (bits == 16) {  // FITS has no unsigned type: the stored value is v - 32768
    put_card(text, "BZERO", "32768");
    put_card(text, "BSCALE", "1");
  }
  for (const OIIO::ParamValue& p : header.extra_attribs) {
    const std::string name = p.name().string();
    const bool keyword = !name.empty() && name.size() <= 8 && std::all_of(name.begin(), name.end(), [](char c) {
      return std::isupper((unsigned char)c) || std::isdigit((unsigned char)c) || c == '-' || c == '_';
    });
    if (!keyword || structural(name) || p.nvalues() != 1) continue;
    char value[32];
    if (p.type() == OIIO::TypeDesc::INT)
      std::snprintf(value, sizeof value, "%d", p.get_int());
    else if (p.type() == OIIO::TypeDesc::FLOAT)
      std::snprintf(value, sizeof value, "%.9G", p.get_float());
    else if (p.type() == OIIO::TypeDesc::STRING)
      put_string_card(text, name, p.get_string());
    if (p.type() == OIIO::TypeDesc::INT || p.type() == OIIO::TypeDesc::FLOAT) put_card(text, name, value);
  }
  text += "END";
  text.append((record - text.size() % record) % record, ' ');

  std::vector<unsigned char> bytes(text.begin(), text.end());
  const size_t plane = (size_t)image.width * image.height;
  for (int c = 0; c < channels; ++c) {
    const float* const samples = c < image.channels ? image.pixels.data() + c * plane : alpha->pixels.data();
    for (int row = image.height - 1; row >= 0; --row)
      for (int x = 0; x < image.width; ++x) {
        const float v = samples[(size_t)row * image.width + x];
        uint32_t word;
        if (bits == 8) {
          bytes.push_back((unsigned char)integer_sample(v, 255.0f));
          continue;
        }
        if (bits == 16) {
          word = (integer_sample(v, 65535.0f) - 32768u) & 0xFFFF;
          bytes.push_back((unsigned char)(word >> 8));
          bytes.push_back((unsigned char)word);
          continue;
        }
        std::memcpy(&word, &v, 4);
        for (int shift = 24; shift >= 0; shift -= 8) bytes.push_back((unsigned char)(word >> shift));
      }
  }
  bytes.resize(bytes.size() + (record - bytes.size() % record) % record, 0);
  return bytes;
}
