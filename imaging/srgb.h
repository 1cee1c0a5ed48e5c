// The sRGB transfer curve (IEC 61966-2-1), for pictures whose stored values
// are encoded for display: a blur happens in light, before the encoding, so
// a restoration decodes them first and encodes its result again.
//
// Both directions read a table over 0..1 with linear interpolation (within
// 4e-6 of the curve, a thousandth of an 8-bit step, at a few nanoseconds a
// sample); values outside 0..1 take the exact formula, negatives mirrored so
// that ringing below black survives a round trip.
#ifndef DECONV_IMAGING_SRGB_H
#define DECONV_IMAGING_SRGB_H

#include <cstddef>
#include <string>

#include "deconv/deconv.h"

namespace deconv {
namespace imaging {

// Encoded value to linear light, and back, by the formulas themselves.
double srgb_decode_exact(double v);
double srgb_encode_exact(double v);

// The same through the tables, in place over `count` samples.
void srgb_decode(float* samples, size_t count);
void srgb_encode(float* samples, size_t count);

float srgb_decode(float v);
float srgb_encode(float v);

// `picture` in linear light: decoded where `light` is "encoded", as it is
// where "linear". Throws deconv::Error for any other word.
deconv::Image in_linear_light(const deconv::Image& picture, const std::string& light);

// `options` (RestoreOptions, EstimateOptions) for a picture so decoded.
template <class Options>
Options for_linear_light(Options options) {
  options.light = "linear";
  return options;
}

}  // namespace imaging
}  // namespace deconv

#endif
