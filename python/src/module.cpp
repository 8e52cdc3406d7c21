// The vemoproc Python module: the image inputs and budget at the top level,
// one submodule per family.
#include <cstdint>
#include <string>

#include "common.hpp"
#include "pixels.hpp"
#include "threads.hpp"

namespace vemoproc_py {

namespace {

// A plane of a YUV frame: a 2-D uint8 array (or rows x cols x 2 for an
// interleaved chroma plane) with packed rows at a positive stride.
struct Plane {
  const uint8_t* data;
  size_t stride;
  py::ssize_t rows;
  py::ssize_t row_bytes;
};

Plane plane(py::handle obj, const char* name, py::object& keep) {
  if (!py::isinstance<py::array>(obj)) {
    throw py::type_error(std::string(name) + ": expected a uint8 numpy array");
  }
  py::array a = py::reinterpret_borrow<py::array>(obj);
  if (!a.dtype().is(py::dtype::of<uint8_t>())) {
    throw py::type_error(std::string(name) + ": expected a uint8 array, got dtype " +
                         py::str(a.dtype()).cast<std::string>());
  }
  if (a.ndim() != 2 && !(a.ndim() == 3 && a.shape(2) == 2)) {
    throw py::value_error(std::string(name) + ": expected a 2-D plane (or rows x cols x 2)");
  }
  const py::ssize_t row_bytes = a.ndim() == 2 ? a.shape(1) : a.shape(1) * 2;
  // Checked before any copy: a broadcast plane may stand for terabytes.
  if (a.shape(0) > INT32_MAX || row_bytes > INT32_MAX) {
    throw py::value_error(std::string(name) + ": frame sides must fit in 32 bits");
  }
  const bool packed = a.ndim() == 2 ? a.strides(1) == 1 : a.strides(2) == 1 && a.strides(1) == 2;
  if (!packed || a.strides(0) < row_bytes) a = c_array<uint8_t>(a);
  keep = a;
  return {static_cast<const uint8_t*>(a.data()),
          static_cast<size_t>(a.shape(0) > 1 ? a.strides(0) : row_bytes), a.shape(0), row_bytes};
}

void require_plane(const Plane& p, const char* name, py::ssize_t rows, py::ssize_t row_bytes) {
  if (p.rows < rows || p.row_bytes < row_bytes) {
    throw py::value_error(std::string(name) + ": plane too small, expected at least " +
                          std::to_string(rows) + " rows of " + std::to_string(row_bytes) +
                          " bytes");
  }
}

py::array_t<uint8_t> yuv_to_rgb(py::handle y, py::handle u, py::handle v,
                                vemoproc::YuvLayout layout, vemoproc::YuvRange range,
                                vemoproc::Rotation rotation) {
  py::object keep_y, keep_u, keep_v;
  Plane py_ = plane(y, "y", keep_y);
  vemoproc::YuvView f{};
  f.layout = layout;
  f.range = range;
  f.y = py_.data;
  f.y_stride = py_.stride;
  if (u.is_none()) {
    // One buffer of height * 3 / 2 rows: the luma rows, then the chroma bytes
    // packed behind them (the usual single-buffer camera layout).
    if (!v.is_none()) throw py::value_error("v: given without u");
    py::array a = py::reinterpret_borrow<py::array>(keep_y);
    if (py_.rows % 3 != 0 || py_.row_bytes % 2 != 0 || !(a.flags() & py::array::c_style)) {
      throw py::value_error(
          "y: without u, expected one C-contiguous buffer of (height * 3 / 2, width) with even "
          "sides");
    }
    f.width = static_cast<int>(py_.row_bytes);
    f.height = static_cast<int>(py_.rows / 3 * 2);
    const size_t luma = static_cast<size_t>(f.width) * static_cast<size_t>(f.height);
    f.u = py_.data + luma;
    if (layout == vemoproc::YuvLayout::I420) {
      f.u_stride = static_cast<size_t>(f.width / 2);
      f.v = f.u + luma / 4;
      f.v_stride = f.u_stride;
    } else {
      f.u_stride = static_cast<size_t>(f.width);
    }
  } else {
    if (py_.rows > INT32_MAX || py_.row_bytes > INT32_MAX) {
      throw py::value_error("y: frame sides must fit in 32 bits");
    }
    f.width = static_cast<int>(py_.row_bytes);
    f.height = static_cast<int>(py_.rows);
    const py::ssize_t crows = (py_.rows + 1) / 2, ccols = (py_.row_bytes + 1) / 2;
    Plane pu = plane(u, "u", keep_u);
    f.u = pu.data;
    f.u_stride = pu.stride;
    if (layout == vemoproc::YuvLayout::I420) {
      if (v.is_none()) throw py::value_error("v: required for I420");
      Plane pv = plane(v, "v", keep_v);
      require_plane(pu, "u", crows, ccols);
      require_plane(pv, "v", crows, ccols);
      f.v = pv.data;
      f.v_stride = pv.stride;
    } else {
      if (!v.is_none()) throw py::value_error("v: only I420 has a separate V plane");
      require_plane(pu, "u", crows, ccols * 2);
    }
  }
  vemoproc::Image out = released([&] { return vemoproc::to_rgb(f, rotation); });
  return to_numpy(std::move(out));
}

}  // namespace

void bind_pixels(py::module_& m) {
  py::enum_<vemoproc::YuvLayout>(m, "YuvLayout", "Plane layout of a 4:2:0 frame.")
      .value("NV12", vemoproc::YuvLayout::NV12, "Y plane, then interleaved U, V")
      .value("NV21", vemoproc::YuvLayout::NV21, "Y plane, then interleaved V, U")
      .value("I420", vemoproc::YuvLayout::I420, "Y, U and V planes");
  py::enum_<vemoproc::YuvRange>(m, "YuvRange", "Value range of a frame (BT.601).")
      .value("Video", vemoproc::YuvRange::Video, "limited range, Y 16..235 (camera default)")
      .value("Full", vemoproc::YuvRange::Full, "full range, Y 0..255 (JPEG convention)");
  py::enum_<vemoproc::Rotation>(m, "Rotation", "Clockwise turn applied after conversion.")
      .value("None_", vemoproc::Rotation::None, "no turn (C++ Rotation::None)")
      .value("Clockwise90", vemoproc::Rotation::Clockwise90)
      .value("Rotate180", vemoproc::Rotation::Rotate180)
      .value("Clockwise270", vemoproc::Rotation::Clockwise270);

  py::enum_<vemoproc::Decoder>(m, "Decoder", "Which decoder reads encoded images.")
      .value("Stb", vemoproc::Decoder::Stb, "stb_image, as the path loaders (the default)")
      .value("Reference", vemoproc::Decoder::Reference,
             "libjpeg-turbo for JPEG with EXIF orientation applied: cv2.imread's and Pillow's "
             "pixels (as RGB)");
  py::enum_<vemoproc::Resample>(m, "Resample", "Resampling that matches a Python reference.")
      .value("OpenCVLinear", vemoproc::Resample::OpenCVLinear,
             "cv2.resize(..., interpolation=cv2.INTER_LINEAR)")
      .value("PillowBicubic", vemoproc::Resample::PillowBicubic,
             "PIL Image.resize(..., Image.BICUBIC, reducing_gap=None)")
      .value("PillowBilinear", vemoproc::Resample::PillowBilinear,
             "PIL Image.resize(..., Image.BILINEAR, reducing_gap=None)");

  m.def(
      "decode_image",
      [](py::handle data, bool apply_exif_orientation, vemoproc::Decoder decoder) {
        if (!is_bytes_like(data)) {
          throw py::type_error("data: expected bytes, bytearray or memoryview");
        }
        if (decoder == vemoproc::Decoder::Stb) {
          return to_numpy(decode_bytes(data, apply_exif_orientation));
        }
        return to_numpy(decode_bytes(data, decoder));
      },
      py::arg("data"), py::arg("apply_exif_orientation") = false,
      py::arg("decoder") = vemoproc::Decoder::Stb,
      R"(Decode an encoded image (PNG, JPEG, BMP, ...) held in memory.

Returns an HxWx3 uint8 RGB array, exactly the pixels the path loaders give for
a file with these bytes. With apply_exif_orientation, a JPEG's EXIF orientation
tag is applied so the image comes back upright. decoder=Decoder.Reference
decodes JPEG with libjpeg-turbo and always applies the orientation: the pixels
of cv2.imread (as RGB) and of ImageOps.exif_transpose(Image.open(p)).convert("RGB").

Raises RuntimeError "Failed to decode image bytes: ..." for data that does not
decode, or an image of more than max_image_pixels() pixels.)");

  m.def(
      "decode_image_file",
      [](py::handle path, vemoproc::Decoder decoder) {
        if (!is_path_like(path)) throw py::type_error("path: expected str or os.PathLike");
        const std::string p = path_string(path);
        return to_numpy(released([&] { return vemoproc::decode_image_file(p, decoder); }));
      },
      py::arg("path"), py::arg("decoder") = vemoproc::Decoder::Stb,
      R"(Read and decode an image file into an HxWx3 uint8 RGB array (see
decode_image for the decoders). Raises RuntimeError "Failed to load image: PATH".)");

