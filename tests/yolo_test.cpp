#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <limits>

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
