// Pictures on disk, read and written in the process through OpenImageIO: no
// shell, no converter, no temporary file but the one a result is staged in.
// Any format and depth OpenImageIO knows; samples are scaled by their own
// range (8 bits by 255, 16 bits by 65535, floats as they are).
#ifndef DECONV_PICTURE_PICTURE_FILE_H
#define DECONV_PICTURE_PICTURE_FILE_H

#include <OpenImageIO/imageio.h>

#include <string>

#include "deconv/deconv.h"

enum class SampleDepth { u8, u16, f32 };

// How a file's samples become floats.
enum class SampleScale {
  unit,  // 0..1 by the file's range
  raw,   // the stored integers as they are (a PSF: only proportions count)
};

struct PictureFile {
  deconv::Image image;  // the colour planes
  deconv::Image alpha;  // the alpha plane, scaled like the colours, or empty
  SampleDepth depth = SampleDepth::u8;
  OIIO::ImageSpec header;   // the file's metadata (EXIF, ICC profile, resolution)
  bool compressed = false;  // saved as JPEG: see deconv::choose_strength
  int quality = 0;          // a JPEG's quality, where its tables tell it; 0 otherwise
};

// Reads `path`: its first subimage, or every page of a multi-page file of
// equal pages as a stack (picture/stack_file.h). Throws deconv::Error
// "cannot read PATH: REASON", on one line, for a file that is missing, a
// folder, empty, damaged, or larger than the machine's memory could hold (the
// header is believed only that far). The decoders' own messages are kept off
// stderr (picture/captured_stderr.h).
PictureFile read_picture(const std::string& path, SampleScale scale = SampleScale::unit);

// Throws deconv::Error "cannot read PATH: ..." when planes of this size would
// not fit in the machine's memory: a header of a few bytes can claim any size.
void require_memory(const std::string& path, long width, long height, int channels);

// The depth named on a command line: "8", "16" or "float"; false otherwise.
bool parse_depth(const std::string& text, SampleDepth& depth);

// Throws deconv::Error "cannot write PATH: no format for this name" unless
// some writer knows `path`'s format: for a command to fail before its work.
void require_known_format(const std::string& path);
// Throws deconv::Error "cannot write PATH: ..." unless a stack of `planes`
// planes can be written there (as TIFF); nothing for a single plane.
void require_stack_format(const std::string& path, int planes);


// Writes `image` (0..1 for integer depths: clamped, then multiplied by the
// range and truncated) to `path` in the format its name says. `like`, when
// given, lends its metadata (a PNG keeps its Exif data too, in an eXIf
// chunk); `alpha`, when not empty, is written as the last channel. A JPEG is
// saved at `quality` (1..100), else at `like`'s own quality, else at 95. FITS
// files are padded to whole 2880-byte records. The file is written under a temporary name beside `path` and
// renamed over it only once complete: a failure leaves `path` as it was and
// no temporary file behind. Throws deconv::Error "cannot write PATH: REASON".
// A stack (depth above 1) is written as TIFF pages, nothing else;
// require_stack_format says so before any work is done.
void write_picture(const std::string& path, const deconv::Image& image, SampleDepth depth,
                   const PictureFile* like = nullptr, const deconv::Image* alpha = nullptr, int quality = 0);

#endif
