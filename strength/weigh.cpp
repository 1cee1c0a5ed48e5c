#include "strength/weigh.h"

#include <thread>
#include <type_traits>
#include <vector>

namespace {

// Adds every frequency of one tapered plane to `choice`.
void weigh_plane(const CImg<float>& plane, const CDeconv& engine, StrengthChoice& choice, pthread_mutex_t* mutex) {
  const float* const Hr = engine.psf_fft[0].data();
  const float* const Hi = engine.psf_fft[1].data();
  const float* const S = engine.fidelity_spectrum.data();
  const float* const N = engine.smoothness_spectrum.data();
  const int64_t width = plane.width(), height = plane.height();
  const auto one = [&](const float re, const float im, const size_t k) {
    choice.add(S[k] * (Hr[k] * Hr[k] + Hi[k] * Hi[k]), N[k], re * re + im * im,
               StrengthChoice::coarse((int64_t)k % width, (int64_t)k / width, width, height));
  };
  CImg<float>::FFT_visit(
      plane,
      [&](auto& re, auto& im, const cimg_uint64 k) {
        if constexpr (std::is_same_v<std::decay_t<decltype(re)>, float>) {
          one(re, im, k);
        } else {  // four frequencies side by side
          float r[4], i[4];
          _mm_storeu_ps(r, re.v);
          _mm_storeu_ps(i, im.v);
          for (int j = 0; j < 4; ++j) one(r[j], i[j], k + j);
        }
      },
      mutex);
}

}  // namespace

StrengthChoice weigh_picture(const CImg<float>& tapered, CDeconv& engine) {
  // Each plane with its own histogram, merged at the end.
  std::vector<StrengthChoice> choices(tapered.spectrum());
  std::vector<std::thread> threads;
  for (int c = 0; c < tapered.spectrum(); ++c)
    threads.emplace_back([&, c] {
      const CImg<float> plane = tapered.get_shared_channel(c);
      weigh_plane(plane, engine, choices[c], &engine.fft_mutex);
    });
  for (std::thread& thread : threads) thread.join();
  for (int c = 1; c < tapered.spectrum(); ++c) choices[0].merge(choices[c]);
  return choices[0];
}
