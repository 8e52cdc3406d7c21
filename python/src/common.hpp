#pragma once
// Shared pieces of the Python bindings: handing C++ results to numpy without a
// copy, reading numpy inputs, and turning Python image arguments into views.
#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>
#include <pybind11/stl.h>

#include <cxxabi.h>

#include <cstddef>
#include <exception>
#include <memory>
#include <optional>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include <xtensor/xarray.hpp>
#include <xtensor/xtensor.hpp>

#include "pixels.hpp"

namespace vemoproc_py {

namespace py = pybind11;

// Moves `owner` (an xtensor container or a std::vector) to the heap and
// returns a numpy array over its elements. The array's base is a capsule that
// deletes the owner, so the result buffer is never copied and lives as long as
// the array. `shape` must describe exactly the owner's elements.
template <class Owner>
py::array_t<typename Owner::value_type> to_numpy(Owner&& owner, std::vector<py::ssize_t> shape) {
  auto* held = new Owner(std::forward<Owner>(owner));
  py::capsule base(held, [](void* p) { delete static_cast<Owner*>(p); });
  return py::array_t<typename Owner::value_type>(std::move(shape), held->data(), base);
}

// An xtensor container (row-major, contiguous) as a numpy array of its shape.
template <class Container>
py::array_t<typename Container::value_type> to_numpy(Container&& c) {
  std::vector<py::ssize_t> shape(c.shape().begin(), c.shape().end());
  return to_numpy(std::move(c), std::move(shape));
}

// Runs `work` (a library call on data already taken from Python: values
// copied out of mutable objects, never the objects themselves) with the GIL
// released, so other Python threads run meanwhile, and returns its result.
// The GIL is taken back outside any destructor: at interpreter exit a daemon
// thread is ended there by unwinding, which a destructor would turn into
// std::terminate.
template <class Work>
auto released(Work&& work) {
  using Result = decltype(work());
  std::optional<std::conditional_t<std::is_void_v<Result>, bool, Result>> result;
  std::exception_ptr error;
  PyThreadState* state = PyEval_SaveThread();
  try {
    if constexpr (std::is_void_v<Result>) {
      work();
      result.emplace(true);
    } else {
      result.emplace(work());
    }
  } catch (abi::__forced_unwind&) {
    throw;
  } catch (...) {
    error = std::current_exception();
  }
  PyEval_RestoreThread(state);
  if (error) std::rethrow_exception(error);
  if constexpr (!std::is_void_v<Result>) return std::move(*result);
}

// A numpy conversion that can fail (an allocation, a cast): `obj` as a
// C-contiguous array of T, copied only when needed; raises the Python error
// (MemoryError for an allocation) instead of handing on a null array.
template <class T>
py::array_t<T, py::array::c_style> c_array(py::handle obj) {
  auto& api = py::detail::npy_api::get();
  PyObject* out = api.PyArray_FromAny_(
      obj.ptr(), py::dtype::of<T>().release().ptr(), 0, 0,
      py::detail::npy_api::NPY_ARRAY_ENSUREARRAY_ | py::array::c_style | py::array::forcecast,
      nullptr);
  if (out == nullptr) throw py::error_already_set();
  return py::reinterpret_steal<py::array_t<T, py::array::c_style>>(out);
}

// An owning image as a uint8 array that owns its pixels: HxWxC (C = 3 for
// RGB), or HxW for a GRAY image when `grey_2d`.
inline py::array_t<uint8_t> to_numpy(vemoproc::Image&& image, bool grey_2d = false) {
  std::vector<py::ssize_t> shape{image.height, image.width};
  const int channels = vemoproc::channels_of(image.format);
  if (!(grey_2d && channels == 1)) shape.push_back(channels);
  return to_numpy(std::move(image.rgb), std::move(shape));
}

// Which numpy dtype kinds an input of C++ type T accepts (others raise
// TypeError): floats take real numbers, ints take integers, bools take bools.
template <class T>
const char* accepted_kinds();

// `obj` (an array or anything numpy.asarray takes) as a C-contiguous array of
// T with `rank` dimensions (-1: any). Raises TypeError naming `name` for a
// dtype of the wrong kind and ValueError for the wrong rank. Copies only when
// the dtype or layout differ.
template <class T>
py::array_t<T, py::array::c_style> as_array(py::handle obj, const char* name, int rank);

// The same, copied into an xtensor container of that element type and rank.
template <class T, size_t N>
xt::xtensor<T, N> to_xtensor(py::handle obj, const char* name) {
  auto a = as_array<T>(obj, name, static_cast<int>(N));
  std::array<size_t, N> shape;
  for (size_t i = 0; i < N; ++i) shape[i] = static_cast<size_t>(a.shape(i));
  xt::xtensor<T, N> out(shape);
  std::copy(a.data(), a.data() + a.size(), out.data());
  return out;
}

template <class T>
xt::xarray<T> to_xarray(py::handle obj, const char* name) {
  auto a = as_array<T>(obj, name, -1);
  std::vector<size_t> shape(a.shape(), a.shape() + a.ndim());
  xt::xarray<T> out(shape);
  std::copy(a.data(), a.data() + a.size(), out.data());
  return out;
}

// A uint8 image array read in place: HxW (grey), HxWx3 (RGB) or HxWx4 (RGBA),
// any positive row stride with the pixels of a row contiguous. Other layouts
// (negative or overlapping rows, strided pixels) are copied into `keep` first.
// Raises TypeError / ValueError naming `name` for another dtype or shape.
vemoproc::ImageView image_view(py::handle obj, const char* name, py::object& keep);

// An image argument as the families take it: a path (str or os.PathLike),
// encoded bytes (decoded into `decoded`), or a pixel array (read in place).
struct ImageArg {
  bool is_path = false;
  std::string path;
  vemoproc::Image decoded;
  vemoproc::ImageView view{};
  py::object keep;  // the array (or its contiguous copy) the view reads
};
ImageArg image_arg(py::handle obj, const char* name);
// The same, decoding encoded bytes with `decoder`.
ImageArg image_arg(py::handle obj, const char* name, vemoproc::Decoder decoder);

// Several images given as pixel arrays or encoded bytes (not paths), as views
// read in place; `args` keeps what the views read.
struct ImageBatch {
  std::vector<ImageArg> args;
  std::vector<vemoproc::ImageView> views;
};
ImageBatch image_batch(py::handle images, const char* name);
ImageBatch image_batch(py::handle images, const char* name, vemoproc::Decoder decoder);

// The decoder of a pipeline's encoded inputs: the reference one for MatchPython.
inline vemoproc::Decoder decoder_for(vemoproc::Pipeline pipeline) {
  return pipeline == vemoproc::Pipeline::MatchPython ? vemoproc::Decoder::Reference
                                                     : vemoproc::Decoder::Stb;
}

// Whether `obj` is bytes, a bytearray or a memoryview, and the image it encodes
// (decoded with the GIL released).
bool is_bytes_like(py::handle obj);
vemoproc::Image decode_bytes(py::handle obj, bool apply_exif_orientation);
vemoproc::Image decode_bytes(py::handle obj, vemoproc::Decoder decoder);

// Whether `obj` is a str or an os.PathLike, and its text form.
bool is_path_like(py::handle obj);
std::string path_string(py::handle obj);

void bind_pixels(py::module_& m);
void bind_pipeline(py::module_& m);
void bind_yolo(py::module_& m);
void bind_vision(py::module_& m);
void bind_dia(py::module_& m);
void bind_streamer(py::module_& m);

}  // namespace vemoproc_py
