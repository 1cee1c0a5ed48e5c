// A working folder for runs of the binary, with small pictures in it.
#ifndef DECONV_TESTS_TOOL_TOOL_FIXTURE_H
#define DECONV_TESTS_TOOL_TOOL_FIXTURE_H

#include <string>

#include "tests/support/test_support.h"

// Writes an 8-bit binary PNM (P5 for one channel, P6 for three), values
// rounded and clamped to 0..255.
void write_pnm(const std::string& path, const CImg<float>& img);

// A converted copy of a file, made with ImageMagick itself.
void convert_with_imagemagick(const std::string& from, const std::string& to, const std::string& options = "");

// A shell script that appends its arguments as one line to `log` and then
// runs `real` with them ("" runs nothing and fails).
void write_recording_converter(const std::string& path, const std::string& log, const std::string& real);

std::vector<std::string> read_lines(const std::string& path);

class ToolTest : public SemaphoreTest {
 protected:
  void SetUp() override;
  // A smooth 24 x 20 colour picture as input.ppm and input.png, and a 3 x 3
  // PSF as psf.pgm.
  TempDir dir;
  std::string in(const std::string& name) const { return dir / name; }
};

#endif
