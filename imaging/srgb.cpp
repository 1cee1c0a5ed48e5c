#include "imaging/srgb.h"

#include <cmath>
#include <vector>

namespace deconv {
namespace imaging {

namespace {

// The encoding's own split between its straight and its power segments.
constexpr double encoded_knee = 0.04045, linear_knee = 0.0031308;

double decode_unsigned(const double v) { return v <= encoded_knee ? v / 12.92 : std::pow((v + 0.055) / 1.055, 2.4); }
double encode_unsigned(const double v) { return v <= linear_knee ? v * 12.92 : 1.055 * std::pow(v, 1 / 2.4) - 0.055; }

// A curve over 0..1 sampled at `steps` + 1 points, read linearly. The
// encoding's most curved part, at its knee, sets the size: 16384 intervals
// keep it within 4e-6.
class Table {
 public:
  explicit Table(double (*curve)(double)) : values_(steps + 2) {
    for (int i = 0; i <= steps; ++i) values_[i] = (float)curve((double)i / steps);
    values_[steps + 1] = values_[steps];  // so that 1 itself reads no further
  }
  float operator()(const float v) const {
    const float at = v * steps;
    const int i = (int)at;
    return values_[i] + (at - (float)i) * (values_[i + 1] - values_[i]);
  }

 private:
  static constexpr int steps = 16384;
  std::vector<float> values_;
};

const Table& decoding() {
  static const Table table(decode_unsigned);
  return table;
}

const Table& encoding() {
  static const Table table(encode_unsigned);
  return table;
}

}  // namespace

double srgb_decode_exact(const double v) { return v < 0 ? -decode_unsigned(-v) : decode_unsigned(v); }
double srgb_encode_exact(const double v) { return v < 0 ? -encode_unsigned(-v) : encode_unsigned(v); }

float srgb_decode(const float v) {
  return v >= 0 && v <= 1 ? decoding()(v) : std::isfinite(v) ? (float)srgb_decode_exact(v) : v;
}

float srgb_encode(const float v) {
  return v >= 0 && v <= 1 ? encoding()(v) : std::isfinite(v) ? (float)srgb_encode_exact(v) : v;
}

void srgb_decode(float* const samples, const size_t count) {
  const Table& table = decoding();
  for (size_t i = 0; i < count; ++i) {
    const float v = samples[i];
    samples[i] = v >= 0 && v <= 1 ? table(v) : std::isfinite(v) ? (float)srgb_decode_exact(v) : v;
  }
}

void srgb_encode(float* const samples, const size_t count) {
  const Table& table = encoding();
  for (size_t i = 0; i < count; ++i) {
    const float v = samples[i];
    samples[i] = v >= 0 && v <= 1 ? table(v) : std::isfinite(v) ? (float)srgb_encode_exact(v) : v;
  }
}

deconv::Image in_linear_light(const deconv::Image& picture, const std::string& light) {
  if (light != "linear" && light != "encoded")
    throw deconv::Error("unknown light '" + light + "': linear or encoded");
  deconv::Image linear = picture;
  if (light == "encoded") srgb_decode(linear.pixels.data(), linear.pixels.size());
  return linear;
}

}  // namespace imaging
}  // namespace deconv
