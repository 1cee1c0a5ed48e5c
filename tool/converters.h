// The external converters, ImageMagick's `convert` and GraphicsMagick's `gm`,
// with their command lines: a piped PNM load, and a save through a temporary
// PNM file. File names are quoted and not escaped otherwise, and a command is
// cut at 1023 characters without notice, as the converters always had it.
#ifndef DECONV_TOOL_CONVERTERS_H
#define DECONV_TOOL_CONVERTERS_H

#include "tool/image_io.h"

using cimg_library::CImgException;
using cimg_library::CImgIOException;
namespace cimg = cimg_library::cimg;

// Silences the library's reports for a scope, restoring the mode however the
// scope is left.
class QuietReports {
 public:
  QuietReports() : saved_(cimg::exception_mode()) { cimg::exception_mode(0); }
  ~QuietReports() { cimg::exception_mode(saved_); }

 private:
  unsigned int saved_;
};

// One converter: where it is, its command lines and its failure texts.
struct Converter {
  const char* (*path)();
  const char* piped_load;  // path, file
  const char* file_load;   // path, file, temporary .pnm
  const char* save;        // path, quality, temporary PNM, target
  const char* load_failure;
  const char* save_failure;
};

extern const Converter imagemagick;
extern const Converter graphicsmagick;

bool file_exists(const char* path);

// The library's temporary folder: "TMP", else "TEMP", then /tmp and /var/tmp,
// the first where a file can be made, and else the working directory, named
// "." (the library names it "", which would put files at the root).
const char* temporary_folder();

// A gzipped file: gunzip's output goes to a temporary file that keeps the
// inner extension ("x.pgm.gz" gives a .pgm), which is loaded by its own route
// and removed.
void load_gzipped(CImg<float>& img, const char* path);

// Loads through the converter's pipe; only if no shell can be started,
// through a temporary file.
void load_with_converter(CImg<float>& img, const char* path, const Converter& converter);

// A 0..1 result as a binary PNM of `maximum` 255 (8 bits) or 65535 (16 bits,
// big-endian): P5 for one channel, P6 otherwise (the first three channels, a
// missing third one as 0), the first slice only, every value through
// to_file_value. One pass from the float planes to the file.
void write_pnm(const CImg<float>& result, const char* path, unsigned int maximum = 255);

// Writes a temporary PNM and lets the converter make the target of it. The
// target's existence is the only test of success, so an old file of that name
// passes; on failure the temporary PNM stays behind.
void save_with_converter(const CImg<float>& img, const char* path, unsigned int quality, const Converter& converter,
                         unsigned int maximum);

#endif
