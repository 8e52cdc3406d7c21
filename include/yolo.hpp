#pragma once
// Object detection: image loading, letterbox, batch packing, head decoding
// with per-class NMS, and drawing of the results.
#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include <xtensor/xtensor.hpp>

#include "pixels.hpp"
#include "vemoproc_export.hpp"

namespace yolo {

// A decoded image: 8-bit RGB, interleaved, row-major, top row first.
// Sample (row y, column x, channel c) is data[(y * width + x) * channels + c].
struct VEMOPROC_API RawImage {
  int width = 0;
  int height = 0;
  int channels = 0;
  std::vector<uint8_t> data;

  RawImage() = default;

  // Decodes any format stb_image reads, always as 3-channel RGB (grey is
  // expanded, alpha dropped). Throws std::runtime_error
  // "stbi_load failed for: PATH" when the file cannot be decoded.
  explicit RawImage(const std::string& path);

  // Copies a caller's pixels as RGB (see vemoproc::to_rgb for the formats).
  // Throws std::runtime_error naming the argument for a view that cannot be
  // read (null data, empty or negative size, stride shorter than a row).
  explicit RawImage(const vemoproc::ImageView& image);
};

// Scales `image` to fit new_shape = {width, height} keeping its aspect ratio
// (enlarging small images too), centres it and pads the rest with pad_value.
// The input is taken as 3-channel. Throws std::runtime_error
// "stbir_resize_uint8_linear failed" when the resizer fails (e.g. a zero-sized
// result), and a std::runtime_error naming the argument when `image.data` is
// smaller than width * height * 3 or new_shape is negative.
VEMOPROC_API RawImage letterbox(const RawImage& image, const std::array<int, 2>& new_shape,
                                unsigned char pad_value = 114);

// Loads, letterboxes (grey 114) and packs the images into one planar
// [N, 3, H, W] float tensor with values sample / 255.0f; new_shape is
// {width, height}. A failure on any image propagates; no tensor is returned.
VEMOPROC_API xt::xtensor<float, 4> preprocess(const std::vector<std::string>& paths,
                                              const std::array<int, 2>& new_shape);

// What letterbox applied to one image: the scale factor r, the size of the
// resized block and its placement in the padded result (all in pixels).
struct LetterboxInfo {
  int original_width;
  int original_height;
  float scale;
  int new_width;
  int new_height;
  int left;
  int top;
};

// The letterbox rule alone: r = min(H / height, W / width) in float, block
// sides round(r * side) (halves away from zero), left = (W - new_width) / 2 and
// top = (H - new_height) / 2, with new_shape = {W, H}. Throws
// std::runtime_error naming the argument for a width or height below 1 or a
// negative new_shape.
VEMOPROC_API LetterboxInfo letterbox_info(int width, int height,
                                          const std::array<int, 2>& new_shape);

// A packed batch and each image's letterbox geometry, in batch order.
struct DetectionBatch {
  xt::xtensor<float, 4> tensor;
  std::vector<LetterboxInfo> letterbox;
};

// preprocess for pixels already in memory: the same [N, 3, H, W] tensor,
// bit for bit, that preprocess gives for files decoding to these pixels, plus
// the geometry of every image. RGB views are read in place, rows strided or
// not; other formats are converted to RGB first (see vemoproc::to_rgb).
// Throws std::runtime_error naming images[i] for a view that cannot be read,
// naming new_shape when it is negative, and "stbir_resize_uint8_linear failed"
// when an image cannot be resized to fit (as letterbox does).
VEMOPROC_API DetectionBatch preprocess_images(const std::vector<vemoproc::ImageView>& images,
                                              const std::array<int, 2>& new_shape);

// One detection in original-image pixels.
struct Detection {
  float x1;
  float y1;
  float x2;
  float y2;
  float score;
  int class_id;
};

// Decodes one image's raw head [N, 4 + classes] (cx, cy, w, h, class scores)
// into detections, best first: best class per row, rows with score strictly
// above conf_threshold, greedy per-class NMS (suppress when IoU is strictly
// above iou_threshold, at most max_det kept, at least one), then the letterbox
// undone and boxes clipped to the image. Both shapes are {height, width}.
// Throws std::runtime_error "postprocess(): expected (N,5+nc) tensor" for
// fewer than 6 columns, and a std::runtime_error naming input_shape or
// original_shape when a side is 0 (undoing the letterbox would divide by zero).
// NMS costs about the number of overlapping box pairs, not all pairs (for
// iou_threshold >= 0; a negative threshold lets disjoint boxes suppress each
// other, and every pair is tested). That cost is bounded: when more than 8192
// rows pass the threshold and NMS takes more than 2^26 steps (box pairs tested
// plus index nodes visited), it starts again on the 8192 highest scores (equal
// scores: the earlier row), as PostprocessOptions::max_candidates selects
// them. Only heads that reach that bound (many boxes crossing each other
// without suppressing) get a different result; 200,000 separate boxes do not.
VEMOPROC_API std::vector<Detection> postprocess(const xt::xtensor<float, 2>& predictions,
                                                const std::array<size_t, 2>& input_shape,
                                                const std::array<size_t, 2>& original_shape,
                                                float conf_threshold, float iou_threshold,
                                                size_t max_det);

// How the geometry overloads read a head and select boxes.
struct PostprocessOptions {
  float conf_threshold = 0.25f;  // scores must be strictly above it
  float iou_threshold = 0.45f;   // suppress when IoU is strictly above it
  size_t max_det = 300;          // most boxes kept by NMS (at least one)
  bool agnostic = false;         // NMS across classes instead of per class
  // The head as [4 + classes, N] (one row per value, e.g. a [1, 84, 8400]
  // export with its batch axis dropped), read in place; otherwise [N, 4 + classes].
  bool channels_first = false;
  // Heads of older exports, [N, 5 + classes]: column 4 is an objectness score
  // multiplied into each class score (columns 5..) before the best is taken.
  bool objectness = false;
  std::vector<int> classes;  // keep only these class ids (empty: all), before NMS
  // When more candidates pass the threshold, only this many with the highest
  // scores go to NMS, bounding its cost (0 keeps none).
  size_t max_candidates = 30000;
  // How boxes map back to the original image. Native: the exact inverse
  // described below. MatchPython: the rule of the Python detection pipeline,
  // x = (x_net - left) / scale in float (scale = the letterbox's float gain),
  // y likewise with top, then clipped the same way; use it with the geometry
  // of the MatchPython letterbox.
  vemoproc::Pipeline box_mapping = vemoproc::Pipeline::Native;
};

// Decodes one image's head with the geometry that letterbox applied to it
// (from preprocess_images or letterbox_info). Boxes are selected exactly as
// the overload above selects them, then mapped back with the exact inverse of
// the letterbox, in float: x = (x_net - left) / (new_width / original_width),
// y likewise with top, new_height and original_height, and clipped to
// [0, original_width] x [0, original_height]. Best first. Throws
// std::runtime_error naming `head` when it has too few columns (rows when
// channels_first) for 4 box values, objectness and one class, and naming
// `letterbox` for a size below 1.
VEMOPROC_API std::vector<Detection> postprocess(const xt::xtensor<float, 2>& head,
                                                const LetterboxInfo& letterbox,
                                                const PostprocessOptions& options);

// postprocess for a batch: heads [B, N, 4 + classes] ([B, 4 + classes, N]
// when channels_first), one geometry per image. Throws std::runtime_error
// naming `letterbox` when its size differs from B.
VEMOPROC_API std::vector<std::vector<Detection>> postprocess_batch(
    const xt::xtensor<float, 3>& heads, const std::vector<LetterboxInfo>& letterbox,
    const PostprocessOptions& options);

// For heads that need no NMS: rows [N, 6] of x1, y1, x2, y2 (network pixels),
// score and class. Rows with a score strictly above conf_threshold, in input
// order, class truncated toward zero, mapped back and clipped as above. Extra
// columns are ignored. Throws std::runtime_error naming `rows` for fewer than
// 6 columns and naming `letterbox` for a size below 1.
VEMOPROC_API std::vector<Detection> postprocess_end2end(const xt::xtensor<float, 2>& rows,
                                                        const LetterboxInfo& letterbox,
                                                        float conf_threshold);

// ---------------------------------------------------------------------------
// The Python detection pipeline, bit for bit
//
// Each call below takes a vemoproc::Pipeline as its last argument: Native
// gives the library's own letterbox (as the calls above), MatchPython the
// letterbox of the common OpenCV-based Python pipeline for exported models:
// decoding as cv2.imread (vemoproc::Decoder::Reference, EXIF applied),
// r = min(H / height, W / width) in double, block sides round(side * r) with
// halves to even, a resize (vemoproc::Resample::OpenCVLinear) only when the
// size changes, top = round(dh - 0.1), bottom = round(dh + 0.1) with
// dh = (H - new_height) / 2 (left and right likewise), grey 114, then RGB
// planes of sample / 255.0f (a division). The geometry it returns has
// scale = float(r); map boxes back with PostprocessOptions::box_mapping =
// MatchPython (or the postprocess_end2end overload below).
// ---------------------------------------------------------------------------

// The geometry of either letterbox. Throws std::runtime_error naming the
// argument for a width or height below 1 or a negative new_shape, and, for
// MatchPython, for a new_shape side of 0.
VEMOPROC_API LetterboxInfo letterbox_info(int width, int height,
                                          const std::array<int, 2>& new_shape,
                                          vemoproc::Pipeline pipeline);

// preprocess_images with a choice of pipeline. MatchPython reads views of any
// format in place (BGR, the usual OpenCV frame, is resized as it is and
// swapped to RGB once, while packing; alpha is dropped; grey is repeated).
// Throws std::runtime_error naming images[i] for a view that cannot be read
// or that scales to an empty block, and naming new_shape as letterbox_info.
VEMOPROC_API DetectionBatch preprocess_images(const std::vector<vemoproc::ImageView>& images,
                                              const std::array<int, 2>& new_shape,
                                              vemoproc::Pipeline pipeline);

// Files given by path, decoded one per thread (vemoproc::Decoder::Stb for
// Native, Reference for MatchPython) and letterboxed as above, with their
// geometry. Decoding errors propagate (vemoproc::decode_image_file).
VEMOPROC_API DetectionBatch preprocess(const std::vector<std::string>& paths,
                                       const std::array<int, 2>& new_shape,
                                       vemoproc::Pipeline pipeline);

// An encoded image already in memory (not owned).
struct EncodedImage {
  const uint8_t* data;
  size_t size;
};

// The same for encoded images in memory (vemoproc::decode_image).
VEMOPROC_API DetectionBatch preprocess_encoded(const std::vector<EncodedImage>& images,
                                               const std::array<int, 2>& new_shape,
                                               vemoproc::Pipeline pipeline);

// postprocess_end2end with a choice of box mapping (see
// PostprocessOptions::box_mapping).
VEMOPROC_API std::vector<Detection> postprocess_end2end(const xt::xtensor<float, 2>& rows,
                                                        const LetterboxInfo& letterbox,
                                                        float conf_threshold,
                                                        vemoproc::Pipeline box_mapping);

// Paints each detection into `image` in place: a class-coloured outline
// `thickness` pixels wide, a label bar above the box and the label (class name,
// or "cls_<id>" when the id has no name, plus " %.2f" of the score when
// show_score) in white. The outline is filled as rectangles, so its cost is
// bounded by the image area whatever the thickness. Coordinates are clamped to the image; NaN
// coordinates count as 0 and out-of-range ones saturate. A negative class id picks its colour by
// wrapping modulo 20 and is labelled "cls_<id>". Throws std::runtime_error when `image.data` is
// smaller than width * height * 3.
VEMOPROC_API void draw_detections(RawImage& image, const std::vector<Detection>& detections,
                                  const std::vector<std::string>& class_names, bool show_score,
                                  int thickness);

}  // namespace yolo
