// The sharp image for a kernel: min |k * x - y|^2 + lg |grad x|_0 + lp |x|_0
// (Xu, Zheng & Jia 2013; Pan, Hu, Su & Yang 2014, whose intensity term keeps
// dark and text pictures from drifting). Half-quadratic splitting: for a rising
// beta, the auxiliary gradients (and intensities) are x's own where they are
// large enough to pay for themselves and 0 elsewhere, then x comes in closed
// form in the frequency domain.
#include <cmath>

#include "estimate/estimate.h"

namespace deconv {
namespace estimation {

void gradients(const RealPlane& in, int width, int height, RealPlane& gx, RealPlane& gy) {
  gx.resize(in.size());
  gy.resize(in.size());
  for (int y = 0; y < height; ++y) {
    const float* row = &in[(size_t)y * width];
    const float* next = &in[(size_t)((y + 1) % height) * width];
    float* ox = &gx[(size_t)y * width];
    float* oy = &gy[(size_t)y * width];
    for (int x = 0; x + 1 < width; ++x) ox[x] = row[x + 1] - row[x];
    ox[width - 1] = row[0] - row[width - 1];
    for (int x = 0; x < width; ++x) oy[x] = next[x] - row[x];
  }
}

Spectrum kernel_spectrum(const Transforms& t, const Image& kernel) {
  RealPlane canvas = t.real();
  const int c = kernel.width / 2, W = t.width(), H = t.height();
  for (int y = 0; y < kernel.height; ++y)
    for (int x = 0; x < kernel.width; ++x) {
      const int u = ((x - c) % W + W) % W, v = ((y - c) % H + H) % H;
      canvas[(size_t)v * W + u] += kernel.at(x, y);
    }
  Spectrum K = t.spectrum();
  t.forward(canvas, K);
  return K;
}

SharpStep::SharpStep(const Transforms& transforms, const RealPlane& blurred)
    : t_(transforms), y_(blurred), Y_(transforms.spectrum()), DD_(transforms.frequencies()) {
  t_.forward(y_, Y_);
  const int W = t_.width(), H = t_.height(), half = t_.half();
  for (int v = 0; v < H; ++v)
    for (int u = 0; u < half; ++u)
      DD_[(size_t)v * half + u] =
          (float)(4 - 2 * std::cos(2 * M_PI * u / W) - 2 * std::cos(2 * M_PI * v / H));
}

RealPlane SharpStep::solve(const Image& kernel, double lambda_gradient, double lambda_pixel, double kappa) const {
  const int W = t_.width(), H = t_.height();
  const size_t F = t_.frequencies(), N = t_.pixels();
  const Spectrum K = kernel_spectrum(t_, kernel);
  Spectrum KY(F), R = t_.spectrum();
  std::vector<float> KK(F);
  for (size_t f = 0; f < F; ++f) {
    KY[f] = std::conj(K[f]) * Y_[f];
    KK[f] = std::norm(K[f]);
  }
  RealPlane x = y_, gx, gy, rhs = t_.real();
  const double beta_max = 1e5;
  const float pixel_weight = lambda_pixel > 0 ? 1.0f : 0.0f;
  for (double beta = 2 * lambda_gradient; beta < beta_max; beta *= kappa) {
    gradients(x, W, H, gx, gy);
    const float tg = (float)(lambda_gradient / beta), tp = (float)(lambda_pixel / beta);
    for (size_t i = 0; i < N; ++i)
      if (gx[i] * gx[i] + gy[i] * gy[i] < tg) gx[i] = gy[i] = 0;
    // rhs = Dx^T h + Dy^T v (+ u): the adjoint differences of the kept gradients.
    for (int y = 0; y < H; ++y) {
      const float* hx = &gx[(size_t)y * W];
      const float* vy = &gy[(size_t)y * W];
      const float* vprev = &gy[(size_t)((y + H - 1) % H) * W];
      const float* xr = &x[(size_t)y * W];
      float* r = &rhs[(size_t)y * W];
      r[0] = hx[W - 1] - hx[0] + vprev[0] - vy[0];
      for (int i = 1; i < W; ++i) r[i] = hx[i - 1] - hx[i] + vprev[i] - vy[i];
      if (pixel_weight > 0)
        for (int i = 0; i < W; ++i) r[i] += xr[i] * xr[i] >= tp ? xr[i] : 0.0f;
    }
    t_.forward(rhs, R);
    const float b = (float)beta, scale = 1.0f / (float)N;
    for (size_t f = 0; f < F; ++f)
      R[f] = (KY[f] + b * R[f]) * (scale / (KK[f] + b * (DD_[f] + pixel_weight)));
    t_.backward(R, x);
  }
  return x;
}

}  // namespace estimation
}  // namespace deconv
