// Fuzzes a PSF's preparation as a run makes it (normalised, on its canvas,
// RecenterPsf, FindSupport): two bytes its size, the rest raw floats, so that
// zeros, NaN and infinities come. One engine with no worker, in its own /dev/shm.
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
