// Zentil input, top to bottom: decode -> stretch to size x size -> normalise
// to [-1, 1] into a [1, 3, size, size] tensor.
#include "zentil.hpp"

#include <array>
#include <cstdint>
#include <memory>
#include <stdexcept>
#include <vector>

#include <stb_image.h>
#include <stb_image_resize2.h>

#include "../stb_rgb.hpp"

namespace zentil {

namespace {

using StbiPixels = std::unique_ptr<stbi_uc, decltype(&stbi_image_free)>;

// 1/255 in single precision (bit pattern 0x3B808081); multiplying by it is
// not bit-identical to dividing by 255, and the multiplication is the rule.
constexpr float kInv255 = 0x1.010102p-8f;

// Stretches the whole image (no aspect preservation) with Catmull-Rom in both
// directions and the default clamped edges. Output rows are `stride` bytes, a
// multiple of 4: the resampler stores four bytes at a time as one int.
bool stretch(const uint8_t* in, int in_w, int in_h, uint8_t* out, int side, size_t stride) {
  STBIR_RESIZE resize;
  stbir_resize_init(&resize, in, in_w, in_h, 0, out, side, side, static_cast<int>(stride),
                    STBIR_RGB, STBIR_TYPE_UINT8);
  stbir_set_filters(&resize, STBIR_FILTER_CATMULLROM, STBIR_FILTER_CATMULLROM);
  return stbir_resize_extended(&resize) != 0;
}

}  // namespace

ZentilPreprocessor::ZentilPreprocessor(int size)
    : size(size), mean{0.5f, 0.5f, 0.5f}, std{0.5f, 0.5f, 0.5f} {}

xt::xarray<float> ZentilPreprocessor::process(const std::string& image_path) {
  if (size < 0) throw std::runtime_error("ZentilPreprocessor: size must not be negative");
  // The decoder's own side limit; far larger sides overflow the resampler.
  if (size > (1 << 24))
    throw std::runtime_error("ZentilPreprocessor: size must not exceed 16777216");

  int width = 0;
  int height = 0;
  int channels_in_file = 0;
  StbiPixels pixels(vemoproc_load_rgb(image_path.c_str(), &width, &height, &channels_in_file),
                    &stbi_image_free);
  if (!pixels) throw std::runtime_error("Failed to load image: " + image_path);

  const size_t side = static_cast<size_t>(size);
  auto out = xt::xarray<float>::from_shape({1, 3, side, side});
  // The resampler refuses an empty output; size 0 simply gives an empty tensor.
  if (side == 0) return out;

  const size_t stride = (side * 3u + 3u) & ~size_t{3};
  std::vector<uint8_t> resized(stride * side);
  if (!stretch(pixels.get(), width, height, resized.data(), size, stride)) {
    throw std::runtime_error("Failed to resize image");
  }
  pixels.reset();

  // Per byte value: ((float)v * k - mean) / std, evaluated once per channel.
  float* dst = out.data();
  for (size_t c = 0; c < 3; ++c) {
    std::array<float, 256> table{};
    for (int v = 0; v < 256; ++v) table[v] = (static_cast<float>(v) * kInv255 - mean[c]) / std[c];
    for (size_t y = 0; y < side; ++y) {
      const uint8_t* src = resized.data() + y * stride + c;
      for (size_t x = 0; x < side; ++x) *dst++ = table[src[3 * x]];
    }
  }
  return out;
}

}  // namespace zentil
