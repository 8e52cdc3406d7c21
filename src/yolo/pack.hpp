#pragma once
// Interleaved 8-bit RGB to planar float in [0, 1], the last step of detection
// preprocessing. Kept in its own header so the benchmarks can time it alone.
#include <array>
#include <cstddef>
#include <cstdint>

#include "../pixels/cpu.hpp"

#if defined(__x86_64__) || defined(__i386__)
#include <immintrin.h>
#endif

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

#if defined(__x86_64__) || defined(__i386__)
// Sixteen pixels per step: three byte shuffles gather each channel, then the
// bytes are widened to float and divided by 255.0f eight lanes at a time. A
// vector division rounds exactly like the scalar one, so results are
// bit-identical to the table. Chosen at run time on processors with AVX2.
__attribute__((target("avx2"))) inline __m128i gather_avx2(__m128i v0, __m128i v1, __m128i v2,
                                                           __m128i m0, __m128i m1, __m128i m2) {
  return _mm_or_si128(_mm_or_si128(_mm_shuffle_epi8(v0, m0), _mm_shuffle_epi8(v1, m1)),
                      _mm_shuffle_epi8(v2, m2));
}

// Sixteen bytes to sixteen floats, each divided by 255.0f.
__attribute__((target("avx2"))) inline void store16_avx2(__m128i bytes, float* dst) {
  const __m256 d255 = _mm256_set1_ps(255.0f);
  _mm256_storeu_ps(dst, _mm256_div_ps(_mm256_cvtepi32_ps(_mm256_cvtepu8_epi32(bytes)), d255));
  _mm256_storeu_ps(
      dst + 8,
      _mm256_div_ps(_mm256_cvtepi32_ps(_mm256_cvtepu8_epi32(_mm_srli_si128(bytes, 8))), d255));
}

__attribute__((target("avx2"))) inline size_t pack_planar_avx2(const uint8_t* rgb, size_t pixels,
                                                               float* r, float* g, float* b) {
  const __m128i pick_r0 = _mm_setr_epi8(0, 3, 6, 9, 12, 15, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1);
  const __m128i pick_r1 =
      _mm_setr_epi8(-1, -1, -1, -1, -1, -1, 2, 5, 8, 11, 14, -1, -1, -1, -1, -1);
  const __m128i pick_r2 =
      _mm_setr_epi8(-1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, 1, 4, 7, 10, 13);
  const __m128i pick_g0 =
      _mm_setr_epi8(1, 4, 7, 10, 13, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1);
  const __m128i pick_g1 = _mm_setr_epi8(-1, -1, -1, -1, -1, 0, 3, 6, 9, 12, 15, -1, -1, -1, -1, -1);
  const __m128i pick_g2 =
      _mm_setr_epi8(-1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, 2, 5, 8, 11, 14);
  const __m128i pick_b0 =
      _mm_setr_epi8(2, 5, 8, 11, 14, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1);
  const __m128i pick_b1 =
      _mm_setr_epi8(-1, -1, -1, -1, -1, 1, 4, 7, 10, 13, -1, -1, -1, -1, -1, -1);
  const __m128i pick_b2 = _mm_setr_epi8(-1, -1, -1, -1, -1, -1, -1, -1, -1, -1, 0, 3, 6, 9, 12, 15);
  size_t i = 0;
  for (; i + 16 <= pixels; i += 16) {
    const uint8_t* p = rgb + 3 * i;
    const __m128i v0 = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p));
    const __m128i v1 = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p + 16));
    const __m128i v2 = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p + 32));
    store16_avx2(gather_avx2(v0, v1, v2, pick_r0, pick_r1, pick_r2), r + i);
    store16_avx2(gather_avx2(v0, v1, v2, pick_g0, pick_g1, pick_g2), g + i);
    store16_avx2(gather_avx2(v0, v1, v2, pick_b0, pick_b1, pick_b2), b + i);
  }
  return i;
}
#endif

// Writes `pixels` RGB samples from `rgb` into three planes: red to r, green to
// g, blue to b (each `pixels` floats long).
inline void pack_planar_row(const uint8_t* rgb, size_t pixels, float* r, float* g, float* b) {
  size_t i = 0;
#if defined(__x86_64__) || defined(__i386__)
  // The shared switch, so that tests can force the portable loop below.
  if (vemoproc::detail::use_avx2()) i = pack_planar_avx2(rgb, pixels, r, g, b);
#endif
  const std::array<float, 256>& lut = unit_scale_table();
  for (; i < pixels; ++i) {
    r[i] = lut[rgb[3 * i]];
    g[i] = lut[rgb[3 * i + 1]];
    b[i] = lut[rgb[3 * i + 2]];
  }
}

// Writes `pixels` RGB samples from `rgb` into three consecutive planes at `dst`
// (red plane, then green, then blue, each `pixels` floats long).
inline void pack_planar(const uint8_t* rgb, size_t pixels, float* dst) {
  pack_planar_row(rgb, pixels, dst, dst + pixels, dst + 2 * pixels);
}

}  // namespace yolo::internal
