#include "commands/restore/sharpness.h"

#include <algorithm>
#include <cmath>
#include <vector>

namespace {

// The noise's variance in one plane: the median absolute diagonal detail of
// 2 x 2 blocks over 0.6745, squared (Donoho's estimate; a blur leaves that
// detail to the noise).
double noise_variance(const deconv::Image& image, int z, int c, int margin) {
  std::vector<float> detail;
  for (int y = margin; y + 1 < image.height - margin; y += 2)
    for (int x = margin; x + 1 < image.width - margin; x += 2)
      detail.push_back(std::fabs(image.at(x, y, z, c) - image.at(x + 1, y, z, c) - image.at(x, y + 1, z, c) +
                                 image.at(x + 1, y + 1, z, c)) /
                       2);
  if (detail.empty()) return 0;
  std::nth_element(detail.begin(), detail.begin() + detail.size() / 2, detail.end());
  const double sigma = detail[detail.size() / 2] / 0.6745;
  return sigma * sigma;
}

}  // namespace

double gradient_energy(const deconv::Image& image, int margin) {
  if (2 * margin + 2 > std::min(image.width, image.height)) margin = 0;
  double sum = 0, noise = 0;
  size_t count = 0;
  for (int c = 0; c < image.channels; ++c)
    for (int z = 0; z < image.depth; ++z) {
      size_t here = 0;
      for (int y = margin; y + 1 < image.height - margin; ++y)
        for (int x = margin; x + 1 < image.width - margin; ++x) {
          const double dx = image.at(x + 1, y, z, c) - image.at(x, y, z, c);
          const double dy = image.at(x, y + 1, z, c) - image.at(x, y, z, c);
          sum += dx * dx + dy * dy;
          ++here;
        }
      noise += 4 * noise_variance(image, z, c, margin) * here;
      count += here;
    }
  return count ? (sum - noise) / count : 0;
}
