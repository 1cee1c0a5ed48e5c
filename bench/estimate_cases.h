// The evaluation of deconv-estimate, shared by bench/estimate_bench.cpp (the
// whole evaluation, `make bench`) and tests/estimate (a small sample).
//
// Cases: real photographs (Debian's sample photographs in .cache/testdata),
// a crop blurred as a camera blurs (the scene beyond the crop taken in, the
// photograph reflected at its own edges), by random camera-shake kernels from
// a trajectory model, linear motions, defocus disks and Gaussians of extents
// up to 32 pixels, with Gaussian noise from none to 1 % and quantised to 8
// bits. Each is estimated without its kernel's size, then restored with the
// estimated PSF and with the true one, both as deconv restores (its engine,
// at the strength deconv-strength chooses), and compared with the sharp crop
// over the interior at the best whole-pixel offset.
#ifndef DECONV_BENCH_ESTIMATE_CASES_H
#define DECONV_BENCH_ESTIMATE_CASES_H

#include <chrono>
#include <cmath>
#include <complex>
#include <cstdio>
#include <map>
#include <random>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

#include <unistd.h>

#include "engine/deconv.h"
#include "estimate/estimate.h"
#include "bench/photo_cases.h"
#include "psf/kernels.h"
#include "tool/image_io.h"
#include "tool/value_range.h"

