// Parametric fits: a linear motion (length, angle), a defocus disk (radius) or
// a Gaussian (sigma), drawn by deconv-psf's own code (psf/kernels.h). The free
// kernel gives the start (its second moments); then, a few times over, the
// sharp image is solved for the model's kernel and the parameters are searched
// for the least data term |grad x * k - grad y|^2, which the normal equations
// of the kernel step give for any kernel at the cost of its taps squared.
// Last, the size (and the motion's angle) by the blurred picture's own
// likelihood for the blur, which needs no sharp image and so does not share
// its bias.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <thread>

#include "estimate/estimate.h"
#include "psf/kernels.h"

namespace deconv {
namespace estimation {

namespace {

// k^T T k - 2 c^T k for a kernel on the problem's support.
double data_term(const KernelProblem& p, const Image& k) {
  const int s = p.side, la = s - 1, sa = 2 * la + 1;
  std::vector<int> idx;
  for (int i = 0; i < s * s; ++i)
    if (k.pixels[i] != 0) idx.push_back(i);
  double quad = 0, lin = 0;
  for (int i : idx) {
    const int xi = i % s, yi = i / s;
    double row = 0;
    for (int j : idx) {
      const int xj = j % s, yj = j / s;
      row += p.autocorrelation[(size_t)(yi - yj + la) * sa + xi - xj + la] * k.pixels[j];
    }
    quad += row * k.pixels[i];
    lin += p.correlation[i] * k.pixels[i];
  }
  return quad - 2 * lin;
}

// The drawn kernel, sum 1, centred on a side x side canvas (cut if larger).
Image on_support(const CImg<float>& drawn, int side) {
  Image k(side, side, 1);
  const int off = drawn.width() / 2 - side / 2;
  double sum = 0;
  for (int y = 0; y < side; ++y)
    for (int x = 0; x < side; ++x) {
      const int sx = x + off, sy = y + off;
      if (sx >= 0 && sy >= 0 && sx < drawn.width() && sy < drawn.height()) k.at(x, y) = drawn(sx, sy), sum += drawn(sx, sy);
    }
  if (sum > 0)
    for (float& v : k.pixels) v = (float)(v / sum);
  return k;
}

CImg<float> drawn(const std::string& model, double a, double b) {
  if (model == "motion") return motion_psf(std::max(0.0, a), b);
  if (model == "disk") return disk_psf(std::max(0.05, a));
  return gaussian_psf(std::max(0.05, a));
}

// The kernel's second moments: variances along its principal axes and the
// angle of the major one (degrees counter-clockwise from +x, 0..180).
void moments(const Image& k, double& major, double& minor, double& degrees) {
  double cx, cy;
  const double sum = first_moment(k, cx, cy);
  double xx = 0, yy = 0, xy = 0;
  for (int y = 0; y < k.height; ++y)
    for (int x = 0; x < k.width; ++x) {
      const double v = k.at(x, y) / sum;
      xx += v * (x - cx) * (x - cx), yy += v * (y - cy) * (y - cy), xy += v * (x - cx) * (y - cy);
    }
  const double tr = xx + yy, det = xx * yy - xy * xy, disc = std::sqrt(std::max(0.0, tr * tr / 4 - det));
  major = tr / 2 + disc, minor = std::max(0.0, tr / 2 - disc);
  degrees = -0.5 * std::atan2(2 * xy, xx - yy) * 180 / M_PI;
  degrees = std::fmod(degrees + 360, 180.0);
}

// The spectrum of the block of `plane` at (x0, y0), of the transforms' size,
// without the cross its edges make: its periodic component (Moisan 2011),
// the block less the smooth image whose Laplacian is the jump between
// opposite edges. The canvas's smooth extension would not do: its blank band
// looks like blur.
Spectrum periodic_spectrum(const Transforms& t, const Image& plane, int x0, int y0) {
  const int W = t.width(), H = t.height(), half = t.half();
  RealPlane u = t.real(), jumps = t.real();
  for (int y = 0; y < H; ++y)
    for (int x = 0; x < W; ++x) u[(size_t)y * W + x] = plane.at(x0 + x, y0 + y);
  for (int y = 0; y < H; ++y) {
    const float d = u[(size_t)y * W + W - 1] - u[(size_t)y * W];
    jumps[(size_t)y * W] += d, jumps[(size_t)y * W + W - 1] -= d;
  }
  for (int x = 0; x < W; ++x) {
    const float d = u[(size_t)(H - 1) * W + x] - u[x];
    jumps[x] += d, jumps[(size_t)(H - 1) * W + x] -= d;
  }
  Spectrum U = t.spectrum(), J = t.spectrum();
  t.forward(u, U);
  t.forward(jumps, J);
  for (int v = 0; v < H; ++v)
    for (int q = 0; q < half; ++q) {
      const size_t f = (size_t)v * half + q;
      if (f > 0) U[f] -= J[f] / (float)(2 * std::cos(2 * M_PI * q / W) + 2 * std::cos(2 * M_PI * v / H) - 4);
    }
  return U;
}

int good_size_below(int n) {
  int m = n;
  while (good_size(m) != m) --m;
  return m;
}

// Natural pictures' power falls faster than 1/f^2, the more so as a
// photograph's own softness sets in; whatever of that fall the prior leaves
// out is taken for blur (bench_estimate's Gaussians, 800 pixels and 320-pixel
// crops: sigma 5 % too large on average with an amplitude slope of 1.1,
// 2.7 % with 1.2, even with 1.3, 2.3 % too small with 1.4).
constexpr double prior_slope = 1.3;
// Frequencies are taken in blocks of bin x bin: the kernels' spectra hardly
// change over so few, and the sums over the weights cost that much less.
constexpr int bin = 4;
// The least noise power a picture read from 8 bits has, in the fits: twice
// rounding's step^2 / 12. Rounding a smooth picture is not white noise: its
// error follows the contours between steps and so gathers where a large blur
// has left little power, which white noise of step^2 / 12 cannot explain but
// a smaller blur can (noise-free Gaussians of sigma 2.8 to 3.7 came out 4 to
// 17 % small; with twice the power, within 9 %). The noise itself is fitted: the
// wavelet estimate (noise_level) takes fine texture for noise on small crops,
// and a floor from it sized those blurs large.
constexpr double rounding_floor = 2.0 / (12 * 255.0 * 255.0);

// BlurLikelihood for the fits: the negative log-likelihood of the picture's
// spectrum for a kernel, the sharp image's power falling as
// |D|^-2 prior_slope, white noise, at their best weights (Lagendijk, Tekalp &
// Biemond 1990). Lower is better. On the periodic component of the picture,
// in blocks of frequencies, and with the prior's weight found finely enough
// that the score is smooth in the kernel's size.
class SpectrumFit {
 public:
  explicit SpectrumFit(const Image& plane)
      : t_(good_size_below(plane.width), good_size_below(plane.height),
           (int)std::max(1u, std::thread::hardware_concurrency())) {
    const Spectrum Y = periodic_spectrum(t_, plane, (plane.width - t_.width()) / 2, (plane.height - t_.height()) / 2);
    floor_ = rounding_floor * t_.pixels();
    const int W = t_.width(), H = t_.height(), half = t_.half(), rows = (H + bin - 1) / bin;
    const size_t F = t_.frequencies();
    bin_.assign(F, -1);
    weight_.assign(F, 0);
    power_.assign((size_t)((half + bin - 1) / bin) * rows, 0);
    count_.assign(power_.size(), 0);
    for (int v = 0; v < H; ++v)
      for (int u = 0; u < half; ++u) {
        const size_t f = (size_t)v * half + u;
        if (f == 0) continue;
        const double dd = 4 - 2 * std::cos(2 * M_PI * u / W) - 2 * std::cos(2 * M_PI * v / H);
        // Blocks of frequencies around 0 in v, which wraps.
        const int signed_v = v <= H / 2 ? v : v - H, b = (u / bin) * rows + ((signed_v + H) % H) / bin;
        bin_[f] = b;
        // The half spectrum stands for its mirror too, but for the columns that are their own.
        const int mirrors = u == 0 || 2 * u == W ? 1 : 2;
        weight_[f] = (float)(mirrors * std::pow(dd, -prior_slope));
        power_[b] += mirrors * std::norm(Y[f]);
        count_[b] += mirrors;
      }
    for (size_t b = 0; b < power_.size(); ++b)
      if (count_[b] > 0) power_[b] /= count_[b];
  }

