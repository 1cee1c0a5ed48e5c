// Clipped highlights: a lamp or the sun stored at the file's largest value
// says only that its light was at least that much, and a restoration that
// takes it at its word rings in rings around it across the picture. The
// samples at or above the clipping level, and every sample their blur reaches
// (the clipped set dilated by the PSF's support), are weighed 0 in the fit;
// the rest 1. Any method that weighs its data per sample (richardson-lucy)
// takes these weights as they are.
#ifndef DECONV_LIB_HIGHLIGHTS_H
#define DECONV_LIB_HIGHLIGHTS_H

#include <cstddef>
#include <vector>

#include "deconv/deconv.h"
#include "spectral/workers.h"

namespace libdeconv {

// The part of a file's full range (0..1) at and above which a sample is
// taken for clipped, where RestoreOptions::highlights leaves it automatic:
// JPEG's quantisation spreads a clipped 255 a few levels down.
constexpr float automatic_highlights = 0.98f;

// The clipping level restore() works with: options.highlights where given,
// automatic_highlights for a picture within 0..1, else 0 (none).
float highlights_level(const deconv::Image& blurred, const deconv::RestoreOptions& options);

// The weights of `data` (of `sizes`, outermost axis first) for a PSF of
// `psf_sizes` (its taps, its middle sample the centre): 0 on every sample at
// or above `level` and on every one whose blur reaches one of those, else 1.
// Empty where nothing is clipped (or level is 0). `masked` counts the zeros.
std::vector<float> highlight_weights(const float* data, const std::vector<int>& sizes, const float* psf,
                                     const std::vector<int>& psf_sizes, float level,
                                     deconv::spectral::Workers& workers, size_t* masked = nullptr);

}  // namespace libdeconv

#endif
