// deconv INPUT PSF OUTPUT WORKERS [QUALITY [STRENGTH]]
//
// Restores one blurred picture with its PSF and saves the result. Silent on
// success; the outcome is the exit status: 1 for bad arguments, 10 for a
// library instance error, 11 for any other standard exception, 12 otherwise.
#include <cstdio>
#include <cstdlib>

#include "engine/deconv.h"
#include "tool/exit_status.h"
#include "tool/image_io.h"
#include "tool/value_range.h"

int main(int argc, char** argv) {
  return run_with_exit_status([&] {
    flush_denormals_to_zero();
    cimg_library::cimg::srand();  // temporary names differ between runs
    if (argc < 5) return 1;

    CImg<float> image, psf;
    load_image(image, argv[1]);
    load_image(psf, argv[2]);
    const int worker_count = std::atoi(argv[4]);
    int quality = 95, strength = 10;
    if (argc > 5) {
      quality = std::atoi(argv[5]);
      if (quality < 10 || quality > 100) return 1;
    }
    if (argc > 6) {
      strength = std::atoi(argv[6]);
      if (strength < 0 || strength > 200) return 1;
    }

    const bool is_png = input_is_png(argv[1]);
    scale_to_unit(image);
    normalize_to_unit_sum(psf);
    CImg<float> output(image.width(), image.height(), image.depth(), image.spectrum());

    // On an exception inside deconv_nonblind the engine is deliberately not
    // destroyed: its workers die with the process and the semaphores stay.
    CDeconv* const engine = new CDeconv(worker_count, strength);
    engine->deconv_nonblind(output, image, psf);
    delete engine;

    save_result(output, argv[3], is_png, quality);
    return 0;
  });
}
