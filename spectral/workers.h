// A small pool of threads for the second engine and the estimator: the
// calling thread and `count - 1` helpers share out the indices of one loop at
// a time. Which thread runs which index varies from run to run, so callers
// make every index's work independent of the others (a block of rows, a block
// of columns) and combine any sums in index order afterwards: the result is
// then the same bits for any number of threads.
#ifndef DECONV_SPECTRAL_WORKERS_H
#define DECONV_SPECTRAL_WORKERS_H

#include <condition_variable>
#include <exception>
#include <cstddef>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

namespace deconv {
namespace spectral {

// Flush-to-zero and denormals-are-zero on the calling thread for a scope,
// its own modes given back afterwards. Every loop of the pool runs so, on
// every thread: a sample comes out the same whichever thread computes it, and
// denormals would slow the far tails of spectra down many times.
class FlushDenormals {
 public:
  FlushDenormals();
  ~FlushDenormals();
  FlushDenormals(const FlushDenormals&) = delete;
  FlushDenormals& operator=(const FlushDenormals&) = delete;

 private:
  unsigned int saved_;
};

class Workers {
 public:
  explicit Workers(int count);
  ~Workers();
  Workers(const Workers&) = delete;
  Workers& operator=(const Workers&) = delete;

  int count() const { return (int)helpers_.size() + 1; }

  // Runs task(i) for every i in [0, n), on every thread of the pool, and
  // returns when all are done. Loops that several threads start on one pool
  // run one after the other. The first exception a task throws is thrown
  // here once the loop has stopped.
  void run(size_t n, const std::function<void(size_t)>& task);

  // The same over [0, n) in a few contiguous ranges a thread: task(begin,
  // end) for each. For loops whose indices are cheap.
  void run_ranges(size_t n, const std::function<void(size_t, size_t)>& task);

 private:
  void help();
  void work();

  std::vector<std::thread> helpers_;
  std::mutex one_loop_;  // held by the thread whose loop runs
  std::mutex mutex_;
  std::condition_variable wake_, done_;
  const std::function<void(size_t)>* task_ = nullptr;
  size_t n_ = 0, next_ = 0;
  unsigned long generation_ = 0;
  int busy_ = 0;
  bool stop_ = false;
  std::exception_ptr error_;
};

}  // namespace spectral
}  // namespace deconv

#endif
