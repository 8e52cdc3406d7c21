#include "common.hpp"

#include <cstdint>
#include <string>
#include <type_traits>

namespace vemoproc_py {

template <>
const char* accepted_kinds<float>() {
  return "fiu";
}
template <>
const char* accepted_kinds<int>() {
  return "iu";
}
template <>
const char* accepted_kinds<uint8_t>() {
  return "u";
}
template <>
const char* accepted_kinds<bool>() {
  return "b";
}

namespace {

std::string shape_text(const py::array& a) {
  std::string s = "(";
  for (py::ssize_t i = 0; i < a.ndim(); ++i) s += (i ? ", " : "") + std::to_string(a.shape(i));
  return s + (a.ndim() == 1 ? ",)" : ")");
}

}  // namespace

template <class T>
py::array_t<T, py::array::c_style> as_array(py::handle obj, const char* name, int rank) {
  py::module_ np = py::module_::import("numpy");
  py::array a = np.attr("asarray")(obj);
  const char kind = a.dtype().kind();
  if (std::string(accepted_kinds<T>()).find(kind) == std::string::npos) {
    throw py::type_error(std::string(name) + ": expected an array of " +
                         py::str(py::dtype::of<T>()).cast<std::string>() + ", got dtype " +
                         py::str(a.dtype()).cast<std::string>());
  }
  // Pixels are taken as they are: a wider integer type is not narrowed.
  if (std::is_same<T, uint8_t>::value && !a.dtype().is(py::dtype::of<uint8_t>())) {
    throw py::type_error(std::string(name) + ": expected a uint8 array, got dtype " +
                         py::str(a.dtype()).cast<std::string>());
  }
  // Integers that do not fit an int would wrap in the cast: refused instead.
  if (std::is_same<T, int>::value && a.size() > 0 &&
      (a.dtype().itemsize() > 4 || (kind == 'u' && a.dtype().itemsize() == 4))) {
    const py::int_ lo(a.attr("min")()), hi(a.attr("max")());
    if (lo < py::int_(INT32_MIN) || hi > py::int_(INT32_MAX)) {
      throw py::value_error(std::string(name) + ": values outside the 32-bit int range");
    }
  }
  if (rank >= 0 && a.ndim() != rank) {
    throw py::value_error(std::string(name) + ": expected " + std::to_string(rank) +
                          " dimensions, got shape " + shape_text(a));
  }
  return c_array<T>(a);
}

template py::array_t<float, py::array::c_style> as_array<float>(py::handle, const char*, int);
template py::array_t<int, py::array::c_style> as_array<int>(py::handle, const char*, int);
template py::array_t<uint8_t, py::array::c_style> as_array<uint8_t>(py::handle, const char*, int);
template py::array_t<bool, py::array::c_style> as_array<bool>(py::handle, const char*, int);

vemoproc::ImageView image_view(py::handle obj, const char* name, py::object& keep) {
  if (!py::isinstance<py::array>(obj)) {
    throw py::type_error(std::string(name) + ": expected a uint8 numpy array, got " +
                         py::str(py::type::of(obj).attr("__name__")).cast<std::string>());
  }
  py::array a = py::reinterpret_borrow<py::array>(obj);
  if (!a.dtype().is(py::dtype::of<uint8_t>())) {
    throw py::type_error(std::string(name) + ": expected a uint8 array, got dtype " +
                         py::str(a.dtype()).cast<std::string>());
  }
  const py::ssize_t channels = a.ndim() == 2 ? 1 : a.ndim() == 3 ? a.shape(2) : 0;
  if (channels != 1 && channels != 3 && channels != 4) {
    throw py::value_error(std::string(name) +
                          ": expected an HxW, HxWx3 or HxWx4 image array, got shape " +
                          shape_text(a));
  }
  const py::ssize_t width = a.shape(1);
  // Checked before any copy: a broadcast array may stand for terabytes.
  if (a.shape(0) > INT32_MAX || width > INT32_MAX) {
    throw py::value_error(std::string(name) + ": image sides must fit in 32 bits");
  }
  // Pixels of a row must be packed; rows may be any distance apart as long as
  // they do not overlap.
  const bool packed_row = (a.ndim() == 2 || a.strides(2) == 1) && a.strides(1) == channels;
  const bool in_place = width <= 1 ? a.ndim() == 2 || a.strides(2) == 1 : packed_row;
  if (!in_place || a.strides(0) < width * channels) a = c_array<uint8_t>(a);
  keep = a;
  vemoproc::ImageView view{};
  view.data = static_cast<const uint8_t*>(a.data());
  view.width = static_cast<int>(width);
  view.height = static_cast<int>(a.shape(0));
  view.stride = static_cast<size_t>(a.shape(0) > 1 ? a.strides(0) : width * channels);
  view.format = channels == 1   ? vemoproc::PixelFormat::GRAY
                : channels == 3 ? vemoproc::PixelFormat::RGB
                                : vemoproc::PixelFormat::RGBA;
  return view;
}

bool is_bytes_like(py::handle obj) {
  return py::isinstance<py::bytes>(obj) || py::isinstance<py::bytearray>(obj) ||
         py::isinstance<py::memoryview>(obj);
}

namespace {

// Runs decode(bytes, size) on the bytes of `obj` with the GIL released.
template <class Decode>
vemoproc::Image with_bytes(py::handle obj, const Decode& decode) {
  py::object data = py::reinterpret_borrow<py::object>(obj);
  // A strided memoryview is gathered into bytes; everything else is read in place.
  if (py::isinstance<py::memoryview>(obj) && !obj.attr("c_contiguous").cast<bool>()) {
    data = obj.attr("tobytes")();
  }
  py::buffer_info info = py::reinterpret_borrow<py::buffer>(data).request();
  const auto* bytes = static_cast<const uint8_t*>(info.ptr);
  const auto size = static_cast<size_t>(info.size * info.itemsize);
  return released([&] { return decode(bytes, size); });
}

}  // namespace

vemoproc::Image decode_bytes(py::handle obj, bool apply_exif_orientation) {
  return with_bytes(obj, [&](const uint8_t* bytes, size_t size) {
    return vemoproc::decode_image(bytes, size, apply_exif_orientation);
  });
}

vemoproc::Image decode_bytes(py::handle obj, vemoproc::Decoder decoder) {
  return with_bytes(obj, [&](const uint8_t* bytes, size_t size) {
    return vemoproc::decode_image(bytes, size, decoder);
  });
}

bool is_path_like(py::handle obj) {
  return py::isinstance<py::str>(obj) ||
         py::isinstance(obj, py::module_::import("os").attr("PathLike"));
}

std::string path_string(py::handle obj) {
  py::module_ os = py::module_::import("os");
  return os.attr("fsdecode")(os.attr("fspath")(obj)).cast<std::string>();
}

ImageArg image_arg(py::handle obj, const char* name) {
  return image_arg(obj, name, vemoproc::Decoder::Stb);
}

ImageArg image_arg(py::handle obj, const char* name, vemoproc::Decoder decoder) {
  ImageArg arg;
  if (is_path_like(obj)) {
    arg.is_path = true;
    arg.path = path_string(obj);
  } else if (is_bytes_like(obj)) {
    arg.decoded = decode_bytes(obj, decoder);
    arg.view = arg.decoded.view();
  } else {
    arg.view = image_view(obj, name, arg.keep);
  }
  return arg;
}

ImageBatch image_batch(py::handle images, const char* name) {
  return image_batch(images, name, vemoproc::Decoder::Stb);
}

ImageBatch image_batch(py::handle images, const char* name, vemoproc::Decoder decoder) {
  ImageBatch b;
  for (py::handle h : images) b.args.push_back(image_arg(h, name, decoder));
  for (const ImageArg& a : b.args) {
    if (a.is_path) {
      throw py::type_error(std::string(name) + ": items are arrays or encoded bytes, not paths");
    }
    b.views.push_back(a.view);
  }
  return b;
}

void bind_pipeline(py::module_& m) {
  py::enum_<vemoproc::Pipeline>(
      m, "Pipeline",
      "Which pipeline a family's call follows: the library's own (Native, the default) or the "
      "Python pipeline its models were trained with, bit for bit (MatchPython).")
      .value("Native", vemoproc::Pipeline::Native)
      .value("MatchPython", vemoproc::Pipeline::MatchPython);
}

}  // namespace vemoproc_py
