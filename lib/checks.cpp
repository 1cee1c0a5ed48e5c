// Refusals and repairs of the library's inputs. The engine would otherwise
// turn them into results that look like results: one NaN spreads through a
// whole channel's transform, a PSF wider than the picture wraps round into
// one flat grey, and a PSF on a background restores with ringing and a
// changed flux.
#include "lib/checks.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

#include "lib/image_views.h"

namespace libdeconv {

namespace {

std::string share(const double value) {
  char text[32];
  std::snprintf(text, sizeof text, "%.3g", value);
  return text;
}

std::string on_background(const Pedestal& pedestal) {
  return "the PSF stands on a background (its border's floor is " + share(pedestal.level) + " of its peak, " +
         share(100 * pedestal.share) + " % of its weight)";
}

void refuse_nonfinite(const Image& blurred) {
  int x = 0, y = 0, c = 0;
  const size_t count = count_nonfinite(blurred, x, y, c);
  if (count == 0) return;
  const std::string where = "x " + std::to_string(x) + ", y " + std::to_string(y) + ", channel " + std::to_string(c);
  throw Error("the picture holds " + std::to_string(count) +
              " samples that are not finite (NaN or infinite), the first at " + where +
              "; repair_nonfinite (--repair-nonfinite) replaces them by their neighbours' median");
}

}  // namespace

void repair_where_asked(Image& blurred, const RestoreOptions& options) {
  if (!options.repair_nonfinite) return;
  int x = 0, y = 0, c = 0;
  const size_t count = count_nonfinite(blurred, x, y, c);
  if (count == 0) return;
  repair_nonfinite(blurred);
  if (options.notice)
    options.notice("replaced " + std::to_string(count) +
                   " samples that are not finite (NaN or infinite) by their neighbours' median, the first at x " +
                   std::to_string(x) + ", y " + std::to_string(y) + ", channel " + std::to_string(c));
}

namespace {

void require_psf_fits(const Image& blurred, const Image& psf) {
  if (psf.width > blurred.width || psf.height > blurred.height)
    throw Error("the PSF (" + std::to_string(psf.width) + " x " + std::to_string(psf.height) +
                ") is larger than the picture (" + std::to_string(blurred.width) + " x " +
                std::to_string(blurred.height) + "): crop it to its blur");
}

bool psf_is_finite(const Image& psf) {
  for (size_t i = 0; i < (size_t)psf.width * psf.height; ++i)
    if (!std::isfinite(psf.pixels[i])) return false;
  return true;
}

bool is_flat(const Image& image) {
  const size_t plane = (size_t)image.width * image.height;
  for (int c = 0; c < image.channels; ++c) {
    const float* const first = image.pixels.data() + c * plane;
    if (std::any_of(first, first + plane, [first](const float v) { return v != *first; })) return false;
  }
  return true;
}

// The median of `values`, which it reorders.
float median(std::vector<float>& values) {
  const auto middle = values.begin() + values.size() / 2;
  std::nth_element(values.begin(), middle, values.end());
  return *middle;
}

}  // namespace

size_t count_nonfinite(const Image& image, int& first_x, int& first_y, int& first_c) {
  size_t count = 0;
  // From the end, so that the place kept is the first one's.
  for (size_t i = image.pixels.size(); i-- > 0;)
    if (!std::isfinite(image.pixels[i])) {
      ++count;
      first_x = (int)(i % image.width);
      first_y = (int)(i / image.width % image.height);
      first_c = (int)(i / image.width / image.height);
    }
  return count;
}

// In passes, each filling the non-finite samples that have a finite one among
// their eight neighbours from the samples before the pass: a hole closes from
// its rim inwards, each sample taking the values nearest to it, and the cost
// stays with the holes, not with the picture.
void repair_nonfinite(Image& image) {
  const int w = image.width, h = image.height;
  for (int c = 0; c < image.channels; ++c) {
    float* const plane = image.pixels.data() + (size_t)c * w * h;
    std::vector<size_t> holes;
    for (size_t i = 0; i < (size_t)w * h; ++i)
      if (!std::isfinite(plane[i])) holes.push_back(i);
    if (holes.size() == (size_t)w * h)
      throw Error("channel " + std::to_string(c) + " of the picture has no finite sample");
    std::vector<std::pair<size_t, float>> filled;
    std::vector<float> around;
    while (!holes.empty()) {
      filled.clear();
      std::vector<size_t> left;
      for (const size_t i : holes) {
        const int x = (int)(i % w), y = (int)(i / w);
        around.clear();
        for (int v = std::max(0, y - 1); v <= std::min(h - 1, y + 1); ++v)
          for (int u = std::max(0, x - 1); u <= std::min(w - 1, x + 1); ++u)
            if (std::isfinite(plane[(size_t)v * w + u])) around.push_back(plane[(size_t)v * w + u]);
        if (around.empty())
          left.push_back(i);
        else
          filled.emplace_back(i, median(around));
      }
      for (const auto& [i, value] : filled) plane[i] = value;
      holes.swap(left);
    }
  }
}

Pedestal psf_pedestal(const Image& psf) {
  const int w = psf.width, h = psf.height;
  std::vector<float> ring;
  float peak = 0;
  double sum = 0;
  for (int y = 0; y < h; ++y)
    for (int x = 0; x < w; ++x) {
      const float v = psf.at(x, y);
      peak = std::max(peak, v);
      sum += v;
      if (x == 0 || y == 0 || x == w - 1 || y == h - 1) ring.push_back(v);
    }
  // A PSF of one or two rows is all border: nothing there is a background.
  if (w < 3 || h < 3 || !(peak > 0) || !(sum > 0)) return {};
  const auto quartile = ring.begin() + ring.size() / 4;
  std::nth_element(ring.begin(), quartile, ring.end());
  const double level = *quartile;
  return {level / peak, level * w * h / sum};
}

std::optional<CheckedInputs> check_restore_inputs(const Image& blurred, const Image& psf,
                                                  const RestoreOptions& options) {
  require_picture(blurred, "the picture");
  require_picture(psf, "the PSF");
  require_psf_fits(blurred, psf);
  refuse_nonfinite(blurred);
  const bool choose_for_flat = options.strength < 0 && is_flat(blurred);
  // A PSF that is not finite is the engine's checks' to refuse.
  const Pedestal pedestal = psf_is_finite(psf) ? psf_pedestal(psf) : Pedestal();
  if (!pedestal.background() && !choose_for_flat) return std::nullopt;
  CheckedInputs checked{psf, options};
  if (choose_for_flat) checked.options.strength = 10;
  if (!pedestal.background()) return checked;
  if (!options.subtract_psf_background)
    throw Error(on_background(pedestal) +
                ": subtract the background, or let subtract_psf_background (--subtract-psf-background) do it");
  Image& plane = checked.psf;
  plane = Image(psf.width, psf.height, 1);
  const float peak = *std::max_element(psf.pixels.begin(), psf.pixels.begin() + plane.pixels.size());
  const float background = (float)(pedestal.level * peak);
  for (size_t i = 0; i < plane.pixels.size(); ++i) plane.pixels[i] = std::max(0.0f, psf.pixels[i] - background);
  if (options.notice)
    options.notice("took the PSF's background (" + share(pedestal.level) + " of its peak) off its taps");
  return checked;
}

int cautious_strength(const int chosen, const RestoreOptions& options) {
  if (!options.estimated_psf) return chosen;
  return (int)std::min(200L, std::lround(chosen * deconv::estimated_psf_caution));
}

void check_strength_inputs(const Image& blurred, const Image& psf) {
  require_picture(blurred, "the picture");
  require_picture(psf, "the PSF");
  require_psf_fits(blurred, psf);
  int x = 0, y = 0, c = 0;
  const size_t count = count_nonfinite(blurred, x, y, c);
  if (count)
    throw Error("the picture holds " + std::to_string(count) +
                " samples that are not finite (NaN or infinite), the first at x " + std::to_string(x) + ", y " +
                std::to_string(y) + ", channel " + std::to_string(c));
  if (is_flat(blurred))
    throw Error("the picture is flat (each channel holds one value throughout): no strength can be judged by it");
  if (psf_is_finite(psf) && psf_pedestal(psf).background())
    throw Error(on_background(psf_pedestal(psf)) + ": subtract the background first");
}

void check_richardson_lucy(const RestoreOptions& options, const Image& kernel) {
  if (options.exact) throw Error("deconv's own engine has the Wiener filter only, not richardson-lucy");
  if (options.iterations < 0) throw Error("the iterations are negative");
  if (!(options.total_variation >= 0 && options.total_variation < 1))
    throw Error("the total variation's weight must be from 0 to below 1");
  for (const float p : kernel.pixels)
    if (!std::isfinite(p)) throw Error("the PSF holds a value that is not finite");
}

}  // namespace libdeconv
