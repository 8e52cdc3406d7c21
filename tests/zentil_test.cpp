#include "zentil.hpp"
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <stdexcept>

#include "test_images.hpp"

namespace {

using testimg::Format;
using testing::HasSubstr;
using testing::ThrowsMessage;
using zentil::ZentilPreprocessor;

// ((float)v * k - 0.5) / 0.5 with k the float of bit pattern 0x3B808081.
float expected(int v) {
  const uint32_t bits = 0x3B808081u;
  float k = 0;
  std::memcpy(&k, &bits, sizeof k);
  return (static_cast<float>(v) * k - 0.5f) / 0.5f;
}

uint8_t pattern(int x, int y, int c) { return static_cast<uint8_t>(x * 11 + y * 5 + c * 90); }

TEST(ZentilPreprocessor, SameSizeKeepsEveryPixelWithBatchAxis) {
  const auto out = ZentilPreprocessor(6).process(
      testimg::write(testimg::make(6, 6, 3, pattern), Format::Png, "pattern.png"));
  ASSERT_EQ(out.shape(), (std::vector<size_t>{1, 3, 6, 6}));
  for (int c = 0; c < 3; ++c)
    for (int y = 0; y < 6; ++y)
      for (int x = 0; x < 6; ++x) ASSERT_EQ(out(0, c, y, x), expected(pattern(x, y, c)));
  // Mid-grey from a grey + alpha file: about 0.00392 on all three channels.
  const auto grey = testimg::make(5, 4, 2, [](int, int, int c) { return c == 0 ? 128 : 30; });
  const auto g = ZentilPreprocessor(3).process(testimg::write(grey, Format::Png, "ga.png"));
  EXPECT_NEAR(expected(128), 0.00392f, 1e-5f);
  for (int c = 0; c < 3; ++c) EXPECT_EQ(g(0, c, 1, 2), expected(128));
}

// Red, green and blue vertical bands of 8, 16 and 8 columns: a stretch keeps
// red on the left edge and blue on the right, where a centre crop would show
// green on both.
TEST(ZentilPreprocessor, StretchesInsteadOfCropping) {
  const auto bands = testimg::make(32, 8, 3, [](int x, int, int c) -> uint8_t {
    const int band = x < 8 ? 0 : x < 24 ? 1 : 2;
    return c == band ? 255 : 0;
  });
  const auto out = ZentilPreprocessor(8).process(testimg::write(bands, Format::Bmp, "bands.bmp"));
  for (int y = 0; y < 8; ++y) {
    EXPECT_EQ(out(0, 0, y, 0), expected(255));
    EXPECT_EQ(out(0, 1, y, 0), -1.0f);
    EXPECT_EQ(out(0, 2, y, 7), expected(255));
    EXPECT_EQ(out(0, 1, y, 7), -1.0f);
  }
}

TEST(ZentilPreprocessor, SizeZeroAndErrors) {
  const std::string ok = testimg::write(testimg::solid(4, 4, 1, 2, 3), Format::Tga, "ok.tga");
  EXPECT_EQ(ZentilPreprocessor(0).process(ok).shape(), (std::vector<size_t>{1, 3, 0, 0}));
  for (int bad : {-1, (1 << 24) + 1}) {
    EXPECT_THAT([&] { ZentilPreprocessor(bad).process(ok); },
                ThrowsMessage<std::runtime_error>(HasSubstr("size")));
  }
  const std::string missing = (testimg::scratch_dir() / "none.png").string();
  EXPECT_THAT([&] { ZentilPreprocessor(4).process(missing); },
              ThrowsMessage<std::runtime_error>("Failed to load image: " + missing));
  EXPECT_THROW(ZentilPreprocessor(4).process(testimg::write_garbage("z.bmp")), std::runtime_error);
}

// A caller's pixels give exactly the path result, in every format and with
// padded rows; the stretched image is held to the pixel budget.
TEST(ZentilPreprocessor, ViewsGiveThePathResultWithinTheBudget) {
  const std::string path = testimg::write(
      testimg::make(23, 40, 3, [](int x, int y, int c) { return (x * 9 + y * 5 + c * 60) % 256; }),
      Format::Png, "v.png");
  const vemoproc::Image decoded = testimg::decode(path);
  ZentilPreprocessor p(17);
  const xt::xarray<float> want = p.process(path);
  for (auto format : {vemoproc::PixelFormat::RGB, vemoproc::PixelFormat::RGBA}) {
    for (size_t pad : {0, 3}) {
      EXPECT_TRUE(p.process(testimg::lay_out(decoded, format, pad).view) == want);
    }
  }
  const uint64_t saved = vemoproc::max_image_pixels();
  vemoproc::set_max_image_pixels(17 * 17 - 1);
  EXPECT_THAT([&] { p.process(path); },
              testing::ThrowsMessage<std::runtime_error>("Failed to load image: " + path));
  vemoproc::set_max_image_pixels(30 * 30);
  EXPECT_THAT([&] { ZentilPreprocessor(31).process(decoded.view()); },
              testing::ThrowsMessage<std::runtime_error>("Failed to resize image"));
  vemoproc::set_max_image_pixels(saved);
}

// The budget is checked before the output tensor is allocated (16000 x 16000
// would reserve 2.9 GB), in a child that may grow its address space by 512 MiB.
TEST(ZentilPreprocessor, SizesOverTheBudgetAreRefusedBeforeAllocating) {
  const uint8_t px[3] = {1, 2, 3};
  EXPECT_EQ(testimg::in_child(
                [&] {
                  try {
                    ZentilPreprocessor(16000).process({px, 1, 1, 0, vemoproc::PixelFormat::RGB});
                  } catch (const std::runtime_error& e) {
                    return std::string(e.what()) == "Failed to resize image";
                  }
                  return false;
                },
                512),
            0);
}

}  // namespace
