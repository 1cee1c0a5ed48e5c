// deconv-strength INPUT PSF
//
// Prints the STRENGTH (2 to 200) that it expects to restore INPUT best with
// deconv and this PSF, and nothing else. It loads both pictures and prepares
// them exactly as deconv does, with deconv's own engine: the PSF on its
// canvas and centred, its spectrum, S and N, the picture tapered. Then one
// forward transform of each tapered plane gives the spectra that the choice
// (strength/choice.h) weighs. Silent on success; a bad command line gives one
// line on stderr and status 1; the loads fail as deconv's do (10, 11, 12).
// Like deconv it uses the machine's named semaphores: one run at a time.
#include <cstdio>
#include <thread>
#include <type_traits>
#include <vector>

#include "engine/deconv.h"
#include "strength/choice.h"
#include "tool/exit_status.h"
#include "tool/image_io.h"
#include "tool/value_range.h"

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

int main(int argc, char** argv) {
  return run_with_exit_status([&] {
    flush_denormals_to_zero();
    if (argc != 3) {
      std::fprintf(stderr, "usage: deconv-strength INPUT PSF\n");
      return 1;
    }
    CImg<float> image, psf;
    load_image(image, argv[1]);
    load_image(psf, argv[2]);
    scale_to_unit(image);
    normalize_to_unit_sum(psf);

    const int cores = (int)std::max(1u, std::thread::hardware_concurrency());
    CDeconv* const engine = new CDeconv(cores, 10);
    engine->deconv_prepare(image, psf);

    // The planes on threads of their own, each with its own histogram.
    std::vector<StrengthChoice> choices(image.spectrum());
    std::vector<std::thread> threads;
    for (int c = 0; c < image.spectrum(); ++c)
      threads.emplace_back(
          [&, c] { weigh_plane(image.get_shared_channel(c), *engine, choices[c], &engine->fft_mutex); });
    for (std::thread& thread : threads) thread.join();
    delete engine;

    for (int c = 1; c < image.spectrum(); ++c) choices[0].merge(choices[c]);
    std::printf("%d\n", choices[0].strength());
    return 0;
  });
}
