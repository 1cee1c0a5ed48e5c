// The command line of deconv-restore.
#ifndef DECONV_COMMANDS_RESTORE_OPTIONS_H
#define DECONV_COMMANDS_RESTORE_OPTIONS_H

#include <string>

#include "picture/picture_file.h"

struct RestoreCommand {
  std::string input, output;
  std::string psf;    // a file, "KIND:N[,N]", or "auto"
  int strength = -1;  // tenths of lambda; -1 for auto
  int workers = 0;    // 0: the machine's cores
  int quality = 0;    // JPEG quality 1..100; 0: the input's, else 95
  bool align = true;
  bool exact = false;  // deconv's own engine
  std::string method = "auto";    // or "wiener", "richardson-lucy", "sparse"
  int iterations = 0;             // richardson-lucy's; 0: until the data's noise
  double background = 0;          // richardson-lucy's, in the input's own sample units
  double total_variation = 0;     // richardson-lucy's prior's weight
  bool accelerate = true;         // richardson-lucy's extrapolation
  int memory = 0;                 // MiB of working memory; 0: no limit
  std::string light = "auto";     // "linear", "encoded", or "auto": the file's own
  double highlights = 0;          // the clipping level in the input's units; 0: the file's, -1: none
  bool depth_given = false;
  SampleDepth depth = SampleDepth::u8;
  std::string save_psf;  // where to keep the PSF used; empty: nowhere
  bool repair_nonfinite = false, subtract_psf_background = false;
  // Progress of --psf auto on stderr: -1 only on a terminal, 0 never, 1 always.
  int progress = -1;
};

// Reads argv into `command`. Returns -1 when the command is to run; otherwise
// the status to exit with: 0 after --help or --version (printed on stdout),
// 1 for a bad command line (one line on stderr).
int parse_restore_command(int argc, char** argv, RestoreCommand& command);

#endif
