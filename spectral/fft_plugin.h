// Included inside CImg<T> through cimg_plugin: the one Fourier transform entry
// of the system. Complex to complex, single precision, in place, at exactly the
// image's size, with FFTW's planner serialised by the caller's mutex while the
// transforms themselves run in parallel. Only CImg<float> instantiates it.
//
// Forward is unscaled; inverse divides every sample by width * height * depth.
// The zero frequency stays at pixel (0, 0, 0), not centred.
//
// Besides the plain transform of a pair of planes, two forms keep a spectrum
// in FFTW's buffer instead of writing it out to planes: FFT_visit hands every
// frequency of a real plane's transform to the caller, and FFT_filter changes
// them and transforms back, writing the result out or, with FFT_filter_read,
// leaving it in the buffer for the caller to read where it needs. Each
// transform in them is planned afresh under the lock like any other; they only
// spare copies and planes.

// The calling thread's FFTW buffer, kept from call to call, grown when a larger
// transform comes and freed when the thread ends. Reusing it changes no result:
// an ESTIMATE plan depends only on the sizes, the flags and the buffer's
// alignment, and the copy-in overwrites every entry that a transform reads.
// Called under the caller's lock; a failed allocation throws with it held,
// deliberately, since the process ends on that path.
static fftwf_complex* _fft_buffer(const cimg_uint64 entries) {
  struct Buffer {
    fftwf_complex* data = nullptr;
    cimg_uint64 entries = 0;
    ~Buffer() { fftwf_free(data); }
  };
  static thread_local Buffer buffer;
  if (buffer.entries < entries) {
    fftwf_free(buffer.data);
    buffer.entries = 0;
    buffer.data = (fftwf_complex*)fftwf_malloc(sizeof(fftwf_complex) * entries);
    if (!buffer.data) throw CImgInstanceException("Encountered null pointer: <mkl>fftwf_malloc failed");
    buffer.entries = entries;
  }
  return buffer.data;
}

// A fresh ESTIMATE plan on the thread's buffer, made under the lock: planning
// touches FFTW's global state, executing a plan does not.
static fftwf_plan _fft_plan(const unsigned int W, const unsigned int H, const unsigned int D, const bool invert,
                            pthread_mutex_t* const mutex, fftwf_complex*& buffer) {
  if (mutex) pthread_mutex_lock(mutex);
  buffer = _fft_buffer((cimg_uint64)W * H * D);
  pthread_mutex_lock(fftw_planner_mutex());  // the caller's lock alone does not cover other engines
  const fftwf_plan plan =
      fftwf_plan_dft_3d((int)W, (int)H, (int)D, buffer, buffer, invert ? FFTW_BACKWARD : FFTW_FORWARD, FFTW_ESTIMATE);
  pthread_mutex_unlock(fftw_planner_mutex());
  if (mutex) pthread_mutex_unlock(mutex);
  return plan;
}

static void _fft_destroy(const fftwf_plan plan, pthread_mutex_t* const mutex) {
  if (mutex) pthread_mutex_lock(mutex);
  pthread_mutex_lock(fftw_planner_mutex());
  fftwf_destroy_plan(plan);
  pthread_mutex_unlock(fftw_planner_mutex());
  if (mutex) pthread_mutex_unlock(mutex);
}

// One channel into the buffer, entry (x * H + y) * D + z; a null im reads as
// zeros. Planes take the tiled copies of fft_copies.h, volumes a plain walk.
static void _fft_load(fftwf_complex* const buffer, const T* const re, const T* const im, const unsigned int W,
                      const unsigned int H, const unsigned int D) {
  if (D == 1) return fft_copies::copy_in(re, im, buffer, W, H);
  for (unsigned int x = 0; x < W; ++x)
    for (unsigned int y = 0; y < H; ++y)
      for (unsigned int z = 0; z < D; ++z) {
        const cimg_uint64 b = ((cimg_uint64)x * H + y) * D + z, i = ((cimg_uint64)z * H + y) * W + x;
        buffer[b][0] = (float)re[i];
        buffer[b][1] = im ? (float)im[i] : 0.0f;
      }
}

// The buffer back into one channel, each float divided by n when divide is
// set; a null im drops the imaginary parts.
template <bool divide>
static void _fft_store(const fftwf_complex* const buffer, T* const re, T* const im, const unsigned int W,
                       const unsigned int H, const unsigned int D, const float n) {
  if (D == 1) return fft_copies::copy_out<divide>(buffer, re, im, W, H, n);
  for (unsigned int x = 0; x < W; ++x)
    for (unsigned int y = 0; y < H; ++y)
      for (unsigned int z = 0; z < D; ++z) {
        const cimg_uint64 b = ((cimg_uint64)x * H + y) * D + z, i = ((cimg_uint64)z * H + y) * W + x;
        re[i] = (T)(divide ? buffer[b][0] / n : buffer[b][0]);
        if (im) im[i] = (T)(divide ? buffer[b][1] / n : buffer[b][1]);
      }
}

