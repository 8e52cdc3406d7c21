#pragma once
// The mapping from network-input pixels back to original-image pixels, shared
// by detection and every task that follows it (boxes, keypoints, rotated
// boxes, masks), plus the small conversions they all need.
#include <algorithm>
#include <cmath>
#include <limits>
#include <stdexcept>
#include <string>

#include "yolo.hpp"

namespace yolo::internal {

// Float to int, truncating toward zero. Values the conversion cannot represent
// get a defined result instead of undefined behaviour: NaN becomes 0 and
// out-of-range values saturate at the int limits.
inline int saturating_int(float v) {
  if (std::isnan(v)) return 0;
  if (v >= 2147483648.0f) return std::numeric_limits<int>::max();
  if (v < -2147483648.0f) return std::numeric_limits<int>::min();
  return static_cast<int>(v);
}

// The inverse of one letterbox, in float: a network coordinate v maps to
// (v - offset) / scale, clipped to [0, original side]. The Native rule is the
// exact inverse, scale = new_side / original_side per axis; the MatchPython
// rule is the Python pipeline's, scale = the letterbox's float gain on both
// axes. Every task maps through these two functions only.
struct Mapping {
  float scale_x;
  float scale_y;
  float left;
  float top;
  float width;  // original sides
  float height;

  Mapping(const LetterboxInfo& g, vemoproc::Pipeline rule)
      : scale_x(rule == vemoproc::Pipeline::MatchPython
                    ? g.scale
                    : static_cast<float>(g.new_width) / static_cast<float>(g.original_width)),
        scale_y(rule == vemoproc::Pipeline::MatchPython
                    ? g.scale
                    : static_cast<float>(g.new_height) / static_cast<float>(g.original_height)),
        left(static_cast<float>(g.left)),
        top(static_cast<float>(g.top)),
        width(static_cast<float>(g.original_width)),
        height(static_cast<float>(g.original_height)) {}

  float x_unclipped(float v) const { return (v - left) / scale_x; }
  float y_unclipped(float v) const { return (v - top) / scale_y; }
  float x(float v) const { return std::min(std::max(x_unclipped(v), 0.0f), width); }
  float y(float v) const { return std::min(std::max(y_unclipped(v), 0.0f), height); }
};

// A working-table row (x1, y1, x2, y2, score, class in network pixels) mapped
// back and clipped; the class truncated toward zero.
inline Detection map_box(const float* row, const Mapping& map) {
  return {map.x(row[0]), map.y(row[1]), map.x(row[2]),
          map.y(row[3]), row[4],        saturating_int(row[5])};
}

// Undoing a letterbox divides by its sizes.
inline void check_geometry(const LetterboxInfo& g, const std::string& function, const char* name) {
  if (g.original_width < 1 || g.original_height < 1 || g.new_width < 1 || g.new_height < 1) {
    throw std::runtime_error(function + ": " + name +
                             " sizes (original and new width and height) must be at least 1");
  }
}

}  // namespace yolo::internal
