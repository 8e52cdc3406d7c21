// Object detection, top to bottom: load or borrow pixels -> letterbox -> pack
// (preprocess, preprocess_images), decode -> NMS -> undo the letterbox
// (postprocess and its geometry overloads), and drawing.
#include "yolo.hpp"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <limits>
#include <memory>
#include <numeric>
#include <stdexcept>

#include <stb_easy_font.h>

#include "../pixels/image_io.hpp"
#include "../pixels/parallel.hpp"

#include "pack.hpp"

namespace yolo {

namespace {

// Float to int, truncating toward zero. Values the conversion cannot represent
// get a defined result instead of undefined behaviour: NaN becomes 0 and
// out-of-range values saturate at the int limits.
int saturating_int(float v) {
  if (std::isnan(v)) return 0;
  if (v >= 2147483648.0f) return std::numeric_limits<int>::max();
  if (v < -2147483648.0f) return std::numeric_limits<int>::min();
  return static_cast<int>(v);
}

size_t rgb_bytes(int width, int height) {
  return static_cast<size_t>(width) * static_cast<size_t>(height) * 3u;
}

void require_rgb_buffer(const RawImage& image, const char* function) {
  if (image.width < 0 || image.height < 0 ||
      image.data.size() < rgb_bytes(image.width, image.height)) {
    throw std::runtime_error(std::string(function) +
                             ": image.data holds fewer than width * height * 3 bytes");
  }
}

}  // namespace

// ---------------------------------------------------------------------------
// Loading and letterbox
// ---------------------------------------------------------------------------

RawImage::RawImage(const std::string& path) {
  vemoproc::detail::DecodedRgb decoded = vemoproc::detail::load_rgb_file(path);
  if (!decoded) throw std::runtime_error("stbi_load failed for: " + path);
  data.assign(decoded.pixels.get(),
              decoded.pixels.get() + rgb_bytes(decoded.width, decoded.height));
  width = decoded.width;
  height = decoded.height;
  channels = 3;
}

RawImage::RawImage(const vemoproc::ImageView& view) {
  vemoproc::detail::check_view(view, "RawImage()");
  vemoproc::Image rgb = vemoproc::to_rgb(view);
  data = std::move(rgb.rgb);
  width = rgb.width;
  height = rgb.height;
  channels = 3;
}

namespace {

std::runtime_error resize_failed() {
  return std::runtime_error("stbir_resize_uint8_linear failed");
}

// The letterbox rule, unchecked: a zero-sized image or target gives whatever
// the float rule gives (saturated to int), which the callers then refuse.
LetterboxInfo letterbox_geometry(int width, int height, const std::array<int, 2>& new_shape) {
  const int W = new_shape[0];
  const int H = new_shape[1];
  LetterboxInfo g{};
  g.original_width = width;
  g.original_height = height;
  g.scale = std::min(static_cast<float>(H) / static_cast<float>(height),
                     static_cast<float>(W) / static_cast<float>(width));
  g.new_width = saturating_int(std::round(g.scale * static_cast<float>(width)));
  g.new_height = saturating_int(std::round(g.scale * static_cast<float>(height)));
  // Odd free space: the extra row goes to the bottom, the extra column right.
  g.left = (W - g.new_width) / 2;
  g.top = (H - g.new_height) / 2;
  return g;
}

// The resized block of one letterbox: new_height rows of new_width RGB pixels,
// `stride` bytes apart. The stride is a multiple of 4 because the resampler
// stores four bytes at a time as one int.
struct LetterboxBlock {
  LetterboxInfo geometry;
  size_t stride = 0;
  std::vector<uint8_t> pixels;

