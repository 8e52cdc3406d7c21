#pragma once
// Images the way apps hold them: pixel buffers in several layouts, camera
// frames in YUV 4:2:0, and encoded files already in memory. Every image family
// accepts these; this header holds the shared vocabulary and conversions.
#include <cstddef>
#include <cstdint>
#include <string>
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

// An owning, tightly packed 8-bit image: RGB by default, the library's image
// convention. `rgb` holds width * height * channels_of(format) bytes (three
// per pixel for RGB); resize() returns images in its input's format.
struct VEMOPROC_API Image {
  int width = 0;
  int height = 0;
  std::vector<uint8_t> rgb;  // width * height * channels_of(format) bytes
  PixelFormat format = PixelFormat::RGB;

  ImageView view() const;  // a view in `format`
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

enum class Decoder {
  // stb_image, as decode_image() above and the path loaders: no EXIF orientation.
  Stb,
  // The Python references' pixels: a JPEG is decoded by libjpeg-turbo with
  // its defaults (accurate integer IDCT, fancy upsampling) and turned upright
  // by its EXIF orientation, giving exactly what OpenCV's imread gives (as
  // RGB) and what Pillow's ImageOps.exif_transpose(Image.open(p)).convert("RGB")
  // gives. Grey JPEGs are copied to R, G and B; CMYK and YCCK JPEGs are
  // converted as OpenCV does (Adobe's inverted CMYK: R = K - (255 - C) * K / 256).
  // Every other format is read by stb, whose pixels already agree.
  Reference,
};

// Decodes an encoded image from memory into RGB with the chosen decoder
// (Decoder::Stb: exactly decode_image(bytes, size)). Throws
// std::runtime_error "Failed to decode image bytes: REASON", also for an image
// of more than max_image_pixels() pixels (refused from its header, before any
// pixel memory is allocated).
VEMOPROC_API Image decode_image(const uint8_t* bytes, size_t size, Decoder decoder);

// Reads and decodes a file: with Decoder::Stb exactly the pixels of the path
// loaders. Throws std::runtime_error "Failed to load image: PATH" when the file
// cannot be read or decoded (or exceeds the pixel budget).
VEMOPROC_API Image decode_image_file(const std::string& path, Decoder decoder = Decoder::Stb);

enum class Resample {
  // OpenCV's cv::resize(..., INTER_LINEAR) on 8-bit images: 2-tap bilinear
  // in 11-bit fixed point, no antialiasing; an exact halving of both sides is
  // a 2 x 2 box average, as OpenCV does it.
  OpenCVLinear,
  // Pillow's Image.resize(..., BICUBIC / BILINEAR, reducing_gap=None): the
  // filter widens with the reduction (antialiasing), 22-bit fixed point.
  // RGBA and BGRA are premultiplied by alpha around the resampling, as
  // Pillow does for mode RGBA.
  PillowBicubic,
  PillowBilinear,
};

// Resizes an 8-bit view with 1, 3 or 4 channels to width x height, keeping
// its format (channel order included), bit-identical to the chosen
// reference. A size equal to the view's is a copy. The result is held to the
// pixel budget. Throws std::runtime_error "resize(): REASON" naming the
// argument for a bad view, a size below 1 or a method that is not a Resample
// value.
VEMOPROC_API Image resize(const ImageView& image, int width, int height, Resample method);

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

// Which pipeline a family's processing call follows, chosen explicitly by the
// caller where a family offers both (each header says how):
// - Native: the library's own pipeline (stb decoding and resampling), the
//   default everywhere and unchanged;
// - MatchPython: the tensors of the Python pipeline the family's models were
//   trained with, bit for bit (OpenCV-style decoding and letterbox for
//   detection, Pillow-based Hugging Face processors for the vision encoders).
enum class Pipeline { Native, MatchPython };

}  // namespace vemoproc
