// Pose: boxes selected as for detection, each kept detection's keypoints
// (x, y[, visibility] per point, after the class scores) mapped back with the
// same letterbox inverse.
#include <stdexcept>

#include "geometry.hpp"
#include "select.hpp"
#include "yolo_tasks.hpp"

namespace yolo {

using internal::Candidates;
using internal::HeadView;
using internal::kCols;
using internal::Mapping;

namespace {

size_t keypoint_values(std::array<size_t, 2> shape, const std::string& function) {
  if (shape[0] == 0 || (shape[1] != 2 && shape[1] != 3)) {
    throw std::runtime_error(function +
                             ": keypoint_shape must be K x D with K at least 1 and D 2 or 3");
  }
  return shape[0] * shape[1];
}

std::string keypoint_text(std::array<size_t, 2> shape) {
  return std::to_string(shape[0]) + " x " + std::to_string(shape[1]) + " keypoint values";
}

// K keypoints whose values sit `step` floats apart, starting at `values`.
std::vector<Keypoint> map_keypoints(const float* values, size_t step, std::array<size_t, 2> shape,
                                    const Mapping& map) {
  std::vector<Keypoint> points(shape[0]);
  for (size_t k = 0; k < shape[0]; ++k) {
    const float* v = values + k * shape[1] * step;
    points[k] = {map.x(v[0]), map.y(v[step]), shape[1] == 3 ? v[2 * step] : 1.0f};
  }
  return points;
}

std::vector<PoseDetection> pose_one(const HeadView& head, const LetterboxInfo& g,
                                    const PostprocessOptions& options,
                                    std::array<size_t, 2> shape) {
  const size_t values = shape[0] * shape[1];
  const Candidates kept = internal::select_and_suppress(head, options, values);
  const Mapping map(g, options.box_mapping);
  const size_t first = head.c - values;
  std::vector<PoseDetection> out;
  out.reserve(kept.size());
  for (size_t k = 0; k < kept.size(); ++k) {
    const size_t i = kept.source[k];
    const float* start =
        head.channels_first ? head.data + first * head.n + i : head.data + i * head.c + first;
    out.push_back({internal::map_box(kept.table.data() + k * kCols, map),
                   map_keypoints(start, head.channels_first ? head.n : 1, shape, map)});
  }
  return out;
}

}  // namespace

std::vector<PoseDetection> postprocess_pose(const xt::xtensor<float, 2>& head,
                                            const LetterboxInfo& letterbox,
                                            const PostprocessOptions& options,
                                            std::array<size_t, 2> keypoint_shape) {
  const size_t values = keypoint_values(keypoint_shape, "postprocess_pose()");
  const HeadView view =
      internal::head_view(head.data(), head.shape(0), head.shape(1), options, "postprocess_pose()",
                          values, keypoint_text(keypoint_shape));
  internal::check_geometry(letterbox, "postprocess_pose()", "letterbox");
  return pose_one(view, letterbox, options, keypoint_shape);
}

std::vector<std::vector<PoseDetection>> postprocess_pose_batch(
    const xt::xtensor<float, 3>& heads, const std::vector<LetterboxInfo>& letterbox,
    const PostprocessOptions& options, std::array<size_t, 2> keypoint_shape) {
  const size_t values = keypoint_values(keypoint_shape, "postprocess_pose_batch()");
  const size_t batch = heads.shape(0);
  if (letterbox.size() != batch) {
    throw std::runtime_error("postprocess_pose_batch(): letterbox holds " +
                             std::to_string(letterbox.size()) + " entries for " +
                             std::to_string(batch) + " heads");
  }
  const size_t rows = heads.shape(1);
  const size_t cols = heads.shape(2);
  const HeadView first =
      internal::head_view(heads.data(), rows, cols, options, "postprocess_pose_batch()", values,
                          keypoint_text(keypoint_shape));
  for (size_t i = 0; i < batch; ++i) {
    internal::check_geometry(letterbox[i], "postprocess_pose_batch()",
                             ("letterbox[" + std::to_string(i) + "]").c_str());
  }
  std::vector<std::vector<PoseDetection>> out;
  out.reserve(batch);
  for (size_t i = 0; i < batch; ++i) {
    HeadView view = first;
    view.data = heads.data() + i * rows * cols;
    out.push_back(pose_one(view, letterbox[i], options, keypoint_shape));
  }
  return out;
}

std::vector<PoseDetection> postprocess_pose_end2end(const xt::xtensor<float, 2>& rows,
                                                    const LetterboxInfo& letterbox,
                                                    const PostprocessOptions& options,
                                                    std::array<size_t, 2> keypoint_shape) {
  const size_t values = keypoint_values(keypoint_shape, "postprocess_pose_end2end()");
  const size_t c = rows.shape(1);
  if (c < kCols + values) {
    throw std::runtime_error(
        "postprocess_pose_end2end(): rows needs at least " + std::to_string(kCols + values) +
        " columns (x1, y1, x2, y2, score, class, " + keypoint_text(keypoint_shape) + ")");
  }
  internal::check_geometry(letterbox, "postprocess_pose_end2end()", "letterbox");
  const Mapping map(letterbox, options.box_mapping);
  std::vector<PoseDetection> out;
  for (const size_t i : internal::select_end2end(rows.data(), rows.shape(0), c, options)) {
    const float* row = rows.data() + i * c;
    out.push_back(
        {internal::map_box(row, map), map_keypoints(row + kCols, 1, keypoint_shape, map)});
  }
  return out;
}

const std::vector<std::pair<int, int>>& human_skeleton() {
  static const std::vector<std::pair<int, int>> limbs = {
      {15, 13}, {13, 11}, {16, 14}, {14, 12}, {11, 12}, {5, 11}, {6, 12}, {5, 6}, {5, 7}, {6, 8},
      {7, 9},   {8, 10},  {1, 2},   {0, 1},   {0, 2},   {1, 3},  {2, 4},  {3, 5}, {4, 6}};
  return limbs;
}

}  // namespace yolo
