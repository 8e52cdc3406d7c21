#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <random>

#include <xtensor/xmanipulation.hpp>
#include <xtensor/xview.hpp>

#include "../src/pixels/cpu.hpp"
#include "stb_image_resize2.h"
#include "test_images.hpp"
#include "yolo.hpp"

using testimg::Format;
using ::testing::HasSubstr;

namespace {

template <class F>
std::string error_of(F&& f) {
  try {
    f();
  } catch (const std::runtime_error& e) {
    return e.what();
  }
  return "(no exception)";
}

std::array<uint8_t, 3> pixel(const yolo::RawImage& im, int x, int y) {
  const size_t i = (static_cast<size_t>(y) * im.width + x) * 3;
  return {im.data[i], im.data[i + 1], im.data[i + 2]};
}

using RGB = std::array<uint8_t, 3>;

yolo::RawImage solid_image(int w, int h, RGB rgb) {
  yolo::RawImage im;
  im.width = w;
  im.height = h;
  im.channels = 3;
  for (int i = 0; i < w * h; ++i) im.data.insert(im.data.end(), rgb.begin(), rgb.end());
  return im;
}

// Columns of row y whose pixel equals `rgb`.
std::vector<int> columns_with(const yolo::RawImage& im, int y, RGB rgb) {
  std::vector<int> xs;
  for (int x = 0; x < im.width; ++x)
    if (pixel(im, x, y) == rgb) xs.push_back(x);
  return xs;
}

// A head row from a box (x1, y1, x2, y2) in network pixels and class scores.
std::vector<float> head_row(float x1, float y1, float x2, float y2, std::vector<float> scores) {
  std::vector<float> row = {(x1 + x2) / 2, (y1 + y2) / 2, x2 - x1, y2 - y1};
  row.insert(row.end(), scores.begin(), scores.end());
  return row;
}

xt::xtensor<float, 2> head(const std::vector<std::vector<float>>& rows) {
  xt::xtensor<float, 2> t = xt::zeros<float>({rows.size(), rows.empty() ? 6 : rows[0].size()});
  for (size_t i = 0; i < rows.size(); ++i)
    for (size_t j = 0; j < rows[i].size(); ++j) t(i, j) = rows[i][j];
  return t;
}

constexpr std::array<size_t, 2> k640 = {640, 640};

// A letterbox geometry that maps network pixels to themselves.
constexpr yolo::LetterboxInfo kIdentity = {1 << 20, 1 << 20, 1.0f, 1 << 20, 1 << 20, 0, 0};

yolo::PostprocessOptions options(float conf, float iou, size_t max_det) {
  yolo::PostprocessOptions o;
  o.conf_threshold = conf;
  o.iou_threshold = iou;
  o.max_det = max_det;
  return o;
}

std::vector<float> scores_of(const std::vector<yolo::Detection>& dets) {
  std::vector<float> s;
  for (const auto& d : dets) s.push_back(d.score);
  return s;
}

// Detections as bytes: equal lists, NaN coordinates included, give equal bytes.
std::vector<uint8_t> bytes_of(const std::vector<yolo::Detection>& dets) {
  const auto* p = reinterpret_cast<const uint8_t*>(dets.data());
  return {p, p + dets.size() * sizeof(yolo::Detection)};
}

// A random head [n, 4 + classes] whose candidates score distinct values
// k / (n + 2) (so greedy NMS has one answer), crowded into a small area so that
// boxes overlap a lot; some have NaN or infinite values, zero or negative sides.
xt::xtensor<float, 2> random_head(size_t n, size_t classes, uint32_t seed) {
  std::mt19937 rng(seed);
  std::uniform_real_distribution<float> u(0.0f, 1.0f);
  std::vector<size_t> rank(n);
  for (size_t i = 0; i < n; ++i) rank[i] = i + 1;
  std::shuffle(rank.begin(), rank.end(), rng);
  xt::xtensor<float, 2> h = xt::zeros<float>({n, 4 + classes});
  const float nan = std::numeric_limits<float>::quiet_NaN();
  const float inf = std::numeric_limits<float>::infinity();
  for (size_t i = 0; i < n; ++i) {
    h(i, 0) = 100 * u(rng);
    h(i, 1) = 100 * u(rng);
    h(i, 2) = 30 * u(rng) - 4;  // some negative widths: inverted boxes
    h(i, 3) = 1 + 30 * u(rng);
    const float special[] = {nan, inf, 0, -inf};
    const size_t k = rng() % 24;
    if (k < 4) h(i, k) = special[k];
    const float score = static_cast<float>(rank[i]) / static_cast<float>(n + 2);
    for (size_t c = 0; c < classes; ++c) h(i, 4 + c) = score * 0.5f * u(rng);
    h(i, 4 + rng() % classes) = score;
  }
  return h;
}

// Greedy NMS as stated, pair by pair, on a head's decoded candidates: the
// scores of the kept boxes, best first. Scores must be distinct.
std::vector<float> reference_nms(const xt::xtensor<float, 2>& h, float conf, float iou,
                                 size_t max_det, bool agnostic) {
  struct Box {
    float x1, y1, x2, y2, score;
    int cls;
  };
  std::vector<Box> boxes;
  for (size_t i = 0; i < h.shape(0); ++i) {
    size_t best = 4;
    for (size_t j = 5; j < h.shape(1); ++j)
      if (h(i, j) > h(i, best)) best = j;
    if (!(h(i, best) > conf)) continue;
    boxes.push_back({h(i, 0) - h(i, 2) / 2, h(i, 1) - h(i, 3) / 2, h(i, 0) + h(i, 2) / 2,
                     h(i, 1) + h(i, 3) / 2, h(i, best), static_cast<int>(best - 4)});
  }
  std::sort(boxes.begin(), boxes.end(),
            [](const Box& a, const Box& b) { return a.score > b.score; });
  std::vector<bool> gone(boxes.size(), false);
  std::vector<float> kept;
  for (size_t p = 0; p < boxes.size(); ++p) {
    if (gone[p]) continue;
    kept.push_back(boxes[p].score);
    if (kept.size() >= max_det) break;
    const Box& a = boxes[p];
    for (size_t q = p + 1; q < boxes.size(); ++q) {
      const Box& b = boxes[q];
      if (gone[q] || (!agnostic && a.cls != b.cls)) continue;
      const float w = std::max(std::min(a.x2, b.x2) - std::max(a.x1, b.x1), 0.0f);
      const float hh = std::max(std::min(a.y2, b.y2) - std::max(a.y1, b.y1), 0.0f);
      const float inter = w * hh;
      const float area_a = (a.x2 - a.x1) * (a.y2 - a.y1);
      const float area_b = (b.x2 - b.x1) * (b.y2 - b.y1);
      if (inter / (area_b + area_a - inter + 1.0e-7f) > iou) gone[q] = true;
    }
  }
  return kept;
}

}  // namespace

// --- Loading -----------------------------------------------------------------

