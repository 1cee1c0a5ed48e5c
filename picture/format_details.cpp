// The JPEG quality is read back from the luminance table by scaling the
// standard one as libjpeg does; a PNG's eXIf chunk is OpenImageIO's own Exif
// encoding, as its JPEG and TIFF writers embed it.
#include "picture/format_details.h"

#include <OpenImageIO/tiffutils.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>

namespace {

// ITU-T T.81 Annex K.1, the luminance table every libjpeg quality scales.
constexpr std::array<int, 64> standard_luminance = {
    16, 11,  10,  16, 24, 40, 51, 61, 12,  12,  14,  19,  26, 58, 60, 55,  14,  13,  16,  24, 40, 57,
    69, 56,  14,  17, 22, 29, 51, 87, 80,  62,  18,  22,  37, 56, 68, 109, 103, 77,  24,  35, 55, 64,
    81, 104, 113, 92, 49, 64, 78, 87, 103, 121, 120, 101, 72, 92, 95, 98,  112, 100, 103, 99};

// The table libjpeg makes for `quality` (jpeg_quality_scaling, baseline), sorted.
std::array<int, 64> scaled_table(const int quality) {
  const int scale = quality < 50 ? 5000 / quality : 200 - 2 * quality;
  std::array<int, 64> table;
  for (int i = 0; i < 64; ++i) table[i] = std::clamp((standard_luminance[i] * scale + 50) / 100, 1, 255);
  std::sort(table.begin(), table.end());
  return table;
}

// Table 0 of the file's DQT segments, sorted (the file stores it in zigzag
// order; sorted, the order does not matter), or false before the first scan.
bool luminance_table(const std::vector<unsigned char>& bytes, std::array<int, 64>& table) {
  if (bytes.size() < 4 || bytes[0] != 0xFF || bytes[1] != 0xD8) return false;
  for (size_t at = 2; at + 4 <= bytes.size();) {
    if (bytes[at] != 0xFF) return false;
    const int marker = bytes[at + 1];
    if (marker == 0xFF) {  // fill bytes
      ++at;
      continue;
    }
    if (marker == 0xDA || marker == 0xD9) return false;  // the scan starts: no table came
    const size_t length = (size_t)bytes[at + 2] << 8 | bytes[at + 3];
    const size_t end = at + 2 + length;
    if (length < 2 || end > bytes.size()) return false;
    for (size_t t = at + 4; marker == 0xDB && t < end;) {
      const bool wide = bytes[t] >> 4, first = (bytes[t] & 15) == 0;
      const size_t size = 1 + 64 * (wide ? 2 : 1);
      if (t + size > end) return false;
      if (first) {
        for (int i = 0; i < 64; ++i)
          table[i] = wide ? bytes[t + 1 + 2 * i] << 8 | bytes[t + 2 + 2 * i] : bytes[t + 1 + i];
        std::sort(table.begin(), table.end());
        return true;
      }
      t += size;
    }
    at = end;
  }
  return false;
}

uint32_t crc32(const unsigned char* data, const size_t size) {
  uint32_t crc = 0xFFFFFFFFu;
  for (size_t i = 0; i < size; ++i) {
    crc ^= data[i];
    for (int k = 0; k < 8; ++k) crc = crc >> 1 ^ (0xEDB88320u & (0u - (crc & 1)));
  }
  return ~crc;
}

void put_u32(std::vector<unsigned char>& out, const uint32_t v) {
  for (int shift = 24; shift >= 0; shift -= 8) out.push_back((unsigned char)(v >> shift));
}

}  // namespace

int jpeg_quality(const std::vector<unsigned char>& bytes) {
  std::array<int, 64> table;
  if (!luminance_table(bytes, table)) return 0;
  // From the top: at low qualities many scalings clip to the same table, and
  // the highest of them writes it again.
  for (int quality = 100; quality >= 1; --quality)
    if (scaled_table(quality) == table) return quality;
  return 0;
}

