// A sparse-prior restoration on the second engine, for photographs: the
// minimiser of
//   sum_i w_i (k * x - y)_i^2 / 2 + lambda sum_i sum_axes |d_axis x|_i^alpha,
// a hyper-Laplacian prior on the object's differences (alpha about 2/3),
// by half-quadratic splitting with a rising penalty (Krishnan & Fergus 2009).
//
// The object lives on a grid wider than the data by the PSF's extent along
// every axis, and the data term counts only where there are data: a second
// split v = k * x (Almeida & Figueiredo 2013) turns every step into one that
// is either per sample (v, the differences) or diagonal in Fourier on the
// wider periodic grid (x). Nothing wraps round from the far border, and the
// borders need no taper. An iteration costs four real transforms of the
// wider grid and a few passes over its samples; every sum runs over fixed
// blocks, every other step is per sample: the same bits for any number of
// threads.
#ifndef DECONV_FAST_SPARSE_H
#define DECONV_FAST_SPARSE_H

#include <algorithm>
#include <vector>

#include "spectral/real_fft.h"

namespace deconv {
namespace fast {

struct SparseOptions {
  // The prior's weight, for data in 0..1; 0: chosen from the data's noise
  // (sparse_lambda()).
  float lambda = 0;
  // The prior's exponent, in (0, 2]: 2 is Tikhonov's, 1 total variation's,
  // below 1 sparser than either.
  float alpha = 2.0f / 3.0f;
  // Each sample's weight in the data term, on the data's grid (0 takes a
  // sample out: a clipped highlight); nullptr: all 1.
  const float* weights = nullptr;
  // Samples of the data at or above this level are clipped: they say only
  // that the blurred light there was at least the level, and the fit holds
  // them to that bound alone (the saturation model of Whyte, Sivic &
  // Zisserman 2014). 0: none.
  float clip_level = 0;
  // What the samples a clipped one's blur reaches weigh, in times their
  // weight otherwise (0 would leave the prior alone to fill a lamp's
  // surroundings): 0.05 restored camera-formed photographs with lamps best
  // (bench/camera_bench.py's quick set: 24.08 dB at 1, 24.13 at 0.3, 24.20
  // at 0.05, 22.16 at 0; the error around the lamps over the blurred
  // picture's 1.40, 1.28, 1.11 and 1.70).
  float near_clipped_weight = 0.05f;
  // With the weight chosen from the data (lambda 0): weigh each sample by
  // the inverse of its noise's variance, measured as a * level + b, as a
  // sensor's photon and read noise make it. Data whose noise does not grow
  // with their level are weighed alike.
  bool noise_follows_signal = true;
  // The penalty on the differences' split rises from beta_start * lambda by
  // beta_growth, outer_steps times, each held for inner_steps iterations.
  int outer_steps = 8;
  int inner_steps = 1;
  float beta_start = 1;
  float beta_growth = 2.828f;
  // The penalty on the data's split, in times the differences' penalty
  // (it rises with it).
  float data_penalty = 30;
  // Carry the splits' multipliers (the alternating direction method of
  // multipliers): the iterations then converge to the minimiser itself,
  // which a fixed number of plain splitting steps only approaches.
  bool multipliers = true;
};

struct SparseResult {
  float lambda = 0;  // used
  float noise = 0;   // the data's noise as measured (0 where lambda was given)
};

// The noise's variance as a * level + b, a and b at least 0: the finest
// mixed differences of 2 x 2 blocks (as noise_deviation()) binned by the
// blocks' mean level, the median's variance in each bin, and a line fitted
// through them weighed by their counts.
struct NoiseLine {
  float a = 0, b = 0;
  float at(float level) const { return a * std::max(level, 0.0f) + b; }
};
NoiseLine noise_line(const float* data, const std::vector<int>& sizes, const float* weights = nullptr);

// The noise's standard deviation in `data` (any number of axes): the median
// absolute value of the finest mixed differences along the last two axes
// (the last one's second differences for a line), over 0.6745; blocks with a
// sample of no weight are left out (weights may be nullptr).
float noise_deviation(const float* data, const std::vector<int>& sizes, const float* weights = nullptr);

// The prior's weight for data of this noise, 5 max(noise, 0.002)^2: tuned
// with the settings above on bench/sparse_bench.cpp's photographs (half or
// twice the weight lose 0.1 to 0.2 dB there).
float sparse_lambda(float noise, float alpha);

// Restores one channel: `data` and `object` of `sizes` (outermost axis
// first), the PSF of `psf_sizes` (as many axes, each no longer than the
// data's), normalised to sum 1, its centre at its middle sample (n / 2
// along each axis).
SparseResult sparse_restore(const float* data, float* object, const std::vector<int>& sizes, const float* psf,
                            const std::vector<int>& psf_sizes, const SparseOptions& options,
                            spectral::Workers& workers);

}  // namespace fast
}  // namespace deconv

#endif
