#pragma once
// Mapping a box from network pixels back to the original image, by either
// rule: every postprocess form (detection and the tasks built on it) maps its
// boxes through here.
#include <algorithm>

#include "yolo.hpp"

namespace yolo::internal {

// One coordinate, clipped to [0, original side] (NaN stays NaN).
inline float clip_to_side(float v, int original_side) {
  return std::min(std::max(v, 0.0f), static_cast<float>(original_side));
}

// Native: the exact inverse of the letterbox, in float.
inline float unletterbox(float v, int offset, int new_side, int original_side) {
  const float scale = static_cast<float>(new_side) / static_cast<float>(original_side);
  return clip_to_side((v - static_cast<float>(offset)) / scale, original_side);
}

// MatchPython: the Python pipeline's rule, pad (the letterbox's left or top)
// subtracted, then divided by the float gain.
inline float unletterbox_python(float v, int pad, float gain, int original_side) {
  return clip_to_side((v - static_cast<float>(pad)) / gain, original_side);
}

// Maps the box x1, y1, x2, y2 at `box` in place.
inline void map_box(float* box, const LetterboxInfo& g, vemoproc::Pipeline rule) {
  if (rule == vemoproc::Pipeline::MatchPython) {
    box[0] = unletterbox_python(box[0], g.left, g.scale, g.original_width);
    box[1] = unletterbox_python(box[1], g.top, g.scale, g.original_height);
    box[2] = unletterbox_python(box[2], g.left, g.scale, g.original_width);
    box[3] = unletterbox_python(box[3], g.top, g.scale, g.original_height);
    return;
  }
  box[0] = unletterbox(box[0], g.left, g.new_width, g.original_width);
  box[1] = unletterbox(box[1], g.top, g.new_height, g.original_height);
  box[2] = unletterbox(box[2], g.left, g.new_width, g.original_width);
  box[3] = unletterbox(box[3], g.top, g.new_height, g.original_height);
}

}  // namespace yolo::internal
