// The checks every entry of the library makes on what it is given before the
// engine sees it: samples that are not finite, a PSF larger than the picture
// or standing on a background, a picture with nothing to judge. Each entry
// calls one of these first; they throw Error with a one-line reason.
#ifndef DECONV_LIB_CHECKS_H
#define DECONV_LIB_CHECKS_H

#include <optional>

#include "deconv/deconv.h"

namespace libdeconv {

using deconv::Error;
using deconv::Image;
using deconv::RestoreOptions;

// A PSF stands on a background when the floor of its border (the lower
// quartile of its outermost ring: a sky lifts all of the ring, a blur that
// reaches the edge, such as an anti-aliased disk or a diagonal motion, only
// part of it), laid under all its taps, would be more than this share of its
// weight: bench/pedestal_bench.py loses at most 0.12 dB there and up to
// 0.6 dB at twice it, on cuts of 11 to 63 pixels. A floor above a fifth of
// the peak is the blur itself filling its picture (a box), not a background.
constexpr double psf_pedestal_limit = 0.05, psf_border_of_blur = 0.2;

struct Pedestal {
  double level = 0;  // the border's floor over the peak
  double share = 0;  // the border's floor times the taps' count, over their sum
  bool background() const { return share > psf_pedestal_limit && level <= psf_border_of_blur; }
};

// What restore() is to run with in place of what it was given.
struct CheckedInputs {
  Image psf;
  RestoreOptions options;
};

// Replaces the picture's non-finite samples where the options ask for it,
// and tells their notice.
void repair_where_asked(Image& blurred, const RestoreOptions& options);

// restore()'s inputs, once repaired where asked: throws for samples that are
// not finite, a PSF larger than the picture or on a background. Returns the inputs to restore with instead when they must
// change: the PSF with its background taken off when the options ask for
// that, a strength of 10 in place of "choose" for a picture without any
// variation (any strength gives it back as it is; none can be chosen).
std::optional<CheckedInputs> check_restore_inputs(const Image& blurred, const Image& psf,
                                                  const RestoreOptions& options);

// Richardson-Lucy's own refusals: deconv's engine asked for, negative
// iterations, a PSF (once checked) with values that are not finite.
void check_richardson_lucy(const RestoreOptions& options, const Image& kernel);

// choose_strength()'s inputs: what restore() refuses, and a picture whose
// channels each hold one value throughout.
void check_strength_inputs(const Image& blurred, const Image& psf);

// The strength choose_strength() gave, raised for an estimated PSF.
int cautious_strength(int chosen, const RestoreOptions& options);

// The count of samples that are not finite; the first one's place in `x`,
// `y`, `c`.
size_t count_nonfinite(const Image& image, int& x, int& y, int& c);

// Replaces every non-finite sample by the median of the finite samples of its
// channel in the smallest square around it that holds any (the channel's 0
// where none does).
void repair_nonfinite(Image& image);

// The lower quartile of the PSF's outermost ring of samples, measured against
// its peak and its weight.
Pedestal psf_pedestal(const Image& psf);

}  // namespace libdeconv

#endif
