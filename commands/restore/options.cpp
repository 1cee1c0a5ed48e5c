#include "commands/restore/options.h"

#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

const char* const help =
    "usage: deconv-restore [OPTIONS] INPUT OUTPUT\n"
    "\n"
    "Restores a blurred picture of any depth (8-bit, 16-bit or float; PNG, JPEG,\n"
    "TIFF, PNM, EXR, FITS, ...) and writes the result in the format OUTPUT's name\n"
    "says. OUTPUT is replaced only by a complete picture.\n"
    "\n"
    "  --psf FILE|KIND:N[,N]|auto  the blur: a picture of it, or gaussian:SIGMA,\n"
    "                              motion:LENGTH,ANGLE, disk:RADIUS, box:W,H\n"
    "                              (pixels, degrees), or auto to estimate it\n"
    "  --strength N|auto           regularisation in tenths, 0 to 200 (default: auto)\n"
    "  --workers N                 worker threads (default: the machine's cores)\n"
    "  --depth 8|16|float          the result's samples (default: the input's)\n"
    "  --quality N                 a JPEG result's quality, 1 to 100 (default: the\n"
    "                              input's, where its tables tell it, else 95)\n"
    "  --no-align                  keep the restoration one pixel off, as deconv does\n"
    "  --save-psf FILE             keep the PSF used (16 bits, largest tap white)\n"
    "  --repair-nonfinite          replace NaN and infinite samples by their\n"
    "                              neighbours' median (default: refuse them)\n"
    "  --subtract-psf-background   take the border's median off a PSF on a\n"
    "                              background (default: refuse it)\n"
    "  --progress, --quiet         the estimation's progress on stderr always, or\n"
    "                              never (default: when stderr is a terminal)\n"
    "  --method auto|wiener|richardson-lucy|sparse  auto (default): sparse for\n"
    "                              8-bit photographs with a PSF given and the\n"
    "                              strength auto, else wiener; the closed-form\n"
    "                              filter; the maximum-likelihood restoration of\n"
    "                              photon counts; or a sparse prior on the\n"
    "                              gradients, in light (sharper edges, clean\n"
    "                              borders; its --strength S weighs the prior\n"
    "                              S / 1e5)\n"
    "  --iterations N|auto         richardson-lucy's iterations (default: auto, where\n"
    "                              the fit reaches the data's noise)\n"
    "  --background X              richardson-lucy: the counts every sample holds\n"
    "                              besides the light (camera offset, sky), in the\n"
    "                              input's own units (default 0)\n"
    "  --total-variation W         richardson-lucy: a total-variation prior of this\n"
    "                              weight for noisy data, 0 (default) to about 0.02\n"
    "  --no-accelerate             richardson-lucy without extrapolated iterations:\n"
    "                              tiles then give the untiled result\n"
    "  --light auto|linear|encoded  restore in light: encoded values (sRGB) are\n"
    "                              decoded first and the result encoded again\n"
    "                              (default auto: what the file says, else encoded\n"
    "                              for 8 bits and linear for 16 and float; linear\n"
    "                              for the wiener filter)\n"
    "  --highlights auto|off|X     samples at or above X (the input's own units)\n"
    "                              are clipped: richardson-lucy leaves them and\n"
    "                              those their blur reaches out of its fit, sparse\n"
    "                              holds them to a lower bound (default auto: 98 %\n"
    "                              of an integer file's range; none for floats)\n"
    "  --memory MIB                the restoration's working memory; a picture or\n"
    "                              stack that needs more is restored in overlapping\n"
    "                              tiles (default: no limit)\n"
    "  --exact                     restore on deconv's own engine: with --depth 8\n"
    "                              --no-align, deconv's very pixels (slower)\n"
    "  --help, --version\n"
    "\n"
    "Exit status: 0 restored, 1 bad command line, 11 a picture that cannot be\n"
    "read, written or restored. A result no sharper than its picture is written\n"
    "with a line on stderr that starts \"deconv-restore: warning:\" and says\n"
    "\"no sharper\".\n";

int refuse(const std::string& message) {
  std::fprintf(stderr, "deconv-restore: %s (see deconv-restore --help)\n", message.c_str());
  return 1;
}

// A whole decimal number from `lowest` to `highest`.
bool whole_number(const char* text, const long lowest, const long highest, int& value) {
  char* end = nullptr;
  errno = 0;
  const long n = std::strtol(text, &end, 10);
  if (end == text || *end || errno || n < lowest || n > highest) return false;
  value = (int)n;
  return true;
}

}  // namespace

