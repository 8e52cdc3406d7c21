#include "pixels.hpp"
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sys/resource.h>

#include <array>
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
using testing::ThrowsMessage;
using vemoproc::Image;
using vemoproc::ImageView;
using vemoproc::PixelFormat;
using vemoproc::Rotation;
using vemoproc::YuvLayout;
using vemoproc::YuvRange;
using vemoproc::YuvView;
using Pos = std::array<int, 2>;

uint8_t pattern(int x, int y, int c) { return static_cast<uint8_t>(x * 37 + y * 11 + c * 90); }

Image decode_bytes(const std::vector<uint8_t>& bytes, bool exif = false) {
  return vemoproc::decode_image(bytes.data(), bytes.size(), exif);
}
Image decode_file(const std::string& path) { return decode_bytes(testimg::read_bytes(path)); }

// Restores the process-wide budget when a test changes it.
struct BudgetGuard {
  uint64_t saved = vemoproc::max_image_pixels();
  ~BudgetGuard() { vemoproc::set_max_image_pixels(saved); }
};

// The first sample of every pixel, row by row.
std::vector<int> firsts(const Image& im) {
  std::vector<int> out;
  for (size_t i = 0; i < im.rgb.size(); i += 3) out.push_back(im.rgb[i]);
  return out;
}

TEST(DecodeImage, GivesStbsPixelsForEveryFormatAndNamesFailures) {
  const std::pair<int, Format> cases[] = {{3, Format::Png}, {1, Format::Png},  {2, Format::Png},
                                          {4, Format::Png}, {3, Format::Jpeg}, {1, Format::Jpeg},
                                          {3, Format::Bmp}, {4, Format::Tga}};
  for (const auto& [channels, format] : cases) {
    const std::string path =
        testimg::write(testimg::make(13, 7, channels, pattern), format,
                       "f" + std::to_string(channels) + std::to_string(int(format)));
    int w = 0, h = 0, comp = 0;
    std::unique_ptr<stbi_uc, void (*)(void*)> want(stbi_load(path.c_str(), &w, &h, &comp, 3),
                                                   &stbi_image_free);
    const Image image = decode_file(path);
    EXPECT_EQ(std::make_pair(image.width, image.height), std::make_pair(w, h));
    EXPECT_EQ(image.rgb, std::vector<uint8_t>(want.get(), want.get() + w * h * 3)) << path;
  }
  // PIC, the format whose decoder is worked around; a truncated one fails cleanly.
  std::vector<uint8_t> rgb(5 * 4 * 3);
  for (size_t i = 0; i < rgb.size(); ++i) rgb[i] = static_cast<uint8_t>(i * 7);
  EXPECT_EQ(decode_file(testimg::write_pic(5, 4, rgb, "x.pic")).rgb, rgb);
  const auto cut =
      testimg::read_bytes(testimg::write_pic(6, 6, std::vector<uint8_t>(108), "t.pic", 40));
  EXPECT_THROW(decode_bytes(cut), std::runtime_error);
  const auto junk = testimg::read_bytes(testimg::write_garbage("junk"));
  EXPECT_THAT([&] { decode_bytes(junk); },
              ThrowsMessage<std::runtime_error>(StartsWith("Failed to decode image bytes: ")));
  EXPECT_THROW(vemoproc::decode_image(nullptr, 0), std::runtime_error);
}

