// deconv-psf KIND ARGS... OUTPUT
//
//   gaussian SIGMA | motion LENGTH ANGLE | disk RADIUS | box WIDTH HEIGHT |
//   widefield NA WAVELENGTH INDEX PIXEL ZSTEP [PLANES [SAMPLE_INDEX DEPTH]]
//
// Draws the PSF picture of a common blur for deconv and writes it in the
// format OUTPUT's name says, in the process: no shell or converter ever sees
// the name. 16 bits where the small taps need them, 8 otherwise; a widefield
// PSF is a stack, written as TIFF pages. Silent on success; a bad command
// line gives one line on stderr and status 1, a file that cannot be written
// one line and status 11.
#include <cstdio>
#include <cstring>
#include <stdexcept>

#include "commands/face.h"
#include "picture/picture_file.h"
#include "psf/named.h"

namespace {

const char* const usage =
    "usage: deconv-psf KIND ARGS... OUTPUT\n"
    "Draws the PSF picture of a common blur and writes it to OUTPUT, in the format\n"
    "its name says (16 bits where the small taps need them):\n"
    "  gaussian SIGMA        standard deviation in pixels\n"
    "  motion LENGTH ANGLE   a straight shake, in pixels and degrees\n"
    "  disk RADIUS           a lens out of focus\n"
    "  box WIDTH HEIGHT      a uniform rectangle\n"
    "  widefield NA WAVELENGTH INDEX PIXEL ZSTEP [PLANES [SAMPLE_INDEX DEPTH]]\n"
    "                        a widefield microscope's 3-D PSF (lengths in nm;\n"
    "                        PLANES odd, 0 chooses; a point DEPTH into a sample\n"
    "                        of another index), written as a TIFF stack (OUTPUT.tif)\n"
    "  --help, --version\n"
    "Exit status: 0 written, 1 bad command line, 11 a file that cannot be written.\n";

}  // namespace

int main(int argc, char** argv) {
  if (const int answered = answer_help_or_version(argc, argv, "deconv-psf", usage); answered >= 0) return answered;
  if (argc < 3) {
    std::fprintf(stderr, "deconv-psf: needs %s, then OUTPUT (see deconv-psf --help)\n", psf_kinds);
    return 1;
  }
  CImg<float> psf;
  try {
    psf = draw_named_psf(argv[1], std::vector<std::string>(argv + 2, argv + argc - 1));
  } catch (const std::invalid_argument& e) {
    std::fprintf(stderr, "deconv-psf: %s\n", e.what());
    return 1;
  }
  deconv::Image image(psf.width(), psf.height(), psf.depth(), 1);
  std::copy(psf.begin(), psf.end(), image.pixels.begin());
  try {
    write_picture(argv[argc - 1], image, file_maximum(psf) > 255 ? SampleDepth::u16 : SampleDepth::u8);
  } catch (const deconv::Error& e) {
    std::fprintf(stderr, "deconv-psf: %s\n", e.what());
    return 11;
  }
  return 0;
}
