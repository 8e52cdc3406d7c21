#include "convnext.hpp"
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <stdexcept>

#include "test_images.hpp"

namespace {

using convnext::ConvNextPreprocessor;
using testimg::Format;

// 1/255 as the float with bit pattern 0x3B808081.
float k255() {
  const uint32_t bits = 0x3B808081u;
  float k = 0;
  std::memcpy(&k, &bits, sizeof k);
  return k;
}

const float kMean[3] = {0.485f, 0.456f, 0.406f};
const float kStd[3] = {0.229f, 0.224f, 0.225f};

float expected(uint8_t v, int c) { return (static_cast<float>(v) * k255() - kMean[c]) / kStd[c]; }

// A lossless pattern with distinct neighbours in every direction.
uint8_t pattern(int x, int y, int c) { return static_cast<uint8_t>(x * 7 + y * 13 + c * 85); }

// Asserts out(c, y, x) is the normalised source pixel (x + left, y + top).
void expect_crop_of_pattern(const xt::xarray<float>& out, int size, int left, int top) {
  ASSERT_EQ(out.shape(), (std::vector<size_t>{3, size_t(size), size_t(size)}));
  for (int c = 0; c < 3; ++c)
    for (int y = 0; y < size; ++y)
      for (int x = 0; x < size; ++x)
        ASSERT_EQ(out(c, y, x), expected(pattern(x + left, y + top, c), c))
            << "c=" << c << " y=" << y << " x=" << x;
}

std::string pattern_file(int w, int h, const std::string& name) {
  return testimg::write(testimg::make(w, h, 3, pattern), Format::Png, name);
}

TEST(ConvNextPreprocessor, StoresArgumentsAndFixedStatistics) {
  const ConvNextPreprocessor p(224, 0.875f);
  EXPECT_EQ(p.size, 224);
  EXPECT_EQ(p.crop_pct, 0.875f);
  for (int c = 0; c < 3; ++c) {
    EXPECT_EQ(p.mean[c], kMean[c]);
    EXPECT_EQ(p.std[c], kStd[c]);
  }
}

// When the short edge already equals size / crop_pct the resize keeps every
// pixel, so the crop offsets can be checked exactly.
TEST(ConvNextPreprocessor, CentreCropOffsets) {
  // 224 / 0.875 = 256 = height: landscape, new width 300, left 38, top 16.
  ConvNextPreprocessor p224(224, 0.875f);
  expect_crop_of_pattern(p224.process(pattern_file(300, 256, "land.png")), 224, 38, 16);

  // Short edge 2 / 0.5 = 4; width 8 -> left 3, top 1.
  ConvNextPreprocessor half(2, 0.5f);
  expect_crop_of_pattern(half.process(pattern_file(8, 4, "half.png")), 2, 3, 1);

  // Odd margins: the extra pixel stays right (7 - 4 = 3 -> left 1) and bottom
  // (9 - 4 = 5 -> top 2, portrait branch fixes the width).
  ConvNextPreprocessor p4(4, 1.0f);
  expect_crop_of_pattern(p4.process(pattern_file(7, 4, "odd_w.png")), 4, 1, 0);
  expect_crop_of_pattern(p4.process(pattern_file(4, 9, "odd_h.png")), 4, 0, 2);
  // crop_pct 1 on a square: the whole image.
  expect_crop_of_pattern(p4.process(pattern_file(4, 4, "square.png")), 4, 0, 0);
}

TEST(ConvNextPreprocessor, NormalisationOfBlackAndWhite) {
  ConvNextPreprocessor p(8, 0.875f);
  const auto black =
      p.process(testimg::write(testimg::solid(20, 12, 0, 0, 0), Format::Bmp, "b.bmp"));
  const auto white =
      p.process(testimg::write(testimg::solid(12, 20, 255, 255, 255), Format::Tga, "w.tga"));
  const float k = k255();
  for (int c = 0; c < 3; ++c) {
    EXPECT_EQ(black(c, 3, 5), (0.0f - kMean[c]) / kStd[c]);
    EXPECT_EQ(white(c, 7, 0), (255.0f * k - kMean[c]) / kStd[c]);
  }
}

// Bytes are scaled by multiplying with k, which for some values is not the
// float that a division by 255 gives.
TEST(ConvNextPreprocessor, ScalesByMultiplyingWithTheReciprocal) {
  int v = 0;
  while (v < 256 && static_cast<float>(v) * k255() == static_cast<float>(v) / 255.0f) ++v;
  ASSERT_LT(v, 256);
  const auto g = static_cast<uint8_t>(v);
  ConvNextPreprocessor p(2, 1.0f);
  const auto out = p.process(testimg::write(testimg::solid(2, 2, g, g, g), Format::Png, "v.png"));
  EXPECT_EQ(out(0, 1, 1), (static_cast<float>(v) * k255() - kMean[0]) / kStd[0]);
}

TEST(ConvNextPreprocessor, GreyAndRgbaFilesGiveThreeChannels) {
  ConvNextPreprocessor p(4, 1.0f);
  const auto grey = p.process(testimg::write(
      testimg::make(4, 4, 1, [](int, int, int) { return 90; }), Format::Png, "g.png"));
  const auto rgba = p.process(testimg::write(
      testimg::make(4, 4, 4, [](int, int, int c) { return c == 3 ? 7 : 40 * (c + 1); }),
      Format::Png, "rgba.png"));
  ASSERT_EQ(grey.shape(0), 3u);
  for (int c = 0; c < 3; ++c) {
    EXPECT_EQ(grey(c, 2, 1), expected(90, c));
    EXPECT_EQ(rgba(c, 1, 3), expected(static_cast<uint8_t>(40 * (c + 1)), c));
  }
}

TEST(ConvNextPreprocessor, RejectsBadFilesAndArguments) {
  ConvNextPreprocessor p(4, 0.875f);
  const std::string missing = (testimg::scratch_dir() / "missing.png").string();
  try {
    p.process(missing);
    FAIL();
  } catch (const std::runtime_error& e) {
    EXPECT_EQ(std::string(e.what()), "Failed to load image: " + missing);
  }
  EXPECT_THROW(p.process(testimg::write_garbage("junk.png")), std::runtime_error);

  const std::string ok = pattern_file(6, 6, "ok.png");
  for (float bad : {0.0f, -0.5f, 1.01f, NAN}) {
    try {
      ConvNextPreprocessor(4, bad).process(ok);
      FAIL() << bad;
    } catch (const std::runtime_error& e) {
      EXPECT_NE(std::string(e.what()).find("crop_pct"), std::string::npos);
    }
  }
  for (int bad : {0, -3}) {
    try {
      ConvNextPreprocessor(bad, 0.5f).process(ok);
      FAIL() << bad;
    } catch (const std::runtime_error& e) {
      EXPECT_NE(std::string(e.what()).find("size"), std::string::npos);
    }
  }
  // A tiny but valid crop_pct saturates the short edge and wraps the 32-bit
  // product: the resized size is checked against the crop.
  EXPECT_THROW(ConvNextPreprocessor(224, 1e-8f).process(ok), std::runtime_error);
}

}  // namespace
