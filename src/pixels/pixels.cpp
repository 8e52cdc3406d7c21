// Images the way apps hold them, shared by every image family: files read
// once, decoding from memory within the pixel budget, caller views in five
// pixel formats, 4:2:0 camera frames, quarter-turn rotation and EXIF
// orientation. The one resize entry point lives in resize.cpp.
#include <algorithm>
#include <atomic>
#include <climits>
#include <cstdio>
#include <cstring>
#include <limits>
#include <stdexcept>
#include <string>

#if defined(__x86_64__) || defined(__i386__)
#include <immintrin.h>
#endif

#include <stb_image.h>

#include "cpu.hpp"
#include "image_io.hpp"

namespace vemoproc {

namespace {

// The largest image Pillow decodes without refusing: generous for photos,
// small enough that a forged header cannot take gigabytes.
constexpr uint64_t kDefaultMaxImagePixels = 178956970;

std::atomic<uint64_t> max_pixels{kDefaultMaxImagePixels};

[[noreturn]] void fail(const std::string& what, const char* why) {
  throw std::runtime_error(what + ": " + why);
}

size_t rgb_bytes(int width, int height) {
  return static_cast<size_t>(width) * static_cast<size_t>(height) * 3u;
}

// ---------------------------------------------------------------------------
// Decoding from memory
// ---------------------------------------------------------------------------

// stb takes int lengths; larger buffers are read through callbacks instead.
struct MemoryReader {
  const uint8_t* data;
  size_t size;
  size_t pos;

