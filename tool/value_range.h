// The two value ranges of a run: 0..255 on the file side, 0..1 inside the
// engine. Both conversions are one pass in single precision.
#ifndef DECONV_TOOL_VALUE_RANGE_H
#define DECONV_TOOL_VALUE_RANGE_H

#include "imaging/cimg_config.h"

// Divides every pixel by 255.0f, whatever the file's depth; nothing is clamped.
void scale_to_unit(cimg_library::CImg<float>& image);

// A result's value as a sample of a file whose largest value is `maximum`
// (255, or 65535 for 16 bits): clamped to 0..1, multiplied by the maximum in
// single precision, truncated toward zero (254.9 is 254, not 255). NaN, which
// the clamp keeps, becomes 0.
inline unsigned int to_file_value(float unit, const float maximum) {
  unit = unit < 0 ? 0.0f : unit > 1 ? 1.0f : unit;
  const float scaled = unit * maximum;
  return scaled == scaled ? (unsigned int)scaled : 0;
}

// Makes denormal inputs and results zero on this thread (x86 SSE: FTZ | DAZ).
void flush_denormals_to_zero();

#endif
