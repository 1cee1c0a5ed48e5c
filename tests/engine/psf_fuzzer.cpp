// Fuzzes the preparation of a PSF as a run makes it: normalised to sum 1, put
// on a canvas of twice its width plus one, centred by RecenterPsf and measured
// by FindSupport. Two bytes give its size (1 to 16 each), the rest its values
// as raw floats, so that zeros, negative sums, NaN and infinities all come.
// The engine is made once, with no worker; run it with a /dev/shm of its own.
#include <cstring>

#include "engine/deconv.h"

namespace {
CDeconv* engine;
}

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  engine = new CDeconv(0, 10);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 2) return 0;
  const int w = 1 + data[0] % 16, h = 1 + data[1] % 16;
  CImg<float> psf(w, h, 1, 1, 0.0f);
  std::memcpy(psf.data(), data + 2, std::min(size - 2, psf.size() * sizeof(float)));
  normalize_to_unit_sum(psf);
  psf.resize(2 * w + 1, 2 * w + 1, 1, 1, 0, 0, 0.5f, 0.5f, 0.0f, 0.0f);
  engine->RecenterPsf(psf);
  const int support = engine->FindSupport(psf);
  if (support < 3 || support % 2 == 0) __builtin_trap();  // always odd, at least 3
  return 0;
}
