// deconv-estimate's estimator: the blur kernel of a picture, without the PSF.
//
// The method (coarse to fine, maximum a posteriori, after Xu, Zheng & Jia 2013
// and Pan, Hu, Su & Yang 2014), one stage a file:
//   window.cpp      the part of a large picture to estimate from, rich in edges
//   trust.cpp       refusals: too small, too noisy, a kernel not to stand behind
//                   (in parts, spread over its support, disagreeing between windows)
//   noise.cpp       the picture's noise, growing with its signal as a sensor's does
//   clipped.cpp     clipped highlights and the samples their cut-off blur reaches
//   pyramid.cpp     luminance, the scales, resampling, the smooth periodic extension
//   sharp_step.cpp  the sharp image for a kernel: L0 priors on gradients and
//                   intensities, half-quadratic splitting, closed form per step
//   kernel_step.cpp the kernel for a sharp image: least squares on gradients
//                   with a small Tikhonov term, solved on the kernel's support
//                   (at full resolution with a reweighted L1 penalty, lighter
//                   on the support found from the kernel's own gaps);
//                   negatives clipped, faint taps and specks removed,
//                   normalised; centring to a fraction of a pixel and trimming
//   estimate.cpp    the driver: estimate_psf; coarse to fine on salient edges,
//                   then a refinement on all gradients at full resolution
//                   from two cores of the kernel, the likelier kept
//   parametric.cpp  motion, disk and Gaussian fits, drawn by psf/kernels.h and
//                   sized by the picture's likelihood (also trust.cpp's check)
//   transforms.cpp  real-to-complex FFTW plans made once per size
#ifndef DECONV_ESTIMATE_ESTIMATE_H
#define DECONV_ESTIMATE_ESTIMATE_H

#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "deconv/deconv.h"
#include "estimate/transforms.h"

