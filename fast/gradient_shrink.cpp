#include "fast/gradient_shrink.h"

#include <cmath>
#include <stdexcept>

namespace deconv {
namespace fast {

namespace {

// f(s) = s^alpha + (s - u)^2 / 2 on s >= 0, and its first two derivatives.
double cost(double s, double u, double alpha) { return std::pow(s, alpha) + (s - u) * (s - u) / 2; }
double slope(double s, double u, double alpha) { return alpha * std::pow(s, alpha - 1) + s - u; }
double bend(double s, double alpha) { return alpha * (alpha - 1) * std::pow(s, alpha - 2) + 1; }

}  // namespace

GradientShrink::GradientShrink(const double alpha) : alpha_(alpha), threshold_(0), table_(steps + 1) {
  if (!(alpha > 0 && alpha < 2)) throw std::invalid_argument("the prior's exponent lies outside (0, 2)");
  for (int k = 0; k <= steps; ++k) table_[k] = (float)solve(top * k / steps);
  // Below the threshold the answer is 0 (none for alpha above 1): where
  // solve() turns from 0 to a root, by bisection.
  double lo = 0, hi = top;
  for (int i = 0; i < 60; ++i) (solve((lo + hi) / 2) > 0 ? hi : lo) = (lo + hi) / 2;
  threshold_ = hi;
}

// By bisection where f' rises: beyond f's inflexion for alpha < 1 (f' falls
// before it), from 0 otherwise. For alpha < 1 the root still has to beat s = 0.
double GradientShrink::solve(const double u) const {
  if (u <= 0) return 0;
  double lo = alpha_ < 1 ? std::pow(alpha_ * (1 - alpha_), 1 / (2 - alpha_)) : 0, hi = u;
  if (alpha_ < 1 && (lo >= u || slope(lo, u, alpha_) >= 0)) return 0;
  if (alpha_ == 1 && u <= 1) return 0;
  for (int i = 0; i < 80; ++i) {
    const double mid = (lo + hi) / 2;
    (mid > 0 && slope(mid, u, alpha_) > 0 ? hi : lo) = mid;
  }
  const double s = (lo + hi) / 2;
  return alpha_ < 1 && cost(s, u, alpha_) >= u * u / 2 ? 0 : s;
}

float GradientShrink::scale_for(const double c) const { return (float)std::pow(c, 1 / (2 - alpha_)); }

float GradientShrink::operator()(const float u) const {
  const float a = std::fabs(u);
  float s;
  if (a < threshold_) {
    s = 0;
  } else if (a < (float)top) {
    const float at = a * (float)(steps / top);
    const int k = (int)at;
    // The table's points below the threshold hold 0: read the root's side.
    const float low = table_[k] == 0 ? table_[k + 1] - (table_[k + 2] - table_[k + 1]) : table_[k];
    s = low + (at - k) * (table_[k + 1] - low);
  } else {
    // The tail is smooth and close to a line: Newton's method from it.
    double z = a * (double)table_[steps] / top;
    for (int i = 0; i < 3; ++i) z -= slope(z, a, alpha_) / bend(z, alpha_);
    s = (float)z;
  }
  return u < 0 ? -s : s;
}

}  // namespace fast
}  // namespace deconv
