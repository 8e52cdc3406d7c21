// vemoproc.yolo: letterbox preprocessing, head decoding and drawing.
#include <array>
#include <cmath>
#include <cstring>
#include <limits>
#include <string>
#include <vector>

#include "common.hpp"
#include "yolo_options.hpp"
#include "yolo.hpp"

namespace vemoproc_py {

void bind_yolo_tasks(py::module_& m);

namespace {

// The library's float-to-int rule: truncation, saturating at the int limits,
// NaN giving 0.
int saturating_int(float v) {
  if (std::isnan(v)) return 0;
  if (v >= 2147483648.0f) return std::numeric_limits<int>::max();
  if (v < -2147483648.0f) return std::numeric_limits<int>::min();
  return static_cast<int>(v);
}

std::vector<std::string> paths_of(py::handle paths) {
  if (is_path_like(paths)) throw py::type_error("paths: expected a list of paths, got one path");
  std::vector<std::string> out;
  for (py::handle p : paths) {
    if (!is_path_like(p)) throw py::type_error("paths: every item must be a str or os.PathLike");
    out.push_back(path_string(p));
  }
  return out;
}

// Detections as an [N, 6] float32 array: x1, y1, x2, y2, score, class_id.
py::array_t<float> detections_array(const std::vector<yolo::Detection>& dets) {
  std::vector<float> flat;
  flat.reserve(dets.size() * 6);
  for (const auto& d : dets) {
    flat.insert(flat.end(), {d.x1, d.y1, d.x2, d.y2, d.score, static_cast<float>(d.class_id)});
  }
  return to_numpy(std::move(flat), {static_cast<py::ssize_t>(dets.size()), 6});
}

// Detections from a list of Detection or an [N, 6] array.
std::vector<yolo::Detection> detections_of(py::handle obj) {
  std::vector<yolo::Detection> out;
  if (py::isinstance<py::array>(obj)) {
    auto a = as_array<float>(obj, "detections", 2);
    if (a.shape(1) != 6) throw py::value_error("detections: expected an [N, 6] array");
    for (py::ssize_t i = 0; i < a.shape(0); ++i) {
      const float* r = a.data(i, 0);
      out.push_back({r[0], r[1], r[2], r[3], r[4], saturating_int(r[5])});
    }
    return out;
  }
  for (py::handle d : obj) {
    if (!py::isinstance<yolo::Detection>(d)) {
      throw py::type_error("detections: expected Detection items or an [N, 6] array");
    }
    out.push_back(d.cast<yolo::Detection>());
  }
  return out;
}

py::object detections_result(std::vector<yolo::Detection>&& dets, bool as_array) {
  if (as_array) return detections_array(dets);
  return py::cast(std::move(dets));
}

// The keywords of the geometry overloads, one per PostprocessOptions field.
#define VEMOPROC_PY_OPTION_ARGS                                                                \
  py::kw_only(), py::arg("conf_threshold") = 0.25f, py::arg_v("iou_threshold", 0.45f, "0.45"), \
                 py::arg("max_det") = 300, py::arg("agnostic") = false,                        \
                 py::arg("channels_first") = false, py::arg("objectness") = false,             \
                 py::arg("classes") = std::vector<int>{}, py::arg("max_candidates") = 30000,   \
                 py::arg("box_mapping") = vemoproc::Pipeline::Native, py::arg("as_array") = false

constexpr const char* kOptionsDoc = R"(
Keywords: conf_threshold (scores strictly above), iou_threshold (NMS suppresses
IoU strictly above), max_det, agnostic (NMS across classes), channels_first
(the head is [4 + classes, N], e.g. a [1, 84, 8400] export without its batch
axis), objectness (older [N, 5 + classes] heads: column 4 multiplies the class
scores), classes (keep only these ids), max_candidates (most boxes sent to
NMS), box_mapping (Pipeline.MatchPython: map boxes back with the Python
pipeline's rule, (x - left) / scale in float, for the MatchPython letterbox's
geometry), as_array (an [N, 6] float32 array instead of Detection objects).)";

}  // namespace