namespace deconv {

// EstimateOptions, PsfEstimate and estimate_psf() are declared in the public
// header.

constexpr int default_max_size = 41;

namespace estimation {

// The estimator's settings, chosen by measurement on bench/estimate_bench.cpp;
// tests and the evaluation may change them.
struct Tuning {
  double lambda_gradient = 8e-3, lambda_pixel = 4e-3, kappa = 2;  // sharp step
  int iterations = 5, finest_iterations = 2;  // alternations per level; at the finest
  double gamma = 0.2;                         // Tikhonov weight, relative to the gradients' energy
  double faint = 0.2, speck = 0.1;           // kernel clean-up
  double loop_faint = 0.1;  // faint taps removed after every kernel step
  double edges = 10;  // salient edges kept per orientation, in kernel sides (0: all)
  // The last refinement at full resolution: rounds, the core of the kernel it
  // starts from (taps of at least core of the largest), its Tikhonov weight
  // and the faint taps removed after it (instead of `faint`).
  int refine = 2;
  double refine_core = 0.3, refine_gamma = 0.02, refine_faint = 0.1;
  // A second start's core (0: none), kept when the picture's likelihood
  // prefers it by more than second_margin nats a pixel: long shakes whose
  // tails it kept won by 0.03, disks and motions it made worse by 0.003 at
  // most. On the camera-formed cases it answers more pictures well (75.0 %
  // within an error ratio of 3 against 68.8 % without it), for three more
  // made worse than blurred and a quarter more time; a 29-pixel shake on a
  // 31-pixel support is then refused as filling it.
  double refine_second_core = 0.1, second_margin = 0.01;
  // Its kernel step's L1 penalty (relative to the gradients' energy) on taps
  // outside the support and within it, the support's jump (in peaks over the
  // kernel's side and the round, after Xu & Jia 2010), the least |k| the
  // reweighting divides by (of the peak), its rounds, and the faint taps
  // removed after each round.
  double refine_l1 = 0.02, refine_l1_inside = 0.002, refine_jump = 0.5, refine_floor = 0.02;
  int refine_irls = 3;
  double refine_loop_faint = 0.02;
  // Refusal when the kernel gains less than trust_gain (nats a pixel) over no
  // blur and loses more than trust_loss to the likeliest disk, or gains less
  // than trust_least_gain: nothing, since the gain falls with the noise and
  // at ISO 3200 the pictures whose kernels gained under 0.35 still restored
  // better than their blur.
  double trust_gain = 2.5, trust_loss = 0.1, trust_least_gain = 0;
  // Clipped: samples within clip_margin of the values' spread below the
  // picture's peak, in flat tops.
  double clip_margin = 0.01;
  // Before: too noisy above trust_noise of the values' spread (noise from
  // the model); too flat when the contrast is below trust_signal noises.
  double trust_noise = 0.09, trust_signal = 2;
  // Too noisy at its own scale, a picture is estimated at half of it, and so
  // on down to 1 / coarsest (1: refused at once). Half answered every
  // camera-formed picture refused as too noisy at ISO 1600 to 3200
  // (bench/camera_bench.py), 6 of 7 better than their blur; a quarter
  // also answered white noise of half the values' range, with kernels of a
  // few pixels.
  int coarsest = 2;
  // A kernel in parts: pieces apart by more than part_gap pixels, the
  // heaviest holding no more than part_main of the weight (ghosts, scattered
  // fragments). Two pieces are a jerk of the camera as often as a ghost,
  // and noisy pictures' kernels come with side pieces and still restore
  // (at 0.55 two answers at ISO 3200 that gained were refused).
  int part_gap = 2;
  double part_main = 0.4;
  // Few natural edges: more than few_extremes of the picture at the ends of
  // its values, or fewer than few_steps of it at steps; then kernels from the
  // window's halves (at half scale), when their short sides are at least
  // agreement_side, must agree with the whole's by `agreement` (smaller
  // halves disagree with good kernels too; at 0.4 three ISO 3200 pictures
  // that restored better were refused, at 0.25 a rocket in the sky whose
  // halves agreed by 0.24 and whose kernel restores 1.5 dB above its blur;
  // 0.2 refused no fewer on bench/estimate_bench.cpp's two sets).
  double few_extremes = 0.55, few_steps = 0.02, agreement = 0.2;
  int agreement_side = 200;
};
Tuning& tuning();

// ---- pyramid.cpp
Image luminance(const Image& picture);                    // one plane
Image crop(const Image& plane, int x, int y, int width, int height);
Image resample(const Image& plane, int width, int height);  // anti-aliased when it shrinks
Image resize_kernel(const Image& kernel, int side);         // odd side, sum 1
// A kernel found at 1 / factor of the picture's scale, drawn at its scale:
// the same middle, every length times factor; odd side, sum 1.
Image enlarge_kernel(const Image& kernel, int factor);
// The first plane at (x, y) by bilinear interpolation; zeros beyond its edges.
double bilinear(const Image& plane, double x, double y);
struct Level {
  double scale;     // of the picture
  int kernel_side;  // odd
};
std::vector<Level> pyramid(int kernel_side);  // coarsest first, the last at scale 1
// `plane` in the top-left corner of a width x height canvas whose rest blends
// smoothly from its right and bottom edges back to its left and top ones, so
// that a periodic transform sees no edge.
RealPlane periodic_extension(const Image& plane, int width, int height);

// ---- sharp_step.cpp
// The sharp image x minimising |k * x - y|^2 + lg |grad x|_0 + lp |x|_0 on
// the periodic canvas, by half-quadratic splitting.
class SharpStep {
 public:
  SharpStep(const Transforms& transforms, const RealPlane& blurred);
  RealPlane solve(const Image& kernel, double lambda_gradient, double lambda_pixel, double kappa) const;

