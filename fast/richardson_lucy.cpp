#include "fast/richardson_lucy.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <stdexcept>

namespace deconv {
namespace fast {

namespace {

using spectral::Complex;
using spectral::RealArray;
using spectral::RealFft;
using spectral::Spectrum;
using spectral::Workers;

constexpr int most_iterations = 500;
constexpr float least_kept = 0.3f;  // of a sample, by an extrapolated step
constexpr size_t sum_blocks = 64;  // fixed, so that sums come out the same for any threads

// Sums over [0, n) in double, by fixed blocks added in order:
// f(begin, end, sums) adds a block's share to sums[0 .. N - 1].
template <size_t N, class F>
std::array<double, N> ordered_sums(const size_t n, Workers& workers, F f) {
  std::vector<std::array<double, N>> part(sum_blocks);
  workers.run(sum_blocks, [&](const size_t b) {
    part[b].fill(0.0);
    f(n * b / sum_blocks, n * (b + 1) / sum_blocks, part[b]);
  });
  std::array<double, N> sums{};
  for (const auto& p : part)
    for (size_t k = 0; k < N; ++k) sums[k] += p[k];
  return sums;
}

// The sum of f(i) over [0, n), as ordered_sums.
template <class F>
double ordered_sum(const size_t n, Workers& workers, F f) {
  return ordered_sums<1>(n, workers, [&](size_t begin, size_t end, std::array<double, 1>& sum) {
    for (size_t i = begin; i < end; ++i) sum[0] += f(i);
  })[0];
}

// The data's grid inside the extended one: data row r (all axes but the
// last) starts at sample rows[r] of the extended grid.
struct Extended {
  std::vector<int> sizes;      // the extended grid's
  std::vector<size_t> rows;    // of the data, where each starts
  size_t width = 0;            // of a data row
};

Extended extend(const std::vector<int>& sizes, const std::vector<int>& psf_sizes) {
  Extended e;
  for (size_t a = 0; a < sizes.size(); ++a) e.sizes.push_back(spectral::good_size(sizes[a] + psf_sizes[a] - 1));
  e.width = sizes.back();
  size_t data_rows = 1;
  for (size_t a = 0; a + 1 < sizes.size(); ++a) data_rows *= sizes[a];
  for (size_t r = 0; r < data_rows; ++r) {
    size_t rest = r, at = 0, step = e.sizes.back();
    for (size_t a = sizes.size() - 1; a-- > 0;) {
      at += (rest % sizes[a]) * step;
      rest /= sizes[a];
      step *= e.sizes[a];
    }
    e.rows.push_back(at);
  }
  return e;
}

// The PSF's spectrum on the extended grid, its middle sample at the origin,
// in the transforms' filter order.
Spectrum psf_spectrum(const RealFft& fft, const Extended& e, const float* psf, const std::vector<int>& psf_sizes,
                      Workers& workers) {
  RealArray placed(fft.samples(), 0.0f);
  size_t taps = 1;
  for (const int n : psf_sizes) taps *= n;
  for (size_t t = 0; t < taps; ++t) {
    size_t rest = t, at = 0, step = 1;
    for (size_t a = psf_sizes.size(); a-- > 0;) {
      const long i = (long)(rest % psf_sizes[a]) - psf_sizes[a] / 2;
      rest /= psf_sizes[a];
      at += (size_t)((i + e.sizes[a]) % e.sizes[a]) * step;
      step *= e.sizes[a];
    }
    placed[at] = psf[t];
  }
  Spectrum ordered(fft.frequencies()), scratch(fft.frequencies());
  fft.forward_in_filter_order(placed.data(), ordered.data(), scratch.data(), workers);
  return ordered;
}

// The convolution of `in` with the PSF, or its correlation (`adjoint`), into
// `out`, on the extended grid.
void convolve(const RealFft& fft, const Spectrum& H, const float* in, float* out, Spectrum& scratch,
              const bool adjoint, Workers& workers) {
  const float scale = (float)(1.0 / (double)fft.samples());
  const float sign = adjoint ? -1.0f : 1.0f;
  fft.filter(
      in, out, scratch.data(),
      [&](Complex* v, const size_t count, const size_t first, size_t) {
        const Complex* const h = H.data() + fft.filter_index(first);
        for (size_t i = 0; i < count; ++i) {
          const float hr = h[i].real() * scale, hi = sign * h[i].imag() * scale;
          v[i] = Complex(v[i].real() * hr - v[i].imag() * hi, v[i].real() * hi + v[i].imag() * hr);
        }
      },
      workers);
}

// `weights` eroded by `r` samples and then averaged over 2 r + 1 along each
// axis in turn: 0 wherever they were, rising to 1 over r samples away from
// those places, so that leaving samples out makes no step.
std::vector<float> soft_weights(const float* weights, const std::vector<int>& sizes, const int r) {
  size_t n = 1;
  for (const int s : sizes) n *= s;
  std::vector<float> w(weights, weights + n), line;
  for (const bool erode : {true, false}) {
    size_t stride = n;
    for (size_t a = 0; a < sizes.size(); ++a) {
      const size_t length = sizes[a];
      stride /= length;
      for (size_t start = 0; start < n; ++start) {
        if ((start / stride) % length) continue;  // each line once, from its first sample
        line.assign(length, 0.0f);
        for (size_t i = 0; i < length; ++i) line[i] = w[start + i * stride];
        for (long i = 0; i < (long)length; ++i) {
          float v = erode ? 1.0f : 0.0f;
          for (long j = std::max(0L, i - r); j <= std::min((long)length - 1, i + r); ++j)
            v = erode ? std::min(v, line[j]) : v + line[j] / (2 * r + 1);
          w[start + i * stride] = v;
        }
      }
    }
  }
  return w;
}

// The noise's scale: the variance of Poisson data is gain times their mean.
// Where the PSF passes (almost) nothing, the data's spectrum is noise alone,
// and its power there is the gain times the sum of the data. The data are
// tapered to their mean at the borders first (a Hann window along each
// axis), and the samples weighed 0 are left out gently: a photograph's left
// and right edges differ, a clipped lamp's plateau ends in a cliff, and the
// power of either step would fall into that band and stop the iterations
// early (bench/light_bench.py). Under the window the noise's power is the
// gain times the sum of the window squared times the data.
double poisson_gain(const float* data, const float* weights, const std::vector<int>& sizes, const float* psf,
                    const std::vector<int>& psf_sizes, const float background, Workers& workers) {
  const RealFft& fft = RealFft::of(sizes);
  Extended same;  // the data's own grid, for the PSF's spectrum
  same.sizes = sizes;
  const Spectrum H = psf_spectrum(fft, same, psf, psf_sizes, workers);
  const size_t n = fft.samples();
  // Flat but for a sixteenth of each side (at most 16 samples) at either end,
  // which falls as a half Hann window: a whole one's spectrum would smear the
  // band the PSF passes into the one it does not. Pictures only: a stack's
  // borders are its background, and its band of noise alone lies against
  // the missing cone, where any window's smear shows (bench_richardson_lucy's
  // widefield stacks stop 4 dB short with one).
  const bool picture = sizes.size() == 2;
  std::vector<std::vector<float>> hann(sizes.size());
  for (size_t a = 0; a < sizes.size(); ++a) {
    const int m = picture ? std::max(1, std::min(16, sizes[a] / 16)) : 0;
    for (int i = 0; i < sizes[a]; ++i) {
      const int from_edge = std::min(i, sizes[a] - 1 - i);
      hann[a].push_back(from_edge >= m ? 1.0f : (float)std::pow(std::sin(M_PI * (from_edge + 0.5) / (2 * m)), 2));
    }
  }
  const std::vector<float> soft = weights ? soft_weights(weights, sizes, 4) : std::vector<float>();
  const auto window = [&](size_t i) {
    float w = weights ? soft[i] : 1.0f;
    for (size_t a = sizes.size(); a-- > 0; i /= sizes[a]) w *= hann[a][i % sizes[a]];
    return w;
  };
  const std::array<double, 3> sums = ordered_sums<3>(n, workers, [&](size_t begin, size_t end, auto& s) {
    for (size_t i = begin; i < end; ++i) {
      const double w = window(i);
      s[0] += w * data[i], s[1] += w, s[2] += w * w * data[i];
    }
  });
  const double mean = sums[0] / sums[1];
  RealArray tapered(n);
  workers.run_ranges(n, [&](size_t begin, size_t end) {
    for (size_t i = begin; i < end; ++i) tapered[i] = (float)(window(i) * (data[i] - mean));
  });
  Spectrum Y(fft.frequencies());
  fft.forward(tapered.data(), Y.data(), workers);
  double power = 0, count = 0;
  for (size_t k = 1; k < Y.size(); ++k)
    if (std::norm(H[fft.filter_index(k)]) < 1e-4) power += std::norm(Y[k]), count += 1;
  if (count < 0.01 * Y.size() || mean <= background) return 0;  // no band of noise alone to measure
  return power / count / sums[2];
}

// The mean of the Poisson deviance 2 (y log(y / mu) - (y - mu)) of one
// sample of mean mu: 1 + 1 / (6 mu) + 1 / (6 mu^2) for large means, summed
// over the distribution below 20 (a table, log-spaced, read linearly).
class ExpectedDeviance {
 public:
  ExpectedDeviance() {
    for (int t = 0; t < steps; ++t) table_[t] = exact(mean_at(t));
  }
  double operator()(const double mu) const {
    if (mu >= top) return 1 + 1 / (6 * mu) + 1 / (6 * mu * mu);
    if (mu <= bottom) return 2 * mu;  // y is 0 but for a chance of mu, and then 1
    const double at = std::log(mu / bottom) / std::log(top / bottom) * (steps - 1);
    const int t = std::min(steps - 2, (int)at);
    return table_[t] + (at - t) * (table_[t + 1] - table_[t]);
  }