namespace estimate_eval {

using cimg_library::CImg;

enum class Kind { shake, motion, disk, gaussian };
inline const char* kind_name(Kind k) {
  return k == Kind::shake ? "shake" : k == Kind::motion ? "motion" : k == Kind::disk ? "disk" : "gaussian";
}

struct Blur {
  Kind kind;
  double a = 0, b = 0;  // motion: length, degrees; disk: radius; gaussian: sigma
  CImg<float> psf;      // sum 1
};

// A random camera shake (after Boracchi & Foi's trajectory model): a path of
// inertial steps with random accelerations, a pull back to the start and the
// odd abrupt jerk, scaled to `extent` pixels at its widest, drawn bilinearly.
inline CImg<float> shake_psf(double extent, std::mt19937& rng) {
  std::uniform_real_distribution<double> uni(0, 1);
  std::normal_distribution<double> gauss(0, 1);
  const int steps = 2000;
  const double anxiety = 0.005 * uni(rng), centripetal = 0.7 * uni(rng), term = 10 * uni(rng);
  const double jerks = 0.2 * uni(rng);
  std::complex<double> v = std::polar(1.0, 2 * M_PI * uni(rng)) * anxiety, x = 0;
  std::vector<std::complex<double>> path{x};
  const double step = 1.0 / steps;
  for (int t = 1; t < steps; ++t) {
    std::complex<double> jerk = 0;
    if (uni(rng) < jerks * anxiety) jerk = 2.0 * v * std::polar(1.0, M_PI + (uni(rng) - 0.5));
    const std::complex<double> dv = jerk + anxiety * (term * std::complex<double>(gauss(rng), gauss(rng)) - centripetal * x) * step;
    v += dv;
    v = v / std::abs(v) * step;
    x += v;
    path.push_back(x);
  }
  double x0 = 1e9, x1 = -1e9, y0 = 1e9, y1 = -1e9;
  for (auto p : path) x0 = std::min(x0, p.real()), x1 = std::max(x1, p.real()), y0 = std::min(y0, p.imag()), y1 = std::max(y1, p.imag());
  const double scale = (extent - 1) / std::max(x1 - x0, y1 - y0);
  const int side = 2 * (int)std::ceil(extent / 2) + 3, mid = side / 2;
  CImg<double> taps(side, side, 1, 1, 0.0);
  for (auto p : path) {
    const double px = mid + (p.real() - (x0 + x1) / 2) * scale, py = mid + (p.imag() - (y0 + y1) / 2) * scale;
    const int ix = (int)std::floor(px), iy = (int)std::floor(py);
    const double fx = px - ix, fy = py - iy;
    taps(ix, iy) += (1 - fx) * (1 - fy), taps(ix + 1, iy) += fx * (1 - fy);
    taps(ix, iy + 1) += (1 - fx) * fy, taps(ix + 1, iy + 1) += fx * fy;
  }
  CImg<float> psf(taps);
  return psf / psf.sum();
}

inline Blur random_blur(Kind kind, std::mt19937& rng) {
  std::uniform_real_distribution<double> uni(0, 1);
  Blur blur;
  blur.kind = kind;
  switch (kind) {
    case Kind::shake:
      blur.a = 8 + 24 * uni(rng);
      blur.psf = shake_psf(blur.a, rng);
      break;
    case Kind::motion:
      blur.a = 6 + 26 * uni(rng), blur.b = 180 * uni(rng);
      blur.psf = motion_psf(blur.a, blur.b);
      break;
    case Kind::disk:
      blur.a = 2 + 8 * uni(rng);
      blur.psf = disk_psf(blur.a);
      break;
    case Kind::gaussian:
      blur.a = 1 + 3 * uni(rng);
      blur.psf = gaussian_psf(blur.a);
      break;
  }
  blur.psf /= blur.psf.sum();
  return blur;
}

struct Photo {
  std::string name;
  CImg<float> pixels;  // 0..255
};

inline std::vector<Photo> photos(const std::string& folder) {
  std::vector<Photo> list;
  for (const char* name : {"astronaut.png", "camera.png", "chelsea.png", "coffee.png", "hubble_deep_field.jpg",
                           "motorcycle_left.png", "retina.jpg", "rocket.jpg"}) {
    Photo p;
    p.name = name;
    load_image(p.pixels, (folder + "/" + name).c_str());
    list.push_back(std::move(p));
  }
  return list;
}

struct Case {
  std::string photo;
  Blur blur;
  double noise = 0;
  CImg<float> sharp, blurred;  // 0..255, the blurred one in bytes
};

// A crop of `side` (at most the photograph's) at a random place, blurred.
inline Case make_case(const Photo& photo, Kind kind, double noise, int side, std::mt19937& rng) {
  Case c;
  c.photo = photo.name, c.blur = random_blur(kind, rng), c.noise = noise;
  const int w = std::min(side, photo.pixels.width()), h = std::min(side, photo.pixels.height());
  std::uniform_int_distribution<int> px(0, photo.pixels.width() - w), py(0, photo.pixels.height() - h);
  const int x = px(rng), y = py(rng), m = c.blur.psf.width();
  c.sharp = photo.pixels.get_crop(x, y, x + w - 1, y + h - 1);
  c.blurred = photo.pixels.get_crop(x - m, y - m, 0, 0, x + w - 1 + m, y + h - 1 + m, 0, photo.pixels.spectrum() - 1, 3)
                  .convolve(c.blur.psf, 1)
                  .crop(m, m, m + w - 1, m + h - 1);
  std::normal_distribution<float> gauss(0.0f, (float)(noise * 255));
  for (float& v : c.blurred) v = std::min(255.0f, std::max(0.0f, std::round(v + (noise > 0 ? gauss(rng) : 0.0f))));
  return c;
}

// Pictures formed as cameras form them: the scene in linear light (the
// photograph's sRGB decoded), lamps far above white in some, blurred there,
// photons counted (Poisson, fewer at higher ISO) with read noise, clipped at
// the sensor's white, encoded to sRGB bytes and saved as JPEG. The sharp
// reference is the scene clipped and encoded alike.
inline double srgb_to_linear(double v) { return v <= 0.04045 ? v / 12.92 : std::pow((v + 0.055) / 1.055, 2.4); }
inline double linear_to_srgb(double v) {
  v = std::min(1.0, std::max(0.0, v));
  return v <= 0.0031308 ? 12.92 * v : 1.055 * std::pow(v, 1 / 2.4) - 0.055;
}

// Round trip through a JPEG of `quality` (GraphicsMagick); unchanged if that fails.
inline CImg<float> through_jpeg(const CImg<float>& bytes, int quality) {
  char stem[] = "/tmp/estimate_caseXXXXXX";
  const int fd = mkstemp(stem);
  if (fd < 0) return bytes;
  close(fd);
  const std::string base = stem, pnm = base + ".pnm", jpg = base + ".jpg", back = base + "_back.pnm";
  bytes.save_pnm(pnm.c_str());
  const std::string command = "gm convert -quality " + std::to_string(quality) + " " + pnm + " " + jpg + " && gm convert " +
                              jpg + " " + back;
  CImg<float> out = bytes;
  if (std::system(command.c_str()) == 0) out.load_pnm(back.c_str());
  for (const std::string& f : {base, pnm, jpg, back}) std::remove(f.c_str());
  return out;
}

// A page of text, 0..255: dark lines of random words on white paper, in
// CImg's own font (no system font needed), as few natural edges as a
// picture has.
inline Photo text_page(int width, int height, unsigned seed) {
  std::mt19937 rng(seed);
  std::uniform_int_distribution<int> letter(0, 25), length(2, 9);
  Photo page;
  page.name = "text page";
  page.pixels.assign(width, height, 1, 1, 235.0f);
  const float ink = 25;
  for (int y = 20; y + 40 < height; y += 38) {
    std::string line;
    while ((int)line.size() * 14 < width - 60) {
      for (int i = length(rng); i > 0; --i) line += (char)('a' + letter(rng));
      line += ' ';
    }
    page.pixels.draw_text(20, y, line.c_str(), &ink, 0, 1, 26);
  }
  return page;
}

struct CameraCase : Case {
  int iso = 100;
  bool lamps = false;
};

// Electrons at white and read noise (electrons) at ISO 100; both scale down
// with the gain, as a sensor of about 12 000 electrons' full well does.
constexpr double full_well = 12000, read_electrons = 6;
constexpr int camera_side = 512;

// A defocus disk of `radius`, sum 1.
inline Blur disk_blur(double radius) {
  // A margin of zeros: a disk that touches its canvas's edge reads as a
  // PSF on a background.
  const CImg<float> drawn = disk_psf(radius);
  Blur blur{Kind::disk, radius, 0, drawn.get_crop(-2, -2, drawn.width() + 1, drawn.height() + 1, 0)};
  blur.psf /= blur.psf.sum();
  return blur;
}

inline CameraCase make_camera_case(const Photo& photo, const Blur& blur, int iso, bool lamps, int side, std::mt19937& rng) {
  CameraCase c;
  c.photo = photo.name, c.blur = blur, c.iso = iso, c.lamps = lamps;
  const int w = std::min(side, photo.pixels.width()), h = std::min(side, photo.pixels.height());
  std::uniform_int_distribution<int> px(0, photo.pixels.width() - w), py(0, photo.pixels.height() - h);
  const int x = px(rng), y = py(rng), m = c.blur.psf.width();
  CImg<float> scene = photo.pixels.get_crop(x - m, y - m, 0, 0, x + w - 1 + m, y + h - 1 + m, 0,
                                            photo.pixels.spectrum() - 1, 3);
  for (float& v : scene) v = (float)srgb_to_linear(v / 255.0);
  if (lamps) {
    std::uniform_real_distribution<double> uni(0, 1);
    for (int i = 0; i < 4; ++i) {
      const int lx = m + (int)(uni(rng) * w), ly = m + (int)(uni(rng) * h);
      const double radius = 2 + 4 * uni(rng), level = 4 + 16 * uni(rng);
      cimg_forXYC(scene, sx, sy, sc) if ((sx - lx) * (sx - lx) + (sy - ly) * (sy - ly) <= radius * radius)
          scene(sx, sy, 0, sc) = (float)level;
    }
  }
  c.sharp = scene.get_crop(m, m, m + w - 1, m + h - 1);
  for (float& v : c.sharp) v = (float)std::round(255 * linear_to_srgb(v));
  CImg<float> blurred = scene.get_convolve(c.blur.psf, 1).crop(m, m, m + w - 1, m + h - 1);
  const double electrons = full_well * 100 / iso, read = read_electrons * std::sqrt(100.0 / iso) + 2;
  std::normal_distribution<double> gauss(0, read);
  for (float& v : blurred) {
    const double mean = std::max(0.0, (double)v) * electrons;
    const double counted = mean < 1e5 ? (double)std::poisson_distribution<long>(mean)(rng) : mean;
    v = (float)std::round(255 * linear_to_srgb((counted + gauss(rng)) / electrons));
  }
  std::uniform_int_distribution<int> quality(80, 95);
  c.blurred = through_jpeg(blurred, quality(rng));
  c.noise = std::sqrt(0.18 * electrons + read * read) / electrons;  // at mid-grey, linear
  return c;
}

inline deconv::Image to_image(const CImg<float>& img, float scale) {
  deconv::Image out(img.width(), img.height(), img.spectrum());
  for (size_t i = 0; i < out.pixels.size(); ++i) out.pixels[i] = img[i] * scale;
  return out;
}

// A crop of an 8-bit photograph, 0..1; `grey`: its first channel only.
inline deconv::Image photo_crop(const std::string& path, int x, int y, int w, int h, bool grey = false) {
  CImg<float> img;
  load_image(img, path.c_str());
  img.crop(x, y, x + w - 1, y + h - 1);
  return to_image(grey ? img.get_channel(0) : img, 1.0f / 255);
}

// The PSF as deconv would read it from a 16-bit file.
inline CImg<float> as_file(const deconv::Image& psf) {
  CImg<float> out(psf.width, psf.height);
  for (size_t i = 0; i < psf.pixels.size(); ++i) out[i] = std::round(std::min(1.0f, std::max(0.0f, psf.pixels[i])) * 65535);
  return out;
}

// deconv-strength's choice, in the process (commands/strength/main.cpp).
inline int chosen_strength(const CImg<float>& picture, const CImg<float>& psf) {
  return deconv::choose_strength(to_image(picture, 1 / 255.0f), to_image(psf, 1.0f));
}



struct Outcome {
  bool refused = false;
  std::string reason, description;
  double seconds = 0;
  double mse_estimated = 0, mse_true = 0, mse_blurred = 0;
  double ratio() const { return refused ? 1e300 : mse_estimated / mse_true; }
};

// Whether a fit's description ("motion 15.2 20.4", "disk 3.0", "gaussian
// 1.5") is within the goals for its blur: a motion's length within 1 pixel
// and its angle within 3 degrees, a disk's radius within half a pixel, a
// Gaussian's sigma within 10 %.
inline bool fit_within_tolerance(const std::string& description, const Blur& blur) {
  double a = 0, b = 0;
  if (std::sscanf(description.c_str(), "%*s %lf %lf", &a, &b) < 1 || description.rfind(kind_name(blur.kind), 0) != 0)
    return false;
  const double turn = std::fmod(std::fabs(b - blur.b), 180.0);
  switch (blur.kind) {
    case Kind::motion: return std::fabs(a - blur.a) <= 1 && std::min(turn, 180 - turn) <= 3;
    case Kind::disk: return std::fabs(a - blur.a) <= 0.5;
    case Kind::gaussian: return std::fabs(a - blur.a) <= 0.1 * blur.a;
    default: return false;
  }
}

// Shape after alignment: the largest normalised correlation of the two
// kernels over whole-pixel offsets, 1 for the same shape.
inline double shape_similarity(const deconv::Image& estimate, const CImg<float>& truth) {
  const int n = std::max(estimate.width, truth.width()) + 8, c = n / 2;
  CImg<double> a(n, n, 1, 1, 0), b(n, n, 1, 1, 0);
  for (int y = 0; y < estimate.height; ++y)
    for (int x = 0; x < estimate.width; ++x) a(c + x - estimate.width / 2, c + y - estimate.height / 2) = estimate.at(x, y);
  cimg_forXY(truth, x, y) b(c + x - truth.width() / 2, c + y - truth.height() / 2) = truth(x, y);
  const double na = std::sqrt(a.dot(a)), nb = std::sqrt(b.dot(b));
  double best = 0;
  for (int dy = -4; dy <= 4; ++dy)
    for (int dx = -4; dx <= 4; ++dx) best = std::max(best, a.dot(b.get_shift(dx, dy)) / (na * nb));
  return best;
}

// How much thicker the estimate is than the truth: the ratio of their
// effective numbers of taps, (sum k)^2 / sum k^2, which counts a line of
// length L as L taps and a band three pixels wide across it as 3 L.
inline double thickness(const deconv::Image& estimate, const CImg<float>& truth) {
  const auto taps = [](auto begin, auto end) {
    double sum = 0, squares = 0;
    for (auto i = begin; i != end; ++i) sum += *i, squares += (double)*i * *i;
    return squares > 0 ? sum * sum / squares : 0.0;
  };
  return taps(estimate.pixels.begin(), estimate.pixels.end()) / taps(truth.begin(), truth.end());
}

constexpr int border = 32, shift = 3;
// The evaluation's pictures: whole photographs, or crops of this side of the
// larger ones (a photograph of a few megapixels is estimated on a window of
// about one anyway).
constexpr int picture_side = 800;

inline Outcome evaluate(const Case& c, const deconv::EstimateOptions& options, deconv::PsfEstimate* estimate = nullptr) {
  Outcome o;
  const auto start = std::chrono::steady_clock::now();
  deconv::PsfEstimate e;
  try {
    e = deconv::estimate_psf(to_image(c.blurred, 1.0f / 255), options);
  } catch (const deconv::Error& error) {
    o.refused = true;
    o.reason = error.what();
  }
  o.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  o.mse_true = interior_mse(deconv_restored(c.blurred, c.blur.psf, chosen_strength(c.blurred, c.blur.psf)), c.sharp, border, shift);
  o.mse_blurred = interior_mse(c.blurred, c.sharp, border, shift);
  if (o.refused) return o;
  o.description = e.description;
  const CImg<float> psf = as_file(e.psf);
  // A kernel restoration will not take (one on a floor of faint taps) is
  // as good as no answer.
  try {
    o.mse_estimated = interior_mse(deconv_restored(c.blurred, psf, chosen_strength(c.blurred, psf)), c.sharp, border, shift);
  } catch (const deconv::Error& error) {
    o.refused = true;
    o.reason = std::string("restoration refused the estimate: ") + error.what();
    return o;
  }
  if (estimate) *estimate = std::move(e);
  return o;
}

}  // namespace estimate_eval

#endif