 private:
  const Transforms& t_;
  const RealPlane& y_;
  Spectrum Y_;
  std::vector<float> DD_;  // |Dx|^2 + |Dy|^2
};

// Forward differences on the periodic canvas.
void gradients(const RealPlane& in, int width, int height, RealPlane& gx, RealPlane& gy);
// The kernel of odd `side` as a periodic canvas with its middle at the origin.
Spectrum kernel_spectrum(const Transforms& t, const Image& kernel);

// ---- kernel_step.cpp
struct KernelProblem {
  std::vector<double> autocorrelation;  // lags -(side-1)..(side-1) squared
  std::vector<double> correlation;      // lags -(side/2)..(side/2) squared
  int side = 0;
};
// The normal equations of |grad x * k - grad y|^2 restricted to the kernel's
// support, from the gradient spectra of the sharp estimate and the picture.
KernelProblem kernel_problem(const Transforms& t, const Spectrum& sx, const Spectrum& sy, const Spectrum& bx,
                             const Spectrum& by, int side);
// Solves it with Tikhonov weight gamma (relative to the gradients' energy),
// starting from `start`, by conjugate gradients; negatives clipped.
Image solve_kernel(const KernelProblem& problem, const Image& start, double gamma);
// The kernel's support after Xu & Jia 2010: taps from the first gap of more
// than `jump` of the peak between sorted neighbouring values up.
std::vector<char> kernel_support(const Image& kernel, double jump);
// The same problem with an L1 penalty, `outside` (relative to the gradients'
// energy) on taps outside the start's support and `inside` within it, by
// `rounds` of reweighted least squares, |k| floored at `floor` of the start's
// peak; negatives clipped.
struct SparseWeights {
  double gamma, inside, outside, jump, floor;
  int rounds;
};
Image solve_kernel_sparse(const KernelProblem& problem, const Image& start, const SparseWeights& weights);
// Faint taps (below `faint` of the largest) and specks of less than `speck`
// of the weight removed, sum 1.
void clean_kernel(Image& kernel, double faint, double speck);
// The positive taps in groups: taps no more than `gap` pixels apart along
// both axes share one. Each group's taps as indices into kernel.pixels, in
// the order a depth-first walk from its first tap reaches them.
std::vector<std::vector<int>> tap_groups(const Image& kernel, int gap);
// Moved by whole pixels so that its first moment is within half a pixel of the middle.
Image recentre_whole(const Image& kernel);
// Trimmed to what it fills and moved by a fraction of a pixel (bilinear, which
// moves the first moment exactly) so that its first moment is on the middle
// pixel; largest tap 1.
Image centre_and_trim(const Image& kernel);
double first_moment(const Image& kernel, double& cx, double& cy);  // sum
// Keeps the sharp estimate's strongest gradients only (Cho & Lee 2009): the
// threshold leaves at least `count` pixels in each of four orientations.
void select_edges(RealPlane& gx, RealPlane& gy, size_t count);

// ---- parametric.cpp
// The model's parameters fitted by the data term |grad x * k - grad y|^2 of
// the sharp estimate, then the size (and a motion's angle) by the blurred
// picture's likelihood (as BlurLikelihood's, on its periodic component); the
// kernel drawn by psf/kernels.h; `free_kernel` gives the start; the sharp
// image's gradients marked in `ignore` (near clipped highlights) left out.
// Fills psf and description.
PsfEstimate fit_model(const std::string& model, const Image& free_kernel, const Transforms& t, const SharpStep& step,
                      const RealPlane& blurred_canvas, const Spectrum& bx, const Spectrum& by, int width, int height,
                      const Image& ignore);
Image draw(const std::string& model, double a, double b);  // largest tap 1
// Which of `kernels` the picture's spectrum finds likeliest, by the fits'
// likelihood (on the plane's periodic component, the prior's slope measured
// on photographs); the others must beat the first by `margin` nats a pixel.
size_t likeliest(const Image& plane, const std::vector<Image>& kernels, double margin);

// How well a kernel explains the picture: the negative log-likelihood of the
// picture's spectrum for that blur, a Gaussian prior on the sharp image's
// gradients and white noise, at their best weights (Lagendijk, Tekalp &
// Biemond 1990). Lower is better; it needs no sharp estimate, so it does
// not share the L0 sharp image's bias.
class BlurLikelihood {
 public:
  BlurLikelihood(const Transforms& t, const RealPlane& canvas, double noise);  // noise: its standard deviation
  double score(const Image& kernel) const;  // any sum; odd square

