// The per-sample step of the sparse restoration (fast/sparse.h): the value z
// nearest to a gradient t under a hyper-Laplacian penalty,
//   argmin_z  c |z|^alpha + (z - t)^2 / 2,
// solved exactly for any alpha in (0, 2) (2 has no scale of its own: its
// step is t / (1 + 2 c), for the caller). Scaling z and t by c^(1 / (2 -
// alpha)) makes every c the same problem, so one table over the scaled t,
// made once in double, serves every sample and every penalty (Krishnan &
// Fergus 2009 tabulate too). For alpha below 1 the answer jumps from 0 to a
// root at a threshold; the table keeps the threshold exact.
#ifndef DECONV_FAST_GRADIENT_SHRINK_H
#define DECONV_FAST_GRADIENT_SHRINK_H

#include <vector>

namespace deconv {
namespace fast {

class GradientShrink {
 public:
  explicit GradientShrink(double alpha);

  double alpha() const { return alpha_; }
  // The scale of t for penalty c: c^(1 / (2 - alpha)).
  float scale_for(double c) const;
  // argmin_z |z|^alpha + (z - u)^2 / 2 for a scaled u (odd in u).
  float operator()(float u) const;

 private:
  static constexpr int steps = 4096;
  static constexpr double top = 64;  // of the table's u; beyond it, Newton's method
  double solve(double u) const;
  double alpha_, threshold_;
  std::vector<float> table_;
};

}  // namespace fast
}  // namespace deconv

#endif
