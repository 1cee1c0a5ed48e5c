// The image library as this tool uses it. Every source file includes this header
// instead of CImg.h, so that all of them see one configuration: no display, no
// codec libraries (PNG and JPEG go through external converters), reports on
// stderr, and our own thread-safe single-precision FFT entry in place of the
// library's.
#ifndef DECONV_IMAGING_CIMG_CONFIG_H
#define DECONV_IMAGING_CIMG_CONFIG_H

#include <pthread.h>  // the FFT entry takes a pthread mutex

#include "spectral/fft_copies.h"     // used by the FFT entry inside CImg<T>
#include "spectral/fftw_planner.h"  // likewise

#define cimg_display 0
#define cimg_verbosity 2  // exception mode 2: every library exception reports on stderr
#define cimg_use_fftw3
#define cimg_use_fftw3_singlethread  // FFTW's threads are never used
// Any image that cannot be allocated is an instance error, however large it is.
// (The fuzzing build sets a cap of its own.)
#ifndef cimg_max_buf_size
#define cimg_max_buf_size (~(cimg_ulong)0)
#endif
#define cimg_plugin "spectral/fft_plugin.h"
#define cimglist_plugin "spectral/fft_list_plugin.h"
#include <CImg.h>

// The arguments that go with the "[instance(...)] CImg<%s>::" prefix of the
// library's messages, for an image of our float pixels.
#define deconv_instance(img)                                                 \
  (img)._width, (img)._height, (img)._depth, (img)._spectrum,               \
      (const void*)(img)._data, (img)._is_shared ? "" : "non-", "float"

#endif
