// What OpenImageIO's readers and writers leave out of two formats, put back
// around them: the quality a JPEG was saved at, the Exif block of a PNG
// (orientation and camera), and a PNG cut short told before libpng meets its
// end (OpenImageIO 2.4 leaks its error message when libpng jumps out then),
// and a JPEG's IPTC records that overrun their block told before OpenImageIO
// 2.4 reads past it.
#ifndef DECONV_PICTURE_FORMAT_DETAILS_H
#define DECONV_PICTURE_FORMAT_DETAILS_H

#include <OpenImageIO/imageio.h>

#include <string>
#include <vector>

// The quality 1..100 that the JPEG `bytes` were saved at with the usual
// (Annex K) tables scaled, as libjpeg's encoders do; 0 when its tables are
// not such tables (a camera's own) or cannot be found.
int jpeg_quality(const std::vector<unsigned char>& bytes);

// The whole file at `path`, at most `limit` bytes of it (the head of a JPEG
// holds its tables).
std::vector<unsigned char> file_head(const std::string& path, size_t limit);

// Whether the file at `path` is a PNG whose chunks run past its end.
bool png_cut_short(const std::string& path);

// Whether the JPEG `bytes` hold a Photoshop block (APP13) whose IPTC records
// run past its end: OpenImageIO 2.4 reads such a record beyond the block.
bool iptc_overruns(const std::vector<unsigned char>& bytes);

// `png` (a whole PNG file) with an eXIf chunk after its header, holding the
// Exif data of `header` (orientation, camera, exposure), when there is any.
std::vector<unsigned char> with_exif_chunk(const std::vector<unsigned char>& png, const OIIO::ImageSpec& header);

#endif
