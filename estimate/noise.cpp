// The picture's noise as a sensor makes it: photon noise grows with the
// light, read noise does not, so the variance is a * signal + b. Measured on
// the picture itself: the finest diagonal detail of 2 x 2 blocks (which a
// blur leaves almost nothing of) binned by the blocks' mean level, a robust
// variance per bin, and a line fitted through the bins. The refusals in
// trust.cpp judge a picture and a kernel against it.
#include <algorithm>
#include <cmath>

#include "estimate/estimate.h"

namespace deconv {
namespace estimation {

double NoiseModel::variance(double signal) const { return std::max(a * signal + b, 0.0); }

double NoiseModel::mean_variance(const Image& plane) const {
  double sum = 0;
  for (float v : plane.pixels) sum += variance(v);
  return plane.pixels.empty() ? 0 : sum / plane.pixels.size();
}

NoiseModel noise_model(const Image& plane, const Image* ignore) {
  const Spread spread = robust_spread(plane);
  NoiseModel model;
  if (!(spread.width > 0)) return model;
  const int bins = 12;
  std::vector<std::vector<float>> detail(bins), level(bins);
  for (int y = 0; y + 1 < plane.height; y += 2)
    for (int x = 0; x + 1 < plane.width; x += 2) {
      // Clipped samples have no noise at all; their neighbours too little.
      if (ignore && ignore->at(x, y) + ignore->at(x + 1, y) + ignore->at(x, y + 1) + ignore->at(x + 1, y + 1) > 0)
        continue;
      const float p = plane.at(x, y), q = plane.at(x + 1, y), r = plane.at(x, y + 1), s = plane.at(x + 1, y + 1);
      const double mean = (p + q + r + s) / 4;
      const int bin = (int)std::floor((mean - spread.low) / spread.width * bins);
      if (bin < 0 || bin >= bins) continue;
      detail[bin].push_back(std::fabs(p - q - r + s) / 2);
      level[bin].push_back((float)mean);
    }
  // Per bin: the median's variance (edges, a minority in each bin, hardly
  // move it) at the bin's median level; then weighted least squares.
  double sw = 0, sx = 0, sy = 0, sxx = 0, sxy = 0;
  const size_t least = 64;
  for (int i = 0; i < bins; ++i) {
    std::vector<float>& d = detail[i];
    if (d.size() < least) continue;
    std::nth_element(d.begin(), d.begin() + d.size() / 2, d.end());
    std::nth_element(level[i].begin(), level[i].begin() + level[i].size() / 2, level[i].end());
    const double sigma = d[d.size() / 2] / 0.6745, x = level[i][level[i].size() / 2], y = sigma * sigma;
    const double w = (double)d.size();
    sw += w, sx += w * x, sy += w * y, sxx += w * x * x, sxy += w * x * y;
  }
  if (sw <= 0) return model;
  const double det = sw * sxx - sx * sx;
  model.a = det > 1e-12 * sw * sw ? (sw * sxy - sx * sy) / det : 0;
  model.b = (sy - model.a * sx) / sw;
  // A falling line is JPEG's or a tone curve's doing, not a sensor's: the mean alone.
  if (model.a < 0) model.a = 0, model.b = sy / sw;
  // A negative floor: the line through the origin.
  if (model.b < 0) model.b = 0, model.a = sxy / sxx;
  return model;
}

}  // namespace estimation
}  // namespace deconv
