#include "spectral/real_fft.h"

#include <algorithm>
#include <cstring>
#include <map>
#include <memory>

#include "spectral/fftw_planner.h"

namespace deconv {
namespace spectral {

namespace {

constexpr size_t block_rows = 16;   // rows of a real pass's block
constexpr size_t block_lines = 16;  // lines of a complex pass's block (128 bytes across)
constexpr size_t line_padding = 4;  // values between a scratch line's end and the next line

fftwf_complex* as_fftw(Complex* p) { return reinterpret_cast<fftwf_complex*>(p); }

// The calling thread's scratch of `count` values, aligned as FFTW planned
// them: user memory may have any alignment, and a plan only runs on arrays
// aligned as the ones it was made with. Kept from call to call.
template <class T>
T* scratch(const size_t count) {
  struct Buffer {
    T* data = nullptr;
    size_t count = 0;
    ~Buffer() { fftwf_free(data); }
  };
  static thread_local Buffer buffer;
  if (buffer.count < count) {
    fftwf_free(buffer.data);
    buffer.data = nullptr;
    buffer.count = 0;
    buffer.data = static_cast<T*>(fftwf_malloc(count * sizeof(T)));
    if (!buffer.data) throw std::bad_alloc();
    buffer.count = count;
  }
  return buffer.data;
}

float* row_scratch(const size_t count) { return scratch<float>(count); }
Complex* line_scratch(const size_t count) { return scratch<Complex>(count); }

size_t product(const std::vector<int>& sizes, const size_t begin, const size_t end) {
  size_t p = 1;
  for (size_t a = begin; a < end; ++a) p *= (size_t)sizes[a];
  return p;
}

}  // namespace

const RealFft& RealFft::of(const std::vector<int>& sizes) {
  if (sizes.empty() || *std::min_element(sizes.begin(), sizes.end()) < 1)
    throw std::invalid_argument("a transform needs one or more axes of positive size");
  static std::map<std::vector<int>, std::unique_ptr<RealFft>> made;
  FftwPlannerLock lock;
  std::unique_ptr<RealFft>& fft = made[sizes];
  if (!fft) fft.reset(new RealFft(sizes));
  return *fft;
}

// Called under the planner lock.
RealFft::RealFft(const std::vector<int>& sizes)
    : sizes_(sizes), rows_(product(sizes, 0, sizes.size() - 1)) {
  try {
    plan_rows();
    for (int axis = 0; axis + 1 < (int)sizes_.size(); ++axis) plan_lines(axis);
  } catch (...) {
    for (fftwf_plan p : plans_) fftwf_destroy_plan(p);
    throw;
  }
}

RealFft::~RealFft() {
  FftwPlannerLock lock;
  for (fftwf_plan p : plans_) fftwf_destroy_plan(p);
}

// ESTIMATE plans: they look at the sizes and strides only, so the same shape
// gets the same plans, and the same bits, in every process. Planning by
// measurement could pick another plan on another run.
void RealFft::plan_rows() {
  const int n = width(), h = half();
  std::unique_ptr<float, decltype(&fftwf_free)> real(
      static_cast<float*>(fftwf_malloc(sizeof(float) * block_rows * n)), fftwf_free);
  Spectrum spectrum((size_t)block_rows * h);
  if (!real) throw std::bad_alloc();
  std::map<size_t, std::pair<fftwf_plan, fftwf_plan>> by_count;
  for (size_t r = 0; r < rows_; r += block_rows) {
    const size_t count = std::min(block_rows, rows_ - r);
    auto& p = by_count[count];
    if (!p.first) {
      p.first = fftwf_plan_many_dft_r2c(1, &n, (int)count, real.get(), nullptr, 1, n, as_fftw(spectrum.data()),
                                        nullptr, 1, h, FFTW_ESTIMATE);
      p.second = fftwf_plan_many_dft_c2r(1, &n, (int)count, as_fftw(spectrum.data()), nullptr, 1, h, real.get(),
                                         nullptr, 1, n, FFTW_ESTIMATE | FFTW_DESTROY_INPUT);
      if (!p.first || !p.second) throw std::bad_alloc();
      plans_.push_back(p.first);
      plans_.push_back(p.second);
    }
    rows_forward_.blocks.push_back({r, count, p.first});
    rows_backward_.blocks.push_back({r, count, p.second});
  }
}

// Along `axis`, the lines of each slab (every index of the axes before it),
// in blocks of neighbouring lines. A block is gathered into a scratch of
// contiguous lines, transformed there and put back: FFTW's plans for strided
// lines run two to five times slower on power-of-two sizes, where the lines'
// samples fall into the same cache sets. The scratch lines stand a little
// more than a line apart for the same reason.
void RealFft::plan_lines(const int axis) {
  const int n = sizes_[axis], distance = n + line_padding;
  const size_t stride = product(sizes_, axis + 1, sizes_.size() - 1) * half();
  const size_t slabs = product(sizes_, 0, axis);
  Spectrum lines((size_t)block_lines * distance);
  std::map<size_t, std::pair<fftwf_plan, fftwf_plan>> by_count;
  Pass forward, backward;
  forward.length = backward.length = n;
  forward.stride = backward.stride = stride;
  for (size_t s = 0; s < slabs; ++s)
    for (size_t j = 0; j < stride; j += block_lines) {
      const size_t start = s * n * stride + j, count = std::min(block_lines, stride - j);
      auto& p = by_count[count];
      if (!p.first) {
        fftwf_complex* const at = as_fftw(lines.data());
        p.first = fftwf_plan_many_dft(1, &n, (int)count, at, nullptr, 1, distance, at, nullptr, 1, distance,
                                      FFTW_FORWARD, FFTW_ESTIMATE);
        p.second = fftwf_plan_many_dft(1, &n, (int)count, at, nullptr, 1, distance, at, nullptr, 1, distance,
                                       FFTW_BACKWARD, FFTW_ESTIMATE);
        if (!p.first || !p.second) throw std::bad_alloc();
        plans_.push_back(p.first);
        plans_.push_back(p.second);
      }
      forward.blocks.push_back({start, count, p.first});
      backward.blocks.push_back({start, count, p.second});
    }
  lines_forward_.push_back(std::move(forward));
  lines_backward_.push_back(std::move(backward));
}

// One block of lines through the scratch.
void RealFft::run_lines(const Pass& pass, const Block& block, Complex* const spectrum) {
  const size_t n = pass.length, distance = n + line_padding, stride = pass.stride;
  Complex* const lines = line_scratch(block_lines * distance);
  Complex* const at = spectrum + block.start;
  for (size_t i = 0; i < n; ++i)
    for (size_t l = 0; l < block.count; ++l) lines[l * distance + i] = at[i * stride + l];
  fftwf_execute_dft(block.plan, as_fftw(lines), as_fftw(lines));
  for (size_t i = 0; i < n; ++i)
    for (size_t l = 0; l < block.count; ++l) at[i * stride + l] = lines[l * distance + i];
}

// Runs the blocks on the pool, or on the calling thread for an array so small
// that waking the pool would cost more than it saves.
template <class F>
void RealFft::each_block(const Pass& pass, Workers& workers, F f) const {
  if (samples() < 32768) {
    FlushDenormals modes;
    for (const Block& block : pass.blocks) f(block);
  } else
    workers.run(pass.blocks.size(), [&](const size_t b) { f(pass.blocks[b]); });
}

// The rows' real transforms, then the lines' of every axis from the last but
// one down to `down_to`.
void RealFft::forward_passes(const float* const in, Complex* const out, const size_t down_to,
                             Workers& workers) const {
  const size_t n = width(), h = half();
  each_block(rows_forward_, workers, [&](const Block& block) {
    float* const rows = row_scratch(block_rows * n);
    std::memcpy(rows, in + block.start * n, block.count * n * sizeof(float));
    fftwf_execute_dft_r2c(block.plan, rows, as_fftw(out + block.start * h));
  });
  for (size_t a = lines_forward_.size(); a-- > down_to;) {
    const Pass& pass = lines_forward_[a];
    each_block(pass, workers, [&](const Block& block) { run_lines(pass, block, out); });
  }
}

// The lines' inverse transforms of every axis from `from` on, then the rows'.
void RealFft::backward_passes(Complex* const in, float* const out, const size_t from, Workers& workers) const {
  const size_t n = width(), h = half();
  for (size_t a = from; a < lines_backward_.size(); ++a) {
    const Pass& pass = lines_backward_[a];
    each_block(pass, workers, [&](const Block& block) { run_lines(pass, block, in); });
  }
  each_block(rows_backward_, workers, [&](const Block& block) {
    float* const rows = row_scratch(block_rows * n);
    fftwf_execute_dft_c2r(block.plan, as_fftw(in + block.start * h), rows);
    std::memcpy(out + block.start * n, rows, block.count * n * sizeof(float));
  });
}

void RealFft::forward(const float* const in, Complex* const out, Workers& workers) const {
  forward_passes(in, out, 0, workers);
}

void RealFft::backward(Complex* const in, float* const out, Workers& workers) const {
  backward_passes(in, out, 0, workers);
}

void RealFft::filter(const float* const in, float* const out, Complex* const spectrum, const Strip& change,
                     Workers& workers) const {
  if (lines_forward_.empty()) {  // one axis: the rows' spectra are all there is
    forward_passes(in, spectrum, 0, workers);
    change(spectrum, frequencies(), 0, 1);
    backward_passes(spectrum, out, 0, workers);
    return;
  }
  forward_passes(in, spectrum, 1, workers);
  const Pass &there = lines_forward_[0], &back = lines_backward_[0];
  const size_t n = there.length, distance = n + line_padding;
  each_block(there, workers, [&](const Block& block) {
    Complex* const lines = line_scratch(block_lines * distance);
    Complex* const at = spectrum + block.start;
    for (size_t i = 0; i < n; ++i)
      for (size_t l = 0; l < block.count; ++l) lines[l * distance + i] = at[i * there.stride + l];
    fftwf_execute_dft(block.plan, as_fftw(lines), as_fftw(lines));
    for (size_t l = 0; l < block.count; ++l) change(lines + l * distance, n, block.start + l, there.stride);
    // The inverse's block at the same place has the same lines.
    fftwf_execute_dft(back.blocks[&block - there.blocks.data()].plan, as_fftw(lines), as_fftw(lines));
    for (size_t i = 0; i < n; ++i)
      for (size_t l = 0; l < block.count; ++l) at[i * there.stride + l] = lines[l * distance + i];
  });
  backward_passes(spectrum, out, 1, workers);
}

void RealFft::forward_in_filter_order(const float* const in, Complex* const ordered, Complex* const spectrum,
                                      Workers& workers) const {
  if (lines_forward_.empty()) return forward(in, ordered, workers);
  forward_passes(in, spectrum, 1, workers);
  const Pass& there = lines_forward_[0];
  const size_t n = there.length, distance = n + line_padding;
  each_block(there, workers, [&](const Block& block) {
    Complex* const lines = line_scratch(block_lines * distance);
    for (size_t i = 0; i < n; ++i)
      for (size_t l = 0; l < block.count; ++l) lines[l * distance + i] = spectrum[block.start + i * there.stride + l];
    fftwf_execute_dft(block.plan, as_fftw(lines), as_fftw(lines));
    for (size_t l = 0; l < block.count; ++l)
      std::memcpy(ordered + (block.start + l) * n, lines + l * distance, n * sizeof(Complex));
  });
}

int good_size(const int n) {
  for (int m = std::max(1, n);; ++m) {
    int r = m;
    for (const int p : {2, 3, 5, 7})
      while (r % p == 0) r /= p;
    if (r == 1) return m;
  }
}

}  // namespace spectral
}  // namespace deconv