int parse_restore_command(const int argc, char** const argv, RestoreCommand& command) {
  std::vector<std::string> positional;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (arg == "--help" || arg == "-h") {
      std::fputs(help, stdout);
      return 0;
    }
    if (arg == "--version") {
      std::printf("deconv-restore %s\n", DECONV_VERSION);
      return 0;
    }
    if (arg == "--no-align") {
      command.align = false;
      continue;
    }
    if (arg == "--no-accelerate") {
      command.accelerate = false;
      continue;
    }
    if (arg == "--exact") {
      command.exact = true;
      continue;
    }
    if (arg == "--repair-nonfinite" || arg == "--subtract-psf-background" || arg == "--progress" || arg == "--quiet") {
      if (arg == "--repair-nonfinite") command.repair_nonfinite = true;
      if (arg == "--subtract-psf-background") command.subtract_psf_background = true;
      if (arg == "--progress" || arg == "--quiet") command.progress = arg == "--progress";
      continue;
    }
    if (arg == "--") {
      for (++i; i < argc; ++i) positional.push_back(argv[i]);
      break;
    }
    if (arg.size() > 1 && arg[0] == '-') {
      const size_t equals = arg.find('=');
      const std::string name = arg.substr(0, equals);
      if (name != "--psf" && name != "--strength" && name != "--workers" && name != "--depth" && name != "--quality" &&
          name != "--save-psf" && name != "--method" && name != "--iterations" && name != "--background" &&
          name != "--total-variation" && name != "--memory" && name != "--light" && name != "--highlights")
        return refuse("unknown option '" + arg + "'");
      std::string value;
      if (equals != std::string::npos)
        value = arg.substr(equals + 1);
      else if (i + 1 < argc)
        value = argv[++i];
      else
        return refuse(name + " needs a value");
      if (name == "--psf") {
        command.psf = value;
      } else if (name == "--save-psf") {
        command.save_psf = value;
      } else if (name == "--strength") {
        if (value == "auto")
          command.strength = -1;
        else if (!whole_number(value.c_str(), 0, 200, command.strength))
          return refuse("--strength takes a whole number from 0 to 200, or auto, not '" + value + "'");
      } else if (name == "--workers") {
        if (!whole_number(value.c_str(), 1, 1024, command.workers))
          return refuse("--workers takes a whole number from 1 to 1024, not '" + value + "'");
      } else if (name == "--method") {
        if (value != "auto" && value != "wiener" && value != "richardson-lucy" && value != "sparse")
          return refuse("--method takes auto, wiener, richardson-lucy or sparse, not '" + value + "'");
        command.method = value;
      } else if (name == "--iterations") {
        if (value == "auto")
          command.iterations = 0;
        else if (!whole_number(value.c_str(), 1, 100000, command.iterations))
          return refuse("--iterations takes a whole number from 1 to 100000, or auto, not '" + value + "'");
      } else if (name == "--total-variation") {
        char* end = nullptr;
        command.total_variation = std::strtod(value.c_str(), &end);
        if (value.empty() || *end || !(command.total_variation >= 0 && command.total_variation < 1))
          return refuse("--total-variation takes a number from 0 to below 1, not '" + value + "'");
      } else if (name == "--background") {
        char* end = nullptr;
        command.background = std::strtod(value.c_str(), &end);
        if (value.empty() || *end || !std::isfinite(command.background) || command.background < 0)
          return refuse("--background takes a number of 0 or more, not '" + value + "'");
      } else if (name == "--light") {
        if (value != "auto" && value != "linear" && value != "encoded")
          return refuse("--light takes auto, linear or encoded, not '" + value + "'");
        command.light = value;
      } else if (name == "--highlights") {
        char* end = nullptr;
        command.highlights = value == "auto" ? 0 : value == "off" ? -1 : std::strtod(value.c_str(), &end);
        if (value != "auto" && value != "off" && (value.empty() || *end || !(command.highlights > 0) ||
                                                  !std::isfinite(command.highlights)))
          return refuse("--highlights takes auto, off or a level above 0, not '" + value + "'");
      } else if (name == "--memory") {
        if (!whole_number(value.c_str(), 1, 1 << 30, command.memory))
          return refuse("--memory takes a whole number of MiB from 1, not '" + value + "'");
      } else if (name == "--quality") {
        if (!whole_number(value.c_str(), 1, 100, command.quality))
          return refuse("--quality takes a whole number from 1 to 100, not '" + value + "'");
      } else {
        if (!parse_depth(value, command.depth)) return refuse("--depth takes 8, 16 or float, not '" + value + "'");
        command.depth_given = true;
      }
      continue;
    }
    positional.push_back(arg);
  }
  if (positional.size() != 2) return refuse("needs INPUT and OUTPUT");
  if (command.psf.empty()) return refuse("needs --psf");
  command.input = positional[0];
  command.output = positional[1];
  return -1;
}
