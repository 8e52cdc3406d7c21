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
// fewer than 6 columns.
VEMOPROC_API std::vector<Detection> postprocess(const xt::xtensor<float, 2>& predictions,
                                                const std::array<size_t, 2>& input_shape,
                                                const std::array<size_t, 2>& original_shape,
                                                float conf_threshold, float iou_threshold,
                                                size_t max_det);

// Paints each detection into `image` in place: a class-coloured outline
// `thickness` pixels wide, a label bar above the box and the label (class name,
// or "cls_<id>" when the id has no name, plus " %.2f" of the score when
// show_score) in white. Coordinates are clamped to the image; NaN coordinates
// count as 0 and out-of-range ones saturate. A negative class id picks its
// colour by wrapping modulo 20 and is labelled "cls_<id>". Throws
// std::runtime_error when `image.data` is smaller than width * height * 3.
VEMOPROC_API void draw_detections(RawImage& image, const std::vector<Detection>& detections,
                                  const std::vector<std::string>& class_names, bool show_score,
                                  int thickness);

}  // namespace yolo
