#pragma once
// Greedy non-maximum suppression, one skeleton for every overlap measure:
// axis-aligned IoU for boxes (with a bounding-box tree so that a kept box
// tests only the boxes that can overlap it) and the probabilistic IoU of
// rotated boxes. Rows are working-table rows (select.hpp): x1, y1, x2, y2,
// score, class.
#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <map>
#include <numeric>
#include <vector>

#include "geometry.hpp"
#include "select.hpp"

namespace yolo::internal {

// Row indices by descending score (column 4).
inline std::vector<size_t> score_order(const float* rows, size_t m) {
  std::vector<size_t> order(m);
  std::iota(order.begin(), order.end(), size_t{0});
  std::sort(order.begin(), order.end(),
            [rows](size_t a, size_t b) { return rows[a * kCols + 4] > rows[b * kCols + 4]; });
  return order;
}

// Every later box in score order that is not yet out, of a's class unless
// agnostic: the pairs tested when no index can prune them. The boxes of each
// class are listed in score order on first use, so a box walks its own class.
class AllLaterBoxes {
 public:
  AllLaterBoxes(const float* rows, size_t m, bool agnostic)
      : class_(m), list_(m), position_(m) {
    for (size_t i = 0; i < m; ++i) class_[i] = agnostic ? 0 : saturating_int(rows[i * kCols + 5]);
  }

  void remove(size_t) {}
  bool indexed(size_t) const { return true; }
  template <class F>
  void for_each_candidate(size_t a, const std::vector<size_t>& order, size_t,
                          const std::vector<char>& out, F&& visit) {
    if (lists_.empty()) {
      std::map<int, size_t> which;
      for (const size_t b : order) {
        const auto found = which.emplace(class_[b], lists_.size());
        if (found.second) lists_.emplace_back();
        list_[b] = found.first->second;
        position_[b] = lists_[list_[b]].size();
        lists_[list_[b]].push_back(b);
      }
    }
    const std::vector<size_t>& same = lists_[list_[a]];
    for (size_t q = position_[a] + 1; q < same.size(); ++q) {
      if (!out[same[q]]) visit(same[q]);
    }
  }

 private:
  std::vector<int> class_;
  std::vector<size_t> list_;      // per box: its class's list
  std::vector<size_t> position_;  // per box: its place in that list
  std::vector<std::vector<size_t>> lists_;
};

// The skeleton. Walks the rows by descending score; a row not yet suppressed
// is kept (up to max_det). A kept row -- and, with `fast`, a suppressed row
// too (Fast-NMS: every earlier row votes) -- suppresses each candidate b that
// `neighbours` offers and `suppresses(a, b)` accepts. Returns the kept rows
// in order. Gives up, returning nothing and setting *exhausted, once its
// steps (rows walked plus pairs offered) pass work_limit.
template <class Neighbours, class Suppresses>
std::vector<size_t> greedy_nms(const float* rows, size_t m, size_t max_det, bool fast,
                               Neighbours& neighbours, Suppresses&& suppresses,
                               uint64_t work_limit = std::numeric_limits<uint64_t>::max(),
                               bool* exhausted = nullptr) {
  const std::vector<size_t> order = score_order(rows, m);
  std::vector<char> suppressed(m, 0);
  std::vector<size_t> keep;
  uint64_t work = 0;
  for (size_t p = 0; p < m; ++p) {
    if (++work > work_limit) {
      *exhausted = true;
      return {};
    }
    const size_t a = order[p];
    if (!suppressed[a]) {
      keep.push_back(a);
      if (keep.size() >= max_det) break;
    } else if (!fast) {
      continue;
    }
    neighbours.remove(a);
    if (!neighbours.indexed(a)) continue;
    neighbours.for_each_candidate(a, order, p, suppressed, [&](size_t b) {
      ++work;
      if (suppresses(a, b)) {
        suppressed[b] = 1;
        neighbours.remove(b);
      }
    });
  }
  return keep;
}

// The boxes NMS may still suppress, in one bounding-box tree per class (one
// for all when agnostic), so that a kept box visits only the subtrees whose
// extent reaches into its own. For iou_threshold >= 0 (or NaN) no other box
// can be suppressed: a box with a NaN coordinate has a NaN area and so a NaN
// IoU, and two boxes whose interiors do not intersect (max(x1) < min(x2) and
// max(y1) < min(y2) fails) have an intersection of zero and an IoU of 0 or NaN.
class OverlapIndex {
 public:
  OverlapIndex(const float* rows, size_t m, bool agnostic)
      : rows_(rows), live_(m, 0), leaf_(m, kNone), root_(m, kNone) {
    for (size_t i = 0; i < m; ++i) {
      const float* r = rows + i * kCols;
      if (!std::isnan(r[0]) && !std::isnan(r[1]) && !std::isnan(r[2]) && !std::isnan(r[3])) {
        items_.push_back(i);
      }
    }
    if (!agnostic) {
      std::stable_sort(items_.begin(), items_.end(),
                       [this](size_t a, size_t b) { return class_of(a) < class_of(b); });
    }
    for (size_t begin = 0; begin < items_.size();) {
      size_t end = begin + 1;
      while (end < items_.size() &&
             (agnostic || class_of(items_[end]) == class_of(items_[begin]))) {
        ++end;
      }
      const size_t root = build(begin, end, kNone);
      for (size_t k = begin; k < end; ++k) {
        root_[items_[k]] = root;
        live_[items_[k]] = 1;
      }
      begin = end;
    }
  }

