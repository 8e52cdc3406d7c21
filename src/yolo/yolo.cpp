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
#include <stdexcept>

#include <stb_easy_font.h>

#include "../pixels/image_io.hpp"
#include "../pixels/parallel.hpp"

#include "geometry.hpp"
#include "nms.hpp"
#include "pack.hpp"
#include "palette.hpp"
#include "select.hpp"

namespace yolo {

using internal::saturating_int;

namespace {

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

using internal::Candidates;
using internal::HeadView;
using internal::kCols;
using internal::Mapping;

// The overload without options has no candidate cap, and NMS may test every
// overlapping pair (boxes that all cross each other but suppress none). Its
// NMS is bounded instead: past kNmsWorkLimit steps (kept boxes plus pairs
// tested) on more than kCappedCandidates candidates, it starts again on the
// kCappedCandidates highest scores, as max_candidates selects them. Results
// change only for heads that hit the limit.
constexpr uint64_t kNmsWorkLimit = uint64_t{1} << 26;
constexpr size_t kCappedCandidates = 8192;

// Selection, NMS and mapping for one image of the geometry overloads.
std::vector<Detection> detect(const HeadView& head, const LetterboxInfo& letterbox,
                              const PostprocessOptions& options) {
  const Candidates kept = internal::select_and_suppress(head, options);
  const Mapping map(letterbox, options.box_mapping);
  std::vector<Detection> detections;
  detections.reserve(kept.size());
  for (size_t k = 0; k < kept.table.size(); k += kCols) {
    detections.push_back(internal::map_box(kept.table.data() + k, map));
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
  Candidates found = internal::select_candidates(
      view, {conf_threshold, false, all_classes, std::numeric_limits<size_t>::max()});
  if (found.size() == 0) return {};
  // Bounded NMS (see kNmsWorkLimit): a head that exhausts it starts again on
  // its best kCappedCandidates candidates.
  bool exhausted = false;
  const bool bounded = found.size() > kCappedCandidates;
  std::vector<size_t> keep =
      internal::nms_boxes(found.table.data(), found.size(), iou_threshold, max_det, false,
                          bounded ? kNmsWorkLimit : std::numeric_limits<uint64_t>::max(), &exhausted);
  if (exhausted) {
    found = internal::select_candidates(view,
                                        {conf_threshold, false, all_classes, kCappedCandidates});
    keep = internal::nms_boxes(found.table.data(), found.size(), iou_threshold, max_det, false);
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
  detections.reserve(keep.size());
  for (const size_t k : keep) {
    const float* r = found.table.data() + k * kCols;
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
      internal::head_view(head.data(), head.shape(0), head.shape(1), options, "postprocess()");
  internal::check_geometry(letterbox, "postprocess()", "letterbox");
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
  const HeadView first =
      internal::head_view(heads.data(), rows, cols, options, "postprocess_batch()");
  for (size_t i = 0; i < batch; ++i) {
    internal::check_geometry(letterbox[i], "postprocess_batch()",
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
  return postprocess_end2end(rows, letterbox, conf_threshold, vemoproc::Pipeline::Native);
}

std::vector<Detection> postprocess_end2end(const xt::xtensor<float, 2>& rows,
                                           const LetterboxInfo& letterbox, float conf_threshold,
                                           vemoproc::Pipeline box_mapping) {
  const size_t n = rows.shape(0);
  const size_t c = rows.shape(1);
  if (c < kCols) {
    throw std::runtime_error(
        "postprocess_end2end(): rows needs at least 6 columns (x1, y1, x2, y2, score, class)");
  }
  internal::check_geometry(letterbox, "postprocess_end2end()", "letterbox");
  const Mapping map(letterbox, box_mapping);
  std::vector<Detection> detections;
  for (size_t i = 0; i < n; ++i) {
    const float* row = rows.data() + i * c;
    if (row[4] > conf_threshold) detections.push_back(internal::map_box(row, map));
  }
  return detections;
}

// ---------------------------------------------------------------------------
// Drawing
// ---------------------------------------------------------------------------

namespace {

using internal::kColorTable;

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
