#include "spectral/workers.h"

#include <xmmintrin.h>

#include <algorithm>

namespace deconv {
namespace spectral {

namespace {

constexpr unsigned int denormals_as_zero = 0x8040;  // MXCSR's FTZ and DAZ

}  // namespace

FlushDenormals::FlushDenormals() : saved_(_mm_getcsr()) { _mm_setcsr(saved_ | denormals_as_zero); }
FlushDenormals::~FlushDenormals() { _mm_setcsr(saved_); }

Workers::Workers(const int count) {
  for (int i = 1; i < count; ++i) helpers_.emplace_back([this] { help(); });
}

Workers::~Workers() {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    stop_ = true;
  }
  wake_.notify_all();
  for (std::thread& t : helpers_) t.join();
}

// Takes indices of the current loop until none is left.
void Workers::work() {
  std::unique_lock<std::mutex> lock(mutex_);
  while (next_ < n_) {
    const size_t i = next_++;
    lock.unlock();
    try {
      (*task_)(i);
      lock.lock();
    } catch (...) {
      lock.lock();
      if (!error_) error_ = std::current_exception();
      next_ = n_;  // nobody starts another index
    }
  }
}

void Workers::help() {
  _mm_setcsr(_mm_getcsr() | denormals_as_zero);
  unsigned long seen = 0;
  std::unique_lock<std::mutex> lock(mutex_);
  for (;;) {
    wake_.wait(lock, [&] { return stop_ || generation_ != seen; });
    if (stop_) return;
    seen = generation_;
    ++busy_;
    lock.unlock();
    work();
    lock.lock();
    if (--busy_ == 0) done_.notify_all();
  }
}

void Workers::run(const size_t n, const std::function<void(size_t)>& task) {
  if (n == 0) return;
  FlushDenormals modes;
  if (helpers_.empty() || n == 1) {
    for (size_t i = 0; i < n; ++i) task(i);
    return;
  }
  std::lock_guard<std::mutex> one(one_loop_);
  {
    std::lock_guard<std::mutex> lock(mutex_);
    task_ = &task;
    n_ = n;
    next_ = 0;
    error_ = nullptr;
    ++generation_;
  }
  wake_.notify_all();
  work();
  std::unique_lock<std::mutex> lock(mutex_);
  // No index is left to take; those taken are done once no helper is busy.
  done_.wait(lock, [&] { return busy_ == 0; });
  task_ = nullptr;
  n_ = 0;
  if (error_) std::rethrow_exception(error_);
}

void Workers::run_ranges(const size_t n, const std::function<void(size_t, size_t)>& task) {
  // A few ranges a thread, so that one slow thread does not hold the rest up.
  const size_t ranges = std::min(n, (size_t)count() * 4);
  run(ranges, [&](const size_t r) { task(n * r / ranges, n * (r + 1) / ranges); });
}

}  // namespace spectral
}  // namespace deconv
