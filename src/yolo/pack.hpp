#pragma once
// Interleaved 8-bit RGB to planar float in [0, 1], the last step of detection
// preprocessing. Kept in its own header so the benchmarks can time it alone.
#include <array>
#include <cstddef>
#include <cstdint>

namespace yolo::internal {

// value / 255.0f for every byte value: a true division, tabulated once, so each
// element is bit-identical to float(sample) / 255.0f.
inline const std::array<float, 256>& unit_scale_table() {
  static const std::array<float, 256> table = [] {
    std::array<float, 256> t{};
    for (int v = 0; v < 256; ++v) t[static_cast<size_t>(v)] = static_cast<float>(v) / 255.0f;
    return t;
  }();
  return table;
}

// Writes `pixels` RGB samples from `rgb` into three consecutive planes at `dst`
// (red plane, then green, then blue, each `pixels` floats long).
inline void pack_planar(const uint8_t* rgb, size_t pixels, float* dst) {
  const std::array<float, 256>& lut = unit_scale_table();
  float* r = dst;
  float* g = dst + pixels;
  float* b = dst + 2 * pixels;
  for (size_t i = 0; i < pixels; ++i) {
    r[i] = lut[rgb[3 * i]];
    g[i] = lut[rgb[3 * i + 1]];
    b[i] = lut[rgb[3 * i + 2]];
  }
}

}  // namespace yolo::internal