  bool indexed(size_t box) const { return root_[box] != kNone; }

  // Takes a box out for good (kept, or suppressed).
  void remove(size_t box) {
    if (!live_[box]) return;
    live_[box] = 0;
    for (size_t node = leaf_[box]; node != kNone; node = nodes_[node].parent) --nodes_[node].live;
  }

  // Calls visit(b) for every live box b of a's tree whose subtree extent
  // reaches into a's interior; visit may remove boxes. Every earlier box has
  // left the index by the time a box is visited from.
  template <class F>
  void for_each_candidate(size_t a, const std::vector<size_t>&, size_t, const std::vector<char>&,
                          F&& visit) {
    const float* ra = rows_ + a * kCols;
    stack_.assign(1, root_[a]);
    while (!stack_.empty()) {
      const Node& node = nodes_[stack_.back()];
      stack_.pop_back();
      if (node.live == 0 || !(node.min_x1 < ra[2] && node.max_x2 > ra[0] && node.min_y1 < ra[3] &&
                              node.max_y2 > ra[1])) {
        continue;
      }
      if (node.left != kNone) {
        stack_.push_back(node.left);
        stack_.push_back(node.right);
        continue;
      }
      for (size_t k = node.begin; k < node.end; ++k) {
        if (live_[items_[k]]) visit(items_[k]);
      }
    }
  }

 private:
  static constexpr size_t kNone = std::numeric_limits<size_t>::max();
  static constexpr size_t kLeafSize = 8;

  struct Node {
    float min_x1, max_x2, min_y1, max_y2;  // extent of every box below
    size_t begin, end;                     // its boxes: items_[begin, end)
    size_t left, right, parent;
    size_t live;  // boxes below not yet removed
  };

  int class_of(size_t box) const { return saturating_int(rows_[box * kCols + 5]); }