 private:
  static constexpr int steps = 512;
  static constexpr double bottom = 1e-3, top = 20;
  static double mean_at(const int t) { return bottom * std::pow(top / bottom, (double)t / (steps - 1)); }
  static double exact(const double mu) {
    double sum = 0, p = std::exp(-mu);  // P(y = 0)
    for (int y = 0; y < 200; ++y) {
      sum += p * 2 * ((y ? y * std::log(y / mu) : 0) - (y - mu));
      p *= mu / (y + 1);
    }
    return sum;
  }
  double table_[steps];
};

// Divides each step by 1 - weight div(grad x / |grad x|), the total
// variation's gradient (Dey et al. 2006): smooth regions stay smooth, edges
// keep their step. Differences past the grid's last sample are 0; `eps`
// keeps the division finite where x is flat.
void divide_by_total_variation(const float* x, const std::vector<int>& sizes, const float weight, const float eps,
                               float* work, Workers& workers) {
  const size_t axes = sizes.size(), width = sizes.back();
  std::vector<size_t> stride(axes, 1);
  for (size_t a = axes - 1; a-- > 0;) stride[a] = stride[a + 1] * sizes[a + 1];
  size_t rows = 1;
  for (size_t a = 0; a + 1 < axes; ++a) rows *= sizes[a];
  workers.run_ranges(rows, [&](const size_t begin, const size_t end) {
    std::vector<int> at(axes);
    std::vector<float> g(axes);
    // The gradient at sample j standing at `at`, one back along `back` (or
    // nowhere back); returns its length.
    const auto gradient = [&](const size_t j, const size_t back) {
      float sum = eps * eps;
      for (size_t b = 0; b < axes; ++b) {
        const int place = at[b] - (b == back);
        g[b] = place + 1 < sizes[b] ? x[j + stride[b]] - x[j] : 0.0f;
        sum += g[b] * g[b];
      }
      return std::sqrt(sum);
    };
    for (size_t r = begin; r < end; ++r) {
      size_t rest = r;
      for (size_t a = axes - 1; a-- > 0; rest /= sizes[a]) at[a] = (int)(rest % sizes[a]);
      for (size_t column = 0; column < width; ++column) {
        at[axes - 1] = (int)column;
        const size_t i = r * width + column;
        float divergence = 0;
        const float length = gradient(i, axes);
        for (size_t a = 0; a < axes; ++a) divergence += g[a] / length;
        for (size_t a = 0; a < axes; ++a)
          if (at[a] > 0) {
            const float back = gradient(i - stride[a], a);
            divergence -= g[a] / back;
          }
        // Far from an edge the term is small; where it is not, the step is
        // kept from turning over.
        work[i] /= std::max(1 - weight * divergence, 0.1f);
      }
    }
  });
}

}  // namespace

RichardsonLucyResult richardson_lucy(const float* const data, float* const object, const std::vector<int>& sizes,
                                     const float* const psf, const std::vector<int>& psf_sizes,
                                     const RichardsonLucyOptions& options, Workers& workers) {
  if (sizes.size() != psf_sizes.size()) throw std::invalid_argument("the PSF has not as many axes as the data");
  const Extended e = extend(sizes, psf_sizes);
  const RealFft& fft = RealFft::of(e.sizes);
  const size_t n = fft.samples(), width = fft.width();
  const Spectrum H = psf_spectrum(fft, e, psf, psf_sizes, workers);
  Spectrum scratch(fft.frequencies());

  // Each object sample's share of the data it reaches: the correlation of
  // the data's weights (1 where there are data) with the PSF. Far outside the
  // data, or where only data weighed 0 are, it is too small to restore
  // anything there.
  const float* const given = options.weights;
  RealArray work(n, 0.0f), weight(n);
  for (size_t r = 0; r < e.rows.size(); ++r) {
    float* const row = work.data() + e.rows[r];
    if (given)
      std::copy(given + r * e.width, given + (r + 1) * e.width, row);
    else
      std::fill(row, row + e.width, 1.0f);
  }
  convolve(fft, H, work.data(), weight.data(), scratch, true, workers);
  for (float& w : weight) w = w > 1e-3f ? 1.0f / w : 0.0f;

  const size_t data_samples = e.rows.size() * e.width;
  // The weighed mean of the data, for the flat start.
  const std::array<double, 2> data_sums = ordered_sums<2>(e.rows.size(), workers, [&](size_t begin, size_t end, auto& s) {
    for (size_t i = begin * e.width; i < end * e.width; ++i) {
      const float w = given ? given[i] : 1.0f;
      if (w > 0) s[0] += (double)w * data[i], s[1] += w;
    }
  });
  const double data_mean = data_sums[1] > 0 ? data_sums[0] / data_sums[1] : 0;
  const float start = options.start > 0 ? options.start : (float)std::max(1e-6, data_mean - options.background);
  RealArray x(n), previous(n), step(n), last_step(n), predicted(n);
  for (size_t i = 0; i < n; ++i) x[i] = weight[i] > 0 ? start : 0.0f;
  predicted = x;

  const double gain = options.iterations ? 0 : poisson_gain(data, given, sizes, psf, psf_sizes, options.background, workers);
  const float b = options.background;
  static const ExpectedDeviance expected;
  std::vector<long> data_row(n / width, -1);  // for each row of the extended grid, the data's, or -1
  for (size_t r = 0; r < e.rows.size(); ++r) data_row[e.rows[r] / width] = (long)r;
  RichardsonLucyResult result;
  const int last = options.iterations ? options.iterations
                                     : options.at_most > 0 ? std::min(options.at_most, most_iterations) : most_iterations;
  for (int k = 0; k < last; ++k) {
    // The data over the model, where there are data; the deviance of the fit.
    convolve(fft, H, predicted.data(), work.data(), scratch, false, workers);
    // Outside the data the ratio is nothing. In counts, where the gain is
    // known: the deviance, less what Poisson noise alone would leave at this
    // model.
    const double excess = ordered_sum(n / width, workers, [&](const size_t row) {
      float* const model = work.data() + row * width;
      const long r = data_row[row];
      std::fill(model + (r < 0 ? 0 : e.width), model + width, 0.0f);
      if (r < 0) return 0.0;
      const float* const y = data + r * e.width;
      const float* const w = given ? given + r * e.width : nullptr;
      double d = 0;
      for (size_t i = 0; i < e.width; ++i) {
        const float mu = std::max(model[i] + b, 1e-12f);
        const float weigh = w ? w[i] : 1.0f;
        if (!(weigh > 0)) {  // nothing of this sample's value may reach the result
          model[i] = 0;
          continue;
        }
        if (gain > 0) {
          const double counts = y[i] / gain, mean = mu / gain;
          d += weigh * (2 * ((counts > 0 ? counts * std::log(counts / mean) : 0) - (counts - mean)) - expected(mean));
        }
        model[i] = weigh * std::max(y[i], 0.0f) / mu;
      }
      return d;
    });
    // The model fits as closely as Poisson noise of this gain allows: stop
    // before fitting the noise itself.
    if (!options.iterations && k > 0 && gain > 0 && excess <= 0) break;
    convolve(fft, H, work.data(), work.data(), scratch, true, workers);
    if (options.total_variation > 0)
      divide_by_total_variation(predicted.data(), e.sizes, options.total_variation, 1e-3f * start, work.data(), workers);
    // The step from the predicted object, and how far it goes along the last.
    previous.swap(x);
    const std::array<double, 2> along = ordered_sums<2>(n, workers, [&](size_t begin, size_t end, auto& sums) {
      for (size_t i = begin; i < end; ++i) {
        x[i] = predicted[i] * work[i] * weight[i];
        step[i] = x[i] - predicted[i];
        sums[0] += (double)step[i] * last_step[i];
        sums[1] += (double)last_step[i] * last_step[i];
      }
    });
    ++result.iterations;
    if (options.each_iteration) {
      RealArray cropped(data_samples);
      for (size_t r = 0; r < e.rows.size(); ++r)
        std::copy(x.begin() + e.rows[r], x.begin() + e.rows[r] + e.width, cropped.begin() + r * e.width);
      options.each_iteration(result.iterations, cropped.data());
    }
    // The next prediction: Biggs and Andrews' extrapolation. It may shrink a
    // sample to no less than a fraction of its value: a sample predicted 0
    // stays 0 under the multiplicative update, the model falls short of the
    // data around it, and on dark, noise-free pictures the ratios there grow
    // without bound until the iterations diverge.
    const double alpha = options.accelerate && k > 0 && along[1] > 0 ? std::min(0.95, std::max(0.0, along[0] / along[1])) : 0;
    step.swap(last_step);
    const float a = (float)alpha;
    workers.run_ranges(n, [&](size_t begin, size_t end) {
      for (size_t i = begin; i < end; ++i) predicted[i] = std::max(least_kept * x[i], x[i] + a * (x[i] - previous[i]));
    });
  }
  // Where no weighed datum reaches, nothing was restored: the data stand.
  for (size_t r = 0; r < e.rows.size(); ++r)
    for (size_t i = 0; i < e.width; ++i) {
      const size_t at = e.rows[r] + i, d = r * e.width + i;
      object[d] = weight[at] > 0 ? x[at] : std::max(data[d] - b, 0.0f);
    }
  return result;
}

}  // namespace fast
}  // namespace deconv
