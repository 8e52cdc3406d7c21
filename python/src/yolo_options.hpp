#pragma once
// The detection options from the Python keyword arguments, shared by the
// detection and the task heads' bindings.
#include <utility>
#include <vector>

#include "yolo.hpp"

namespace vemoproc_py {

inline yolo::PostprocessOptions options_of(float conf_threshold, float iou_threshold,
                                           size_t max_det, bool agnostic, bool channels_first,
                                           bool objectness, std::vector<int> classes,
                                           size_t max_candidates, vemoproc::Pipeline box_mapping) {
  yolo::PostprocessOptions o;
  o.conf_threshold = conf_threshold;
  o.iou_threshold = iou_threshold;
  o.max_det = max_det;
  o.agnostic = agnostic;
  o.channels_first = channels_first;
  o.objectness = objectness;
  o.classes = std::move(classes);
  o.max_candidates = max_candidates;
  o.box_mapping = box_mapping;
  return o;
}

}  // namespace vemoproc_py