TEST(RawImageLoad, EveryWriterFormatComesBackAsRgb) {
  const auto rgb =
      testimg::make(5, 4, 3, [](int x, int y, int c) { return uint8_t(40 * c + 10 * x + y); });
  for (Format f : {Format::Png, Format::Bmp, Format::Tga}) {
    const yolo::RawImage im(testimg::write(rgb, f, "rgb" + std::to_string(int(f))));
    EXPECT_EQ(im.width, 5);
    EXPECT_EQ(im.height, 4);
    EXPECT_EQ(im.channels, 3);
    EXPECT_EQ(im.data, rgb.data) << "format " << int(f);
  }
}

TEST(RawImageLoad, GreyAlphaAndJpegBecomeThreeChannels) {
  const auto grey = testimg::make(3, 2, 1, [](int x, int y, int) { return uint8_t(50 * x + y); });
  const yolo::RawImage g(testimg::write(grey, Format::Png, "grey.png"));
  ASSERT_EQ(g.channels, 3);
  EXPECT_EQ(pixel(g, 2, 1), (RGB{101, 101, 101}));

  const auto grey_alpha =
      testimg::make(2, 2, 2, [](int, int, int c) { return uint8_t(c ? 7 : 90); });
  const yolo::RawImage ga(testimg::write(grey_alpha, Format::Png, "ga.png"));
  EXPECT_EQ(ga.data, std::vector<uint8_t>(12, 90));

  const auto rgba = testimg::make(2, 1, 4, [](int, int, int c) { return uint8_t(10 + c); });
  const yolo::RawImage a(testimg::write(rgba, Format::Png, "rgba.png"));
  EXPECT_EQ(a.data, (std::vector<uint8_t>{10, 11, 12, 10, 11, 12}));

  const yolo::RawImage j(testimg::write(testimg::solid(16, 8, 200, 30, 60), Format::Jpeg, "c.jpg"));
  ASSERT_EQ(j.data.size(), 16u * 8 * 3);
  EXPECT_NEAR(pixel(j, 7, 3)[0], 200, 3);
  EXPECT_NEAR(pixel(j, 7, 3)[2], 60, 3);
}

TEST(RawImageLoad, PicFilesDecodeAndTruncatedOnesFailCleanly) {
  const std::vector<uint8_t> rgb = {1, 2, 3, 40, 50, 60};
  const yolo::RawImage pic(testimg::write_pic(2, 1, rgb, "ok.pic"));
  EXPECT_EQ(pic.channels, 3);
  EXPECT_EQ(pic.data, rgb);
  // A decode that fails inside the pixel data once dereferenced a null buffer.
  const std::string cut = testimg::write_pic(2, 1, rgb, "cut.pic", 4);
  EXPECT_EQ(error_of([&] { yolo::RawImage im(cut); }), "stbi_load failed for: " + cut);
}

TEST(RawImageLoad, EmptyPngDataChunksAddNothing) {
  const auto rgb =
      testimg::make(3, 2, 3, [](int x, int y, int c) { return uint8_t(x + 7 * y + 50 * c); });
  const std::string path = testimg::write(rgb, Format::Png, "empty-idat.png");
  testimg::insert_empty_idat(path);
  EXPECT_EQ(yolo::RawImage(path).data, rgb.data);
}

TEST(RawImageLoad, UnreadableFilesNameThePath) {
  const std::string missing = (testimg::scratch_dir() / "missing.png").string();
  EXPECT_EQ(error_of([&] { yolo::RawImage im(missing); }), "stbi_load failed for: " + missing);
  const std::string junk = testimg::write_garbage("junk.png");
  EXPECT_EQ(error_of([&] { yolo::RawImage im(junk); }), "stbi_load failed for: " + junk);
}

TEST(RawImageLoad, ImagesOverTheBuildsSizeCapAreRefused) {
  constexpr long cap = VEMOPROC_TEST_MAX_DIMENSION;
  if (cap > 65536) GTEST_SKIP() << "cap " << cap << " too large to test cheaply";
  const int side = static_cast<int>(cap);
  const std::string at_cap =
      testimg::write(testimg::solid(side, 1, 5, 5, 5), Format::Png, "cap.png");
  EXPECT_EQ(yolo::RawImage(at_cap).width, side);
  const std::string over =
      testimg::write(testimg::solid(1, side + 1, 5, 5, 5), Format::Png, "over.png");
  EXPECT_EQ(error_of([&] { yolo::RawImage im(over); }), "stbi_load failed for: " + over);
}

// Views: a file's pixels in any format, rows padded or not, give the file's
// RawImage; images over the pixel budget are refused with the usual message.
TEST(RawImageLoad, ViewsAndThePixelBudget) {
  const std::string path =
      testimg::write(testimg::make(9, 4, 3, [](int x, int y, int c) { return x * 20 + y * 3 + c; }),
                     Format::Png, "view.png");
  const yolo::RawImage file(path);
  const vemoproc::Image decoded = testimg::decode(path);
  for (auto format : {vemoproc::PixelFormat::RGB, vemoproc::PixelFormat::BGRA}) {
    const yolo::RawImage im(testimg::lay_out(decoded, format, 2).view);
    EXPECT_EQ(im.data, file.data);
    EXPECT_EQ(im.channels, 3);
  }
  EXPECT_THAT(
      [] {
        yolo::RawImage im(vemoproc::ImageView{nullptr, 1, 1, 0, vemoproc::PixelFormat::RGB});
      },
      testing::ThrowsMessage<std::runtime_error>(HasSubstr("image.data")));
  const uint64_t saved = vemoproc::max_image_pixels();
  vemoproc::set_max_image_pixels(35);
  EXPECT_EQ(error_of([&] { yolo::RawImage im(path); }), "stbi_load failed for: " + path);
  // The letterbox target is held to the same budget.
  vemoproc::set_max_image_pixels(36);
  EXPECT_EQ(yolo::letterbox(file, {9, 4}, 114).data.size(), 9u * 4 * 3);
  EXPECT_EQ(error_of([&] {
              yolo::letterbox(file, {9, 5}, 114);
            }),
            "stbir_resize_uint8_linear failed");
  vemoproc::set_max_image_pixels(saved);
}

// --- Letterbox -----------------------------------------------------------------

TEST(Letterbox, SameWidthPadsTopAndBottom) {
  const auto src = solid_image(64, 48, {10, 20, 30});
  const auto out = yolo::letterbox(src, {64, 64}, 114);
  ASSERT_EQ(out.width, 64);
  ASSERT_EQ(out.height, 64);
  EXPECT_EQ(out.channels, 3);
  ASSERT_EQ(out.data.size(), 64u * 64 * 3);
  // r = 1: content rows 8..55.
  for (int y : {0, 7, 56, 63}) EXPECT_EQ(pixel(out, 31, y), (RGB{114, 114, 114})) << y;
  for (int y : {8, 30, 55}) EXPECT_EQ(pixel(out, 0, y), (RGB{10, 20, 30})) << y;
  EXPECT_EQ(src.data.size(), 64u * 48 * 3);  // input untouched
}

