// Spectral transforms: the FFT entry and circular convolution built on it.
//
// The transform itself is CImg<float>::FFT(real, imag, invert, mutex), added to
// the image class by fft_plugin.h; its list form is CImgList<float>::FFT(invert,
// mutex). A complex image is a CImgList<float> of two planes of equal size,
// entry 0 real and entry 1 imaginary, zero frequency at pixel (0, 0).
#ifndef DECONV_SPECTRAL_FFT_H
#define DECONV_SPECTRAL_FFT_H

#include <type_traits>

#include "imaging/cimg_config.h"

using cimg_library::CImg;
using cimg_library::CImgList;

// Brings a small kernel to a width x height plane: the taps are copied into
// the middle of a zero plane, which is then rolled periodically by half its
// size. The middle of an odd kernel thus lands at (width - 1, height - 1), one
// pixel short of the origin in both axes; this is deliberate, and every stage
// that transforms a kernel (the PSF included) shares the offset.
void place_kernel(CImg<float>& kernel, int width, int height);

// Forward transform of a real image: returns (F real, F imag). The image is
// taken over when it is moved in, so that no plane is copied only to be
// transformed. CImgList has no move operations: take the result with move_to.
CImgList<float> forward_spectrum(CImg<float> image, pthread_mutex_t* mutex);

// result = circular convolution of image with the kernel whose transform is
// kernel_fft, channel by channel, at the image's size. Throws the int 189 if
// kernel_fft is not two planes holding as many samples as the image.
void fft_convolve(CImg<float>& result, const CImg<float>& image, const CImgList<float>& kernel_fft,
                  pthread_mutex_t* mutex);

// The circular convolution of a one-channel image with a kernel spectrum, not
// written out: read(sample) runs with sample(x, y), the result at (x, y) with
// the bits fft_convolve would give, readable until the thread's next
// transform. Throws 189 as fft_convolve does.
template <class R>
void fft_convolve_read(const CImg<float>& image, const CImgList<float>& kernel_fft, R read, pthread_mutex_t* mutex);

// The same with a kernel in the image domain of any size, whose middle stands
// for its origin (one pixel short, as place_kernel says). Not normalised: the
// kernel's sum is the gain of the convolution.
void fft_convolve(CImg<float>& result, const CImg<float>& image, const CImg<float>& kernel,
                  pthread_mutex_t* mutex);

// The product with the kernel's spectrum (no conjugate), frequency by frequency.
inline auto spectrum_product(const CImgList<float>& kernel_fft) {
  const float* const p = kernel_fft[0].data();
  const float* const q = kernel_fft[1].data();
  return [p, q](auto& re, auto& im, const cimg_uint64 i) {
    using V = std::decay_t<decltype(re)>;
    const V a = re, b = im, pi = fft_copies::at<V>(p + i), qi = fft_copies::at<V>(q + i);
    re = pi * a - qi * b;
    im = a * qi + pi * b;
  };
}

// Throws 189 unless kernel_fft is two planes holding as many samples as image.
void require_spectrum_of_size(const CImgList<float>& kernel_fft, const CImg<float>& image);

template <class R>
void fft_convolve_read(const CImg<float>& image, const CImgList<float>& kernel_fft, R read,
                       pthread_mutex_t* const mutex) {
  require_spectrum_of_size(kernel_fft, image);
  CImg<float>::FFT_filter_read(image, spectrum_product(kernel_fft), read, mutex);
}

#endif
