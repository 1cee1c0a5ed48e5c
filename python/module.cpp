// The Python module `deconv`: the library's functions under the same names,
// numpy arrays in and out. Pictures are (height, width) or (height, width,
// channels) arrays, interleaved, which become the library's planes and come
// back in the input's shape as float32. The GIL is released while the library
// works: its calls share nothing, so threads may call at once.
#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>
#include <pybind11/stl.h>

#include <climits>
#include <cstdint>
#include <limits>
#include <string>

#include "deconv/deconv.h"

namespace py = pybind11;

namespace {

// Samples as the files' readers scale them: an unsigned integer by its type's
// largest value (uint8 by 255, uint16 by 65535), so that a picture read with
// any library restores as deconv-restore restores the file; a signed one by
// its largest positive value, so that 0..max is 0..1 and negatives stay
// negative; bool as 0 and 1; floats as they are.
template <typename T>
float unit_scale() {
  if (std::is_same<T, bool>::value || std::is_floating_point<T>::value) return 1.0f;
  return (float)std::numeric_limits<T>::max();
}

template <typename T>
void copy_planes(const py::array& array, const int channels_taken, const bool scaled, deconv::Image& image) {
  const float scale = scaled ? unit_scale<T>() : 1.0f;
  const char* const base = static_cast<const char*>(array.data());
  const py::ssize_t row_step = array.strides(0), column_step = array.strides(1);
  const py::ssize_t channel_step = array.ndim() == 3 ? array.strides(2) : 0;
  for (int c = 0; c < channels_taken; ++c)
    for (int y = 0; y < image.height; ++y)
      for (int x = 0; x < image.width; ++x) {
        const T v = *reinterpret_cast<const T*>(base + y * row_step + x * column_step + c * channel_step);
        // A true division in single precision, as the readers of files
        // divide: the last bit of every sample depends on it.
        image.at(x, y, c) = (float)v / scale;
      }
}

// `array` as the library's planes: all its channels, or only the first
// (`first_channel_only`, for a PSF). `what` names it in messages.
deconv::Image to_image(py::array array, const char* const what, const bool first_channel_only, const bool scaled) {
  const std::string name = what;
  if (array.ndim() != 2 && array.ndim() != 3)
    throw py::value_error(name + " must be a 2-D (height, width) or 3-D (height, width, channels) array, not " +
                          std::to_string(array.ndim()) + "-D");
  for (int axis = 0; axis < array.ndim(); ++axis)
    if (array.shape(axis) > INT_MAX) throw py::value_error(name + " is too large");
  const char kind = array.dtype().kind();
  if (kind != 'b' && kind != 'u' && kind != 'i' && kind != 'f')
    throw py::type_error(name + " must hold numbers (bool, integers or floats), not " +
                         std::string(py::str(array.dtype())));
  // Byte orders not the machine's, half and extended precision: numpy
  // converts them to a type handled below first.
  const bool native = array.dtype().attr("isnative").cast<bool>();
  if (!native || (kind == 'f' && array.itemsize() != 4 && array.itemsize() != 8))
    array = array.attr("astype")(kind == 'f' ? py::dtype::of<float>() : array.dtype().attr("newbyteorder")("="));

  const int channels = array.ndim() == 3 ? (int)array.shape(2) : 1;
  deconv::Image image((int)array.shape(1), (int)array.shape(0), first_channel_only ? std::min(channels, 1) : channels);
  const int taken = image.channels;
#define DECONV_COPY_IF(T)                                   \
  if (py::isinstance<py::array_t<T>>(array)) {              \
    copy_planes<T>(array, taken, scaled, image);            \
    return image;                                           \
  }
  DECONV_COPY_IF(float)
  DECONV_COPY_IF(double)
  DECONV_COPY_IF(uint8_t)
  DECONV_COPY_IF(uint16_t)
  DECONV_COPY_IF(uint32_t)
  DECONV_COPY_IF(uint64_t)
  DECONV_COPY_IF(int8_t)
  DECONV_COPY_IF(int16_t)
  DECONV_COPY_IF(int32_t)
  DECONV_COPY_IF(int64_t)
  DECONV_COPY_IF(bool)
#undef DECONV_COPY_IF
  throw py::type_error(name + " has a type this module does not read: " + std::string(py::str(array.dtype())));
}

// The library's planes as a float32 array: (height, width) of the first plane
// when `two_dimensional`, else (height, width, channels).
py::array_t<float> to_array(const deconv::Image& image, const bool two_dimensional) {
  std::vector<py::ssize_t> shape = {image.height, image.width};
  if (!two_dimensional) shape.push_back(image.channels);
  py::array_t<float> array(shape);
  float* const out = array.mutable_data();
  const size_t channels = image.channels;
  for (int c = 0; c < image.channels; ++c)
    for (int y = 0; y < image.height; ++y)
      for (int x = 0; x < image.width; ++x) out[((size_t)y * image.width + x) * channels + c] = image.at(x, y, c);
  return array;
}

int strength_from(const py::object& strength) {
  if (py::isinstance<py::str>(strength)) {
    if (strength.cast<std::string>() == "auto") return -1;
  } else if (py::isinstance<py::int_>(strength) && !py::isinstance<py::bool_>(strength)) {
    const long value = strength.cast<long>();
    if (value < 0 || value > 200)
      throw deconv::Error("strength must be from 0 to 200 (tenths of lambda), not " + std::to_string(value));
    return (int)value;
  }
  throw py::type_error("strength must be a whole number from 0 to 200, or \"auto\", not " +
                       std::string(py::repr(strength)));
}

int workers_from(const py::object& workers) {
  if (workers.is_none()) return 0;
  if (!py::isinstance<py::int_>(workers) || py::isinstance<py::bool_>(workers))
    throw py::type_error("workers must be a whole number, or None, not " + std::string(py::repr(workers)));
  const long value = workers.cast<long>();
  if (value < 1 || value > 1024)
    throw deconv::Error("workers must be from 1 to 1024, or None for the machine's cores, not " +
                        std::to_string(value));
  return (int)value;
}

py::array_t<float> restore(const py::array& image, const py::array& psf, const py::object& strength, const bool align,
                           const py::object& workers, const bool exact) {
  deconv::RestoreOptions options;
  options.exact = exact;
  options.strength = strength_from(strength);
  options.workers = workers_from(workers);
  options.align = align;
  deconv::Image blurred = to_image(image, "the picture", false, true);
  const deconv::Image kernel = to_image(psf, "the PSF", true, false);
  deconv::Image result;
  {
    py::gil_scoped_release unlocked;
    result = deconv::restore(std::move(blurred), kernel, options);
  }
  return to_array(result, image.ndim() == 2);
}

int choose_strength(const py::array& image, const py::array& psf, bool compressed) {
  const deconv::Image blurred = to_image(image, "the picture", false, true);
  const deconv::Image kernel = to_image(psf, "the PSF", true, false);
  py::gil_scoped_release unlocked;
  return deconv::choose_strength(blurred, kernel, compressed);
}

py::array_t<float> draw_psf(const std::string& description) {
  deconv::Image psf;
  {
    py::gil_scoped_release unlocked;
    psf = deconv::draw_psf(description);
  }
  return to_array(psf, true);
}

#ifdef DECONV_HAS_ESTIMATE
py::tuple estimate_psf(const py::array& image, const int max_size, const py::object& region, const std::string& model,
                       const py::object& threads) {
  deconv::EstimateOptions options;
  options.max_size = max_size;
  if (!region.is_none()) {
    const auto box = region.cast<std::vector<int>>();
    if (box.size() != 4) throw py::value_error("region must be (x, y, width, height)");
    options.region_x = box[0];
    options.region_y = box[1];
    options.region_width = box[2];
    options.region_height = box[3];
  }
  options.model = model;
  options.threads = workers_from(threads);
  const deconv::Image blurred = to_image(image, "the picture", false, true);
  deconv::PsfEstimate estimate;
  {
    py::gil_scoped_release unlocked;
    estimate = deconv::estimate_psf(blurred, options);
  }
  return py::make_tuple(to_array(estimate.psf, true), estimate.description);
}
#endif

}  // namespace