// A JPEG with an APP1 EXIF segment holding only the orientation tag, inserted
// right after the start-of-image marker, in either byte order.
std::vector<uint8_t> with_orientation(std::vector<uint8_t> jpeg, int orientation, bool big_endian) {
  std::vector<uint8_t> seg = {0xFF, 0xE1, 0, 34, 'E', 'x', 'i', 'f', 0, 0};
  const auto put = [&](uint32_t x, int bytes) {
    for (int i = 0; i < bytes; ++i)
      seg.push_back(uint8_t(x >> (big_endian ? 8 * (bytes - 1 - i) : 8 * i)));
  };
  seg.insert(seg.end(), 2, big_endian ? 'M' : 'I');
  // 42, first IFD at 8, one entry: orientation, SHORT, one value; no next IFD.
  put(42, 2), put(8, 4), put(1, 2), put(0x0112, 2), put(3, 2), put(1, 4);
  put(uint32_t(orientation), 2), put(0, 2), put(0, 4);
  jpeg.insert(jpeg.begin() + 2, seg.begin(), seg.end());
  return jpeg;
}

TEST(DecodeImage, ExifOrientationTurnsPhotosUpright) {
  const std::vector<uint8_t> plain =
      testimg::read_bytes(testimg::write(testimg::make(6, 4, 3, pattern), Format::Jpeg, "o.jpg"));
  const Image stored = decode_bytes(plain);
  const int w = stored.width, h = stored.height;
  // For orientations 1..8: where upright pixel (x, y) is found in the stored image.
  const auto source = [&](int o, int x, int y) {
    const Pos by_orientation[] = {{x, y}, {w - 1 - x, y}, {w - 1 - x, h - 1 - y}, {x, h - 1 - y},
                                  {y, x}, {y, h - 1 - x}, {w - 1 - y, h - 1 - x}, {w - 1 - y, x}};
    return by_orientation[o - 1];
  };
  for (int o = 1; o <= 8; ++o)
    for (bool big : {false, true}) {
      const std::vector<uint8_t> bytes = with_orientation(plain, o, big);
      EXPECT_EQ(decode_bytes(bytes).rgb, stored.rgb);  // off by default
      const Image up = decode_bytes(bytes, true);
      ASSERT_EQ(std::make_pair(up.width, up.height),
                o >= 5 ? std::make_pair(h, w) : std::make_pair(w, h));
      for (int y = 0; y < up.height; ++y)
        for (int x = 0; x < up.width; ++x) {
          const auto [sx, sy] = source(o, x, y);
          for (int c = 0; c < 3; ++c)
            ASSERT_EQ(up.rgb[(size_t(y) * up.width + x) * 3 + c], stored.rgb[(sy * w + sx) * 3 + c])
                << "orientation " << o << (big ? " MM" : " II") << " at " << x << "," << y;
        }
    }
  // Out-of-range tags, and an IFD offset past the segment's end, count as 1.
  std::vector<uint8_t> cut = with_orientation(plain, 6, false);
  cut[16] = 0xF0;
  for (const auto& bytes :
       {with_orientation(plain, 9, false), with_orientation(plain, 0, true), cut})
    EXPECT_EQ(decode_bytes(bytes, true).rgb, stored.rgb);
}

// A 300 x 300 PNG, and the same file with its header claiming 20000 x 20000
// pixels (1.2 GB as RGB): refused from the header, before anything is
// allocated or inflated; exactly the budget decodes, one pixel less does not.
TEST(PixelBudget, RefusesFromTheHeaderAndHoldsExactlyAtTheLimit) {
  BudgetGuard guard;
  EXPECT_EQ(vemoproc::max_image_pixels(), 178956970u);
  const std::vector<uint8_t> small = testimg::read_bytes(
      testimg::write(testimg::make(300, 300, 1, pattern), Format::Png, "b.png"));
  std::vector<uint8_t> bomb = small;
  for (int at : {16, 20}) bomb[at + 2] = 20000 >> 8, bomb[at + 3] = 20000 & 255;
  const bool capped = VEMOPROC_TEST_MAX_DIMENSION < 20000;  // refused for its sides first
  EXPECT_THAT([&] { decode_bytes(bomb); }, ThrowsMessage<std::runtime_error>(testing::AllOf(
                                               StartsWith("Failed to decode image bytes: "),
                                               HasSubstr(capped ? "too large" : "budget"))));
  rusage u{};
  getrusage(RUSAGE_SELF, &u);
  EXPECT_LT(u.ru_maxrss / 1024, 400) << "the refusal allocated the image";
  vemoproc::set_max_image_pixels(300 * 300);
  EXPECT_EQ(decode_bytes(small).width, 300);
  vemoproc::set_max_image_pixels(300 * 300 - 1);
  EXPECT_THROW(decode_bytes(small), std::runtime_error);
}

