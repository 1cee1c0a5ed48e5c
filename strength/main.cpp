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

#include "strength/weigh.h"
#include "tool/exit_status.h"
#include "tool/image_io.h"
#include "tool/value_range.h"

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

    const StrengthChoice choice = weigh_picture(image, *engine);
    delete engine;

    std::printf("%d\n", choice.strength());
    return 0;
  });
}
