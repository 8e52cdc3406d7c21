#include "pixels.hpp"
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sys/resource.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "../src/pixels/cpu.hpp"
#include "stb_image.h"
#include "test_images.hpp"

namespace {

using testimg::Format;
using testing::HasSubstr;
using testing::StartsWith;
using vemoproc::Image;
using vemoproc::ImageView;
using vemoproc::PixelFormat;
using vemoproc::Rotation;
using vemoproc::YuvLayout;
using vemoproc::YuvRange;
using vemoproc::YuvView;

uint8_t pattern(int x, int y, int c) { return static_cast<uint8_t>(x * 37 + y * 11 + c * 90); }

// What stbi_load gives for a file asked for three channels: the path loaders' pixels.
std::vector<uint8_t> stb_rgb(const std::string& path, int* w, int* h) {
  int comp = 0;
  std::unique_ptr<stbi_uc, void (*)(void*)> p(stbi_load(path.c_str(), w, h, &comp, 3),
                                              &stbi_image_free);
  if (!p) throw std::runtime_error("reference decode failed: " + path);
  return {p.get(), p.get() + size_t(*w) * size_t(*h) * 3};
}

Image decode_file(const std::string& path, bool exif = false) {
  const std::vector<uint8_t> bytes = testimg::read_bytes(path);
  return vemoproc::decode_image(bytes.data(), bytes.size(), exif);
}

// Restores the process-wide budget when a test changes it.
struct BudgetGuard {
  uint64_t saved = vemoproc::max_image_pixels();
  ~BudgetGuard() { vemoproc::set_max_image_pixels(saved); }
};

// ---------------------------------------------------------------------------
// Decoding from memory
// ---------------------------------------------------------------------------

TEST(DecodeImage, GivesThePathLoadersPixelsForEveryFormat) {
  struct Case {
    int channels;
    Format format;
    const char* name;
  };
  const Case cases[] = {{3, Format::Png, "rgb.png"},  {1, Format::Png, "grey.png"},
                        {2, Format::Png, "ga.png"},   {4, Format::Png, "rgba.png"},
                        {3, Format::Jpeg, "rgb.jpg"}, {1, Format::Jpeg, "grey.jpg"},
                        {3, Format::Bmp, "rgb.bmp"},  {4, Format::Tga, "rgba.tga"}};
  for (const Case& c : cases) {
    const std::string path =
        testimg::write(testimg::make(13, 7, c.channels, pattern), c.format, c.name);
    int w = 0;
    int h = 0;
    const std::vector<uint8_t> expected = stb_rgb(path, &w, &h);
    const Image image = decode_file(path);
    EXPECT_EQ(image.width, w) << c.name;
    EXPECT_EQ(image.height, h) << c.name;
    EXPECT_EQ(image.rgb, expected) << c.name;
  }
  // PIC, the format whose decoder is worked around, in memory too.
  std::vector<uint8_t> rgb(5 * 4 * 3);
  for (size_t i = 0; i < rgb.size(); ++i) rgb[i] = static_cast<uint8_t>(i * 7);
  const Image pic = decode_file(testimg::write_pic(5, 4, rgb, "x.pic"));
  EXPECT_EQ(pic.rgb, rgb);
}

TEST(DecodeImage, FailuresNameTheDecodersReason) {
  const std::string junk = "this is not an image file";
  const auto* bytes = reinterpret_cast<const uint8_t*>(junk.data());
  EXPECT_THAT(
      [&] { vemoproc::decode_image(bytes, junk.size()); },
      testing::ThrowsMessage<std::runtime_error>(StartsWith("Failed to decode image bytes: ")));
  EXPECT_THROW(vemoproc::decode_image(nullptr, 0), std::runtime_error);
  // A truncated PIC fails cleanly instead of reaching the decoder's null read.
  std::vector<uint8_t> rgb(6 * 6 * 3, 200);
  const std::vector<uint8_t> cut = testimg::read_bytes(testimg::write_pic(6, 6, rgb, "t.pic", 40));
  EXPECT_THROW(vemoproc::decode_image(cut.data(), cut.size()), std::runtime_error);
}

// A JPEG with an APP1 EXIF segment holding only the orientation tag, inserted
// right after the start-of-image marker. `big_endian` picks the byte order.
std::vector<uint8_t> with_orientation(std::vector<uint8_t> jpeg, int orientation, bool big_endian) {
  std::vector<uint8_t> tiff;
  const auto put = [&](uint32_t x, int bytes) {
    for (int i = 0; i < bytes; ++i)
      tiff.push_back(uint8_t(x >> (big_endian ? 8 * (bytes - 1 - i) : 8 * i)));
  };
  tiff = {uint8_t(big_endian ? 'M' : 'I'), uint8_t(big_endian ? 'M' : 'I')};
  put(42, 2);
  put(8, 4);       // first IFD right after the header
  put(1, 2);       // one entry:
  put(0x0112, 2);  // orientation,
  put(3, 2);       // SHORT,
  put(1, 4);       // one value,
  put(uint32_t(orientation), 2);
  put(0, 2);
  put(0, 4);  // no next IFD
  std::vector<uint8_t> seg = {0xFF, 0xE1};
  const size_t len = 2 + 6 + tiff.size();
  seg.push_back(uint8_t(len >> 8));
  seg.push_back(uint8_t(len));
  seg.insert(seg.end(), {'E', 'x', 'i', 'f', 0, 0});
  seg.insert(seg.end(), tiff.begin(), tiff.end());
  jpeg.insert(jpeg.begin() + 2, seg.begin(), seg.end());
  return jpeg;
}

TEST(DecodeImage, ExifOrientationTurnsPhotosUpright) {
  const std::string path = testimg::write(testimg::make(6, 4, 3, pattern), Format::Jpeg, "o.jpg");
  const std::vector<uint8_t> plain = testimg::read_bytes(path);
  const Image stored = vemoproc::decode_image(plain.data(), plain.size());
  const int w = stored.width;
  const int h = stored.height;
  // For each orientation: where upright pixel (x, y) is found in the stored image.
  const auto source = [&](int o, int x, int y) -> std::array<int, 2> {
    switch (o) {
      case 2:
        return {w - 1 - x, y};
      case 3:
        return {w - 1 - x, h - 1 - y};
      case 4:
        return {x, h - 1 - y};
      case 5:
        return {y, x};
      case 6:
        return {y, h - 1 - x};
      case 7:
        return {w - 1 - y, h - 1 - x};
      case 8:
        return {w - 1 - y, x};
      default:
        return {x, y};
    }
  };
  for (int o = 1; o <= 8; ++o) {
    for (bool big : {false, true}) {
      const std::vector<uint8_t> bytes = with_orientation(plain, o, big);
      // Off by default: the stored pixels exactly.
      EXPECT_EQ(vemoproc::decode_image(bytes.data(), bytes.size()).rgb, stored.rgb);
      const Image up = vemoproc::decode_image(bytes.data(), bytes.size(), true);
      const bool swaps = o >= 5;
      ASSERT_EQ(up.width, swaps ? h : w) << o;
      ASSERT_EQ(up.height, swaps ? w : h) << o;
      for (int y = 0; y < up.height; ++y)
        for (int x = 0; x < up.width; ++x) {
          const auto [sx, sy] = source(o, x, y);
          ASSERT_EQ(0, std::memcmp(&up.rgb[(size_t(y) * up.width + x) * 3],
                                   &stored.rgb[(size_t(sy) * w + sx) * 3], 3))
              << "orientation " << o << " at " << x << "," << y;
        }
    }
  }
  // Out-of-range or cut-off tags count as orientation 1.
  for (std::vector<uint8_t> bytes :
       {with_orientation(plain, 9, false), with_orientation(plain, 0, true)}) {
    EXPECT_EQ(vemoproc::decode_image(bytes.data(), bytes.size(), true).rgb, stored.rgb);
  }
  std::vector<uint8_t> cut = with_orientation(plain, 6, false);
  cut[16] = 0xF0;  // first IFD offset far past the segment's end
  EXPECT_EQ(vemoproc::decode_image(cut.data(), cut.size(), true).rgb, stored.rgb);
}

// ---------------------------------------------------------------------------
// The pixel budget
// ---------------------------------------------------------------------------

// CRC-32 (IEEE) of a PNG chunk's type and data.
uint32_t crc32(const uint8_t* p, size_t n) {
  uint32_t c = 0xFFFFFFFFu;
  for (size_t i = 0; i < n; ++i) {
    c ^= p[i];
    for (int k = 0; k < 8; ++k) c = (c >> 1) ^ (0xEDB88320u & (0u - (c & 1u)));
  }
  return ~c;
}

void put32(std::vector<uint8_t>& v, uint32_t x) {
  for (int s = 24; s >= 0; s -= 8) v.push_back(uint8_t(x >> s));
}

void chunk(std::vector<uint8_t>& png, const char* type, const std::vector<uint8_t>& data) {
  put32(png, static_cast<uint32_t>(data.size()));
  std::vector<uint8_t> body(type, type + 4);
  body.insert(body.end(), data.begin(), data.end());
  png.insert(png.end(), body.begin(), body.end());
  put32(png, crc32(body.data(), body.size()));
}

// A real grey PNG of side x side black pixels: one fixed-Huffman deflate block
// of a zero literal followed by (length 258, distance 1) repeats, so a
// 400-megapixel image takes a few megabytes. With `inflated`, the data
// inflates to that many bytes whatever the side (an inflate bomb).
std::vector<uint8_t> black_png(uint32_t side, uint64_t inflated = 0) {
  std::vector<uint8_t> png = {0x89, 'P', 'N', 'G', 0x0D, 0x0A, 0x1A, 0x0A};
  std::vector<uint8_t> ihdr;
  put32(ihdr, side);
  put32(ihdr, side);
  ihdr.insert(ihdr.end(), {8, 0, 0, 0, 0});  // 8-bit grey
  chunk(png, "IHDR", ihdr);

  // A filter byte per row.
  const uint64_t total = inflated != 0 ? inflated : uint64_t{side} * (side + 1);
  std::vector<uint8_t> z = {0x78, 0x01};
  uint64_t bits = 0;
  int nbits = 0;
  const auto emit = [&](uint32_t code, int len) {  // Huffman codes go most significant bit first
    for (int i = len - 1; i >= 0; --i) {
      bits |= uint64_t((code >> i) & 1u) << nbits;
      if (++nbits == 8) z.push_back(uint8_t(bits)), bits = 0, nbits = 0;
    }
  };
  emit(1, 1);              // final block (header bits are read least significant first;
  emit(1, 1), emit(0, 1);  // BTYPE 01 = fixed Huffman, sent as bit 1 then bit 0)
  emit(0x30, 8);           // literal 0
  uint64_t left = total - 1;
  for (; left >= 258; left -= 258) emit(0xC5, 8), emit(0, 5);  // length 258, distance 1
  for (; left > 0; --left) emit(0x30, 8);
  emit(0, 7);  // end of block
  if (nbits > 0) z.push_back(uint8_t(bits));
  // Adler-32 of all-zero data: a = 1, b = count mod 65521.
  put32(z, static_cast<uint32_t>(((total % 65521u) << 16) | 1u));
  chunk(png, "IDAT", z);
  chunk(png, "IEND", {});
  return png;
}

long peak_rss_mb() {
  rusage u{};
  getrusage(RUSAGE_SELF, &u);
  return u.ru_maxrss / 1024;
}

TEST(PixelBudget, RefusesABombFromItsHeaderThenDecodesWhenRaised) {
  BudgetGuard guard;
  EXPECT_EQ(vemoproc::max_image_pixels(), 178956970u);
  // The helper's own stream, checked on an image small enough to decode.
  const std::vector<uint8_t> small = black_png(300);
  const Image ok = vemoproc::decode_image(small.data(), small.size());
  EXPECT_EQ(ok.width, 300);
  EXPECT_EQ(ok.rgb, std::vector<uint8_t>(300 * 300 * 3, 0));

  const std::vector<uint8_t> bomb = black_png(20000);  // 1.2 GB decoded as RGB
  // (A build whose side cap is below 20000 refuses it for that reason first.)
  const bool capped = VEMOPROC_TEST_MAX_DIMENSION < 20000;
  EXPECT_THAT([&] { vemoproc::decode_image(bomb.data(), bomb.size()); },
              testing::ThrowsMessage<std::runtime_error>(
                  testing::AllOf(StartsWith("Failed to decode image bytes: "),
                                 HasSubstr(capped ? "too large" : "budget"))));
  EXPECT_LT(peak_rss_mb(), 400) << "the refusal allocated the image";

  // The path loaders refuse it the same way (their own messages are the
  // families' business; here the image simply does not decode).
  vemoproc::set_max_image_pixels(100);
  EXPECT_THROW(vemoproc::decode_image(small.data(), small.size()), std::runtime_error);
  vemoproc::set_max_image_pixels(400000000);
  if (capped) GTEST_SKIP() << "build caps image sides below 20000";
  const Image big = vemoproc::decode_image(bomb.data(), bomb.size());
  EXPECT_EQ(big.width, 20000);
  EXPECT_EQ(big.rgb.size(), size_t{20000} * 20000 * 3);
}

// ---------------------------------------------------------------------------
// Pixel formats
// ---------------------------------------------------------------------------

// `width` x `height` pixels of `format` in rows of `stride` bytes; the bytes
// past each row hold 0xEE, which must never reach a result.
std::vector<uint8_t> layout_as(PixelFormat format, int width, int height, size_t stride) {
  const int ch = vemoproc::channels_of(format);
  std::vector<uint8_t> buf(stride * height, 0xEE);
  for (int y = 0; y < height; ++y)
    for (int x = 0; x < width; ++x) {
      uint8_t* p = buf.data() + y * stride + size_t(x) * ch;
      const uint8_t r = pattern(x, y, 0), g = pattern(x, y, 1), b = pattern(x, y, 2);
      switch (format) {
        case PixelFormat::RGB:
          p[0] = r, p[1] = g, p[2] = b;
          break;
        case PixelFormat::BGR:
          p[0] = b, p[1] = g, p[2] = r;
          break;
        case PixelFormat::RGBA:
          p[0] = r, p[1] = g, p[2] = b, p[3] = 7;
          break;
        case PixelFormat::BGRA:
          p[0] = b, p[1] = g, p[2] = r, p[3] = 7;
          break;
        case PixelFormat::GRAY:
          p[0] = r;
          break;
      }
    }
  return buf;
}

TEST(ToRgb, EveryFormatAndStrideGivesTheSameRgb) {
  const int w = 7;
  const int h = 5;
  for (PixelFormat f : {PixelFormat::RGB, PixelFormat::BGR, PixelFormat::RGBA, PixelFormat::BGRA,
                        PixelFormat::GRAY}) {
    const size_t row = size_t(w) * vemoproc::channels_of(f);
    for (size_t pad : {size_t{0}, size_t{1}, size_t{13}}) {
      const std::vector<uint8_t> buf = layout_as(f, w, h, row + pad);
      const Image img = vemoproc::to_rgb(ImageView{buf.data(), w, h, pad == 0 ? 0 : row + pad, f});
      ASSERT_EQ(img.width, w);
      ASSERT_EQ(img.height, h);
      for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x)
          for (int c = 0; c < 3; ++c)
            ASSERT_EQ(img.rgb[(size_t(y) * w + x) * 3 + c],
                      pattern(x, y, f == PixelFormat::GRAY ? 0 : c))
                << int(f) << " pad " << pad;
    }
  }
}

