// Circular convolution in the frequency domain. The edge taper blurs each
// picture plane with the PSF's spectrum through the first overload, so that the
// PSF is transformed once per run and not once per channel.
#include "spectral/fft.h"

void place_kernel(CImg<float>& kernel, const int width, const int height) {
  kernel.resize(width, height, 1, 1, 0, 0, 0.5f, 0.5f, 0, 0);
  kernel.shift(kernel.width() / 2, kernel.height() / 2, 0, 0, 2);
}

CImgList<float> forward_spectrum(const CImg<float>& image, pthread_mutex_t* const mutex) {
  CImgList<float> spectrum(image, CImg<float>());
  CImg<float>::FFT(spectrum[0], spectrum[1], false, mutex);
  return spectrum;
}

void fft_convolve(CImg<float>& result, const CImg<float>& image, const CImgList<float>& kernel_fft,
                  pthread_mutex_t* const mutex) {
  const cimg_uint64 image_size = (cimg_uint64)image.width() * image.height() * image.depth() * image.spectrum();
  const CImg<float>& kernel_re = kernel_fft.size() ? kernel_fft[0] : CImg<float>::empty();
  const cimg_uint64 kernel_size =
      (cimg_uint64)kernel_re.width() * kernel_re.height() * kernel_re.depth() * kernel_re.spectrum();
  if (image_size != kernel_size || kernel_fft.size() != 2) throw 189;

  result.assign(image.data(), image.width(), image.height(), image.depth(), image.spectrum());
  const float* const p = kernel_fft[0].data();
  const float* const q = kernel_fft[1].data();
  for (int c = 0; c < image.spectrum(); ++c) {
    CImgList<float> plane = forward_spectrum(image.get_shared_channel(c), mutex);
    float* const re = plane[0].data();
    float* const im = plane[1].data();
    const cimg_uint64 n = plane[0].size();
    for (cimg_uint64 i = 0; i < n; ++i) {
      const float a = re[i], b = im[i];
      re[i] = p[i] * a - q[i] * b;
      im[i] = a * q[i] + p[i] * b;
    }
    plane.FFT(true, mutex);
    result.get_shared_channel(c) = plane[0];
  }
}

void fft_convolve(CImg<float>& result, const CImg<float>& image, const CImg<float>& kernel,
                  pthread_mutex_t* const mutex) {
  CImg<float> placed(kernel);
  place_kernel(placed, image.width(), image.height());
  fft_convolve(result, image, forward_spectrum(placed, mutex), mutex);
}