TEST(Letterbox, SizesRoundHalfAwayFromZeroAndCentreWithIntegerDivision) {
  // 1x4 into 10x10: r = 2.5, new width round(2.5) = 3, left = (10 - 3) / 2 = 3.
  const auto out = yolo::letterbox(solid_image(1, 4, {200, 0, 0}), {10, 10}, 7);
  EXPECT_EQ(columns_with(out, 5, {200, 0, 0}), (std::vector<int>{3, 4, 5}));
  EXPECT_EQ(pixel(out, 2, 5), (RGB{7, 7, 7}));

  // 1x3 into 4x4: r = 4/3, new size 1x4, left = 1: only column 1 holds the image.
  const auto thin = yolo::letterbox(solid_image(1, 3, {9, 9, 9}), {4, 4}, 0);
  for (int y = 0; y < 4; ++y) EXPECT_EQ(columns_with(thin, y, {9, 9, 9}), std::vector<int>{1});

  // Odd free space of 3 columns: 1 on the left, 2 on the right.
  const auto odd = yolo::letterbox(solid_image(10, 4, {1, 2, 3}), {13, 4}, 0);
  const auto cols = columns_with(odd, 2, {1, 2, 3});
  ASSERT_EQ(cols.size(), 10u);
  EXPECT_EQ(cols.front(), 1);
  EXPECT_EQ(cols.back(), 10);
}

TEST(Letterbox, ShrinksLargeImagesAndKeepsTheAspect) {
  // 200x100 into 50x50: r = 0.25, new size 50x25, top = 12.
  const auto out = yolo::letterbox(solid_image(200, 100, {50, 60, 70}), {50, 50}, 114);
  for (int y = 0; y < 50; ++y) {
    const RGB expected = (y >= 12 && y < 37) ? RGB{50, 60, 70} : RGB{114, 114, 114};
    EXPECT_EQ(pixel(out, 25, y), expected) << y;
  }
}

// The rule worked by hand: r in float, sides rounded half away from zero,
// the block centred by integer division (an odd free column goes right).
TEST(Letterbox, GeometryFollowsTheRule) {
  const yolo::LetterboxInfo want[] = {{1920, 1080, 640.0f / 1920.0f, 640, 360, 0, 140},
                                      {1, 4, 2.5f, 3, 10, 3, 0},
                                      {10, 4, 1.0f, 10, 4, 1, 0}};
  const std::array<int, 2> shapes[] = {{640, 640}, {10, 10}, {13, 4}};
  for (int i = 0; i < 3; ++i) {
    const auto g = yolo::letterbox_info(want[i].original_width, want[i].original_height, shapes[i]);
    EXPECT_EQ(std::memcmp(&g, &want[i], sizeof g), 0) << i;
  }
  EXPECT_THAT(error_of([] { yolo::letterbox_info(0, 4, {8, 8}); }), HasSubstr("width and height"));
  EXPECT_THAT(error_of([] { yolo::letterbox_info(4, 4, {-1, 8}); }), HasSubstr("new_shape"));
}

// Letterbox is the linear resize of the whole image placed at the rule's
// offsets on pad_value: odd free space, shrinking, enlarging, odd row bytes.
TEST(Letterbox, EqualsTheResizerPlacedByTheRule) {
  const std::array<std::array<int, 4>, 6> cases = {{{37, 23, 31, 31},
                                                    {23, 37, 16, 9},
                                                    {5, 3, 64, 48},
                                                    {200, 7, 33, 40},
                                                    {1, 9, 7, 5},
                                                    {64, 48, 64, 64}}};
  for (const auto& [w, h, W, H] : cases) {
    yolo::RawImage im = solid_image(w, h, {0, 0, 0});
    for (size_t i = 0; i < im.data.size(); ++i) im.data[i] = uint8_t(i * 37 + i / 7);
    const float r = std::min(float(H) / float(h), float(W) / float(w));
    const int nw = int(std::round(r * float(w)));
    const int nh = int(std::round(r * float(h)));
    std::vector<uint8_t> resized(size_t(nw) * nh * 3);
    ASSERT_NE(
        stbir_resize_uint8_linear(im.data.data(), w, h, 0, resized.data(), nw, nh, 0, STBIR_RGB),
        nullptr);
    yolo::RawImage want = solid_image(W, H, {9, 9, 9});
    for (int y = 0; y < nh; ++y)
      std::copy_n(&resized[size_t(y) * nw * 3], nw * 3,
                  &want.data[(size_t((H - nh) / 2 + y) * W + (W - nw) / 2) * 3]);
    EXPECT_EQ(yolo::letterbox(im, {W, H}, 9).data, want.data) << w << "x" << h << " to " << W;
  }
}

TEST(Letterbox, ImpossibleSizesThrow) {
  EXPECT_EQ(error_of([] {
              yolo::letterbox(solid_image(8, 8, {0, 0, 0}), {0, 0}, 114);
            }),
            "stbir_resize_uint8_linear failed");
  EXPECT_EQ(error_of([] {
              yolo::letterbox(yolo::RawImage{}, {8, 8}, 114);
            }),
            "stbir_resize_uint8_linear failed");
  yolo::RawImage short_data = solid_image(8, 8, {0, 0, 0});
  short_data.data.resize(10);
  EXPECT_THAT(error_of([&] { yolo::letterbox(short_data, {8, 8}, 114); }), HasSubstr("image.data"));
}

// --- Batch preprocessing ----------------------------------------------------------

TEST(Preprocess, PacksPlanarRgbDividedBy255) {
  const auto gradient =
      testimg::make(32, 24, 3, [](int x, int y, int c) { return uint8_t(8 * x + y + 60 * c); });
  const std::string a = testimg::write(gradient, Format::Png, "grad.png");
  const std::string b = testimg::write(testimg::solid(10, 30, 255, 0, 0), Format::Bmp, "red.bmp");

  // 31 x 31 = 961 pixels: both the 16-pixel steps and the single-pixel tail run.
  const auto batch = yolo::preprocess({a, b}, {31, 31});
  ASSERT_EQ(batch.shape(), (std::array<size_t, 4>{2, 3, 31, 31}));

  // Image 0: the letterboxed bytes, channel by channel, each divided by 255.0f.
  const auto boxed = yolo::letterbox(yolo::RawImage(a), {31, 31}, 114);
  for (int c = 0; c < 3; ++c)
    for (int y = 0; y < 31; ++y)
      for (int x = 0; x < 31; ++x)
        ASSERT_EQ(batch(0, c, y, x), static_cast<float>(pixel(boxed, x, y)[c]) / 255.0f);

  // Image 1: red 10x30 becomes 10x31 at columns 10..19 (r = 31/30).
  EXPECT_EQ(batch(1, 0, 16, 15), 1.0f);
  EXPECT_EQ(batch(1, 1, 16, 15), 0.0f);
  EXPECT_EQ(batch(1, 2, 16, 15), 0.0f);
  EXPECT_EQ(batch(1, 1, 16, 0), 114 / 255.0f);
  EXPECT_EQ(batch(1, 0, 16, 20), 114 / 255.0f);
}

