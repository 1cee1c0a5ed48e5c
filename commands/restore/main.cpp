// deconv-restore [OPTIONS] INPUT OUTPUT
//
// Restores a blurred picture of any depth with a known or drawn PSF, on the
// library: pictures are read and written in the process, each sample scaled
// by its file's range, and the result is written under a temporary name and
// renamed when complete. Statuses: 0 restored, 1 bad command line, 11 a
// picture that cannot be read, written or restored.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "picture/picture_file.h"
#include "commands/restore/options.h"

namespace {

int fail(const std::string& message) {
  std::fprintf(stderr, "deconv-restore: %s\n", message.c_str());
  return 11;
}

// The PSF of --psf: estimated from the picture, drawn, or a file whose
// samples count only as proportions.
deconv::Image load_psf(const std::string& psf, const deconv::Image& picture, const std::string& input) {
  if (psf == "auto") {
    try {
      return deconv::estimate_psf(picture).psf;
    } catch (const deconv::Error& e) {
      throw deconv::Error(input + ": cannot estimate the blur: " + e.what());
    }
  }
  if (psf.find(':') != std::string::npos) return deconv::draw_psf(psf);
  return read_picture(psf, SampleScale::raw).image;
}

}  // namespace

int main(int argc, char** argv) {
  RestoreCommand command;
  const int status = parse_restore_command(argc, argv, command);
  if (status >= 0) return status;
  try {
    require_known_format(command.output);
    PictureFile picture = read_picture(command.input);
    const deconv::Image psf = load_psf(command.psf, picture.image, command.input);
    deconv::RestoreOptions options;
    options.strength = command.strength;
    options.workers = command.workers;
    options.align = command.align;
    options.clamp = false;
    options.compressed = picture.compressed;
    deconv::Image result;
    try {
      result = deconv::restore(std::move(picture.image), psf, options);
    } catch (const deconv::Error& e) {
      return fail(command.input + ": cannot restore: " + e.what());
    }
    const SampleDepth depth = command.depth_given ? command.depth : picture.depth;
    write_picture(command.output, result, depth, &picture, &picture.alpha, command.quality);
    return 0;
  } catch (const deconv::Error& e) {
    return fail(e.what());
  } catch (const std::bad_alloc&) {
    return fail(command.input + ": not enough memory");
  }
}
