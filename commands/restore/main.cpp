// deconv-restore [OPTIONS] INPUT OUTPUT
//
// Restores a blurred picture of any depth with a known or drawn PSF, on the
// library: pictures are read and written in the process, each sample scaled
// by its file's range, and the result is written under a temporary name and
// renamed when complete. Statuses: 0 restored, 1 bad command line, 11 a
// picture that cannot be read, written or restored.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include <unistd.h>

#include "picture/light.h"
#include "picture/picture_file.h"
#include "commands/restore/options.h"
#include "commands/restore/sharpness.h"

namespace {

// The first plane with its largest sample 1, as deconv-estimate writes a PSF.
// The PSF's first channel, every plane of a 3-D one, its largest tap 1.
deconv::Image peak_at_one(const deconv::Image& psf) {
  deconv::Image plane(psf.width, psf.height, psf.depth, 1);
  std::copy(psf.pixels.begin(), psf.pixels.begin() + plane.pixels.size(), plane.pixels.begin());
  const float peak = *std::max_element(plane.pixels.begin(), plane.pixels.end());
  if (peak > 0)
    for (float& v : plane.pixels) v /= peak;
  return plane;
}

// The light of --light: auto is the file's own for the methods that model a
// camera (richardson-lucy, sparse, and auto, which picks sparse for an
// encoded photograph); the filter's strength choice was weighed on stored
// values, which it keeps.
std::string light_of(const RestoreCommand& command, const PictureFile& file) {
  if (command.light != "auto") return command.light;
  return command.method != "wiener" ? light_of(file) : "linear";
}

int fail(const std::string& message) {
  std::fprintf(stderr, "deconv-restore: %s\n", message.c_str());
  return 11;
}

void warn(const std::string& message) { std::fprintf(stderr, "deconv-restore: warning: %s\n", message.c_str()); }

// The PSF of --psf: estimated from the picture, drawn, or a file whose
// samples count only as proportions.
deconv::Image load_psf(const RestoreCommand& command, const PictureFile& file) {
  const deconv::Image& picture = file.image;
  const std::string& psf = command.psf;
  const std::string& input = command.input;
  if (psf == "auto") {
    deconv::EstimateOptions estimation;
    estimation.light = light_of(command, file);
    if (command.progress == 1 || (command.progress < 0 && isatty(2)))
      estimation.progress = [&input](const std::string& stage, double scale) {
        std::fprintf(stderr, "deconv-restore: %s: estimating the blur: %s at scale %.3g\n", input.c_str(),
                     stage.c_str(), scale);
      };
    try {
      return deconv::estimate_psf(picture, estimation).psf;
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
  // A kernel estimated from the picture is restored by the filter on the
  // stored values it was estimated from: with the errors such kernels have,
  // the filter made fewer photographs worse than the sparse prior
  // (bench/camera_bench.py: 8 against 12 of 48).
  if (command.method == "auto" && command.psf == "auto") command.method = "wiener";
  try {
    require_known_format(command.output);
    PictureFile picture = read_picture(command.input);
    const deconv::Image psf = load_psf(command, picture);
    // A stack's result, or a 3-D PSF kept, can only go into TIFF: said before the work.
    require_stack_format(command.output, picture.image.depth);
    if (!command.save_psf.empty()) require_stack_format(command.save_psf, psf.depth);
    deconv::RestoreOptions options;
    options.strength = command.strength;
    options.workers = command.workers;
    options.align = command.align;
    options.exact = command.exact;
    options.method = command.method;
    options.iterations = command.iterations;
    options.total_variation = (float)command.total_variation;
    options.accelerate = command.accelerate;
    options.memory = (size_t)command.memory << 20;
    // The picture's samples are scaled by their file's range; so are the
    // background and the clipping level. A float file has no range to clip at.
    const double range = picture.depth == SampleDepth::u8 ? 255.0 : picture.depth == SampleDepth::u16 ? 65535.0 : 1.0;
    options.background = (float)(command.background / range);
    options.highlights = command.highlights > 0                                        ? (float)(command.highlights / range)
                         : command.highlights < 0 || picture.depth == SampleDepth::f32 ? -1.0f
                                                                                       : 0.0f;
    options.light = light_of(command, picture);
    options.clamp = false;
    options.compressed = picture.compressed;
    options.estimated_psf = command.psf == "auto";
    options.repair_nonfinite = command.repair_nonfinite;
    options.subtract_psf_background = command.subtract_psf_background;
    options.notice = [&command](const std::string& message) { warn(command.input + ": " + message); };
    // Away from the band that the edge taper changes, about a PSF wide.
    const int margin = std::max(psf.width, psf.height);
    const double before = gradient_energy(picture.image, margin);
    deconv::Image result;
    try {
      result = deconv::restore(std::move(picture.image), psf, options);
    } catch (const deconv::Error& e) {
      return fail(command.input + ": cannot restore: " + e.what());
    }
    // Only once restored: a refusal leaves no file behind.
    if (!command.save_psf.empty()) write_picture(command.save_psf, peak_at_one(psf), SampleDepth::u16);
    const SampleDepth depth = command.depth_given ? command.depth : picture.depth;
    write_picture(command.output, result, depth, &picture, &picture.alpha, command.quality);
    // Where noise alone explains the picture's gradients there is no detail
    // to compare.
    const double gain = std::max(0.0, gradient_energy(result, margin)) / before;
    if (before > 0 && !(gain >= least_sharpening)) {
      char ratio[32];
      std::snprintf(ratio, sizeof ratio, "%.2f", gain);
      warn(command.input + ": the result is no sharper than the picture (its gradients' energy x" + ratio + ")");
    }
    return 0;
  } catch (const deconv::Error& e) {
    return fail(e.what());
  } catch (const std::bad_alloc&) {
    return fail(command.input + ": not enough memory");
  }
}