  const uint8_t* row(int y) const { return pixels.data() + static_cast<size_t>(y) * stride; }
};

// Letterbox, step one: the RGB source (read in place, rows strided) resized
// to the block the rule gives. The block never exceeds the target; a block
// without pixels (from an empty image or target) or beyond it is a resize the
// resampler cannot do.
LetterboxBlock letterbox_block(const vemoproc::detail::RgbSource& rgb,
                               const std::array<int, 2>& new_shape) {
  // The letterboxed image (the target box) is held to the decoding budget.
  if (!vemoproc::detail::within_pixel_budget(new_shape[0], new_shape[1])) throw resize_failed();
  LetterboxBlock block;
  block.geometry = letterbox_geometry(rgb.width(), rgb.height(), new_shape);
  const int new_w = block.geometry.new_width;
  const int new_h = block.geometry.new_height;
  if (new_w < 1 || new_h < 1 || new_w > new_shape[0] || new_h > new_shape[1]) {
    throw resize_failed();
  }
  block.stride = (static_cast<size_t>(new_w) * 3u + 3u) & ~size_t{3};
  block.pixels.resize(block.stride * static_cast<size_t>(new_h));
  if (!vemoproc::detail::resize_rgb(rgb.data(), rgb.width(), rgb.height(), rgb.stride(),
                                    block.pixels.data(), new_w, new_h, block.stride,
                                    vemoproc::detail::ResizeFilter::Default)) {
    throw resize_failed();
  }
  return block;
}

// Letterbox, step two for the batch: the block placed in the W x H slot as
// planar floats (sample / 255.0f), every other pixel holding 114 / 255.0f.
void pack_letterboxed(const LetterboxBlock& block, size_t W, size_t H, float* slot) {
  const LetterboxInfo& g = block.geometry;
  const size_t plane = W * H;
  const float pad = internal::unit_scale_table()[114];
  const size_t left = static_cast<size_t>(g.left);
  const size_t top = static_cast<size_t>(g.top);
  const size_t new_w = static_cast<size_t>(g.new_width);
  const size_t new_h = static_cast<size_t>(g.new_height);
  for (size_t c = 0; c < 3; ++c) {
    float* p = slot + c * plane;
    // Above the block and left of its first row; between consecutive block
    // rows; right of its last row and below (the block has at least one row).
    std::fill(p, p + top * W + left, pad);
    for (size_t y = 0; y + 1 < new_h; ++y) {
      std::fill(p + (top + y) * W + left + new_w, p + (top + y + 1) * W + left, pad);
    }
    std::fill(p + (top + new_h - 1) * W + left + new_w, p + plane, pad);
  }
  for (size_t y = 0; y < new_h; ++y) {
    float* r = slot + (top + y) * W + left;
    internal::pack_planar_row(block.row(static_cast<int>(y)), new_w, r, r + plane, r + 2 * plane);
  }
}

// A batch tensor [N, 3, H, W] for new_shape = {W, H}, left for the caller to fill.
xt::xtensor<float, 4> batch_tensor(size_t n, const std::array<int, 2>& new_shape,
                                   const char* function) {
  if (new_shape[0] < 0 || new_shape[1] < 0) {
    throw std::runtime_error(std::string(function) + ": new_shape must not be negative");
  }
  return xt::xtensor<float, 4>::from_shape(
      {n, size_t{3}, static_cast<size_t>(new_shape[1]), static_cast<size_t>(new_shape[0])});
}

}  // namespace

LetterboxInfo letterbox_info(int width, int height, const std::array<int, 2>& new_shape) {
  if (width < 1 || height < 1) {
    throw std::runtime_error("letterbox_info(): width and height must be at least 1");
  }
  if (new_shape[0] < 0 || new_shape[1] < 0) {
    throw std::runtime_error("letterbox_info(): new_shape must not be negative");
  }
  return letterbox_geometry(width, height, new_shape);
}

RawImage letterbox(const RawImage& image, const std::array<int, 2>& new_shape,
                   unsigned char pad_value) {
  require_rgb_buffer(image, "letterbox()");
  const int W = new_shape[0];
  const int H = new_shape[1];
  if (W < 0 || H < 0) throw std::runtime_error("letterbox(): new_shape must not be negative");
  const LetterboxBlock block = letterbox_block(
      vemoproc::detail::RgbSource(image.data.data(), image.width, image.height, 0), new_shape);

  RawImage result;
  result.width = W;
  result.height = H;
  result.channels = 3;
  result.data.assign(rgb_bytes(W, H), pad_value);
  const LetterboxInfo& g = block.geometry;
  const size_t row_bytes = static_cast<size_t>(g.new_width) * 3u;
  for (int y = 0; y < g.new_height; ++y) {
    std::memcpy(result.data.data() + (static_cast<size_t>(g.top + y) * W + g.left) * 3u,
                block.row(y), row_bytes);
  }
  return result;
}

// ---------------------------------------------------------------------------
// Batch preprocessing
// ---------------------------------------------------------------------------

xt::xtensor<float, 4> preprocess(const std::vector<std::string>& paths,
                                 const std::array<int, 2>& new_shape) {
  // A target over the budget fails the first image, with its message, before
  // the batch is allocated (the loop would throw the same at image 0).
  if (!paths.empty() && new_shape[0] >= 0 && new_shape[1] >= 0 &&
      !vemoproc::detail::within_pixel_budget(new_shape[0], new_shape[1])) {
    if (!vemoproc::detail::load_rgb_file(paths[0])) {
      throw std::runtime_error("stbi_load failed for: " + paths[0]);
    }
    throw resize_failed();
  }
  xt::xtensor<float, 4> batch = batch_tensor(paths.size(), new_shape, "preprocess()");
  const size_t W = batch.shape(3);
  const size_t H = batch.shape(2);
  // One image per thread (vemoproc::set_num_threads; one at a time by
  // default): peak memory is the batch plus one decoded image per thread.
  vemoproc::detail::parallel_for_each_item(paths.size(), [&](size_t i) {
    const vemoproc::detail::DecodedRgb decoded = vemoproc::detail::load_rgb_file(paths[i]);
    if (!decoded) throw std::runtime_error("stbi_load failed for: " + paths[i]);
    const vemoproc::detail::RgbSource rgb(decoded.pixels.get(), decoded.width, decoded.height, 0);
    pack_letterboxed(letterbox_block(rgb, new_shape), W, H, batch.data() + i * 3 * W * H);
  });
  return batch;
}

DetectionBatch preprocess_images(const std::vector<vemoproc::ImageView>& images,
                                 const std::array<int, 2>& new_shape) {
  // A target over the budget fails the first image, with its message, before
  // the batch is allocated (the loop would throw the same at image 0).
  if (!images.empty() && new_shape[0] >= 0 && new_shape[1] >= 0 &&
      !vemoproc::detail::within_pixel_budget(new_shape[0], new_shape[1])) {
    vemoproc::detail::check_view(images[0], "preprocess_images(): images[0]");
    const vemoproc::detail::RgbSource first(images[0]);
    throw resize_failed();
  }
  DetectionBatch out;
  out.tensor = batch_tensor(images.size(), new_shape, "preprocess_images()");
  out.letterbox.resize(images.size());
  const size_t W = out.tensor.shape(3);
  const size_t H = out.tensor.shape(2);
  // One image per thread with vemoproc::set_num_threads (in order by default).
  vemoproc::detail::parallel_for_each_item(images.size(), [&](size_t i) {
    const std::string name = "preprocess_images(): images[" + std::to_string(i) + "]";
    vemoproc::detail::check_view(images[i], name.c_str());
    // RGB views are borrowed as they are; other formats are converted, one
    // image at a time.
    const vemoproc::detail::RgbSource rgb(images[i]);
    const LetterboxBlock block = letterbox_block(rgb, new_shape);
    pack_letterboxed(block, W, H, out.tensor.data() + i * 3 * W * H);
    out.letterbox[i] = block.geometry;
  });
  return out;
}

// ---------------------------------------------------------------------------
// Postprocessing
// ---------------------------------------------------------------------------

namespace {

// Working table row: x1, y1, x2, y2, score, class (as float).
constexpr size_t kCols = 6;

// The overload without options has no candidate cap, and NMS may test every
// overlapping pair (boxes that all cross each other but suppress none). Its
// NMS is bounded instead: past kNmsWorkLimit steps (tree nodes visited plus
// pairs tested) on more than kCappedCandidates candidates, it starts again on
// the kCappedCandidates highest scores, as max_candidates selects them.
// Results change only for heads that hit the limit.
constexpr uint64_t kNmsWorkLimit = uint64_t{1} << 26;
constexpr size_t kCappedCandidates = 8192;

// A detection head as the selection reads it, in place: n candidates of c
// values each (cx, cy, w, h, [objectness,] class scores), stored one
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
};

// Candidates are scored in blocks: a channels-first head is then read a few
// hundred consecutive floats per value row at a time.
constexpr size_t kBlock = 256;

// The best class of candidates [i0, i0 + count): score[k] is the reduction
// acc = (acc > v ? acc : v) from the lowest finite float over the class values
// v, best[k] the first index of a strictly greater value. With objectness each
// v is column 4 times the class score. Row-major rows without objectness
// whose class values are none above `threshold` keep the starting score (they
// cannot pass the filter whatever their maximum), found in one vectorised pass.
template <bool kObjectness>
void best_classes(const HeadView& head, size_t i0, size_t count, float threshold, float* score,
                  uint32_t* best) {
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
    for (size_t j = first; j < head.c; ++j) {
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
      for (size_t j = first; j < head.c; ++j) above += row[j] > threshold;
      if (above == 0) continue;
    }
    float acc = score[k];
    float top = best_value[k];
    uint32_t cls = 0;
    for (size_t j = first; j < head.c; ++j) {
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

// The candidates NMS sees, as [M, 6] working-table rows in candidate order:
// best class per candidate, score strictly above the threshold, a wanted
// class; when more than max_candidates pass, the highest scores among them
// (equal scores: the earlier candidate).
std::vector<float> select_candidates(const HeadView& head, const Selection& sel) {
  std::vector<float> table;
  float score[kBlock];
  uint32_t best[kBlock];
  for (size_t i0 = 0; i0 < head.n; i0 += kBlock) {
    const size_t count = std::min(kBlock, head.n - i0);
    if (sel.objectness) {
      best_classes<true>(head, i0, count, sel.conf_threshold, score, best);
    } else {
      best_classes<false>(head, i0, count, sel.conf_threshold, score, best);
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
    }
  }

  const size_t m = table.size() / kCols;
  if (m <= sel.max_candidates) return table;
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
  std::vector<float> kept(rank.size() * kCols);
  for (size_t k = 0; k < rank.size(); ++k) {
    std::copy_n(table.data() + rank[k] * kCols, kCols, kept.data() + k * kCols);
  }
  return kept;
}

// Whether kept box ra suppresses box rb (rows of the working table; area_a is
// ra's area): IoU in single precision, no +1 pixel term, strictly above the
// threshold.
template <class T>
bool suppresses(const T* ra, T area_a, const T* rb, T iou_threshold) {
  const T xx1 = std::max(ra[0], rb[0]);
  const T yy1 = std::max(ra[1], rb[1]);
  const T xx2 = std::min(ra[2], rb[2]);
  const T yy2 = std::min(ra[3], rb[3]);
  const T inter = std::max(xx2 - xx1, T(0)) * std::max(yy2 - yy1, T(0));
  const T area_b = (rb[2] - rb[0]) * (rb[3] - rb[1]);
  const T iou = inter / (area_b + area_a - inter + T(1.0e-7f));
  return iou > iou_threshold;
}

template <class T>
T area_of(const T* r) {
  return (r[2] - r[0]) * (r[3] - r[1]);
}

// The boxes NMS may still suppress, in one bounding-box tree per class (one
// for all when agnostic), so that a kept box visits only the subtrees whose
// extent reaches into its own. For iou_threshold >= 0 (or NaN) no other box
// can be suppressed: a box with a NaN coordinate has a NaN area and so a NaN
// IoU, and two boxes whose interiors do not intersect (max(x1) < min(x2) and
// max(y1) < min(y2) fails) have an intersection of zero and an IoU of 0 or NaN.
template <class T>
class OverlapIndex {
 public:
  OverlapIndex(const T* rows, size_t m, bool agnostic)
      : rows_(rows), live_(m, 0), leaf_(m, kNone), root_(m, kNone) {
    for (size_t i = 0; i < m; ++i) {
      const T* r = rows + i * kCols;
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
  // reaches into a's interior; visit may remove boxes. Adds the nodes it
  // visits to `work`.
  template <class F>
  void for_each_candidate(size_t a, uint64_t& work, F&& visit) {
    const T* ra = rows_ + a * kCols;
    stack_.assign(1, root_[a]);
    while (!stack_.empty()) {
      ++work;
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
    T min_x1, max_x2, min_y1, max_y2;  // extent of every box below
    size_t begin, end;                 // its boxes: items_[begin, end)
    size_t left, right, parent;
    size_t live;  // boxes below not yet removed
  };

  int class_of(size_t box) const { return saturating_int(rows_[box * kCols + 5]); }

  // Splits items_[begin, end) at the median of x1 or y1, whichever spreads
  // wider, down to leaves of a few boxes.
  size_t build(size_t begin, size_t end, size_t parent) {
    Node node{};
    node.min_x1 = node.min_y1 = std::numeric_limits<T>::infinity();
    node.max_x2 = node.max_y2 = -std::numeric_limits<T>::infinity();
    // Range of the split keys x1 (axis 0) and y1 (axis 1).
    T lo[2] = {std::numeric_limits<T>::infinity(), std::numeric_limits<T>::infinity()};
    T hi[2] = {-std::numeric_limits<T>::infinity(), -std::numeric_limits<T>::infinity()};
    for (size_t k = begin; k < end; ++k) {
      const T* r = rows_ + items_[k] * kCols;
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
    const T spread_x = hi[0] > lo[0] ? hi[0] - lo[0] : T(0);
    const T spread_y = hi[1] > lo[1] ? hi[1] - lo[1] : T(0);
    const size_t key = spread_y > spread_x ? 1 : 0;
    const size_t mid = begin + (end - begin) / 2;
    const auto base = items_.begin();
    std::nth_element(base + static_cast<std::ptrdiff_t>(begin),
                     base + static_cast<std::ptrdiff_t>(mid),
                     base + static_cast<std::ptrdiff_t>(end), [this, key](size_t a, size_t b) {
                       const T ka = rows_[a * kCols + key];
                       const T kb = rows_[b * kCols + key];
                       return ka < kb || (ka == kb && a < b);
                     });
    const size_t left = build(begin, mid, id);
    const size_t right = build(mid, end, id);
    nodes_[id].left = left;
    nodes_[id].right = right;
    return id;
  }

  const T* rows_;
  std::vector<char> live_;
  std::vector<size_t> leaf_;  // per box: its leaf (kNone when not indexed)
  std::vector<size_t> root_;  // per box: the root of its class's tree
  std::vector<size_t> items_;
  std::vector<Node> nodes_;
  std::vector<size_t> stack_;
};

// Greedy NMS over an [M, 6] row-major table. Returns the kept rows in order of
// descending score. With agnostic false, only boxes of the same class (the
// class column truncated to int) suppress each other. Gives up, returning
// nothing and setting *exhausted, once its steps (pairs tested, tree nodes
// visited) pass work_limit.
template <class T>
std::vector<T> nms(std::vector<T> table, T conf_threshold, T iou_threshold, size_t max_det,
                   bool agnostic, uint64_t work_limit = UINT64_MAX, bool* exhausted = nullptr) {
  uint64_t work = 0;
  (void)conf_threshold;  // the table arrives already filtered
  const size_t m = table.size() / kCols;
  const T* rows = table.data();
  std::vector<size_t> order(m);
  std::iota(order.begin(), order.end(), size_t{0});
  std::sort(order.begin(), order.end(),
            [rows](size_t a, size_t b) { return rows[a * kCols + 4] > rows[b * kCols + 4]; });

  std::vector<char> suppressed(m, 0);
  std::vector<size_t> keep;
  if (iou_threshold < T(0)) {
    // IoU 0 is above a negative threshold: disjoint boxes suppress each other
    // too, so every later pair is tested.
    for (size_t p = 0; p < m; ++p) {
      const size_t a = order[p];
      if (suppressed[a]) continue;
      keep.push_back(a);
      if (keep.size() >= max_det) break;
      const T* ra = rows + a * kCols;
      const int class_a = saturating_int(ra[5]);
      const T area_a = area_of(ra);
      if (std::isnan(area_a)) continue;  // every IoU with it is NaN
      work += m - p;
      if (work > work_limit) {
        *exhausted = true;
        return {};
      }
      for (size_t q = p + 1; q < m; ++q) {
        const size_t b = order[q];
        if (suppressed[b]) continue;
        const T* rb = rows + b * kCols;
        if (!agnostic && saturating_int(rb[5]) != class_a) continue;
        if (suppresses(ra, area_a, rb, iou_threshold)) suppressed[b] = 1;
      }
    }
  } else {
    // The same greedy pass, testing only the later boxes that can overlap:
    // every earlier box has left the index by the time a box is kept.
    OverlapIndex<T> index(rows, m, agnostic);
    for (size_t p = 0; p < m; ++p) {
      const size_t a = order[p];
      if (suppressed[a]) continue;
      keep.push_back(a);
      if (keep.size() >= max_det) break;
      index.remove(a);
      if (!index.indexed(a)) continue;
      const T* ra = rows + a * kCols;
      const T area_a = area_of(ra);
      index.for_each_candidate(a, work, [&](size_t b) {
        ++work;
        if (suppresses(ra, area_a, rows + b * kCols, iou_threshold)) {
          suppressed[b] = 1;
          index.remove(b);
        }
      });
      if (work > work_limit) {
        *exhausted = true;
        return {};
      }
    }
  }

  std::vector<T> kept(keep.size() * kCols);
  for (size_t k = 0; k < keep.size(); ++k) {
    std::copy_n(rows + keep[k] * kCols, kCols, kept.data() + k * kCols);
  }
  return kept;
}

// The exact inverse of a letterbox on one network coordinate, in float,
// clipped to [0, original side].
float unletterbox(float v, int offset, int new_side, int original_side) {
  const float scale = static_cast<float>(new_side) / static_cast<float>(original_side);
  const float mapped = (v - static_cast<float>(offset)) / scale;
  return std::min(std::max(mapped, 0.0f), static_cast<float>(original_side));
}

Detection unletterbox(const float* row, const LetterboxInfo& g) {
  return {unletterbox(row[0], g.left, g.new_width, g.original_width),
          unletterbox(row[1], g.top, g.new_height, g.original_height),
          unletterbox(row[2], g.left, g.new_width, g.original_width),
          unletterbox(row[3], g.top, g.new_height, g.original_height),
          row[4],
          saturating_int(row[5])};
}

// Undoing a letterbox divides by its sizes.
void check_geometry(const LetterboxInfo& g, const std::string& function, const char* name) {
  if (g.original_width < 1 || g.original_height < 1 || g.new_width < 1 || g.new_height < 1) {
    throw std::runtime_error(function + ": " + name +
                             " sizes (original and new width and height) must be at least 1");
  }
}

// Checks one image's head [rows, cols] against the options and views it.
HeadView head_view(const float* data, size_t rows, size_t cols, const PostprocessOptions& options,
                   const std::string& function) {
  const size_t needed = options.objectness ? 6 : 5;
  if ((options.channels_first ? rows : cols) < needed) {
    throw std::runtime_error(function + ": head needs at least " + std::to_string(needed) +
                             (options.channels_first ? " rows" : " columns") + " (4 box values" +
                             (options.objectness ? ", objectness" : "") + " and a class score)");
  }
  return options.channels_first ? HeadView{data, cols, rows, true}
                                : HeadView{data, rows, cols, false};
}

// Selection, NMS and mapping for one image of the geometry overloads.
std::vector<Detection> detect(const HeadView& head, const LetterboxInfo& letterbox,
                              const PostprocessOptions& options) {
  std::vector<float> table = select_candidates(
      head, {options.conf_threshold, options.objectness, options.classes, options.max_candidates});
  if (table.empty()) return {};
  table = nms<float>(std::move(table), options.conf_threshold, options.iou_threshold,
                     options.max_det, options.agnostic);
  std::vector<Detection> detections;
  detections.reserve(table.size() / kCols);
  for (size_t k = 0; k < table.size(); k += kCols) {
    detections.push_back(unletterbox(table.data() + k, letterbox));
  }
  return detections;
}

}  // namespace

std::vector<Detection> postprocess(const xt::xtensor<float, 2>& predictions,
                                   const std::array<size_t, 2>& input_shape,
                                   const std::array<size_t, 2>& original_shape,
                                   float conf_threshold, float iou_threshold, size_t max_det) {
  const size_t n = predictions.shape(0);
  const size_t c = predictions.shape(1);
  if (c < 6) throw std::runtime_error("postprocess(): expected (N,5+nc) tensor");
  // Undoing the letterbox divides by these sides.
  if (input_shape[0] == 0 || input_shape[1] == 0) {
    throw std::runtime_error("postprocess(): input_shape sides must be at least 1");
  }
  if (original_shape[0] == 0 || original_shape[1] == 0) {
    throw std::runtime_error("postprocess(): original_shape sides must be at least 1");
  }

  // Best class and confidence filter in one pass over the head; only rows that
  // pass the filter get their box converted, in index order.
  const std::vector<int> all_classes;
  const HeadView view{predictions.data(), n, c, false};
  std::vector<float> table = select_candidates(
      view, {conf_threshold, false, all_classes, std::numeric_limits<size_t>::max()});
  if (table.empty()) return {};

  // Bounded NMS (see kNmsWorkLimit): a head that exhausts it starts again on
  // its best kCappedCandidates candidates.
  bool exhausted = false;
  const bool bounded = table.size() / kCols > kCappedCandidates;
  table = nms<float>(std::move(table), conf_threshold, iou_threshold, max_det, false,
                     bounded ? kNmsWorkLimit : UINT64_MAX, &exhausted);
  if (exhausted) {
    table =
        nms<float>(select_candidates(view, {conf_threshold, false, all_classes, kCappedCandidates}),
                   conf_threshold, iou_threshold, max_det, false);
  }

  // Undo the letterbox with the exact float gain and half the float padding
  // minus 0.1, then clip to the original image.
  const float in_h = static_cast<float>(input_shape[0]);
  const float in_w = static_cast<float>(input_shape[1]);
  const float orig_h = static_cast<float>(original_shape[0]);
  const float orig_w = static_cast<float>(original_shape[1]);
  const float gain = std::min(in_h / orig_h, in_w / orig_w);
  const float pad_x = (in_w - orig_w * gain) * 0.5f - 0.1f;
  const float pad_y = (in_h - orig_h * gain) * 0.5f - 0.1f;
  const auto restore = [gain](float v, float pad, float bound) {
    return std::min(std::max((v - pad) / gain, 0.0f), bound);
  };

  std::vector<Detection> detections;
  detections.reserve(table.size() / kCols);
  for (size_t k = 0; k < table.size(); k += kCols) {
    const float* r = table.data() + k;
    detections.push_back({restore(r[0], pad_x, orig_w), restore(r[1], pad_y, orig_h),
                          restore(r[2], pad_x, orig_w), restore(r[3], pad_y, orig_h), r[4],
                          saturating_int(r[5])});
  }
  return detections;
}

std::vector<Detection> postprocess(const xt::xtensor<float, 2>& head,
                                   const LetterboxInfo& letterbox,
                                   const PostprocessOptions& options) {
  const HeadView view =
      head_view(head.data(), head.shape(0), head.shape(1), options, "postprocess()");
  check_geometry(letterbox, "postprocess()", "letterbox");
  return detect(view, letterbox, options);
}

std::vector<std::vector<Detection>> postprocess_batch(const xt::xtensor<float, 3>& heads,
                                                      const std::vector<LetterboxInfo>& letterbox,
                                                      const PostprocessOptions& options) {
  const size_t batch = heads.shape(0);
  if (letterbox.size() != batch) {
    throw std::runtime_error("postprocess_batch(): letterbox holds " +
                             std::to_string(letterbox.size()) + " entries for " +
                             std::to_string(batch) + " heads");
  }
  const size_t rows = heads.shape(1);
  const size_t cols = heads.shape(2);
  const HeadView first = head_view(heads.data(), rows, cols, options, "postprocess_batch()");
  for (size_t i = 0; i < batch; ++i) {
    check_geometry(letterbox[i], "postprocess_batch()",
                   ("letterbox[" + std::to_string(i) + "]").c_str());
  }
  std::vector<std::vector<Detection>> detections;
  detections.reserve(batch);
  for (size_t i = 0; i < batch; ++i) {
    HeadView view = first;
    view.data = heads.data() + i * rows * cols;
    detections.push_back(detect(view, letterbox[i], options));
  }
  return detections;
}

std::vector<Detection> postprocess_end2end(const xt::xtensor<float, 2>& rows,
                                           const LetterboxInfo& letterbox, float conf_threshold) {
  const size_t n = rows.shape(0);
  const size_t c = rows.shape(1);
  if (c < kCols) {
    throw std::runtime_error(
        "postprocess_end2end(): rows needs at least 6 columns (x1, y1, x2, y2, score, class)");
  }
  check_geometry(letterbox, "postprocess_end2end()", "letterbox");
  std::vector<Detection> detections;
  for (size_t i = 0; i < n; ++i) {
    const float* row = rows.data() + i * c;
    if (row[4] > conf_threshold) detections.push_back(unletterbox(row, letterbox));
  }
  return detections;
}

// ---------------------------------------------------------------------------
// Drawing
// ---------------------------------------------------------------------------

namespace {

constexpr uint8_t kColorTable[20][3] = {
    {4, 42, 255},    {11, 219, 235}, {243, 243, 243}, {0, 223, 183},  {17, 31, 104},
    {255, 111, 221}, {255, 68, 79},  {204, 237, 0},   {0, 243, 68},   {189, 0, 255},
    {0, 180, 255},   {221, 0, 186},  {0, 255, 255},   {38, 192, 0},   {1, 255, 179},
    {125, 36, 255},  {123, 0, 104},  {255, 27, 108},  {252, 109, 47}, {162, 255, 11},
};

struct Canvas {
  RawImage& image;
  int W;
  int H;

  int clamp_x(int64_t v) const {
    return static_cast<int>(std::min<int64_t>(std::max<int64_t>(v, 0), W - 1));
  }
  int clamp_y(int64_t v) const {
    return static_cast<int>(std::min<int64_t>(std::max<int64_t>(v, 0), H - 1));
  }

  uint8_t* at(int x, int y) const {
    return image.data.data() + (static_cast<size_t>(y) * static_cast<size_t>(W) + x) * 3u;
  }
  void put(int x, int y, const uint8_t* rgb) const { std::memcpy(at(x, y), rgb, 3); }

  // Fills columns [x0, x1] of rows [y0, y1] (inclusive, already in the image).
  void fill(int x0, int x1, int y0, int y1, const uint8_t* rgb) const {
    for (int y = y0; y <= y1; ++y) {
      uint8_t* p = at(x0, y);
      for (int x = x0; x <= x1; ++x, p += 3) std::memcpy(p, rgb, 3);
    }
  }
};

std::string label_text(const Detection& d, const std::vector<std::string>& class_names,
                       bool show_score) {
  std::string text = d.class_id >= 0 && d.class_id < static_cast<int>(class_names.size())
                         ? class_names[static_cast<size_t>(d.class_id)]
                         : "cls_" + std::to_string(d.class_id);
  if (show_score) {
    char buf[32];
    std::snprintf(buf, sizeof buf, " %.2f", static_cast<double>(d.score));
    text += buf;
  }
  return text;
}

// The outline grows outward one pixel per step t < thickness from the clamped
// box: with xa = clampX(cx1 - t), xb = clampX(cx2 + t), ya = clampY(cy1 - t)
// and yb = clampY(cy2 + t), step t paints rows ya and yb over columns
// [xa, xb] when xa <= xb, and columns xa and xb over rows [ya, yb] when
// ya <= yb. The same pixels are filled here as rectangles:
// - from the first step s at which both spans are non-empty, steps s to
//   thickness - 1 paint exactly the frame between the last step's rectangle
//   and the interior of step s's rectangle: four rectangles;
// - an inverted box paints one direction alone before s, a pair of lines per
//   step, each on a row (column) of its own; those steps number at most half
//   the image's height (width) and their lines span at most its width (height).
// So the cost is bounded by the image area, whatever the thickness.
void draw_outline(const Canvas& cv, int cx1, int cy1, int cx2, int cy2, int thickness,
                  const uint8_t* rgb) {
  const auto xa = [&](int64_t t) { return cv.clamp_x(cx1 - t); };
  const auto xb = [&](int64_t t) { return cv.clamp_x(cx2 + t); };
  const auto ya = [&](int64_t t) { return cv.clamp_y(cy1 - t); };
  const auto yb = [&](int64_t t) { return cv.clamp_y(cy2 + t); };
  // The first step with a non-empty span: an inverted side (cx1 > cx2, both
  // already inside the image) closes after ceil((cx1 - cx2) / 2) steps.
  const int64_t tx = cx1 > cx2 ? (int64_t{cx1} - cx2 + 1) / 2 : 0;
  const int64_t ty = cy1 > cy2 ? (int64_t{cy1} - cy2 + 1) / 2 : 0;
  const int64_t steps = thickness;
  const int64_t s = std::max(tx, ty);

  for (int64_t t = std::min(tx, ty); t < std::min(s, steps); ++t) {
    if (t >= tx) {
      cv.fill(xa(t), xb(t), ya(t), ya(t), rgb);
      cv.fill(xa(t), xb(t), yb(t), yb(t), rgb);
    } else {
      cv.fill(xa(t), xa(t), ya(t), yb(t), rgb);
      cv.fill(xb(t), xb(t), ya(t), yb(t), rgb);
    }
  }
  if (s >= steps) return;

  const int outer_x1 = xa(steps - 1);
  const int outer_x2 = xb(steps - 1);
  const int outer_y1 = ya(steps - 1);
  const int outer_y2 = yb(steps - 1);
  const int inner_x1 = xa(s);
  const int inner_x2 = xb(s);
  const int inner_y1 = ya(s);
  const int inner_y2 = yb(s);
  cv.fill(outer_x1, outer_x2, outer_y1, inner_y1, rgb);  // top band
  cv.fill(outer_x1, outer_x2, inner_y2, outer_y2, rgb);  // bottom band
  if (inner_y2 - inner_y1 >= 2) {
    cv.fill(outer_x1, inner_x1, inner_y1 + 1, inner_y2 - 1, rgb);  // left band
    cv.fill(inner_x2, outer_x2, inner_y1 + 1, inner_y2 - 1, rgb);  // right band
  }
}

void draw_label_bar(const Canvas& cv, int ix1, int ty, size_t text_len, const uint8_t* rgb) {
  const int64_t right = int64_t{ix1} + 8 * static_cast<int64_t>(text_len);
  const int64_t xe = right < 0 ? 0 : std::min<int64_t>(right, cv.W - 1);
  const int64_t ye = std::min<int64_t>(int64_t{ty} - 2, cv.H - 1);
  const int64_t y0 = int64_t{ty} - 10;
  if (y0 > ye || ix1 > xe) return;
  // A bar starting left of the image is drawn from column 0.
  cv.fill(std::max(ix1, 0), static_cast<int>(xe), static_cast<int>(y0), static_cast<int>(ye), rgb);
}

void draw_label_glyphs(const Canvas& cv, int ix1, int ty, const std::string& text) {
  // The font indexes its tables by (byte - 32) and reads one entry past each
  // character: bytes outside 32..126, other than line feeds, are drawn as '?'.
  std::string glyphs = text;
  for (char& ch : glyphs) {
    const auto u = static_cast<unsigned char>(ch);
    if (ch != '\n' && (u < 32 || u > 126)) ch = '?';
  }
  // 64 quads of 4 vertices of 16 bytes: longer labels lose their last segments.
  char vertices[4096];
  unsigned char white[4] = {255, 255, 255, 255};
  const int quads =
      stb_easy_font_print(static_cast<float>(int64_t{ix1} + 1), static_cast<float>(ty - 9),
                          glyphs.data(), white, vertices, sizeof vertices);
  static const uint8_t kWhite[3] = {255, 255, 255};
  for (int q = 0; q < quads; ++q) {
    float v0[2];
    float v2[2];
    std::memcpy(v0, vertices + q * 64, sizeof v0);
    std::memcpy(v2, vertices + q * 64 + 32, sizeof v2);
    const int left = cv.clamp_x(saturating_int(v0[0]));
    const int top = cv.clamp_y(saturating_int(v0[1]));
    const int right = cv.clamp_x(saturating_int(v2[0]));
    const int bottom = cv.clamp_y(saturating_int(v2[1]));
    if (left < right && top < bottom) cv.fill(left, right - 1, top, bottom - 1, kWhite);
  }
}

}  // namespace

void draw_detections(RawImage& image, const std::vector<Detection>& detections,
                     const std::vector<std::string>& class_names, bool show_score, int thickness) {
  require_rgb_buffer(image, "draw_detections()");
  if (image.width == 0 || image.height == 0) return;
  const Canvas cv{image, image.width, image.height};
  for (const Detection& d : detections) {
    const uint8_t* rgb = kColorTable[static_cast<uint64_t>(static_cast<int64_t>(d.class_id)) % 20];
    const int ix1 = saturating_int(d.x1);
    const int iy1 = saturating_int(d.y1);
    const int ix2 = saturating_int(d.x2);
    const int iy2 = saturating_int(d.y2);
    if (thickness >= 1) {
      draw_outline(cv, cv.clamp_x(ix1), cv.clamp_y(iy1), cv.clamp_x(ix2), cv.clamp_y(iy2),
                   thickness, rgb);
    }
    const std::string text = label_text(d, class_names, show_score);
    const int ty = std::max(iy1, 10);
    draw_label_bar(cv, ix1, ty, text.size(), rgb);
    draw_label_glyphs(cv, ix1, ty, text);
  }
}

}  // namespace yolo
