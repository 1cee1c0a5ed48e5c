// The Python module `deconv`: the library's functions under the same names,
// numpy arrays in and out. Pictures are (height, width) or (height, width,
// channels) arrays, interleaved, which become the library's planes and come
// back in the input's shape as float32. The GIL is released while the library
// works: its calls share nothing, so threads may call at once.
#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>
#include <pybind11/eval.h>
#include <pybind11/stl.h>

#include <climits>
#include <cstdint>
#include <limits>
#include <string>

#include "deconv/deconv.h"

namespace py = pybind11;

namespace {

// Samples as the files' readers scale them: an unsigned integer of 8 or 16
// bits by its type's largest value (uint8 by 255, uint16 by 65535), so that a
// picture read with any library restores as deconv-restore restores the file;
// int8 and int16 by their largest positive value, so that 0..max is 0..1 and
// negatives stay negative; bool as 0 and 1; floats as they are. Integers
// wider than 16 bits are counts (a detector's, a sum's) that no file's range
// bounds: divided by 2^31 or 2^63, 0..1000 would come back as 1e-16, so they
// are taken as they are.
template <typename T>
float unit_scale() {
  if (std::is_same<T, bool>::value || std::is_floating_point<T>::value || sizeof(T) > 2) return 1.0f;
  return (float)std::numeric_limits<T>::max();
}

// Which of an array's axes holds what: -1 for none.
struct Axes {
  int z = -1, y = 0, x = 1, c = -1;
};

template <typename T>
void copy_planes(const py::array& array, const Axes& axes, const bool scaled, deconv::Image& image) {
  const float scale = scaled ? unit_scale<T>() : 1.0f;
  const char* const base = static_cast<const char*>(array.data());
  const auto step = [&](const int axis) { return axis < 0 ? (py::ssize_t)0 : array.strides(axis); };
  const py::ssize_t z_step = step(axes.z), row_step = step(axes.y), column_step = step(axes.x), channel_step = step(axes.c);
  for (int c = 0; c < image.channels; ++c)
    for (int z = 0; z < image.depth; ++z)
      for (int y = 0; y < image.height; ++y)
        for (int x = 0; x < image.width; ++x) {
          const T v = *reinterpret_cast<const T*>(base + z * z_step + y * row_step + x * column_step + c * channel_step);
          // A true division in single precision, as the readers of files
          // divide: the last bit of every sample depends on it.
          image.at(x, y, z, c) = (float)v / scale;
        }
}

// `given` as a numpy array of numbers, or Error naming it as `what`.
py::array as_array(const py::object& given, const std::string& name) {
  if (!py::isinstance<py::array>(given) && !py::isinstance<py::list>(given) && !py::isinstance<py::tuple>(given))
    throw deconv::Error(name + " must be a numpy array, not " +
                        std::string(py::str(given.get_type().attr("__name__"))));
  py::array array;
  try {
    array = py::array::ensure(given);
  } catch (const py::error_already_set&) {
  }
  if (!array) throw deconv::Error(name + " cannot be read as a numpy array of numbers");
  if (array.ndim() < 2 || array.ndim() > 4)
    throw deconv::Error(name + " must be a 2-D (height, width), 3-D or 4-D array, not " +
                        std::to_string(array.ndim()) + "-D");
  for (int axis = 0; axis < array.ndim(); ++axis)
    if (array.shape(axis) > INT_MAX) throw deconv::Error(name + " is too large");
  const char kind = array.dtype().kind();
  if (kind != 'b' && kind != 'u' && kind != 'i' && kind != 'f')
    throw deconv::Error(name + " must hold numbers (bool, integers or floats), not " +
                         std::string(py::str(array.dtype())));
  // Byte orders not the machine's, half and extended precision: numpy
  // converts them to a type handled below first.
  const bool native = array.dtype().attr("isnative").cast<bool>();
  if (!native || (kind == 'f' && array.itemsize() != 4 && array.itemsize() != 8))
    array = array.attr("astype")(kind == 'f' ? py::dtype::of<float>() : array.dtype().attr("newbyteorder")("="));
  return array;
}

// `array`'s axes as the library's planes: all its channels, or only the
// first (`first_channel_only`, for a PSF). `name` names it in messages.
deconv::Image to_image(const py::array& array, const std::string& name, const Axes& axes,
                       const bool first_channel_only, const bool scaled) {
  const auto size = [&](const int axis) { return axis < 0 ? 1 : (int)array.shape(axis); };
  deconv::Image image(size(axes.x), size(axes.y), size(axes.z), first_channel_only ? 1 : size(axes.c));
#define DECONV_COPY_IF(T)                                   \
  if (py::isinstance<py::array_t<T>>(array)) {              \
    copy_planes<T>(array, axes, scaled, image);             \
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
  throw deconv::Error(name + " has a type this module does not read: " + std::string(py::str(array.dtype())));
}

// The library's planes as a float32 array: ([depth,] height, width
// [, channels]), the depth where `volume`, the channels where `channels`.
py::array_t<float> to_array(const deconv::Image& image, const bool volume, const bool channels) {
  std::vector<py::ssize_t> shape = {image.height, image.width};
  if (volume) shape.insert(shape.begin(), image.depth);
  if (channels) shape.push_back(image.channels);
  py::array_t<float> array(shape);
  float* const out = array.mutable_data();
  const size_t C = image.channels;
  for (int c = 0; c < image.channels; ++c)
    for (int z = 0; z < image.depth; ++z)
      for (int y = 0; y < image.height; ++y)
        for (int x = 0; x < image.width; ++x)
          out[(((size_t)z * image.height + y) * image.width + x) * C + c] = image.at(x, y, z, c);
  return array;
}

py::array_t<float> to_array(const deconv::Image& image, const bool two_dimensional) {
  return to_array(image, false, !two_dimensional);
}

// A value as a message may show it: one line, at most 60 characters (an
// array's repr runs to hundreds of lines).
std::string short_repr(const py::object& value) {
  if (py::isinstance<py::array>(value)) return "an array";
  std::string text = py::repr(value);
  for (char& c : text)
    if (c == '\n') c = ' ';
  return text.size() > 60 ? text.substr(0, 57) + "..." : text;
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
  throw deconv::Error("strength must be a whole number from 0 to 200, or \"auto\", not " + short_repr(strength));
}

// True or False (or numpy's bool), for the flags.
bool flag_from(const py::object& value, const char* const name) {
  if (py::isinstance<py::bool_>(value) || py::isinstance(value, py::module_::import("numpy").attr("bool_")))
    return value.cast<bool>();
  throw deconv::Error(std::string(name) + " must be True or False, not " + short_repr(value));
}

// The PSF: an array, or a blur in draw_psf()'s words. A 2-D array is a
// plane; a 3-D one a volume (Z, Y, X); a 4-D one a volume's first channel.
deconv::Image psf_from(const py::object& psf) {
  if (py::isinstance<py::str>(psf)) return deconv::draw_psf(psf.cast<std::string>());
  const py::array array = as_array(psf, "the PSF");
  Axes axes;
  if (array.ndim() >= 3) axes = {0, 1, 2, array.ndim() == 4 ? 3 : -1};
  return to_image(array, "the PSF", axes, true, false);
}

// A picture's axes for a PSF of one plane (`volume` false) or a volume.
// channel_axis: "auto" (channels last, at most four of them, where the
// array has an axis more than the PSF), None (no channels), or an axis.
Axes picture_axes(const py::array& array, const bool volume, const py::object& channel_axis) {
  const int ndim = array.ndim();
  const bool automatic = py::isinstance<py::str>(channel_axis) && channel_axis.cast<std::string>() == "auto";
  if (!automatic && !channel_axis.is_none() &&
      (!py::isinstance<py::int_>(channel_axis) || py::isinstance<py::bool_>(channel_axis)))
    throw deconv::Error("channel_axis must be \"auto\", None or an axis, not " + short_repr(channel_axis));
  int c = -1;
  if (automatic) {
    c = ndim == (volume ? 4 : 3) ? ndim - 1 : -1;
    if (c >= 0 && !volume && array.shape(c) > 4)
      throw deconv::Error("the picture's last axis holds " + std::to_string(array.shape(c)) +
                          " values: probably a stack, not channels; pass channel_axis=None to restore a (Z, Y, X) "
                          "stack plane by plane, or channel_axis=-1 if they are channels");
  } else if (!channel_axis.is_none()) {
    c = channel_axis.cast<int>();
    if (c < 0) c += ndim;
    if (c < 0 || c >= ndim) throw deconv::Error("channel_axis " + short_repr(channel_axis) + " is not an axis of the picture");
  }
  std::vector<int> rest;
  for (int a = 0; a < ndim; ++a)
    if (a != c) rest.push_back(a);
  if (volume && rest.size() != 3)
    throw deconv::Error("a 3-D PSF restores a (Z, Y, X) stack, or (Z, Y, X, C) with channels, not an array of " +
                        std::to_string(ndim) + " axes");
  if (rest.size() == 3) return {rest[0], rest[1], rest[2], c};
  if (rest.size() == 2) return {-1, rest[0], rest[1], c};
  throw deconv::Error("the picture must be (height, width), (height, width, channels), or a stack (Z, Y, X) or "
                      "(Z, Y, X, C), not an array of " + std::to_string(ndim) + " axes");
}

int workers_from(const py::object& workers) {
  if (workers.is_none()) return 0;
  if (!py::isinstance<py::int_>(workers) || py::isinstance<py::bool_>(workers))
    throw deconv::Error("workers must be a whole number, or None, not " + short_repr(workers));
  const long value = workers.cast<long>();
  if (value < 1 || value > 1024)
    throw deconv::Error("workers must be from 1 to 1024, or None for the machine's cores, not " +
                        std::to_string(value));
  return (int)value;
}

// The method's own arguments.
void method_from(const py::object& method, const py::object& iterations, const py::object& background,
                 const py::object& total_variation, const py::object& accelerate,
                 deconv::RestoreOptions& options) {
  if (!py::isinstance<py::str>(method))
    throw deconv::Error("method must be \"auto\", \"wiener\", \"richardson-lucy\" or \"sparse\", not " +
                        short_repr(method));
  options.method = method.cast<std::string>();
  if (!iterations.is_none()) {
    if (!py::isinstance<py::int_>(iterations) || py::isinstance<py::bool_>(iterations) || iterations.cast<long>() < 1 ||
        iterations.cast<long>() > 100000)
      throw deconv::Error("iterations must be a whole number from 1 to 100000, or None to stop by the data's noise, not " +
                          short_repr(iterations));
    options.iterations = iterations.cast<int>();
  }
  if (!py::isinstance<py::int_>(background) && !py::isinstance<py::float_>(background))
    throw deconv::Error("background must be a number, not " + short_repr(background));
  options.background = background.cast<float>();
  if (!py::isinstance<py::int_>(total_variation) && !py::isinstance<py::float_>(total_variation))
    throw deconv::Error("total_variation must be a number, not " + short_repr(total_variation));
  options.total_variation = total_variation.cast<float>();
  options.accelerate = flag_from(accelerate, "accelerate");
}

// light= as the library's: "auto" takes 8-bit integer arrays (the samples of
// JPEG and PNG files) for sRGB-encoded, where the method is not the filter.
std::string light_from(const py::object& light, const py::array& array, const bool weighs) {
  if (!py::isinstance<py::str>(light) ||
      (light.cast<std::string>() != "auto" && light.cast<std::string>() != "linear" &&
       light.cast<std::string>() != "encoded"))
    throw deconv::Error("light must be \"auto\", \"linear\" or \"encoded\", not " + short_repr(light));
  const std::string word = light.cast<std::string>();
  if (word != "auto") return word;
  const bool bytes = array.dtype().kind() == 'u' && array.itemsize() == 1;
  return weighs && bytes ? "encoded" : "linear";
}

// highlights= as RestoreOptions::highlights: "auto", None (none) or a level.
float highlights_from(const py::object& highlights) {
  if (highlights.is_none()) return -1;
  if (py::isinstance<py::str>(highlights) && highlights.cast<std::string>() == "auto") return 0;
  if ((py::isinstance<py::int_>(highlights) || py::isinstance<py::float_>(highlights)) &&
      !py::isinstance<py::bool_>(highlights) && highlights.cast<double>() > 0)
    return highlights.cast<float>();
  throw deconv::Error("highlights must be \"auto\", None or a level above 0, not " + short_repr(highlights));
}

py::object restore(const py::object& image, const py::object& psf, const py::object& strength,
                   const py::object& align, const py::object& workers, const py::object& compressed,
                   const py::object& repair_nonfinite, const py::object& subtract_psf_background,
                   const py::object& exact, const py::object& method, const py::object& iterations,
                   const py::object& background, const py::object& accelerate, const py::object& channel_axis,
                   const py::object& total_variation, const py::object& light, const py::object& highlights,
                   const py::object& estimated_psf) {
  deconv::RestoreOptions options;
  options.highlights = highlights_from(highlights);
  method_from(method, iterations, background, total_variation, accelerate, options);
  options.exact = flag_from(exact, "exact");
  options.strength = strength_from(strength);
  options.workers = workers_from(workers);
  options.align = flag_from(align, "align");
  options.compressed = flag_from(compressed, "compressed");
  options.estimated_psf = flag_from(estimated_psf, "estimated_psf");
  options.repair_nonfinite = flag_from(repair_nonfinite, "repair_nonfinite");
  options.subtract_psf_background = flag_from(subtract_psf_background, "subtract_psf_background");
  // The library's notices become warnings once the GIL is held again.
  std::vector<std::string> notices;
  options.notice = [&notices](const std::string& message) { notices.push_back(message); };
  const deconv::Image kernel = psf_from(psf);
  const py::array array = as_array(image, "the picture");
  const Axes axes = picture_axes(array, kernel.depth > 1, channel_axis);
  deconv::Image blurred = to_image(array, "the picture", axes, false, true);
  options.light = light_from(light, array, options.method != "wiener");
  deconv::Image result;
  {
    py::gil_scoped_release unlocked;
    result = deconv::restore(std::move(blurred), kernel, options);
  }
  for (const std::string& message : notices) PyErr_WarnEx(PyExc_UserWarning, ("deconv: " + message).c_str(), 1);
  py::object out = to_array(result, axes.z >= 0, axes.c >= 0);
  if (axes.c >= 0 && axes.c != array.ndim() - 1) out = py::module_::import("numpy").attr("moveaxis")(out, -1, axes.c);
  return out;
}

// A picture for the functions that take one plane of channels.
deconv::Image picture_from(const py::object& image) {
  const py::array array = as_array(image, "the picture");
  return to_image(array, "the picture", picture_axes(array, false, py::str("auto")), false, true);
}

int choose_strength(const py::object& image, const py::object& psf, const py::object& compressed) {
  const bool jpeg = flag_from(compressed, "compressed");
  const deconv::Image blurred = picture_from(image);
  const deconv::Image kernel = psf_from(psf);
  py::gil_scoped_release unlocked;
  return deconv::choose_strength(blurred, kernel, jpeg);
}

py::array_t<float> draw_psf(const py::object& text) {
  if (!py::isinstance<py::str>(text))
    throw deconv::Error("draw_psf takes a description such as \"gaussian:2\", not " + short_repr(text));
  const std::string description = text.cast<std::string>();
  deconv::Image psf;
  {
    py::gil_scoped_release unlocked;
    psf = deconv::draw_psf(description);
  }
  return to_array(psf, psf.depth > 1, false);
}

#ifdef DECONV_HAS_ESTIMATE
py::tuple estimate_psf(const py::object& image, const py::object& max_size, const py::object& region,
                       const py::object& model, const py::object& threads, const py::object& light) {
  deconv::EstimateOptions options;
  if (!py::isinstance<py::int_>(max_size) || py::isinstance<py::bool_>(max_size))
    throw deconv::Error("max_size must be a whole number of pixels, not " + short_repr(max_size));
  options.max_size = max_size.cast<int>();
  if (!py::isinstance<py::str>(model)) throw deconv::Error("model must be a string, not " + short_repr(model));
  if (!region.is_none()) {
    std::vector<int> box;
    try {
      box = region.cast<std::vector<int>>();
    } catch (const py::cast_error&) {
    }
    if (box.size() != 4) throw deconv::Error("region must be (x, y, width, height), not " + short_repr(region));
    options.region_x = box[0];
    options.region_y = box[1];
    options.region_width = box[2];
    options.region_height = box[3];
  }
  options.model = model.cast<std::string>();
  options.threads = workers_from(threads);
  const py::array array = as_array(image, "the picture");
  const deconv::Image blurred = to_image(array, "the picture", picture_axes(array, false, py::str("auto")), false, true);
  options.light = light_from(light, array, true);
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
channels), of any numeric type. Integers of 8 and 16 bits are read as their
type's range, as the picture files are: uint8 divided by 255, uint16 by
65535, int8 by 127, int16 by 32767, bool as 0 and 1. Integers wider than 16
bits (int32, int64, uint32, uint64) are counts, taken as they are: int64
0..1000 restores to about 0..1000. Floats are taken as they are (0..1 being
the full range of a picture file). Results are float32 arrays of the input's
shape and scale, not clamped: multiply by 255 and clip to save 8 bits. A PSF
may also be given in draw_psf()'s words ("gaussian:2").

Every function may be called from several threads at once; each call has
threads of its own and releases the GIL while it works. Failures, wrong
argument types included, raise deconv.Error (both a ValueError and a
TypeError) with a one-line message.

    >>> import deconv, numpy
    >>> psf = deconv.draw_psf("motion:15,20")
    >>> sharp = deconv.restore(blurred, psf)              # doctest: +SKIP
)";

