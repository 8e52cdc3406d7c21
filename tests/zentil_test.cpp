#include "zentil.hpp"
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <tuple>
#include <stdexcept>

#include "test_images.hpp"

namespace {

using testimg::Format;
using testing::HasSubstr;
using testing::ThrowsMessage;
using zentil::ZentilPreprocessor;

// (v * k - 0.5) / 0.5, k the float with bit pattern 0x3B808081.
float expected(int v) { return (static_cast<float>(v) * 0x1.010102p-8f - 0.5f) / 0.5f; }

uint8_t pattern(int x, int y, int c) { return static_cast<uint8_t>(x * 11 + y * 5 + c * 90); }

// The same size keeps every pixel (with a batch axis). Red, green and blue
// vertical bands of 8, 16 and 8 columns squeezed to 8: a stretch keeps red on
// the left edge and blue on the right, where a centre crop would show green.
TEST(ZentilPreprocessor, StretchesToTheSizeKeepingEveryPixelAtTheSameSize) {
  const auto out = ZentilPreprocessor(6).process(
      testimg::write(testimg::make(6, 6, 3, pattern), Format::Png, "pattern.png"));
  ASSERT_EQ(out.shape(), (std::vector<size_t>{1, 3, 6, 6}));
  for (size_t i = 0; i < out.size(); ++i)
    ASSERT_EQ(out.flat(i), expected(pattern(i % 6, i / 6 % 6, int(i / 36)))) << i;
  const auto bands = testimg::make(32, 8, 3, [](int x, int, int c) -> uint8_t {
    return c == (x < 8 ? 0 : x < 24 ? 1 : 2) ? 255 : 0;
  });
  const auto b = ZentilPreprocessor(8).process(testimg::write(bands, Format::Bmp, "bands.bmp"));
  for (int y = 0; y < 8; ++y)
    EXPECT_TRUE(b(0, 0, y, 0) == expected(255) && b(0, 1, y, 0) == -1.0f &&
                b(0, 2, y, 7) == expected(255) && b(0, 1, y, 7) == -1.0f)
        << y;
}

// A caller's pixels give exactly the path result, in every format and with
// padded rows; size 0 gives an empty image; refusals name their reason.
TEST(ZentilPreprocessor, ViewsSizesAndErrors) {
  const std::string path = testimg::write(testimg::make(23, 40, 3, pattern), Format::Png, "v.png");
  ZentilPreprocessor p(17);
  for (auto format : {vemoproc::PixelFormat::RGB, vemoproc::PixelFormat::RGBA})
    for (size_t pad : {0, 3})
      EXPECT_TRUE(p.process(testimg::lay_out(testimg::decode(path), format, pad).view) ==
                  p.process(path));
  EXPECT_EQ(ZentilPreprocessor(0).process(path).shape(), (std::vector<size_t>{1, 3, 0, 0}));
  const std::string missing = (testimg::scratch_dir() / "none.png").string();
  const std::string small = testimg::write(testimg::solid(4, 4, 1, 2, 3), Format::Tga, "s.tga");
  const uint64_t saved = vemoproc::max_image_pixels();
  const std::tuple<int, std::string, uint64_t, std::string> errors[] = {
      {-1, path, saved, "size must not be negative"},
      {(1 << 24) + 1, path, saved, "size must not exceed 16777216"},
      {4, missing, saved, "Failed to load image: " + missing},
      {4, testimg::write_garbage("z.bmp"), saved, ""},
      {17, path, 23 * 40 - 1, "Failed to load image: " + path},  // the decode
      {31, small, 30 * 30, "Failed to resize image"}};
  for (const auto& [size, in, budget, what] : errors) {
    vemoproc::set_max_image_pixels(budget);
    const auto run = [s = size, f = in] { ZentilPreprocessor(s).process(f); };
    EXPECT_THAT(run, ThrowsMessage<std::runtime_error>(HasSubstr(what))) << size;
  }
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

namespace {

TEST(ZentilMatchPython, RescalesAsNumpyAndKeepsTheSizeRules) {
  // Every byte value at its own size: no resize, float(v / 255.0) normalised.
  std::vector<uint8_t> rgb(16 * 16 * 3);
  for (size_t i = 0; i < rgb.size(); ++i) rgb[i] = static_cast<uint8_t>(i / 3);
  const vemoproc::ImageView view{rgb.data(), 16, 16, 0, vemoproc::PixelFormat::RGB};
  const auto python = vemoproc::Pipeline::MatchPython;
  const auto out = zentil::ZentilPreprocessor(16).process(view, python);
  for (int v = 0; v < 256; ++v) {
    ASSERT_EQ(out(0, 2, v / 16, v % 16), (static_cast<float>(v / 255.0) - 0.5f) / 0.5f) << v;
  }
  EXPECT_EQ(zentil::ZentilPreprocessor(0).process(view, python).shape(3), 0u);
  EXPECT_THROW(zentil::ZentilPreprocessor(-1).process(view, python), std::runtime_error);
}

}  // namespace
