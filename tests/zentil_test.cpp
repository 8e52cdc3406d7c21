#include "zentil.hpp"
#include <gtest/gtest.h>

#include <cstring>
#include <stdexcept>

#include "test_images.hpp"

namespace {

using testimg::Format;
using zentil::ZentilPreprocessor;

// 1/255 as the float with bit pattern 0x3B808081.
float k255() {
  const uint32_t bits = 0x3B808081u;
  float k = 0;
  std::memcpy(&k, &bits, sizeof k);
  return k;
}

float expected(uint8_t v) { return (static_cast<float>(v) * k255() - 0.5f) / 0.5f; }

uint8_t pattern(int x, int y, int c) { return static_cast<uint8_t>(x * 11 + y * 5 + c * 90); }

TEST(ZentilPreprocessor, SameSizeKeepsEveryPixelWithBatchAxis) {
  ZentilPreprocessor p(6);
  EXPECT_EQ(p.size, 6);
  EXPECT_EQ(p.mean[1], 0.5f);
  EXPECT_EQ(p.std[2], 0.5f);
  const auto out =
      p.process(testimg::write(testimg::make(6, 6, 3, pattern), Format::Png, "pattern.png"));
  ASSERT_EQ(out.shape(), (std::vector<size_t>{1, 3, 6, 6}));
  for (int c = 0; c < 3; ++c)
    for (int y = 0; y < 6; ++y)
      for (int x = 0; x < 6; ++x) ASSERT_EQ(out(0, c, y, x), expected(pattern(x, y, c)));
}

// Red, green and blue vertical bands of 8, 16 and 8 columns: a stretch keeps
// red on the left edge and blue on the right, where a centre crop would show
// green on both.
TEST(ZentilPreprocessor, StretchesInsteadOfCropping) {
  const auto bands = testimg::make(32, 8, 3, [](int x, int, int c) -> uint8_t {
    const int band = x < 8 ? 0 : x < 24 ? 1 : 2;
    return c == band ? 255 : 0;
  });
  ZentilPreprocessor p(8);
  const auto out = p.process(testimg::write(bands, Format::Bmp, "bands.bmp"));
  for (int y = 0; y < 8; ++y) {
    EXPECT_EQ(out(0, 0, y, 0), expected(255));
    EXPECT_EQ(out(0, 1, y, 0), -1.0f);
    EXPECT_EQ(out(0, 2, y, 7), expected(255));
    EXPECT_EQ(out(0, 1, y, 7), -1.0f);
  }
}

TEST(ZentilPreprocessor, GreyFilesAndValueRange) {
  ZentilPreprocessor p(3);
  const auto grey_alpha = testimg::make(5, 4, 2, [](int, int, int c) { return c == 0 ? 128 : 30; });
  const auto out = p.process(testimg::write(grey_alpha, Format::Png, "ga.png"));
  // 128 maps to (128 * k - 0.5) / 0.5, about 0.00392; 0 maps to -1 exactly.
  const float mid = (128.0f * k255() - 0.5f) / 0.5f;
  EXPECT_NEAR(mid, 0.00392f, 1e-5f);
  for (int c = 0; c < 3; ++c) EXPECT_EQ(out(0, c, 1, 2), mid);
  const auto black =
      p.process(testimg::write(testimg::solid(3, 7, 0, 0, 0), Format::Jpeg, "k.jpg"));
  EXPECT_EQ(black(0, 2, 2, 2), -1.0f);
}

TEST(ZentilPreprocessor, SizeZeroAndErrors) {
  const std::string ok = testimg::write(testimg::solid(4, 4, 1, 2, 3), Format::Tga, "ok.tga");
  EXPECT_EQ(ZentilPreprocessor(0).process(ok).shape(), (std::vector<size_t>{1, 3, 0, 0}));
  for (int bad : {-1, (1 << 24) + 1}) {
    try {
      ZentilPreprocessor(bad).process(ok);
      FAIL() << bad;
    } catch (const std::runtime_error& e) {
      EXPECT_NE(std::string(e.what()).find("size"), std::string::npos);
    }
  }
  const std::string missing = (testimg::scratch_dir() / "none.jpg").string();
  try {
    ZentilPreprocessor(4).process(missing);
    FAIL();
  } catch (const std::runtime_error& e) {
    EXPECT_EQ(std::string(e.what()), "Failed to load image: " + missing);
  }
  EXPECT_THROW(ZentilPreprocessor(4).process(testimg::write_garbage("z.bmp")), std::runtime_error);
}

}  // namespace
