#include "commands/restore/sharpness.h"

#include <algorithm>

double gradient_energy(const deconv::Image& image, int margin) {
  if (2 * margin + 2 > std::min(image.width, image.height)) margin = 0;
  double sum = 0;
  size_t count = 0;
  for (int c = 0; c < image.channels; ++c)
    for (int z = 0; z < image.depth; ++z)
      for (int y = margin; y + 1 < image.height - margin; ++y)
        for (int x = margin; x + 1 < image.width - margin; ++x) {
          const double dx = image.at(x + 1, y, z, c) - image.at(x, y, z, c);
          const double dy = image.at(x, y + 1, z, c) - image.at(x, y, z, c);
          sum += dx * dx + dy * dy;
          ++count;
        }
  return count ? sum / count : 0;
}
