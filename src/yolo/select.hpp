#pragma once
// Candidate selection shared by detection and the tasks that follow it:
// reading a head in place (row-major or channels first), the best class of
// each candidate, the confidence and class filters, and the cap on how many
// candidates reach NMS.
#include <cstddef>
#include <string>
#include <vector>

#include "yolo.hpp"

namespace yolo::internal {

// Working table row: x1, y1, x2, y2, score, class (as float).
constexpr size_t kCols = 6;

// A head as the selection reads it, in place: n candidates of c values each
// (cx, cy, w, h, [objectness,] class scores, extra values), stored one
// candidate per row ([n, c]) or, channels first, one value per row ([c, n]).
struct HeadView {
  const float* data;
  size_t n;
  size_t c;
  bool channels_first;

  float at(size_t candidate, size_t value) const {
    return channels_first ? data[value * n + candidate] : data[candidate * c + value];
  }
};

struct Selection {
  float conf_threshold;
  bool objectness;                  // column 4 multiplies every class score; classes start at 5
  const std::vector<int>& classes;  // empty: all
  size_t max_candidates;
  size_t extra = 0;  // values after the class scores (mask coefficients, keypoints, angle)
};

// The candidates NMS sees: [M, 6] working-table rows in candidate order (box
// as x1, y1, x2, y2 from the centre and half sizes), and for each row the
// candidate (head row) it came from, so that its extra values can be read.
struct Candidates {
  std::vector<float> table;
  std::vector<size_t> source;

  size_t size() const { return source.size(); }
};

// Best class per candidate, score strictly above the threshold, a wanted
// class; when more than max_candidates pass, the highest scores among them
// (equal scores: the earlier candidate), still in candidate order.
Candidates select_candidates(const HeadView& head, const Selection& sel);

// Checks one image's head [rows, cols] against the options and views it: it
// needs 4 box values, objectness when asked, one class and `extra` values.
// `what` names the extra values in the message ("" when there are none).
HeadView head_view(const float* data, size_t rows, size_t cols, const PostprocessOptions& options,
                   const std::string& function, size_t extra = 0, const std::string& what = "");

// Selection and NMS with axis-aligned IoU for one image: the kept candidates
// in order of descending score.
Candidates select_and_suppress(const HeadView& head, const PostprocessOptions& options,
                               size_t extra = 0);

// Rows of an end-to-end (NMS-free) head [N, c] kept as the tasks keep them:
// score (column 4) strictly above the threshold, class (column 5 truncated
// toward zero) among options.classes when given, at most max_det of them, in
// input order. Returns the row indices.
std::vector<size_t> select_end2end(const float* rows, size_t n, size_t c,
                                   const PostprocessOptions& options);

}  // namespace yolo::internal