TEST(Preprocess, ShapeIsBatchChannelsHeightWidth) {
  const std::string white =
      testimg::write(testimg::solid(4, 4, 255, 255, 255), Format::Tga, "w.tga");
  const auto t = yolo::preprocess({white}, {40, 20});
  EXPECT_EQ(t.shape(), (std::array<size_t, 4>{1, 3, 20, 40}));
  EXPECT_EQ(t(0, 2, 10, 20), 1.0f);
  EXPECT_EQ(yolo::preprocess({}, {32, 16}).shape(), (std::array<size_t, 4>{0, 3, 16, 32}));
}

TEST(Preprocess, AFailingImageStopsTheBatch) {
  const std::string ok = testimg::write(testimg::solid(4, 4, 1, 2, 3), Format::Png, "ok.png");
  const std::string missing = (testimg::scratch_dir() / "nope.jpg").string();
  EXPECT_EQ(error_of([&] {
              yolo::preprocess({ok, missing, ok}, {8, 8});
            }),
            "stbi_load failed for: " + missing);
}

// --- Batch preprocessing from memory ---------------------------------------------

TEST(PreprocessImages, ViewsGiveTheFileBatchBitForBitWithTheGeometry) {
  const std::string a = testimg::write(
      testimg::make(45, 29, 3, [](int x, int y, int c) { return uint8_t(7 * x + 3 * y + 80 * c); }),
      Format::Png, "pi-a.png");
  const std::string b = testimg::write(
      testimg::make(13, 40, 1, [](int x, int y, int) { return uint8_t(19 * x + 5 * y); }),
      Format::Png, "pi-b.png");
  const vemoproc::Image da = testimg::decode(a);
  const vemoproc::Image db = testimg::decode(b);
  // Both wide and portable paths; odd target sides give odd row bytes.
  for (bool wide : {true, false}) {
    vemoproc::detail::set_wide_paths_enabled(wide);
    for (const std::array<int, 2> shape : {std::array<int, 2>{37, 33}, {64, 48}}) {
      const auto files = yolo::preprocess({a, b}, shape);
      for (const auto& [fa, fb] :
           {std::pair{vemoproc::PixelFormat::RGB, vemoproc::PixelFormat::GRAY},
            {vemoproc::PixelFormat::BGRA, vemoproc::PixelFormat::RGB},
            {vemoproc::PixelFormat::RGB, vemoproc::PixelFormat::BGR}}) {
        for (size_t pad : {size_t{0}, size_t{5}}) {
          const auto la = testimg::lay_out(da, fa, pad);
          const auto lb = testimg::lay_out(db, fb, pad);
          const yolo::DetectionBatch batch = yolo::preprocess_images({la.view, lb.view}, shape);
          ASSERT_EQ(batch.tensor.shape(), files.shape());
          EXPECT_TRUE(std::equal(files.begin(), files.end(), batch.tensor.begin()))
              << "formats " << int(fa) << "/" << int(fb) << " pad " << pad << " wide " << wide;
          ASSERT_EQ(batch.letterbox.size(), 2u);
          const auto ga = yolo::letterbox_info(45, 29, shape);
          const auto gb = yolo::letterbox_info(13, 40, shape);
          EXPECT_EQ(std::memcmp(&batch.letterbox[0], &ga, sizeof ga), 0);
          EXPECT_EQ(std::memcmp(&batch.letterbox[1], &gb, sizeof gb), 0);
        }
      }
    }
  }
  vemoproc::detail::set_wide_paths_enabled(true);
}

TEST(PreprocessImages, RefusesBadViewsAndImpossibleResizes) {
  const std::vector<uint8_t> px(4 * 4 * 3, 50);
  const vemoproc::ImageView ok{px.data(), 4, 4, 0, vemoproc::PixelFormat::RGB};
  const vemoproc::ImageView null{nullptr, 4, 4, 0, vemoproc::PixelFormat::RGB};
  EXPECT_THAT(error_of([&] {
                yolo::preprocess_images({ok, null}, {8, 8});
              }),
              HasSubstr("images[1]"));
  EXPECT_THAT(error_of([&] { yolo::preprocess_images({ok}, {8, -8}); }), HasSubstr("new_shape"));
  // 1000 x 1 into 10 x 10 rounds to a block 0 rows high.
  const std::vector<uint8_t> line(1000 * 3, 50);
  EXPECT_EQ(
      error_of([&] {
        yolo::preprocess_images({{line.data(), 1000, 1, 0, vemoproc::PixelFormat::RGB}}, {10, 10});
      }),
      "stbir_resize_uint8_linear failed");
  const auto empty = yolo::preprocess_images({}, {32, 16});
  EXPECT_EQ(empty.tensor.shape(), (std::array<size_t, 4>{0, 3, 16, 32}));
  EXPECT_TRUE(empty.letterbox.empty());
}

// --- Postprocessing -------------------------------------------------------------

TEST(Postprocess, RejectsHeadsWithoutClassColumns) {
  EXPECT_EQ(error_of([] {
              yolo::postprocess(xt::zeros<float>({3, 5}), k640, k640, 0.25f, 0.45f, 300);
            }),
            "postprocess(): expected (N,5+nc) tensor");
  EXPECT_TRUE(yolo::postprocess(xt::zeros<float>({0, 84}), k640, k640, 0.25f, 0.45f, 300).empty());
  EXPECT_EQ(
      yolo::postprocess(head({head_row(0, 0, 10, 10, {0.1f, 0.9f})}), k640, k640, 0.25f, 0.45f, 300)
          .at(0)
          .class_id,
      1);
}

TEST(Postprocess, ConfidenceIsTheBestClassScoreAndStrictlyAboveThreshold) {
  const auto dets = yolo::postprocess(
      head({head_row(0, 0, 10, 10, {0.25f, 0.1f, 0.2f}),       // equal to threshold: dropped
            head_row(100, 100, 110, 110, {0.3f, 0.1f, 0.3f}),  // tie: lowest index wins
            head_row(200, 200, 210, 210, {0.1f, 0.2f, 0.6f})}),
      k640, k640, 0.25f, 0.45f, 300);
  ASSERT_EQ(dets.size(), 2u);
  EXPECT_EQ(dets[0].class_id, 2);
  EXPECT_EQ(dets[0].score, 0.6f);
  EXPECT_EQ(dets[1].class_id, 0);
  EXPECT_EQ(dets[1].score, 0.3f);
}

