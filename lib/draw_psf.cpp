// draw_psf(): "KIND:N[,N]" into the PSF deconv-psf draws for it.
#include <stdexcept>

#include "lib/image_views.h"
#include "psf/named.h"

namespace deconv {

Image draw_psf(const std::string& description) {
  const size_t colon = description.find(':');
  std::vector<std::string> numbers;
  if (colon != std::string::npos) {
    for (size_t start = colon + 1;;) {
      const size_t comma = description.find(',', start);
      numbers.push_back(description.substr(start, comma - start));
      if (comma == std::string::npos) break;
      start = comma + 1;
    }
  }
  try {
    const CImg<float> psf = draw_named_psf(description.substr(0, colon), numbers);
    Image image(psf.width(), psf.height(), psf.depth(), 1);
    std::copy(psf.begin(), psf.end(), image.pixels.begin());
    return image;
  } catch (const std::invalid_argument& e) {
    throw Error(std::string("PSF '") + description + "': " + e.what());
  }
}

}  // namespace deconv
