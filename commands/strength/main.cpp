// deconv-strength INPUT PSF
//
// Prints the STRENGTH (1 to 200) that it expects to restore INPUT best with
// this PSF, and nothing else: deconv's own preparation of the picture (taper,
// PSF spectrum, S and N), then one forward transform of each tapered plane
// gives the spectra that the choice (strength/choice.h) weighs, a quarter
// higher for a JPEG (deconv::choose_strength). Pictures are
// read in the process, each sample divided by its file's range (an 8-bit
// picture as deconv reads it), and the engine's semaphores are its own: runs
// may go at once. A bad command line gives one line on stderr and status 1; a
// picture that cannot be read or judged, one line and status 11.
#include <cstdio>
#include <cstring>

#include "commands/face.h"
#include "picture/picture_file.h"

namespace {

const char* const usage =
    "usage: deconv-strength INPUT PSF\n"
    "Prints the STRENGTH (1 to 200) expected to restore INPUT best with the PSF\n"
    "picture PSF, for deconv and deconv-restore --strength.\n"
    "  --help, --version\n"
    "Exit status: 0 printed, 1 bad command line, 11 a picture that cannot be read\n"
    "or judged.\n";

}  // namespace

int main(int argc, char** argv) {
  if (const int answered = answer_help_or_version(argc, argv, "deconv-strength", usage); answered >= 0) return answered;
  if (argc != 3) {
    std::fprintf(stderr, "deconv-strength: needs INPUT and PSF (see deconv-strength --help)\n");
    return 1;
  }
  try {
    const PictureFile picture = read_picture(argv[1]);
    const deconv::Image psf = read_picture(argv[2], SampleScale::raw).image;
    std::printf("%d\n", deconv::choose_strength(picture.image, psf, picture.compressed));
    return 0;
  } catch (const deconv::Error& e) {
    std::fprintf(stderr, "deconv-strength: %s\n", e.what());
    return 11;
  } catch (const std::bad_alloc&) {
    std::fprintf(stderr, "deconv-strength: %s: not enough memory\n", argv[1]);
    return 11;
  }
}
