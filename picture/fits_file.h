// FITS images through cfitsio rather than OpenImageIO 2.4, whose reader and
// writer put every row one off (the bottom row is lost and a row of zeros
// comes in), take a colour cube's planes for interleaved channels and ignore
// BZERO, so that unsigned 16-bit data comes out negative.
#ifndef DECONV_PICTURE_FITS_FILE_H
#define DECONV_PICTURE_FITS_FILE_H

#include <string>
#include <vector>

#include "picture/picture_file.h"

// Reads `path` if it starts as a FITS file does ("SIMPLE  ="): the first
// image in it (the primary array, or the first image extension where the
// primary has none, tile-compressed ones included), a plane of NAXIS1 x
// NAXIS2 samples or NAXIS3 planes of them, the first row at the bottom.
// Unsigned 8- and 16-bit data keep their depth, anything else is float
// (BSCALE and BZERO applied). The image's numeric and string cards go to the
// header, not those that describe the array's layout or its checksums. False,
// with nothing read, for other files; throws deconv::Error "cannot read PATH:
// REASON" for a FITS file that is damaged or too large.
bool read_fits(const std::string& path, SampleScale scale, PictureFile& picture);

// The whole FITS file of `header` (its size, depth and the numeric and
// string attributes named as FITS keywords) and the planes of `image` and
// `alpha`.
std::vector<unsigned char> fits_bytes(const OIIO::ImageSpec& header, const deconv::Image& image,
                                      const deconv::Image* alpha);

#endif
