// The kernel for a sharp estimate: min |grad x * k - grad y|^2 + gamma |k|^2
// over a square support, the normal equations built in the frequency domain
// (the gradients' autocorrelation and their correlation with the picture's)
// and solved by conjugate gradients on the support; then negatives clipped,
// faint taps and small specks removed, the sum made 1.
#include <algorithm>
#include <cmath>
#include <functional>

#include "estimate/estimate.h"

namespace deconv {
namespace estimation {

KernelProblem kernel_problem(const Transforms& t, const Spectrum& sx, const Spectrum& sy, const Spectrum& bx,
                             const Spectrum& by, int side) {
  const size_t F = t.frequencies();
  Spectrum A(F), B(F);
  for (size_t f = 0; f < F; ++f) {
    A[f] = std::norm(sx[f]) + std::norm(sy[f]);
    B[f] = std::conj(sx[f]) * bx[f] + std::conj(sy[f]) * by[f];
  }
  RealPlane a = t.real(), c = t.real();
  t.backward(A, a);
  t.backward(B, c);
  const int W = t.width(), H = t.height(), r = side / 2, la = side - 1;
  KernelProblem p;
  p.side = side;
  const int sa = 2 * la + 1;
  p.autocorrelation.resize((size_t)sa * sa);
  for (int dy = -la; dy <= la; ++dy)
    for (int dx = -la; dx <= la; ++dx)
      p.autocorrelation[(size_t)(dy + la) * sa + dx + la] = a[(size_t)((dy + H) % H) * W + (dx + W) % W];
  p.correlation.resize((size_t)side * side);
  for (int dy = -r; dy <= r; ++dy)
    for (int dx = -r; dx <= r; ++dx)
      p.correlation[(size_t)(dy + r) * side + dx + r] = c[(size_t)((dy + H) % H) * W + (dx + W) % W];
  return p;
}

namespace {

// (T + diag) k, T the autocorrelation's Toeplitz operator on the support.
void apply(const KernelProblem& p, const std::vector<double>& diag, const std::vector<double>& k,
           std::vector<double>& out) {
  const int s = p.side, la = s - 1, sa = 2 * la + 1;
  out.assign(k.size(), 0.0);
  for (int qy = 0; qy < s; ++qy)
    for (int qx = 0; qx < s; ++qx) {
      const double kq = k[(size_t)qy * s + qx];
      if (kq == 0) continue;
      for (int dy = 0; dy < s; ++dy) {
        const double* arow = &p.autocorrelation[(size_t)(dy - qy + la) * sa + la - qx];
        double* orow = &out[(size_t)dy * s];
        for (int dx = 0; dx < s; ++dx) orow[dx] += arow[dx] * kq;
      }
    }
  for (size_t i = 0; i < k.size(); ++i) out[i] += diag[i] * k[i];
}

// (T + diag) k = c by conjugate gradients from `k`.
void conjugate_gradients(const KernelProblem& p, const std::vector<double>& diag, std::vector<double>& k) {
  const size_t n = k.size();
  std::vector<double> r(n), d, q;
  apply(p, diag, k, q);
  for (size_t i = 0; i < n; ++i) r[i] = p.correlation[i] - q[i];
  d = r;
  double rr = 0, bb = 0;
  for (size_t i = 0; i < n; ++i) rr += r[i] * r[i], bb += p.correlation[i] * p.correlation[i];
  for (int it = 0; it < 25 && rr > 1e-12 * bb; ++it) {
    apply(p, diag, d, q);
    double dq = 0;
    for (size_t i = 0; i < n; ++i) dq += d[i] * q[i];
    if (dq <= 0) break;
    const double alpha = rr / dq;
    double rr_new = 0;
    for (size_t i = 0; i < n; ++i) {
      k[i] += alpha * d[i];
      r[i] -= alpha * q[i];
      rr_new += r[i] * r[i];
    }
    for (size_t i = 0; i < n; ++i) d[i] = r[i] + rr_new / rr * d[i];
    rr = rr_new;
  }
}

double gradients_energy(const KernelProblem& p) {
  const int s = p.side;
  return p.autocorrelation[(size_t)(s - 1) * (2 * s - 1) + s - 1];
}

Image clipped(const std::vector<double>& k, int side) {
  Image out(side, side, 1);
  for (size_t i = 0; i < k.size(); ++i) out.pixels[i] = (float)std::max(0.0, k[i]);
  return out;
}

}  // namespace

Image solve_kernel(const KernelProblem& p, const Image& start, double gamma) {
  const size_t n = (size_t)p.side * p.side;
  std::vector<double> k(start.pixels.begin(), start.pixels.end()), diag(n, gamma * gradients_energy(p));
  conjugate_gradients(p, diag, k);
  return clipped(k, p.side);
}

std::vector<char> kernel_support(const Image& kernel, double jump) {
  std::vector<float> sorted(kernel.pixels);
  std::sort(sorted.begin(), sorted.end());
  const float peak = sorted.back();
  // The support's edge is the first value after a jump: the taps below it rise
  // by small steps, noise and the solver's ripple, the blur's own taps stand
  // apart from them.
  float threshold = peak;
  for (size_t j = 0; j + 1 < sorted.size(); ++j)
    if (sorted[j + 1] - sorted[j] > jump * peak) {
      threshold = sorted[j + 1];
      break;
    }
  std::vector<char> support(kernel.pixels.size());
  for (size_t i = 0; i < support.size(); ++i) support[i] = peak > 0 && kernel.pixels[i] >= threshold;
  return support;
}

Image solve_kernel_sparse(const KernelProblem& p, const Image& start, const SparseWeights& w) {
  const size_t n = (size_t)p.side * p.side;
  const double energy = gradients_energy(p);
  std::vector<double> k(start.pixels.begin(), start.pixels.end()), diag(n);
  const float peak = *std::max_element(start.pixels.begin(), start.pixels.end());
  const std::vector<char> support = kernel_support(start, w.jump);
  // |k| as k^2 / |k'| at the last solution k' (iteratively reweighted least
  // squares): a tap the data hardly needs pays more the smaller it gets, so
  // that weight gathers on the blur's path instead of spreading across it.
  for (int round = 0; round < w.rounds; ++round) {
    for (size_t i = 0; i < n; ++i) {
      const double l1 = support[i] ? w.inside : w.outside;
      diag[i] = energy * (w.gamma + l1 / (2 * std::max(std::fabs(k[i]), w.floor * (double)peak)));
    }
    conjugate_gradients(p, diag, k);
    for (double& v : k) v = std::max(0.0, v);
  }
  return clipped(k, p.side);
}

void select_edges(RealPlane& gx, RealPlane& gy, size_t count) {
  std::vector<float> bins[4];
  for (size_t i = 0; i < gx.size(); ++i) {
    const float m = gx[i] * gx[i] + gy[i] * gy[i];
    if (m == 0) continue;
    double a = std::atan2(gy[i], gx[i]);
    if (a < 0) a += M_PI;
    bins[std::min(3, (int)(a / (M_PI / 4)))].push_back(m);
  }
  float threshold = 1e30f;
  for (std::vector<float>& b : bins) {
    if (b.size() <= count) {
      threshold = 0;
      break;
    }
    std::nth_element(b.begin(), b.begin() + count, b.end(), std::greater<float>());
    threshold = std::min(threshold, b[count]);
  }
  for (size_t i = 0; i < gx.size(); ++i)
    if (gx[i] * gx[i] + gy[i] * gy[i] < threshold) gx[i] = gy[i] = 0;
}

std::vector<std::vector<int>> tap_groups(const Image& kernel, const int gap) {
  const int w = kernel.width, h = kernel.height;
  std::vector<int> label((size_t)w * h, -1), stack;
  std::vector<std::vector<int>> groups;
  for (int start = 0; start < w * h; ++start) {
    if (!(kernel.pixels[start] > 0) || label[start] >= 0) continue;
    std::vector<int>& members = groups.emplace_back();
    stack.push_back(start);
    label[start] = start;
    while (!stack.empty()) {
      const int i = stack.back();
      stack.pop_back();
      members.push_back(i);
      const int x = i % w, y = i / w;
      for (int dy = -gap; dy <= gap; ++dy)
        for (int dx = -gap; dx <= gap; ++dx) {
          const int nx = x + dx, ny = y + dy;
          if (nx < 0 || ny < 0 || nx >= w || ny >= h) continue;
          const int j = ny * w + nx;
          if (kernel.pixels[j] > 0 && label[j] < 0) label[j] = start, stack.push_back(j);
        }
    }
  }
  return groups;
}

void clean_kernel(Image& kernel, double faint, double speck) {
  const float peak = *std::max_element(kernel.pixels.begin(), kernel.pixels.end());
  if (!(peak > 0)) {
    std::fill(kernel.pixels.begin(), kernel.pixels.end(), 0.0f);
    kernel.at(kernel.width / 2, kernel.height / 2) = 1;
    return;
  }
  for (float& v : kernel.pixels)
    if (v < faint * peak) v = 0;
  double total = 0;
  for (float v : kernel.pixels) total += v;
  // Specks: 8-connected groups of taps with less than `speck` of the weight.
  for (const std::vector<int>& members : tap_groups(kernel, 1)) {
    double sum = 0;
    for (const int i : members) sum += kernel.pixels[i];
    if (sum < speck * total)
      for (const int i : members) kernel.pixels[i] = 0;
  }
  double sum = 0;
  for (float v : kernel.pixels) sum += v;
  for (float& v : kernel.pixels) v = (float)(v / sum);
}

double first_moment(const Image& kernel, double& cx, double& cy) {
  double sum = 0, sx = 0, sy = 0;
  for (int y = 0; y < kernel.height; ++y)
    for (int x = 0; x < kernel.width; ++x) {
      const double v = kernel.at(x, y);
      sum += v, sx += v * x, sy += v * y;
    }
  cx = sum > 0 ? sx / sum : kernel.width / 2;
  cy = sum > 0 ? sy / sum : kernel.height / 2;
  return sum;
}

Image recentre_whole(const Image& kernel) {
  double cx, cy;
  first_moment(kernel, cx, cy);
  const int mx = (int)std::lround(cx - kernel.width / 2), my = (int)std::lround(cy - kernel.height / 2);
  if (mx == 0 && my == 0) return kernel;
  Image out(kernel.width, kernel.height, 1);
  for (int y = 0; y < kernel.height; ++y)
    for (int x = 0; x < kernel.width; ++x) {
      const int sx = x + mx, sy = y + my;
      if (sx >= 0 && sy >= 0 && sx < kernel.width && sy < kernel.height) out.at(x, y) = kernel.at(sx, sy);
    }
  return out;
}

Image centre_and_trim(const Image& kernel) {
  double cx, cy;
  first_moment(kernel, cx, cy);
  double reach = 0;
  for (int y = 0; y < kernel.height; ++y)
    for (int x = 0; x < kernel.width; ++x)
      if (kernel.at(x, y) > 0) reach = std::max({reach, std::fabs(x - cx), std::fabs(y - cy)});
  const int half = (int)std::ceil(reach + 1e-6), side = 2 * half + 1;
  // out(X, Y) = kernel at (X - half + cx, Y - half + cy), bilinear: a move by
  // a fraction of a pixel that keeps the sum and puts the first moment on the middle.
  Image out(side, side, 1);
  float peak = 0;
  for (int y = 0; y < side; ++y)
    for (int x = 0; x < side; ++x) {
      const double sx = x - half + cx, sy = y - half + cy;
      const double v = bilinear(kernel, sx, sy);
      out.at(x, y) = (float)v;
      peak = std::max(peak, (float)v);
    }
  if (peak > 0)
    for (float& v : out.pixels) v /= peak;
  return out;
}

}  // namespace estimation
}  // namespace deconv
