// Restoration in overlapping tiles, for a picture or stack whose restoration
// would take more working memory than RestoreOptions::memory allows. restore()
// comes here first; each tile goes back to restore() whole, and only its inner
// part is kept. The overlap is the PSF's extent along each axis it blurs, so
// every kept sample saw the data its restoration depends on.
#include <algorithm>
#include <array>
#include <cmath>

#include "lib/checks.h"
#include "lib/engines.h"
#include "lib/image_views.h"
#include "lib/tiles.h"
#include "spectral/real_fft.h"

namespace libdeconv {

namespace {

// The sample (x, y, z) of channel c in a picture's planes.
size_t offset(const Image& image, int x, int y, int z, int c) {
  return (((size_t)c * image.depth + z) * image.height + y) * image.width + x;
}

// Working bytes a sample of one restoration takes beyond the picture and its
// result: bench/tile_footprint.py measures the peak resident memory of calls
// on 2 to 17 megasamples, 40 to 41 for Richardson-Lucy's seven arrays and two
// spectra on its extended grid, 8.5 to 9.5 for the filter's spectra and taper
// on the picture's own, 33 for deconv's engine; these are rounded up. A
// tile's own copy and its result add 8 bytes a sample.
// The sparse prior keeps ten arrays and four spectra on its extended grid
// (counted, not measured).
constexpr double sparse_bytes = 56;
constexpr double richardson_lucy_bytes = 42, wiener_bytes = 12, exact_bytes = 36, tile_copy_bytes = 8;

// How many PSF extents a tile reaches beyond the samples it keeps, measured
// as the largest change of a kept sample (tests/commands/restore/
// tiles_test.cpp), 1e-3 of the picture's range being the bound. The filter's
// edge taper blends a band of about twice the PSF and a margin along every
// edge of what it restores: on a photograph under a Gaussian of sigma 2, one
// extent leaves 4e-2 of the range in the kept samples, two and three 6e-4,
// four 1.3e-4 (and nothing further than 30 samples from the picture's
// edges). Richardson-Lucy reaches a PSF further each iteration, but what it
// reaches fades fast: two extents leave 1e-5 after 20 iterations.
// The sparse prior's few steps reach further than any PSF (each x-step
// solves a Poisson equation where the PSF passes nothing), and its prior is
// not convex: a kept sample can land on the other side of a threshold. Four
// extents and eight give alike: a few samples in a thousand off by more than
// 1e-2 (tests/lib/sparse_method_test.cpp).
constexpr int wiener_overlap_extents = 4, richardson_lucy_overlap_extents = 2, sparse_overlap_extents = 4;

struct Box {
  std::array<int, 3> begin{}, end{};  // z, y, x
  int size(int axis) const { return end[axis] - begin[axis]; }
};

struct Plan {
  std::array<int, 3> sizes{}, psf{}, overlap{}, count{1, 1, 1};
  int channels = 1;
  bool volume = false;  // one restoration for all planes (a 3-D PSF)
  bool richardson_lucy = false, exact = false, sparse = false;

  int core(int axis) const { return (sizes[axis] + count[axis] - 1) / count[axis]; }

  // The largest tile, overlap included.
  std::array<int, 3> largest() const {
    std::array<int, 3> t{};
    for (int a = 0; a < 3; ++a) t[a] = std::min(sizes[a], core(a) + 2 * overlap[a]);
    return t;
  }

  double footprint(const std::array<int, 3>& tile) const {
    const double planes = (double)tile[0] * channels;
    if (richardson_lucy || sparse) {
      // One channel of one volume, or of one plane, at a time, on the grid
      // extended by the PSF.
      double extended = (double)deconv::spectral::good_size(tile[1] + psf[1] - 1) * deconv::spectral::good_size(tile[2] + psf[2] - 1);
      if (volume) extended *= deconv::spectral::good_size(tile[0] + psf[0] - 1);
      return (sparse ? sparse_bytes : richardson_lucy_bytes) * extended + tile_copy_bytes * planes * tile[1] * tile[2];
    }
    // The filter: one plane of every channel at a time.
    const double plane = (double)channels * tile[1] * tile[2];
    return (exact ? exact_bytes : wiener_bytes) * plane + tile_copy_bytes * planes * tile[1] * tile[2];
  }

