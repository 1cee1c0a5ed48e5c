#include "estimate/transforms.h"

#include "spectral/fftw_planner.h"

namespace deconv {
namespace estimation {

Transforms::Transforms(int width, int height, int threads) : width_(width), height_(height) {
  RealPlane r = real();
  Spectrum s = spectrum();
  FftwPlannerLock lock;
  // Threads are set for these plans only and put back at once, so that plans
  // others make under the lock (the engine's) stay single-threaded as before.
  static bool threads_ready = fftwf_init_threads() != 0;
  const int before = threads_ready ? fftwf_planner_nthreads() : 1;
  if (threads_ready) fftwf_plan_with_nthreads(pixels() >= 200000 ? std::max(1, threads) : 1);
  forward_ = fftwf_plan_dft_r2c_2d(height, width, r.data(), reinterpret_cast<fftwf_complex*>(s.data()),
                                   FFTW_ESTIMATE);
  backward_ = fftwf_plan_dft_c2r_2d(height, width, reinterpret_cast<fftwf_complex*>(s.data()), r.data(),
                                    FFTW_ESTIMATE);
  if (threads_ready) fftwf_plan_with_nthreads(before);
  if (!forward_ || !backward_) throw std::bad_alloc();
}

Transforms::~Transforms() {
  FftwPlannerLock lock;
  fftwf_destroy_plan(forward_);
  fftwf_destroy_plan(backward_);
}

void Transforms::forward(const RealPlane& in, Spectrum& out) const {
  fftwf_execute_dft_r2c(forward_, const_cast<float*>(in.data()), reinterpret_cast<fftwf_complex*>(out.data()));
}

void Transforms::backward(Spectrum& in, RealPlane& out) const {
  fftwf_execute_dft_c2r(backward_, reinterpret_cast<fftwf_complex*>(in.data()), out.data());
}

int good_size(int n) {
  for (int m = std::max(1, n);; ++m) {
    int r = m;
    for (const int p : {2, 3, 5, 7})
      while (r % p == 0) r /= p;
    if (r == 1) return m;
  }
}

}  // namespace estimation
}  // namespace deconv