  static int read(void* user, char* out, int n) {
    auto* r = static_cast<MemoryReader*>(user);
    const size_t take = std::min(static_cast<size_t>(n), r->size - r->pos);
    if (take > 0) std::memcpy(out, r->data + r->pos, take);
    r->pos += take;
    return static_cast<int>(take);
  }
  static void skip(void* user, int n) {
    auto* r = static_cast<MemoryReader*>(user);
    if (n < 0) {
      r->pos -= std::min(r->pos, static_cast<size_t>(-static_cast<int64_t>(n)));
    } else {
      r->pos += std::min(r->size - r->pos, static_cast<size_t>(n));
    }
  }
  static int eof(void* user) {
    auto* r = static_cast<MemoryReader*>(user);
    return r->pos >= r->size;
  }
};

constexpr stbi_io_callbacks kMemoryCallbacks = {&MemoryReader::read, &MemoryReader::skip,
                                                &MemoryReader::eof};

bool fits_int(size_t size) { return size <= static_cast<size_t>(INT_MAX); }

int info(const uint8_t* bytes, size_t size, int* w, int* h, int* comp) {
  if (fits_int(size)) return stbi_info_from_memory(bytes, static_cast<int>(size), w, h, comp);
  MemoryReader reader{bytes, size, 0};
  return stbi_info_from_callbacks(&kMemoryCallbacks, &reader, w, h, comp);
}

stbi_uc* load(const uint8_t* bytes, size_t size, int* w, int* h, int* comp, int channels) {
  if (fits_int(size)) {
    return stbi_load_from_memory(bytes, static_cast<int>(size), w, h, comp, channels);
  }
  MemoryReader reader{bytes, size, 0};
  return stbi_load_from_callbacks(&kMemoryCallbacks, &reader, w, h, comp, channels);
}

// Softimage PIC files start with a magic number and carry "PICT" at byte 88.
bool is_pic(const uint8_t* bytes, size_t size) {
  static const uint8_t magic[4] = {0x53, 0x80, 0xF6, 0x34};
  return size >= 92 && std::memcmp(bytes, magic, 4) == 0 && std::memcmp(bytes + 88, "PICT", 4) == 0;
}

// ---------------------------------------------------------------------------
// EXIF orientation (JPEG APP1 "Exif" segment, tag 0x0112 of the first IFD)
// ---------------------------------------------------------------------------

int exif_orientation(const uint8_t* p, size_t size) {
  if (size < 4 || p[0] != 0xFF || p[1] != 0xD8) return 1;
  size_t pos = 2;
  while (pos + 4 <= size && p[pos] == 0xFF) {
    const uint8_t marker = p[pos + 1];
    if (marker == 0xD9 || marker == 0xDA) break;  // end of image, start of scan
    const size_t length = (size_t{p[pos + 2]} << 8) | p[pos + 3];
    if (length < 2 || pos + 2 + length > size) break;
    const uint8_t* seg = p + pos + 4;
    const size_t seg_len = length - 2;
    if (marker == 0xE1 && seg_len >= 14 && std::memcmp(seg, "Exif\0\0", 6) == 0) {
      const uint8_t* tiff = seg + 6;
      const size_t tiff_len = seg_len - 6;
      const bool little = tiff[0] == 'I' && tiff[1] == 'I';
      if (!little && !(tiff[0] == 'M' && tiff[1] == 'M')) return 1;
      const auto u16 = [&](size_t at) -> uint32_t {
        return little ? tiff[at] | (tiff[at + 1] << 8) : (tiff[at] << 8) | tiff[at + 1];
      };
      const auto u32 = [&](size_t at) -> uint64_t {
        return little ? (uint64_t{u16(at + 2)} << 16) | u16(at)
                      : (uint64_t{u16(at)} << 16) | u16(at + 2);
      };
      if (u16(2) != 42) return 1;
      const uint64_t ifd = u32(4);
      if (ifd + 2 > tiff_len) return 1;
      const uint32_t entries = u16(static_cast<size_t>(ifd));
      for (uint32_t i = 0; i < entries; ++i) {
        const uint64_t entry = ifd + 2 + 12 * uint64_t{i};
        if (entry + 12 > tiff_len) return 1;
        const size_t e = static_cast<size_t>(entry);
        // Tag 0x0112, type SHORT (3), one value stored in the entry itself.
        if (u16(e) == 0x0112) {
          if (u16(e + 2) != 3 || u32(e + 4) != 1) return 1;
          const uint32_t value = u16(e + 8);
          return value >= 1 && value <= 8 ? static_cast<int>(value) : 1;
        }
      }
      return 1;
    }
    pos += 2 + length;
  }
  return 1;
}

// ---------------------------------------------------------------------------
// Geometry: quarter turns and mirrors of packed RGB
// ---------------------------------------------------------------------------

// Output pixel (x, y) of an out_w x out_h result takes input pixel
// (x0 + x * dxx + y * dxy, y0 + x * dyx + y * dyy).
struct Mapping {
  int64_t x0, dxx, dxy, y0, dyx, dyy;
  bool swaps_sides;
};

Image remap(const Image& in, const Mapping& m) {
  Image out;
  out.width = m.swaps_sides ? in.height : in.width;
  out.height = m.swaps_sides ? in.width : in.height;
  out.rgb.resize(in.rgb.size());
  const uint8_t* src = in.rgb.data();
  uint8_t* dst = out.rgb.data();
  const int64_t stride = int64_t{in.width} * 3;
  for (int64_t y = 0; y < out.height; ++y) {
    int64_t sx = m.x0 + y * m.dxy;
    int64_t sy = m.y0 + y * m.dyy;
    for (int64_t x = 0; x < out.width; ++x, sx += m.dxx, sy += m.dyx) {
      std::memcpy(dst, src + sy * stride + sx * 3, 3);
      dst += 3;
    }
  }
  return out;
}

Image rotate(Image image, Rotation rotation) {
  const int64_t w = image.width;
  const int64_t h = image.height;
  switch (rotation) {
    case Rotation::None:
      return image;
    case Rotation::Clockwise90:  // out(x, y) = in(y, h - 1 - x)
      return remap(image, {0, 0, 1, h - 1, -1, 0, true});
    case Rotation::Rotate180:  // out(x, y) = in(w - 1 - x, h - 1 - y)
      return remap(image, {w - 1, -1, 0, h - 1, 0, -1, false});
    case Rotation::Clockwise270:  // out(x, y) = in(w - 1 - y, x)
      return remap(image, {w - 1, 0, -1, 0, 1, 0, true});
  }
  throw std::runtime_error("to_rgb(): rotation is not a Rotation value");
}

// The EXIF orientations: how the stored image must be turned to stand upright.
Image apply_orientation(Image image, int orientation) {
  const int64_t w = image.width;
  const int64_t h = image.height;
  switch (orientation) {
    case 2:  // mirrored left-right
      return remap(image, {w - 1, -1, 0, 0, 0, 1, false});
    case 3:
      return rotate(std::move(image), Rotation::Rotate180);
    case 4:  // mirrored top-bottom
      return remap(image, {0, 1, 0, h - 1, 0, -1, false});
    case 5:  // transposed: out(x, y) = in(y, x)
      return remap(image, {0, 0, 1, 0, 1, 0, true});
    case 6:
      return rotate(std::move(image), Rotation::Clockwise90);
    case 7:  // transversed: out(x, y) = in(w - 1 - y, h - 1 - x)
      return remap(image, {w - 1, 0, -1, h - 1, -1, 0, true});
    case 8:
      return rotate(std::move(image), Rotation::Clockwise270);
    default:
      return image;
  }
}

// One row of `w` pixels of `Ch` bytes (blue first when Swap) to RGB; a fourth
// byte (alpha) is dropped.
template <size_t Ch, bool Swap>
void reorder_row(const uint8_t* src, size_t w, uint8_t* dst) {
  for (size_t x = 0; x < w; ++x, src += Ch, dst += 3) {
    dst[0] = src[Swap ? 2 : 0];
    dst[1] = src[1];
    dst[2] = src[Swap ? 0 : 2];
  }
}

// ---------------------------------------------------------------------------
// YUV 4:2:0 to RGB, BT.601 in 20-bit fixed point
// ---------------------------------------------------------------------------

struct YuvCoefficients {
  int32_t y_scale;  // per (Y - offset)
  int32_t y_offset;
  int32_t rv, gv, gu, bu;
};

constexpr YuvCoefficients kVideoRange = {1220542, 16, 1673527, -852492, -409993, 2116026};
constexpr YuvCoefficients kFullRange = {1 << 20, 0, 1470104, -748826, -360853, 1858077};

inline uint8_t sat(int32_t v) { return static_cast<uint8_t>(v < 0 ? 0 : (v > 255 ? 255 : v)); }

// One output row in 64-pixel blocks: the chroma terms of each block are
// spread to per-pixel arrays, then every channel is a straight-line
// computation the compiler vectorises, and a last pass interleaves.
// Integer arithmetic only, so the AVX2 build of the same body gives the same
// bytes.
inline __attribute__((always_inline)) void yuv_row_body(const uint8_t* yrow, const uint8_t* urow,
                                                        const uint8_t* vrow, size_t step, size_t w,
                                                        const YuvCoefficients& k, uint8_t* dst) {
  constexpr size_t kBlock = 64;
  int32_t rt[kBlock], gt[kBlock], bt[kBlock];
  uint8_t r[kBlock], g[kBlock], b[kBlock];
  for (size_t x0 = 0; x0 < w; x0 += kBlock) {
    const size_t n = std::min(kBlock, w - x0);
    for (size_t i = 0; i < n; i += 2) {
      const size_t c = ((x0 + i) / 2) * step;
      const int32_t u = urow[c] - 128;
      const int32_t v = vrow[c] - 128;
      rt[i] = rt[i + 1] = k.rv * v;
      gt[i] = gt[i + 1] = k.gv * v + k.gu * u;
      bt[i] = bt[i + 1] = k.bu * u;
    }
    for (size_t i = 0; i < n; ++i) {
      const int32_t l = std::max(int32_t{yrow[x0 + i]} - k.y_offset, 0) * k.y_scale + 524288;
      r[i] = sat((l + rt[i]) >> 20);
      g[i] = sat((l + gt[i]) >> 20);
      b[i] = sat((l + bt[i]) >> 20);
    }
    for (size_t i = 0; i < n; ++i, dst += 3) {
      dst[0] = r[i];
      dst[1] = g[i];
      dst[2] = b[i];
    }
  }
}

void yuv_row_portable(const uint8_t* yrow, const uint8_t* urow, const uint8_t* vrow, size_t step,
                      size_t w, const YuvCoefficients& k, uint8_t* dst) {
  yuv_row_body(yrow, urow, vrow, step, w, k, dst);
}

#if defined(__x86_64__) || defined(__i386__)
// Byte shuffles that interleave 16 R, 16 G and 16 B bytes into 48 RGB bytes:
// kInterleave[k][ch] picks channel ch's bytes of output block k (-1: none).
struct InterleaveMasks {
  alignas(16) int8_t m[3][3][16];
  InterleaveMasks() {
    for (int k = 0; k < 3; ++k)
      for (int ch = 0; ch < 3; ++ch)
        for (int j = 0; j < 16; ++j) {
          const int p = 16 * k + j;
          m[k][ch][j] = static_cast<int8_t>(p % 3 == ch ? p / 3 : -1);
        }
  }
};
const InterleaveMasks kInterleave;

// Eight 32-bit lanes of (luma + term) >> 20 for pixels 0-7 and 8-15, packed
// with saturation to 16 bytes in pixel order: exactly sat() of each lane.
__attribute__((target("avx2"))) inline __m128i pack_channel(__m256i l0, __m256i l1, __m256i t0,
                                                            __m256i t1) {
  const __m256i a = _mm256_srai_epi32(_mm256_add_epi32(l0, t0), 20);
  const __m256i b = _mm256_srai_epi32(_mm256_add_epi32(l1, t1), 20);
  const __m256i w = _mm256_permute4x64_epi64(_mm256_packs_epi32(a, b), 0xD8);
  return _mm_packus_epi16(_mm256_castsi256_si128(w), _mm256_extracti128_si256(w, 1));
}

// max(Y - offset, 0) * scale + 1/2 for the low eight bytes of y8.
__attribute__((target("avx2"))) inline __m256i luma_terms(__m128i y8, __m256i offset, __m256i scale,
                                                          __m256i half) {
  const __m256i y =
      _mm256_max_epi32(_mm256_sub_epi32(_mm256_cvtepu8_epi32(y8), offset), _mm256_setzero_si256());
  return _mm256_add_epi32(_mm256_mullo_epi32(y, scale), half);
}

// Sixteen pixels a step from the same integer arithmetic as the portable
// row; the tail (fewer than 16 pixels) goes through the portable row.
__attribute__((target("avx2"))) void yuv_row_avx2(const uint8_t* yrow, const uint8_t* urow,
                                                  const uint8_t* vrow, size_t step, size_t w,
                                                  const YuvCoefficients& k, uint8_t* dst) {
  const __m256i offset = _mm256_set1_epi32(k.y_offset);
  const __m256i scale = _mm256_set1_epi32(k.y_scale);
  const __m256i half = _mm256_set1_epi32(524288);
  const __m256i c128 = _mm256_set1_epi32(128);
  const __m256i rv = _mm256_set1_epi32(k.rv), gv = _mm256_set1_epi32(k.gv);
  const __m256i gu = _mm256_set1_epi32(k.gu), bu = _mm256_set1_epi32(k.bu);
  const __m256i lo_pairs = _mm256_setr_epi32(0, 0, 1, 1, 2, 2, 3, 3);
  const __m256i hi_pairs = _mm256_setr_epi32(4, 4, 5, 5, 6, 6, 7, 7);
  const __m128i evens = _mm_setr_epi8(0, 2, 4, 6, 8, 10, 12, 14, -1, -1, -1, -1, -1, -1, -1, -1);
  const __m128i odds = _mm_setr_epi8(1, 3, 5, 7, 9, 11, 13, 15, -1, -1, -1, -1, -1, -1, -1, -1);
  // Interleaved chroma is loaded from the pair's first byte, never past its row.
  const uint8_t* pairs = std::min(urow, vrow);
  const bool u_first = urow < vrow;
  const auto mask = [](int blk, int ch) {
    return _mm_load_si128(reinterpret_cast<const __m128i*>(kInterleave.m[blk][ch]));
  };
  size_t x = 0;
  for (; x + 16 <= w; x += 16, dst += 48) {
    __m128i u8, v8;
    if (step == 2) {
      const __m128i uv = _mm_loadu_si128(reinterpret_cast<const __m128i*>(pairs + x));
      u8 = _mm_shuffle_epi8(uv, u_first ? evens : odds);
      v8 = _mm_shuffle_epi8(uv, u_first ? odds : evens);
    } else {
      u8 = _mm_loadl_epi64(reinterpret_cast<const __m128i*>(urow + x / 2));
      v8 = _mm_loadl_epi64(reinterpret_cast<const __m128i*>(vrow + x / 2));
    }
    const __m256i u = _mm256_sub_epi32(_mm256_cvtepu8_epi32(u8), c128);
    const __m256i v = _mm256_sub_epi32(_mm256_cvtepu8_epi32(v8), c128);
    const __m256i rt = _mm256_mullo_epi32(rv, v);
    const __m256i gt = _mm256_add_epi32(_mm256_mullo_epi32(gv, v), _mm256_mullo_epi32(gu, u));
    const __m256i bt = _mm256_mullo_epi32(bu, u);
    const __m128i y16 = _mm_loadu_si128(reinterpret_cast<const __m128i*>(yrow + x));
    const __m256i l0 = luma_terms(y16, offset, scale, half);
    const __m256i l1 = luma_terms(_mm_srli_si128(y16, 8), offset, scale, half);
    // Each chroma term serves two neighbouring pixels.
    const __m128i r = pack_channel(l0, l1, _mm256_permutevar8x32_epi32(rt, lo_pairs),
                                   _mm256_permutevar8x32_epi32(rt, hi_pairs));
    const __m128i g = pack_channel(l0, l1, _mm256_permutevar8x32_epi32(gt, lo_pairs),
                                   _mm256_permutevar8x32_epi32(gt, hi_pairs));
    const __m128i b = pack_channel(l0, l1, _mm256_permutevar8x32_epi32(bt, lo_pairs),
                                   _mm256_permutevar8x32_epi32(bt, hi_pairs));
    for (int blk = 0; blk < 3; ++blk) {
      const __m128i out = _mm_or_si128(
          _mm_or_si128(_mm_shuffle_epi8(r, mask(blk, 0)), _mm_shuffle_epi8(g, mask(blk, 1))),
          _mm_shuffle_epi8(b, mask(blk, 2)));
      _mm_storeu_si128(reinterpret_cast<__m128i*>(dst + 16 * blk), out);
    }
  }
  if (x < w) {
    yuv_row_portable(yrow + x, urow + (x / 2) * step, vrow + (x / 2) * step, step, w - x, k, dst);
  }
}
#endif

void yuv_row(const uint8_t* yrow, const uint8_t* urow, const uint8_t* vrow, size_t step, size_t w,
             const YuvCoefficients& k, uint8_t* dst) {
#if defined(__x86_64__) || defined(__i386__)
  if (detail::use_avx2()) return yuv_row_avx2(yrow, urow, vrow, step, w, k, dst);
#endif
  yuv_row_portable(yrow, urow, vrow, step, w, k, dst);
}

// Whether `rows` rows of `row_bytes` at `stride` from `data` lie within the
// address space: a stride near SIZE_MAX would wrap the row pointers (no real
// buffer is that large, but the arithmetic must not wrap).
bool span_fits(const uint8_t* data, size_t rows, size_t stride, size_t row_bytes) {
  size_t span = 0;
  if (__builtin_mul_overflow(rows - 1, stride, &span) ||
      __builtin_add_overflow(span, row_bytes, &span) ||
      span > static_cast<size_t>(std::numeric_limits<ptrdiff_t>::max())) {
    return false;
  }
  uintptr_t end = 0;
  return !__builtin_add_overflow(reinterpret_cast<uintptr_t>(data), span, &end);
}

void check_plane(const uint8_t* plane, size_t stride, size_t rows, size_t row_bytes,
                 const char* name) {
  if (plane == nullptr) fail("to_rgb()", (std::string("frame.") + name + " is null").c_str());
  if (stride != 0 && stride < row_bytes) {
    fail("to_rgb()", (std::string("frame.") + name + "_stride is shorter than a row").c_str());
  }
  if (!span_fits(plane, rows, stride != 0 ? stride : row_bytes, row_bytes)) {
    fail("to_rgb()", (std::string("frame.") + name + "_stride is too large").c_str());
  }
}

}  // namespace

int channels_of(PixelFormat format) {
  switch (format) {
    case PixelFormat::RGB:
    case PixelFormat::BGR:
      return 3;
    case PixelFormat::RGBA:
    case PixelFormat::BGRA:
      return 4;
    case PixelFormat::GRAY:
      return 1;
  }
  throw std::runtime_error("image.format is not a PixelFormat value");
}

ImageView Image::view() const {
  return {rgb.data(), width, height, static_cast<size_t>(width) * channels_of(format), format};
}

void set_max_image_pixels(uint64_t pixels) { max_pixels.store(pixels, std::memory_order_relaxed); }

uint64_t max_image_pixels() { return max_pixels.load(std::memory_order_relaxed); }

Image decode_image(const uint8_t* bytes, size_t size, bool apply_exif_orientation) {
  std::string reason;
  detail::DecodedRgb decoded = detail::decode_rgb(bytes, size, &reason);
  if (!decoded) throw std::runtime_error("Failed to decode image bytes: " + reason);
  Image image;
  image.width = decoded.width;
  image.height = decoded.height;
  image.rgb.assign(decoded.pixels.get(),
                   decoded.pixels.get() + rgb_bytes(decoded.width, decoded.height));
  decoded.pixels.reset();
  if (apply_exif_orientation) {
    image = apply_orientation(std::move(image), exif_orientation(bytes, size));
  }
  return image;
}

Image to_rgb(const ImageView& view, Rotation rotation) {
  detail::check_view(view, "to_rgb()");
  const int channels = channels_of(view.format);
  const size_t stride = view.stride != 0 ? view.stride : static_cast<size_t>(view.width) * channels;
  Image image;
  image.width = view.width;
  image.height = view.height;
  image.rgb.resize(rgb_bytes(view.width, view.height));
  const size_t w = static_cast<size_t>(view.width);
  uint8_t* dst = image.rgb.data();
  for (size_t y = 0; y < static_cast<size_t>(view.height); ++y, dst += w * 3) {
    const uint8_t* src = view.data + y * stride;
    switch (view.format) {
      case PixelFormat::RGB:
        std::memcpy(dst, src, w * 3);
        break;
      case PixelFormat::BGR:
        reorder_row<3, true>(src, w, dst);
        break;
      case PixelFormat::RGBA:
        reorder_row<4, false>(src, w, dst);
        break;
      case PixelFormat::BGRA:
        reorder_row<4, true>(src, w, dst);
        break;
      case PixelFormat::GRAY:
        for (size_t x = 0; x < w; ++x) dst[3 * x] = dst[3 * x + 1] = dst[3 * x + 2] = src[x];
        break;
    }
  }
  return rotate(std::move(image), rotation);
}

Image to_rgb(const YuvView& frame, Rotation rotation) {
  if (frame.width <= 0 || frame.height <= 0) {
    fail("to_rgb()", "frame.width and frame.height must be positive");
  }
  const size_t w = static_cast<size_t>(frame.width);
  const size_t h = static_cast<size_t>(frame.height);
  const size_t cw = (w + 1) / 2;
  const bool planar = frame.layout == YuvLayout::I420;
  if (!planar && frame.layout != YuvLayout::NV12 && frame.layout != YuvLayout::NV21) {
    fail("to_rgb()", "frame.layout is not a YuvLayout value");
  }
  if (frame.range != YuvRange::Video && frame.range != YuvRange::Full) {
    fail("to_rgb()", "frame.range is not a YuvRange value");
  }
  const size_t ch = (h + 1) / 2;
  check_plane(frame.y, frame.y_stride, h, w, "y");
  check_plane(frame.u, frame.u_stride, ch, planar ? cw : 2 * cw, "u");
  if (planar) check_plane(frame.v, frame.v_stride, ch, cw, "v");
  const size_t y_stride = frame.y_stride != 0 ? frame.y_stride : w;
  const size_t u_stride = frame.u_stride != 0 ? frame.u_stride : (planar ? cw : 2 * cw);
  const size_t v_stride = frame.v_stride != 0 ? frame.v_stride : cw;

  const YuvCoefficients& k = frame.range == YuvRange::Video ? kVideoRange : kFullRange;
  Image image;
  image.width = frame.width;
  image.height = frame.height;
  image.rgb.resize(rgb_bytes(frame.width, frame.height));
  // NV12 interleaves U then V, NV21 V then U; I420 has one plane each.
  const size_t step = planar ? 1 : 2;
  const size_t u_at = frame.layout == YuvLayout::NV21 ? 1 : 0;
  const size_t v_at = frame.layout == YuvLayout::NV12 ? 1 : 0;
  for (size_t y = 0; y < h; ++y) {
    const uint8_t* yrow = frame.y + y * y_stride;
    const uint8_t* urow = frame.u + (y / 2) * u_stride + (planar ? 0 : u_at);
    const uint8_t* vrow =
        planar ? frame.v + (y / 2) * v_stride : frame.u + (y / 2) * u_stride + v_at;
    uint8_t* dst = image.rgb.data() + y * w * 3;
    yuv_row(yrow, urow, vrow, step, w, k, dst);
  }
  return rotate(std::move(image), rotation);
}

// ---------------------------------------------------------------------------
// Internal pieces every image family uses
// ---------------------------------------------------------------------------

namespace detail {

bool within_pixel_budget(int64_t width, int64_t height) {
  if (width < 0 || height < 0) return false;
  const uint64_t w = static_cast<uint64_t>(width);
  const uint64_t h = static_cast<uint64_t>(height);
  const uint64_t budget = max_image_pixels();
  return w == 0 || h <= budget / w;
}

bool read_file(const std::string& path, std::vector<uint8_t>& bytes) {
  std::unique_ptr<std::FILE, int (*)(std::FILE*)> file(std::fopen(path.c_str(), "rb"),
                                                       &std::fclose);
  if (!file) return false;
  bytes.clear();
  // Read to the end in chunks: pipes and FIFOs report no size up front.
  uint8_t chunk[1 << 16];
  for (;;) {
    const size_t n = std::fread(chunk, 1, sizeof chunk, file.get());
    bytes.insert(bytes.end(), chunk, chunk + n);
    if (n < sizeof chunk) break;
  }
  return std::ferror(file.get()) == 0;
}

DecodedRgb decode_rgb(const uint8_t* bytes, size_t size, std::string* reason) {
  DecodedRgb result;
  const auto refuse = [&](const std::string& why) {
    if (reason != nullptr) *reason = why;
    return DecodedRgb{};
  };
  if (bytes == nullptr || size == 0) return refuse("no bytes");
  int w = 0;
  int h = 0;
  int comp = 0;
  // The header alone first: an image over the budget is refused before the
  // decoder allocates anything for its pixels.
  const bool info_ok = info(bytes, size, &w, &h, &comp) != 0;
  if (info_ok && !within_pixel_budget(w, h)) {
    return refuse(std::to_string(w) + " x " + std::to_string(h) +
                  " pixels exceed the image pixel budget of " + std::to_string(max_image_pixels()));
  }
  // PNG data inflates into a buffer the decoder grows as it goes. A header
  // declares at most 8 bytes a pixel plus a filter byte a row (16-bit RGBA;
  // interlacing adds a little); growth beyond four times that, plus twice
  // the file for the gathered compressed chunks, is refused. Other formats
  // decode into buffers sized from their header.
  const uint64_t declared =
      info_ok ? (uint64_t(w) * 8u + 1u) * uint64_t(h) : 32u * max_image_pixels();
  const uint64_t growth_limit = 4u * declared + 2u * uint64_t(size) + (uint64_t{1} << 20);
  const InflateLimit limit(
      static_cast<size_t>(std::min<uint64_t>(growth_limit, std::numeric_limits<size_t>::max())));
  stbi_uc* pixels = nullptr;
  if (is_pic(bytes, size)) {
    // The PIC decoder converts its buffer to the requested channel count even
    // after a failed decode, reading through a null pointer. Asked for its own
    // four channels it skips that conversion; alpha is then dropped here,
    // exactly as the decoder's four-to-three conversion does.
    pixels = load(bytes, size, &w, &h, &comp, 4);
    if (pixels != nullptr) {
      const size_t count = static_cast<size_t>(w) * static_cast<size_t>(h);
      for (size_t i = 0; i < count; ++i) std::memmove(pixels + 3 * i, pixels + 4 * i, 3);
    }
  } else {
    pixels = load(bytes, size, &w, &h, &comp, 3);
  }
  if (pixels == nullptr) {
    if (limit.refused()) return refuse("compressed data inflates past the declared image size");
    const char* why = stbi_failure_reason();
    return refuse(why != nullptr ? why : "unknown format");
  }
  result.pixels = std::unique_ptr<uint8_t, void (*)(void*)>(pixels, &stbi_image_free);
  result.width = w;
  result.height = h;
  // A header the info pass could not read but the decoder could: held to the
  // same budget after the fact.
  if (!within_pixel_budget(w, h)) return refuse("image exceeds the image pixel budget");
  return result;
}

DecodedRgb load_rgb_file(const std::string& path) {
  std::vector<uint8_t> bytes;
  if (!read_file(path, bytes)) return DecodedRgb{};
  return decode_rgb(bytes.data(), bytes.size());
}

void check_view(const ImageView& view, const char* what) {
  const int channels = channels_of(view.format);
  if (view.data == nullptr) fail(what, "image.data is null");
  if (view.width <= 0 || view.height <= 0)
    fail(what, "image.width and image.height must be positive");
  const size_t row_bytes = static_cast<size_t>(view.width) * static_cast<size_t>(channels);
  if (view.stride != 0 && view.stride < row_bytes) {
    fail(what, "image.stride is shorter than a row");
  }
  if (!span_fits(view.data, static_cast<size_t>(view.height),
                 view.stride != 0 ? view.stride : row_bytes, row_bytes)) {
    fail(what, "image.stride is too large");
  }
}

RgbSource::RgbSource(const ImageView& view) {
  check_view(view, "image view");
  if (view.format == PixelFormat::RGB) {
    data_ = view.data;
    width_ = view.width;
    height_ = view.height;
    stride_ = view.stride != 0 ? view.stride : static_cast<size_t>(view.width) * 3u;
    return;
  }
  // The RGB copy is an intermediate image like any other: held to the budget.
  if (!within_pixel_budget(view.width, view.height)) {
    fail("image view", (std::to_string(view.width) + " x " + std::to_string(view.height) +
                        " pixels to convert to RGB exceed the image pixel budget of " +
                        std::to_string(max_image_pixels()))
                           .c_str());
  }
  owned_ = to_rgb(view);
  data_ = owned_.rgb.data();
  width_ = owned_.width;
  height_ = owned_.height;
  stride_ = static_cast<size_t>(owned_.width) * 3u;
}

RgbSource::RgbSource(const uint8_t* rgb, int width, int height, size_t stride)
    : data_(rgb),
      width_(width),
      height_(height),
      stride_(stride != 0 ? stride : static_cast<size_t>(width) * 3u) {}

int jpeg_exif_orientation(const uint8_t* bytes, size_t size) {
  return exif_orientation(bytes, size);
}

Image orient(Image image, int orientation) {
  return apply_orientation(std::move(image), orientation);
}

}  // namespace detail

}  // namespace vemoproc
