// Zentil input, top to bottom: decode -> stretch to size x size -> normalise
// to [-1, 1] into a [1, 3, size, size] tensor.
#include "zentil.hpp"

#include <array>
#include <cstdint>
#include <memory>
#include <stdexcept>
#include <vector>

#include "../pixels/image_io.hpp"

namespace zentil {

namespace {

// 1/255 in single precision (bit pattern 0x3B808081); multiplying by it is
// not bit-identical to dividing by 255, and the multiplication is the rule.
constexpr float kInv255 = 0x1.010102p-8f;

void check_size(int size) {
  if (size < 0) throw std::runtime_error("ZentilPreprocessor: size must not be negative");
  // The decoder's own side limit; far larger sides overflow the resampler.
  if (size > (1 << 24))
    throw std::runtime_error("ZentilPreprocessor: size must not exceed 16777216");
}

// Decoded or borrowed RGB -> stretch to size x size with Catmull-Rom (default
// clamped edges) -> normalise.
xt::xarray<float> preprocess(const ZentilPreprocessor& p, const vemoproc::detail::RgbSource& rgb) {
  const size_t side = static_cast<size_t>(p.size);
  // The stretched image is held to the same pixel budget as decoding, before
  // anything is allocated for it.
  if (!vemoproc::detail::within_pixel_budget(p.size, p.size)) {
    throw std::runtime_error("Failed to resize image");
  }
  auto out = xt::xarray<float>::from_shape({1, 3, side, side});
  // The resampler refuses an empty output; size 0 simply gives an empty tensor.
  if (side == 0) return out;

  // Rows padded to a multiple of 4 bytes: the resampler stores four bytes at
  // a time as one int.
  const size_t stride = (side * 3u + 3u) & ~size_t{3};
  std::vector<uint8_t> resized(stride * side);
  if (!vemoproc::detail::resize_rgb(rgb.data(), rgb.width(), rgb.height(), rgb.stride(),
                                    resized.data(), p.size, p.size, stride,
                                    vemoproc::detail::ResizeFilter::CatmullRom)) {
    throw std::runtime_error("Failed to resize image");
  }

  // Per byte value: ((float)v * k - mean) / std, evaluated once per channel.
  float* dst = out.data();
  for (size_t c = 0; c < 3; ++c) {
    std::array<float, 256> table{};
    for (int v = 0; v < 256; ++v) {
      table[v] = (static_cast<float>(v) * kInv255 - p.mean[c]) / p.std[c];
    }
    for (size_t y = 0; y < side; ++y) {
      const uint8_t* src = resized.data() + y * stride + c;
      for (size_t x = 0; x < side; ++x) *dst++ = table[src[3 * x]];
    }
  }
  return out;
}

}  // namespace

ZentilPreprocessor::ZentilPreprocessor(int size)
    : size(size), mean{0.5f, 0.5f, 0.5f}, std{0.5f, 0.5f, 0.5f} {}

xt::xarray<float> ZentilPreprocessor::process(const std::string& image_path) {
  check_size(size);
  const vemoproc::detail::DecodedRgb decoded = vemoproc::detail::load_rgb_file(image_path);
  if (!decoded) throw std::runtime_error("Failed to load image: " + image_path);
  return preprocess(
      *this, vemoproc::detail::RgbSource(decoded.pixels.get(), decoded.width, decoded.height, 0));
}

xt::xarray<float> ZentilPreprocessor::process(const vemoproc::ImageView& image) {
  check_size(size);
  return preprocess(*this, vemoproc::detail::RgbSource(image));
}

}  // namespace zentil