PYBIND11_MODULE(deconv, m) {
  m.doc() = R"(Removes a known blur from pictures, by closed-form non-blind deconvolution
in the frequency domain: the library deconv-restore is made on.

Pictures are numpy arrays of shape (height, width) or (height, width,
channels), of any numeric type. Integers are read as their type's range:
uint8 divided by 255, uint16 by 65535, other unsigned types by their largest
value, signed types by their largest positive value, bool as 0 and 1. Floats
are taken as they are (0..1 being the full range). Results are float32 arrays
of the input's shape, not clamped: multiply by 255 and clip to save 8 bits.

Every function may be called from several threads at once; each call has
threads of its own and releases the GIL while it works. Failures raise
deconv.Error, a ValueError, with the library's message.

    >>> import deconv, numpy
    >>> psf = deconv.draw_psf("motion:15,20")
    >>> sharp = deconv.restore(blurred, psf)              # doctest: +SKIP
)";

  py::register_exception<deconv::Error>(m, "Error", PyExc_ValueError)
      .doc() = "What the library refused: a bad picture, PSF, strength or description. A ValueError.";

  m.def("restore", &restore, py::arg("image"), py::arg("psf"), py::arg("strength") = "auto", py::arg("align") = true,
        py::arg("workers") = py::none(), py::arg("exact") = false,
        R"(Restores a blurred picture whose blur is known.

image     (H, W) or (H, W, C) array of any numeric type; every channel
          (alpha included) is restored.
psf       the blur: a 2-D array (or the first channel of a 3-D one) of any
          size and scale. Only its proportions count; it is centred on its
          first moment.
strength  regularisation in tenths of lambda, 0 to 200 (10 is lambda = 1),
          or "auto" to let choose_strength() pick it for the picture.
align     True moves the result back onto the picture; False keeps it one
          pixel toward +x and +y, as the deconv command writes it.
workers   worker threads; None takes the machine's cores. The result is
          the same to the bit for any number of workers.
exact     True restores on the deconv command's own engine, for its very
          numbers (with align=False, and integers as 8-bit samples); False,
          the default, on the second engine, which agrees with it to float
          rounding (2e-4 at most on 0..1 pictures) in a fraction of the time
          and memory.

Returns a float32 array of image's shape, on image's scale (0..1 for
integer types), not clamped. Raises deconv.Error for an empty picture or PSF,
a PSF of no weight, or (exact=True) a picture too small for the PSF.

    >>> psf = deconv.draw_psf("gaussian:2")
    >>> sharp = deconv.restore(photo, psf, strength=30)   # doctest: +SKIP
)");

  m.def("choose_strength", &choose_strength, py::arg("image"), py::arg("psf"), py::arg("compressed") = false,
        R"(The strength (1 to 200, tenths of lambda) expected to restore image best
with psf, by generalised cross-validation of the restoration's own filter:
what restore(image, psf, strength="auto") uses, and what the
deconv-strength command prints. compressed=True for a picture that was
saved as JPEG: the strength is a quarter higher.

    >>> deconv.choose_strength(photo, deconv.draw_psf("disk:3"))  # doctest: +SKIP
    24
)");

  m.def("draw_psf", &draw_psf, py::arg("description"),
        R"(The PSF of a common blur as a float32 (side, side) array: an odd square,
its middle pixel at the blur's centre, the largest tap 1.

description  "gaussian:SIGMA", "motion:LENGTH,ANGLE" (degrees
             counter-clockwise from +x), "disk:RADIUS" or "box:W,H";
             lengths in pixels.

    >>> deconv.draw_psf("box:3,1")[2]
    array([0., 1., 1., 1., 0.], dtype=float32)
)");

#ifdef DECONV_HAS_ESTIMATE
  m.def("estimate_psf", &estimate_psf, py::arg("image"), py::arg("max_size") = 0, py::arg("region") = py::none(),
        py::arg("model") = "kernel", py::arg("threads") = py::none(),
        R"(Estimates the blur of a picture from the picture alone.

image     (H, W) or (H, W, C) array, read as restore() reads it.
max_size  the largest side of the PSF in pixels; 0 chooses one.
region    (x, y, width, height) of the part to look at; None chooses one.
model     the library's model of the blur; "kernel" is a free PSF.
threads   threads to use; None takes the machine's cores.

Returns (psf, description): the PSF as a float32 2-D array, ready for
restore(), and the blur in draw_psf()'s words where a model was fitted.

    >>> psf, found = deconv.estimate_psf(photo)          # doctest: +SKIP
)");
#endif
}
