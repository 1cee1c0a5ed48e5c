// deconv-estimate [OPTIONS] INPUT PSF_OUT
//
// Estimates the blur kernel of INPUT and writes it to PSF_OUT as a PSF picture
// that deconv, deconv-strength and deconv-batch take as it is (odd square,
// largest tap white, 16 bits, first moment on the middle pixel); prints one
// line: the words of deconv-psf's arguments for a model ("motion 15.2 20.4"),
// "kernel W H" for a free kernel. Status 0 when written, 1 for a bad command
// line, 11 when a file cannot be read or written or the estimate is refused;
// one line on stderr for every error. PSF_OUT is never left half-written.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include <unistd.h>

#include "estimate/estimate.h"
#include "picture/light.h"
#include "picture/picture_file.h"

namespace {

const char* const usage =
    "usage: deconv-estimate [OPTIONS] INPUT PSF_OUT\n"
    "Estimates the blur of INPUT and writes its PSF to PSF_OUT (16 bits); prints\n"
    "\"kernel W H\", or the model's arguments for deconv-psf.\n"
    "  --size N           largest kernel side in pixels (default 41)\n"
    "  --region X,Y,W,H   estimate from this part of the picture (default: a window\n"
    "                     of about one megapixel rich in edges)\n"
    "  --model M          kernel (default), motion, disk or gaussian\n"
    "  --threads N        threads for the transforms (default: the cores)\n"
    "  --light L          linear (default), encoded or auto: encoded (sRGB) values\n"
    "                     are decoded to light first; auto takes what the file\n"
    "                     says, else encoded for 8 bits, linear otherwise\n"
    "  --progress, --quiet  each stage and scale on stderr always, or never\n"
    "                     (default: when stderr is a terminal)\n"
    "  --help             this text\n"
    "  --version          the version\n";

int bad(const std::string& message) {
  std::fprintf(stderr, "deconv-estimate: %s (see --help)\n", message.c_str());
  return 1;
}

// A whole argument as an int in [low, high].
bool whole(const char* text, int low, int high, int& value) {
  char* end = nullptr;
  const long v = std::strtol(text, &end, 10);
  if (end == text || *end || v < low || v > high) return false;
  value = (int)v;
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  deconv::EstimateOptions options;
  std::vector<std::string> paths;
  int progress = -1;  // -1: only on a terminal
  std::string light = "linear";  // the estimator's thresholds were tuned on stored values
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    const bool has_value = i + 1 < argc;
    if (arg == "--help" || arg == "-h") {
      std::fputs(usage, stdout);
      return 0;
    } else if (arg == "--progress" || arg == "--quiet") {
      progress = arg == "--progress";
    } else if (arg == "--version") {
      std::printf("deconv-estimate %s\n", DECONV_VERSION);
      return 0;
    } else if (arg == "--size") {
      if (!has_value || !whole(argv[++i], 3, 501, options.max_size)) return bad("--size takes a number of pixels from 3 to 501");
    } else if (arg == "--threads") {
      if (!has_value || !whole(argv[++i], 1, 256, options.threads)) return bad("--threads takes a number from 1 to 256");
    } else if (arg == "--light") {
      if (!has_value) return bad("--light takes auto, linear or encoded");
      light = argv[++i];
      if (light != "auto" && light != "linear" && light != "encoded")
        return bad("--light takes auto, linear or encoded, not \"" + light + "\"");
    } else if (arg == "--model") {
      if (!has_value) return bad("--model takes kernel, motion, disk or gaussian");
      options.model = argv[++i];
      if (options.model != "kernel" && options.model != "motion" && options.model != "disk" &&
          options.model != "gaussian")
        return bad("unknown model \"" + options.model + "\": kernel, motion, disk or gaussian");
    } else if (arg == "--region") {
      int v[4];
      std::string text = has_value ? argv[++i] : "";
      size_t start = 0;
      bool ok = has_value;
      for (int k = 0; k < 4 && ok; ++k) {
        const size_t comma = text.find(',', start);
        if ((k < 3) != (comma != std::string::npos)) ok = false;
        const std::string part = text.substr(start, k < 3 ? comma - start : std::string::npos);
        ok = ok && whole(part.c_str(), k < 2 ? 0 : 1, 1 << 30, v[k]);
        start = comma + 1;
      }
      if (!ok) return bad("--region takes X,Y,W,H: whole numbers, W and H above 0");
      options.region_x = v[0], options.region_y = v[1], options.region_width = v[2], options.region_height = v[3];
    } else if (arg.size() > 1 && arg[0] == '-' && arg != "--") {
      return bad("unknown option " + arg);
    } else {
      if (arg == "--") {
        for (++i; i < argc; ++i) paths.push_back(argv[i]);
        break;
      }
      paths.push_back(arg);
    }
  }
  if (paths.size() != 2) return bad("it takes INPUT and PSF_OUT");
  const std::string& input = paths[0];
  const std::string& output = paths[1];
  if (progress == 1 || (progress < 0 && isatty(2)))
    options.progress = [&input](const std::string& stage, double scale) {
      std::fprintf(stderr, "deconv-estimate: %s: %s at scale %.3g\n", input.c_str(), stage.c_str(), scale);
    };

  deconv::PsfEstimate estimate;
  try {
    const PictureFile picture = read_picture(input);
    options.light = light_for(light, picture);
    estimate = deconv::estimate_psf(picture.image, options);
  } catch (const deconv::Error& e) {
    const std::string what = e.what();
    // read_picture names the file itself; the estimator's reasons do not.
    if (what.rfind("cannot read", 0) == 0)
      std::fprintf(stderr, "deconv-estimate: %s\n", what.c_str());
    else
      std::fprintf(stderr, "deconv-estimate: %s: cannot estimate the blur: %s\n", input.c_str(), what.c_str());
    return 11;
  } catch (const std::exception& e) {
    std::fprintf(stderr, "deconv-estimate: %s: %s\n", input.c_str(), e.what());
    return 11;
  }
  try {
    write_picture(output, estimate.psf, SampleDepth::u16);
  } catch (const std::exception& e) {
    std::fprintf(stderr, "deconv-estimate: %s\n", e.what());
    return 11;
  }
  std::printf("%s\n", estimate.description.c_str());
  return 0;
}
