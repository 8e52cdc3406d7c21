// Instance segmentation: boxes selected as for detection with their mask
// coefficients riding along, then each mask rendered over its box only:
// logits on the prototype window the box needs -> bilinear sampling at the
// box's pixels -> threshold at 0. Optional outlines traced from the mask.
#include <algorithm>
#include <cmath>
#include <map>
#include <stdexcept>

#include "geometry.hpp"
#include "select.hpp"
#include "yolo_tasks.hpp"

namespace yolo {

using internal::Candidates;
using internal::HeadView;
using internal::kCols;
using internal::Mapping;
using internal::saturating_int;

namespace {

struct Protos {
  const float* data;
  size_t m;
  size_t mh;
  size_t mw;

  const float* plane(size_t k) const { return data + k * mh * mw; }
};

// Where one frame's pixels land in prototype coordinates along one axis: a
// pixel index i samples network point (i + 0.5f) * scale + offset, then
// prototype point max(net * ratio - 0.5f, 0).
struct AxisRule {
  float scale;
  float offset;
  float ratio;  // prototype side / network side
  int size;     // prototype side
};

// The bilinear taps of pixels [begin, end) along one axis.
struct Taps {
  std::vector<int> i0;
  std::vector<int> i1;
  std::vector<float> w1;  // the weight of i1 (a); i0 gets 1 - a
  int lo = 0;             // lowest and highest index touched
  int hi = -1;
};

Taps taps(const AxisRule& rule, int begin, int end) {
  Taps t;
  const auto n = static_cast<size_t>(end - begin);
  t.i0.resize(n);
  t.i1.resize(n);
  t.w1.resize(n);
  for (size_t k = 0; k < n; ++k) {
    const float net =
        (static_cast<float>(begin + static_cast<int>(k)) + 0.5f) * rule.scale + rule.offset;
    const float p = std::max(net * rule.ratio - 0.5f, 0.0f);
    const int i0 = std::min(saturating_int(p), rule.size - 1);
    t.i0[k] = i0;
    t.i1[k] = std::min(i0 + 1, rule.size - 1);
    t.w1[k] = p - static_cast<float>(i0);
  }
  t.lo = *std::min_element(t.i0.begin(), t.i0.end());
  t.hi = *std::max_element(t.i1.begin(), t.i1.end());
  return t;
}

// Pixels [lo, hi) of a frame side `limit` with lo <= i < hi for i in the
// float interval [a, b): ceil(a) .. ceil(b) - 1, clamped to [0, limit).
std::pair<int, int> pixel_span(float a, float b, int limit) {
  if (std::isnan(a) || std::isnan(b)) return {0, 0};
  const float lo = std::max(std::ceil(a), 0.0f);
  const float hi = std::min(std::ceil(b), static_cast<float>(limit));
  if (!(hi > lo)) return {0, 0};
  return {static_cast<int>(lo), static_cast<int>(hi)};
}

// The mask of one instance over the pixels [x0, x1) x [y0, y1) of a frame.
InstanceMask render(const Protos& protos, const float* coef, size_t coef_stride, const AxisRule& rx,
                    const AxisRule& ry, std::pair<int, int> xs, std::pair<int, int> ys) {
  InstanceMask mask;
  if (xs.second <= xs.first || ys.second <= ys.first) return mask;
  mask.x0 = xs.first;
  mask.y0 = ys.first;
  mask.width = xs.second - xs.first;
  mask.height = ys.second - ys.first;
  const Taps tx = taps(rx, xs.first, xs.second);
  const Taps ty = taps(ry, ys.first, ys.second);

  // Logits on the prototype window the taps reach: L = sum of c[k] * P[k] in
  // k order, starting from 0.
  const auto ww = static_cast<size_t>(tx.hi - tx.lo + 1);
  const auto wh = static_cast<size_t>(ty.hi - ty.lo + 1);
  std::vector<float> logits(ww * wh, 0.0f);
  // Row by row, so that the row being summed stays in cache.
  std::vector<float> c(protos.m);
  for (size_t k = 0; k < protos.m; ++k) c[k] = coef[k * coef_stride];
  for (size_t v = 0; v < wh; ++v) {
    float* dst = logits.data() + v * ww;
    const size_t offset = (static_cast<size_t>(ty.lo) + v) * protos.mw + static_cast<size_t>(tx.lo);
    for (size_t k = 0; k < protos.m; ++k) {
      const float ck = c[k];
      const float* src = protos.plane(k) + offset;
      for (size_t u = 0; u < ww; ++u) dst[u] = dst[u] + ck * src[u];
    }
  }

  // Horizontal pass on every window row, then per pixel row the vertical mix.
  const auto width = static_cast<size_t>(mask.width);
  std::vector<float> across(wh * width);
  for (size_t v = 0; v < wh; ++v) {
    const float* row = logits.data() + v * ww;
    float* dst = across.data() + v * width;
    for (size_t k = 0; k < width; ++k) {
      const float a = tx.w1[k];
      dst[k] = (1.0f - a) * row[tx.i0[k] - tx.lo] + a * row[tx.i1[k] - tx.lo];
    }
  }
  mask.bits.resize(width * static_cast<size_t>(mask.height));
  for (size_t r = 0; r < static_cast<size_t>(mask.height); ++r) {
    const float b = ty.w1[r];
    const float* top = across.data() + static_cast<size_t>(ty.i0[r] - ty.lo) * width;
    const float* bottom = across.data() + static_cast<size_t>(ty.i1[r] - ty.lo) * width;
    uint8_t* out = mask.bits.data() + r * width;
    for (size_t k = 0; k < width; ++k) {
      out[k] = static_cast<uint8_t>((1.0f - b) * top[k] + b * bottom[k] > 0.0f);
    }
  }
  return mask;
}

// The outer outlines of a mask, 4-connected: the boundary edges of its pixel
// squares walked with the inside on the right (clockwise on screen), turning
// right first where two diagonal pixels meet; runs along one line merged.
// Loops walked counter-clockwise are holes and left out. Vertices are pixel
// corners of the mask's frame.
std::vector<Polygon> trace_outlines(const InstanceMask& mask) {
  const int w = mask.width;
  const int h = mask.height;
  const auto inside = [&](int x, int y) {
    return x >= 0 && y >= 0 && x < w && y < h &&
           mask.bits[static_cast<size_t>(y) * static_cast<size_t>(w) + static_cast<size_t>(x)];
  };
  // Directed edges keyed by their start corner; direction 0 right, 1 down,
  // 2 left, 3 up.
  const int dx[4] = {1, 0, -1, 0};
  const int dy[4] = {0, 1, 0, -1};
  const auto key = [w](int x, int y) { return static_cast<int64_t>(y) * (w + 1) + x; };
  std::map<int64_t, std::vector<int>> edges;
  for (int y = 0; y < h; ++y) {
    for (int x = 0; x < w; ++x) {
      if (!inside(x, y)) continue;
      if (!inside(x, y - 1)) edges[key(x, y)].push_back(0);
      if (!inside(x + 1, y)) edges[key(x + 1, y)].push_back(1);
      if (!inside(x, y + 1)) edges[key(x + 1, y + 1)].push_back(2);
      if (!inside(x - 1, y)) edges[key(x, y + 1)].push_back(3);
    }
  }
  std::vector<Polygon> outlines;
  while (!edges.empty()) {
    auto start = edges.begin();
    const int sx = static_cast<int>(start->first % (w + 1));
    const int sy = static_cast<int>(start->first / (w + 1));
    int x = sx;
    int y = sy;
    int dir = start->second.front();
    const int first_dir = dir;
    std::vector<std::array<int, 2>> corners;
    int64_t twice_area = 0;
    for (;;) {
      auto it = edges.find(key(x, y));
      if (it == edges.end()) break;
      std::vector<int>& out = it->second;
      // Prefer a right turn, then straight on, then left.
      int pick = -1;
      for (int turn : {1, 0, 3}) {
        const int d = (dir + turn) % 4;
        if (std::find(out.begin(), out.end(), d) != out.end()) {
          pick = d;
          break;
        }
      }
      if (pick < 0) pick = out.front();
      out.erase(std::find(out.begin(), out.end(), pick));
      if (out.empty()) edges.erase(it);
      if (corners.empty() || pick != dir) corners.push_back({x, y});
      dir = pick;
      const int nx = x + dx[dir];
      const int ny = y + dy[dir];
      twice_area += static_cast<int64_t>(x) * ny - static_cast<int64_t>(nx) * y;
      x = nx;
      y = ny;
      if (x == sx && y == sy) break;
    }
    // The start lies inside a straight run when the walk arrives at it going
    // the way it left.
    if (corners.size() > 1 && dir == first_dir) corners.erase(corners.begin());
    if (twice_area <= 0) continue;  // a hole (screen y points down)
    Polygon poly;
    poly.reserve(corners.size());
    for (const auto& c : corners) {
      poly.push_back({static_cast<float>(c[0] + mask.x0), static_cast<float>(c[1] + mask.y0)});
    }
    outlines.push_back(std::move(poly));
  }
  return outlines;
}

// The network input side the prototypes cover: new side + 2 * offset, or one
// more when the free space was odd and only that one is a multiple of the
// prototype side.
int network_side(int new_side, int offset, size_t proto_side) {
  const int side = new_side + 2 * offset;
  const auto p = static_cast<int>(proto_side);
  return side % p != 0 && (side + 1) % p == 0 ? side + 1 : side;
}

Protos protos_view(const float* data, size_t m, size_t mh, size_t mw, const std::string& function) {
  if (m == 0 || mh == 0 || mw == 0) {
    throw std::runtime_error(function + ": protos must not be empty");
  }
  return {data, m, mh, mw};
}

// The original-image rules of one letterbox.
std::pair<AxisRule, AxisRule> original_rules(const LetterboxInfo& g, const Mapping& map,
                                             const Protos& p) {
  const int W = network_side(g.new_width, g.left, p.mw);
  const int H = network_side(g.new_height, g.top, p.mh);
  return {{map.scale_x, map.left, static_cast<float>(p.mw) / static_cast<float>(W),
           static_cast<int>(p.mw)},
          {map.scale_y, map.top, static_cast<float>(p.mh) / static_cast<float>(H),
           static_cast<int>(p.mh)}};
}

SegmentedDetection with_mask(const Detection& box, const Protos& protos, const float* coef,
                             size_t coef_stride, const LetterboxInfo& g, const Mapping& map,
                             bool outlines) {
  SegmentedDetection out;
  out.box = box;
  const auto rules = original_rules(g, map, protos);
  out.mask = render(protos, coef, coef_stride, rules.first, rules.second,
                    pixel_span(box.x1, box.x2, g.original_width),
                    pixel_span(box.y1, box.y2, g.original_height));
  if (outlines) out.outlines = trace_outlines(out.mask);
  return out;
}

// The coefficients of candidate i start at head value c - m, one value apart
// (row-major) or n apart (channels first).
const float* coefficients(const HeadView& head, size_t i, size_t m) {
  const size_t first = head.c - m;
  return head.channels_first ? head.data + first * head.n + i : head.data + i * head.c + first;
}

std::vector<SegmentedDetection> segment_one(const HeadView& head, const Protos& protos,
                                            const LetterboxInfo& g,
                                            const PostprocessOptions& options, bool outlines) {
  const Candidates kept = internal::select_and_suppress(head, options, protos.m);
  const Mapping map(g, options.box_mapping);
  std::vector<SegmentedDetection> out;
  out.reserve(kept.size());
  for (size_t k = 0; k < kept.size(); ++k) {
    out.push_back(with_mask(internal::map_box(kept.table.data() + k * kCols, map), protos,
                            coefficients(head, kept.source[k], protos.m),
                            head.channels_first ? head.n : 1, g, map, outlines));
  }
  return out;
}

std::string coefficient_text(size_t m) { return std::to_string(m) + " mask coefficients"; }

}  // namespace

size_t InstanceMask::area() const {
  // Bytes are 0 or 1: summed in 32-bit blocks, which vectorise.
  size_t total = 0;
  for (size_t i = 0; i < bits.size();) {
    const size_t end = std::min(bits.size(), i + (size_t{1} << 24));
    uint32_t block = 0;
    for (; i < end; ++i) block += bits[i] != 0;
    total += block;
  }
  return total;
}

std::vector<SegmentedDetection> segment(const xt::xtensor<float, 2>& head,
                                        const xt::xtensor<float, 3>& protos,
                                        const LetterboxInfo& letterbox,
                                        const PostprocessOptions& options, bool outlines) {
  const Protos p =
      protos_view(protos.data(), protos.shape(0), protos.shape(1), protos.shape(2), "segment()");
  const HeadView view = internal::head_view(head.data(), head.shape(0), head.shape(1), options,
                                            "segment()", p.m, coefficient_text(p.m));
  internal::check_geometry(letterbox, "segment()", "letterbox");
  return segment_one(view, p, letterbox, options, outlines);
}

std::vector<std::vector<SegmentedDetection>> segment_batch(
    const xt::xtensor<float, 3>& heads, const xt::xtensor<float, 4>& protos,
    const std::vector<LetterboxInfo>& letterbox, const PostprocessOptions& options, bool outlines) {
  const size_t batch = heads.shape(0);
  if (letterbox.size() != batch || protos.shape(0) != batch) {
    throw std::runtime_error("segment_batch(): letterbox holds " +
                             std::to_string(letterbox.size()) + " entries and protos " +
                             std::to_string(protos.shape(0)) + " for " + std::to_string(batch) +
                             " heads");
  }
  const size_t rows = heads.shape(1);
  const size_t cols = heads.shape(2);
  const size_t m = protos.shape(1);
  const size_t plane = m * protos.shape(2) * protos.shape(3);
  const Protos first_protos =
      protos_view(protos.data(), m, protos.shape(2), protos.shape(3), "segment_batch()");
  const HeadView first = internal::head_view(heads.data(), rows, cols, options, "segment_batch()",
                                             m, coefficient_text(m));
  for (size_t i = 0; i < batch; ++i) {
    internal::check_geometry(letterbox[i], "segment_batch()",
                             ("letterbox[" + std::to_string(i) + "]").c_str());
  }
  std::vector<std::vector<SegmentedDetection>> out;
  out.reserve(batch);
  for (size_t i = 0; i < batch; ++i) {
    HeadView view = first;
    view.data = heads.data() + i * rows * cols;
    Protos p = first_protos;
    p.data = protos.data() + i * plane;
    out.push_back(segment_one(view, p, letterbox[i], options, outlines));
  }
  return out;
}

std::vector<SegmentedDetection> segment_end2end(const xt::xtensor<float, 2>& rows,
                                                const xt::xtensor<float, 3>& protos,
                                                const LetterboxInfo& letterbox,
                                                const PostprocessOptions& options, bool outlines) {
  const Protos p = protos_view(protos.data(), protos.shape(0), protos.shape(1), protos.shape(2),
                               "segment_end2end()");
  const size_t c = rows.shape(1);
  if (c < kCols + p.m) {
    throw std::runtime_error(
        "segment_end2end(): rows needs at least " + std::to_string(kCols + p.m) +
        " columns (x1, y1, x2, y2, score, class, " + coefficient_text(p.m) + ")");
  }
  internal::check_geometry(letterbox, "segment_end2end()", "letterbox");
  const Mapping map(letterbox, options.box_mapping);
  std::vector<SegmentedDetection> out;
  for (const size_t i : internal::select_end2end(rows.data(), rows.shape(0), c, options)) {
    const float* row = rows.data() + i * c;
    out.push_back(with_mask(internal::map_box(row, map), p, row + kCols, 1, letterbox, map, outlines));
  }
  return out;
}

std::vector<InstanceMask> segment_input_masks(const xt::xtensor<float, 2>& head,
                                              const xt::xtensor<float, 3>& protos,
                                              const LetterboxInfo& letterbox,
                                              const PostprocessOptions& options) {
  const Protos p = protos_view(protos.data(), protos.shape(0), protos.shape(1), protos.shape(2),
                               "segment_input_masks()");
  const HeadView view = internal::head_view(head.data(), head.shape(0), head.shape(1), options,
                                            "segment_input_masks()", p.m, coefficient_text(p.m));
  internal::check_geometry(letterbox, "segment_input_masks()", "letterbox");
  const int W = network_side(letterbox.new_width, letterbox.left, p.mw);
  const int H = network_side(letterbox.new_height, letterbox.top, p.mh);
  const AxisRule rx{1.0f, 0.0f, static_cast<float>(p.mw) / static_cast<float>(W),
                    static_cast<int>(p.mw)};
  const AxisRule ry{1.0f, 0.0f, static_cast<float>(p.mh) / static_cast<float>(H),
                    static_cast<int>(p.mh)};
  const Candidates kept = internal::select_and_suppress(view, options, p.m);
  std::vector<InstanceMask> out;
  out.reserve(kept.size());
  for (size_t k = 0; k < kept.size(); ++k) {
    const float* box = kept.table.data() + k * kCols;
    out.push_back(render(p, coefficients(view, kept.source[k], p.m),
                         view.channels_first ? view.n : 1, rx, ry, pixel_span(box[0], box[2], W),
                         pixel_span(box[1], box[3], H)));
  }
  return out;
}

xt::xtensor<uint8_t, 2> full_mask(const InstanceMask& mask, int width, int height) {
  if (width < 0 || height < 0) {
    throw std::runtime_error("full_mask(): width and height must not be negative");
  }
  xt::xtensor<uint8_t, 2> out =
      xt::zeros<uint8_t>({static_cast<size_t>(height), static_cast<size_t>(width)});
  for (int r = 0; r < mask.height; ++r) {
    const int y = mask.y0 + r;
    if (y < 0 || y >= height) continue;
    for (int c = 0; c < mask.width; ++c) {
      const int x = mask.x0 + c;
      if (x < 0 || x >= width) continue;
      out(static_cast<size_t>(y), static_cast<size_t>(x)) =
          mask.bits[static_cast<size_t>(r) * static_cast<size_t>(mask.width) +
                    static_cast<size_t>(c)];
    }
  }
  return out;
}

}  // namespace yolo