// The rejection of rows with no score above the threshold: only the last of
// 80 classes above it (past any vector width), a NaN among the scores, and a
// threshold of -infinity, which keeps even a row of -infinity scores at the
// starting maximum (the lowest finite float).
TEST(Postprocess, RowsAreRejectedOnlyWhenNoScoreIsAboveTheThreshold) {
  std::vector<float> last_only(80, 0.1f);
  last_only[79] = 0.7f;
  std::vector<float> with_nan(80, 0.2f);
  with_nan[3] = std::numeric_limits<float>::quiet_NaN();
  with_nan[50] = 0.9f;
  const auto dets =
      yolo::postprocess(head({head_row(0, 0, 10, 10, last_only),
                              head_row(100, 100, 110, 110, std::vector<float>(80, 0.25f)),
                              head_row(200, 200, 210, 210, with_nan)}),
                        k640, k640, 0.25f, 0.45f, 300);
  ASSERT_EQ(dets.size(), 2u);
  EXPECT_EQ(dets[0].class_id, 50);
  EXPECT_EQ(dets[0].score, 0.9f);
  EXPECT_EQ(dets[1].class_id, 79);
  EXPECT_EQ(dets[1].score, 0.7f);

  const float inf = std::numeric_limits<float>::infinity();
  const auto floor =
      yolo::postprocess(head({head_row(0, 0, 10, 10, {-inf, -inf})}), k640, k640, -inf, 0.45f, 300);
  ASSERT_EQ(floor.size(), 1u);
  EXPECT_EQ(floor[0].score, std::numeric_limits<float>::lowest());
  EXPECT_EQ(floor[0].class_id, 0);
}

TEST(Postprocess, NmsIsGreedyPerClassWithStrictIou) {
  // Boxes a=(0,0,10,10) and b=(5,0,15,10): IoU = 50 / 150 in float.
  const float iou = 50.0f / (150.0f + 1.0e-7f);
  const auto pair = head({head_row(0, 0, 10, 10, {0.9f, 0}), head_row(5, 0, 15, 10, {0.8f, 0})});
  EXPECT_EQ(yolo::postprocess(pair, k640, k640, 0.25f, iou, 300).size(), 2u);
  const auto below = yolo::postprocess(pair, k640, k640, 0.25f, std::nextafter(iou, 0.0f), 300);
  ASSERT_EQ(below.size(), 1u);
  EXPECT_EQ(below[0].score, 0.9f);

  // Different classes never suppress each other.
  const auto classes = head({head_row(0, 0, 10, 10, {0.9f, 0}), head_row(0, 0, 10, 10, {0, 0.8f})});
  EXPECT_EQ(yolo::postprocess(classes, k640, k640, 0.25f, 0.45f, 300).size(), 2u);

  // Greedy chain: a (0.9) suppresses b (0.8); c (0.1) overlaps only b, so it survives.
  // (A suppressed box that still suppressed others would also remove c.)
  const auto chain = head({head_row(20, 0, 30, 10, {0.7f, 0}), head_row(0, 0, 10, 10, {0.9f, 0}),
                           head_row(10, 0, 20, 10, {0.1f, 0}), head_row(2, 0, 22, 10, {0.8f, 0})});
  const auto kept = yolo::postprocess(chain, k640, k640, 0.05f, 0.3f, 300);
  ASSERT_EQ(kept.size(), 3u);
  EXPECT_EQ(kept[0].score, 0.9f);
  EXPECT_EQ(kept[1].score, 0.7f);
  EXPECT_EQ(kept[2].score, 0.1f);
}

TEST(Postprocess, MaxDetCapsTheResultButKeepsAtLeastOne) {
  std::vector<std::vector<float>> rows;
  for (int i = 0; i < 5; ++i)
    rows.push_back(head_row(100.0f * i, 0, 100.0f * i + 50, 50, {0.5f + 0.1f * i, 0}));
  const auto two = yolo::postprocess(head(rows), k640, k640, 0.25f, 0.45f, 2);
  ASSERT_EQ(two.size(), 2u);
  EXPECT_EQ(two[0].score, 0.5f + 0.1f * 4);
  EXPECT_EQ(two[1].score, 0.5f + 0.1f * 3);
  EXPECT_EQ(yolo::postprocess(head(rows), k640, k640, 0.25f, 0.45f, 0).size(), 1u);
  EXPECT_EQ(yolo::postprocess(head(rows), k640, k640, 0.25f, 0.45f, 300).size(), 5u);
}

TEST(Postprocess, UndoesTheLetterboxWithFloatGainAndClips) {
  // Network 640x640, original 640 wide and 480 high: gain 1, pad_x -0.1, pad_y 79.9.
  const auto dets = yolo::postprocess(head({head_row(0, 80, 640, 560, {0.9f, 0})}), k640,
                                      {480, 640}, 0.25f, 0.45f, 300);
  ASSERT_EQ(dets.size(), 1u);
  const float pad_y = 80.0f - 0.1f;
  EXPECT_EQ(dets[0].x1, 0.0f + 0.1f);
  EXPECT_EQ(dets[0].y1, 80.0f - pad_y);
  EXPECT_EQ(dets[0].x2, 640.0f);
  EXPECT_EQ(dets[0].y2, 480.0f);

  // Network 320x320, original 1280 wide and 640 high: gain 0.25, pad_y 79.9.
  const auto scaled = yolo::postprocess(head({head_row(100, 100, 200, 180, {0, 0.9f})}), {320, 320},
                                        {640, 1280}, 0.25f, 0.45f, 300);
  ASSERT_EQ(scaled.size(), 1u);
  EXPECT_EQ(scaled[0].x1, (100.0f + 0.1f) / 0.25f);
  EXPECT_EQ(scaled[0].y1, (100.0f - pad_y) / 0.25f);
  EXPECT_EQ(scaled[0].y2, (180.0f - pad_y) / 0.25f);
}

TEST(Postprocess, ZeroSizesAreRefusedNamingTheArgument) {
  const auto h = head({head_row(0, 0, 10, 10, {0.9f, 0})});
  const auto error = [&](std::array<size_t, 2> in, std::array<size_t, 2> orig) {
    return error_of([&] { yolo::postprocess(h, in, orig, 0.25f, 0.45f, 300); });
  };
  EXPECT_THAT(error({0, 0}, k640), HasSubstr("input_shape"));
  EXPECT_THAT(error({640, 0}, k640), HasSubstr("input_shape"));
  EXPECT_THAT(error(k640, {0, 0}), HasSubstr("original_shape"));
  EXPECT_THAT(error(k640, {480, 0}), HasSubstr("original_shape"));
}

