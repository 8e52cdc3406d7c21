// vemoproc.yolo, the other heads: masks, keypoints, oriented boxes, classes.
// Results are dicts of numpy arrays.
#include <array>
#include <string>
#include <vector>

#include "common.hpp"
#include "yolo_options.hpp"
#include "yolo_tasks.hpp"

namespace vemoproc_py {

namespace {

#define VEMOPROC_PY_TASK_ARGS                                                                  \
  py::kw_only(), py::arg("conf_threshold") = 0.25f, py::arg_v("iou_threshold", 0.45f, "0.45"), \
                 py::arg("max_det") = 300, py::arg("agnostic") = false,                        \
                 py::arg("channels_first") = false, py::arg("objectness") = false,             \
                 py::arg("classes") = std::vector<int>{}, py::arg("max_candidates") = 30000

#define VEMOPROC_PY_TASK_PARAMS                                                                  \
  float conf_threshold, float iou_threshold, size_t max_det, bool agnostic, bool channels_first, \
      bool objectness, std::vector<int> classes, size_t max_candidates

#define VEMOPROC_PY_TASK_OPTIONS                                                           \
  options_of(conf_threshold, iou_threshold, max_det, agnostic, channels_first, objectness, \
             std::move(classes), max_candidates, vemoproc::Pipeline::Native)

py::array_t<float> boxes_array(const std::vector<yolo::Detection>& boxes) {
  std::vector<float> flat;
  for (const auto& d : boxes) {
    flat.insert(flat.end(), {d.x1, d.y1, d.x2, d.y2, d.score, static_cast<float>(d.class_id)});
  }
  return to_numpy(std::move(flat), {static_cast<py::ssize_t>(boxes.size()), 6});
}

// Masks as a list of uint8 [h, w] arrays (1 inside) and their origins [N, 2] (x0, y0).
void add_masks(py::dict& out, std::vector<yolo::InstanceMask>& masks) {
  py::list arrays;
  std::vector<int32_t> origins;
  for (auto& m : masks) {
    origins.insert(origins.end(), {m.x0, m.y0});
    arrays.append(to_numpy(std::move(m.bits), {m.height, m.width}));
  }
  out["masks"] = arrays;
  out["origins"] = to_numpy(std::move(origins), {static_cast<py::ssize_t>(masks.size()), 2});
}

py::dict segment_dict(std::vector<yolo::SegmentedDetection>&& dets, bool outlines) {
  py::dict out;
  std::vector<yolo::Detection> boxes;
  std::vector<yolo::InstanceMask> masks;
  py::list polygons;
  for (auto& d : dets) {
    boxes.push_back(d.box);
    masks.push_back(std::move(d.mask));
    py::list loops;
    for (auto& p : d.outlines) {
      const auto n = static_cast<py::ssize_t>(p.size());
      std::vector<float> flat;
      for (const auto& v : p) flat.insert(flat.end(), {v[0], v[1]});
      loops.append(to_numpy(std::move(flat), {n, 2}));
    }
    polygons.append(loops);
  }
  out["boxes"] = boxes_array(boxes);
  add_masks(out, masks);
  if (outlines) out["outlines"] = polygons;
  return out;
}

py::dict pose_dict(const std::vector<yolo::PoseDetection>& dets, size_t k) {
  std::vector<yolo::Detection> boxes;
  std::vector<float> points;
  for (const auto& d : dets) {
    boxes.push_back(d.box);
    for (const auto& p : d.keypoints) points.insert(points.end(), {p.x, p.y, p.visibility});
  }
  py::dict out;
  out["boxes"] = boxes_array(boxes);
  out["keypoints"] = to_numpy(
      std::move(points), {static_cast<py::ssize_t>(dets.size()), static_cast<py::ssize_t>(k), 3});
  return out;
}

py::dict obb_dict(const std::vector<yolo::OrientedDetection>& dets) {
  std::vector<float> boxes;
  std::vector<float> corners;
  for (const auto& d : dets) {
    boxes.insert(boxes.end(),
                 {d.cx, d.cy, d.width, d.height, d.angle, d.score, static_cast<float>(d.class_id)});
    for (const auto& c : d.corners) corners.insert(corners.end(), {c[0], c[1]});
  }
  const auto n = static_cast<py::ssize_t>(dets.size());
  py::dict out;
  out["boxes"] = to_numpy(std::move(boxes), {n, 7});
  out["corners"] = to_numpy(std::move(corners), {n, 4, 2});
  return out;
}

py::tuple classes_tuple(const std::vector<yolo::ClassScore>& top) {
  std::vector<int64_t> ids;
  std::vector<float> scores;
  for (const auto& c : top) {
    ids.push_back(c.class_id);
    scores.push_back(c.score);
  }
  const auto n = static_cast<py::ssize_t>(top.size());
  return py::make_tuple(to_numpy(std::move(ids), {n}), to_numpy(std::move(scores), {n}));
}

}  // namespace

void bind_yolo_tasks(py::module_& m) {
  m.def(
      "segment",
      [](py::array head, py::array protos, const yolo::LetterboxInfo& letterbox,
         VEMOPROC_PY_TASK_PARAMS, bool outlines) {
        auto h = to_xtensor<float, 2>(head, "head");
        auto p = to_xtensor<float, 3>(protos, "protos");
        const yolo::PostprocessOptions o = VEMOPROC_PY_TASK_OPTIONS;
        auto dets = released([&] { return yolo::segment(h, p, letterbox, o, outlines); });
        return segment_dict(std::move(dets), outlines);
      },
      py::arg("head"), py::arg("protos"), py::arg("letterbox"), VEMOPROC_PY_TASK_ARGS,
      py::arg("outlines") = false,
      R"(Instance segmentation: head [N, 4 + classes + m], protos [m, mh, mw].

Returns {"boxes": float32 [N, 6] (x1, y1, x2, y2, score, class) in original
pixels, "masks": list of uint8 [h, w] (1 inside) over each box region,
"origins": int32 [N, 2] (x0, y0) of each region, and with outlines=True
"outlines": per detection a list of float32 [P, 2] polygons}. Options as for
postprocess.)");

  m.def(
      "segment_end2end",
      [](py::array rows, py::array protos, const yolo::LetterboxInfo& letterbox,
         VEMOPROC_PY_TASK_PARAMS, bool outlines) {
        auto r = to_xtensor<float, 2>(rows, "rows");
        auto p = to_xtensor<float, 3>(protos, "protos");
        const yolo::PostprocessOptions o = VEMOPROC_PY_TASK_OPTIONS;
        auto dets = released([&] { return yolo::segment_end2end(r, p, letterbox, o, outlines); });
        return segment_dict(std::move(dets), outlines);
      },
      py::arg("rows"), py::arg("protos"), py::arg("letterbox"), VEMOPROC_PY_TASK_ARGS,
      py::arg("outlines") = false,
      "segment for NMS-free rows [N, 6 + m] (x1, y1, x2, y2, score, class, coefficients).");

  m.def(
      "segment_input_masks",
      [](py::array head, py::array protos, const yolo::LetterboxInfo& letterbox,
         VEMOPROC_PY_TASK_PARAMS) {
        auto h = to_xtensor<float, 2>(head, "head");
        auto p = to_xtensor<float, 3>(protos, "protos");
        const yolo::PostprocessOptions o = VEMOPROC_PY_TASK_OPTIONS;
        auto masks = released([&] { return yolo::segment_input_masks(h, p, letterbox, o); });
        py::dict out;
        add_masks(out, masks);
        return out;
      },
      py::arg("head"), py::arg("protos"), py::arg("letterbox"), VEMOPROC_PY_TASK_ARGS,
      "The masks of segment at network-input resolution: {\"masks\", \"origins\"}.");

  m.def(
      "pose",
      [](py::array head, const yolo::LetterboxInfo& letterbox, VEMOPROC_PY_TASK_PARAMS,
         std::array<size_t, 2> keypoint_shape, bool end2end) {
        auto h = to_xtensor<float, 2>(head, "head");
        const yolo::PostprocessOptions o = VEMOPROC_PY_TASK_OPTIONS;
        auto dets = released([&] {
          return end2end ? yolo::postprocess_pose_end2end(h, letterbox, o, keypoint_shape)
                         : yolo::postprocess_pose(h, letterbox, o, keypoint_shape);
        });
        return pose_dict(dets, keypoint_shape[0]);
      },
      py::arg("head"), py::arg("letterbox"), VEMOPROC_PY_TASK_ARGS,
      py::arg("keypoint_shape") = std::array<size_t, 2>{17, 3}, py::arg("end2end") = false,
      R"(Pose: head [N, 4 + classes + K * D] (or NMS-free rows [N, 6 + K * D] with
end2end=True). Returns {"boxes": float32 [N, 6], "keypoints": float32 [N, K, 3]
(x, y in original pixels, visibility; 1 when D = 2)}.)");

