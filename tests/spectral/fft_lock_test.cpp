// The FFT entry's use of its lock, seen by wrapping the two library calls it
// depends on: this test program's own fftwf_malloc and pthread_mutex_lock
// stand in front of the real ones and can fail or count.
#include <dlfcn.h>
#include <errno.h>

#include "spectral/fft.h"
#include "tests/support/test_support.h"

namespace {
bool fail_fft_malloc = false;
bool count_locks = false;
int lock_calls = 0;
}  // namespace

extern "C" void* fftwf_malloc(size_t n) {
  using malloc_fn = void* (*)(size_t);
  static const malloc_fn real = (malloc_fn)dlsym(RTLD_NEXT, "fftwf_malloc");
  return fail_fft_malloc ? nullptr : real(n);
}

extern "C" int pthread_mutex_lock(pthread_mutex_t* mutex) {
  using lock_fn = int (*)(pthread_mutex_t*);
  static const lock_fn real = (lock_fn)dlsym(RTLD_NEXT, "pthread_mutex_lock");
  if (count_locks) ++lock_calls;
  return real(mutex);
}

namespace {

TEST(FftLock, TakenTwiceWithAMutexAndNeverWithoutOne) {
  pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
  CImg<float> re(16, 8, 1, 2, 1.0f), im;
  count_locks = true;
  CImg<float>::FFT(re, im, false, &mutex);
  const int with_mutex = lock_calls;
  lock_calls = 0;
  CImg<float>::FFT(re, im, true, nullptr);
  const int without = lock_calls;
  count_locks = false;
  EXPECT_EQ(with_mutex, 2);  // planning, then destruction: never across the transform
  EXPECT_EQ(without, 0);
}

TEST(FftLock, FailedBufferThrowsAndKeepsTheLock) {
  pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
  CImg<float> re(4, 4, 1, 1, 1.0f), im;
  fail_fft_malloc = true;
  try {
    CImg<float>::FFT(re, im, false, &mutex);
    ADD_FAILURE() << "no exception";
  } catch (cimg_library::CImgInstanceException& e) {
    EXPECT_STREQ(e.what(), "Encountered null pointer: <mkl>fftwf_malloc failed");
  }
  fail_fft_malloc = false;
  EXPECT_EQ(pthread_mutex_trylock(&mutex), EBUSY);  // deliberately left locked
  EXPECT_EQ(im, CImg<float>(4, 4, 1, 1, 0.0f));     // already allocated as zeros
  EXPECT_EQ(re, CImg<float>(4, 4, 1, 1, 1.0f));
}

}  // namespace