  // Both a ValueError and a TypeError: a caller who catches either for a bad
  // argument catches it, and one except clause catches all the module's refusals.
  static py::object error = py::module_::import("builtins").attr("type")(
      "Error", py::make_tuple(py::handle(PyExc_ValueError), py::handle(PyExc_TypeError)),
      py::dict(py::arg("__module__") = "deconv",
               py::arg("__doc__") = "What the module refused: a bad picture, PSF, argument or description, in one "
                                    "line. Both a ValueError and a TypeError."));
  m.attr("Error") = error;
  py::register_exception_translator([](std::exception_ptr raised) {
    try {
      if (raised) std::rethrow_exception(raised);
    } catch (const deconv::Error& e) {
      PyErr_SetString(error.ptr(), e.what());
    }
  });

  m.def("restore", &restore, py::arg("image"), py::arg("psf"), py::arg("strength") = "auto", py::arg("align") = true,
        py::arg("workers") = py::none(), py::arg("compressed") = false, py::arg("repair_nonfinite") = false,
        py::arg("subtract_psf_background") = false, py::arg("exact") = false, py::arg("method") = "auto",
        py::arg("iterations") = py::none(), py::arg("background") = 0.0, py::arg("accelerate") = true,
        py::arg("channel_axis") = "auto", py::arg("total_variation") = 0.0, py::arg("light") = "auto",
        py::arg("highlights") = "auto", py::arg("estimated_psf") = false,
        R"(Restores a blurred picture, or a stack, whose blur is known.

image     (H, W) or (H, W, C) array of any numeric type, or with a 3-D PSF
          a stack (Z, Y, X) or (Z, Y, X, C); with a 2-D PSF a stack
          (Z, Y, X) with channel_axis=None is restored plane by plane.
          Every channel (alpha included) is restored.
psf       the blur: a 2-D array of any size and scale, no larger than the
          picture, or a 3-D one (Z, Y, X) for a stack (richardson-lucy);
          only its proportions count. Or draw_psf()'s words for it:
          "gaussian:2", "motion:15,20", "disk:3", "box:5,3".
method    "auto": "sparse" in light for a photograph as cameras save it
          (a uint8 picture, or light="encoded", strength "auto", not
          exact, not estimated_psf), "wiener" on the stored values
          otherwise;
          "wiener": the closed-form filter;
          "richardson-lucy": the maximum-likelihood restoration of photon
          counts (microscopy, astronomy), non-negative, in 2-D or 3-D;
          "sparse": a hyper-Laplacian prior on the gradients (Krishnan &
          Fergus 2009), for photographs: sharper edges than the filter and
          borders restored as well as the middle; strength (if given)
          weighs the prior strength / 1e5, else it follows the noise.
iterations  richardson-lucy's iterations; None stops where the fit to the
          data is as close as their noise allows.
background  richardson-lucy: what every sample holds besides the object's
          light (camera offset, sky), in the picture's units.
accelerate  richardson-lucy: extrapolate the iterations (Biggs & Andrews).
          Its step is measured on the whole array, so blocks of a volume
          (dask's map_overlap) restore as the whole only with
          accelerate=False and a fixed number of iterations.
total_variation  richardson-lucy: the weight of a total-variation prior
          for noisy data (Dey et al. 2006), 0 to about 0.02.
channel_axis  "auto": a 3-D array's last axis holds channels (at most
          four; more is refused as probably a stack); None: no channels;
          an axis: the channels are there.
strength  regularisation in tenths of lambda, 0 to 200 (10 is lambda = 1),
          or "auto" to let choose_strength() pick it for the picture.
align     True moves the result back onto the picture; False keeps it one
          pixel toward +x and +y, as the deconv command writes it.
workers   worker threads; None takes the machine's cores. The result is
          the same to the bit for any number of workers.
compressed  True for a picture that was saved as JPEG, as deconv-restore
          takes a JPEG file: an "auto" strength is then a quarter higher,
          and richardson-lucy stops by itself after at most 5 iterations.
estimated_psf  True for a PSF from estimate_psf(): the filter's "auto"
          strength is then four times higher (at most 200), as
          deconv-restore --psf auto restores; an estimated kernel's errors
          cost more than the noise the strength is chosen for.
repair_nonfinite  True replaces samples that are NaN or infinite by the
          median of their neighbours (with a UserWarning saying how many);
          False refuses such a picture.
subtract_psf_background  True takes the floor of the PSF's border off a
          PSF that stands on a background (a star or bead cut from a picture
          with its sky), with a UserWarning; False refuses such a PSF.
light     "linear": the values are in proportion to light; "encoded":
          they are sRGB-encoded (as 8-bit JPEG and PNG files store them),
          decoded to light before the restoration and the result encoded
          again. "auto": encoded for uint8 arrays with every method but
          "wiener", linear otherwise (the filter's strength is chosen on
          stored values).
highlights  the clipping level, in the picture's units (0..1 for integer
          arrays): richardson-lucy leaves the samples at or above it, and
          those their blur reaches, out of its fit, with a UserWarning
          saying how many, so that a clipped lamp does not ring. "auto":
          0.98 where the picture lies within 0..1; None: none.
exact     True restores on the deconv command's own engine, for its very
          numbers (with align=False, and integers as 8-bit samples); False,
          the default, on the second engine, which agrees with it to float
          rounding (2e-4 at most on 0..1 pictures) in a fraction of the time
          and memory.

Returns a float32 array of image's shape, on image's scale (0..1 for
integer types of 8 and 16 bits), not clamped. Raises deconv.Error for an
empty picture or PSF, a PSF of no weight, larger than the picture or on a
background, samples that are not finite, or (exact=True) a picture too small
for the PSF.

