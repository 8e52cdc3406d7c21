#pragma once
// Internal: what every image family shares — reading files once, decoding
// within the pixel budget, borrowing or converting caller pixels, and the one
// resize entry point. Not installed; families include it, never each other.
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "pixels.hpp"

namespace vemoproc::detail {

// Reads a whole file in one pass (regular files, pipes and FIFOs alike).
// Returns false when it cannot be opened or read.
bool read_file(const std::string& path, std::vector<uint8_t>& bytes);

// Decoder output: tightly packed 8-bit RGB, released by stb's own free.
struct DecodedRgb {
  std::unique_ptr<uint8_t, void (*)(void*)> pixels{nullptr, nullptr};
  int width = 0;
  int height = 0;
  explicit operator bool() const { return pixels != nullptr; }
};

// Decodes encoded bytes as RGB, exactly as stbi_load(..., 3) does for a file
// holding them. Images above max_image_pixels() are refused from their header
// before any pixel memory is allocated. On failure the result is empty and
// `reason` (when given) gets a short description.
DecodedRgb decode_rgb(const uint8_t* bytes, size_t size, std::string* reason = nullptr);

// While alive, the decoder may grow no buffer beyond `bytes` (compressed data
// inflating past what the header declares is refused); decode_rgb sets it
// from the header for every decode. Per thread.
class InflateLimit {
 public:
  explicit InflateLimit(size_t bytes);
  ~InflateLimit();
  InflateLimit(const InflateLimit&) = delete;
  InflateLimit& operator=(const InflateLimit&) = delete;
  bool refused() const;  // whether a growth was refused since construction

 private:
  size_t saved_;
};

// read_file + decode_rgb: the path loaders' one way in. Empty on any failure;
// the caller throws its own message.
DecodedRgb load_rgb_file(const std::string& path);

// The EXIF orientation (1-8) of JPEG bytes; 1 when missing or malformed.
int jpeg_exif_orientation(const uint8_t* bytes, size_t size);

// Turns packed RGB upright for an EXIF orientation (1 or unknown: unchanged).
Image orient(Image image, int orientation);

// True when a width x height image fits the pixel budget (negative sides never do).
bool within_pixel_budget(int64_t width, int64_t height);

// RGB pixels for the resizers: a caller's RGB view is borrowed as it is
// (strided rows, no copy); any other format is converted once, that copy held
// to the pixel budget ("image view: W x H pixels to convert to RGB exceed the
// image pixel budget of N").
class RgbSource {
 public:
  explicit RgbSource(const ImageView& view);  // throws like to_rgb for a bad view
  RgbSource(const uint8_t* rgb, int width, int height, size_t stride);

  const uint8_t* data() const { return data_; }
  int width() const { return width_; }
  int height() const { return height_; }
  size_t stride() const { return stride_; }  // bytes per row, never 0

 private:
  Image owned_;
  const uint8_t* data_ = nullptr;
  int width_ = 0;
  int height_ = 0;
  size_t stride_ = 0;
};

// Throws std::runtime_error naming `what` for a view that cannot be read:
// null data, negative or zero-area size, stride shorter than a row.
void check_view(const ImageView& view, const char* what);

enum class ResizeFilter {
  Default,     // stbir_resize_uint8_linear's choice (clamped edges)
  CatmullRom,  // Catmull-Rom both ways, clamped edges
};

// The library's one resize of 3-channel 8-bit linear RGB. Strides are in
// bytes (0 = tight); output rows should start 4-aligned (the resampler stores
// four bytes at a time). Returns false when the resampler fails. Exactly the
// bytes of stbir_resize_extended with the matching settings, whichever build
// of the resizer runs and however many threads share it. Exported for the
// tests, which hold it to exactly that.
VEMOPROC_API bool resize_rgb(const uint8_t* in, int in_w, int in_h, size_t in_stride, uint8_t* out,
                             int out_w, int out_h, size_t out_stride, ResizeFilter filter);

}  // namespace vemoproc::detail
