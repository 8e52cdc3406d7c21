#include "convnext.hpp"
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <stdexcept>

#include "test_images.hpp"

namespace {

using convnext::ConvNextPreprocessor;
using testimg::Format;
using testing::HasSubstr;
using testing::ThrowsMessage;

// (v * k - mean[c]) / std[c], k the float with bit pattern 0x3B808081 (for
// some bytes not the float a division by 255 gives).
constexpr float kScale = 0x1.010102p-8f;  // bits 0x3B808081
float expected(int v, int c) {
  const float mean[3] = {0.485f, 0.456f, 0.406f}, std_dev[3] = {0.229f, 0.224f, 0.225f};
  return (static_cast<float>(v) * kScale - mean[c]) / std_dev[c];
}

// A lossless pattern with distinct neighbours in every direction.
uint8_t pattern(int x, int y, int c) { return static_cast<uint8_t>(x * 7 + y * 13 + c * 85); }

// When the short edge already equals size / crop_pct the resize keeps every
// pixel, so out(c, y, x) is the normalised pixel (x + left, y + top). Odd
// margins leave the extra pixel right and bottom; crop_pct 1 on a square keeps
// the whole image.
TEST(ConvNextPreprocessor, CentreCropOffsetsAndNormalisation) {
  struct Case {
    int w, h, size;
    float crop_pct;
    int left, top;
  };
  for (const Case& t :
       {Case{300, 256, 224, 0.875f, 38, 16}, Case{8, 4, 2, 0.5f, 3, 1}, Case{7, 4, 4, 1.0f, 1, 0},
        Case{4, 9, 4, 1.0f, 0, 2}, Case{4, 4, 4, 1.0f, 0, 0}}) {
    const auto out =
        ConvNextPreprocessor(t.size, t.crop_pct)
            .process(testimg::write(testimg::make(t.w, t.h, 3, pattern), Format::Png, "p.png"));
    ASSERT_EQ(out.shape(), (std::vector<size_t>{3, size_t(t.size), size_t(t.size)}));
    for (int c = 0; c < 3; ++c)
      for (int y = 0; y < t.size; ++y)
        for (int x = 0; x < t.size; ++x)
          ASSERT_EQ(out(c, y, x), expected(pattern(x + t.left, y + t.top, c), c))
              << t.w << "x" << t.h;
  }
  // A grey file reads as RGB, at a level where v * k is not v / 255.
  int v = 0;
  while (static_cast<float>(v) * kScale == static_cast<float>(v) / 255.0f) ++v;
  const auto g = ConvNextPreprocessor(4, 1.0f).process(testimg::write(
      testimg::make(5, 4, 1, [v](int, int, int) { return v; }), Format::Png, "g.png"));
  for (int c = 0; c < 3; ++c) EXPECT_EQ(g(c, 3, 2), expected(v, c)) << c;
}

// A caller's pixels give exactly the path result: RGB read in place (tight
// and padded rows) and the other formats through their RGB conversion.
TEST(ConvNextPreprocessor, ViewsGiveThePathResult) {
  const std::string path = testimg::write(testimg::make(45, 31, 3, pattern), Format::Jpeg, "v.jpg");
  ConvNextPreprocessor p(16, 0.875f);
  const xt::xarray<float> want = p.process(path);
  for (auto format :
       {vemoproc::PixelFormat::RGB, vemoproc::PixelFormat::BGR, vemoproc::PixelFormat::BGRA})
    for (size_t pad : {0, 5})
      EXPECT_TRUE(p.process(testimg::lay_out(testimg::decode(path), format, pad).view) == want)
          << int(format) << " pad " << pad;
}

// Refusals name the argument; a tiny but valid crop_pct saturates the short
// edge (the resized size is checked against the crop); a tiny file of extreme
// aspect ratio would need a 2,048,000 x 256 resize: over the pixel budget.
TEST(ConvNextPreprocessor, RejectsBadFilesAndArguments) {
  const std::string missing = (testimg::scratch_dir() / "missing.png").string();
  const std::string ok = testimg::write(testimg::solid(6, 6, 1, 2, 3), Format::Png, "ok.png");
  const std::string wide = testimg::write(testimg::solid(8000, 1, 9, 9, 9), Format::Png, "w.png");
  const auto run = [](int size, float crop_pct, std::string path) {
    return [=] { ConvNextPreprocessor(size, crop_pct).process(path); };
  };
  const std::pair<std::function<void()>, std::string> errors[] = {
      {run(4, 0.875f, missing), "Failed to load image: " + missing},
      {run(4, 1.0f, testimg::write_garbage("junk.png")), ""},
      {run(4, 0.0f, ok), "crop_pct"},
      {run(4, -0.5f, ok), "crop_pct"},
      {run(4, 1.01f, ok), "crop_pct"},
      {run(4, NAN, ok), "crop_pct"},
      {run(0, 0.5f, ok), "size must be at least 1"},
      {run(-3, 0.5f, ok), "size must be at least 1"},
      {run(224, 1e-8f, ok), ""},
      {run(224, 0.875f, wide), "Failed to resize image"},
      {[] {
         ConvNextPreprocessor(4, 1.0f).process(
             vemoproc::ImageView{nullptr, 4, 4, 0, vemoproc::PixelFormat::RGB});
       },
       "image.data"}};
  for (const auto& [f, what] : errors)
    EXPECT_THAT(f, ThrowsMessage<std::runtime_error>(HasSubstr(what))) << what;
}

}  // namespace

