#include "picture/light.h"

#include <algorithm>
#include <cctype>
#include <cstdint>

namespace {

enum class Says { nothing, linear, encoded };

uint32_t big_endian(const unsigned char* p) {
  return (uint32_t)p[0] << 24 | (uint32_t)p[1] << 16 | (uint32_t)p[2] << 8 | p[3];
}

// An ICC profile's red (or grey) tone curve: a 'curv' of no entries or of a
// gamma of 1 (u8Fixed8), or a 'para' of type 0 with a gamma of 1
// (s15Fixed16), is linear; any other curve encodes.
Says icc_says(const OIIO::ImageSpec& header) {
  const OIIO::ParamValue* icc = header.find_attribute("ICCProfile");
  if (!icc || icc->type().basetype != OIIO::TypeDesc::UINT8) return Says::nothing;
  const unsigned char* const bytes = (const unsigned char*)icc->data();
  const size_t size = icc->type().numelements() * icc->nvalues();
  if (size < 132) return Says::encoded;  // too short to read: profiles are for encoded values
  const uint32_t tags = big_endian(bytes + 128);
  for (uint32_t t = 0; t < tags && 132 + 12 * (t + 1) <= size; ++t) {
    const unsigned char* const entry = bytes + 132 + 12 * t;
    const uint32_t signature = big_endian(entry), offset = big_endian(entry + 4);
    if ((signature != 0x72545243 /* rTRC */ && signature != 0x6b545243 /* kTRC */) || offset + 16 > size) continue;
    const unsigned char* const curve = bytes + offset;
    const uint32_t type = big_endian(curve), count = big_endian(curve + 8);
    if (type == 0x63757276 /* curv */)
      return count == 0 || (count == 1 && curve[12] == 1 && curve[13] == 0) ? Says::linear : Says::encoded;
    if (type == 0x70617261 /* para */)
      return curve[8] == 0 && curve[9] == 0 && big_endian(curve + 12) == 0x10000 ? Says::linear : Says::encoded;
    return Says::encoded;
  }
  return Says::encoded;
}

// oiio:ColorSpace: "sRGB", "GammaCorrected2.2", "Gamma2.2", "Linear",
// "linear", "scene_linear", "lin_srgb", ...
Says colour_space_says(const OIIO::ImageSpec& header) {
  std::string space = header.get_string_attribute("oiio:ColorSpace");
  std::transform(space.begin(), space.end(), space.begin(), [](unsigned char c) { return (char)std::tolower(c); });
  if (space.empty()) return Says::nothing;
  if (space.find("linear") != std::string::npos || space.find("lin_") == 0) return Says::linear;
  if (space.find("srgb") != std::string::npos || space.find("gamma") != std::string::npos) return Says::encoded;
  return Says::nothing;
}

}  // namespace

std::string light_of(const PictureFile& picture) {
  Says says = icc_says(picture.header);
  if (says == Says::nothing) says = colour_space_says(picture.header);
  if (says == Says::nothing) says = picture.depth == SampleDepth::u8 ? Says::encoded : Says::linear;
  return says == Says::encoded ? "encoded" : "linear";
}

std::string light_for(const std::string& asked, const PictureFile& picture) {
  return asked == "auto" ? light_of(picture) : asked;
}