// 32-bit unsigned product, converted once: the inverse divides by this float,
// a true division and not a multiplication by 1/n, since the last bit of every
// sample depends on it.
static float _fft_scale(const unsigned int W, const unsigned int H, const unsigned int D) { return (float)(W * H * D); }

static void _fft_require_data(const CImg<T>& real) {
  if (!real._data) throw CImgInstanceException("CImgList<%s>::FFT() : Input real image is empty.", "float");
}

static void FFT(CImg<T>& real, CImg<T>& imag, const bool invert, pthread_mutex_t* const mutex) {
  _fft_require_data(real);
  // An empty imaginary image stands for zeros: the copy-in writes them, so the
  // new plane needs no filling before the copy-out writes all of it.
  const bool zero_imag = !imag._data;
  if (zero_imag) imag.assign(real._width, real._height, real._depth, real._spectrum);
  if (real._width != imag._width || real._height != imag._height || real._depth != imag._depth ||
      real._spectrum != imag._spectrum)
    throw CImgInstanceException(
        "CImgList<%s>::FFT() : Real image (%u,%u,%u,%u,%p) and imaginary image (%u,%u,%u,%u,%p) "
        "have different dimensions",
        "float", real._width, real._height, real._depth, real._spectrum, (const void*)real._data, imag._width,
        imag._height, imag._depth, imag._spectrum, (const void*)imag._data);

  const unsigned int W = real._width, H = real._height, D = real._depth;
  fftwf_complex* buffer;
  const fftwf_plan plan = _fft_plan(W, H, D, invert, mutex, buffer);
  for (unsigned int c = 0; c < real._spectrum; ++c) {
    T* const re = real.data(0, 0, 0, c);
    T* const im = imag.data(0, 0, 0, c);
    _fft_load(buffer, re, zero_imag ? nullptr : im, W, H, D);
    fftwf_execute(plan);
    if (invert)
      _fft_store<true>(buffer, re, im, W, H, D, _fft_scale(W, H, D));
    else
      _fft_store<false>(buffer, re, im, W, H, D, 0);
  }
  _fft_destroy(plan, mutex);
}

// Forward transform of the real one-channel image `in`, then visit(re, im, k)
// for every frequency, with k its offset in an image of `in`'s size (where
// psf_fft and the spectra keep the same frequency). The visit is generic: it
// gets floats, or fft_copies::Lanes for the four frequencies k..k+3, and reads
// planes with fft_copies::at. It may change re and im; the spectrum stays in
// the calling thread's buffer.
template <class F>
static void FFT_visit(const CImg<T>& in, F visit, pthread_mutex_t* const mutex) {
  _fft_require_data(in);
  const unsigned int W = in._width, H = in._height, D = in._depth;
  fftwf_complex* buffer;
  const fftwf_plan plan = _fft_plan(W, H, D, false, mutex, buffer);
  _fft_load(buffer, in._data, nullptr, W, H, D);
  fftwf_execute(plan);
  _fft_destroy(plan, mutex);
  fft_copies::for_each_frequency(buffer, W, H, D, visit);
}

// FFT_visit, then the inverse transform, whose real part goes into `out`, an
// image of `in`'s size (it may be `in` itself); the imaginary part is dropped
// unread.
template <class F>
static void FFT_filter(const CImg<T>& in, CImg<T>& out, F filter, pthread_mutex_t* const mutex) {
  FFT_visit(in, filter, mutex);
  const unsigned int W = in._width, H = in._height, D = in._depth;
  fftwf_complex* buffer;  // the same buffer: it only grows for larger sizes
  const fftwf_plan plan = _fft_plan(W, H, D, true, mutex, buffer);
  fftwf_execute(plan);
  _fft_store<true>(buffer, out._data, nullptr, W, H, D, _fft_scale(W, H, D));
  _fft_destroy(plan, mutex);
}

// FFT_filter on a single plane, but the inverse stays in the calling thread's buffer:
// read(sample) runs with sample(x, y), the real part at (x, y) divided as the
// other forms divide it, so the same float they would write. For callers that
// need only some of the samples; sample is valid until the thread's next
// transform.
template <class F, class R>
static void FFT_filter_read(const CImg<T>& in, F filter, R read, pthread_mutex_t* const mutex) {
  if (in._depth != 1 || in._spectrum != 1)
    throw CImgInstanceException("CImg<%s>::FFT_filter_read() : Input is not a single plane.", "float");
  FFT_visit(in, filter, mutex);
  const unsigned int W = in._width, H = in._height;
  fftwf_complex* buffer;  // the same buffer: it only grows for larger sizes
  const fftwf_plan plan = _fft_plan(W, H, 1, true, mutex, buffer);
  fftwf_execute(plan);
  _fft_destroy(plan, mutex);
  const float n = _fft_scale(W, H, 1);
  read([buffer, H, n](const int x, const int y) -> float { return buffer[(cimg_uint64)x * H + y][0] / n; });
}