namespace {

TEST(ConvNextMatchPython, ArgumentsAndTheRescaleOfThePythonProcessor) {
  // Every byte value in a 16x16 image, size 16 and crop_pct 1: no resize, no
  // crop, so each output is the byte rescaled as numpy does, then normalised.
  std::vector<uint8_t> rgb(16 * 16 * 3);
  for (size_t i = 0; i < rgb.size(); ++i) rgb[i] = static_cast<uint8_t>(i / 3);
  const vemoproc::ImageView view{rgb.data(), 16, 16, 0, vemoproc::PixelFormat::RGB};
  ConvNextPreprocessor pre(16, 1.0f);
  const auto out = pre.process(view, vemoproc::Pipeline::MatchPython);
  for (int v = 0; v < 256; ++v) {
    const float x = static_cast<float>(v / 255.0);
    ASSERT_EQ(out(1, v / 16, v % 16), (x - pre.mean[1]) / pre.std[1]) << v;
  }
  const auto message = [&](int size, float crop_pct, vemoproc::Resample resample) {
    ConvNextPreprocessor p(size, crop_pct);
    p.resample = resample;
    try {
      p.process(view, vemoproc::Pipeline::MatchPython);
    } catch (const std::runtime_error& e) {
      return std::string(e.what());
    }
    return std::string("(no exception)");
  };
  const auto bicubic = vemoproc::Resample::PillowBicubic;
  EXPECT_EQ(message(0, 0.875f, bicubic), "ConvNextPreprocessor: size must be at least 1");
  for (float bad : {0.0f, -1.0f, NAN, INFINITY}) {
    EXPECT_EQ(message(16, bad, bicubic),
              "ConvNextPreprocessor: crop_pct must be a positive finite number");
  }
  EXPECT_EQ(message(16, 0.875f, vemoproc::Resample::OpenCVLinear),
            "ConvNextPreprocessor: resample must be PillowBicubic or PillowBilinear");
  EXPECT_EQ(message(16, 2.0f, bicubic), "(no exception)");  // zero-padded, as in Python
  EXPECT_EQ(message(1, 1e9f, bicubic), "Failed to resize image");
}

// A grey or four-channel view is converted to an RGB copy first; that copy is
// held to the pixel budget like every other intermediate image.
TEST(ConvNextPreprocessor, TheRgbCopyOfAViewIsHeldToThePixelBudget) {
  const uint64_t saved = vemoproc::max_image_pixels();
  vemoproc::set_max_image_pixels(100000);
  const std::vector<uint8_t> grey(1000 * 1000, 7);
  const vemoproc::ImageView view{grey.data(), 1000, 1000, 0, vemoproc::PixelFormat::GRAY};
  EXPECT_THAT(
      [&] { ConvNextPreprocessor(8, 1.0f).process(view); },
      ThrowsMessage<std::runtime_error>(testing::HasSubstr("exceed the image pixel budget")));
  vemoproc::set_max_image_pixels(saved);
  EXPECT_EQ(ConvNextPreprocessor(8, 1.0f).process(view).shape(1), 8u);
}

}  // namespace