  double operator()(const Image& kernel) const {
    const Spectrum K = kernel_spectrum(t_, kernel);
    const double dc = std::norm(K[0]);
    // Each block's mean of |K|^2 / |D|^(2 prior_slope): the sharp image's
    // power that the blur lets through, but for the prior's weight.
    std::vector<double> gain(power_.size(), 0.0);
    for (size_t f = 0; f < K.size(); ++f)
      if (bin_[f] >= 0) gain[bin_[f]] += weight_[f] * std::norm(K[f]);
    for (size_t b = 0; b < gain.size(); ++b)
      if (count_[b] > 0) gain[b] /= count_[b] * dc;
    return least_over_weight(gain);
  }

 private:
  double at_weight(const std::vector<double>& gain, double log_weight) const {
    const double inverse = std::pow(10.0, -log_weight);
    double total = 0, logs = 0, count = 0;
    for (size_t b = 0; b < gain.size(); ++b) {
      if (count_[b] <= 0) continue;
      const double g = 1 + gain[b] * inverse;  // each block's power over the noise's
      total += count_[b] * power_[b] / g;
      logs += count_[b] * std::log(g);
      count += count_[b];
    }
    // The noise's power in closed form, no less than 8-bit rounding's.
    const double sigma2 = std::max(floor_, total / count);
    return count * std::log(sigma2) + logs + total / sigma2;
  }

