// Oriented boxes: candidates selected as for detection (the angle rides after
// the class scores), Fast-NMS with the probabilistic IoU through the shared
// skeleton, then the angle regularised and the box mapped back.
#include <cmath>
#include <stdexcept>

#include "geometry.hpp"
#include "nms.hpp"
#include "select.hpp"
#include "yolo_tasks.hpp"

namespace yolo {

using internal::HeadView;
using internal::kCols;
using internal::Mapping;

namespace {

constexpr float kPi = 3.14159265358979323846f;
constexpr float kEps = 1e-7f;

using RBox = std::array<float, 5>;  // cx, cy, w, h, angle

// A rotated box as the probabilistic IoU sees it: its centre, the covariance
// (a, b, c) of a uniform box, and max(a b - c^2, 0), computed once per box.
struct Gaussian {
  float x;
  float y;
  float a;
  float b;
  float c;
  float det;
};

Gaussian gaussian(const RBox& r) {
  const float a = r[2] * r[2] / 12.0f;
  const float b = r[3] * r[3] / 12.0f;
  const float cs = std::cos(r[4]);
  const float sn = std::sin(r[4]);
  const float cos2 = cs * cs;
  const float sin2 = sn * sn;
  Gaussian g{r[0], r[1], a * cos2 + b * sin2, a * sin2 + b * cos2, (a - b) * cs * sn, 0.0f};
  g.det = std::max(g.a * g.b - g.c * g.c, 0.0f);
  return g;
}

float probiou(const Gaussian& p, const Gaussian& q) {
  const float A = p.a + q.a;
  const float B = p.b + q.b;
  const float C = p.c + q.c;
  const float D = A * B - C * C;
  const float dy = p.y - q.y;
  const float dx = p.x - q.x;
  const float t1 = (A * (dy * dy) + B * (dx * dx)) / (D + kEps) * 0.25f;
  const float t2 = C * (q.x - p.x) * (p.y - q.y) / (D + kEps) * 0.5f;
  const float t3 = std::log(D / (4.0f * std::sqrt(p.det * q.det) + kEps) + kEps) * 0.5f;
  const float bd = std::min(std::max(t1 + t2 + t3, kEps), 100.0f);
  const float hd = std::sqrt(1.0f - std::exp(-bd) + kEps);
  return 1.0f - hd;
}

// What the far-apart test needs of a box: its centre, and the trace of its
// covariance (w^2 + h^2) / 12; boxes of other sizes than [1, 1e6] get a NaN
// trace and are always computed.
struct Extent {
  double x;
  double y;
  double trace;
};

Extent extent(const RBox& r) {
  const bool sensible = r[2] >= 1.0f && r[3] >= 1.0f && r[2] <= 1e6f && r[3] <= 1e6f;
  const double w = r[2];
  const double h = r[3];
  return {r[0], r[1], sensible ? (w * w + h * h) / 12.0 : std::nan("")};
}

// True when boxes a and b are far enough apart that their probabilistic IoU is
// certainly below a threshold whose distance bound is max_distance: the
// Bhattacharyya distance is at least |d|^2 / (4 trace(Sa + Sb)), with margin.
bool certainly_apart(const Extent& a, const Extent& b, double max_distance) {
  const double dx = a.x - b.x;
  const double dy = a.y - b.y;
  return dx * dx + dy * dy > 4.0 * (max_distance + 1.0) * (a.trace + b.trace);
}

// The remainder of t modulo p in [0, p).
float floor_mod(float t, float p) {
  float r = std::fmod(t, p);
  if (r < 0.0f) r += p;
  return r >= p ? 0.0f : r;
}

OrientedDetection finish(RBox r, float score, int class_id, const LetterboxInfo& g,
                         const Mapping& map) {
  if (floor_mod(r[4], kPi) >= kPi / 2.0f) std::swap(r[2], r[3]);
  r[4] = floor_mod(r[4], kPi / 2.0f);
  OrientedDetection d{};
  d.cx = map.x_unclipped(r[0]);
  d.cy = map.y_unclipped(r[1]);
  d.width = r[2] / g.scale;
  d.height = r[3] / g.scale;
  d.angle = r[4];
  d.score = score;
  d.class_id = class_id;
  const float cs = std::cos(d.angle);
  const float sn = std::sin(d.angle);
  const float ux = d.width / 2.0f * cs;
  const float uy = d.width / 2.0f * sn;
  const float vx = -(d.height / 2.0f) * sn;
  const float vy = d.height / 2.0f * cs;
  d.corners = {{{d.cx + ux + vx, d.cy + uy + vy},
                {d.cx + ux - vx, d.cy + uy - vy},
                {d.cx - ux - vx, d.cy - uy - vy},
                {d.cx - ux + vx, d.cy - uy + vy}}};
  return d;
}

std::vector<OrientedDetection> obb_one(const HeadView& head, const LetterboxInfo& g,
                                       const PostprocessOptions& options) {
  const internal::Candidates found = internal::select_candidates(
      head,
      {options.conf_threshold, options.objectness, options.classes, options.max_candidates, 1});
  std::vector<RBox> boxes(found.size());
  std::vector<Gaussian> gaussians(found.size());
  std::vector<Extent> extents(found.size());
  for (size_t k = 0; k < found.size(); ++k) {
    const size_t i = found.source[k];
    boxes[k] = {head.at(i, 0), head.at(i, 1), head.at(i, 2), head.at(i, 3), head.at(i, head.c - 1)};
    gaussians[k] = gaussian(boxes[k]);
    extents[k] = extent(boxes[k]);
  }
  const float thr = options.iou_threshold;
  const double complement = 1.0 - static_cast<double>(thr);
  const double max_distance =
      thr > 0.0f && thr <= 1.0f ? -std::log(1.0 - complement * complement) : -1.0;
  internal::AllLaterBoxes neighbours(found.table.data(), found.size(), options.agnostic);
  const std::vector<size_t> keep = internal::greedy_nms(
      found.table.data(), found.size(), options.max_det, true, neighbours, [&](size_t a, size_t b) {
        if (max_distance > 0.0 && certainly_apart(extents[a], extents[b], max_distance)) {
          return false;
        }
        return probiou(gaussians[a], gaussians[b]) >= thr;
      });
  const Mapping map(g, options.box_mapping);
  std::vector<OrientedDetection> out;
  out.reserve(keep.size());
  for (const size_t k : keep) {
    const float* row = found.table.data() + k * kCols;
    out.push_back(finish(boxes[k], row[4], internal::saturating_int(row[5]), g, map));
  }
  return out;
}

}  // namespace

float probabilistic_iou(const std::array<float, 5>& p, const std::array<float, 5>& q) {
  return probiou(gaussian(p), gaussian(q));
}

std::vector<OrientedDetection> postprocess_obb(const xt::xtensor<float, 2>& head,
                                               const LetterboxInfo& letterbox,
                                               const PostprocessOptions& options) {
  const HeadView view = internal::head_view(head.data(), head.shape(0), head.shape(1), options,
                                            "postprocess_obb()", 1, "the angle");
  internal::check_geometry(letterbox, "postprocess_obb()", "letterbox");
  return obb_one(view, letterbox, options);
}

std::vector<std::vector<OrientedDetection>> postprocess_obb_batch(
    const xt::xtensor<float, 3>& heads, const std::vector<LetterboxInfo>& letterbox,
    const PostprocessOptions& options) {
  const size_t batch = heads.shape(0);
  if (letterbox.size() != batch) {
    throw std::runtime_error("postprocess_obb_batch(): letterbox holds " +
                             std::to_string(letterbox.size()) + " entries for " +
                             std::to_string(batch) + " heads");
  }
  const size_t rows = heads.shape(1);
  const size_t cols = heads.shape(2);
  const HeadView first = internal::head_view(heads.data(), rows, cols, options,
                                             "postprocess_obb_batch()", 1, "the angle");
  for (size_t i = 0; i < batch; ++i) {
    internal::check_geometry(letterbox[i], "postprocess_obb_batch()",
                             ("letterbox[" + std::to_string(i) + "]").c_str());
  }
  std::vector<std::vector<OrientedDetection>> out;
  out.reserve(batch);
  for (size_t i = 0; i < batch; ++i) {
    HeadView view = first;
    view.data = heads.data() + i * rows * cols;
    out.push_back(obb_one(view, letterbox[i], options));
  }
  return out;
}

std::vector<OrientedDetection> postprocess_obb_end2end(const xt::xtensor<float, 2>& rows,
                                                       const LetterboxInfo& letterbox,
                                                       const PostprocessOptions& options) {
  const size_t c = rows.shape(1);
  if (c < 7) {
    throw std::runtime_error(
        "postprocess_obb_end2end(): rows needs at least 7 columns (cx, cy, w, h, score, class, "
        "angle)");
  }
  internal::check_geometry(letterbox, "postprocess_obb_end2end()", "letterbox");
  const Mapping map(letterbox, options.box_mapping);
  std::vector<OrientedDetection> out;
  for (const size_t i : internal::select_end2end(rows.data(), rows.shape(0), c, options)) {
    const float* row = rows.data() + i * c;
    out.push_back(finish({row[0], row[1], row[2], row[3], row[6]}, row[4],
                         internal::saturating_int(row[5]), letterbox, map));
  }
  return out;
}

Detection bounding_box(const OrientedDetection& box, int width, int height) {
  float x1 = box.corners[0][0];
  float x2 = x1;
  float y1 = box.corners[0][1];
  float y2 = y1;
  for (const auto& p : box.corners) {
    x1 = std::min(x1, p[0]);
    x2 = std::max(x2, p[0]);
    y1 = std::min(y1, p[1]);
    y2 = std::max(y2, p[1]);
  }
  const auto clip = [](float v, int side) {
    return std::min(std::max(v, 0.0f), static_cast<float>(side));
  };
  return {clip(x1, width),  clip(y1, height), clip(x2, width),
          clip(y2, height), box.score,        box.class_id};
}

}  // namespace yolo
