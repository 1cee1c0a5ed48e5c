// Image files. The tool has no codec of its own: the library's native readers
// take the formats they know, and PNG and JPEG go through ImageMagick's
// `convert` or GraphicsMagick's `gm`, with PNM as the exchange format (a pipe
// when loading, a temporary file when saving). Every failure is a library
// exception, reported on stderr when it is made.
#ifndef DECONV_TOOL_IMAGE_IO_H
#define DECONV_TOOL_IMAGE_IO_H

#include <cstdio>

#include "imaging/cimg_config.h"

using cimg_library::CImg;

// `convert` in the working directory, then beside it in im_mac/bin or
// mactools/im_mac/bin, then on the PATH; found at first use and kept.
const char* find_convert();

// fopen, or a CImgIOException "cimg::fopen() : Failed to open file ...".
std::FILE* open_file(const char* path, const char* mode);

// The type of a file by its first 2048 bytes, or null: "off", "inr", "pan",
// "dcm" (DICM at byte 128), "jpg", "bmp", "gif", "png", "tif" (for the two
// letters II or MM), then, in a file of at least 2048 bytes, "pnm" or "pfm" for
// a PNM or PFM header as the first line that is neither blank nor a comment.
const char* detect_type(const char* path);

// What the route makes of a BMP before the library's reader sees it. That
// reader forms offsets from the header in int arithmetic, which some headers
// overflow: those are refused as invalid. RLE-compressed files, which it does
// not decode, go through this tool's converter chain.
enum class BmpHeader { native, compressed, refused };
BmpHeader inspect_bmp(const char* path);

// True when the file's content is PNG. A missing file throws.
bool input_is_png(const char* path);

// Loads a file or http(s) URL: by extension, then by content, then through
// the converters.
void load_image(CImg<float>& img, const char* path);

// The converters, then the library's own format, for what nothing else reads.
void load_other(CImg<float>& img, const char* path);

// Saves the 0..1 result through a converter, which picks the format by the
// target's name; the temporary PNM holds it clamped and scaled to 0..maximum
// (bytes for 255, 16 bits for 65535). A PNG input is saved at quality 100, any
// other at `quality`.
void save_result(const CImg<float>& img, const char* path, bool is_png, unsigned int quality,
                 unsigned int maximum = 255);

void save_other(const CImg<float>& img, const char* path, unsigned int quality, unsigned int maximum = 255);

#endif