// Greedy NMS tests only the pairs that can overlap; the result must stay the
// pair-by-pair rule's, order included, for crowded heads with NaN, infinite,
// empty and inverted boxes, and thresholds of every sign.
TEST(Postprocess, NmsKeepsExactlyWhatThePairByPairRuleKeeps) {
  for (uint32_t seed = 1; seed <= 12; ++seed) {
    const auto h = random_head(400 + 50 * seed, 3, seed);
    for (float iou : {0.45f, 0.0f, 0.9f, -0.2f, std::numeric_limits<float>::quiet_NaN()}) {
      for (size_t max_det : {size_t{1000}, size_t{7}}) {
        const auto want = reference_nms(h, 0.1f, iou, max_det, false);
        EXPECT_EQ(scores_of(yolo::postprocess(h, k640, k640, 0.1f, iou, max_det)), want)
            << "seed " << seed << " iou " << iou;
        auto agnostic = options(0.1f, iou, max_det);
        agnostic.agnostic = true;
        EXPECT_EQ(scores_of(yolo::postprocess(h, kIdentity, agnostic)),
                  reference_nms(h, 0.1f, iou, max_det, true))
            << "agnostic, seed " << seed << " iou " << iou;
      }
    }
  }
}

// 200,000 disjoint boxes all pass the threshold and all survive; the pairs
// that cannot overlap are never tested, so this takes well under a second.
TEST(Postprocess, ManyDisjointBoxesAreCheap) {
  for (bool column : {false, true}) {
    std::vector<std::vector<float>> rows;
    for (int i = 0; i < 200000; ++i) {
      const float x = column ? 0.0f : float(i % 500) * 3;
      const float y = column ? float(i) * 3 : float(i / 500) * 3;
      rows.push_back(head_row(x, y, x + 2, y + 2, {0.3f + float(i % 1000) * 0.0005f, 0.0f}));
    }
    const auto dets = yolo::postprocess(head(rows), k640, k640, 0.25f, 0.45f, 1000000000);
    ASSERT_EQ(dets.size(), 200000u);
    EXPECT_GE(dets.front().score, dets.back().score);
  }
}

// --- Postprocessing with the letterbox geometry -----------------------------------

// Both overloads select the same boxes (the mapping back differs: see the
// end-to-end test for the exact inverse).
TEST(PostprocessGeometry, SelectsWhatTheShapeOverloadSelects) {
  const auto h = random_head(600, 4, 99);
  const auto shaped = yolo::postprocess(h, {100, 100}, {61, 97}, 0.2f, 0.5f, 40);
  const auto geo =
      yolo::postprocess(h, yolo::letterbox_info(97, 61, {100, 100}), options(0.2f, 0.5f, 40));
  ASSERT_EQ(scores_of(geo), scores_of(shaped));
  for (size_t k = 0; k < geo.size(); ++k) EXPECT_EQ(geo[k].class_id, shaped[k].class_id);
}

TEST(PostprocessGeometry, ChannelsFirstHeadsAreReadInPlace) {
  // 1000 candidates: several blocks and a partial one.
  for (uint32_t seed : {3u, 4u}) {
    const auto rows = random_head(1000, 80, seed);
    const xt::xtensor<float, 2> cn = xt::transpose(rows);
    auto o = options(0.3f, 0.45f, 300);
    const auto want = yolo::postprocess(rows, kIdentity, o);
    o.channels_first = true;
    EXPECT_EQ(bytes_of(yolo::postprocess(cn, kIdentity, o)), bytes_of(want));
    o.objectness = true;
    const auto obj_cn = yolo::postprocess(cn, kIdentity, o);
    o.channels_first = false;
    EXPECT_EQ(bytes_of(obj_cn), bytes_of(yolo::postprocess(rows, kIdentity, o)));
  }
}

TEST(PostprocessGeometry, ObjectnessMultipliesEveryClassScore) {
  // Columns: box, objectness, two classes. 0.5 * 0.9 = 0.45 for class 1;
  // 0.2 * 0.95 = 0.19 is at or below 0.25 and dropped.
  auto o = options(0.25f, 0.45f, 300);
  o.objectness = true;
  const auto dets = yolo::postprocess(head({head_row(0, 0, 10, 10, {0.5f, 0.6f, 0.9f}),
                                            head_row(50, 50, 60, 60, {0.2f, 0.95f, 0})}),
                                      kIdentity, o);
  ASSERT_EQ(dets.size(), 1u);
  EXPECT_EQ(dets[0].score, 0.5f * 0.9f);
  EXPECT_EQ(dets[0].class_id, 1);

  // Any head equals the plain head of its products.
  const auto h = random_head(500, 6, 8);
  xt::xtensor<float, 2> plain = xt::zeros<float>({h.shape(0), h.shape(1) - 1});
  for (size_t i = 0; i < h.shape(0); ++i) {
    for (size_t j = 0; j < 4; ++j) plain(i, j) = h(i, j);
    for (size_t j = 5; j < h.shape(1); ++j) plain(i, j - 1) = h(i, 4) * h(i, j);
  }
  o.conf_threshold = 0.01f;
  const auto with_objectness = yolo::postprocess(h, kIdentity, o);
  o.objectness = false;
  EXPECT_EQ(bytes_of(with_objectness), bytes_of(yolo::postprocess(plain, kIdentity, o)));
}

TEST(PostprocessGeometry, ClassFilterAgnosticNmsAndTheCandidateCap) {
  // a (class 1, 0.9) covers b (class 0, 0.8).
  const auto h = head({head_row(0, 0, 10, 10, {0, 0.9f}), head_row(1, 0, 11, 10, {0.8f, 0}),
                       head_row(100, 0, 110, 10, {0, 0.7f})});
  auto o = options(0.25f, 0.45f, 300);
  EXPECT_EQ(scores_of(yolo::postprocess(h, kIdentity, o)), (std::vector<float>{0.9f, 0.8f, 0.7f}));
  o.agnostic = true;
  EXPECT_EQ(scores_of(yolo::postprocess(h, kIdentity, o)), (std::vector<float>{0.9f, 0.7f}));
  // Dropped before NMS: a no longer suppresses b.
  o.classes = {0};
  EXPECT_EQ(scores_of(yolo::postprocess(h, kIdentity, o)), (std::vector<float>{0.8f}));
  o.classes = {1, 5};
  EXPECT_EQ(scores_of(yolo::postprocess(h, kIdentity, o)), (std::vector<float>{0.9f, 0.7f}));

  // The cap keeps the highest scores; of equal scores the earlier candidate.
  std::vector<std::vector<float>> rows;
  for (float s : {0.3f, 0.9f, 0.5f, 0.7f, 0.5f, 0.4f})
    rows.push_back(head_row(float(rows.size()) * 20, 0, float(rows.size()) * 20 + 10, 10, {s, 0}));
  auto capped = options(0.25f, 0.45f, 300);
  capped.max_candidates = 3;
  const auto top = yolo::postprocess(head(rows), kIdentity, capped);
  EXPECT_EQ(scores_of(top), (std::vector<float>{0.9f, 0.7f, 0.5f}));
  EXPECT_EQ(top[2].x1, 40.0f);
  capped.max_candidates = 0;
  EXPECT_TRUE(yolo::postprocess(head(rows), kIdentity, capped).empty());
}

