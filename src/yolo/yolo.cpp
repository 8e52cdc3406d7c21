// Object detection, top to bottom: load -> letterbox -> pack (preprocess),
// decode -> NMS -> undo letterbox (postprocess), and drawing.
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

RawImage letterbox(const RawImage& image, const std::array<int, 2>& new_shape,
                   unsigned char pad_value) {
  require_rgb_buffer(image, "letterbox()");
  const int W = new_shape[0];
  const int H = new_shape[1];
  if (W < 0 || H < 0) throw std::runtime_error("letterbox(): new_shape must not be negative");
  const int w = image.width;
  const int h = image.height;

  const float r = std::min(static_cast<float>(H) / static_cast<float>(h),
                           static_cast<float>(W) / static_cast<float>(w));
  const int new_w = saturating_int(std::round(r * static_cast<float>(w)));
  const int new_h = saturating_int(std::round(r * static_cast<float>(h)));

  // The resized image never exceeds the target box; anything else (NaN
  // factors from empty inputs, negative sizes) is a resize the resizer cannot do.
  if (new_w < 0 || new_h < 0 || new_w > W || new_h > H) {
    throw std::runtime_error("stbir_resize_uint8_linear failed");
  }
  std::vector<uint8_t> resized(rgb_bytes(new_w, new_h));
  if (!vemoproc::detail::resize_rgb(image.data.data(), w, h, 0, resized.data(), new_w, new_h, 0,
                                    vemoproc::detail::ResizeFilter::Default)) {
    throw std::runtime_error("stbir_resize_uint8_linear failed");
  }

  RawImage result;
  result.width = W;
  result.height = H;
  result.channels = 3;
  result.data.assign(rgb_bytes(W, H), pad_value);

  // Odd free space: the extra row goes to the bottom, the extra column right.
  const int top = (H - new_h) / 2;
  const int left = (W - new_w) / 2;
  const size_t row_bytes = static_cast<size_t>(new_w) * 3u;
  for (int y = 0; y < new_h; ++y) {
    std::memcpy(result.data.data() + (static_cast<size_t>(top + y) * W + left) * 3u,
                resized.data() + static_cast<size_t>(y) * row_bytes, row_bytes);
  }
  return result;
}

// ---------------------------------------------------------------------------
// Batch preprocessing
// ---------------------------------------------------------------------------

xt::xtensor<float, 4> preprocess(const std::vector<std::string>& paths,
                                 const std::array<int, 2>& new_shape) {
  if (new_shape[0] < 0 || new_shape[1] < 0) {
    throw std::runtime_error("preprocess(): new_shape must not be negative");
  }
  const size_t W = static_cast<size_t>(new_shape[0]);
  const size_t H = static_cast<size_t>(new_shape[1]);
  xt::xtensor<float, 4> batch = xt::zeros<float>({paths.size(), size_t{3}, H, W});
  const size_t plane = H * W;
  // One image per thread (vemoproc::set_num_threads; one at a time by
  // default): peak memory is the batch plus one decoded image per thread.
  vemoproc::detail::parallel_for_each_item(paths.size(), [&](size_t i) {
    const RawImage boxed = letterbox(RawImage(paths[i]), new_shape, 114);
    internal::pack_planar(boxed.data.data(), plane, batch.data() + i * 3 * plane);
  });
  return batch;
}

// ---------------------------------------------------------------------------
// Postprocessing
// ---------------------------------------------------------------------------

