#include "fast/sparse.h"

#include <algorithm>
#include <cmath>
#include <map>
#include <memory>
#include <mutex>
#include <stdexcept>

#include "fast/gradient_shrink.h"

namespace deconv {
namespace fast {

namespace {

using spectral::Complex;
using spectral::RealArray;
using spectral::RealFft;
using spectral::Spectrum;
using spectral::Workers;

// The wider grid, and where the data stand in it: from sample 0 along every
// axis, the object's samples before the data's first wrapping round to the
// far end.
struct Grid {
  std::vector<int> sizes, data_sizes;
  std::vector<size_t> strides;
  // Per axis, for every coordinate of the wider grid, the data's nearest,
  // and whether it is the data's own.
  std::vector<std::vector<int>> nearest;
  std::vector<std::vector<char>> inside;
  size_t axes() const { return sizes.size(); }
};

Grid widen(const std::vector<int>& sizes, const std::vector<int>& psf_sizes) {
  Grid g;
  g.data_sizes = sizes;
  for (size_t a = 0; a < sizes.size(); ++a) {
    const int n = sizes[a], wide = spectral::good_size(n + psf_sizes[a] - 1);
    g.sizes.push_back(wide);
    std::vector<int> nearest(wide);
    std::vector<char> inside(wide);
    for (int c = 0; c < wide; ++c) {
      inside[c] = c < n;
      nearest[c] = c < n ? c : c - n < (wide - n + 1) / 2 ? n - 1 : 0;
    }
    g.nearest.push_back(nearest);
    g.inside.push_back(inside);
  }
  g.strides.assign(sizes.size(), 1);
  for (size_t a = sizes.size() - 1; a-- > 0;) g.strides[a] = g.strides[a + 1] * g.sizes[a + 1];
  return g;
}

// The coordinates of row r (all axes but the last) of a grid of `sizes`.
void row_at(size_t r, const std::vector<int>& sizes, std::vector<int>& at) {
  for (size_t a = sizes.size() - 1; a-- > 0; r /= sizes[a]) at[a] = (int)(r % sizes[a]);
}

size_t rows_of(const std::vector<int>& sizes) {
  size_t rows = 1;
  for (size_t a = 0; a + 1 < sizes.size(); ++a) rows *= sizes[a];
  return rows;
}

// The data on the wider grid, each sample outside them the nearest one's (a
// start that keeps the first steps from ringing at the borders), and the
// data term's weight of each sample: 0 outside them. Where a sample weighs
// nothing, `fill` stands for it: nothing it holds reaches the result.
void embed(const Grid& g, const float* data, const float* weights, const float fill, float* y, float* mask,
           Workers& workers) {
  const size_t width = g.sizes.back(), last = g.axes() - 1;
  workers.run_ranges(rows_of(g.sizes), [&](const size_t begin, const size_t end) {
    std::vector<int> at(g.axes());
    for (size_t r = begin; r < end; ++r) {
      row_at(r, g.sizes, at);
      size_t from = 0;
      bool inside = true;
      for (size_t a = 0; a < last; ++a) {
        from = from * g.data_sizes[a] + g.nearest[a][at[a]];
        inside &= (bool)g.inside[a][at[a]];
      }
      from *= g.data_sizes[last];
      for (size_t c = 0; c < width; ++c) {
        const size_t i = r * width + c, j = from + g.nearest[last][c];
        const float w = weights ? weights[j] : 1.0f;
        y[i] = w > 0 ? data[j] : fill;
        mask[i] = inside && g.inside[last][c] ? w : 0.0f;
      }
    }
  });
}

// The data's part of the wider grid's x, into `object`.
void crop(const Grid& g, const float* x, float* object) {
  const size_t width = g.data_sizes.back();
  std::vector<int> at(g.axes());
  for (size_t r = 0; r < rows_of(g.data_sizes); ++r) {
    row_at(r, g.data_sizes, at);
    size_t from = 0;
    for (size_t a = 0; a + 1 < g.axes(); ++a) from += at[a] * g.strides[a];
    std::copy(x + from, x + from + width, object + r * width);
  }
}

// The spectra every x-step reads, in the transform's own order: the PSF's
// (its middle sample at the origin), its power, and the summed power of
// the first differences along every axis.
struct Spectra {
  Spectrum psf;
  std::vector<float> psf_power, difference_power;
};

Spectra spectra_of(const RealFft& fft, const Grid& g, const float* psf, const std::vector<int>& psf_sizes,
                   Workers& workers) {
  RealArray placed(fft.samples(), 0.0f);
  size_t taps = 1;
  for (const int n : psf_sizes) taps *= n;
  for (size_t t = 0; t < taps; ++t) {
    size_t rest = t, at = 0;
    for (size_t a = psf_sizes.size(); a-- > 0; rest /= psf_sizes[a]) {
      const long i = (long)(rest % psf_sizes[a]) - psf_sizes[a] / 2;
      at += (size_t)((i + g.sizes[a]) % g.sizes[a]) * g.strides[a];
    }
    placed[at] += psf[t];
  }
  Spectra s;
  s.psf.resize(fft.frequencies());
  fft.forward(placed.data(), s.psf.data(), workers);
  std::vector<std::vector<float>> axis_power(g.axes());
  for (size_t a = 0; a < g.axes(); ++a)
    for (int k = 0; k < g.sizes[a]; ++k) axis_power[a].push_back((float)(2 - 2 * std::cos(2 * M_PI * k / g.sizes[a])));
  const size_t half = fft.half();
  s.psf_power.resize(fft.frequencies());
  s.difference_power.resize(fft.frequencies());
  std::vector<int> at(g.axes());
  for (size_t row = 0; row < fft.frequencies() / half; ++row) {
    row_at(row, g.sizes, at);
    float outer = 0;
    for (size_t a = 0; a + 1 < g.axes(); ++a) outer += axis_power[a][at[a]];
    for (size_t u = 0; u < half; ++u) {
      s.psf_power[row * half + u] = std::norm(s.psf[row * half + u]);
      s.difference_power[row * half + u] = outer + axis_power.back()[u];
    }
  }
  return s;
}

// One table per exponent, for the life of the process.
const GradientShrink& shrink_for(const float alpha) {
  static std::mutex lock;
  static std::map<float, std::unique_ptr<GradientShrink>> tables;
  const std::lock_guard<std::mutex> hold(lock);
  std::unique_ptr<GradientShrink>& table = tables[alpha];
  if (!table) table = std::make_unique<GradientShrink>(alpha);
  return *table;
}

// The state of one restoration on the wider grid, and its three steps.
class Splitting {
 public:
  Splitting(const Grid& g, const RealFft& fft, const Spectra& spectra, const GradientShrink* shrink,
            const float lambda, const SparseOptions& options, Workers& workers)
      : g_(g), fft_(fft), spectra_(spectra), shrink_(shrink), lambda_(lambda), options_(options), workers_(workers),
        n_(fft.samples()), x(n_), target(n_), y(n_), mask(n_), u_(n_, 0.0f), b_(n_), A_(fft.frequencies()),
        B_(fft.frequencies()), z_(g.axes(), RealArray(n_)), q_(g.axes(), RealArray(n_, 0.0f)) {}

