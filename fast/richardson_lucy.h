// Richardson-Lucy on the second engine, for pictures and stacks of photon
// counts: the maximum-likelihood restoration under Poisson noise on a
// background, which keeps every sample non-negative.
//
// The object is restored on a domain wider than the data by the PSF's extent
// along every axis (Bertero & Boccacci 2005), with the data term weighed only
// where there are data: nothing wraps round from the far side and the borders
// need no taper. Each iteration is two convolutions, four real transforms,
// and a few passes over the arrays; the iterations are extrapolated along
// their own direction (Biggs & Andrews 1997), which reaches a given fit in a
// few times fewer of them. Every sum runs over fixed blocks added in order:
// the same bits for any number of threads. A total-variation prior may
// regularise them.
#ifndef DECONV_FAST_RICHARDSON_LUCY_H
#define DECONV_FAST_RICHARDSON_LUCY_H

#include <functional>
#include <vector>

#include "spectral/real_fft.h"

namespace deconv {
namespace fast {

struct RichardsonLucyOptions {
  // Iterations to run; 0: until the fit to the data is as close as its
  // noise allows (the discrepancy principle for Poisson data, the noise's
  // scale measured where the PSF passes nothing).
  int iterations = 0;
  // With iterations 0, stop after this many all the same; 0: no bound but
  // the engine's own.
  int at_most = 0;
  // Counts every sample carries besides the object's light (camera offset,
  // sky), in the data's units.
  float background = 0;
  // Vector extrapolation of the iterations.
  bool accelerate = true;
  // The weight of a total-variation prior (Dey et al. 2006), for noisy data:
  // 0 (none) to about 0.02; larger flattens detail.
  float total_variation = 0;
  // The flat object the iterations start from; 0: the data's mean less the
  // background. A part of a picture restored on its own starts from the
  // whole's level, where it is to match the whole.
  float start = 0;
  // How much each datum counts, on the data's grid; nullptr: all 1. A weight
  // of 0 takes a sample out of the fit (clipped, or reached by what was): the
  // result is then independent of its value, but for the objects no weighed
  // datum reaches at all, which keep the data's own values (less the
  // background).
  const float* weights = nullptr;
  // Told after every iteration: its number and the object so far (the data's
  // grid), for evaluations that follow the iterations.
  std::function<void(int iteration, const float* object)> each_iteration;
};

struct RichardsonLucyResult {
  int iterations = 0;  // run
};

// Restores one channel: `data` and `object` of `sizes` (outermost axis
// first), the PSF of `psf_sizes` (as many axes, each no longer than the
// data's), non-negative, normalised to sum 1, its centre at its middle
// sample (n / 2 along each axis).
RichardsonLucyResult richardson_lucy(const float* data, float* object, const std::vector<int>& sizes,
                                     const float* psf, const std::vector<int>& psf_sizes,
                                     const RichardsonLucyOptions& options, spectral::Workers& workers);

}  // namespace fast
}  // namespace deconv

#endif