TEST(ToRgb, RotationsTurnTheImageByQuarterTurns) {
  // 3 x 2, pixels numbered 0..5 row by row (value in all channels).
  std::vector<uint8_t> g = {0, 1, 2, 3, 4, 5};
  const ImageView v{g.data(), 3, 2, 0, PixelFormat::GRAY};
  const auto firsts = [](const Image& im) {
    std::vector<int> out;
    for (size_t i = 0; i < im.rgb.size(); i += 3) out.push_back(im.rgb[i]);
    return out;
  };
  const Image cw = vemoproc::to_rgb(v, Rotation::Clockwise90);
  EXPECT_EQ(cw.width, 2);
  EXPECT_EQ(cw.height, 3);
  EXPECT_EQ(firsts(cw), (std::vector<int>{3, 0, 4, 1, 5, 2}));
  EXPECT_EQ(firsts(vemoproc::to_rgb(v, Rotation::Rotate180)), (std::vector<int>{5, 4, 3, 2, 1, 0}));
  const Image ccw = vemoproc::to_rgb(v, Rotation::Clockwise270);
  EXPECT_EQ(firsts(ccw), (std::vector<int>{2, 5, 1, 4, 0, 3}));
  // Turning the rotated image back restores the original.
  const Image back = vemoproc::to_rgb(cw.view(), Rotation::Clockwise270);
  EXPECT_EQ(back.rgb, vemoproc::to_rgb(v).rgb);
}

