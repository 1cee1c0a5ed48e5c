// Circular convolution in the frequency domain. The edge taper blurs each
// picture plane with the PSF's spectrum through the first overload, so that the
// PSF is transformed once per run and not once per channel.
#include "spectral/fft.h"

void place_kernel(CImg<float>& kernel, const int width, const int height) {
  // The same as resize(width, height, 1, 1, 0, 0, 0.5f, 0.5f, 0, 0) followed by
  // shift(width / 2, height / 2, 0, 0, 2), written straight to the wrapped
  // positions: taps land at the truncated offset 0.5f * (size difference), those
  // that fall outside the plane are lost, and the rest roll by half the plane.
  CImg<float> placed(width, height, 1, 1, 0.0f);
  const int x0 = (int)(0.5f * (float)(width - kernel.width())), y0 = (int)(0.5f * (float)(height - kernel.height()));
  for (int j = std::max(0, -y0); j < std::min(kernel.height(), height - y0); ++j)
    for (int i = std::max(0, -x0); i < std::min(kernel.width(), width - x0); ++i)
      placed((i + x0 + width / 2) % width, (j + y0 + height / 2) % height) = kernel(i, j);
  kernel.swap(placed);
}

CImgList<float> forward_spectrum(CImg<float> image, pthread_mutex_t* const mutex) {
  CImgList<float> spectrum(2);
  image.move_to(spectrum[0]);  // a view is copied here, anything else is taken over
  CImg<float>::FFT(spectrum[0], spectrum[1], false, mutex);
  return spectrum;
}

void require_spectrum_of_size(const CImgList<float>& kernel_fft, const CImg<float>& image) {
  const cimg_uint64 image_size = (cimg_uint64)image.width() * image.height() * image.depth() * image.spectrum();
  const CImg<float>& kernel_re = kernel_fft.size() ? kernel_fft[0] : CImg<float>::empty();
  const cimg_uint64 kernel_size =
      (cimg_uint64)kernel_re.width() * kernel_re.height() * kernel_re.depth() * kernel_re.spectrum();
  if (image_size != kernel_size || kernel_fft.size() != 2) throw 189;
}

void fft_convolve(CImg<float>& result, const CImg<float>& image, const CImgList<float>& kernel_fft,
                  pthread_mutex_t* const mutex) {
  require_spectrum_of_size(kernel_fft, image);
  // Each channel goes through its forward transform, the product with the
  // kernel's spectrum and the inverse, straight into the result.
  result.assign(image.width(), image.height(), image.depth(), image.spectrum());
  for (int c = 0; c < image.spectrum(); ++c) {
    CImg<float> out = result.get_shared_channel(c);
    CImg<float>::FFT_filter(image.get_shared_channel(c), out, spectrum_product(kernel_fft), mutex);
  }
}

void fft_convolve(CImg<float>& result, const CImg<float>& image, const CImg<float>& kernel,
                  pthread_mutex_t* const mutex) {
  CImg<float> placed(kernel);
  place_kernel(placed, image.width(), image.height());
  fft_convolve(result, image, forward_spectrum(std::move(placed), mutex), mutex);
}