  // Splits items_[begin, end) at the median of x1 or y1, whichever spreads
  // wider, down to leaves of a few boxes.
  size_t build(size_t begin, size_t end, size_t parent) {
    constexpr float kInf = std::numeric_limits<float>::infinity();
    Node node{};
    node.min_x1 = node.min_y1 = kInf;
    node.max_x2 = node.max_y2 = -kInf;
    // Range of the split keys x1 (axis 0) and y1 (axis 1).
    float lo[2] = {kInf, kInf};
    float hi[2] = {-kInf, -kInf};
    for (size_t k = begin; k < end; ++k) {
      const float* r = rows_ + items_[k] * kCols;
      node.min_x1 = std::min(node.min_x1, r[0]);
      node.max_x2 = std::max(node.max_x2, r[2]);
      node.min_y1 = std::min(node.min_y1, r[1]);
      node.max_y2 = std::max(node.max_y2, r[3]);
      for (int axis = 0; axis < 2; ++axis) {
        lo[axis] = std::min(lo[axis], r[axis]);
        hi[axis] = std::max(hi[axis], r[axis]);
      }
    }
    node.begin = begin;
    node.end = end;
    node.left = node.right = kNone;
    node.parent = parent;
    node.live = end - begin;
    const size_t id = nodes_.size();
    nodes_.push_back(node);
    if (end - begin <= kLeafSize) {
      for (size_t k = begin; k < end; ++k) leaf_[items_[k]] = id;
      return id;
    }
    const float spread_x = hi[0] > lo[0] ? hi[0] - lo[0] : 0.0f;
    const float spread_y = hi[1] > lo[1] ? hi[1] - lo[1] : 0.0f;
    const size_t key = spread_y > spread_x ? 1 : 0;
    const size_t mid = begin + (end - begin) / 2;
    const auto base = items_.begin();
    std::nth_element(base + static_cast<std::ptrdiff_t>(begin),
                     base + static_cast<std::ptrdiff_t>(mid),
                     base + static_cast<std::ptrdiff_t>(end), [this, key](size_t a, size_t b) {
                       const float ka = rows_[a * kCols + key];
                       const float kb = rows_[b * kCols + key];
                       return ka < kb || (ka == kb && a < b);
                     });
    const size_t left = build(begin, mid, id);
    const size_t right = build(mid, end, id);
    nodes_[id].left = left;
    nodes_[id].right = right;
    return id;
  }

  const float* rows_;
  std::vector<char> live_;
  std::vector<size_t> leaf_;  // per box: its leaf (kNone when not indexed)
  std::vector<size_t> root_;  // per box: the root of its class's tree
  std::vector<size_t> items_;
  std::vector<Node> nodes_;
  std::vector<size_t> stack_;
};

inline float area_of(const float* r) { return (r[2] - r[0]) * (r[3] - r[1]); }

// Whether kept box ra suppresses box rb (working-table rows; area_a is ra's
// area): IoU in single precision, no +1 pixel term, strictly above the
// threshold.
inline bool iou_above(const float* ra, float area_a, const float* rb, float iou_threshold) {
  const float xx1 = std::max(ra[0], rb[0]);
  const float yy1 = std::max(ra[1], rb[1]);
  const float xx2 = std::min(ra[2], rb[2]);
  const float yy2 = std::min(ra[3], rb[3]);
  const float inter = std::max(xx2 - xx1, 0.0f) * std::max(yy2 - yy1, 0.0f);
  const float area_b = (rb[2] - rb[0]) * (rb[3] - rb[1]);
  const float iou = inter / (area_b + area_a - inter + 1.0e-7f);
  return iou > iou_threshold;
}

// Axis-aligned NMS over an [M, 6] table: the kept rows, best first. Boxes of
// different classes never suppress each other unless agnostic.
inline std::vector<size_t> nms_boxes(
    const float* rows, size_t m, float iou_threshold, size_t max_det, bool agnostic,
    uint64_t work_limit = std::numeric_limits<uint64_t>::max(), bool* exhausted = nullptr) {
  const auto suppresses = [rows, iou_threshold](size_t a, size_t b) {
    const float* ra = rows + a * kCols;
    return iou_above(ra, area_of(ra), rows + b * kCols, iou_threshold);
  };
  if (iou_threshold < 0.0f) {
    // IoU 0 is above a negative threshold: disjoint boxes suppress each other
    // too, so every later pair is tested.
    AllLaterBoxes all(rows, m, agnostic);
    return greedy_nms(rows, m, max_det, false, all, suppresses, work_limit, exhausted);
  }
  OverlapIndex index(rows, m, agnostic);
  return greedy_nms(rows, m, max_det, false, index, suppresses, work_limit, exhausted);
}

}  // namespace yolo::internal