TEST(ToRgb, BadViewsAreRefusedNamingTheArgument) {
  uint8_t px[12] = {};
  const auto throws = [](const ImageView& v, const char* what) {
    EXPECT_THAT([&] { vemoproc::to_rgb(v); },
                testing::ThrowsMessage<std::runtime_error>(HasSubstr(what)));
  };
  throws({nullptr, 2, 2, 0, PixelFormat::RGB}, "image.data");
  throws({px, 0, 2, 0, PixelFormat::RGB}, "image.width");
  throws({px, 2, -1, 0, PixelFormat::RGB}, "image.width");
  throws({px, 2, 2, 5, PixelFormat::RGB}, "image.stride");
  throws({px, 2, 2, 7, PixelFormat::RGBA}, "image.stride");
}

// ---------------------------------------------------------------------------
// YUV 4:2:0
// ---------------------------------------------------------------------------

uint8_t sat(int v) { return static_cast<uint8_t>(v < 0 ? 0 : v > 255 ? 255 : v); }

// The conversion written out per pixel, straight from the published formulas.
std::array<uint8_t, 3> yuv_pixel(int Y, int U, int V, YuvRange range) {
  const int u = U - 128;
  const int v = V - 128;
  if (range == YuvRange::Video) {
    const int y = std::max(Y - 16, 0) * 1220542;
    return {sat((y + 524288 + 1673527 * v) >> 20),
            sat((y + 524288 - 852492 * v - 409993 * u) >> 20),
            sat((y + 524288 + 2116026 * u) >> 20)};
  }
  const int y = Y << 20;
  return {sat((y + 524288 + 1470104 * v) >> 20), sat((y + 524288 - 748826 * v - 360853 * u) >> 20),
          sat((y + 524288 + 1858077 * u) >> 20)};
}

