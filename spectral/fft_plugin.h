// Included inside CImg<T> through cimg_plugin: the one Fourier transform entry
// of the system. Complex to complex, single precision, in place, at exactly the
// image's size, with FFTW's planner serialised by the caller's mutex while the
// transforms themselves run in parallel. Only CImg<float> instantiates it.
//
// Forward is unscaled; inverse divides every sample by width * height * depth.
// The zero frequency stays at pixel (0, 0, 0), not centred.

// Calls f(buffer offset, image offset) for every sample of one channel. The
// buffer is x-major (x is FFTW's slowest axis) while the image is x-fastest,
// so the walk takes blocks of 64 columns row by row to keep both in cache.
template <class F>
static void _fft_for_each_sample(const unsigned int W, const unsigned int H, const unsigned int D, F f) {
  for (unsigned int x0 = 0; x0 < W; x0 += 64)
    for (unsigned int z = 0; z < D; ++z)
      for (unsigned int y = 0; y < H; ++y)
        for (unsigned int x = x0; x < std::min(W, x0 + 64); ++x)
          f(((cimg_uint64)x * H + y) * D + z, ((cimg_uint64)z * H + y) * W + x);
}

static void FFT(CImg<T>& real, CImg<T>& imag, const bool invert, pthread_mutex_t* const mutex) {
  if (!real._data)
    throw CImgInstanceException("CImgList<%s>::FFT() : Input real image is empty.", "float");
  if (!imag._data) imag.assign(real._width, real._height, real._depth, real._spectrum, (T)0);
  if (real._width != imag._width || real._height != imag._height || real._depth != imag._depth ||
      real._spectrum != imag._spectrum)
    throw CImgInstanceException(
        "CImgList<%s>::FFT() : Real image (%u,%u,%u,%u,%p) and imaginary image (%u,%u,%u,%u,%p) "
        "have different dimensions",
        "float", real._width, real._height, real._depth, real._spectrum, (const void*)real._data,
        imag._width, imag._height, imag._depth, imag._spectrum, (const void*)imag._data);

  const unsigned int W = real._width, H = real._height, D = real._depth;
  // Planning and freeing touch FFTW's global state; executing a plan does not.
  if (mutex) pthread_mutex_lock(mutex);
  fftwf_complex* const buffer =
      (fftwf_complex*)fftwf_malloc(sizeof(fftwf_complex) * (cimg_uint64)W * H * D);
  // Deliberately thrown with the lock still held: the process ends on this path.
  if (!buffer) throw CImgInstanceException("Encountered null pointer: <mkl>fftwf_malloc failed");
  const fftwf_plan plan = fftwf_plan_dft_3d((int)W, (int)H, (int)D, buffer, buffer,
                                            invert ? FFTW_BACKWARD : FFTW_FORWARD, FFTW_ESTIMATE);
  if (mutex) pthread_mutex_unlock(mutex);

  // 32-bit unsigned product, converted once: the inverse divides by this float.
  const float n = (float)(W * H * D);
  for (unsigned int c = 0; c < real._spectrum; ++c) {
    T* const re = real.data(0, 0, 0, c);
    T* const im = imag.data(0, 0, 0, c);
    _fft_for_each_sample(W, H, D, [&](cimg_uint64 b, cimg_uint64 i) {
      buffer[b][0] = (float)re[i];
      buffer[b][1] = (float)im[i];
    });
    fftwf_execute(plan);
    if (invert)  // a true division, not a multiplication by 1/n: the last bit depends on it
      _fft_for_each_sample(W, H, D, [&](cimg_uint64 b, cimg_uint64 i) {
        re[i] = (T)(buffer[b][0] / n);
        im[i] = (T)(buffer[b][1] / n);
      });
    else
      _fft_for_each_sample(W, H, D, [&](cimg_uint64 b, cimg_uint64 i) {
        re[i] = (T)buffer[b][0];
        im[i] = (T)buffer[b][1];
      });
  }

  if (mutex) pthread_mutex_lock(mutex);
  fftwf_destroy_plan(plan);
  fftwf_free(buffer);
  if (mutex) pthread_mutex_unlock(mutex);
}
