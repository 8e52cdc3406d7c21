// Candidate selection shared by detection and the tasks: best class, filters
// and the candidate cap, then NMS (nms.hpp) for the axis-aligned tasks.
#include "select.hpp"

#include <algorithm>
#include <cstdint>
#include <limits>
#include <numeric>
#include <stdexcept>

#include "geometry.hpp"
#include "nms.hpp"

namespace yolo::internal {

namespace {

// Candidates are scored in blocks: a channels-first head is then read a few
// hundred consecutive floats per value row at a time.
constexpr size_t kBlock = 256;

// The best class of candidates [i0, i0 + count) over the class values in
// columns [first, end): score[k] is the reduction acc = (acc > v ? acc : v)
// from the lowest finite float over the class values v, best[k] the first
// index of a strictly greater value. With objectness each v is column 4 times
// the class score. Row-major rows without objectness whose class values are
// none above `threshold` keep the starting score (they cannot pass the filter
// whatever their maximum), found in one vectorised pass.
template <bool kObjectness>
void best_classes(const HeadView& head, size_t end, size_t i0, size_t count, float threshold,
                  float* score, uint32_t* best) {
  const size_t first = kObjectness ? 5 : 4;
  float best_value[kBlock];
  float scale[kBlock];
  for (size_t k = 0; k < count; ++k) {
    scale[k] = kObjectness ? head.at(i0 + k, 4) : 1.0f;
    score[k] = std::numeric_limits<float>::lowest();
    best[k] = 0;
    best_value[k] = kObjectness ? scale[k] * head.at(i0 + k, first) : head.at(i0 + k, first);
  }
  if (head.channels_first) {
    // Value row by value row: each pass reads `count` consecutive floats.
    for (size_t j = first; j < end; ++j) {
      const float* values = head.data + j * head.n + i0;
      const auto cls = static_cast<uint32_t>(j - first);
      for (size_t k = 0; k < count; ++k) {
        const float v = kObjectness ? scale[k] * values[k] : values[k];
        score[k] = score[k] > v ? score[k] : v;
        best[k] = v > best_value[k] ? cls : best[k];
        best_value[k] = v > best_value[k] ? v : best_value[k];
      }
    }
    return;
  }
  for (size_t k = 0; k < count; ++k) {
    const float* row = head.data + (i0 + k) * head.c;
    if (!kObjectness) {
      int above = score[k] > threshold;
      for (size_t j = first; j < end; ++j) above += row[j] > threshold;
      if (above == 0) continue;
    }
    float acc = score[k];
    float top = best_value[k];
    uint32_t cls = 0;
    for (size_t j = first; j < end; ++j) {
      const float v = kObjectness ? scale[k] * row[j] : row[j];
      acc = acc > v ? acc : v;
      if (v > top) {
        top = v;
        cls = static_cast<uint32_t>(j - first);
      }
    }
    score[k] = acc;
    best[k] = cls;
  }
}

}  // namespace

Candidates select_candidates(const HeadView& head, const Selection& sel) {
  Candidates out;
  std::vector<float>& table = out.table;
  const size_t end = head.c - sel.extra;
  float score[kBlock];
  uint32_t best[kBlock];
  for (size_t i0 = 0; i0 < head.n; i0 += kBlock) {
    const size_t count = std::min(kBlock, head.n - i0);
    if (sel.objectness) {
      best_classes<true>(head, end, i0, count, sel.conf_threshold, score, best);
    } else {
      best_classes<false>(head, end, i0, count, sel.conf_threshold, score, best);
    }
    for (size_t k = 0; k < count; ++k) {
      if (!(score[k] > sel.conf_threshold)) continue;
      if (!sel.classes.empty() && std::find(sel.classes.begin(), sel.classes.end(),
                                            static_cast<int>(best[k])) == sel.classes.end()) {
        continue;
      }
      const size_t i = i0 + k;
      const float cx = head.at(i, 0);
      const float cy = head.at(i, 1);
      const float half_w = head.at(i, 2) / 2.0f;
      const float half_h = head.at(i, 3) / 2.0f;
      table.insert(table.end(), {cx - half_w, cy - half_h, cx + half_w, cy + half_h, score[k],
                                 static_cast<float>(best[k])});
      out.source.push_back(i);
    }
  }

  const size_t m = out.size();
  if (m <= sel.max_candidates) return out;
  std::vector<size_t> rank(m);
  std::iota(rank.begin(), rank.end(), size_t{0});
  const auto higher = [&table](size_t a, size_t b) {
    const float sa = table[a * kCols + 4];
    const float sb = table[b * kCols + 4];
    return sa > sb || (sa == sb && a < b);
  };
  const auto cut = rank.begin() + static_cast<std::ptrdiff_t>(sel.max_candidates);
  std::nth_element(rank.begin(), cut, rank.end(), higher);
  rank.erase(cut, rank.end());
  std::sort(rank.begin(), rank.end());
  Candidates kept;
  kept.table.resize(rank.size() * kCols);
  kept.source.resize(rank.size());
  for (size_t k = 0; k < rank.size(); ++k) {
    std::copy_n(table.data() + rank[k] * kCols, kCols, kept.table.data() + k * kCols);
    kept.source[k] = out.source[rank[k]];
  }
  return kept;
}

HeadView head_view(const float* data, size_t rows, size_t cols, const PostprocessOptions& options,
                   const std::string& function, size_t extra, const std::string& what) {
  const size_t needed = (options.objectness ? 6 : 5) + extra;
  if ((options.channels_first ? rows : cols) < needed) {
    throw std::runtime_error(function + ": head needs at least " + std::to_string(needed) +
                             (options.channels_first ? " rows" : " columns") + " (4 box values" +
                             (options.objectness ? ", objectness" : "") + " and a class score" +
                             (what.empty() ? "" : ", then " + what) + ")");
  }
  return options.channels_first ? HeadView{data, cols, rows, true}
                                : HeadView{data, rows, cols, false};
}

Candidates select_and_suppress(const HeadView& head, const PostprocessOptions& options,
                               size_t extra) {
  Candidates found = select_candidates(head, {options.conf_threshold, options.objectness,
                                              options.classes, options.max_candidates, extra});
  if (found.size() == 0) return found;
  const std::vector<size_t> keep = nms_boxes(
      found.table.data(), found.size(), options.iou_threshold, options.max_det, options.agnostic);
  Candidates kept;
  kept.table.resize(keep.size() * kCols);
  kept.source.resize(keep.size());
  for (size_t k = 0; k < keep.size(); ++k) {
    std::copy_n(found.table.data() + keep[k] * kCols, kCols, kept.table.data() + k * kCols);
    kept.source[k] = found.source[keep[k]];
  }
  return kept;
}

std::vector<size_t> select_end2end(const float* rows, size_t n, size_t c,
                                   const PostprocessOptions& options) {
  std::vector<size_t> kept;
  for (size_t i = 0; i < n && kept.size() < options.max_det; ++i) {
    const float* row = rows + i * c;
    if (!(row[4] > options.conf_threshold)) continue;
    if (!options.classes.empty() && std::find(options.classes.begin(), options.classes.end(),
                                              saturating_int(row[5])) == options.classes.end()) {
      continue;
    }
    kept.push_back(i);
  }
  return kept;
}

}  // namespace yolo::internal
