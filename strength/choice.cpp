#include "strength/choice.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <limits>

StrengthHistogram::StrengthHistogram() : bins_(1 << 16) {}

void StrengthHistogram::add(const float P, const float N, const float power) {
  if (!(N > 0)) return;
  const float r = P / N;  // non-negative
  uint32_t bits;
  std::memcpy(&bits, &r, sizeof bits);
  Bin& bin = bins_[bits >> 16];
  bin.count += 1;
  bin.r_sum += r;
  bin.power += power;
  bin.r_power_sum += (double)r * power;
}

void StrengthHistogram::merge(const StrengthHistogram& other) {
  for (size_t i = 0; i < bins_.size(); ++i) {
    bins_[i].count += other.bins_[i].count;
    bins_[i].r_sum += other.bins_[i].r_sum;
    bins_[i].power += other.bins_[i].power;
    bins_[i].r_power_sum += other.bins_[i].r_power_sum;
  }
}

double StrengthHistogram::gcv(const double lambda) const {
  double n = 0, residual = 0, trace = 0;
  for (const Bin& bin : bins_) {
    if (!bin.count) continue;
    n += bin.count;
    // Each bin's r, averaged as each sum weighs its frequencies.
    const double r_count = bin.r_sum / bin.count;
    const double r_power = bin.power > 0 ? bin.r_power_sum / bin.power : r_count;
    const double keep = lambda / (r_power + lambda);
    residual += bin.power * keep * keep;
    trace += bin.count * lambda / (r_count + lambda);
  }
  return trace > 0 ? n * residual / (trace * trace) : std::numeric_limits<double>::infinity();
}

int StrengthHistogram::best(const int lowest, const int highest) const {
  int best = lowest;
  double smallest = std::numeric_limits<double>::infinity();
  for (int strength = lowest; strength <= highest; ++strength) {
    const double value = gcv((double)((float)strength / 10.0f));
    if (value < smallest) smallest = value, best = strength;
  }
  return best;
}

bool StrengthChoice::coarse(const int64_t x, const int64_t y, const int64_t width, const int64_t height) {
  // In halves of a cycle per pixel, so that Nyquist is 1 on both axes whatever
  // the picture's shape; 0.575 by bench/strength_bench.cpp's evaluation.
  const double fx = 2.0 * (double)std::min(x, width - x) / (double)width;
  const double fy = 2.0 * (double)std::min(y, height - y) / (double)height;
  return fx * fx + fy * fy < 0.575 * 0.575;
}

int StrengthChoice::strength() const {
  const int larger = std::max(all.best(1, 200), coarse_band.best(1, 200));
  return (int)std::min(200L, std::lround(1.5 * larger));
}
