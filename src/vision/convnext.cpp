// ConvNeXt input, top to bottom: decode -> shortest-edge resize -> centre crop
// read in place from the resized buffer, normalised into a [3, size, size]
// tensor.
#include "convnext.hpp"

#include <array>
#include <cmath>
#include <cstdint>
#include <limits>
#include <memory>
#include <stdexcept>
#include <vector>

#include "../pixels/image_io.hpp"

namespace convnext {

namespace {

// 1/255 in single precision (bit pattern 0x3B808081). Bytes are scaled by
// multiplying with it, not by dividing by 255: the two differ in the last bit.
constexpr float kInv255 = 0x1.010102p-8f;

// Largest resized side: the decoder's own limit.
constexpr int kMaxSide = 1 << 24;

// Float to int, truncating toward zero; NaN becomes 0 and out-of-range values
// saturate at the int limits instead of being undefined.
int saturating_int(float v) {
  if (std::isnan(v)) return 0;
  if (v >= 2147483648.0f) return std::numeric_limits<int>::max();
  if (v < -2147483648.0f) return std::numeric_limits<int>::min();
  return static_cast<int>(v);
}

// 32-bit product that wraps (two's complement) instead of overflowing.
int wrapping_mul(int a, int b) {
  return static_cast<int>(static_cast<uint32_t>(a) * static_cast<uint32_t>(b));
}

// Every byte value mapped once through ((float)v * k - mean) / std, so the
// per-pixel work is a table read with exactly the scalar formula's result.
std::array<float, 256> normalisation_table(float mean, float std_dev) {
  std::array<float, 256> table{};
  for (int v = 0; v < 256; ++v) table[v] = (static_cast<float>(v) * kInv255 - mean) / std_dev;
  return table;
}

// Bytes per resized row, rounded up to a multiple of 4: the resampler stores
// groups of four bytes as one int, which must not be misaligned.
size_t padded_row_bytes(int width) { return (static_cast<size_t>(width) * 3u + 3u) & ~size_t{3}; }

// Outside these ranges the crop would read past the resized image.
void check_arguments(int size, float crop_pct) {
  if (size < 1) throw std::runtime_error("ConvNextPreprocessor: size must be at least 1");
  if (!(crop_pct > 0.0f && crop_pct <= 1.0f)) {
    throw std::runtime_error("ConvNextPreprocessor: crop_pct must be in (0, 1]");
  }
}

// Decoded or borrowed RGB -> shortest-edge resize -> crop -> normalise.
xt::xarray<float> preprocess(const ConvNextPreprocessor& p,
                             const vemoproc::detail::RgbSource& rgb) {
  const int size = p.size;
  const int width = rgb.width();
  const int height = rgb.height();
  // Shortest edge to size / crop_pct; a tie (square) takes the landscape branch.
  const int short_edge = saturating_int(static_cast<float>(size) / p.crop_pct);
  int new_width = short_edge;
  int new_height = short_edge;
  if (height > width) {
    new_height = saturating_int(static_cast<float>(wrapping_mul(height, short_edge)) /
                                static_cast<float>(width));
  } else {
    new_width = saturating_int(static_cast<float>(wrapping_mul(width, short_edge)) /
                               static_cast<float>(height));
  }
  // Only reachable when size / crop_pct times a side overflows 32 bits, or
  // through the float rounding of a huge size: the crop must lie inside the
  // resized image, whose sides must stay within the decoder's limit (larger
  // ones overflow the resampler's int arithmetic).
  if (new_width < size || new_height < size || new_width > kMaxSide || new_height > kMaxSide) {
    throw std::runtime_error("ConvNextPreprocessor: size / crop_pct is too large for this image");
  }
  // The resized image is held to the same pixel budget as decoding: a tiny
  // file of extreme aspect ratio must not ask for gigabytes here.
  if (!vemoproc::detail::within_pixel_budget(new_width, new_height)) {
    throw std::runtime_error("Failed to resize image");
  }

  const size_t stride = padded_row_bytes(new_width);
  std::vector<uint8_t> resized(stride * static_cast<size_t>(new_height));
  if (!vemoproc::detail::resize_rgb(rgb.data(), width, height, rgb.stride(), resized.data(),
                                    new_width, new_height, stride,
                                    vemoproc::detail::ResizeFilter::CatmullRom)) {
    throw std::runtime_error("Failed to resize image");
  }

  // An odd margin leaves the extra pixel on the right and at the bottom.
  const int left = (new_width - size) / 2;
  const int top = (new_height - size) / 2;
  const size_t side = static_cast<size_t>(size);
  auto out = xt::xarray<float>::from_shape({3, side, side});
  float* dst = out.data();
  for (size_t c = 0; c < 3; ++c) {
    const std::array<float, 256> table = normalisation_table(p.mean[c], p.std[c]);
    for (size_t y = 0; y < side; ++y) {
      const uint8_t* src = resized.data() + (static_cast<size_t>(top) + y) * stride +
                           static_cast<size_t>(left) * 3u + c;
      for (size_t x = 0; x < side; ++x) *dst++ = table[src[3 * x]];
    }
  }
  return out;
}

}  // namespace

ConvNextPreprocessor::ConvNextPreprocessor(int size, float crop_pct)
    : size(size), crop_pct(crop_pct), mean{0.485f, 0.456f, 0.406f}, std{0.229f, 0.224f, 0.225f} {}

xt::xarray<float> ConvNextPreprocessor::process(const std::string& image_path) {
  check_arguments(size, crop_pct);
  const vemoproc::detail::DecodedRgb decoded = vemoproc::detail::load_rgb_file(image_path);
  if (!decoded) throw std::runtime_error("Failed to load image: " + image_path);
  return preprocess(
      *this, vemoproc::detail::RgbSource(decoded.pixels.get(), decoded.width, decoded.height, 0));
}

xt::xarray<float> ConvNextPreprocessor::process(const vemoproc::ImageView& image) {
  check_arguments(size, crop_pct);
  return preprocess(*this, vemoproc::detail::RgbSource(image));
}

}  // namespace convnext
