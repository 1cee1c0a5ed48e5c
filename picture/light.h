// How a file's samples stand to light, for --light auto: what the file says
// (OpenImageIO's oiio:ColorSpace, which PNG's gAMA and sRGB chunks set, or
// the tone curve of an ICC profile), else its depth: 8 bits are for display
// and so sRGB-encoded, 16 bits and floats (TIFF of scientific cameras, FITS)
// hold light as it was counted.
#ifndef DECONV_PICTURE_LIGHT_H
#define DECONV_PICTURE_LIGHT_H

#include <string>

#include "picture/picture_file.h"

// "encoded" or "linear", for RestoreOptions::light and EstimateOptions::light.
std::string light_of(const PictureFile& picture);

// The light of a command's --light: "auto" is the file's own, other words
// pass through.
std::string light_for(const std::string& asked, const PictureFile& picture);

#endif