  m.def(
      "resize",
      [](py::handle image, int width, int height, vemoproc::Resample method) {
        py::object keep;
        const vemoproc::ImageView view = image_view(image, "image", keep);
        const bool grey_2d = py::reinterpret_borrow<py::array>(keep).ndim() == 2;
        return to_numpy(released([&] { return vemoproc::resize(view, width, height, method); }),
                        grey_2d);
      },
      py::arg("image"), py::arg("width"), py::arg("height"), py::arg("method"),
      R"(Resize a uint8 HxW, HxWx3 or HxWx4 array to width x height, bit-identical to
cv2.resize(image, (width, height), interpolation=cv2.INTER_LINEAR) for
Resample.OpenCVLinear, or to PIL's Image.resize((width, height), BICUBIC or
BILINEAR, reducing_gap=None) for Resample.PillowBicubic / PillowBilinear (a
4-channel array as mode RGBA). Channel order is kept; the result has the input's
layout. Raises RuntimeError "resize(): ..." for sizes below 1.)");

  m.def("yuv_to_rgb", &yuv_to_rgb, py::arg("y"), py::arg("u") = py::none(),
        py::arg("v") = py::none(), py::arg("layout") = vemoproc::YuvLayout::NV12,
        py::arg("range") = vemoproc::YuvRange::Video,
        py::arg("rotation") = vemoproc::Rotation::None,
        R"(Convert a 4:2:0 camera frame to an HxWx3 uint8 RGB array, then turn it.

y: the luma plane, uint8 [height, width]. u: for NV12/NV21 the interleaved
chroma plane, uint8 [ceil(h/2), 2*ceil(w/2)] or [ceil(h/2), ceil(w/2), 2]; for
I420 the U plane [ceil(h/2), ceil(w/2)], with v the V plane. Planes may be
slices of larger arrays (read in place). With u omitted, y is one C-contiguous
buffer of shape (height * 3 / 2, width) holding the whole frame.

BT.601 integer arithmetic; Video range matches OpenCV's COLOR_YUV2RGB_NV12,
_NV21 and _I420. Raises ValueError naming a plane that is too small.)");

  m.def("set_max_image_pixels", &vemoproc::set_max_image_pixels, py::arg("n"),
        "Set the process-wide decoding budget in pixels (default 178956970). Every decoder "
        "refuses a larger image before allocating it, and every intermediate image a family "
        "allocates is held to it.");
  m.def("max_image_pixels", &vemoproc::max_image_pixels,
        "The process-wide decoding budget in pixels.");

  m.attr("MAX_THREADS") = vemoproc::kMaxThreads;
  m.def("set_num_threads", &vemoproc::set_num_threads, py::arg("n"),
        "Let library calls use up to n threads, counting the calling thread (1, the default, "
        "creates none). Results are bit-identical to one thread. Process-wide. Raises "
        "RuntimeError for n outside [1, MAX_THREADS].");
  m.def("num_threads", &vemoproc::num_threads, "The current thread setting (1 unless changed).");
}

}  // namespace vemoproc_py

PYBIND11_MODULE(_vemoproc, m) {
  m.doc() =
      "Model-specific pre- and post-processing for on-device inference: detection (yolo), "
      "classifier and vision-encoder inputs (convnext, zentil, qwen2vl), speech-synthesis "
      "helpers (dia) and token streaming (TextStreamer).";
  vemoproc_py::bind_pixels(m);
  vemoproc_py::bind_pipeline(m);
  vemoproc_py::bind_yolo(m);
  vemoproc_py::bind_vision(m);
  vemoproc_py::bind_dia(m);
  vemoproc_py::bind_streamer(m);
}