  // Decades of weight, then a golden section around the best: steps of a
  // quarter decade left the kernels' scores jagged.
  double least_over_weight(const std::vector<double>& gain) const {
    double at = 0, least = 1e300;
    for (int l = -12; l <= 4; ++l) {
      const double e = at_weight(gain, l);
      if (e < least) least = e, at = l;
    }
    const double r = (std::sqrt(5.0) - 1) / 2;
    double lo = at - 1, hi = at + 1, x1 = hi - r * (hi - lo), x2 = lo + r * (hi - lo);
    double f1 = at_weight(gain, x1), f2 = at_weight(gain, x2);
    for (int i = 0; i < 30; ++i) {
      if (f1 < f2)
        hi = x2, x2 = x1, f2 = f1, x1 = hi - r * (hi - lo), f1 = at_weight(gain, x1);
      else
        lo = x1, x1 = x2, f1 = f2, x2 = lo + r * (hi - lo), f2 = at_weight(gain, x2);
    }
    return std::min(least, std::min(f1, f2));
  }

  Transforms t_;
  double floor_;                          // the least noise power
  std::vector<int> bin_;                  // each frequency's block, -1 for none
  std::vector<float> weight_;             // each frequency's mirror count times |D|^-2 prior_slope
  std::vector<double> power_, count_;     // each block's mean power, frequencies
};

// The kernel a size is scored on. psf/kernels.h cuts a Gaussian at 3 sigma,
// so that rings of taps come in whole as sigma grows: scored so, the fit
// jumps by as much as its misfit changes over a tenth of sigma. The whole
// Gaussian scores smoothly; deconv-psf still draws the cut one.
Image scored_kernel(const std::string& model, double a, double b) {
  if (model != "gaussian") return draw(model, a, b);
  const double sigma = std::max(0.05, a);
  const int reach = (int)std::ceil(5 * sigma), side = 2 * reach + 1;
  Image k(side, side, 1);
  for (int y = 0; y < side; ++y)
    for (int x = 0; x < side; ++x)
      k.at(x, y) = (float)std::exp(-((x - reach) * (x - reach) + (y - reach) * (y - reach)) / (2 * sigma * sigma));
  return k;
}

std::string number(double v, int decimals) {
  char text[32];
  std::snprintf(text, sizeof text, "%.*f", decimals, v);
  return text;
}

}  // namespace

Image draw(const std::string& model, double a, double b) {
  const CImg<float> k = drawn(model, a, b);
  Image out(k.width(), k.height(), 1);
  for (int i = 0; i < (int)out.pixels.size(); ++i) out.pixels[i] = k[i];
  return out;
}

size_t likeliest(const Image& plane, const std::vector<Image>& kernels, double margin) {
  const SpectrumFit fit(plane);
  size_t best = 0;
  double least = 1e300;
  const double pixels = (double)plane.width * plane.height;
  for (size_t i = 0; i < kernels.size(); ++i) {
    const double e = fit(kernels[i]) + (i ? margin * pixels : 0);
    if (e < least) least = e, best = i;
  }
  return best;
}

BlurLikelihood::BlurLikelihood(const Transforms& t, const RealPlane& canvas, double noise)
    : t_(t), power_(t.frequencies()), DD_(t.frequencies()), weight_(t.frequencies()) {
  // No less noise than 8-bit steps, which every picture read from a file has.
  const double quantum = 1.0 / 255;
  floor_ = std::max(noise * noise, quantum * quantum / 12) * t.pixels();
  Spectrum Y = t.spectrum();
  t.forward(canvas, Y);
  const int W = t.width(), H = t.height(), half = t.half();
  for (int v = 0; v < H; ++v)
    for (int u = 0; u < half; ++u) {
      const size_t f = (size_t)v * half + u;
      power_[f] = std::norm(Y[f]);
      DD_[f] = (float)(4 - 2 * std::cos(2 * M_PI * u / W) - 2 * std::cos(2 * M_PI * v / H));
      // The half spectrum stands for its mirror too, but for the columns that are their own.
      weight_[f] = u == 0 || 2 * u == W ? 1.0f : 2.0f;
    }
}

double BlurLikelihood::score(const Image& kernel) const {
  const Spectrum K = kernel_spectrum(t_, kernel);
  const double dc = std::norm(K[0]);
  const size_t F = power_.size();
  std::vector<float> H2(F);
  for (size_t f = 0; f < F; ++f) H2[f] = (float)(std::norm(K[f]) / dc);
  // Each frequency's power is sigma^2 (1 + |K|^2 / (lambda |D|^2)); sigma^2
  // in closed form, lambda searched.
  const auto nll = [&](double log_lambda) {
    const float inv = (float)std::pow(10.0, -log_lambda);
    double total = 0, logs = 0, count = 0;
    for (size_t f = 1; f < F; ++f) {
      if (DD_[f] <= 0) continue;
      const float g = H2[f] * inv / DD_[f] + 1;
      total += weight_[f] * power_[f] / g;
      logs += weight_[f] * std::log(g);
      count += weight_[f];
    }
    const double sigma2 = std::max(floor_, total / count);
    return count * std::log(sigma2) + logs + total / sigma2;
  };
  // The coarse weights in two halves at once: most of the fits' and the
  // checks' time is here.
  double coarse[13];
  std::thread other([&] {
    for (int i = 7; i < 13; ++i) coarse[i] = nll(i - 10);
  });
  for (int i = 0; i < 7; ++i) coarse[i] = nll(i - 10);
  other.join();
  double best = 1e300, at = 0;
  for (int i = 0; i < 13; ++i)
    if (coarse[i] < best) best = coarse[i], at = i - 10;
  for (double l = at - 0.75; l <= at + 0.75; l += 0.25) best = std::min(best, nll(l));
  return best;
}

namespace {

// The model's parameters (a, b) fitted by the data term of the sharp
// estimate, a few times over: the sharp image solved for the model's kernel,
// then a coordinate search with shrinking steps.
void fit_data_term(const std::string& model, int side, double top, const Transforms& t, const SharpStep& step,
                   const Spectrum& bx, const Spectrum& by, int width, int height, const Image& ignore, double& a,
                   double& b) {
  const Tuning& tune = tuning();
  // A sharp image less cartoon-like than the free kernel's last one: its
  // over-sharp steps make the fitted blur come out too large.
  const double lg = 1e-3;
  for (int round = 0; round < 3; ++round) {
    const RealPlane sharp = step.solve(on_support(drawn(model, a, b), side), lg, 1e-4, tune.kappa);
    RealPlane gx, gy;
    gradients(sharp, t.width(), t.height(), gx, gy);
    for (int y = 0; y < t.height(); ++y)
      for (int x = 0; x < t.width(); ++x)
        if (x >= width || y >= height) gx[(size_t)y * t.width() + x] = gy[(size_t)y * t.width() + x] = 0;
    // A lamp's sharp steps would outweigh every edge that the blur shaped.
    drop_ignored(gx, gy, t.width(), ignore);
    Spectrum sx = t.spectrum(), sy = t.spectrum();
    t.forward(gx, sx);
    t.forward(gy, sy);
    const KernelProblem p = kernel_problem(t, sx, sy, bx, by, side);
    const auto energy = [&](double ca, double cb) { return data_term(p, on_support(drawn(model, ca, cb), side)); };
    double best = energy(a, b);
    double step_a = model == "gaussian" ? 0.15 * a : std::max(1.0, 0.15 * a), step_b = 8;
    for (int pass = 0; pass < 12; ++pass) {
      bool moved = false;
      for (const double d : {-1.0, 1.0}) {
        const double ca = a + d * step_a;
        if (ca <= 0.3 || ca > top) continue;
        const double e = energy(ca, b);
        if (e < best) best = e, a = ca, moved = true;
      }
      if (model == "motion")
        for (const double d : {-1.0, 1.0}) {
          const double cb = b + d * step_b;
          const double e = energy(a, cb);
          if (e < best) best = e, b = cb, moved = true;
        }
      if (!moved) step_a /= 2, step_b /= 2;
    }
  }
}

// The data term's fit still comes out large (bench_estimate's fits); the
// picture's own likelihood for the blur sets the size, searched at the data
// term's angle, then in finer steps. (a, b) come in from the data term.
void fit_likelihood(const std::string& model, const Image& plane, double top, double& a, double& b) {
  const bool disk = model == "disk", gaussian = model == "gaussian", motion = model == "motion";
  const SpectrumFit fit(plane);
  const auto score = [&](double ca, double cb) { return fit(scored_kernel(model, ca, cb)); };
  // A motion's length near its data term's only: over its whole range the
  // likelihood falls for short motions, and a least at the window's short
  // end is that fall, not the motion.
  const double low = motion ? std::max(1.0, 0.8 * a) : gaussian ? 0.3 : 1;
  const double high = motion ? std::min(top, a + 2) : top;
  double best = score(a, b), centre = a;
  for (double ca = low; ca <= high + 1e-9; ca = gaussian ? ca * 1.03 : ca + (disk ? 0.25 : 0.5)) {
    const double e = score(ca, b);
    if (e < best) best = e, centre = ca;
  }
  if (motion && centre < low + 0.75) centre = a, best = score(a, b);
  a = centre;
  const double coarse = disk ? 0.25 : gaussian ? 0.03 * a : 0.5;
  double step_a = coarse / 2, step_b = 1;
  for (int pass = 0; pass < 24 && step_a > coarse / 10; ++pass) {
    bool moved = false;
    for (const double d : {-1.0, 1.0}) {
      const double ca = a + d * step_a;
      if (ca < 0.3 || ca > top) continue;
      const double e = score(ca, b);
      if (e < best) best = e, a = ca, moved = true;
    }
    if (model == "motion")
      for (const double d : {-1.0, 1.0}) {
        const double e = score(a, b + d * step_b);
        if (e < best) best = e, b += d * step_b, moved = true;
      }
    if (!moved) step_a /= 2, step_b /= 2;
  }
  b = std::fmod(b + 360, 180.0);
}

}  // namespace

PsfEstimate fit_model(const std::string& model, const Image& free_kernel, const Transforms& t, const SharpStep& step,
                      const RealPlane& blurred_canvas, const Spectrum& bx, const Spectrum& by, int width,
                      int height, const Image& ignore) {
  const int side = free_kernel.width;
  double major, minor, degrees;
  moments(free_kernel, major, minor, degrees);
  double a, b = 0;
  if (model == "motion")
    a = std::sqrt(12 * major), b = degrees;
  else if (model == "disk")
    a = 2 * std::sqrt((major + minor) / 2);
  else
    a = std::sqrt((major + minor) / 2);
  const double top = model == "motion" ? side - 2 : model == "disk" ? side / 2 : side / 6.0;
  fit_data_term(model, side, top, t, step, bx, by, width, height, ignore, a, b);
  Image plane(width, height, 1);
  for (int y = 0; y < height; ++y)
    for (int x = 0; x < width; ++x) plane.at(x, y) = blurred_canvas[(size_t)y * t.width() + x];
  fit_likelihood(model, plane, top, a, b);
  PsfEstimate result;
  if (model == "motion") {
    const std::string length = number(a, 1), angle = number(b, 1);
    result.description = "motion " + length + " " + angle;
    result.psf = draw(model, std::stod(length), std::stod(angle));
  } else {
    const std::string value = number(a, model == "disk" ? 1 : 2);
    result.description = model + " " + value;
    result.psf = draw(model, std::stod(value), 0);
  }
  return result;
}

}  // namespace estimation
}  // namespace deconv
