#pragma once
// Images the way apps hold them: pixel buffers in several layouts, camera
// frames in YUV 4:2:0, and encoded files already in memory. Every image family
// accepts these; this header holds the shared vocabulary and conversions.
#include <cstddef>
#include <cstdint>
#include <vector>

#include "vemoproc_export.hpp"

namespace vemoproc {

enum class PixelFormat { RGB, BGR, RGBA, BGRA, GRAY };

// Samples per pixel of a format: 3, 3, 4, 4, 1.
VEMOPROC_API int channels_of(PixelFormat format);

// A non-owning view of 8-bit samples, rows top first. The caller's buffer must
// hold height rows of `stride` bytes (the last one at least width * channels).
struct ImageView {
  const uint8_t* data;
  int width;
  int height;
  size_t stride;  // bytes from one row to the next; 0 = width * channels
  PixelFormat format;
};

enum class YuvLayout { NV12, NV21, I420 };
// Video: BT.601 limited range (Y 16..235), the usual camera and video default.
// Full: BT.601 full range (Y 0..255), the JPEG convention.
enum class YuvRange { Video, Full };

// A non-owning 4:2:0 frame. Chroma planes hold ceil(width / 2) x
// ceil(height / 2) samples (times 2 bytes per sample when interleaved).
struct YuvView {
  const uint8_t* y;
  size_t y_stride;
  const uint8_t* u;  // NV12/NV21: the interleaved chroma plane; I420: the U plane
  size_t u_stride;
  const uint8_t* v;  // I420: the V plane; unused otherwise
  size_t v_stride;
  int width;
  int height;
  YuvLayout layout;
  YuvRange range;
};

// An owning, tightly packed 8-bit RGB image: the library's image convention.
struct VEMOPROC_API Image {
  int width = 0;
  int height = 0;
  std::vector<uint8_t> rgb;  // width * height * 3 bytes

  ImageView view() const;
};

enum class Rotation { None, Clockwise90, Rotate180, Clockwise270 };

// Decodes an encoded image (any format stb_image reads) from memory into RGB:
// exactly the pixels the path loaders give for a file with these bytes. With
// apply_exif_orientation, a JPEG's EXIF orientation tag (1-8) is applied so the
// image comes back upright; a missing or malformed tag counts as 1.
// Throws std::runtime_error "Failed to decode image bytes: REASON", also for
// an image of more than max_image_pixels() pixels (refused from its header,
// before any pixel memory is allocated).
VEMOPROC_API Image decode_image(const uint8_t* bytes, size_t size,
                                bool apply_exif_orientation = false);

// Converts a view to tightly packed RGB, then turns it by `rotation`:
// BGR/BGRA swap to RGB, alpha is dropped (not premultiplied), GRAY is copied
// to R, G and B. Bytes between a row's end and the stride are never read.
// Throws std::runtime_error naming the argument for a null buffer, a negative
// size, a zero-area image, a stride shorter than a row, or one so long that
// the rows would run past the end of the address space ("... is too large").
VEMOPROC_API Image to_rgb(const ImageView& image, Rotation rotation = Rotation::None);

// Converts a 4:2:0 frame to RGB (BT.601 integer arithmetic: Video range is
// bit-identical to OpenCV's COLOR_YUV2RGB_NV12/_NV21/_I420), then turns it.
// Pixel (x, y) takes the chroma sample (x / 2, y / 2). Odd sizes work.
// Throws std::runtime_error naming the argument for a null plane, a negative
// or zero-area size, a stride shorter than its plane's row, or one so long
// that the plane's rows would run past the end of the address space.
VEMOPROC_API Image to_rgb(const YuvView& frame, Rotation rotation = Rotation::None);

// The decoding budget: every decoder entry point (path or memory) refuses an
// image of more pixels than this before allocating its pixels, and every
// intermediate image a family allocates (resize targets included) is held to
// it. Process-wide and thread-safe; default 178956970 pixels. Raising it is
// the caller's explicit decision.
VEMOPROC_API void set_max_image_pixels(uint64_t pixels);
VEMOPROC_API uint64_t max_image_pixels();

}  // namespace vemoproc