TEST(PostprocessGeometry, BatchesEqualSingleImages) {
  const auto a = random_head(300, 5, 21);
  const auto b = random_head(300, 5, 22);
  xt::xtensor<float, 3> heads = xt::zeros<float>({size_t{2}, size_t{300}, size_t{9}});
  xt::view(heads, 0) = a;
  xt::view(heads, 1) = b;
  const std::vector<yolo::LetterboxInfo> geo = {yolo::letterbox_info(300, 200, {100, 100}),
                                                yolo::letterbox_info(50, 90, {100, 100})};
  const auto o = options(0.2f, 0.5f, 100);
  const auto both = yolo::postprocess_batch(heads, geo, o);
  ASSERT_EQ(both.size(), 2u);
  EXPECT_EQ(bytes_of(both[0]), bytes_of(yolo::postprocess(a, geo[0], o)));
  EXPECT_EQ(bytes_of(both[1]), bytes_of(yolo::postprocess(b, geo[1], o)));

  auto cf = o;
  cf.channels_first = true;
  const xt::xtensor<float, 3> heads_cn = xt::transpose(heads, {0, 2, 1});
  const auto both_cn = yolo::postprocess_batch(heads_cn, geo, cf);
  EXPECT_EQ(bytes_of(both_cn[0]), bytes_of(both[0]));
  EXPECT_EQ(bytes_of(both_cn[1]), bytes_of(both[1]));
  EXPECT_THAT(error_of([&] { yolo::postprocess_batch(heads, {geo[0]}, o); }),
              HasSubstr("letterbox"));
}

TEST(PostprocessGeometry, EndToEndRowsKeepTheirOrder) {
  // 1280 x 720 into 640 x 640: scale 0.5, block 640 x 360, top 140.
  const yolo::LetterboxInfo g = yolo::letterbox_info(1280, 720, {640, 640});
  const auto rows = head({{10, 150, 110, 250, 0.6f, 2.9f},
                          {0, 0, 5, 5, 0.25f, 1},  // at the threshold: dropped
                          {-20, 100, 700, 600, 0.9f, -1.5f},
                          {1, 2, 3, 4, 0.3f, 7}});
  const auto dets = yolo::postprocess_end2end(rows, g, 0.25f);
  ASSERT_EQ(dets.size(), 3u);
  // The second box is clipped to the image.
  EXPECT_EQ(bytes_of({dets[0], dets[1]}),
            bytes_of({{20, 20, 220, 220, 0.6f, 2}, {0, 0, 1280, 720, 0.9f, -1}}));
  EXPECT_EQ(dets[2].score, 0.3f);
  EXPECT_EQ(dets[2].class_id, 7);
}

TEST(PostprocessGeometry, BadShapesAreRefusedNamingTheArgument) {
  const yolo::LetterboxInfo g = yolo::letterbox_info(64, 64, {64, 64});
  yolo::LetterboxInfo empty = g;
  empty.new_width = 0;
  yolo::PostprocessOptions plain, older_cn;
  older_cn.objectness = older_cn.channels_first = true;
  const auto error = [](const xt::xtensor<float, 2>& h, const yolo::LetterboxInfo& lb,
                        const yolo::PostprocessOptions& o) {
    return error_of([&] { yolo::postprocess(h, lb, o); });
  };
  // One class: 5 columns are enough.
  EXPECT_EQ(yolo::postprocess(head({head_row(0, 0, 4, 4, {0.9f})}), g, plain).size(), 1u);
  EXPECT_THAT(error(xt::zeros<float>({3, 4}), g, plain),
              HasSubstr("head needs at least 5 columns"));
  EXPECT_THAT(error(xt::zeros<float>({5, 9}), g, older_cn),
              HasSubstr("head needs at least 6 rows"));
  EXPECT_THAT(error(xt::zeros<float>({3, 6}), empty, plain), HasSubstr("letterbox"));
  const xt::xtensor<float, 3> one = xt::zeros<float>({1, 3, 6});
  EXPECT_THAT(error_of([&] { yolo::postprocess_batch(one, {empty}, plain); }),
              HasSubstr("letterbox[0]"));
  const xt::xtensor<float, 2> five = xt::zeros<float>({3, 5});
  EXPECT_THAT(error_of([&] { yolo::postprocess_end2end(five, g, 0.5f); }), HasSubstr("rows needs"));
}

// --- Drawing ---------------------------------------------------------------------

TEST(DrawDetections, OutlineGrowsOutwardAndClampsAtTheBorder) {
  auto im = solid_image(100, 100, {0, 0, 0});
  yolo::draw_detections(im, {{0, 0, 50, 50, 0.9f, 0}}, {"person"}, false, 2);
  const RGB blue = {4, 42, 255};
  EXPECT_EQ(columns_with(im, 30, blue), (std::vector<int>{0, 50, 51}));
  for (int y : {50, 51}) EXPECT_EQ(columns_with(im, y, blue).size(), 52u) << y;
  EXPECT_EQ(pixel(im, 30, 52), (RGB{0, 0, 0}));
  // Top edge at y = 0 raises the bar to rows 0..8.
  EXPECT_EQ(pixel(im, 0, 8), blue);

  auto untouched = solid_image(20, 20, {1, 2, 3});
  yolo::draw_detections(untouched, {}, {}, true, 3);
  EXPECT_EQ(untouched.data, solid_image(20, 20, {1, 2, 3}).data);
}

TEST(DrawDetections, LabelBarSpansEightPixelsPerCharacter) {
  auto im = solid_image(200, 120, {0, 0, 0});
  // Class 25 of 3 names: text "cls_25" (48 px), colour entry 5.
  yolo::draw_detections(im, {{20, 40, 120, 100, 0.5f, 25}}, {"a", "b", "c"}, false, 0);
  const RGB pink = {255, 111, 221};
  // Bar rows ty-10 .. ty-2 = 30..38, columns 20..68; no outline with thickness 0.
  EXPECT_EQ(pixel(im, 20, 30), pink);
  EXPECT_EQ(pixel(im, 68, 38), pink);
  EXPECT_EQ(pixel(im, 69, 34), (RGB{0, 0, 0}));
  EXPECT_EQ(pixel(im, 20, 29), (RGB{0, 0, 0}));
  EXPECT_EQ(pixel(im, 20, 39), (RGB{0, 0, 0}));
  EXPECT_EQ(pixel(im, 20, 60), (RGB{0, 0, 0}));
  size_t white = 0;
  for (int y = 30; y <= 38; ++y) white += columns_with(im, y, {255, 255, 255}).size();
  EXPECT_GT(white, 20u);
}