TEST(YuvToRgb, KnownColoursInBothRanges) {
  struct Case {
    uint8_t y, u, v;
    std::array<uint8_t, 3> video, full;
  };
  // Worked out by hand from the formulas.
  const Case cases[] = {{16, 128, 128, {0, 0, 0}, {16, 16, 16}},
                        {235, 128, 128, {255, 255, 255}, {235, 235, 235}},
                        {128, 128, 128, {130, 130, 130}, {128, 128, 128}},
                        {81, 90, 240, {254, 0, 0}, {238, 14, 14}},
                        {145, 54, 34, {0, 255, 1}, {13, 238, 14}},
                        {41, 240, 110, {0, 0, 255}, {16, 15, 239}}};
  for (const Case& c : cases) {
    const uint8_t uv[2] = {c.u, c.v};
    for (YuvRange r : {YuvRange::Video, YuvRange::Full}) {
      const YuvView f{&c.y, 1, uv, 2, nullptr, 0, 1, 1, YuvLayout::NV12, r};
      const Image img = vemoproc::to_rgb(f);
      const auto& want = r == YuvRange::Video ? c.video : c.full;
      EXPECT_EQ(img.rgb, std::vector<uint8_t>(want.begin(), want.end())) << int(c.y);
    }
  }
}

TEST(YuvToRgb, LayoutsOddSizesAndStridesAgreeWithTheFormula) {
  // Wide rows reach the 16-pixel vector path (where the processor has it);
  // the same frames run again with the wide paths switched off.
  for (bool wide : {true, false}) {
    vemoproc::detail::set_wide_paths_enabled(wide);
    for (auto [w, h] : {std::array<int, 2>{5, 3}, {4, 4}, {1, 1}, {9, 2}, {37, 5}, {64, 3}}) {
      const int cw = (w + 1) / 2;
      const int ch = (h + 1) / 2;
      const size_t ys = size_t(w) + 3;
      std::vector<uint8_t> Y(ys * h, 0xEE), U(size_t(cw) * ch), V(size_t(cw) * ch);
      for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) Y[y * ys + x] = uint8_t(x * 53 + y * 29);
      for (size_t i = 0; i < U.size(); ++i)
        U[i] = uint8_t(i * 71 + 3), V[i] = uint8_t(i * 97 + 200);
      // The same chroma interleaved both ways, in padded rows, and planar.
      const size_t is = size_t(2 * cw) + 1;
      std::vector<uint8_t> nv12(is * ch, 0xEE), nv21(is * ch, 0xEE);
      for (int y = 0; y < ch; ++y)
        for (int x = 0; x < cw; ++x) {
          nv12[y * is + 2 * x] = nv21[y * is + 2 * x + 1] = U[y * cw + x];
          nv12[y * is + 2 * x + 1] = nv21[y * is + 2 * x] = V[y * cw + x];
        }
      for (YuvRange r : {YuvRange::Video, YuvRange::Full}) {
        std::vector<uint8_t> want;
        for (int y = 0; y < h; ++y)
          for (int x = 0; x < w; ++x) {
            const size_t c = size_t(y / 2) * cw + x / 2;
            const auto px = yuv_pixel(Y[y * ys + x], U[c], V[c], r);
            want.insert(want.end(), px.begin(), px.end());
          }
        const YuvView frames[] = {
            {Y.data(), ys, nv12.data(), is, nullptr, 0, w, h, YuvLayout::NV12, r},
            {Y.data(), ys, nv21.data(), is, nullptr, 0, w, h, YuvLayout::NV21, r},
            {Y.data(), ys, U.data(), 0, V.data(), 0, w, h, YuvLayout::I420, r}};
        for (const YuvView& f : frames) {
          EXPECT_EQ(vemoproc::to_rgb(f).rgb, want) << w << "x" << h << " layout " << int(f.layout);
          // Rotated conversion equals the conversion turned afterwards.
          const Image plain = vemoproc::to_rgb(f);
          EXPECT_EQ(vemoproc::to_rgb(f, Rotation::Clockwise90).rgb,
                    vemoproc::to_rgb(plain.view(), Rotation::Clockwise90).rgb);
        }
      }
    }
  }
  vemoproc::detail::set_wide_paths_enabled(true);
}

