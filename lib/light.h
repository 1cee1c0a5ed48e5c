// What restore() settles on the whole picture before anything else: the
// light its values stand for (decoded to linear light where they are sRGB-
// encoded, the result encoded again) and the clipping level of its
// highlights, fixed once so that tiles restored on their own agree on it.
#ifndef DECONV_LIB_LIGHT_H
#define DECONV_LIB_LIGHT_H

#include <optional>

#include "deconv/deconv.h"

namespace libdeconv {

// The restoration in linear light with a fixed clipping level, or nothing
// where the options already ask for that (options.light "linear" and
// options.highlights not automatic). Throws Error for a `light` that is
// neither "linear" nor "encoded".
std::optional<deconv::Image> restore_in_light(const deconv::Image& blurred, const deconv::Image& psf,
                                              const deconv::RestoreOptions& options);

}  // namespace libdeconv

#endif