  // x minimising mu |k * x - target|^2 + beta sum |d x - (z - q)|^2, and
  // k * x into `target`.
  void x_step(const float beta) {
    const float mu = options_.data_penalty * beta;
    divergence();
    fft_.forward(target.data(), A_.data(), workers_);
    fft_.forward(b_.data(), B_.data(), workers_);
    const float scale = (float)(1.0 / (double)n_);
    workers_.run_ranges(A_.size(), [&](const size_t begin, const size_t end) {
      for (size_t k = begin; k < end; ++k) {
        const Complex h = spectra_.psf[k];
        const Complex X = (mu * std::conj(h) * A_[k] + beta * B_[k]) /
                          ((mu * spectra_.psf_power[k] + beta * spectra_.difference_power[k]) / scale);
        A_[k] = h * X;
        B_[k] = X;
      }
    });
    fft_.backward(B_.data(), x.data(), workers_);
    fft_.backward(A_.data(), target.data(), workers_);
  }

  // v between the data and k * x (plus the multiplier), per sample; the
  // next x-step's target v - u into `target`.
  void v_step(const float beta) {
    const float mu = options_.data_penalty * beta, clip = options_.clip_level;
    const bool multipliers = options_.multipliers;
    workers_.run_ranges(n_, [&](const size_t begin, const size_t end) {
      for (size_t i = begin; i < end; ++i) {
        const float t = target[i] + u_[i];
        // A clipped sample only bounds k * x from below.
        const bool bound = clip > 0 && mask[i] > 0 && y[i] >= clip;
        const float v = bound && t >= y[i] ? t : (mask[i] * y[i] + mu * t) / (mask[i] + mu);
        u_[i] = multipliers ? t - v : 0.0f;
        target[i] = v - u_[i];
      }
    });
  }