TEST(DrawDetections, ScoreSuffixAndWrappedColours) {
  auto im = solid_image(200, 60, {0, 0, 0});
  // "dog 0.88" is 8 characters: bar columns 10..74.
  yolo::draw_detections(im, {{10, 30, 100, 50, 0.876f, 1}}, {"cat", "dog"}, true, 1);
  EXPECT_EQ(pixel(im, 74, 20), (RGB{11, 219, 235}));
  EXPECT_EQ(pixel(im, 75, 20), (RGB{0, 0, 0}));

  auto neg = solid_image(60, 60, {0, 0, 0});
  yolo::draw_detections(neg, {{10, 30, 40, 50, 0.5f, -1}}, {"x"}, false, 1);
  EXPECT_EQ(pixel(neg, 10, 40), (RGB{125, 36, 255}));
}

TEST(DrawDetections, HostileBoxesAndLabelsStayInsideTheImage) {
  auto im = solid_image(40, 30, {0, 0, 0});
  const float nan = std::numeric_limits<float>::quiet_NaN();
  const float inf = std::numeric_limits<float>::infinity();
  yolo::draw_detections(im,
                        {{nan, nan, nan, nan, nan, 3},
                         {-inf, -1e30f, inf, 1e30f, 1, 7},
                         {-50, 5, 10, 20, 1, 2},
                         {5, 5, 1, 1, 1, 1}},
                        {std::string(300, 'W'), "caf\xc3\xa9\n\x01\x7f"}, true, 1 << 30);
  EXPECT_EQ(im.data.size(), 40u * 30 * 3);

  yolo::RawImage empty;
  yolo::draw_detections(empty, {{0, 0, 1, 1, 1, 0}}, {}, true, 1);
  yolo::RawImage lying = solid_image(4, 4, {0, 0, 0});
  lying.height = 40;
  EXPECT_THAT(error_of([&] { yolo::draw_detections(lying, {}, {}, true, 1); }),
              HasSubstr("image.data"));
}

// The outline, step by step as stated: step t paints rows ya and yb over
// [xa, xb] when xa <= xb and columns xa and xb over [ya, yb] when ya <= yb.
void paint_outline_stepwise(yolo::RawImage& im, const yolo::Detection& d, int thickness, RGB rgb) {
  const auto cx = [&](long v) { return int(std::min<long>(std::max<long>(v, 0), im.width - 1)); };
  const auto cy = [&](long v) { return int(std::min<long>(std::max<long>(v, 0), im.height - 1)); };
  const int x1 = cx(long(d.x1)), y1 = cy(long(d.y1)), x2 = cx(long(d.x2)), y2 = cy(long(d.y2));
  const auto put = [&](int x, int y) {
    std::copy(rgb.begin(), rgb.end(), im.data.begin() + (long(y) * im.width + x) * 3);
  };
  for (long t = 0; t < thickness; ++t) {
    const int xa = cx(x1 - t), xb = cx(x2 + t), ya = cy(y1 - t), yb = cy(y2 + t);
    for (int x = xa; x <= xb; ++x) put(x, ya), put(x, yb);
    for (int y = ya; y <= yb; ++y) put(xa, y), put(xb, y);
  }
}

TEST(DrawDetections, OutlinesAreTheStepwiseRulesPixels) {
  const RGB bg = {1, 2, 3};
  const std::vector<float> coords = {-3, 0, 2, 4, 6, 30};
  for (const auto& [w, h] : {std::pair{9, 7}, {1, 6}, {6, 1}, {12, 12}}) {
    for (float x1 : coords)
      for (float x2 : coords)
        for (float y1 : coords)
          for (float y2 : coords) {
            const yolo::Detection d = {x1, y1, x2, y2, 0.5f, 3};
            // The label alone, painted over the outline afterwards.
            auto label = solid_image(w, h, bg);
            yolo::draw_detections(label, {d}, {}, false, 0);
            for (int thickness : {1, 2, 3, 5, 8, 40}) {
              auto want = solid_image(w, h, bg);
              paint_outline_stepwise(want, d, thickness, {0, 223, 183});
              for (size_t i = 0; i < want.data.size(); i += 3)
                if (pixel(label, int(i / 3 % w), int(i / 3 / w)) != bg)
                  std::copy_n(&label.data[i], 3, &want.data[i]);
              auto got = solid_image(w, h, bg);
              yolo::draw_detections(got, {d}, {}, false, thickness);
              ASSERT_EQ(got.data, want.data) << w << "x" << h << " box " << x1 << "," << y1 << " "
                                             << x2 << "," << y2 << " t " << thickness;
            }
          }
  }
}

// One box on a 1 x 300000 image with the largest thickness used to take
// about a minute; filled as rectangles it is one pass over the image.
TEST(DrawDetections, HugeThicknessOnATallImageIsCheap) {
  auto im = solid_image(1, 300000, {0, 0, 0});
  yolo::draw_detections(im, {{0, 0, 0, 299999, 0.5f, 0}}, {}, false,
                        std::numeric_limits<int>::max());
  EXPECT_EQ(pixel(im, 0, 150000), (RGB{4, 42, 255}));
  EXPECT_EQ(pixel(im, 0, 299999), (RGB{4, 42, 255}));
}

// A target over the pixel budget is refused before the batch tensor is
// allocated (16000 x 16000 would reserve 2.9 GB), in a child that may grow
// its address space by 512 MiB only.
TEST(Preprocess, TargetsOverTheBudgetAreRefusedBeforeAllocating) {
  const uint8_t px[3] = {1, 2, 3};
  const std::string path = testimg::write(testimg::solid(2, 2, 9, 9, 9), Format::Png, "t.png");
  const auto refused = [](const std::function<void()>& f) {
    try {
      f();
    } catch (const std::runtime_error& e) {
      return std::string(e.what()) == "stbir_resize_uint8_linear failed";
    }
    return false;
  };
  EXPECT_EQ(testimg::in_child(
                [&] {
                  return refused([&] {
                           yolo::preprocess_images({{px, 1, 1, 0, vemoproc::PixelFormat::RGB}},
                                                   {16000, 16000});
                         }) &&
                         refused([&] {
                           yolo::preprocess({path}, {16000, 16000});
                         });
                },
                512),
            0);
}

// The overload without options bounds its NMS: 17000 one-pixel strips that
// all cross each other (none suppressing another) would test 72 million pairs;
// past 2^26 steps it starts again on the 8192 best, keeping all of them.
TEST(Postprocess, CrossingStripsAreBoundedToTheBestCandidates) {
  std::vector<std::vector<float>> rows;
  for (int i = 0; i < 17000; ++i) {
    const float at = float(i / 2) * 0.5f;
    const float score = 0.9f - float(i) * 1e-5f;  // row i above row i + 1
    rows.push_back(i % 2 ? head_row(at, 0, at + 1, 5000, {score, 0.0f})
                         : head_row(0, at, 5000, at + 1, {score, 0.0f}));
  }
  const auto dets = yolo::postprocess(head(rows), {5000, 5000}, {5000, 5000}, 0.5f, 0.45f, 20000);
  ASSERT_EQ(dets.size(), 8192u);
  EXPECT_FLOAT_EQ(dets.back().score, 0.9f - 8191 * 1e-5f);
}