  m.def(
      "obb",
      [](py::array head, const yolo::LetterboxInfo& letterbox, VEMOPROC_PY_TASK_PARAMS,
         bool end2end) {
        auto h = to_xtensor<float, 2>(head, "head");
        const yolo::PostprocessOptions o = VEMOPROC_PY_TASK_OPTIONS;
        auto dets = released([&] {
          return end2end ? yolo::postprocess_obb_end2end(h, letterbox, o)
                         : yolo::postprocess_obb(h, letterbox, o);
        });
        return obb_dict(dets);
      },
      py::arg("head"), py::arg("letterbox"), VEMOPROC_PY_TASK_ARGS, py::arg("end2end") = false,
      R"(Oriented boxes: head [N, 4 + classes + 1] (angle last; or NMS-free rows
[N, 7] cx, cy, w, h, score, class, angle with end2end=True). Returns
{"boxes": float32 [N, 7] (cx, cy, w, h, angle, score, class), "corners":
float32 [N, 4, 2]}.)");

  m.def("probabilistic_iou", &yolo::probabilistic_iou, py::arg("a"), py::arg("b"),
        "The probabilistic IoU of two rotated boxes (cx, cy, w, h, angle).");

  m.def(
      "classify",
      [](py::array scores, size_t top_k, bool apply_softmax) -> py::object {
        auto a = as_array<float>(scores, "scores", -1);
        if (a.ndim() == 1) {
          std::vector<float> v(a.data(), a.data() + a.size());
          return classes_tuple(yolo::classify(v, top_k, apply_softmax));
        }
        auto s = to_xtensor<float, 2>(scores, "scores");
        py::list out;
        for (const auto& top : yolo::classify_batch(s, top_k, apply_softmax)) {
          out.append(classes_tuple(top));
        }
        return out;
      },
      py::arg("scores"), py::arg("top_k") = 5, py::arg("apply_softmax") = false,
      R"(Top-k classes of scores [classes] (or a list of results for [B, classes]):
(int64 ids, float32 scores), descending, ties to the lower id. Exported heads
already end in a softmax: apply_softmax=True applies a second one.)");
}

}  // namespace vemoproc_py