  // z nearest to d x (plus the multiplier) under the prior, per sample and
  // axis, for the penalty beta.
  void z_step(const float beta) {
    // Tikhonov's prior (alpha 2) shrinks every difference by one factor.
    const bool quadratic = !shrink_;
    const float c = lambda_ / beta, factor = 1 / (1 + 2 * c);
    const float scale = quadratic ? 1 : shrink_->scale_for(c), inverse = 1 / scale;
    const bool multipliers = options_.multipliers;
    for (size_t a = 0; a < g_.axes(); ++a)
      each_neighbour(a, true, [&](const size_t i, const size_t next) {
        const float t = x[next] - x[i] + q_[a][i];
        const float z = quadratic ? t * factor : scale * (*shrink_)(t * inverse);
        z_[a][i] = z;
        q_[a][i] = multipliers ? t - z : 0.0f;
      });
  }

  // The scaled multipliers follow a new penalty: the unscaled ones stay.
  void scale_multipliers(const float by) {
    for (RealArray* m : {&u_, &q_[0]})
      for (size_t a = 0; a < (m == &u_ ? 1 : q_.size()); ++a)
        workers_.run_ranges(n_, [&](const size_t begin, const size_t end) {
          for (size_t i = begin; i < end; ++i) m[a][i] *= by;
        });
  }

 private:
  // f(i, j) for every sample i and its periodic neighbour j one step along
  // axis a, forward or back.
  template <class F>
  void each_neighbour(const size_t a, const bool forward, F f) {
    const size_t width = g_.sizes.back(), last = g_.axes() - 1;
    workers_.run_ranges(rows_of(g_.sizes), [&](const size_t begin, const size_t end) {
      std::vector<int> at(g_.axes());
      for (size_t r = begin; r < end; ++r) {
        const size_t start = r * width;
        if (a == last) {
          for (size_t c = 0; c < width; ++c)
            f(start + c, forward ? (c + 1 < width ? start + c + 1 : start) : (c ? start + c - 1 : start + width - 1));
          continue;
        }
        row_at(r, g_.sizes, at);
        const size_t span = (size_t)(g_.sizes[a] - 1) * g_.strides[a];
        const size_t other = forward ? (at[a] + 1 < g_.sizes[a] ? start + g_.strides[a] : start - span)
                                     : (at[a] > 0 ? start - g_.strides[a] : start + span);
        for (size_t c = 0; c < width; ++c) f(start + c, other + c);
      }
    });
  }

  // b = the differences' adjoint applied to z - q: sum over axes of
  // p(i - 1) - p(i).
  void divergence() {
    std::fill(b_.begin(), b_.end(), 0.0f);
    for (size_t a = 0; a < g_.axes(); ++a)
      each_neighbour(a, false, [&](const size_t i, const size_t back) {
        b_[i] += (z_[a][back] - q_[a][back]) - (z_[a][i] - q_[a][i]);
      });
  }

  const Grid& g_;
  const RealFft& fft_;
  const Spectra& spectra_;
  const GradientShrink* shrink_;  // none for alpha 2
  const float lambda_;
  const SparseOptions& options_;
  Workers& workers_;
  const size_t n_;

 public:
  RealArray x, target, y, mask;