bool iptc_overruns(const std::vector<unsigned char>& bytes) {
  // The block as OpenImageIO reads it: "Photoshop 3.0", 0, "8BIM", 0x0404, four
  // bytes skipped, the records' length in two, then records of 0x1C, record,
  // dataset and a two-byte size. Every block is looked at, wherever a marker
  // stands: libjpeg finds markers past bytes that are none.
  static const unsigned char tag[] = "Photoshop 3.0";  // with its 0
  const auto u16 = [&](const size_t at) { return (size_t)bytes[at] << 8 | bytes[at + 1]; };
  for (auto at = bytes.begin(); (at = std::search(at, bytes.end(), tag, tag + sizeof tag)) != bytes.end(); ++at) {
    const size_t start = at - bytes.begin();
    // The marker's own length bounds what libjpeg keeps of it.
    const size_t end = start >= 4 && bytes[start - 4] == 0xFF && bytes[start - 3] == 0xED && u16(start - 2) >= 2
                           ? std::min(bytes.size(), start - 2 + u16(start - 2))
                           : bytes.size();
    size_t i = start + sizeof tag;
    if (i + 12 > end || std::memcmp(&bytes[i], "8BIM", 4) || u16(i + 4) != 0x0404) continue;
    long left = (long)u16(i + 10);
    for (i += 12; left > 0;) {
      if (i + 5 > end) return true;
      if (bytes[i] != 0x1C || (bytes[i + 1] != 1 && bytes[i + 1] != 2)) break;
      const size_t size = u16(i + 3);
      i += 5;
      if (i + size > end) return true;
      i += size;
      left -= 5 + (long)size;
    }
  }
  return false;
}

std::vector<unsigned char> file_head(const std::string& path, const size_t limit) {
  std::vector<unsigned char> bytes(limit);
  std::FILE* const file = std::fopen(path.c_str(), "rb");
  bytes.resize(file ? std::fread(bytes.data(), 1, limit, file) : 0);
  if (file) std::fclose(file);
  return bytes;
}

bool png_cut_short(const std::string& path) {
  std::FILE* const file = std::fopen(path.c_str(), "rb");
  if (!file) return false;
  unsigned char head[8];
  bool png = std::fread(head, 1, 8, file) == 8 && !std::memcmp(head, "\x89PNG\r\n\x1a\n", 8), cut = false;
  // Chunk by chunk, by their lengths alone, to IEND; the last byte of each must be there.
  for (long at = 8; png && !cut;) {
    unsigned char chunk[8];
    cut = std::fseek(file, at, SEEK_SET) != 0 || std::fread(chunk, 1, 8, file) != 8;
    if (cut) break;
    const long length = (long)chunk[0] << 24 | (long)chunk[1] << 16 | (long)chunk[2] << 8 | (long)chunk[3];
    at += 12 + length;
    cut = std::fseek(file, at - 1, SEEK_SET) != 0 || std::fgetc(file) == EOF;
    if (!std::memcmp(chunk + 4, "IEND", 4)) break;
  }
  std::fclose(file);
  return png && cut;
}

std::vector<unsigned char> with_exif_chunk(const std::vector<unsigned char>& png, const OIIO::ImageSpec& header) {
  std::vector<char> blob;
  OIIO::encode_exif(header, blob, OIIO::endian::big);
  // The block goes into JPEG's APP1 with its "Exif\0\0" mark; eXIf takes the TIFF data alone.
  if (blob.size() >= 6 && !std::memcmp(blob.data(), "Exif\0\0", 6)) blob.erase(blob.begin(), blob.begin() + 6);
  OIIO::ImageSpec decoded;
  const size_t ihdr_end = 8 + 12 + 13;
  if (blob.empty() || png.size() < ihdr_end ||
      !OIIO::decode_exif(OIIO::string_view(blob.data(), blob.size()), decoded) || decoded.extra_attribs.empty())
    return png;
  std::vector<unsigned char> chunk;
  put_u32(chunk, (uint32_t)blob.size());
  chunk.insert(chunk.end(), {'e', 'X', 'I', 'f'});
  chunk.insert(chunk.end(), blob.begin(), blob.end());
  put_u32(chunk, crc32(chunk.data() + 4, chunk.size() - 4));
  std::vector<unsigned char> out(png.begin(), png.begin() + ihdr_end);
  out.insert(out.end(), chunk.begin(), chunk.end());
  out.insert(out.end(), png.begin() + ihdr_end, png.end());
  return out;
}