 private:
  const Transforms& t_;
  std::vector<float> power_, DD_, weight_;
  double floor_;  // the least noise power
};

// ---- noise.cpp
// Noise variance a * signal + b, in the plane's units.
struct NoiseModel {
  double a = 0, b = 0;
  double variance(double signal) const;
  double mean_variance(const Image& plane) const;  // over its samples
};
// Measured on the plane's 2 x 2 diagonal detail, binned by level; samples
// marked in `ignore` (clipped) left out.
NoiseModel noise_model(const Image& plane, const Image* ignore = nullptr);

// ---- clipped.cpp
// 1 where the plane has a clipped flat top, 0 elsewhere.
Image clipped_samples(const Image& plane);
// The clipped samples at a scale of width x height, and all within `reach` of them.
Image near_clipped(const Image& clipped, int width, int height, int reach);
bool any_marked(const Image& ignore);
// Gradients of the canvas (its top-left corner is the plane) zeroed where marked.
void drop_ignored(RealPlane& gx, RealPlane& gy, int canvas_width, const Image& ignore);
// The marked samples replaced by a smooth fill from the rest, with the
// noise the model gives for its level.
Image fill_ignored(const Image& plane, const Image& ignore, const NoiseModel& noise);

// ---- estimate.cpp
// The window's values as the estimate works on them at 1 / factor of their
// scale: clipped samples, their noise, the plane with the clipped ones
// filled, and the kernel's largest side there.
struct Scaled {
  Image plane, clipped;
  NoiseModel noise;
  int factor = 1, side = 0;
};
Scaled at_scale(const Image& seen, int factor, int side);

// ---- window.cpp
struct Window {
  int x = 0, y = 0, width = 0, height = 0;
};
// A window of about `pixels` pixels rich in edges; the whole plane if it is not larger.
Window choose_window(const Image& plane, long pixels);
// The window's two halves along its longer side.
std::pair<Window, Window> halves(const Window& win);

// ---- trust.cpp
// Noise standard deviation (0..1 units) from the finest diagonal wavelet band.
double noise_level(const Image& plane);
// The values a picture uses: its 1st percentile and the distance from there
// to its 99th.
struct Spread {
  double low = 0, width = 0;
};
Spread robust_spread(const Image& plane);
// The plane with its spread mapped onto 0..1 when that spread is far from
// 0..1 (below half of it, or above twice): the sharp step's weights were set
// on photographs that span most of 0..1. Others are returned as they are.
Image on_own_range(const Image& plane);
// Throws Error when some sample of the picture is NaN or infinite: one would
// spread through every transform of the estimate.
void check_finite(const Image& picture);
// Throws Error when the picture is too small, too flat or too noisy (by the
// noise model) for its spread of values; `plane` is the picture at 1 / factor
// of its scale.
void check_picture(const Image& plane, int kernel_side, const NoiseModel& noise, int factor = 1);
// Whether the noise (from the model) is above trust_noise of the picture's
// spread of values: too much to estimate the blur at this scale.
bool too_noisy(const Image& plane, const NoiseModel& noise);
// Throws Error when the kernel is not one to stand behind: filling its
// support, spread over it, or in separate parts (a ghost, fragments).
void check_kernel(const Image& kernel, int kernel_side);
// The kernel's pieces (taps apart by more than `gap` pixels are in different
// pieces), each one's share of the weight, heaviest first.
std::vector<double> kernel_parts(const Image& kernel, int gap);
// How a picture's edges are spread: the share of it at either end of its
// values (paper and ink, sky and night) and the share with steps well above
// its noise.
struct EdgeShares {
  double extremes = 0, steps = 0;
};
EdgeShares edge_shares(const Image& plane, const NoiseModel& noise);
// Few natural edges (text, sky): the blur is estimated on parts of the picture too.
bool few_natural_edges(const EdgeShares& shares);
// The normalised correlation of two kernels at their best whole-pixel alignment: 1 for one shape.
double kernel_agreement(const Image& a, const Image& b);
// On a picture of few natural edges (of at least twice agreement_side a
// side), throws Error when the kernel that `estimate` gives for either half
// at half scale (its plane, clipped samples and kernel side) does not agree
// with the whole's.
void check_halves(const Image& plane, const Image& clipped, const NoiseModel& noise, const Image& kernel,
                  const std::function<Image(const Image&, const Image&, int)>& estimate);
// Throws Error when the picture's likelihood (BlurLikelihood, its noise from
// the model) does not stand behind the kernel.
void check_likelihood(const Image& plane, const Image& kernel, int kernel_side, int threads, const NoiseModel& noise);

}  // namespace estimation
}  // namespace deconv

#endif