    >>> psf = deconv.draw_psf("gaussian:2")
    >>> sharp = deconv.restore(photo, psf, strength=30)   # doctest: +SKIP
)");

  m.def("choose_strength", &choose_strength, py::arg("image"), py::arg("psf"), py::arg("compressed") = false,
        R"(The strength (1 to 200, tenths of lambda) expected to restore image best
with psf, by generalised cross-validation of the restoration's own filter:
what restore(image, psf, strength="auto") uses, and what the
deconv-strength command prints. compressed=True for a picture that was
saved as JPEG: the strength is a quarter higher. psf as restore() takes it.
Raises deconv.Error for what it cannot judge: what restore() refuses, and a
picture whose samples are all the same.

    >>> deconv.choose_strength(photo, deconv.draw_psf("disk:3"))  # doctest: +SKIP
    24
)");

  m.def("draw_psf", &draw_psf, py::arg("description"),
        R"(The PSF of a common blur as a float32 (side, side) array: an odd square,
its middle pixel at the blur's centre, the largest tap 1.

description  "gaussian:SIGMA", "motion:LENGTH,ANGLE" (degrees
             counter-clockwise from +x), "disk:RADIUS" or "box:W,H";
             lengths in pixels, the PSF no wider than 2001 pixels.
             Or "widefield:NA,WAVELENGTH,INDEX,PIXEL,ZSTEP[,PLANES
             [,SAMPLE_INDEX,DEPTH]]", a widefield microscope's PSF as a
             (planes, side, side) volume (lengths in nm, PLANES odd, 0
             chooses), for method="richardson-lucy".

    >>> deconv.draw_psf("box:3,1")[2]
    array([0., 1., 1., 1., 0.], dtype=float32)
)");