TEST(ToRgb, EveryFormatAndStrideGivesTheSameRgb) {
  const Image img{7, 5, testimg::make(7, 5, 3, pattern).data};
  Image grey = img;  // grey reads the first sample into all three channels
  for (size_t i = 0; i < grey.rgb.size(); ++i) grey.rgb[i] = img.rgb[i - i % 3];
  for (int f = 0; f < 5; ++f)
    for (size_t pad : {0, 1, 13}) {
      const testimg::Layout l = testimg::lay_out(img, PixelFormat(f), pad);
      const Image out = vemoproc::to_rgb(l.view);
      EXPECT_EQ(std::make_pair(out.width, out.height), std::make_pair(7, 5));
      EXPECT_EQ(out.rgb, PixelFormat(f) == PixelFormat::GRAY ? grey.rgb : img.rgb)
          << "format " << f << " pad " << pad;
    }
}

TEST(ToRgb, RotationsTurnTheImageByQuarterTurns) {
  std::vector<uint8_t> g = {0, 1, 2, 3, 4, 5};  // 3 x 2, numbered row by row
  const ImageView v{g.data(), 3, 2, 0, PixelFormat::GRAY};
  const Image cw = vemoproc::to_rgb(v, Rotation::Clockwise90);
  EXPECT_EQ(std::make_pair(cw.width, cw.height), std::make_pair(2, 3));
  EXPECT_EQ(firsts(cw), (std::vector<int>{3, 0, 4, 1, 5, 2}));
  EXPECT_EQ(firsts(vemoproc::to_rgb(v, Rotation::Rotate180)), (std::vector<int>{5, 4, 3, 2, 1, 0}));
  EXPECT_EQ(firsts(vemoproc::to_rgb(v, Rotation::Clockwise270)),
            (std::vector<int>{2, 5, 1, 4, 0, 3}));
  EXPECT_EQ(vemoproc::to_rgb(cw.view(), Rotation::Clockwise270).rgb, vemoproc::to_rgb(v).rgb);
}

TEST(ToRgb, BadViewsAndFramesAreRefusedNamingTheArgument) {
  uint8_t px[16] = {};
  const std::pair<ImageView, const char*> views[] = {
      {{nullptr, 2, 2, 0, PixelFormat::RGB}, "image.data"},
      {{px, 0, 2, 0, PixelFormat::RGB}, "image.width"},
      {{px, 2, -1, 0, PixelFormat::RGB}, "image.width"},
      {{px, 2, 2, 5, PixelFormat::RGB}, "image.stride"},
      {{px, 2, 2, 7, PixelFormat::RGBA}, "image.stride"}};
  for (const auto& [view, what] : views)
    EXPECT_THAT([&] { vemoproc::to_rgb(view); },
                ThrowsMessage<std::runtime_error>(HasSubstr(what)));
  const auto frame = [&](const uint8_t* y, size_t ys, const uint8_t* u, size_t us, int w,
                         YuvLayout l) {
    return YuvView{y, ys, u, us, nullptr, 0, w, 4, l, YuvRange::Video};
  };
  const std::pair<YuvView, const char*> frames[] = {
      {frame(nullptr, 4, px, 4, 4, YuvLayout::NV12), "frame.y"},
      {frame(px, 4, nullptr, 4, 4, YuvLayout::NV21), "frame.u"},
      {frame(px, 4, px, 2, 4, YuvLayout::I420), "frame.v"},
      {frame(px, 3, px, 4, 4, YuvLayout::NV12), "frame.y_stride"},
      {frame(px, 4, px, 3, 4, YuvLayout::NV12), "frame.u_stride"},
      {frame(px, 4, px, 4, 0, YuvLayout::NV12), "frame.width"}};
  for (const auto& [f, what] : frames)
    EXPECT_THAT([&] { vemoproc::to_rgb(f); }, ThrowsMessage<std::runtime_error>(HasSubstr(what)));
}

