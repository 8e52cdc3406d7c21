// resize(): resampling bit-identical to the two Python references, OpenCV's
// 8-bit cv::resize(INTER_LINEAR) and Pillow's Image.resize(BICUBIC/BILINEAR).
// Both are integer arithmetic on precomputed weights, so the bytes are the
// same on every architecture, in the baseline and the AVX2 build of the row
// loops, and however many threads share the rows.
//
// Layout of this file: the OpenCV method (weights, the exact-halving case,
// horizontal then vertical rows), the Pillow method (weights, horizontal pass
// into an 8-bit intermediate, vertical pass, alpha premultiplication), then
// the public entry point.
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <stdexcept>
#include <string>
#include <vector>

#include "cpu.hpp"
#include "image_io.hpp"
#include "parallel.hpp"
#include "pixels.hpp"
#include "threads.hpp"

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

#if defined(__x86_64__) || defined(__i386__)
#define VEMOPROC_WIDE_TARGET __attribute__((target("avx2")))
#define VEMOPROC_HAS_WIDE 1
#else
#define VEMOPROC_HAS_WIDE 0
#endif

namespace vemoproc {

namespace {

[[noreturn]] void refuse(const std::string& why) { throw std::runtime_error("resize(): " + why); }

inline uint8_t clip8(int32_t v) { return static_cast<uint8_t>(v < 0 ? 0 : (v > 255 ? 255 : v)); }

// Source pixels (any of 1, 3 or 4 channels) and a tightly packed destination.
struct Planes {
  const uint8_t* src;
  int src_w, src_h;
  size_t src_stride;
  uint8_t* dst;
  int dst_w, dst_h;
  size_t dst_stride;
  int channels;
};

// Input plus output pixels below which a resize stays on one thread.
constexpr int64_t kMinPixelsToSplit = int64_t{1} << 18;

// Calls fn(first, last) for consecutive bands of [0, rows) on the opt-in
// threads (one band, inline, for small images). Every row's bytes depend on
// that row alone, so the split never changes the result.
template <class Fn>
void for_row_bands(int rows, int64_t pixels, const Fn& fn) {
  const int threads = pixels >= kMinPixelsToSplit ? num_threads() : 1;
  const int bands = std::max(1, std::min(threads, rows));
  if (bands == 1) return fn(0, rows);
  detail::parallel_for(static_cast<size_t>(bands), [&](size_t i) {
    const int64_t first = int64_t{rows} * static_cast<int64_t>(i) / bands;
    const int64_t last = int64_t{rows} * static_cast<int64_t>(i + 1) / bands;
    fn(static_cast<int>(first), static_cast<int>(last));
  });
}

// The row loops below exist twice: the portable build and, on x86-64, the
// same source compiled for AVX2 (chosen at run time). Integer arithmetic
// only, so both give the same bytes.
#define VEMOPROC_ROW_LOOP inline __attribute__((always_inline))

// ---------------------------------------------------------------------------
// OpenCV INTER_LINEAR (8-bit)
// ---------------------------------------------------------------------------

// Per destination column (or row): the two source indices and their 11-bit
// weights (sum 2048).
struct LinearAxis {
  std::vector<int32_t> i0, i1;
  std::vector<int16_t> w0, w1;
  std::vector<int32_t> pair;  // w0 in the low 16 bits, w1 in the high 16 bits
};

// OpenCV's coefficients: scale = 1 / (dst / src) in double, the source
// position rounded to float, weights rounded half to even. Columns clamp the
// position into the image (weights 2048 / 0); rows keep the unclamped weight
// and clip the two row indices instead.
LinearAxis linear_axis(int src, int dst, bool clamp_position) {
  const double scale = 1.0 / (static_cast<double>(dst) / src);
  LinearAxis a;
  a.i0.resize(dst);
  a.i1.resize(dst);
  a.w0.resize(dst);
  a.w1.resize(dst);
  a.pair.resize(dst);
  for (int d = 0; d < dst; ++d) {
    float f = static_cast<float>((d + 0.5) * scale - 0.5);
    int s = static_cast<int>(std::floor(f));
    f -= static_cast<float>(s);
    if (clamp_position) {
      if (s < 0) f = 0.f, s = 0;
      if (s >= src - 1) f = 0.f, s = src - 1;
    }
    a.i0[d] = std::clamp(s, 0, src - 1);
    a.i1[d] = std::clamp(s + 1, 0, src - 1);
    a.w0[d] = static_cast<int16_t>(std::nearbyint((1.f - f) * 2048.f));
    a.w1[d] = static_cast<int16_t>(std::nearbyint(f * 2048.f));
    a.pair[d] = static_cast<int32_t>(static_cast<uint32_t>(static_cast<uint16_t>(a.w0[d])) |
                                     (static_cast<uint32_t>(static_cast<uint16_t>(a.w1[d])) << 16));
  }
  return a;
}

// R source rows (1 or 2, sharing the weights) resampled horizontally, kept
// as (sum >> 4) in 16 bits: the form OpenCV's vertical step reads. Each
// buffer t[r] holds one slot more than the row (the vector loop stores four
// samples a pixel).
template <int Cn, int R>
VEMOPROC_ROW_LOOP void linear_row(const uint8_t* const* s, int sw, const LinearAxis& ax, int dw,
                                  int16_t* const* t) {
  const int32_t* i0 = ax.i0.data();
  const int32_t* i1 = ax.i1.data();
  const int16_t* w0 = ax.w0.data();
  const int16_t* w1 = ax.w1.data();
  int dx = 0;
#if defined(__SSE2__)
  if (Cn >= 3) {
    // One pixel a step: both source pixels widened to 16 bits and
    // interleaved, so one multiply-add gives p0 * w0 + p1 * w1 per channel.
    // Four bytes are read per source pixel: pixels whose fourth byte lies
    // past the row are left to the scalar loop (the indices only grow).
    const __m128i zero = _mm_setzero_si128();
    const int32_t last_read = sw * Cn - 4;
    for (; dx < dw && i1[dx] * Cn <= last_read; ++dx) {
      const __m128i w = _mm_set1_epi32(ax.pair[dx]);
      const int32_t o0 = i0[dx] * Cn, o1 = i1[dx] * Cn;
      for (int r = 0; r < R; ++r) {
        uint32_t b0, b1;
        std::memcpy(&b0, s[r] + o0, 4);
        std::memcpy(&b1, s[r] + o1, 4);
        const __m128i p0 = _mm_unpacklo_epi8(_mm_cvtsi32_si128(static_cast<int>(b0)), zero);
        const __m128i p1 = _mm_unpacklo_epi8(_mm_cvtsi32_si128(static_cast<int>(b1)), zero);
        const __m128i sum = _mm_srai_epi32(_mm_madd_epi16(_mm_unpacklo_epi16(p0, p1), w), 4);
        _mm_storel_epi64(reinterpret_cast<__m128i*>(t[r] + dx * Cn), _mm_packs_epi32(sum, sum));
      }
    }
  }
#endif
  (void)sw;
  for (; dx < dw; ++dx)
    for (int r = 0; r < R; ++r) {
      const uint8_t* p0 = s[r] + i0[dx] * Cn;
      const uint8_t* p1 = s[r] + i1[dx] * Cn;
      for (int c = 0; c < Cn; ++c)
        t[r][dx * Cn + c] = static_cast<int16_t>((p0[c] * w0[dx] + p1[c] * w1[dx]) >> 4);
    }
}

// dst = (((b0 * t0) >> 16) + ((b1 * t1) >> 16) + 2) >> 2, saturated.
VEMOPROC_ROW_LOOP void linear_blend(const int16_t* t0, const int16_t* t1, int b0, int b1, int n,
                                    uint8_t* dst) {
  const int16_t c0 = static_cast<int16_t>(b0);
  const int16_t c1 = static_cast<int16_t>(b1);
  for (int x = 0; x < n; ++x) {
    const int32_t v = ((c0 * t0[x]) >> 16) + ((c1 * t1[x]) >> 16);
    dst[x] = clip8((v + 2) >> 2);
  }
}

template <int Cn>
VEMOPROC_ROW_LOOP void linear_band(const Planes& p, const LinearAxis& xs, const LinearAxis& ys,
                                   int first, int last) {
  const int n = p.dst_w * Cn;
  // The horizontal rows of the two source rows last used, by source index.
  std::vector<int16_t> buffers[2] = {std::vector<int16_t>(n + 1), std::vector<int16_t>(n + 1)};
  int16_t* rows[2] = {buffers[0].data(), buffers[1].data()};
  int held[2] = {-1, -1};
  const auto src = [&](int sy) { return p.src + static_cast<size_t>(sy) * p.src_stride; };
  for (int dy = first; dy < last; ++dy) {
    const int y0 = ys.i0[dy];
    const int y1 = ys.i1[dy];
    // Row indices only grow, so a row no longer needed is the smaller one.
    if (held[0] != y0 && held[1] != y0 && held[0] != y1 && held[1] != y1 && y0 != y1) {
      const uint8_t* s[2] = {src(y0), src(y1)};
      linear_row<Cn, 2>(s, p.src_w, xs, p.dst_w, rows);
      held[0] = y0;
      held[1] = y1;
    } else {
      for (int y : {y0, y1}) {
        if (held[0] == y || held[1] == y) continue;
        const int k = held[0] == y0 ? 1 : (held[1] == y0 ? 0 : (held[0] < held[1] ? 0 : 1));
        const uint8_t* s[1] = {src(y)};
        linear_row<Cn, 1>(s, p.src_w, xs, p.dst_w, &rows[k]);
        held[k] = y;
      }
    }
    const int16_t* t0 = rows[held[0] == y0 ? 0 : 1];
    const int16_t* t1 = rows[held[0] == y1 ? 0 : 1];
    linear_blend(t0, t1, ys.w0[dy], ys.w1[dy], n, p.dst + static_cast<size_t>(dy) * p.dst_stride);
  }
}

// OpenCV routes an exact halving of both sides through its area filter:
// each destination sample is the rounded mean of a 2 x 2 block.
template <int Cn>
VEMOPROC_ROW_LOOP void halve_band(const Planes& p, int first, int last) {
  // Three straight passes the compiler vectorises: the two rows summed, then
  // every sample with its right-hand neighbour pixel (also at the odd pixels,
  // whose results are dropped), then the even pixels packed into the row.
  const int n = 2 * p.dst_w * Cn;
  std::vector<uint16_t> rows(n);
  std::vector<uint8_t> means(n + 4);
  for (int dy = first; dy < last; ++dy) {
    const uint8_t* r0 = p.src + static_cast<size_t>(2 * dy) * p.src_stride;
    const uint8_t* r1 = r0 + p.src_stride;
    uint16_t* v = rows.data();
    for (int j = 0; j < n; ++j) v[j] = static_cast<uint16_t>(r0[j] + r1[j]);
    uint8_t* m = means.data();
    for (int j = 0; j < n - Cn; ++j) m[j] = static_cast<uint8_t>((v[j] + v[j + Cn] + 2) >> 2);
    uint8_t* d = p.dst + static_cast<size_t>(dy) * p.dst_stride;
    if (Cn == 1) {
      for (int dx = 0; dx < p.dst_w; ++dx) d[dx] = m[2 * dx];
    } else {
      // Four bytes a pixel: a three-byte pixel's fourth byte is overwritten
      // by the next pixel; the last pixel is copied exactly.
      int dx = 0;
      for (; dx + 1 < p.dst_w; ++dx) std::memcpy(d + dx * Cn, m + 2 * dx * Cn, 4);
      std::memcpy(d + dx * Cn, m + 2 * dx * Cn, Cn);
    }
  }
}

// ---------------------------------------------------------------------------
// Pillow BICUBIC / BILINEAR (8-bit)
// ---------------------------------------------------------------------------

constexpr int kPillowBits = 22;  // 32 - 8 - 2: fixed-point precision of the weights

double bicubic_filter(double x) {
  constexpr double a = -0.5;
  if (x < 0.0) x = -x;
  if (x < 1.0) return ((a + 2.0) * x - (a + 3.0)) * x * x + 1;
  if (x < 2.0) return (((x - 5) * x + 8) * x - 4) * a;
  return 0.0;
}

double bilinear_filter(double x) {
  if (x < 0.0) x = -x;
  if (x < 1.0) return 1.0 - x;
  return 0.0;
}

// Per output index: the first source index, the number of taps and their
// fixed-point weights (ksize slots each, zero past the taps).
struct PillowAxis {
  int ksize = 0;
  std::vector<int32_t> first, count, k;
};

// Pillow's coefficients in double: the filter widened by the reduction
// factor, normalised to sum 1, then k = (int)(+-0.5 + w * 2^22).
PillowAxis pillow_axis(int in, int out, bool bicubic) {
  const double scale = static_cast<double>(in) / out;
  const double filterscale = std::max(scale, 1.0);
  const double support = (bicubic ? 2.0 : 1.0) * filterscale;
  PillowAxis a;
  a.ksize = static_cast<int>(std::ceil(support)) * 2 + 1;
  a.first.resize(out);
  a.count.resize(out);
  a.k.assign(static_cast<size_t>(out) * a.ksize, 0);
  std::vector<double> w(a.ksize);
  const double ss = 1.0 / filterscale;
  for (int xx = 0; xx < out; ++xx) {
    const double center = (xx + 0.5) * scale;
    const int xmin = std::max(static_cast<int>(center - support + 0.5), 0);
    const int xmax = std::min(static_cast<int>(center + support + 0.5), in) - xmin;
    double ww = 0.0;
    for (int x = 0; x < xmax; ++x) {
      const double t = (x + xmin - center + 0.5) * ss;
      w[x] = bicubic ? bicubic_filter(t) : bilinear_filter(t);
      ww += w[x];
    }
    int32_t* k = &a.k[static_cast<size_t>(xx) * a.ksize];
    for (int x = 0; x < xmax; ++x) {
      const double v = ww != 0.0 ? w[x] / ww : w[x];
      k[x] = static_cast<int32_t>(v < 0 ? -0.5 + v * (1 << kPillowBits)
                                        : 0.5 + v * (1 << kPillowBits));
    }
    a.first[xx] = xmin;
    a.count[xx] = xmax;
  }
  return a;
}

inline uint8_t pillow_clip(int32_t acc) { return clip8(acc >> kPillowBits); }

// Rows gathered per step of the horizontal pass: the block is transposed so
// that one weight multiplies kBlockRows * Cn neighbouring samples at once.
constexpr int kBlockRows = 8;

// Horizontal pass over source rows [first, last) into out (rows counted from
// `first`, stride out_stride).
template <int Cn>
VEMOPROC_ROW_LOOP void pillow_horizontal(const uint8_t* src, size_t stride, int in_w,
                                         const PillowAxis& ax, int out_w, int first, int last,
                                         uint8_t* out, size_t out_stride) {
  constexpr int L = kBlockRows * Cn;
  std::vector<int32_t> cols(static_cast<size_t>(in_w) * L);
  for (int r = first; r < last; r += kBlockRows) {
    const int n = std::min(kBlockRows, last - r);
    // cols[x][i][c] = sample c of pixel x in row r + i (the last row repeats
    // in a short block; its sums are never stored).
    for (int i = 0; i < kBlockRows; ++i) {
      const uint8_t* s = src + static_cast<size_t>(r + std::min(i, n - 1)) * stride;
      int32_t* c = cols.data() + i * Cn;
      for (int x = 0; x < in_w; ++x, s += Cn, c += L)
        for (int ch = 0; ch < Cn; ++ch) c[ch] = s[ch];
    }
    for (int xx = 0; xx < out_w; ++xx) {
      int32_t acc[L];
      for (int j = 0; j < L; ++j) acc[j] = 1 << (kPillowBits - 1);
      const int32_t* k = &ax.k[static_cast<size_t>(xx) * ax.ksize];
      const int32_t* s = cols.data() + static_cast<size_t>(ax.first[xx]) * L;
      for (int t = 0, taps = ax.count[xx]; t < taps; ++t, s += L) {
        const int32_t kt = k[t];
        for (int j = 0; j < L; ++j) acc[j] += s[j] * kt;
      }
      for (int i = 0; i < n; ++i) {
        uint8_t* d = out + static_cast<size_t>(r - first + i) * out_stride + xx * Cn;
        for (int ch = 0; ch < Cn; ++ch) d[ch] = pillow_clip(acc[i * Cn + ch]);
      }
    }
  }
}

// Vertical pass for output rows [first, last); source rows are those of the
// axis (counted from the intermediate's first row).
VEMOPROC_ROW_LOOP void pillow_vertical(const uint8_t* src, size_t stride, const PillowAxis& ax,
                                       int n, int first, int last, uint8_t* out,
                                       size_t out_stride) {
  std::vector<int32_t> acc(n);
  for (int yy = first; yy < last; ++yy) {
    std::fill(acc.begin(), acc.end(), 1 << (kPillowBits - 1));
    const int32_t* k = &ax.k[static_cast<size_t>(yy) * ax.ksize];
    const uint8_t* s = src + static_cast<size_t>(ax.first[yy]) * stride;
    for (int t = 0, taps = ax.count[yy]; t < taps; ++t, s += stride) {
      const int32_t kt = k[t];
      int32_t* a = acc.data();
      for (int x = 0; x < n; ++x) a[x] += s[x] * kt;
    }
    uint8_t* d = out + static_cast<size_t>(yy) * out_stride;
    for (int x = 0; x < n; ++x) d[x] = pillow_clip(acc[x]);
  }
}

// Pillow resizes mode RGBA as premultiplied RGBa: v * a / 255 rounded its
// way, and back with 255 * v / a (alpha 0 and 255 unchanged).
void premultiply(const uint8_t* src, int w, int h, size_t stride, uint8_t* out) {
  for (int y = 0; y < h; ++y) {
    const uint8_t* s = src + static_cast<size_t>(y) * stride;
    for (int x = 0; x < w; ++x, s += 4, out += 4) {
      const uint32_t a = s[3];
      for (int c = 0; c < 3; ++c) {
        const uint32_t t = s[c] * a + 128;
        out[c] = static_cast<uint8_t>(((t >> 8) + t) >> 8);
      }
      out[3] = s[3];
    }
  }
}

void unpremultiply(uint8_t* p, size_t pixels) {
  for (size_t i = 0; i < pixels; ++i, p += 4) {
    const int a = p[3];
    if (a == 0 || a == 255) continue;
    for (int c = 0; c < 3; ++c) p[c] = clip8(255 * p[c] / a);
  }
}

// ---------------------------------------------------------------------------
// The two methods over the image, portable and wide builds
// ---------------------------------------------------------------------------

struct LinearPlan {
  bool halve;
  LinearAxis xs, ys;
};

template <int Cn>
VEMOPROC_ROW_LOOP void linear_rows(const Planes& p, const LinearPlan& plan, int first, int last) {
  if (plan.halve) return halve_band<Cn>(p, first, last);
  linear_band<Cn>(p, plan.xs, plan.ys, first, last);
}

template <int Cn>
void linear_rows_portable(const Planes& p, const LinearPlan& plan, int first, int last) {
  linear_rows<Cn>(p, plan, first, last);
}

template <int Cn>
void pillow_h_portable(const uint8_t* src, size_t stride, int in_w, const PillowAxis& ax, int out_w,
                       int first, int last, uint8_t* out, size_t out_stride) {
  pillow_horizontal<Cn>(src, stride, in_w, ax, out_w, first, last, out, out_stride);
}

void pillow_v_portable(const uint8_t* src, size_t stride, const PillowAxis& ax, int n, int first,
                       int last, uint8_t* out, size_t out_stride) {
  pillow_vertical(src, stride, ax, n, first, last, out, out_stride);
}

#if VEMOPROC_HAS_WIDE
template <int Cn>
VEMOPROC_WIDE_TARGET void linear_rows_wide(const Planes& p, const LinearPlan& plan, int first,
                                           int last) {
  linear_rows<Cn>(p, plan, first, last);
}

template <int Cn>
VEMOPROC_WIDE_TARGET void pillow_h_wide(const uint8_t* src, size_t stride, int in_w,
                                        const PillowAxis& ax, int out_w, int first, int last,
                                        uint8_t* out, size_t out_stride) {
  pillow_horizontal<Cn>(src, stride, in_w, ax, out_w, first, last, out, out_stride);
}

VEMOPROC_WIDE_TARGET void pillow_v_wide(const uint8_t* src, size_t stride, const PillowAxis& ax,
                                        int n, int first, int last, uint8_t* out,
                                        size_t out_stride) {
  pillow_vertical(src, stride, ax, n, first, last, out, out_stride);
}
#endif

template <int Cn>
void resize_linear(const Planes& p) {
  LinearPlan plan;
  // OpenCV: an exact 2x reduction of both sides is its area filter.
  plan.halve = p.src_w == 2 * p.dst_w && p.src_h == 2 * p.dst_h;
  if (!plan.halve) {
    plan.xs = linear_axis(p.src_w, p.dst_w, true);
    plan.ys = linear_axis(p.src_h, p.dst_h, false);
  }
  bool wide = false;
#if VEMOPROC_HAS_WIDE
  wide = detail::use_avx2();
#endif
  const int64_t pixels = int64_t{p.src_w} * p.src_h + int64_t{p.dst_w} * p.dst_h;
  for_row_bands(p.dst_h, pixels, [&](int first, int last) {
#if VEMOPROC_HAS_WIDE
    if (wide) return linear_rows_wide<Cn>(p, plan, first, last);
#endif
    linear_rows_portable<Cn>(p, plan, first, last);
  });
  (void)wide;
}

template <int Cn>
void resize_pillow(const Planes& p, bool bicubic) {
  const bool horizontal = p.src_w != p.dst_w;
  const bool vertical = p.src_h != p.dst_h;
  bool wide = false;
#if VEMOPROC_HAS_WIDE
  wide = detail::use_avx2();
#endif
  (void)wide;
  PillowAxis ys;
  int row0 = 0;
  int rows = p.src_h;
  if (vertical) {
    ys = pillow_axis(p.src_h, p.dst_h, bicubic);
    // Only the source rows some output row reads go through the horizontal pass.
    row0 = ys.first[0];
    rows = ys.first[p.dst_h - 1] + ys.count[p.dst_h - 1] - row0;
    for (int32_t& f : ys.first) f -= row0;
  }
  const int64_t pixels = int64_t{p.src_w} * p.src_h + int64_t{p.dst_w} * p.dst_h;
  const uint8_t* src = p.src + static_cast<size_t>(row0) * p.src_stride;
  size_t src_stride = p.src_stride;
  std::vector<uint8_t> middle;
  if (horizontal) {
    const PillowAxis xs = pillow_axis(p.src_w, p.dst_w, bicubic);
    uint8_t* out = p.dst;
    size_t out_stride = p.dst_stride;
    if (vertical) {
      middle.resize(static_cast<size_t>(p.dst_w) * Cn * rows);
      out = middle.data();
      out_stride = static_cast<size_t>(p.dst_w) * Cn;
    }
    for_row_bands((rows + kBlockRows - 1) / kBlockRows, pixels, [&](int b0, int b1) {
      const int first = b0 * kBlockRows;
      const int last = std::min(rows, b1 * kBlockRows);
      uint8_t* o = out + static_cast<size_t>(first) * out_stride;
#if VEMOPROC_HAS_WIDE
      if (wide)
        return pillow_h_wide<Cn>(src, src_stride, p.src_w, xs, p.dst_w, first, last, o, out_stride);
#endif
      pillow_h_portable<Cn>(src, src_stride, p.src_w, xs, p.dst_w, first, last, o, out_stride);
    });
    src = out;
    src_stride = out_stride;
  }
  if (vertical) {
    const int n = p.dst_w * Cn;
    for_row_bands(p.dst_h, pixels, [&](int first, int last) {
#if VEMOPROC_HAS_WIDE
      if (wide) return pillow_v_wide(src, src_stride, ys, n, first, last, p.dst, p.dst_stride);
#endif
      pillow_v_portable(src, src_stride, ys, n, first, last, p.dst, p.dst_stride);
    });
  }
}

template <int Cn>
void resize_channels(const Planes& p, Resample method) {
  if (method == Resample::OpenCVLinear) return resize_linear<Cn>(p);
  resize_pillow<Cn>(p, method == Resample::PillowBicubic);
}

}  // namespace

Image resize(const ImageView& view, int width, int height, Resample method) {
  detail::check_view(view, "resize()");
  if (width < 1 || height < 1) refuse("width and height must be at least 1");
  if (method != Resample::OpenCVLinear && method != Resample::PillowBicubic &&
      method != Resample::PillowBilinear) {
    refuse("method is not a Resample value");
  }
  if (!detail::within_pixel_budget(width, height)) {
    refuse(std::to_string(width) + " x " + std::to_string(height) +
           " pixels exceed the image pixel budget of " + std::to_string(max_image_pixels()));
  }
  const int cn = channels_of(view.format);
  const size_t row = static_cast<size_t>(view.width) * cn;
  const size_t stride = view.stride != 0 ? view.stride : row;
  Image out;
  out.width = width;
  out.height = height;
  out.format = view.format;
  out.rgb.resize(static_cast<size_t>(width) * height * cn);
  const size_t out_row = static_cast<size_t>(width) * cn;
  // Both references copy an image asked for its own size.
  if (width == view.width && height == view.height) {
    for (int y = 0; y < height; ++y)
      std::memcpy(out.rgb.data() + y * out_row, view.data + y * stride, row);
    return out;
  }
  Planes p{view.data, view.width, view.height, stride, out.rgb.data(), width, height, out_row, cn};
  std::vector<uint8_t> premultiplied;
  if (cn == 4 && method != Resample::OpenCVLinear) {
    premultiplied.resize(row * view.height);
    premultiply(view.data, view.width, view.height, stride, premultiplied.data());
    p.src = premultiplied.data();
    p.src_stride = row;
  }
  switch (cn) {
    case 1:
      resize_channels<1>(p, method);
      break;
    case 3:
      resize_channels<3>(p, method);
      break;
    default:
      resize_channels<4>(p, method);
      if (!premultiplied.empty()) unpremultiply(out.rgb.data(), out.rgb.size() / 4);
      break;
  }
  return out;
}

}  // namespace vemoproc
