#include "fast/richardson_lucy.h"

#include <algorithm>
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
constexpr size_t sum_blocks = 64;  // fixed, so that sums come out the same for any threads

// The sum of f(i) over [0, n), in double, by fixed blocks added in order.
template <class F>
double ordered_sum(const size_t n, Workers& workers, F f) {
  std::vector<double> part(sum_blocks, 0.0);
  workers.run(sum_blocks, [&](const size_t b) {
    double s = 0;
    for (size_t i = n * b / sum_blocks, end = n * (b + 1) / sum_blocks; i < end; ++i) s += f(i);
    part[b] = s;
  });
  double sum = 0;
  for (const double s : part) sum += s;
  return sum;
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

// The noise's scale: the variance of Poisson data is gain times their mean.
// Where the PSF passes (almost) nothing, the data's spectrum is noise alone,
// and its power there is the variance times the sample count.
double poisson_gain(const float* data, const std::vector<int>& sizes, const float* psf,
                    const std::vector<int>& psf_sizes, const float background, Workers& workers) {
  const RealFft& fft = RealFft::of(sizes);
  Extended same;  // the data's own grid, for the PSF's spectrum
  same.sizes = sizes;
  const Spectrum H = psf_spectrum(fft, same, psf, psf_sizes, workers);
  Spectrum Y(fft.frequencies());
  fft.forward(data, Y.data(), workers);
  double power = 0, count = 0;
  for (size_t k = 1; k < Y.size(); ++k)
    if (std::norm(H[fft.filter_index(k)]) < 1e-4) power += std::norm(Y[k]), count += 1;
  const double mean = ordered_sum(fft.samples(), workers, [&](size_t i) { return (double)data[i]; }) / fft.samples();
  if (count < 0.01 * Y.size() || mean <= background) return 0;  // no band of noise alone to measure
  return power / count / fft.samples() / mean;
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
  // the data's mask with the PSF. Far outside the data it is too small to
  // restore anything there.
  RealArray work(n, 0.0f), weight(n);
  for (const size_t row : e.rows) std::fill(work.begin() + row, work.begin() + row + e.width, 1.0f);
  convolve(fft, H, work.data(), weight.data(), scratch, true, workers);
  for (float& w : weight) w = w > 1e-3f ? 1.0f / w : 0.0f;

  const size_t data_samples = e.rows.size() * e.width;
  const double data_sum = ordered_sum(e.rows.size(), workers, [&](size_t r) {
    double s = 0;
    for (size_t x = 0; x < e.width; ++x) s += data[r * e.width + x];
    return s;
  });
  const float start = (float)std::max(1e-6, data_sum / data_samples - options.background);
  RealArray x(n), previous(n), step(n), last_step(n), predicted(n);
  for (size_t i = 0; i < n; ++i) x[i] = weight[i] > 0 ? start : 0.0f;
  predicted = x;

  const double gain = options.iterations ? 0 : poisson_gain(data, sizes, psf, psf_sizes, options.background, workers);
  const float b = options.background;
  RichardsonLucyResult result;
  for (int k = 0; k < (options.iterations ? options.iterations : most_iterations); ++k) {
    // The data over the model, where there are data; the deviance of the fit.
    convolve(fft, H, predicted.data(), work.data(), scratch, false, workers);
    const double deviance = ordered_sum(e.rows.size(), workers, [&](size_t r) {
      float* const model = work.data() + e.rows[r];
      const float* const y = data + r * e.width;
      double d = 0;
      for (size_t i = 0; i < e.width; ++i) {
        const float mu = std::max(model[i] + b, 1e-12f);
        if (y[i] > 0) d += (double)y[i] * std::log((double)y[i] / mu) - (y[i] - mu);
        else d += mu;
        model[i] = std::max(y[i], 0.0f) / mu;
      }
      return 2 * d;
    });
    // Outside the data the ratio is nothing: the rows past the data's width
    // and the rows no data row starts.
    workers.run_ranges(n / width, [&](size_t begin, size_t end) {
      for (size_t row = begin; row < end; ++row) {
        const size_t at = row * width;
        const bool data_row = std::binary_search(e.rows.begin(), e.rows.end(), at);
        std::fill(work.begin() + at + (data_row ? e.width : 0), work.begin() + at + width, 0.0f);
      }
    });
    // The model fits as closely as Poisson noise of this gain allows: stop
    // before fitting the noise itself.
    if (!options.iterations && k > 0 && gain > 0 && deviance / gain <= (double)data_samples) break;
    convolve(fft, H, work.data(), work.data(), scratch, true, workers);
    // The step from the predicted object, and the next prediction.
    previous.swap(x);
    workers.run_ranges(n, [&](size_t begin, size_t end) {
      for (size_t i = begin; i < end; ++i) {
        x[i] = predicted[i] * work[i] * weight[i];
        step[i] = x[i] - predicted[i];
      }
    });
    ++result.iterations;
    if (options.each_iteration) {
      RealArray cropped(data_samples);
      for (size_t r = 0; r < e.rows.size(); ++r)
        std::copy(x.begin() + e.rows[r], x.begin() + e.rows[r] + e.width, cropped.begin() + r * e.width);
      options.each_iteration(result.iterations, cropped.data());
    }
    double alpha = 0;
    if (options.accelerate && k > 0) {
      const double along = ordered_sum(n, workers, [&](size_t i) { return (double)step[i] * last_step[i]; });
      const double before = ordered_sum(n, workers, [&](size_t i) { return (double)last_step[i] * last_step[i]; });
      alpha = before > 0 ? std::min(0.95, std::max(0.0, along / before)) : 0;
    }
    step.swap(last_step);
    const float a = (float)alpha;
    workers.run_ranges(n, [&](size_t begin, size_t end) {
      for (size_t i = begin; i < end; ++i) predicted[i] = std::max(0.0f, x[i] + a * (x[i] - previous[i]));
    });
  }
  for (size_t r = 0; r < e.rows.size(); ++r)
    std::copy(x.begin() + e.rows[r], x.begin() + e.rows[r] + e.width, object + r * e.width);
  return result;
}

}  // namespace fast
}  // namespace deconv