  Box tile(const std::array<int, 3>& index) const {
    Box box;
    for (int a = 0; a < 3; ++a) {
      box.begin[a] = index[a] * core(a);
      box.end[a] = std::min(sizes[a], box.begin[a] + core(a));
    }
    return box;
  }
};

Plan plan_tiles(const Image& blurred, const Image& psf, const RestoreOptions& options) {
  Plan plan;
  plan.sizes = {blurred.depth, blurred.height, blurred.width};
  plan.channels = blurred.channels;
  plan.richardson_lucy = options.method == "richardson-lucy";
  plan.exact = options.exact;
  plan.sparse = options.method == "sparse";
  plan.volume = (plan.richardson_lucy || plan.sparse) && psf.depth > 1;
  plan.psf = {plan.volume ? psf.depth : 1, psf.height, psf.width};
  const int extents = plan.richardson_lucy ? richardson_lucy_overlap_extents
                      : plan.sparse      ? sparse_overlap_extents
                                         : wiener_overlap_extents;
  for (int a = 0; a < 3; ++a) plan.overlap[a] = plan.psf[a] > 1 ? extents * plan.psf[a] : 0;
  // Split the axis that lowers the footprint most while its tiles keep at
  // least a sample of their own and are no smaller than the PSF.
  while (plan.footprint(plan.largest()) > (double)options.memory) {
    int best = -1;
    double best_footprint = 0;
    for (int a = 0; a < 3; ++a) {
      Plan more = plan;
      ++more.count[a];
      if (more.core(a) * (more.count[a] - 1) >= plan.sizes[a]) continue;  // a tile of nothing
      if (more.largest()[a] < plan.psf[a]) continue;
      const double f = more.footprint(more.largest());
      if (f < plan.footprint(plan.largest()) && (best < 0 || f < best_footprint)) best = a, best_footprint = f;
    }
    if (best < 0)
      throw Error("the memory allowed, " + std::to_string(options.memory >> 20) +
                  " MiB, is too little for the smallest tile: it needs " +
                  std::to_string((size_t)std::ceil(plan.footprint(plan.largest()) / (1 << 20))) + " MiB");
    ++plan.count[best];
  }
  return plan;
}

Image cut(const Image& image, const Box& box) {
  Image part(box.size(2), box.size(1), box.size(0), image.channels);
  for (int c = 0; c < image.channels; ++c)
    for (int z = 0; z < part.depth; ++z)
      for (int y = 0; y < part.height; ++y) {
        const float* from = image.pixels.data() + offset(image, box.begin[2], box.begin[1] + y, box.begin[0] + z, c);
        std::copy(from, from + part.width, part.pixels.begin() + offset(part, 0, y, z, c));
      }
  return part;
}

// The tile's samples inside `keep`, put where they belong in `whole`.
void paste(const Image& part, const Box& from, const Box& keep, Image& whole) {
  for (int c = 0; c < whole.channels; ++c)
    for (int z = keep.begin[0]; z < keep.end[0]; ++z)
      for (int y = keep.begin[1]; y < keep.end[1]; ++y) {
        const float* source =
            part.pixels.data() + offset(part, keep.begin[2] - from.begin[2], y - from.begin[1], z - from.begin[0], c);
        std::copy(source, source + keep.size(2), whole.pixels.begin() + offset(whole, keep.begin[2], y, z, c));
      }
}

}  // namespace

std::optional<Image> restore_in_tiles(const Image& blurred, const Image& psf, const RestoreOptions& options) {
  if (options.memory == 0) return std::nullopt;
  require_picture(psf, "the PSF");
  const Plan plan = plan_tiles(blurred, psf, options);
  if (plan.count == std::array<int, 3>{1, 1, 1}) return std::nullopt;

  // Every tile restores with what the whole would restore with: the checks
  // and repairs made once, on the whole (their places are the whole's), and
  // a strength chosen once, on the middle tile, rather than one per tile.
  RestoreOptions each = options;
  each.memory = 0;
  each.repair_nonfinite = false;
  each.subtract_psf_background = false;
  Image repaired;
  const Image* whole = &blurred;
  if (options.repair_nonfinite) {
    repaired = blurred;
    repair_where_asked(repaired, options);
    whole = &repaired;
  }
  const std::optional<CheckedInputs> checked = check_restore_inputs(*whole, psf, options);
  const Image& kernel = checked ? checked->psf : psf;
  if (checked) each.strength = checked->options.strength;
  // The sparse prior's weight follows each tile's own noise.
  if (!plan.richardson_lucy && !plan.sparse && each.strength < 0 && psf.depth == 1) {
    Box middle;
    for (int a = 0; a < 3; ++a) {
      const int index = plan.count[a] / 2;
      middle.begin[a] = std::max(0, index * plan.core(a) - plan.overlap[a]);
      middle.end[a] = std::min(plan.sizes[a], (index + 1) * plan.core(a) + plan.overlap[a]);
    }
    middle.begin[0] = plan.sizes[0] / 2, middle.end[0] = middle.begin[0] + 1;  // a plane: the strength is a plane's
    each.strength = cautious_strength(deconv::choose_strength(cut(*whole, middle), kernel, options.compressed), options);
  }

  // Richardson-Lucy's tiles start from the whole's level: each volume's (or
  // plane's) mean less the background, not their own part's.
  std::vector<float> starts;
  if (plan.richardson_lucy) {
    check_richardson_lucy(options, kernel);
    const size_t block = (size_t)blurred.width * blurred.height * (plan.volume ? blurred.depth : 1);
    for (size_t b = 0; b < whole->pixels.size() / block; ++b) {
      double sum = 0;
      for (size_t i = b * block; i < (b + 1) * block; ++i) sum += whole->pixels[i];
      starts.push_back((float)std::max(1e-6, sum / block - options.background));
    }
  }

  Image result(blurred.width, blurred.height, blurred.depth, blurred.channels);
  const int tiles = plan.count[0] * plan.count[1] * plan.count[2];
  if (options.notice) {
    const std::array<int, 3> t = plan.largest();
    options.notice("restored in " + std::to_string(tiles) + " overlapping tiles of up to " + std::to_string(t[2]) +
                   " x " + std::to_string(t[1]) + " x " + std::to_string(t[0]) + " samples");
  }
  std::array<int, 3> index{};
  for (index[0] = 0; index[0] < plan.count[0]; ++index[0])
    for (index[1] = 0; index[1] < plan.count[1]; ++index[1])
      for (index[2] = 0; index[2] < plan.count[2]; ++index[2]) {
        const Box keep = plan.tile(index);
        Box from = keep;
        for (int a = 0; a < 3; ++a) {
          from.begin[a] = std::max(0, keep.begin[a] - plan.overlap[a]);
          from.end[a] = std::min(plan.sizes[a], keep.end[a] + plan.overlap[a]);
        }
        each.notice = index == std::array<int, 3>{} ? options.notice : nullptr;  // said once
        if (!plan.richardson_lucy) {
          paste(deconv::restore(cut(*whole, from), kernel, each), from, keep, result);
          continue;
        }
        std::vector<float> tile_starts;
        for (int c = 0; c < blurred.channels; ++c)
          for (int z = from.begin[0]; z < (plan.volume ? from.begin[0] + 1 : from.end[0]); ++z)
            tile_starts.push_back(starts[plan.volume ? c : (size_t)c * blurred.depth + z]);
        FlushDenormals denormals;
        paste(restore_richardson_lucy(cut(*whole, from), kernel, options, worker_count(options.workers), nullptr,
                                      tile_starts),
              from, keep, result);
      }
  return result;
}

}  // namespace libdeconv