namespace {

// Working table row: x1, y1, x2, y2, score, class (as float).
constexpr size_t kCols = 6;

// Greedy NMS over an [M, 6] row-major table. Returns the kept rows in order of
// descending score. With agnostic false, only boxes of the same class (the
// class column truncated to int) suppress each other.
template <class T>
std::vector<T> nms(std::vector<T> table, T conf_threshold, T iou_threshold, size_t max_det,
                   bool agnostic) {
  (void)conf_threshold;  // the table arrives already filtered
  const size_t m = table.size() / kCols;
  const T* rows = table.data();
  std::vector<size_t> order(m);
  std::iota(order.begin(), order.end(), size_t{0});
  std::sort(order.begin(), order.end(),
            [rows](size_t a, size_t b) { return rows[a * kCols + 4] > rows[b * kCols + 4]; });

  std::vector<char> suppressed(m, 0);
  std::vector<size_t> keep;
  for (size_t p = 0; p < m; ++p) {
    const size_t a = order[p];
    if (suppressed[a]) continue;
    keep.push_back(a);
    if (keep.size() >= max_det) break;
    const T* ra = rows + a * kCols;
    const int class_a = saturating_int(ra[5]);
    const T area_a = (ra[2] - ra[0]) * (ra[3] - ra[1]);
    for (size_t q = p + 1; q < m; ++q) {
      const size_t b = order[q];
      if (suppressed[b]) continue;
      const T* rb = rows + b * kCols;
      if (!agnostic && saturating_int(rb[5]) != class_a) continue;
      const T xx1 = std::max(ra[0], rb[0]);
      const T yy1 = std::max(ra[1], rb[1]);
      const T xx2 = std::min(ra[2], rb[2]);
      const T yy2 = std::min(ra[3], rb[3]);
      const T inter = std::max(xx2 - xx1, T(0)) * std::max(yy2 - yy1, T(0));
      const T area_b = (rb[2] - rb[0]) * (rb[3] - rb[1]);
      const T iou = inter / (area_b + area_a - inter + T(1.0e-7f));
      if (iou > iou_threshold) suppressed[b] = 1;
    }
  }

  std::vector<T> kept(keep.size() * kCols);
  for (size_t k = 0; k < keep.size(); ++k) {
    std::copy_n(rows + keep[k] * kCols, kCols, kept.data() + k * kCols);
  }
  return kept;
}

}  // namespace

std::vector<Detection> postprocess(const xt::xtensor<float, 2>& predictions,
                                   const std::array<size_t, 2>& input_shape,
                                   const std::array<size_t, 2>& original_shape,
                                   float conf_threshold, float iou_threshold, size_t max_det) {
  const size_t n = predictions.shape(0);
  const size_t c = predictions.shape(1);
  if (c < 6) throw std::runtime_error("postprocess(): expected (N,5+nc) tensor");

  // Best class and confidence filter in one pass over the head. The maximum is
  // the reduction acc = (acc > v ? acc : v) from the lowest finite float, the
  // class the first index of a strictly greater value; only rows that pass
  // the filter get their box converted, in index order.
  std::vector<float> table;
  const float* head = predictions.data();
  for (size_t i = 0; i < n; ++i) {
    const float* row = head + i * c;
    // Most rows have no class score above the threshold, and then the maximum
    // (some score, or the starting value) is not above it either: reject them
    // with one branch-free pass the compiler vectorises.
    int above = std::numeric_limits<float>::lowest() > conf_threshold;
    for (size_t j = 4; j < c; ++j) above += row[j] > conf_threshold;
    if (above == 0) continue;
    float score = std::numeric_limits<float>::lowest();
    size_t best = 0;
    float best_value = row[4];
    for (size_t j = 4; j < c; ++j) {
      const float v = row[j];
      score = score > v ? score : v;
      if (v > best_value) {
        best_value = v;
        best = j - 4;
      }
    }
    if (!(score > conf_threshold)) continue;
    const float half_w = row[2] / 2.0f;
    const float half_h = row[3] / 2.0f;
    table.insert(table.end(), {row[0] - half_w, row[1] - half_h, row[0] + half_w, row[1] + half_h,
                               score, static_cast<float>(best)});
  }
  if (table.empty()) return {};

  table = nms<float>(std::move(table), conf_threshold, iou_threshold, max_det, false);

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

void draw_outline(const Canvas& cv, int cx1, int cy1, int cx2, int cy2, int thickness,
                  const uint8_t* rgb) {
  // Past max(W, H) steps every edge sits on the image border: later steps
  // would repaint the same pixels, so they are skipped.
  const int64_t steps = std::min<int64_t>(thickness, int64_t{std::max(cv.W, cv.H)} + 1);
  for (int64_t t = 0; t < steps; ++t) {
    const int xa = cv.clamp_x(cx1 - t);
    const int xb = cv.clamp_x(cx2 + t);
    const int ya = cv.clamp_y(cy1 - t);
    const int yb = cv.clamp_y(cy2 + t);
    for (int x = xa; x <= xb; ++x) {
      cv.put(x, ya, rgb);
      cv.put(x, yb, rgb);
    }
    for (int y = ya; y <= yb; ++y) {
      cv.put(xa, y, rgb);
      cv.put(xb, y, rgb);
    }
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