// Colours worked out by hand from the BT.601 formulas, in both ranges.
struct Colour {
  uint8_t y, u, v;
  std::array<uint8_t, 3> video, full;
};
const Colour kColours[] = {{16, 128, 128, {0, 0, 0}, {16, 16, 16}},
                           {235, 128, 128, {255, 255, 255}, {235, 235, 235}},
                           {128, 128, 128, {130, 130, 130}, {128, 128, 128}},
                           {81, 90, 240, {254, 0, 0}, {238, 14, 14}},
                           {145, 54, 34, {0, 255, 1}, {13, 238, 14}},
                           {41, 240, 110, {0, 0, 255}, {16, 15, 239}}};

// Frames whose 2 x 2 blocks each hold one of the colours (the last row and
// column of odd sizes are half blocks), in every layout, padded and tight
// rows, with the wide paths on and off: every pixel is its block's colour.
TEST(YuvToRgb, EveryLayoutGivesTheHandWorkedColours) {
  for (bool wide : {true, false}) {
    vemoproc::detail::set_wide_paths_enabled(wide);
    for (auto [w, h] : {std::array<int, 2>{1, 1}, {5, 3}, {4, 4}, {37, 5}, {64, 3}}) {
      const int cw = (w + 1) / 2, ch = (h + 1) / 2;
      const auto colour = [&](int cx, int cy) -> const Colour& {
        return kColours[(cx + 2 * cy) % 6];
      };
      const size_t ys = w + 3, is = 2 * cw + 1;
      std::vector<uint8_t> Y(ys * h, 0xEE), U(cw * ch), V(cw * ch), nv12(is * ch, 0xEE),
          nv21 = nv12, tight(2 * cw * ch);
      for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) Y[y * ys + x] = colour(x / 2, y / 2).y;
      for (int y = 0; y < ch; ++y)
        for (int x = 0; x < cw; ++x) {
          const Colour& c = colour(x, y);
          U[y * cw + x] = nv12[y * is + 2 * x] = nv21[y * is + 2 * x + 1] =
              tight[2 * (y * cw + x)] = c.u;
          V[y * cw + x] = nv12[y * is + 2 * x + 1] = nv21[y * is + 2 * x] =
              tight[2 * (y * cw + x) + 1] = c.v;
        }
      for (YuvRange r : {YuvRange::Video, YuvRange::Full}) {
        std::vector<uint8_t> want;
        for (int y = 0; y < h; ++y)
          for (int x = 0; x < w; ++x) {
            const Colour& c = colour(x / 2, y / 2);
            const auto& px = r == YuvRange::Video ? c.video : c.full;
            want.insert(want.end(), px.begin(), px.end());
          }
        const YuvView frames[] = {
            {Y.data(), ys, nv12.data(), is, nullptr, 0, w, h, YuvLayout::NV12, r},
            {Y.data(), ys, nv21.data(), is, nullptr, 0, w, h, YuvLayout::NV21, r},
            {Y.data(), ys, tight.data(), 0, nullptr, 0, w, h, YuvLayout::NV12, r},
            {Y.data(), ys, U.data(), 0, V.data(), 0, w, h, YuvLayout::I420, r}};
        for (const YuvView& f : frames) {
          const Image plain = vemoproc::to_rgb(f);
          EXPECT_EQ(plain.rgb, want) << w << "x" << h << " layout " << int(f.layout) << " u_stride "
                                     << f.u_stride << " wide " << wide;
          EXPECT_EQ(vemoproc::to_rgb(f, Rotation::Clockwise90).rgb,
                    vemoproc::to_rgb(plain.view(), Rotation::Clockwise90).rgb);
        }
      }
    }
  }
  vemoproc::detail::set_wide_paths_enabled(true);
}

}  // namespace

