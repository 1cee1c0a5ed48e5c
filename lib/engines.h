// The library's two engines behind restore() and choose_strength(): deconv's
// own, which gives deconv's very numbers, and the second engine (fast/),
// which agrees with it to float rounding in a fraction of the time and memory.
// Both take a picture already checked and a PSF normalised to sum 1. The
// strength is chosen on the second engine for both.
#ifndef DECONV_LIB_ENGINES_H
#define DECONV_LIB_ENGINES_H

#include "deconv/deconv.h"

namespace libdeconv {

using deconv::Image;

// deconv's engine, restoring in the picture's own planes. The result stands
// one pixel toward +x and +y of the picture.
Image restore_exact(Image&& blurred, const Image& kernel, int strength, int workers);

// The second engine. The result stands where the picture does.
Image restore_fast(const Image& blurred, const Image& kernel, int strength, int workers);
int choose_strength_fast(const Image& blurred, const Image& kernel, int workers);

// Richardson-Lucy on the second engine: with a 3-D PSF the stack as a volume,
// else every plane with the PSF's first; `accelerate`: Biggs and Andrews'
// extrapolation. `psf` is normalised here (its
// negative taps taken as 0). Returns the iterations the first plane or volume
// ran. `starts`: each volume's or plane's flat start, channel by channel
// (none: each its own data's mean less the background). The options'
// iterations, background, accelerate and total_variation are its own; its
// highlights, where above 0, the level of clipped samples left out of the fit
// (lib/highlights.h), their count with those their blur reaches added to
// `masked`.
Image restore_richardson_lucy(const Image& blurred, const Image& psf, const deconv::RestoreOptions& options,
                              int workers, int* iterations_run = nullptr, const std::vector<float>& starts = {},
                              size_t* masked = nullptr);

// The sparse-prior restoration on the second engine (fast/sparse.h): every
// plane of every channel on its own, or with a 3-D PSF every channel's stack
// as a volume. `psf` is normalised here. A strength of 0 or more gives the
// prior's weight, strength / 1e5; negative: chosen from each plane's noise.
// Samples at or above a positive options.highlights are clipped: held to it
// as a lower bound.
Image restore_sparse(const Image& blurred, const Image& psf, const deconv::RestoreOptions& options, int workers);

}  // namespace libdeconv

#endif
