#include "tool/value_range.h"

#include <xmmintrin.h>

void scale_to_unit(cimg_library::CImg<float>& image) {
  for (float& v : image) v /= 255.0f;
}

void flush_denormals_to_zero() { _mm_setcsr(_mm_getcsr() | 0x8040); }
