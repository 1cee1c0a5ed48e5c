#include "tests/tool/tool_fixture.h"

#include <fstream>
#include <sstream>

void write_pnm(const std::string& path, const CImg<float>& img) {
  std::ostringstream out;
  out << (img.spectrum() == 1 ? "P5" : "P6") << "\n" << img.width() << " " << img.height() << "\n255\n";
  for (int y = 0; y < img.height(); ++y)
    for (int x = 0; x < img.width(); ++x)
      for (int c = 0; c < img.spectrum(); ++c)
        out << (char)(unsigned char)std::min(255.0f, std::max(0.0f, std::round(img(x, y, 0, c))));
  write_file(path, out.str());
}

void convert_with_imagemagick(const std::string& from, const std::string& to, const std::string& options) {
  const std::string command = "/usr/bin/convert '" + from + "' " + options + " '" + to + "'";
  ASSERT_EQ(std::system(command.c_str()), 0) << command;
}

void write_recording_converter(const std::string& path, const std::string& log, const std::string& real) {
  write_file(path,
             "#!/bin/sh\nprintf '%s\\n' \"$*\" >> '" + log + "'\n" +
                 (real.empty() ? std::string("exit 1\n") : "exec " + real + " \"$@\"\n"),
             true);
}

std::vector<std::string> read_lines(const std::string& path) {
  std::vector<std::string> lines;
  std::istringstream in(read_file(path));
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

void ToolTest::SetUp() {
  SemaphoreTest::SetUp();
  CImg<float> picture(24, 20, 1, 3);
  cimg_forXYC(picture, x, y, c) picture(x, y, 0, c) = 40 + 6 * x + 5 * y + 30 * c;
  write_pnm(in("input.ppm"), picture);
  convert_with_imagemagick(in("input.ppm"), in("input.png"));
  CImg<float> psf(3, 3, 1, 1, 0);
  psf(1, 1) = 255;
  psf(0, 1) = psf(2, 1) = 128;
  write_pnm(in("psf.pgm"), psf);
}
