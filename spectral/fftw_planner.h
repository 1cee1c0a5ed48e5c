// FFTW's planner keeps global state, so plans may be made and destroyed by one
// thread of the process at a time, whichever engine or estimator they serve.
// Executing a plan needs no lock.
#ifndef DECONV_SPECTRAL_FFTW_PLANNER_H
#define DECONV_SPECTRAL_FFTW_PLANNER_H

#include <pthread.h>

inline pthread_mutex_t* fftw_planner_mutex() {
  static pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
  return &mutex;
}

// Holds the planner for a scope.
struct FftwPlannerLock {
  FftwPlannerLock() { pthread_mutex_lock(fftw_planner_mutex()); }
  ~FftwPlannerLock() { pthread_mutex_unlock(fftw_planner_mutex()); }
  FftwPlannerLock(const FftwPlannerLock&) = delete;
  FftwPlannerLock& operator=(const FftwPlannerLock&) = delete;
};

#endif
