#pragma once
// Internal: the steps the Python (Hugging Face) image processors share, for
// the MatchPython forms of the vision families: decoding as Pillow does,
// Pillow resampling, and rescale + normalise in their float types.
#include <array>
#include <cstddef>
#include <cstdint>
#include <string>

#include "../pixels/image_io.hpp"

namespace vemoproc::detail {

// A file decoded as the processors' loader does (EXIF applied, RGB).
Image load_image_python(const std::string& path);

// RGB pixels after an optional resize: borrowed from the source when the size
// does not change (Pillow returns a copy then), resampled otherwise.
struct ResizedRgb {
  Image owned;
  const uint8_t* data = nullptr;
  size_t stride = 0;
};
ResizedRgb resize_python(const RgbSource& rgb, int width, int height, Resample method);

// rescale then normalise, per byte value: float(double(v) * scale) (numpy's
// float64 product cast to float32), then (x - mean) / std_dev in float.
std::array<float, 256> python_value_table(double scale, float mean, float std_dev);

// 1 / 255 as Python writes it (a double).
constexpr double kPythonRescale = 1.0 / 255.0;

// Writes a [3, side, side] block from `rows` (RGB, `stride` bytes apart):
// channel c is table[c] of the samples at rows top.., columns left.. The
// window may reach past the image (left or top negative, or the image
// smaller than side): those samples are 0 before the table, as the
// processors' zero padding gives.
void write_normalised_crop(const uint8_t* rows, int width, int height, size_t stride, int left,
                           int top, int side, const std::array<std::array<float, 256>, 3>& table,
                           float* out);

}  // namespace vemoproc::detail
