// Restoration in overlapping tiles, where RestoreOptions::memory is less than
// a restoration of the whole would take (lib/tiles.cpp).
#ifndef DECONV_LIB_TILES_H
#define DECONV_LIB_TILES_H

#include <optional>

#include "deconv/deconv.h"

namespace libdeconv {

using deconv::Image;
using deconv::RestoreOptions;

// The restoration, tile by tile, or nothing where the whole fits in
// options.memory (or no limit is set). Throws Error where even the smallest
// tile would not fit.
std::optional<Image> restore_in_tiles(const Image& blurred, const Image& psf, const RestoreOptions& options);

}  // namespace libdeconv

#endif
