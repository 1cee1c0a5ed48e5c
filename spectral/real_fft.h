// Real-to-complex transforms of arrays of any number of axes, for the second
// engine and the estimator. A transform is made once per shape and kept for
// the life of the process; every call and every iteration reuses it.
//
// The work is cut into fixed blocks, whatever the number of threads: blocks of
// 16 rows for the real transforms along the last axis, then blocks of 16
// neighbouring lines for the complex transforms along each other axis. Each
// block always runs the same FFTW plan, so a transform gives the same bits on
// one thread or on many, and the threads share the blocks out as they come.
// Lines are transformed in a scratch of their own, contiguous, which keeps
// power-of-two sizes as fast per sample as their neighbours.
#ifndef DECONV_SPECTRAL_REAL_FFT_H
#define DECONV_SPECTRAL_REAL_FFT_H

#include <fftw3.h>

#include <complex>
#include <functional>
#include <cstddef>
#include <vector>

#include "spectral/memory.h"
#include "spectral/workers.h"

namespace deconv {
namespace spectral {

using Complex = std::complex<float>;

using RealArray = std::vector<float, FftwAllocator<float>>;
using Spectrum = std::vector<Complex, FftwAllocator<Complex>>;

class RealFft {
 public:
  // The transforms of arrays of `sizes`, outermost axis first, the last one
  // contiguous: {height, width} for a picture, {depth, height, width} for a
  // stack. Made on first use under the process-wide planner lock.
  static const RealFft& of(const std::vector<int>& sizes);

  const std::vector<int>& sizes() const { return sizes_; }
  int width() const { return sizes_.back(); }
  int half() const { return sizes_.back() / 2 + 1; }  // spectrum row length
  size_t rows() const { return rows_; }               // of the real array
  size_t samples() const { return rows_ * width(); }
  size_t frequencies() const { return rows_ * half(); }

  // Forward, unscaled: `in` holds samples() floats anywhere in memory; `out`
  // frequencies() values, from FftwAllocator (aligned), each row of the last axis
  // after the other.
  void forward(const float* in, Complex* out, Workers& workers) const;
  // Backward, unscaled (a round trip multiplies by samples()); `in` is
  // destroyed.
  void backward(Complex* in, float* out, Workers& workers) const;

  // A run of `count` contiguous spectrum values whose frequencies (indices
  // into the spectrum) are first, first + step, ...
  using Strip = std::function<void(Complex* values, size_t count, size_t first, size_t step)>;
  // forward, then `change` over every frequency, then backward, bit for bit,
  // with two passes over the spectrum fewer: the first axis's lines are
  // changed between their forward and backward transforms in the scratch.
  // `spectrum` (frequencies() values, from FftwAllocator) is scratch.
  void filter(const float* in, float* out, Complex* spectrum, const Strip& change, Workers& workers) const;

  // forward, its result in filter order (filter_index) in `ordered`;
  // `spectrum` is scratch.
  void forward_in_filter_order(const float* in, Complex* ordered, Complex* spectrum, Workers& workers) const;

  // Where frequency k comes in filter()'s order, in which every strip is
  // contiguous: the first axis fastest. Data that a filter reads by
  // frequency, kept in this order, is read in sequence.
  size_t filter_index(size_t k) const {
    if (sizes_.size() == 1) return k;
    const size_t stride = frequencies() / sizes_[0];
    return (k % stride) * sizes_[0] + k / stride;
  }

  RealFft(const RealFft&) = delete;
  RealFft& operator=(const RealFft&) = delete;
  ~RealFft();

 private:
  // One block of one pass: where it starts (in floats of the real array for
  // the row passes, in values of the spectrum otherwise) and its plan.
  struct Block {
    size_t start;
    size_t count;  // rows or lines
    fftwf_plan plan;
  };
  struct Pass {
    std::vector<Block> blocks;
    size_t length = 0, stride = 0;  // of the lines, for the complex passes
  };

  explicit RealFft(const std::vector<int>& sizes);
  void plan_rows();
  void plan_lines(int axis);
  static void run_lines(const Pass& pass, const Block& block, Complex* spectrum);
  void forward_passes(const float* in, Complex* out, size_t down_to, Workers& workers) const;
  void backward_passes(Complex* in, float* out, size_t from, Workers& workers) const;
  template <class F>
  void each_block(const Pass& pass, Workers& workers, F f) const;

  std::vector<int> sizes_;
  size_t rows_;
  Pass rows_forward_, rows_backward_;
  std::vector<Pass> lines_forward_, lines_backward_;  // one per axis but the last
  std::vector<fftwf_plan> plans_;                      // every plan, once
};

// A size at least `n` whose factors are 2, 3, 5 and 7 only: FFTW's fast sizes.
int good_size(int n);

}  // namespace spectral
}  // namespace deconv

#endif
