// Drawing of the task results: translucent masks, pose keypoints and limbs,
// rotated outlines. Boxes and labels go through draw_detections.
#include <algorithm>
#include <cmath>
#include <stdexcept>

#include "geometry.hpp"
#include "palette.hpp"
#include "yolo_tasks.hpp"

namespace yolo {

namespace {

void require_rgb(const RawImage& image, const char* function) {
  if (image.width < 0 || image.height < 0 ||
      image.data.size() <
          static_cast<size_t>(image.width) * static_cast<size_t>(image.height) * 3u) {
    throw std::runtime_error(std::string(function) +
                             ": image.data holds fewer than width * height * 3 bytes");
  }
}

void put(RawImage& image, int x, int y, const uint8_t* rgb) {
  uint8_t* p =
      image.data.data() +
      (static_cast<size_t>(y) * static_cast<size_t>(image.width) + static_cast<size_t>(x)) * 3u;
  p[0] = rgb[0];
  p[1] = rgb[1];
  p[2] = rgb[2];
}

// A float coordinate as a pixel bound clamped to [lo, hi] (NaN counts as lo).
int clamp_pixel(float v, int lo, int hi) {
  if (!(v >= static_cast<float>(lo))) return lo;
  if (v >= static_cast<float>(hi)) return hi;
  return static_cast<int>(v);
}

// Every pixel whose centre lies within `radius` of the segment p-q. The cost is
// the segment's bounding box, at most the image.
void segment_line(RawImage& image, float px, float py, float qx, float qy, float radius,
                  const uint8_t* rgb) {
  if (image.width == 0 || image.height == 0) return;
  const int x0 = clamp_pixel(std::min(px, qx) - radius - 1.0f, 0, image.width - 1);
  const int x1 = clamp_pixel(std::max(px, qx) + radius + 1.0f, 0, image.width - 1);
  const int y0 = clamp_pixel(std::min(py, qy) - radius - 1.0f, 0, image.height - 1);
  const int y1 = clamp_pixel(std::max(py, qy) + radius + 1.0f, 0, image.height - 1);
  const float dx = qx - px;
  const float dy = qy - py;
  const float len2 = dx * dx + dy * dy;
  if (!std::isfinite(len2)) return;
  const float r2 = radius * radius;
  for (int y = y0; y <= y1; ++y) {
    for (int x = x0; x <= x1; ++x) {
      const float cx = static_cast<float>(x) + 0.5f - px;
      const float cy = static_cast<float>(y) + 0.5f - py;
      float t = len2 > 0.0f ? (cx * dx + cy * dy) / len2 : 0.0f;
      t = std::min(std::max(t, 0.0f), 1.0f);
      const float ex = cx - t * dx;
      const float ey = cy - t * dy;
      if (ex * ex + ey * ey <= r2) put(image, x, y, rgb);
    }
  }
}

// Reference pose colours, RGB: green for the face, blue for the arms, orange
// for the legs, magenta for the torso.
constexpr uint8_t kGreen[3] = {0, 255, 0};
constexpr uint8_t kBlue[3] = {0, 128, 255};
constexpr uint8_t kOrange[3] = {255, 153, 51};
constexpr uint8_t kMagenta[3] = {255, 51, 255};

const uint8_t* keypoint_color(size_t k, size_t count) {
  if (count != 17) return internal::class_color(static_cast<int>(k));
  return k < 5 ? kGreen : k < 11 ? kBlue : kOrange;
}

const uint8_t* limb_color(size_t limb, size_t count) {
  if (count != 17) return internal::class_color(static_cast<int>(limb));
  return limb < 4 ? kOrange : limb < 7 ? kMagenta : limb < 12 ? kBlue : kGreen;
}

std::vector<Detection> boxes_of(const std::vector<PoseDetection>& detections) {
  std::vector<Detection> boxes;
  for (const PoseDetection& d : detections) boxes.push_back(d.box);
  return boxes;
}

}  // namespace

void draw_masks(RawImage& image, const std::vector<SegmentedDetection>& detections,
                const std::vector<std::string>& class_names, bool show_score, int thickness) {
  require_rgb(image, "draw_masks()");
  std::vector<Detection> boxes;
  for (const SegmentedDetection& d : detections) {
    boxes.push_back(d.box);
    const uint8_t* rgb = internal::class_color(d.box.class_id);
    const InstanceMask& m = d.mask;
    for (int r = 0; r < m.height; ++r) {
      const int y = m.y0 + r;
      if (y < 0 || y >= image.height) continue;
      for (int c = 0; c < m.width; ++c) {
        const int x = m.x0 + c;
        if (x < 0 || x >= image.width ||
            !m.bits[static_cast<size_t>(r) * static_cast<size_t>(m.width) +
                    static_cast<size_t>(c)]) {
          continue;
        }
        uint8_t* p =
            image.data.data() +
            (static_cast<size_t>(y) * static_cast<size_t>(image.width) + static_cast<size_t>(x)) *
                3u;
        for (int ch = 0; ch < 3; ++ch) p[ch] = static_cast<uint8_t>((p[ch] + rgb[ch] + 1) / 2);
      }
    }
  }
  draw_detections(image, boxes, class_names, show_score, thickness);
}

void draw_pose(RawImage& image, const std::vector<PoseDetection>& detections,
               const std::vector<std::pair<int, int>>& limbs, float min_visibility, int radius,
               int thickness) {
  require_rgb(image, "draw_pose()");
  draw_detections(image, boxes_of(detections), {"person"}, true, thickness);
  for (const PoseDetection& d : detections) {
    const size_t count = d.keypoints.size();
    const auto shown = [&](int k) {
      return k >= 0 && static_cast<size_t>(k) < count &&
             d.keypoints[static_cast<size_t>(k)].visibility >= min_visibility;
    };
    for (size_t l = 0; l < limbs.size(); ++l) {
      const auto [a, b] = limbs[l];
      if (!shown(a) || !shown(b)) continue;
      const Keypoint& p = d.keypoints[static_cast<size_t>(a)];
      const Keypoint& q = d.keypoints[static_cast<size_t>(b)];
      segment_line(image, p.x, p.y, q.x, q.y, static_cast<float>(std::max(thickness, 1)) / 2.0f,
                   limb_color(l, count));
    }
    for (size_t k = 0; k < count; ++k) {
      if (!shown(static_cast<int>(k))) continue;
      const Keypoint& p = d.keypoints[k];
      segment_line(image, p.x, p.y, p.x, p.y, static_cast<float>(radius), keypoint_color(k, count));
    }
  }
}

void draw_oriented(RawImage& image, const std::vector<OrientedDetection>& boxes,
                   const std::vector<std::string>& class_names, bool show_score, int thickness) {
  require_rgb(image, "draw_oriented()");
  std::vector<Detection> labels;
  for (const OrientedDetection& b : boxes) {
    const uint8_t* rgb = internal::class_color(b.class_id);
    const float radius = static_cast<float>(std::max(thickness, 1)) / 2.0f;
    size_t top = 0;
    for (size_t k = 0; k < 4; ++k) {
      const auto& p = b.corners[k];
      const auto& q = b.corners[(k + 1) % 4];
      segment_line(image, p[0], p[1], q[0], q[1], radius, rgb);
      if (p[1] < b.corners[top][1]) top = k;
    }
    const auto& anchor = b.corners[top];
    labels.push_back({anchor[0], anchor[1], anchor[0], anchor[1], b.score, b.class_id});
  }
  // Labels alone: no outline.
  draw_detections(image, labels, class_names, show_score, 0);
}

}  // namespace yolo