void bind_yolo(py::module_& parent) {
  py::module_ m = parent.def_submodule(
      "yolo", "Object detection: letterbox preprocessing, head decoding with NMS, drawing.");

  py::class_<yolo::Detection>(m, "Detection", "One detection in original-image pixels.")
      .def(py::init([](float x1, float y1, float x2, float y2, float score, int class_id) {
             return yolo::Detection{x1, y1, x2, y2, score, class_id};
           }),
           py::arg("x1"), py::arg("y1"), py::arg("x2"), py::arg("y2"), py::arg("score"),
           py::arg("class_id"))
      .def_readwrite("x1", &yolo::Detection::x1)
      .def_readwrite("y1", &yolo::Detection::y1)
      .def_readwrite("x2", &yolo::Detection::x2)
      .def_readwrite("y2", &yolo::Detection::y2)
      .def_readwrite("score", &yolo::Detection::score)
      .def_readwrite("class_id", &yolo::Detection::class_id)
      .def("__repr__", [](const yolo::Detection& d) {
        return py::str("Detection(x1={}, y1={}, x2={}, y2={}, score={}, class_id={})")
            .format(d.x1, d.y1, d.x2, d.y2, d.score, d.class_id);
      });

  m.def(
      "preprocess",
      [](py::handle paths, std::array<int, 2> size, vemoproc::Pipeline pipeline) {
        std::vector<std::string> files = paths_of(paths);
        xt::xtensor<float, 4> out = released([&] {
          return pipeline == vemoproc::Pipeline::Native
                     ? yolo::preprocess(files, size)
                     : yolo::preprocess(files, size, pipeline).tensor;
        });
        return to_numpy(std::move(out));
      },
      py::arg("paths"), py::arg("size") = std::array<int, 2>{640, 640}, py::kw_only(),
      py::arg("pipeline") = vemoproc::Pipeline::Native,
      R"(Load, letterbox (grey 114) and pack image files into one tensor.

size is (width, height). Returns float32 [N, 3, height, width] holding
sample / 255. Raises RuntimeError "stbi_load failed for: PATH" when a file
cannot be decoded. pipeline=Pipeline.MatchPython gives the OpenCV-based Python
letterbox's tensor bit for bit (files decoded as cv2.imread does).)");

  m.def(
      "letterbox",
      [](py::array image, std::array<int, 2> new_shape, unsigned char pad_value) {
        py::object keep;
        vemoproc::ImageView view = image_view(image, "image", keep);
        yolo::RawImage out =
            released([&] { return yolo::letterbox(yolo::RawImage(view), new_shape, pad_value); });
        std::vector<py::ssize_t> shape{out.height, out.width, 3};
        return to_numpy(std::move(out.data), std::move(shape));
      },
      py::arg("image"), py::arg("new_shape") = std::array<int, 2>{640, 640},
      py::arg("pad_value") = 114,
      R"(Scale an image to fit new_shape = (width, height) keeping its aspect ratio,
centre it and pad the rest with pad_value.

image: uint8 HxWx3 (RGB), HxWx4 (RGBA) or HxW (grey). Returns uint8
[height, width, 3].)");

  m.def(
      "postprocess",
      [](py::array predictions, std::array<size_t, 2> input_shape,
         std::array<size_t, 2> original_shape, float conf_threshold, float iou_threshold,
         size_t max_det, bool as_array) -> py::object {
        xt::xtensor<float, 2> head = to_xtensor<float, 2>(predictions, "predictions");
        std::vector<yolo::Detection> dets = released([&] {
          return yolo::postprocess(head, input_shape, original_shape, conf_threshold, iou_threshold,
                                   max_det);
        });
        return detections_result(std::move(dets), as_array);
      },
      py::arg("predictions"), py::arg("input_shape"), py::arg("original_shape"),
      py::arg("conf_threshold") = 0.25f, py::arg_v("iou_threshold", 0.45f, "0.45"),
      py::arg("max_det") = 300, py::kw_only(), py::arg("as_array") = false,
      R"(Decode one image's raw detection head into detections, best first.

predictions: [N, 4 + classes] rows of (cx, cy, w, h, class scores), in
network-input pixels. input_shape and original_shape are (height, width).
Keeps the best class per row with score strictly above conf_threshold, runs
greedy per-class NMS (suppressing IoU strictly above iou_threshold, at most
max_det kept), undoes the letterbox and clips boxes to the original image.

Returns a list of Detection, or with as_array=True an [N, 6] float32 array of
(x1, y1, x2, y2, score, class_id). Raises RuntimeError for fewer than 6
columns.)");

  py::class_<yolo::LetterboxInfo>(m, "LetterboxInfo",
                                  "What letterbox applied to one image (all in pixels).")
      .def(py::init([](int original_width, int original_height, float scale, int new_width,
                       int new_height, int left, int top) {
             return yolo::LetterboxInfo{
                 original_width, original_height, scale, new_width, new_height, left, top};
           }),
           py::arg("original_width"), py::arg("original_height"), py::arg("scale"),
           py::arg("new_width"), py::arg("new_height"), py::arg("left"), py::arg("top"))
      .def_readwrite("original_width", &yolo::LetterboxInfo::original_width)
      .def_readwrite("original_height", &yolo::LetterboxInfo::original_height)
      .def_readwrite("scale", &yolo::LetterboxInfo::scale)
      .def_readwrite("new_width", &yolo::LetterboxInfo::new_width)
      .def_readwrite("new_height", &yolo::LetterboxInfo::new_height)
      .def_readwrite("left", &yolo::LetterboxInfo::left)
      .def_readwrite("top", &yolo::LetterboxInfo::top)
      .def("__eq__",
           [](const yolo::LetterboxInfo& a, const yolo::LetterboxInfo& b) {
             return a.original_width == b.original_width &&
                    a.original_height == b.original_height && a.scale == b.scale &&
                    a.new_width == b.new_width && a.new_height == b.new_height &&
                    a.left == b.left && a.top == b.top;
           })
      .def("__repr__", [](const yolo::LetterboxInfo& i) {
        return py::str(
                   "LetterboxInfo(original_width={}, original_height={}, scale={}, "
                   "new_width={}, new_height={}, left={}, top={})")
            .format(i.original_width, i.original_height, i.scale, i.new_width, i.new_height, i.left,
                    i.top);
      });

  m.def(
      "letterbox_info",
      [](int width, int height, std::array<int, 2> new_shape, vemoproc::Pipeline pipeline) {
        return yolo::letterbox_info(width, height, new_shape, pipeline);
      },
      py::arg("width"), py::arg("height"), py::arg("new_shape") = std::array<int, 2>{640, 640},
      py::kw_only(), py::arg("pipeline") = vemoproc::Pipeline::Native,
      "The letterbox geometry of a width x height image fitted into new_shape = (width, "
      "height), without touching pixels (of the Python letterbox with "
      "pipeline=Pipeline.MatchPython).");

  m.def(
      "preprocess_images",
      [](py::handle images, std::array<int, 2> size, vemoproc::Pipeline pipeline, bool bgr) {
        ImageBatch batch = image_batch(images, "images", decoder_for(pipeline));
        // Arrays in OpenCV's channel order (decoded images are always RGB).
        for (size_t i = 0; bgr && i < batch.views.size(); ++i) {
          vemoproc::ImageView& v = batch.views[i];
          if (batch.args[i].decoded.rgb.empty() && v.format == vemoproc::PixelFormat::RGB) {
            v.format = vemoproc::PixelFormat::BGR;
          } else if (batch.args[i].decoded.rgb.empty() && v.format == vemoproc::PixelFormat::RGBA) {
            v.format = vemoproc::PixelFormat::BGRA;
          }
        }
        yolo::DetectionBatch out =
            released([&] { return yolo::preprocess_images(batch.views, size, pipeline); });
        return py::make_tuple(to_numpy(std::move(out.tensor)), py::cast(out.letterbox));
      },
      py::arg("images"), py::arg("size") = std::array<int, 2>{640, 640}, py::kw_only(),
      py::arg("pipeline") = vemoproc::Pipeline::Native, py::arg("bgr") = false,
      R"(preprocess for images in memory: (float32 [N, 3, height, width], [LetterboxInfo]).

images: uint8 arrays (HxWx3, HxWx4 or HxW; read in place when rows are packed)
or encoded bytes. The tensor equals preprocess on files decoding to the same
pixels, bit for bit; size is (width, height). bgr=True reads 3- and 4-channel
arrays in OpenCV's order (BGR, BGRA), e.g. cv2.imread's result.
pipeline=Pipeline.MatchPython gives the OpenCV-based Python letterbox's tensor
bit for bit (bytes decoded as cv2.imdecode does); map its boxes back with
box_mapping=Pipeline.MatchPython.)");

  m.def(
      "postprocess",
      [](py::array head, const yolo::LetterboxInfo& letterbox, float conf_threshold,
         float iou_threshold, size_t max_det, bool agnostic, bool channels_first, bool objectness,
         std::vector<int> classes, size_t max_candidates, vemoproc::Pipeline box_mapping,
         bool as_array) {
        xt::xtensor<float, 2> h = to_xtensor<float, 2>(head, "head");
        const yolo::PostprocessOptions o =
            options_of(conf_threshold, iou_threshold, max_det, agnostic, channels_first, objectness,
                       std::move(classes), max_candidates, box_mapping);
        std::vector<yolo::Detection> dets =
            released([&] { return yolo::postprocess(h, letterbox, o); });
        return detections_result(std::move(dets), as_array);
      },
      py::arg("head"), py::arg("letterbox"), VEMOPROC_PY_OPTION_ARGS,
      (std::string(R"(Geometry form: decode one image's head with the LetterboxInfo that
preprocess_images or letterbox_info gave for it, mapping boxes back with the
exact inverse of the letterbox.
)") + kOptionsDoc)
          .c_str());

  m.def(
      "postprocess_batch",
      [](py::array heads, const std::vector<yolo::LetterboxInfo>& letterbox, float conf_threshold,
         float iou_threshold, size_t max_det, bool agnostic, bool channels_first, bool objectness,
         std::vector<int> classes, size_t max_candidates, vemoproc::Pipeline box_mapping,
         bool as_array) {
        xt::xtensor<float, 3> h = to_xtensor<float, 3>(heads, "heads");
        const yolo::PostprocessOptions o =
            options_of(conf_threshold, iou_threshold, max_det, agnostic, channels_first, objectness,
                       std::move(classes), max_candidates, box_mapping);
        std::vector<std::vector<yolo::Detection>> dets =
            released([&] { return yolo::postprocess_batch(h, letterbox, o); });
        py::list out;
        for (auto& d : dets) out.append(detections_result(std::move(d), as_array));
        return out;
      },
      py::arg("heads"), py::arg("letterbox"), VEMOPROC_PY_OPTION_ARGS,
      (std::string(R"(The geometry form for a batch: heads [B, N, 4 + classes] ([B, 4 + classes, N]
with channels_first) and one LetterboxInfo per image; a list of results.
)") + kOptionsDoc)
          .c_str());

  m.def(
      "postprocess_end2end",
      [](py::array rows, const yolo::LetterboxInfo& letterbox, float conf_threshold,
         vemoproc::Pipeline box_mapping, bool as_array) {
        xt::xtensor<float, 2> r = to_xtensor<float, 2>(rows, "rows");
        std::vector<yolo::Detection> dets = released(
            [&] { return yolo::postprocess_end2end(r, letterbox, conf_threshold, box_mapping); });
        return detections_result(std::move(dets), as_array);
      },
      py::arg("rows"), py::arg("letterbox"), py::arg("conf_threshold") = 0.25f, py::kw_only(),
      py::arg("box_mapping") = vemoproc::Pipeline::Native, py::arg("as_array") = false,
      R"(For heads that need no NMS: rows [N, 6] of (x1, y1, x2, y2, score, class) in
network pixels. Rows scoring strictly above conf_threshold, in input order,
mapped back and clipped like the geometry form of postprocess.)");

  m.def(
      "draw_detections",
      [](py::array image, py::handle detections, std::vector<std::string> class_names,
         bool show_score, int thickness) {
        if (!image.dtype().is(py::dtype::of<uint8_t>())) {
          throw py::type_error("image: expected a uint8 array");
        }
        if (image.ndim() != 3 || image.shape(2) != 3) {
          throw py::value_error("image: expected an HxWx3 array");
        }
        if (!image.writeable()) throw py::value_error("image: array is read-only");
        std::vector<yolo::Detection> dets = detections_of(detections);
        yolo::RawImage raw;
        raw.height = static_cast<int>(image.shape(0));
        raw.width = static_cast<int>(image.shape(1));
        raw.channels = 3;
        raw.data.resize(static_cast<size_t>(image.size()));
        // Through numpy's own copy so that any strides are honoured both ways.
        py::array_t<uint8_t> packed({image.shape(0), image.shape(1), py::ssize_t{3}},
                                    raw.data.data(), py::capsule(raw.data.data(), [](void*) {}));
        py::module_ np = py::module_::import("numpy");
        np.attr("copyto")(packed, image);
        released([&] { yolo::draw_detections(raw, dets, class_names, show_score, thickness); });
        np.attr("copyto")(image, packed);
      },
      py::arg("image"), py::arg("detections"), py::arg("class_names") = std::vector<std::string>{},
      py::arg("show_score") = true, py::arg("thickness") = 2,
      R"(Paint detections into an HxWx3 uint8 RGB array in place.

detections: a list of Detection or an [N, 6] array. Each gets a
class-coloured outline `thickness` pixels wide, a label bar above the box and
the label (class name, or "cls_<id>" without one, plus the score when
show_score) in white. Coordinates are clamped to the image.)");
  bind_yolo_tasks(m);
}

}  // namespace vemoproc_py
