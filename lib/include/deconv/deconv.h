// libdeconv: restores blurred pictures by closed-form non-blind deconvolution
// in the frequency domain, chooses the regularisation strength for a picture,
// draws the PSFs of common blurs and estimates a PSF from a blurred picture.
//
// Pictures are float planes. Any number of calls may run at once, from any
// number of threads and processes: every restoration has a pool of worker
// threads (and, on deconv's own engine, semaphores) of its own, which nothing
// outside it can see. The
// library never prints and never ends the process; every failure is a
// deconv::Error whose message says what was wrong.
#ifndef DECONV_DECONV_H
#define DECONV_DECONV_H

#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

namespace deconv {

class Error : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// A picture of `channels` planes of width x height samples, or a stack of
// `depth` such pictures (a z-stack, a volume). The planes stand one after
// another, each row by row, a channel's planes together: sample (x, y, z) of
// channel c is pixels[((c * depth + z) * height + y) * width + x]. Values are
// whatever the caller means by them; restore() works on 0..1 as the files'
// full range, or on counts (richardson-lucy).
struct Image {
  int width = 0;
  int height = 0;
  int depth = 1;
  int channels = 0;
  std::vector<float> pixels;

  Image() = default;
  Image(int width, int height, int channels);             // all samples 0
  Image(int width, int height, int depth, int channels);  // a stack, all samples 0

  float& at(int x, int y, int c = 0) { return pixels[((size_t)c * depth * height + y) * width + x]; }
  float at(int x, int y, int c = 0) const { return pixels[((size_t)c * depth * height + y) * width + x]; }
  float& at(int x, int y, int z, int c) { return pixels[(((size_t)c * depth + z) * height + y) * width + x]; }
  float at(int x, int y, int z, int c) const { return pixels[(((size_t)c * depth + z) * height + y) * width + x]; }
  bool empty() const { return pixels.empty(); }
};

struct RestoreOptions {
  // Regularisation in tenths of lambda, 0 to 200, as deconv's STRENGTH.
  // Negative: chosen for the picture by choose_strength().
  int strength = -1;
  // Worker threads; 0 takes the machine's cores.
  int workers = 0;
  // The bare restoration stands one pixel off its input (the PSF's origin is
  // taken one pixel short of its middle). align moves it back.
  bool align = true;
  // Clamp the result to 0..1. Off, a float result keeps its ringing.
  bool clamp = false;
  // The picture was saved as JPEG: for choose_strength(), and
  // richardson-lucy's automatic stop comes after at most 5 iterations (the
  // compression hides the grain its noise measure reads).
  bool compressed = false;
  // The PSF was estimated from the picture itself (estimate_psf()): the
  // filter's strength, where it is chosen, is estimated_psf_caution times
  // choose_strength()'s (at most 200). Such a kernel's errors act as noise
  // that grows with the picture's detail, which the choice does not see.
  bool estimated_psf = false;
  // deconv's own engine, for deconv's very numbers (with align and clamp
  // off, the planes deconv computes before it clamps and saves), in place of
  // the second engine, which agrees with it to float rounding (2e-4 at most
  // on pictures in 0..1) in a fraction of its time and memory, and gives the
  // same bits for any number of workers. The strength, where it is chosen,
  // is chosen alike for both.
  bool exact = false;
  // "auto": "sparse" for photographs as cameras save them (`light`
  // "encoded", a single plane, the prior's weight chosen, not exact, the PSF
  // not estimated): it
  // restores camera-formed photographs within 0.1 dB of a Richardson-Lucy
  // stopped at its best, the filter 1 dB below (bench/camera_bench.py);
  // "wiener" on the stored values ("linear") for everything else.
  // "wiener": the closed-form filter above (2-D PSFs, each plane of a stack
  // on its own). "richardson-lucy": the maximum-likelihood
  // restoration of photon counts (Poisson noise on a background), for
  // microscopy and astronomy, non-negative, its borders restored as well as
  // its middle; with a 3-D PSF a stack is restored as a volume. "sparse": a
  // hyper-Laplacian prior on the gradients (Krishnan & Fergus 2009), for
  // photographs in 0..1: sharper edges and about 1 dB above the filter on
  // blurred photographs (bench/sparse_bench.cpp), its borders restored as
  // well as its middle; the prior's weight is strength / 1e5 where a
  // strength is given, else it follows the picture's noise; each plane (or,
  // with a 3-D PSF, each stack) on its own; align does not apply; its prior
  // is not convex, and tiles (`memory`) leave a few samples in a thousand
  // 1e-2 of the range or more from the untiled result. The exact
  // engine has the filter only.
  std::string method = "auto";
  // richardson-lucy: the iterations; 0 stops where the fit to the data is as
  // close as their noise allows.
  int iterations = 0;
  // richardson-lucy: what every sample holds besides the object's light
  // (camera offset, sky), in the picture's units.
  float background = 0;
  // richardson-lucy: the weight of a total-variation prior for noisy data,
  // 0 (none) to about 0.02; larger flattens detail.
  float total_variation = 0;
  // richardson-lucy: extrapolate the iterations (Biggs & Andrews), which
  // reaches a fit in a few times fewer of them. Its step is measured on the
  // whole picture, so a picture restored in parts (tiles, dask blocks) gives
  // the result of the whole only with it off and `iterations` fixed.
  bool accelerate = true;
  // Working memory the restoration may take, in bytes, besides the picture
  // and its result; 0: what it needs. A picture or stack whose restoration
  // would take more is restored in overlapping tiles (along z, y and x as
  // the budget asks), the overlap set by the PSF's extent, each tile's inner
  // part kept: the result stays within 1e-3 of the picture's range of the
  // untiled one away from the picture's own borders. The strength, where it
  // is chosen, is chosen once on the middle tile; richardson-lucy's automatic
  // stop and its extrapolation are each tile's own: give it `iterations` and
  // accelerate off for the untiled result.
  size_t memory = 0;
  // How the values stand to light. "linear": in proportion to it, restored
  // as they are. "encoded": 0..1 through the sRGB curve, as 8-bit JPEG and
  // PNG files store them; a blur happens in light, before the camera encodes
  // it, so they are decoded before the restoration and its result encoded
  // again.
  std::string light = "linear";
  // The clipping level, in the picture's units (before any decoding): a
  // sample at or above it says only that its light was at least that much.
  // richardson-lucy leaves those samples, and every one their blur reaches,
  // out of its fit (they keep their values) and tells `notice` how many;
  // sparse holds them to the level as a lower bound.
  // 0: 0.98 where the picture lies within 0..1 (a file's full range), none
  // otherwise; negative: none. The wiener filter weighs every sample alike:
  // given a level, it says in a notice how many samples it rings around.
  float highlights = 0;

