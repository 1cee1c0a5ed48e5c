#include "lib/light.h"

#include <algorithm>

#include "imaging/srgb.h"
#include "lib/highlights.h"

namespace libdeconv {

namespace {

using deconv::Error;
using deconv::Image;
using deconv::RestoreOptions;

bool encoded(const std::string& light) {
  if (light != "linear" && light != "encoded") throw Error("unknown light '" + light + "': linear or encoded");
  return light == "encoded";
}

// The filter cannot leave samples out; where the caller named a level, it
// hears how many it will ring around.
void tell_filter_of_clipping(const Image& blurred, const RestoreOptions& options, const float level) {
  if (options.method != "wiener" || options.highlights <= 0 || !options.notice) return;
  const size_t clipped = std::count_if(blurred.pixels.begin(), blurred.pixels.end(), [&](float v) { return v >= level; });
  if (clipped)
    options.notice(std::to_string(clipped) +
                   " samples are clipped highlights: the wiener filter weighs them as any other and may ring around "
                   "them (richardson-lucy and sparse leave them out)");
}

}  // namespace

std::optional<Image> restore_in_light(const Image& blurred, const Image& psf, const RestoreOptions& options) {
  const bool decode = encoded(options.light);
  // Only the methods that weigh samples use an automatic level; the filter
  // hears of a level only where it was named.
  const bool automatic = options.highlights == 0, weighs = options.method != "wiener";
  if (!decode && (!automatic || !weighs)) {
    if (options.highlights > 0) tell_filter_of_clipping(blurred, options, options.highlights);
    return std::nullopt;
  }
  const float level = automatic && !weighs ? 0 : highlights_level(blurred, options);
  RestoreOptions linear = options;
  linear.light = "linear";
  linear.highlights = level > 0 ? (decode ? deconv::imaging::srgb_decode(level) : level) : -1;
  if (!decode) return deconv::restore(blurred, psf, linear);
  Image result = deconv::restore(deconv::imaging::in_linear_light(blurred, options.light), psf, linear);
  deconv::imaging::srgb_encode(result.pixels.data(), result.pixels.size());
  return result;
}

}  // namespace libdeconv