#ifdef DECONV_HAS_ESTIMATE
  m.def("estimate_psf", &estimate_psf, py::arg("image"), py::arg("max_size") = 0, py::arg("region") = py::none(),
        py::arg("model") = "kernel", py::arg("threads") = py::none(), py::arg("light") = "linear",
        R"(Estimates the blur of a picture from the picture alone.

image     (H, W) or (H, W, C) array, read as restore() reads it.
max_size  the largest side of the PSF in pixels; 0 chooses one.
region    (x, y, width, height) of the part to look at; None chooses one.
model     the library's model of the blur; "kernel" is a free PSF.
threads   threads to use; None takes the machine's cores.
light     "linear" (the stored values, as the estimator was tuned on),
          "encoded" (sRGB: decoded to light first) or "auto" (encoded for
          uint8 arrays).

Returns (psf, description): the PSF as a float32 2-D array, ready for
restore(), and the blur in draw_psf()'s words where a model was fitted.
Restore with it as restore(photo, psf, estimated_psf=True).

    >>> psf, found = deconv.estimate_psf(photo)          # doctest: +SKIP
    >>> sharp = deconv.restore(photo, psf, method="wiener", estimated_psf=True)  # doctest: +SKIP
)");
#endif

  // pickle, and so dask and multiprocessing, send a function by its module
  // and name, but a pybind11 function's `self` is a capsule that cannot be
  // pickled: each is wrapped in a plain Python function of the same name,
  // its docstring and signature, which pickles as a reference.
  py::dict scope;
  scope["module"] = m;
  py::exec(R"(
import functools
for name in [n for n in ("restore", "choose_strength", "draw_psf", "estimate_psf") if hasattr(module, n)]:
    def by_name(function=getattr(module, name)):
        @functools.wraps(function)
        def call(*args, **kwargs):
            return function(*args, **kwargs)
        call.__qualname__ = call.__name__  # pybind11's is "PyCapsule.<name>"
        return call
    setattr(module, name, by_name())
)",
           scope);
}