// ---------------------------------------------------------------------------
// Reference decoding and resampling. Bit-exactness against OpenCV and Pillow
// is python/tests/test_reference.py's; the digest table holds the bytes on
// every architecture, wide paths on and off, one thread or four.
// ---------------------------------------------------------------------------

namespace {

using vemoproc::Decoder;
using vemoproc::Resample;

// The JPEG with its start-of-frame claiming width x height (the scan stays small).
std::vector<uint8_t> with_frame_size(std::vector<uint8_t> jpeg, int width, int height) {
  for (size_t i = 2; i + 9 < jpeg.size(); ++i)
    if (jpeg[i] == 0xFF && jpeg[i + 1] == 0xC0) {
      const uint8_t size[4] = {uint8_t(height >> 8), uint8_t(height), uint8_t(width >> 8),
                               uint8_t(width)};
      std::copy(size, size + 4, jpeg.begin() + i + 5);
      return jpeg;
    }
  ADD_FAILURE() << "no baseline start-of-frame";
  return jpeg;
}

TEST(ReferenceDecode, TurnsJpegsUprightAndRefusesBadInput) {
  const std::string path =
      testimg::write(testimg::make(6, 4, 3, pattern), Format::Jpeg, "reference.jpg");
  const std::vector<uint8_t> plain = testimg::read_bytes(path);
  const Image stored = vemoproc::decode_image(plain.data(), plain.size(), Decoder::Reference);
  ASSERT_EQ(stored.width, 6);
  ASSERT_EQ(stored.height, 4);
  const struct {
    int orientation;
    Rotation turn;
  } turns[] = {{1, Rotation::None},
               {3, Rotation::Rotate180},
               {6, Rotation::Clockwise90},
               {8, Rotation::Clockwise270}};
  for (const auto& t : turns) {
    const std::vector<uint8_t> bytes = with_orientation(plain, t.orientation, t.orientation > 3);
    const Image got = vemoproc::decode_image(bytes.data(), bytes.size(), Decoder::Reference);
    EXPECT_EQ(got.rgb, vemoproc::to_rgb(stored.view(), t.turn).rgb) << t.orientation;
  }
  EXPECT_EQ(vemoproc::decode_image_file(path, Decoder::Reference).rgb, stored.rgb);
  EXPECT_EQ(vemoproc::decode_image_file(path).rgb, decode_file(path).rgb);
  // Other formats: stb's pixels.
  const std::string png = testimg::write(testimg::make(5, 3, 3, pattern), Format::Png, "r.png");
  EXPECT_EQ(vemoproc::decode_image_file(png, Decoder::Reference).rgb, decode_file(png).rgb);

  const struct {
    std::vector<uint8_t> bytes;
    std::string message;
  } bad[] = {
      {{}, "Failed to decode image bytes: no bytes"},
      {{0xFF, 0xD8, 0xFF, 0xE0, 'j', 'u', 'n', 'k'},
       "Failed to decode image bytes: JPEG datastream contains no image"},
      // Refused from the header, under a budget of 10 megapixels (sides
      // within every build's side cap).
      {with_frame_size(plain, 4000, 3000),
       "Failed to decode image bytes: 4000 x 3000 pixels exceed the image pixel budget of "
       "10000000"},
  };
  const uint64_t saved = vemoproc::max_image_pixels();
  vemoproc::set_max_image_pixels(10000000);
  for (const auto& b : bad)
    EXPECT_THAT([&] { vemoproc::decode_image(b.bytes.data(), b.bytes.size(), Decoder::Reference); },
                testing::ThrowsMessage<std::runtime_error>(testing::StrEq(b.message)));
  vemoproc::set_max_image_pixels(saved);
  EXPECT_THAT([] { vemoproc::decode_image_file("/nonexistent/a.jpg", Decoder::Reference); },
              testing::ThrowsMessage<std::runtime_error>(
                  testing::StrEq("Failed to load image: /nonexistent/a.jpg")));
}

TEST(ReferenceResize, BadArgumentsAreRefusedNamingThem) {
  BudgetGuard guard;
  uint8_t px[12] = {};
  const ImageView ok{px, 2, 2, 0, PixelFormat::RGB};
  const struct {
    ImageView view;
    int width, height;
    Resample method;
    const char* message;
  } cases[] = {
      {{nullptr, 2, 2, 0, PixelFormat::RGB},
       4,
       4,
       Resample::OpenCVLinear,
       "resize(): image.data is null"},
      {{px, 0, 2, 0, PixelFormat::RGB},
       4,
       4,
       Resample::PillowBicubic,
       "resize(): image.width and image.height must be positive"},
      {{px, 2, 2, 5, PixelFormat::RGB},
       4,
       4,
       Resample::PillowBilinear,
       "resize(): image.stride is shorter than a row"},
      {ok, 0, 4, Resample::OpenCVLinear, "resize(): width and height must be at least 1"},
      {ok, 4, -1, Resample::PillowBicubic, "resize(): width and height must be at least 1"},
      {ok, 4, 4, Resample(7), "resize(): method is not a Resample value"},
      {ok, 11, 10, Resample::OpenCVLinear,
       "resize(): 11 x 10 pixels exceed the image pixel budget of 100"},
  };
  vemoproc::set_max_image_pixels(100);
  for (const auto& c : cases)
    EXPECT_THAT([&] { vemoproc::resize(c.view, c.width, c.height, c.method); },
                testing::ThrowsMessage<std::runtime_error>(testing::StrEq(c.message)));
  EXPECT_EQ(vemoproc::resize(ok, 10, 10, Resample::OpenCVLinear).rgb.size(), 300u);
}

TEST(ReferenceResize, KnownValuesAndCopies) {
  // 0 and 255 stretched to four samples: 1/4 and 3/4 of the way, both rounded.
  const uint8_t two[2] = {0, 255};
  for (Resample m : {Resample::OpenCVLinear, Resample::PillowBilinear}) {
    const Image out = vemoproc::resize({two, 2, 1, 0, PixelFormat::GRAY}, 4, 1, m);
    EXPECT_EQ(out.rgb, (std::vector<uint8_t>{0, 64, 191, 255})) << int(m);
    EXPECT_EQ(out.format, PixelFormat::GRAY);
  }
  // OpenCV halves exactly through the 2 x 2 mean: (0 + 1 + 2 + 4 + 2) >> 2.
  const uint8_t block[4] = {0, 1, 2, 4};
  EXPECT_EQ(vemoproc::resize({block, 2, 2, 0, PixelFormat::GRAY}, 1, 1, Resample::OpenCVLinear).rgb,
            std::vector<uint8_t>{2});
  // The same size is a plain copy of the rows (no premultiplication round
  // trip for RGBA), in the view's format.
  const uint8_t rgba[2 * 10] = {200, 100, 50, 1, 9, 8, 7, 255, 0, 0, 3, 4, 5, 6, 7, 8, 9, 10};
  const Image same =
      vemoproc::resize({rgba, 2, 2, 10, PixelFormat::BGRA}, 2, 2, Resample::PillowBicubic);
  EXPECT_EQ(same.format, PixelFormat::BGRA);
  std::vector<uint8_t> rows(rgba, rgba + 8);
  rows.insert(rows.end(), rgba + 10, rgba + 18);
  EXPECT_EQ(same.rgb, rows);
}

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
