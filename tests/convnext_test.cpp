#include "convnext.hpp"
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cmath>
#include <cstring>
#include <stdexcept>
#include <thread>

#include "test_images.hpp"

namespace {

using convnext::ConvNextPreprocessor;
using testimg::Format;
using testing::HasSubstr;
using testing::ThrowsMessage;

const float kMean[3] = {0.485f, 0.456f, 0.406f};
const float kStd[3] = {0.229f, 0.224f, 0.225f};

// 1/255 as the float with bit pattern 0x3B808081.
float k255() {
  const uint32_t bits = 0x3B808081u;
  float k = 0;
  std::memcpy(&k, &bits, sizeof k);
  return k;
}

float expected(int v, int c) { return (static_cast<float>(v) * k255() - kMean[c]) / kStd[c]; }

// A lossless pattern with distinct neighbours in every direction.
uint8_t pattern(int x, int y, int c) { return static_cast<uint8_t>(x * 7 + y * 13 + c * 85); }

// Runs a w x h pattern file through (size, crop_pct) and asserts out(c, y, x)
// is the normalised source pixel (x + left, y + top).
void expect_crop(int w, int h, int size, float crop_pct, int left, int top) {
  const std::string path = testimg::write(testimg::make(w, h, 3, pattern), Format::Png, "p.png");
  const auto out = ConvNextPreprocessor(size, crop_pct).process(path);
  ASSERT_EQ(out.shape(), (std::vector<size_t>{3, size_t(size), size_t(size)}));
  for (int c = 0; c < 3; ++c)
    for (int y = 0; y < size; ++y)
      for (int x = 0; x < size; ++x)
        ASSERT_EQ(out(c, y, x), expected(pattern(x + left, y + top, c), c)) << w << "x" << h;
}

// When the short edge already equals size / crop_pct the resize keeps every
// pixel, so the crop offsets can be checked exactly.
TEST(ConvNextPreprocessor, CentreCropOffsets) {
  expect_crop(300, 256, 224, 0.875f, 38, 16);  // 224 / 0.875 = 256 = height
  expect_crop(8, 4, 2, 0.5f, 3, 1);            // short edge 2 / 0.5 = 4
  // Odd margins leave the extra pixel right and bottom; the portrait branch
  // fixes the width; crop_pct 1 on a square keeps the whole image.
  expect_crop(7, 4, 4, 1.0f, 1, 0);
  expect_crop(4, 9, 4, 1.0f, 0, 2);
  expect_crop(4, 4, 4, 1.0f, 0, 0);
}

// Any file decodes as RGB; bytes scale by multiplying with k (for some bytes
// not the float a division by 255 gives), then mean and a true division.
TEST(ConvNextPreprocessor, NormalisesEveryFormatAsRgb) {
  int v = 0;
  while (static_cast<float>(v) * k255() == static_cast<float>(v) / 255.0f) ++v;
  const auto grey = testimg::make(5, 4, 1, [v](int, int, int) { return v; });
  const auto rgba = testimg::make(4, 6, 4, [](int, int, int c) { return c == 3 ? 7 : 40 * c; });
  ConvNextPreprocessor p(4, 1.0f);
  const auto g = p.process(testimg::write(grey, Format::Png, "g.png"));
  const auto a = p.process(testimg::write(rgba, Format::Tga, "a.tga"));
  const auto black =
      p.process(testimg::write(testimg::solid(20, 12, 0, 0, 0), Format::Bmp, "b.bmp"));
  for (int c = 0; c < 3; ++c) {
    EXPECT_EQ(g(c, 3, 2), expected(v, c));
    EXPECT_EQ(a(c, 1, 3), expected(40 * c, c));
    EXPECT_EQ(black(c, 2, 1), -kMean[c] / kStd[c]);
  }
}

TEST(ConvNextPreprocessor, RejectsBadFilesAndArguments) {
  const std::string missing = (testimg::scratch_dir() / "missing.png").string();
  EXPECT_THAT([&] { ConvNextPreprocessor(4, 0.875f).process(missing); },
              ThrowsMessage<std::runtime_error>("Failed to load image: " + missing));
  EXPECT_THROW(ConvNextPreprocessor(4, 1.0f).process(testimg::write_garbage("junk.png")),
               std::runtime_error);
  const std::string ok = testimg::write(testimg::solid(6, 6, 1, 2, 3), Format::Png, "ok.png");
  for (float bad : {0.0f, -0.5f, 1.01f, NAN}) {
    EXPECT_THAT([&] { ConvNextPreprocessor(4, bad).process(ok); },
                ThrowsMessage<std::runtime_error>(HasSubstr("crop_pct")));
  }
  for (int bad : {0, -3}) {
    EXPECT_THAT([&] { ConvNextPreprocessor(bad, 0.5f).process(ok); },
                ThrowsMessage<std::runtime_error>(HasSubstr("size")));
  }
  // A tiny but valid crop_pct saturates the short edge and wraps the 32-bit
  // product: the resized size is checked against the crop.
  EXPECT_THROW(ConvNextPreprocessor(224, 1e-8f).process(ok), std::runtime_error);
}

// A caller's pixels give exactly the path result: RGB read in place (tight
// and padded rows) and the other formats through their RGB conversion.
TEST(ConvNextPreprocessor, ViewsGiveThePathResult) {
  const std::string path = testimg::write(testimg::make(45, 31, 3, pattern), Format::Jpeg, "v.jpg");
  const vemoproc::Image decoded = testimg::decode(path);
  ConvNextPreprocessor p(16, 0.875f);
  const xt::xarray<float> want = p.process(path);
  for (auto format :
       {vemoproc::PixelFormat::RGB, vemoproc::PixelFormat::BGR, vemoproc::PixelFormat::BGRA}) {
    for (size_t pad : {0, 5}) {
      const testimg::Layout in = testimg::lay_out(decoded, format, pad);
      EXPECT_TRUE(p.process(in.view) == want) << int(format) << " pad " << pad;
    }
  }
  EXPECT_THAT(
      [&] {
        p.process(vemoproc::ImageView{nullptr, 4, 4, 0, vemoproc::PixelFormat::RGB});
      },
      ThrowsMessage<std::runtime_error>(HasSubstr("image.data")));
}

// A tiny file of extreme aspect ratio would need a 2,048,000 x 256 resize:
// refused before allocating, like any image over the pixel budget.
TEST(ConvNextPreprocessor, ResizeTargetsAreHeldToThePixelBudget) {
  const std::string path = testimg::write(testimg::solid(8000, 1, 9, 9, 9), Format::Png, "w.png");
  EXPECT_THAT([&] { ConvNextPreprocessor(224, 0.875f).process(path); },
              ThrowsMessage<std::runtime_error>("Failed to resize image"));
}

// The loader opens a file once: a FIFO serving junk to its first reader and a
// truncated PIC to any later one must fail cleanly (a loader that opened the
// file twice, once to sniff the format and once to decode, reached the PIC
// decoder's null read here).
TEST(ConvNextPreprocessor, ReadsEachFileExactlyOnce) {
  const std::string fifo = (testimg::scratch_dir() / "once.fifo").string();
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  const std::string junk = "not an image at all";
  const std::vector<uint8_t> pic =
      testimg::read_bytes(testimg::write_pic(6, 6, std::vector<uint8_t>(108, 50), "cut.pic", 40));
  std::thread writer([&] {
    const std::vector<uint8_t> parts[2] = {{junk.begin(), junk.end()}, pic};
    for (int i = 0; i < 2; ++i) {
      // A non-blocking open succeeds only while a reader has the FIFO open.
      const auto deadline =
          std::chrono::steady_clock::now() + std::chrono::milliseconds(i == 0 ? 20000 : 300);
      int fd = -1;
      while ((fd = open(fifo.c_str(), O_WRONLY | O_NONBLOCK)) < 0 &&
             std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
      }
      if (fd < 0) return;
      fcntl(fd, F_SETFL, 0);
      (void)!write(fd, parts[i].data(), parts[i].size());
      close(fd);
    }
  });
  EXPECT_THAT([&] { ConvNextPreprocessor(4, 1.0f).process(fifo); },
              ThrowsMessage<std::runtime_error>("Failed to load image: " + fifo));
  writer.join();
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