  // Samples of the picture that are not finite (NaN, infinite) are refused,
  // naming their count and the first one; with repair_nonfinite each is
  // replaced by the median of the finite samples around it, and `notice` is
  // told how many were.
  bool repair_nonfinite = false;
  // A PSF that stands on a background (a bead or star cut from a picture with
  // its sky: the lower quartile of its border, laid under all its taps, more
  // than 5 % of its weight, yet at most a fifth of its peak) is refused; with
  // subtract_psf_background that quartile is taken off every tap (negatives
  // become 0), and `notice` is told.
  bool subtract_psf_background = false;
  // Told, in one line each, what the restoration changed in its input. The
  // library never prints; a command prints these as warnings.
  std::function<void(const std::string& message)> notice;
};

// Restores `blurred` with the blur `psf` (one plane of any size and scale: it
// is centred on its first moment and normalised to sum 1). The result has
// blurred's size and channels. With exact on, align and clamp off, and the
// picture's samples divided by 255, the planes are those deconv computes
// before it clamps and saves. Throws Error for an empty picture or PSF, a PSF
// of no weight or one that is not finite, a strength above 200, (exact) a
// picture too small for the PSF's edge taper, a PSF larger than the picture
// in either dimension, a picture with samples that are not finite and a PSF
// on a background (unless the options repair them).
Image restore(const Image& blurred, const Image& psf, const RestoreOptions& options = RestoreOptions());

// The same, taking the picture's planes over: its memory is given back
// before the call returns (the exact engine restores in them).
Image restore(Image&& blurred, const Image& psf, const RestoreOptions& options = RestoreOptions());

// The strength (1 to 200, tenths of lambda) expected to restore `blurred`
// best with `psf`, by generalised cross-validation of the restoration's own
// filter. The same number deconv-strength prints. `compressed`: the picture
// was saved as JPEG, whose quantisation hides much of its grain from the
// choice; the strength is then a quarter higher. Throws Error for what it
// cannot judge: the pictures restore() refuses, and a picture without any
// variation.
int choose_strength(const Image& blurred, const Image& psf, bool compressed = false);

// How much stronger the filter restores with an estimated PSF
// (RestoreOptions::estimated_psf). On bench/camera_bench.py's 48
// camera-formed photographs, 4 left 3 of the 36 answered worse than their
// blurred picture (8 at 1) and raised the mean PSNR by 0.23 dB; 3 to 8 came
// within 0.03 dB of that. On its set blurred without a camera it cost
// 0.08 dB and left one fewer worse, where 2 gained 0.08 dB.
constexpr double estimated_psf_caution = 4;

// The PSF of a common blur, as deconv-psf draws it: a square of odd side, its
// middle pixel at the blur's centre, the largest tap 1. `description` is one
// of "gaussian:SIGMA", "motion:LENGTH,ANGLE" (degrees counter-clockwise from
// +x), "disk:RADIUS", "box:W,H"; lengths in pixels. Or a widefield
// fluorescence microscope's 3-D PSF, "widefield:NA,WAVELENGTH,INDEX,PIXEL,
// ZSTEP[,PLANES[,SAMPLE_INDEX,DEPTH]]" (lengths in nm at the sample, INDEX
// the immersion's): a stack of PLANES (odd, the focus in the middle; 0 or
// none: four axial half-widths either side) by the scalar non-paraxial Born
// & Wolf model, sampled at the centres of the voxels, for restore()'s
// Richardson-Lucy; with SAMPLE_INDEX and DEPTH, a point that deep in a
// sample of that index (Gibson & Lanni), centred on its brightest point.
// Throws Error for anything else, naming what was wrong, for a PSF wider than
// 2001 pixels or deeper than 2001 planes, and for NA not below INDEX.
Image draw_psf(const std::string& description);

struct EstimateOptions {
  // The largest kernel side in pixels; 0 takes 41. The kernel returned is
  // trimmed to what it fills.
  int max_size = 0;
  // The part of the picture to estimate from; width 0: a window of about a
  // megapixel chosen for its edges (the whole of a smaller picture).
  int region_x = 0, region_y = 0, region_width = 0, region_height = 0;
  // "kernel" (free form), or a "motion", "disk" or "gaussian" fitted to the
  // picture and drawn as draw_psf() draws it.
  std::string model = "kernel";
  int threads = 0;  // 0: the machine's cores
  // As RestoreOptions::light: "encoded" pictures are decoded to light first.
  std::string light = "linear";
  // Told as each stage and scale begins: the stage ("coarse to fine",
  // "refining", "fitting", "checking") and the scale of the picture it works
  // on (1 is full size), about ten calls an estimate. Called on the caller's
  // thread.
  std::function<void(const std::string& stage, double scale)> progress;
};

struct PsfEstimate {
  Image psf;  // one plane, odd square, largest tap 1, first moment on its centre pixel
  // "motion LENGTH ANGLE", "disk RADIUS", "gaussian SIGMA" (deconv-psf's
  // words, to draw it again) or "kernel W H".
  std::string description;
};

// Estimates the blur of `blurred` (0..1 planes, grey or colour) from the
// picture alone, by coarse-to-fine maximum a posteriori estimation on its
// luminance. Throws Error with the reason where the picture is too small, too
// flat or too noisy for an estimate to be trusted, "flat" and "noisy" being
// measured against the picture's own robust spread of values, not 0..1.
PsfEstimate estimate_psf(const Image& blurred, const EstimateOptions& options = EstimateOptions());

}  // namespace deconv

#endif