TEST(YuvToRgb, BadFramesAreRefusedNamingThePlane) {
  uint8_t y[16] = {};
  uint8_t uv[8] = {};
  const auto throws = [](const YuvView& f, const char* what) {
    EXPECT_THAT([&] { vemoproc::to_rgb(f); },
                testing::ThrowsMessage<std::runtime_error>(HasSubstr(what)));
  };
  throws({nullptr, 4, uv, 4, nullptr, 0, 4, 4, YuvLayout::NV12, YuvRange::Video}, "frame.y");
  throws({y, 4, nullptr, 4, nullptr, 0, 4, 4, YuvLayout::NV21, YuvRange::Video}, "frame.u");
  throws({y, 4, uv, 2, nullptr, 0, 4, 4, YuvLayout::I420, YuvRange::Full}, "frame.v");
  throws({y, 3, uv, 4, nullptr, 0, 4, 4, YuvLayout::NV12, YuvRange::Video}, "frame.y_stride");
  throws({y, 4, uv, 3, nullptr, 0, 4, 4, YuvLayout::NV12, YuvRange::Video}, "frame.u_stride");
  throws({y, 4, uv, 4, nullptr, 0, 0, 4, YuvLayout::NV12, YuvRange::Video}, "frame.width");
}

// Strides near SIZE_MAX would wrap the row pointers: refused naming the
// stride; one row needs no stride at all.
TEST(ToRgb, StridesThatWrapTheAddressSpaceAreRefused) {
  uint8_t px[16] = {};
  const size_t huge = SIZE_MAX - 4;
  for (const ImageView& v : {ImageView{px, 2, 2, huge, PixelFormat::RGB},
                             ImageView{px, 1, 3, SIZE_MAX / 2, PixelFormat::GRAY}}) {
    EXPECT_THAT([&] { vemoproc::to_rgb(v); },
                testing::ThrowsMessage<std::runtime_error>(HasSubstr("image.stride is too large")));
  }
  EXPECT_EQ(vemoproc::to_rgb(ImageView{px, 2, 1, huge, PixelFormat::RGB}).rgb.size(), 6u);
  const YuvView frames[] = {{px, huge, px, 4, nullptr, 0, 4, 2, YuvLayout::NV12, YuvRange::Video},
                            {px, 4, px, huge, nullptr, 0, 4, 4, YuvLayout::NV12, YuvRange::Video},
                            {px, 4, px, 2, px, huge, 4, 4, YuvLayout::I420, YuvRange::Video}};
  const char* planes[] = {"frame.y_stride", "frame.u_stride", "frame.v_stride"};
  for (size_t i = 0; i < 3; ++i) {
    EXPECT_THAT([&] { vemoproc::to_rgb(frames[i]); },
                testing::ThrowsMessage<std::runtime_error>(HasSubstr(planes[i])));
  }
}

// A 1 x 1 PNG whose data inflates to 300 MiB: refused once the inflate
// buffer outgrows what the header declares, with its own message, in a child
// whose address space may grow by 128 MiB only.
TEST(PixelBudget, InflateBombsStopAtTheDeclaredSize) {
  const std::vector<uint8_t> bomb = black_png(1, uint64_t{300} << 20);
  EXPECT_EQ(testimg::in_child(
                [&] {
                  try {
                    vemoproc::decode_image(bomb.data(), bomb.size());
                  } catch (const std::runtime_error& e) {
                    return std::string(e.what()) ==
                           "Failed to decode image bytes: compressed data inflates past the "
                           "declared image size";
                  }
                  return false;
                },
                128),
            0);
}

}  // namespace
