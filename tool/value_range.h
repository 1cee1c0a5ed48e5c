// The two value ranges of a run: 0..255 on the file side, 0..1 inside the
// engine. Both conversions are one pass in single precision.
#ifndef DECONV_TOOL_VALUE_RANGE_H
#define DECONV_TOOL_VALUE_RANGE_H

#include "tool/cimg_config.h"

// Divides every pixel by 255.0f, whatever the file's depth; nothing is clamped.
void scale_to_unit(cimg_library::CImg<float>& image);

// Clamps to 0..1 (NaN stays NaN) and multiplies by 255.0f, keeping fractions:
// the PNM writer truncates them later.
void scale_to_file_range(cimg_library::CImg<float>& image);

// Makes denormal inputs and results zero on this thread (x86 SSE: FTZ | DAZ).
void flush_denormals_to_zero();

#endif