 private:
  RealArray u_, b_;
  Spectrum A_, B_;
  std::vector<RealArray> z_, q_;
};

// The data's mean, each sample by its weight, in double over fixed blocks
// added in order.
float weighted_mean(const float* data, const std::vector<int>& sizes, const float* weights, Workers& workers) {
  size_t n = 1;
  for (const int s : sizes) n *= s;
  constexpr size_t blocks = 64;
  std::vector<double> sum(blocks), weight(blocks);
  workers.run(blocks, [&](const size_t b) {
    for (size_t i = n * b / blocks; i < n * (b + 1) / blocks; ++i) {
      const double w = weights ? weights[i] : 1.0;
      sum[b] += w * data[i], weight[b] += w;
    }
  });
  double total = 0, weights_total = 0;
  for (size_t b = 0; b < blocks; ++b) total += sum[b], weights_total += weight[b];
  return weights_total > 0 ? (float)(total / weights_total) : 0.0f;
}

// The data's level about each sample: the mean of its 3 x 3 neighbourhood
// in its plane of the last two axes (a sample's own noise would weigh it),
// over the samples that weigh something: what the others hold has no say.
std::vector<float> local_level(const float* const data, const std::vector<int>& sizes, const float* const given) {
  const int width = sizes.back(), height = sizes[sizes.size() - 2];
  const size_t plane = (size_t)width * height, planes = rows_of(sizes) / height;
  std::vector<float> level(plane * planes);
  for (size_t p = 0; p < planes; ++p)
    for (int r = 0; r < height; ++r)
      for (int c = 0; c < width; ++c) {
        double sum = 0;
        int count = 0;
        for (int rr = std::max(0, r - 1); rr <= std::min(height - 1, r + 1); ++rr)
          for (int cc = std::max(0, c - 1); cc <= std::min(width - 1, c + 1); ++cc) {
            const size_t i = p * plane + (size_t)rr * width + cc;
            if (!given || given[i] > 0) sum += data[i], ++count;
          }
        level[p * plane + (size_t)r * width + c] = count ? (float)(sum / count) : 0.0f;
      }
  return level;
}

}  // namespace

namespace {

// f(mean, detail) for every 2 x 2 block in every plane of the last two axes
// whose samples all weigh something: Donoho's finest diagonal wavelet
// coefficient, which a blur leaves to the noise, and the block's level.
template <class F>
void each_block(const float* const data, const std::vector<int>& sizes, const float* const weights, F f) {
  const size_t width = sizes.back(), height = sizes[sizes.size() - 2], planes = rows_of(sizes) / height;
  const auto out = [&](const size_t i) { return weights && !(weights[i] > 0); };
  for (size_t p = 0; p < planes; ++p)
    for (size_t r = 0; r + 1 < height; r += 2) {
      const float* const a = data + (p * height + r) * width;
      const float* const b = a + width;
      const size_t i = (p * height + r) * width;
      for (size_t c = 0; c + 1 < width; c += 2)
        if (!out(i + c) && !out(i + c + 1) && !out(i + width + c) && !out(i + width + c + 1))
          f((a[c] + a[c + 1] + b[c] + b[c + 1]) / 4, std::fabs(a[c] - a[c + 1] - b[c] + b[c + 1]) / 2);
    }
}

float median_deviation(std::vector<float>& d) {
  std::nth_element(d.begin(), d.begin() + d.size() / 2, d.end());
  return d[d.size() / 2] / 0.6745f;
}

}  // namespace

float noise_deviation(const float* const data, const std::vector<int>& sizes, const float* const weights) {
  std::vector<float> d;
  if (sizes.size() == 1) {
    const auto out = [&](const size_t i) { return weights && !(weights[i] > 0); };
    for (size_t i = 0; i + 2 < (size_t)sizes[0]; i += 3)
      if (!out(i) && !out(i + 1) && !out(i + 2))
        d.push_back(std::fabs(data[i] - 2 * data[i + 1] + data[i + 2]) / std::sqrt(6.0f));
  } else {
    each_block(data, sizes, weights, [&](float, const float detail) { d.push_back(detail); });
  }
  return d.empty() ? 0 : median_deviation(d);
}

NoiseLine noise_line(const float* const data, const std::vector<int>& sizes, const float* const weights) {
  NoiseLine line;
  if (sizes.size() < 2) return line;
  std::vector<float> levels;
  each_block(data, sizes, weights, [&](const float mean, float) { levels.push_back(mean); });
  if (levels.size() < 256) return line;
  // Bins of equal counts, so that a dark sky or a white page leaves the
  // other levels bins of their own.
  constexpr int bins = 12;
  std::vector<float> edges(levels);
  std::sort(edges.begin(), edges.end());
  std::vector<float> bounds;
  for (int i = 1; i < bins; ++i) bounds.push_back(edges[edges.size() * i / bins]);
  std::vector<std::vector<float>> detail(bins), level(bins);
  each_block(data, sizes, weights, [&](const float mean, const float d) {
    const int bin = (int)(std::upper_bound(bounds.begin(), bounds.end(), mean) - bounds.begin());
    detail[bin].push_back(d), level[bin].push_back(mean);
  });
  double sw = 0, sx = 0, sy = 0, sxx = 0, sxy = 0;
  for (int i = 0; i < bins; ++i) {
    if (detail[i].size() < 64) continue;
    const double sigma = median_deviation(detail[i]);
    std::nth_element(level[i].begin(), level[i].begin() + level[i].size() / 2, level[i].end());
    const double x = level[i][level[i].size() / 2], y = sigma * sigma, w = (double)detail[i].size();
    sw += w, sx += w * x, sy += w * y, sxx += w * x * x, sxy += w * x * y;
  }
  if (!(sw > 0)) return line;
  const double det = sw * sxx - sx * sx;
  double a = det > 1e-12 * sw * sw ? (sw * sxy - sx * sy) / det : 0, b = (sy - a * sx) / sw;
  if (a < 0) a = 0, b = sy / sw;  // falls with the level: a tone curve's or JPEG's doing, not a sensor's
  if (b < 0) a = sxy / sxx, b = 0;  // through the origin
  line.a = (float)a, line.b = (float)b;
  return line;
}

namespace {

// Each sample's weight in the data term: the typical variance (the noise
// measured over all samples) over its own, read from its neighbourhood's
// level. Bounded, because that level is itself an estimate and rounding
// leaves every sample some noise.
std::vector<float> noise_weights(const float* const data, const std::vector<int>& sizes, const float* const given,
                                 const NoiseLine& line, const float typical) {
  std::vector<float> w = local_level(data, sizes, given);
  for (size_t i = 0; i < w.size(); ++i) {
    const float own = std::clamp(typical / std::max(line.at(w[i]), 1e-12f), 0.05f, 20.0f);
    w[i] = given ? given[i] * own : own;
  }
  return w;
}

}  // namespace

namespace {

// Each sample's weight times `factor` where the blur of a clipped sample
// (at or above `level`) reaches it, but not at the clipped samples
// themselves, which the lower bound holds: how much light spread from a
// lamp into its neighbours the bound cannot tell, and a fit that trusts
// them rings around the lamp.
std::vector<float> weigh_near_clipped(const float* const data, const std::vector<int>& sizes,
                                      const std::vector<int>& psf_sizes, const float level, const float factor,
                                      const float* const given) {
  size_t n = 1;
  for (const int s : sizes) n *= s;
  std::vector<char> near(n);
  for (size_t i = 0; i < n; ++i) near[i] = data[i] >= level;
  // Dilated by the PSF's half extent along each axis, one axis at a time.
  size_t stride = n;
  for (size_t a = 0; a < sizes.size(); ++a) {
    stride /= sizes[a];
    const long length = sizes[a], reach = psf_sizes[a] / 2;
    std::vector<char> line(length);
    for (size_t start = 0; start < n; ++start) {
      if ((start / stride) % length) continue;  // not the first of its line along this axis
      for (long i = 0; i < length; ++i) line[i] = near[start + i * stride];
      long last = -reach - 1;  // the latest marked sample at or before i + reach
      for (long i = 0, j = 0; i < length; ++i) {
        for (; j < length && j <= i + reach; ++j)
          if (line[j]) last = j;
        near[start + i * stride] = last >= i - reach;
      }
    }
  }
  std::vector<float> w(n);
  for (size_t i = 0; i < n; ++i) w[i] = (given ? given[i] : 1.0f) * (near[i] && data[i] < level ? factor : 1.0f);
  return w;
}

}  // namespace

float sparse_lambda(const float noise, const float alpha) {
  // The weight of a maximum a posteriori estimate under Gaussian noise grows
  // as its variance. The floor stands for what rounding to 8 bits leaves in
  // data without noise of their own, where the median difference is 0.
  (void)alpha;
  const float s = std::max(noise, 0.002f);
  return 5 * s * s;
}

SparseResult sparse_restore(const float* const data, float* const object, const std::vector<int>& sizes,
                            const float* const psf, const std::vector<int>& psf_sizes, const SparseOptions& options,
                            Workers& workers) {
  if (sizes.size() != psf_sizes.size()) throw std::invalid_argument("the PSF has not as many axes as the data");
  if (options.outer_steps < 1 || options.inner_steps < 1)
    throw std::invalid_argument("the sparse restoration takes at least one step");
  SparseResult result;
  std::vector<float> weighed;
  const float* weights = options.weights;
  if (options.lambda > 0) {
    result.lambda = options.lambda;
  } else {
    result.noise = noise_deviation(data, sizes, options.weights);
    result.lambda = sparse_lambda(result.noise, options.alpha);
    const NoiseLine line = options.noise_follows_signal ? noise_line(data, sizes, options.weights) : NoiseLine();
    const float typical = result.noise * result.noise;
    if (line.a > 0 && typical > 0) {
      weighed = noise_weights(data, sizes, options.weights, line, typical);
      weights = weighed.data();
      // The more of the noise is photons' rather than the read-out's, the
      // more the prior weighs, up to 4 times: tuned on camera-formed
      // photographs in light (bench/camera_bench.py's quick set: 23.63 dB
      // unweighed; weighed, with the prior 1, 2, 4 and 8 times, 23.91, 24.01,
      // 24.05 and 24.04), while pictures of even noise keep the weight
      // above (bench_sparse: 4 times throughout lost 0.45 dB there).
      result.lambda *= 1 + 3 * (1 - std::min(1.0f, line.b / typical));
    }
  }
  if (options.clip_level > 0) {
    weighed = weigh_near_clipped(data, sizes, psf_sizes, options.clip_level, options.near_clipped_weight, weights);
    weights = weighed.data();
  }
  // Noiseless data still need a prior to keep the division finite.
  const float lambda = std::max(result.lambda, 1e-9f);
  const Grid g = widen(sizes, psf_sizes);
  const RealFft& fft = RealFft::of(g.sizes);
  const Spectra spectra = spectra_of(fft, g, psf, psf_sizes, workers);
  if (!(options.alpha > 0 && options.alpha <= 2)) throw std::invalid_argument("the prior's exponent lies outside (0, 2]");
  Splitting s(g, fft, spectra, options.alpha == 2 ? nullptr : &shrink_for(options.alpha), lambda, options, workers);
  embed(g, data, weights, weighted_mean(data, sizes, weights, workers), s.y.data(), s.mask.data(), workers);

  // The start: x the data (extended), z its differences under the prior.
  std::copy(s.y.begin(), s.y.end(), s.x.begin());
  std::copy(s.y.begin(), s.y.end(), s.target.begin());
  float beta = options.beta_start * lambda;
  s.z_step(beta);
  for (int outer = 0; outer < options.outer_steps; ++outer) {
    if (outer > 0) {
      beta *= options.beta_growth;
      s.scale_multipliers(1 / options.beta_growth);
    }
    for (int inner = 0; inner < options.inner_steps; ++inner) {
      s.x_step(beta);
      if (outer + 1 == options.outer_steps && inner + 1 == options.inner_steps) break;
      s.v_step(beta);
      s.z_step(beta);
    }
  }
  crop(g, s.x.data(), object);
  return result;
}

}  // namespace fast
}  // namespace deconv
