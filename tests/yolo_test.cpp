#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <functional>
#include <limits>
#include <random>

#include <xtensor/xbuilder.hpp>
#include <xtensor/xmanipulation.hpp>
#include <xtensor/xview.hpp>

#include "../src/pixels/cpu.hpp"
#include "stb_image_resize2.h"
#include "test_images.hpp"
#include "yolo.hpp"
#include "yolo_tasks.hpp"

using testimg::Format;
using vemoproc::PixelFormat;
using ::testing::HasSubstr;

namespace {

using RGB = std::array<uint8_t, 3>;
const float kNan = std::numeric_limits<float>::quiet_NaN();
const float kInf = std::numeric_limits<float>::infinity();

std::string error_of(const std::function<void()>& f) {
  try {
    f();
  } catch (const std::runtime_error& e) {
    return e.what();
  }
  return "(no exception)";
}

// Each call throws a message containing its text.
void expect_errors(const std::vector<std::pair<std::function<void()>, std::string>>& cases) {
  for (size_t i = 0; i < cases.size(); ++i)
    EXPECT_NE(error_of(cases[i].first).find(cases[i].second), std::string::npos)
        << "case " << i << ": " << error_of(cases[i].first);
}

RGB pixel(const yolo::RawImage& im, int x, int y) {
  const size_t i = (static_cast<size_t>(y) * im.width + x) * 3;
  return {im.data[i], im.data[i + 1], im.data[i + 2]};
}

yolo::RawImage solid_image(int w, int h, RGB rgb) {
  yolo::RawImage im;
  im.width = w;
  im.height = h;
  im.channels = 3;
  for (int i = 0; i < w * h; ++i) im.data.insert(im.data.end(), rgb.begin(), rgb.end());
  return im;
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

yolo::PostprocessOptions opt(float conf, float iou, size_t max_det = 300, bool agnostic = false,
                             std::vector<int> classes = {}, size_t max_candidates = 30000,
                             bool objectness = false) {
  return {conf, iou, max_det, agnostic, false, objectness, std::move(classes), max_candidates};
}

// (score, class) of each detection.
std::vector<std::pair<float, int>> kept(const std::vector<yolo::Detection>& dets) {
  std::vector<std::pair<float, int>> s;
  for (const auto& d : dets) s.push_back({d.score, d.class_id});
  return s;
}

// Detections as bytes: equal lists, NaN coordinates included, give equal bytes.
std::vector<uint8_t> bytes_of(const std::vector<yolo::Detection>& dets) {
  const auto* p = reinterpret_cast<const uint8_t*>(dets.data());
  return {p, p + dets.size() * sizeof(yolo::Detection)};
}

template <class T>
bool same_bytes(const T& a, const T& b) {
  return std::memcmp(&a, &b, sizeof a) == 0;
}

// A random head [n, 4 + classes]: crowded boxes, some with negative sides.
xt::xtensor<float, 2> random_head(size_t n, size_t classes, uint32_t seed) {
  std::mt19937 rng(seed);
  std::uniform_real_distribution<float> u(0.0f, 1.0f);
  xt::xtensor<float, 2> h = xt::zeros<float>({n, 4 + classes});
  for (size_t i = 0; i < n; ++i)
    for (size_t j = 0; j < 4 + classes; ++j)
      h(i, j) = j < 2 ? 100 * u(rng) : j < 4 ? 30 * u(rng) - 4 : u(rng);
  return h;
}

}  // namespace

// --- Loading -----------------------------------------------------------------

// Missing, junk, truncated and over-the-cap files all fail naming the path.
TEST(RawImageLoad, UnreadableFilesNameThePath) {
  std::vector<std::string> bad = {(testimg::scratch_dir() / "missing.png").string(),
                                  testimg::write_garbage("junk.png"),
                                  testimg::write_pic(2, 1, {1, 2, 3, 4, 5, 6}, "cut.pic", 4)};
  constexpr long cap = VEMOPROC_TEST_MAX_DIMENSION;
  if (cap <= 65536) {
    bad.push_back(
        testimg::write(testimg::solid(1, int(cap) + 1, 5, 5, 5), Format::Png, "over.png"));
  }
  for (const auto& path : bad)
    EXPECT_EQ(error_of([&] { yolo::RawImage im(path); }), "stbi_load failed for: " + path);
  // Empty PNG data chunks add nothing.
  const auto rgb = testimg::make(3, 2, 3, [](int x, int y, int c) { return x + 7 * y + 50 * c; });
  const std::string idat = testimg::write(rgb, Format::Png, "empty-idat.png");
  testimg::insert_empty_idat(idat);
  EXPECT_EQ(yolo::RawImage(idat).data, rgb.data);
}

// Views in any format, padded or not, give the file's RawImage; the pixel
// budget holds for files and letterbox targets, exactly at its limit.
TEST(RawImageLoad, ViewsAndThePixelBudget) {
  const std::string path =
      testimg::write(testimg::make(9, 4, 3, [](int x, int y, int c) { return x * 20 + y * 3 + c; }),
                     Format::Png, "view.png");
  const yolo::RawImage file(path);
  for (auto format : {PixelFormat::RGB, PixelFormat::BGRA})
    EXPECT_EQ(yolo::RawImage(testimg::lay_out(testimg::decode(path), format, 2).view).data,
              file.data);
  const uint8_t px[12] = {};
  const uint64_t saved = vemoproc::max_image_pixels();
  vemoproc::set_max_image_pixels(35);
  EXPECT_EQ(error_of([&] { yolo::RawImage im(path); }), "stbi_load failed for: " + path);
  vemoproc::set_max_image_pixels(36);
  EXPECT_EQ(yolo::letterbox(file, {9, 4}, 114).data.size(), 9u * 4 * 3);
  // clang-format off
  expect_errors({
      {[&] { yolo::letterbox(file, {9, 5}, 114); }, "stbir_resize_uint8_linear failed"},
      {[] { yolo::RawImage im(vemoproc::ImageView{nullptr, 1, 1, 0, PixelFormat::RGB}); }, "image.data"},
      {[&] { yolo::RawImage im(vemoproc::ImageView{px, 2, 2, 5, PixelFormat::RGB}); }, "image.stride"}});
  // clang-format on
  vemoproc::set_max_image_pixels(saved);
}

// --- Letterbox -----------------------------------------------------------------

// Worked by hand: r in float, sides rounded half away from zero, the block
// centred by integer division (an odd free column goes right).
TEST(Letterbox, GeometryFollowsTheRule) {
  const yolo::LetterboxInfo want[] = {{1920, 1080, 640.0f / 1920.0f, 640, 360, 0, 140},
                                      {1, 4, 2.5f, 3, 10, 3, 0},
                                      {10, 4, 1.0f, 10, 4, 1, 0},
                                      {30, 60, 32.0f / 60.0f, 16, 32, 24, 0}};
  const std::array<int, 2> shapes[] = {{640, 640}, {10, 10}, {13, 4}, {64, 32}};
  for (int i = 0; i < 4; ++i)
    EXPECT_TRUE(same_bytes(
        yolo::letterbox_info(want[i].original_width, want[i].original_height, shapes[i]), want[i]))
        << i;
}

// Letterbox is the linear resize of the whole image placed at the rule's
// offsets on pad_value: odd free space, shrinking, enlarging, odd row bytes.
TEST(Letterbox, EqualsTheResizerPlacedByTheRule) {
  // clang-format off
  const std::array<std::array<int, 4>, 6> cases = {
      {{37, 23, 31, 31}, {23, 37, 16, 9}, {5, 3, 64, 48}, {200, 7, 33, 40}, {1, 9, 7, 5}, {64, 48, 64, 64}}};
  // clang-format on
  for (const auto& [w, h, W, H] : cases) {
    yolo::RawImage im = solid_image(w, h, {0, 0, 0});
    for (size_t i = 0; i < im.data.size(); ++i) im.data[i] = uint8_t(i * 37 + i / 7);
    const float r = std::min(float(H) / float(h), float(W) / float(w));
    const int nw = int(std::round(r * float(w))), nh = int(std::round(r * float(h)));
    std::vector<uint8_t> resized(size_t(nw) * nh * 3);
    ASSERT_TRUE(
        stbir_resize_uint8_linear(im.data.data(), w, h, 0, resized.data(), nw, nh, 0, STBIR_RGB));
    yolo::RawImage want = solid_image(W, H, {9, 9, 9});
    for (int y = 0; y < nh; ++y)
      std::copy_n(&resized[size_t(y) * nw * 3], nw * 3,
                  &want.data[(size_t((H - nh) / 2 + y) * W + (W - nw) / 2) * 3]);
    EXPECT_EQ(yolo::letterbox(im, {W, H}, 9).data, want.data) << w << "x" << h << " to " << W;
  }
}

TEST(Letterbox, BadArgumentsThrow) {
  yolo::RawImage short_data = solid_image(8, 8, {0, 0, 0});
  short_data.data.resize(10);
  const std::vector<uint8_t> line(1000 * 3, 50), px(4 * 4 * 3, 50);
  const vemoproc::ImageView ok{px.data(), 4, 4, 0, PixelFormat::RGB};
  const std::string resize_failed = "stbir_resize_uint8_linear failed";
  // clang-format off
  expect_errors({
      {[] { yolo::letterbox(solid_image(8, 8, {0, 0, 0}), {0, 0}, 114); }, resize_failed},
      {[] { yolo::letterbox(yolo::RawImage{}, {8, 8}, 114); }, resize_failed},
      {[&] { yolo::letterbox(short_data, {8, 8}, 114); }, "image.data"},
      {[] { yolo::letterbox_info(0, 4, {8, 8}); }, "width and height"},
      {[] { yolo::letterbox_info(4, 4, {-1, 8}); }, "new_shape"},
      {[&] { yolo::preprocess_images({ok, {nullptr, 4, 4, 0, PixelFormat::RGB}}, {8, 8}); }, "images[1]"},
      {[&] { yolo::preprocess_images({ok}, {8, -8}); }, "new_shape"},
      // 1000 x 1 into 10 x 10 rounds to a block 0 rows high.
      {[&] { yolo::preprocess_images({{line.data(), 1000, 1, 0, PixelFormat::RGB}}, {10, 10}); }, resize_failed},
  });
  // clang-format on
}

// --- Batch preprocessing ----------------------------------------------------------

// Planar RGB of the letterboxed image over 255.0f, [batch, 3, height, width],
// with the wide packing and without: 33 x 31 runs both the 16-pixel steps and
// the tail; the red image has 11 padded columns on its left.
TEST(Preprocess, PacksPlanarRgbDividedBy255) {
  const std::vector<std::string> paths = {
      testimg::write(
          testimg::make(32, 24, 3, [](int x, int y, int c) { return 8 * x + y + 60 * c; }),
          Format::Png, "grad.png"),
      testimg::write(testimg::solid(10, 30, 255, 0, 0), Format::Bmp, "red.bmp")};
  for (bool wide : {false, true}) {  // the wide packing last, leaving the default
    vemoproc::detail::set_wide_paths_enabled(wide);
    const auto batch = yolo::preprocess(paths, {33, 31});
    ASSERT_EQ(batch.shape(), (std::array<size_t, 4>{2, 3, 31, 33}));
    for (size_t i = 0; i < 2; ++i) {
      const auto boxed = yolo::letterbox(yolo::RawImage(paths[i]), {33, 31}, 114);
      for (int c = 0; c < 3; ++c)
        for (int y = 0; y < 31; ++y)
          for (int x = 0; x < 33; ++x)
            ASSERT_EQ(batch(i, c, y, x), float(pixel(boxed, x, y)[c]) / 255.0f) << i << c << y << x;
    }
  }
  EXPECT_EQ(yolo::preprocess({}, {32, 16}).shape(), (std::array<size_t, 4>{0, 3, 16, 32}));
  const std::string missing = (testimg::scratch_dir() / "nope.jpg").string();
  // clang-format off
  expect_errors({{[&] { yolo::preprocess({paths[0], missing, paths[0]}, {8, 8}); }, "stbi_load failed for: " + missing}});
  // clang-format on
}

TEST(PreprocessImages, ViewsGiveTheFileBatchBitForBitWithTheGeometry) {
  const auto a = testimg::write(
      testimg::make(45, 29, 3, [](int x, int y, int c) { return 7 * x + 3 * y + 80 * c; }),
      Format::Png, "pi-a.png");
  const auto b =
      testimg::write(testimg::make(13, 40, 1, [](int x, int y, int) { return 19 * x + 5 * y; }),
                     Format::Png, "pi-b.png");
  using F = PixelFormat;
  using Case = std::tuple<bool, std::array<int, 2>, F, F, size_t>;  // wide, shape, formats, pad
  // Both wide and portable paths; odd target sides give odd row bytes.
  // clang-format off
  for (const auto& [wide, shape, fa, fb, pad] : {Case{true, {37, 33}, F::RGB, F::GRAY, 0}, Case{false, {37, 33}, F::BGRA, F::RGB, 5},
                                                 Case{true, {64, 48}, F::RGB, F::BGR, 5}, Case{false, {64, 48}, F::BGR, F::GRAY, 3}}) {
    // clang-format on
    vemoproc::detail::set_wide_paths_enabled(wide);
    const auto la = testimg::lay_out(testimg::decode(a), fa, pad);
    const auto lb = testimg::lay_out(testimg::decode(b), fb, pad);
    const yolo::DetectionBatch batch = yolo::preprocess_images({la.view, lb.view}, shape);
    EXPECT_TRUE(batch.tensor == yolo::preprocess({a, b}, shape)) << int(fa) << "/" << int(fb);
    ASSERT_EQ(batch.letterbox.size(), 2u);
    EXPECT_TRUE(same_bytes(batch.letterbox[0], yolo::letterbox_info(45, 29, shape)));
    EXPECT_TRUE(same_bytes(batch.letterbox[1], yolo::letterbox_info(13, 40, shape)));
  }
  vemoproc::detail::set_wide_paths_enabled(true);
}

// --- Postprocessing -------------------------------------------------------------

// Selection and NMS, worked by hand on the identity geometry: (score, class)
// of the kept boxes, best first.
TEST(Postprocess, SelectionAndNmsFollowTheRule) {
  std::vector<float> last_only(80, 0.1f), with_nan(80, 0.2f);
  last_only[79] = 0.7f;
  with_nan[3] = kNan;
  with_nan[50] = 0.9f;
  // a = (0,0,10,10), b = (5,0,15,10): IoU = 50 / 150 in float.
  const float iou = 50.0f / (150.0f + 1.0e-7f);
  const auto pair = head({head_row(0, 0, 10, 10, {0.9f, 0}), head_row(5, 0, 15, 10, {0.8f, 0})});
  const auto twins = head({head_row(0, 0, 10, 10, {0.9f, 0}), head_row(0, 0, 10, 10, {0, 0.8f})});
  // a (class 1, 0.9) covers b (class 0, 0.8); c (class 1, 0.7) is apart.
  const auto abc = head({head_row(0, 0, 10, 10, {0, 0.9f}), head_row(1, 0, 11, 10, {0.8f, 0}),
                         head_row(100, 0, 110, 10, {0, 0.7f})});
  std::vector<std::vector<float>> apart;
  for (float s : {0.3f, 0.9f, 0.5f, 0.7f, 0.5f, 0.4f})
    apart.push_back(
        head_row(float(apart.size()) * 20, 0, float(apart.size()) * 20 + 10, 10,
                 apart.size() == 4 ? std::vector<float>{0, s} : std::vector<float>{s, 0}));
  struct Case {
    const char* name;
    xt::xtensor<float, 2> head;
    yolo::PostprocessOptions o;
    std::vector<std::pair<float, int>> want;
  };
  // clang-format off
  const Case cases[] = {
      {"strictly above, best class, lowest index on ties",
       head({head_row(0, 0, 10, 10, {0.25f, 0.1f, 0.2f}), head_row(100, 100, 110, 110, {0.3f, 0.1f, 0.3f}),
             head_row(200, 200, 210, 210, {0.1f, 0.2f, 0.6f})}), opt(0.25f, 0.45f), {{0.6f, 2}, {0.3f, 0}}},
      {"last of 80 classes, NaN among scores",
       head({head_row(0, 0, 10, 10, last_only), head_row(100, 100, 110, 110, std::vector<float>(80, 0.25f)),
             head_row(200, 200, 210, 210, with_nan)}), opt(0.25f, 0.45f), {{0.9f, 50}, {0.7f, 79}}},
      {"-inf threshold keeps -inf scores", head({head_row(0, 0, 10, 10, {-kInf, -kInf})}), opt(-kInf, 0.45f),
       {{std::numeric_limits<float>::lowest(), 0}}},
      {"IoU at the threshold keeps", pair, opt(0.25f, iou), {{0.9f, 0}, {0.8f, 0}}},
      {"IoU above the threshold suppresses", pair, opt(0.25f, std::nextafter(iou, 0.0f)), {{0.9f, 0}}},
      {"classes apart", twins, opt(0.25f, 0.45f), {{0.9f, 0}, {0.8f, 1}}},
      {"agnostic", twins, opt(0.25f, 0.45f, 300, true), {{0.9f, 0}}},
      {"negative threshold, per class", abc, opt(0.25f, -0.2f), {{0.9f, 1}, {0.8f, 0}}},
      {"negative threshold, agnostic", abc, opt(0.25f, -0.2f, 300, true), {{0.9f, 1}}},
      {"class filter before NMS", abc, opt(0.25f, 0.45f, 300, true, {0}), {{0.8f, 0}}},
      {"class filter, unknown ids", abc, opt(0.25f, 0.45f, 300, true, {1, 5}), {{0.9f, 1}, {0.7f, 1}}},
      // a (0.9) suppresses b (0.8); c (0.1) overlaps only the suppressed b.
      {"greedy chain", head({head_row(20, 0, 30, 10, {0.7f, 0}), head_row(0, 0, 10, 10, {0.9f, 0}),
                             head_row(10, 0, 20, 10, {0.1f, 0}), head_row(2, 0, 22, 10, {0.8f, 0})}),
       opt(0.05f, 0.3f), {{0.9f, 0}, {0.7f, 0}, {0.1f, 0}}},
      {"max_det", head(apart), opt(0.25f, 0.45f, 2), {{0.9f, 0}, {0.7f, 0}}},
      {"max_det 0 keeps one", head(apart), opt(0.25f, 0.45f, 0), {{0.9f, 0}}},
      {"candidate cap: highest, earlier of equals", head(apart), opt(0.25f, 0.45f, 300, false, {}, 3),
       {{0.9f, 0}, {0.7f, 0}, {0.5f, 0}}},
      {"candidate cap 0", head(apart), opt(0.25f, 0.45f, 300, false, {}, 0), {}},
      // 0.5 * 0.9 for class 1; 0.2 * 0.95 = 0.19 is below 0.25, 0.5 * 0.5 equal to it.
      {"objectness multiplies", head({head_row(0, 0, 10, 10, {0.5f, 0.6f, 0.9f}), head_row(50, 50, 60, 60, {0.2f, 0.95f, 0}),
                                      head_row(100, 100, 110, 110, {0.5f, 0.5f, 0})}),
       opt(0.25f, 0.45f, 300, false, {}, 30000, true), {{0.5f * 0.9f, 1}}},
  };
  // clang-format on

  for (const Case& c : cases)
    EXPECT_EQ(kept(yolo::postprocess(c.head, kIdentity, c.o)), c.want) << c.name;
}

// The shape overload maps back with the float gain and pads of the older
// pipeline and clips: 640 x 480 seen at 640 (gain 1, pad_x -0.1, pad_y 79.9),
// 1280 x 640 seen at 320 (gain 0.25).
TEST(Postprocess, ShapeOverloadUndoesTheLetterbox) {
  const float pad_y = 80.0f - 0.1f;
  const auto dets = yolo::postprocess(head({head_row(0, 80, 640, 560, {0.9f, 0})}), k640,
                                      {480, 640}, 0.25f, 0.45f, 300);
  EXPECT_EQ(bytes_of(dets), bytes_of({{0.1f, 80.0f - pad_y, 640, 480, 0.9f, 0}}));
  const auto scaled = yolo::postprocess(head({head_row(100, 100, 200, 180, {0, 0.9f})}), {320, 320},
                                        {640, 1280}, 0.25f, 0.45f, 300);
  EXPECT_EQ(bytes_of(scaled),
            bytes_of({{(100.0f + 0.1f) / 0.25f, (100.0f - pad_y) / 0.25f, (200.0f + 0.1f) / 0.25f,
                       (180.0f - pad_y) / 0.25f, 0.9f, 1}}));
}

// 200,000 disjoint boxes in a grid and in a column all survive; NMS tests
// only the pairs that can overlap, so this takes well under a second.
TEST(Postprocess, ManyDisjointBoxesAreCheap) {
  for (bool column : {false, true}) {
    xt::xtensor<float, 2> h = xt::zeros<float>({size_t{200000}, size_t{6}});
    for (size_t i = 0; i < 200000; ++i) {
      h(i, 0) = column ? 1.0f : float(i % 500) * 3 + 1;
      h(i, 1) = column ? float(i) * 3 + 1 : float(i / 500) * 3 + 1;
      h(i, 2) = h(i, 3) = 2;
      h(i, 4) = 0.3f + float(i % 1000) * 0.0005f;
    }
    EXPECT_EQ(yolo::postprocess(h, k640, k640, 0.25f, 0.45f, 1000000000).size(), 200000u);
  }
}

// --- Postprocessing with the letterbox geometry -----------------------------------

TEST(PostprocessGeometry, LayoutsObjectnessAndBatchesAgree) {
  // Channel-first heads are read in place (1000 candidates: a partial block).
  const auto rows = random_head(1000, 80, 3);
  const xt::xtensor<float, 2> cn = xt::transpose(rows);
  auto o = opt(0.3f, 0.45f);
  const auto want = yolo::postprocess(rows, kIdentity, o);
  o.channels_first = true;
  EXPECT_EQ(bytes_of(yolo::postprocess(cn, kIdentity, o)), bytes_of(want));
  o.objectness = true;
  const auto obj_cn = yolo::postprocess(cn, kIdentity, o);
  o.channels_first = false;
  EXPECT_EQ(bytes_of(obj_cn), bytes_of(yolo::postprocess(rows, kIdentity, o)));

  // Batches equal single images.
  const auto a = random_head(300, 5, 21), b = random_head(300, 5, 22);
  xt::xtensor<float, 3> heads = xt::stack(xt::xtuple(a, b));
  const std::vector<yolo::LetterboxInfo> geo = {yolo::letterbox_info(300, 200, {100, 100}),
                                                yolo::letterbox_info(50, 90, {100, 100})};
  o = opt(0.2f, 0.5f, 100);
  const auto both = yolo::postprocess_batch(heads, geo, o);
  ASSERT_EQ(both.size(), 2u);
  EXPECT_EQ(bytes_of(both[0]), bytes_of(yolo::postprocess(a, geo[0], o)));
  EXPECT_EQ(bytes_of(both[1]), bytes_of(yolo::postprocess(b, geo[1], o)));
}

TEST(PostprocessGeometry, EndToEndRowsKeepTheirOrderAndAreClipped) {
  // 1280 x 720 into 640 x 640: scale 0.5, block 640 x 360, top 140.
  const auto dets = yolo::postprocess_end2end(head({{10, 150, 110, 250, 0.6f, 2.9f},
                                                    {0, 0, 5, 5, 0.25f, 1},  // at the threshold
                                                    {-20, 100, 700, 600, 0.9f, -1.5f},
                                                    {1, 2, 3, 4, 0.3f, 7}}),
                                              yolo::letterbox_info(1280, 720, {640, 640}), 0.25f);
  // The second box is clipped to the image, the third to its top.
  EXPECT_EQ(
      bytes_of(dets),
      bytes_of({{20, 20, 220, 220, 0.6f, 2}, {0, 0, 1280, 720, 0.9f, -1}, {2, 0, 6, 0, 0.3f, 7}}));
}

// Both overloads refuse zero sizes and short heads naming the argument.
TEST(PostprocessGeometry, BadShapesAreRefusedNamingTheArgument) {
  const yolo::LetterboxInfo g = yolo::letterbox_info(64, 64, {64, 64});
  yolo::LetterboxInfo empty = g;
  empty.new_width = 0;
  yolo::PostprocessOptions plain, older_cn;
  older_cn.objectness = older_cn.channels_first = true;
  // One class: 5 columns are enough.
  EXPECT_EQ(yolo::postprocess(head({head_row(0, 0, 4, 4, {0.9f})}), g, plain).size(), 1u);
  const xt::xtensor<float, 3> one = xt::zeros<float>({1, 3, 6});
  const auto h = head({head_row(0, 0, 10, 10, {0.9f, 0})});
  // clang-format off
  expect_errors({
      {[] { yolo::postprocess(xt::zeros<float>({3, 5}), k640, k640, 0.25f, 0.45f, 300); }, "postprocess(): expected (N,5+nc) tensor"},
      {[&] { yolo::postprocess(h, {0, 0}, k640, 0.25f, 0.45f, 300); }, "input_shape"},
      {[&] { yolo::postprocess(h, {640, 0}, k640, 0.25f, 0.45f, 300); }, "input_shape"},
      {[&] { yolo::postprocess(h, k640, {0, 0}, 0.25f, 0.45f, 300); }, "original_shape"},
      {[&] { yolo::postprocess(h, k640, {480, 0}, 0.25f, 0.45f, 300); }, "original_shape"},
      {[&] { yolo::postprocess(xt::zeros<float>({3, 4}), g, plain); }, "head needs at least 5 columns"},
      {[&] { yolo::postprocess(xt::zeros<float>({5, 9}), g, older_cn); }, "head needs at least 6 rows"},
      {[&] { yolo::postprocess(xt::zeros<float>({3, 6}), empty, plain); }, "letterbox"},
      {[&] { yolo::postprocess_batch(one, {empty}, plain); }, "letterbox[0]"},
      {[&] { yolo::postprocess_batch(one, {g, g}, plain); }, "letterbox"},
      {[&] { yolo::postprocess_end2end(xt::zeros<float>({3, 5}), g, 0.5f); }, "rows needs"}});
  // clang-format on
}

// --- Drawing ---------------------------------------------------------------------

// Pixels worked by hand: the outline grows outward from the box and clamps at
// the border; the label bar is 8 pixels per character, 9 rows ending 2 above
// the box top (never above row 0), in the class's colour (class modulo 20).
TEST(DrawDetections, OutlinesAndLabelBars) {
  const RGB black = {0, 0, 0}, blue = {4, 42, 255}, pink = {255, 111, 221}, cyan = {11, 219, 235};
  struct Case {
    int w, h;
    yolo::Detection d;
    std::vector<std::string> names;
    bool score;
    int thickness;
    std::vector<std::pair<std::array<int, 2>, RGB>> probes;
  };
  // clang-format off
  const Case cases[] = {
      // "person": bar rows 0..8, columns 0..48; outline columns 0, 50, 51.
      {100, 100, {0, 0, 50, 50, 0.9f, 0}, {"person"}, false, 2,
       {{{0, 30}, blue}, {{1, 30}, black}, {{49, 30}, black}, {{50, 30}, blue}, {{51, 30}, blue},
        {{52, 30}, black}, {{30, 51}, blue}, {{30, 52}, black}, {{48, 8}, blue}, {{49, 4}, black}}},
      // "cls_25": bar rows 30..38, columns 20..68; no outline at thickness 0.
      {200, 120, {20, 40, 120, 100, 0.5f, 25}, {"a", "b", "c"}, false, 0,
       {{{20, 30}, pink}, {{68, 38}, pink}, {{69, 34}, black}, {{20, 29}, black}, {{20, 39}, black}, {{20, 60}, black}}},
      // "dog 0.88": 8 characters, columns 10..74.
      {200, 60, {10, 30, 100, 50, 0.876f, 1}, {"cat", "dog"}, true, 1, {{{74, 20}, cyan}, {{75, 20}, black}}},
      {60, 60, {10, 30, 40, 50, 0.5f, -1}, {"x"}, false, 1, {{{10, 40}, {125, 36, 255}}}},
      // The largest thickness on a tall image: filled as rectangles, cheap.
      {1, 300000, {0, 0, 0, 299999, 0.5f, 0}, {}, false, std::numeric_limits<int>::max(),
       {{{0, 150000}, blue}, {{0, 299999}, blue}}},
  };
  // clang-format on

  for (const Case& c : cases) {
    auto im = solid_image(c.w, c.h, black);
    yolo::draw_detections(im, {c.d}, c.names, c.score, c.thickness);
    for (const auto& [xy, rgb] : c.probes)
      EXPECT_EQ(pixel(im, xy[0], xy[1]), rgb)
          << c.w << "x" << c.h << " at " << xy[0] << "," << xy[1];
    // The text is white: no colour of the case with the score has a 255.
    EXPECT_TRUE(!c.score || std::count(im.data.begin(), im.data.end(), uint8_t{255}) > 3 * 20);
  }
}

TEST(DrawDetections, HostileBoxesAndLabelsStayInsideTheImage) {
  auto im = solid_image(40, 30, {0, 0, 0});
  // clang-format off
  const std::vector<yolo::Detection> boxes = {
      {kNan, kNan, kNan, kNan, kNan, 3}, {-kInf, -1e30f, kInf, 1e30f, 1, 7}, {-50, 5, 10, 20, 1, 2}, {5, 5, 1, 1, 1, 1}};
  // clang-format on
  yolo::draw_detections(im, boxes, {std::string(300, 'W'), "caf\xc3\xa9\n\x01\x7f"}, true, 1 << 30);
  yolo::RawImage empty, lying = solid_image(4, 4, {0, 0, 0});
  yolo::draw_detections(empty, boxes, {}, true, 1);
  lying.height = 40;
  expect_errors({{[&] { yolo::draw_detections(lying, {}, {}, true, 1); }, "image.data"}});
}

namespace {

using vemoproc::Pipeline;

// The Python letterbox: (w, h) into {W, H} -> block and placement.
TEST(MatchPythonLetterbox, GeometryHalvesToEvenAndPutsTheOddPixelBottomRight) {
  struct Row {
    int w, h, W, H, new_w, new_h, left, top;
  };
  const Row rows[] = {
      {1280, 721, 640, 640, 640, 360, 0, 140},  // 360.5 -> 360 (the native rule: 361)
      {1280, 722, 640, 640, 640, 361, 0, 139},  // dh 139.5: 139 above, 140 below
      {333, 721, 640, 640, 296, 640, 172, 0},  {100, 50, 320, 256, 320, 160, 0, 48},
      {640, 640, 640, 640, 640, 640, 0, 0},
  };
  for (const Row& r : rows) {
    const yolo::LetterboxInfo g = yolo::letterbox_info(r.w, r.h, {r.W, r.H}, Pipeline::MatchPython);
    EXPECT_EQ(std::vector<int>({g.new_width, g.new_height, g.left, g.top}),
              std::vector<int>({r.new_w, r.new_h, r.left, r.top}))
        << r.w << "x" << r.h;
    EXPECT_EQ(g.scale, static_cast<float>(std::min(double(r.H) / r.h, double(r.W) / r.w)));
  }
  EXPECT_EQ(error_of([] {
              yolo::letterbox_info(5, 5, {0, 640}, Pipeline::MatchPython);
            }),
            "letterbox_info(): new_shape sides must be at least 1");
  EXPECT_EQ(error_of([] {
              yolo::letterbox_info(0, 5, {640, 640}, Pipeline::MatchPython);
            }),
            "letterbox_info(): width and height must be at least 1");
  const std::vector<uint8_t> thin(2000 * 3, 9);
  EXPECT_EQ(error_of([&] {
              yolo::preprocess_images({{thin.data(), 1, 2000, 0, vemoproc::PixelFormat::RGB}},
                                      {640, 640}, Pipeline::MatchPython);
            }),
            "preprocess_images(): images[0] of 1x2000 scales to an empty block");
}

TEST(MatchPythonLetterbox, BgrIsSwappedOnceAndBoxesMapBackWithTheFloatGain) {
  // 4x2 into 4x4: no resize, one grey row above and below.
  std::vector<uint8_t> rgb(4 * 2 * 3);
  for (size_t i = 0; i < rgb.size(); ++i) rgb[i] = static_cast<uint8_t>(i * 11);
  std::vector<uint8_t> bgr = rgb;
  for (size_t i = 0; i < bgr.size(); i += 3) std::swap(bgr[i], bgr[i + 2]);
  const auto a = yolo::preprocess_images({{rgb.data(), 4, 2, 0, vemoproc::PixelFormat::RGB}},
                                         {4, 4}, Pipeline::MatchPython);
  const auto b = yolo::preprocess_images({{bgr.data(), 4, 2, 0, vemoproc::PixelFormat::BGR}},
                                         {4, 4}, Pipeline::MatchPython);
  EXPECT_EQ(a.tensor, b.tensor);
  EXPECT_EQ(a.tensor(0, 0, 1, 1), rgb[3] / 255.0f);
  EXPECT_EQ(a.tensor(0, 2, 2, 3), rgb[23] / 255.0f);
  EXPECT_EQ(a.tensor(0, 1, 3, 0), 114 / 255.0f);

  // 1280x721 into 640: gain 0.5, top 140; the native rule divides by 360 / 721.
  const yolo::LetterboxInfo g = yolo::letterbox_info(1280, 721, {640, 640}, Pipeline::MatchPython);
  const xt::xtensor<float, 2> rows = {{10, 150, 20, 1000, 0.9f, 2}};
  const auto mapped = yolo::postprocess_end2end(rows, g, 0.25f, Pipeline::MatchPython);
  ASSERT_EQ(mapped.size(), 1u);
  EXPECT_EQ(std::vector<float>({mapped[0].x1, mapped[0].y1, mapped[0].x2, mapped[0].y2}),
            std::vector<float>({20, 20, 40, 721}));
  EXPECT_NE(yolo::postprocess_end2end(rows, g, 0.25f)[0].y1, 20.0f);
  yolo::PostprocessOptions options;
  options.box_mapping = Pipeline::MatchPython;
  const xt::xtensor<float, 2> head = {{15, 575, 10, 850, 0.9f, 0.1f}};
  const auto detected = yolo::postprocess(head, g, options);
  ASSERT_EQ(detected.size(), 1u);
  EXPECT_EQ(std::vector<float>({detected[0].x1, detected[0].y1, detected[0].x2, detected[0].y2}),
            std::vector<float>({20, 20, 40, 721}));
}

TEST(MatchPythonLetterbox, PathsAndBytesGiveTheViewsTensorAndNativeIsUnchanged) {
  const testimg::Pixels p = testimg::make(
      37, 23, 3, [](int x, int y, int c) { return static_cast<uint8_t>(x * 7 + y * 13 + c * 50); });
  const std::string path = testimg::write(p, testimg::Format::Png, "match_python.png");
  const std::vector<uint8_t> bytes = testimg::read_bytes(path);
  const vemoproc::ImageView view{p.data.data(), 37, 23, 0, vemoproc::PixelFormat::RGB};
  for (Pipeline pipeline : {Pipeline::Native, Pipeline::MatchPython}) {
    const auto want = yolo::preprocess_images({view}, {64, 48}, pipeline);
    EXPECT_EQ(yolo::preprocess({path}, {64, 48}, pipeline).tensor, want.tensor);
    EXPECT_EQ(yolo::preprocess_encoded({{bytes.data(), bytes.size()}}, {64, 48}, pipeline).tensor,
              want.tensor);
  }
  EXPECT_EQ(yolo::preprocess({path}, {64, 48}, Pipeline::Native).tensor,
            yolo::preprocess({path}, {64, 48}));
}

}  // namespace
// ---------------------------------------------------------------------------
// The other heads (the numpy transcription in python/tests/test_yolo_tasks.py
// checks the float rules bit for bit; these cover what it does not).
// ---------------------------------------------------------------------------

// Hand-worked probabilistic IoUs: Bhattacharyya distance d, 1 - sqrt(1 - e^-d).
TEST(ProbabilisticIou, HandWorkedCases) {
  const float kPi = 3.14159265f;
  struct Case {
    const char* what;
    std::array<float, 5> a, b;
    float expected;
  } cases[] = {
      // d = eps: 1 - sqrt((1 - float(exp(-1e-7))) + 1e-7), never 1.
      {"identical", {5, 5, 10, 20, 0.3f}, {5, 5, 10, 20, 0.3f}, 0.999532f},
      {"sides swapped, turned 90 degrees",
       {5, 5, 10, 20, 0.3f},
       {5, 5, 20, 10, 0.3f + kPi / 2},
       0.999532f},
      {"turned 180 degrees", {5, 5, 10, 20, 0.3f}, {5, 5, 10, 20, 0.3f + kPi}, 0.999532f},
      // Sigma = diag(100 / 12) each, d = 0.25 * 100 / (200 / 12) = 1.5.
      {"squares one side apart", {0, 0, 10, 10, 0}, {10, 0, 10, 10, 0}, 0.118598f},
      {"far apart", {0, 0, 10, 10, 0}, {100, 0, 10, 10, 0}, 0.0f},
      // A cross of thin boxes: d = 0.5 ln(10004^2 / 160000) = 3.2192.
      {"thin cross", {0, 0, 100, 2, 0}, {0, 0, 2, 100, 0}, 0.020196f},
      {"thin cross by angle", {0, 0, 100, 2, 0}, {0, 0, 100, 2, kPi / 2}, 0.020196f},
  };
  for (const Case& c : cases) {
    EXPECT_NEAR(yolo::probabilistic_iou(c.a, c.b), c.expected, 2e-5f) << c.what;
    EXPECT_EQ(yolo::probabilistic_iou(c.a, c.b), yolo::probabilistic_iou(c.b, c.a)) << c.what;
  }
}

// An identity letterbox of a side x side input.
yolo::LetterboxInfo same_size(int side) { return yolo::letterbox_info(side, side, {side, side}); }

TEST(OrientedBoxes, FastNmsClassesRegularisationAndMapping) {
  // Rows cx, cy, w, h, score class 0, score class 1, angle. B overlaps A and
  // C; A and C are far apart. Fast-NMS drops C too: suppressed B still votes.
  const xt::xtensor<float, 2> head = {{100, 100, 40, 20, 0.9f, 0, 0},
                                      {115, 100, 40, 20, 0.8f, 0, 0},
                                      {130, 100, 40, 20, 0.7f, 0, 0},
                                      {100, 100, 40, 20, 0, 0.6f, 2.0f}};
  yolo::PostprocessOptions o;
  o.iou_threshold = 0.5f;
  const auto got = yolo::postprocess_obb(head, same_size(640), o);
  ASSERT_EQ(got.size(), 2u);  // A, and D of the other class
  EXPECT_EQ(got[0].class_id, 0);
  EXPECT_EQ(got[1].class_id, 1);
  // 2.0 mod pi >= pi / 2: the sides swap and the angle becomes 2.0 - pi / 2.
  EXPECT_EQ(got[1].width, 20.0f);
  EXPECT_EQ(got[1].height, 40.0f);
  EXPECT_NEAR(got[1].angle, 2.0f - 1.5707964f, 1e-6f);
  o.agnostic = true;
  EXPECT_EQ(yolo::postprocess_obb(head, same_size(640), o).size(), 1u);

  // Centre through the letterbox inverse, sides divided by the scale; the
  // corners of an unturned box are its axis-aligned corners. A row scoring
  // exactly the threshold (0.25) is dropped.
  const xt::xtensor<float, 2> rows = {{320, 330, 64, 32, 0.9f, 3, 0}, {8, 8, 4, 4, 0.25f, 1, 0}};
  const yolo::LetterboxInfo g = yolo::letterbox_info(1280, 960, {640, 640});  // scale 0.5, top 80
  const auto mapped = yolo::postprocess_obb_end2end(rows, g, yolo::PostprocessOptions{});
  ASSERT_EQ(mapped.size(), 1u);
  EXPECT_EQ(mapped[0].cx, 640.0f);
  EXPECT_EQ(mapped[0].cy, 500.0f);
  EXPECT_EQ(mapped[0].width, 128.0f);
  EXPECT_EQ(mapped[0].corners[0], (std::array<float, 2>{704, 532}));
  EXPECT_EQ(mapped[0].corners[2], (std::array<float, 2>{576, 468}));
  const yolo::Detection b = yolo::bounding_box(mapped[0], 1280, 960);
  EXPECT_EQ((std::array<float, 4>{b.x1, b.y1, b.x2, b.y2}),
            (std::array<float, 4>{576, 468, 704, 532}));
}

TEST(Classify, RankingSoftmaxAndEdges) {
  const float nan = std::numeric_limits<float>::quiet_NaN();
  struct Case {
    std::vector<float> scores;
    size_t k;
    std::vector<int> ids;
  } cases[] = {
      {{0.1f, 0.7f, 0.7f, 0.2f}, 3, {1, 2, 3}},  // ties to the lower index
      {{0.5f, nan, 0.9f}, 5, {2, 0, 1}},         // NaN last; k above the count
      {{}, 5, {}},
      {{0.3f}, 0, {}},
  };
  for (const Case& c : cases) {
    std::vector<int> ids;
    for (const yolo::ClassScore& s : yolo::classify(c.scores, c.k, false))
      ids.push_back(s.class_id);
    EXPECT_EQ(ids, c.ids);
  }
  // Softmax: max-subtracted, so large logits do not overflow; ranks unchanged.
  const auto p = yolo::classify({1000.0f, 999.0f, 1000.0f}, 3, true);
  EXPECT_EQ(p[0].class_id, 0);
  EXPECT_EQ(p[1].class_id, 2);
  EXPECT_NEAR(p[0].score, 1.0f / (2.0f + std::exp(-1.0f)), 1e-6f);
  EXPECT_EQ(p[0].score, p[1].score);
}

// Segmentation head with 2 coefficients over 2 prototypes (4 x 4 for a 16 x 16
// input): plane 0 positive on the left half, plane 1 everywhere negative.
struct TinySegmentation {
  xt::xtensor<float, 3> protos = xt::zeros<float>({size_t(2), size_t(4), size_t(4)});
  xt::xtensor<float, 2> head = {{8, 8, 12, 12, 0.9f, 1, 0.5f},  // cx cy w h score coef0 coef1
                                {8, 8, 12, 6, 0.3f, -1, 0.5f}};
  TinySegmentation() {
    xt::view(protos, 0, xt::all(), xt::range(0, 2)) = 2.0f;
    xt::view(protos, 1) = -1.0f;
  }
};

TEST(Segment, MasksStayInTheirBoxAndExpandToTheImage) {
  TinySegmentation t;
  yolo::PostprocessOptions o;
  o.conf_threshold = 0.2f;
  o.iou_threshold = 0.9f;
  const auto got = yolo::segment(t.head, t.protos, same_size(16), o);
  ASSERT_EQ(got.size(), 2u);
  // Box 2..14: the region is columns and rows 2..13.
  EXPECT_EQ(got[0].mask.x0, 2);
  EXPECT_EQ(got[0].mask.width, 12);
  // Logits 1.5 on prototype columns 0, 1 and -0.5 on 2, 3. Pixel 8 samples
  // p = 8.5 / 4 - 0.5 = 1.625: 0.375 * 1.5 - 0.625 * 0.5 > 0, pixel 9 (p =
  // 1.875) not: columns 2..8 of the box's rows 2..13.
  const xt::xtensor<uint8_t, 2> full = yolo::full_mask(got[0].mask, 16, 16);
  EXPECT_EQ(full(1, 4), 0);  // above the box
  EXPECT_EQ(full(5, 2), 1);
  EXPECT_EQ(full(5, 8), 1);
  EXPECT_EQ(full(5, 9), 0);
  EXPECT_EQ(got[0].mask.area(), 12u * 7u);
  EXPECT_EQ(got[1].mask.area(), 0u);  // negative everywhere: kept, empty
  // The outline of the rectangle: its four corners, clockwise.
  const auto outlined = yolo::segment(t.head, t.protos, same_size(16), o, true);
  ASSERT_EQ(outlined[0].outlines.size(), 1u);
  EXPECT_EQ(outlined[0].outlines[0], (yolo::Polygon{{2, 2}, {9, 2}, {9, 14}, {2, 14}}));
}

// The batched forms give each image what the single-image form gives.
TEST(TaskBatches, MatchOneImageAtATime) {
  TinySegmentation t;
  xt::xtensor<float, 3> heads = xt::stack(xt::xtuple(t.head, t.head * 1.5f));
  xt::xtensor<float, 4> protos = xt::stack(xt::xtuple(t.protos, -t.protos));
  const std::vector<yolo::LetterboxInfo> g = {same_size(16),
                                              yolo::letterbox_info(40, 20, {16, 16})};
  yolo::PostprocessOptions o;
  const auto seg = yolo::segment_batch(heads, protos, g, o);
  const auto pose = yolo::postprocess_pose_batch(heads, g, o, {1, 2});
  const auto obb = yolo::postprocess_obb_batch(heads, g, o);
  for (size_t i = 0; i < 2; ++i) {
    const xt::xtensor<float, 2> head = xt::view(heads, i);
    const auto one = yolo::segment(head, xt::xtensor<float, 3>(xt::view(protos, i)), g[i], o);
    ASSERT_EQ(seg[i].size(), one.size());
    for (size_t k = 0; k < one.size(); ++k) EXPECT_EQ(seg[i][k].mask.bits, one[k].mask.bits);
    const auto p = yolo::postprocess_pose(head, g[i], o, {1, 2});
    ASSERT_EQ(pose[i].size(), p.size());
    for (size_t k = 0; k < p.size(); ++k) EXPECT_EQ(pose[i][k].keypoints[0].x, p[k].keypoints[0].x);
    EXPECT_EQ(obb[i].size(), yolo::postprocess_obb(head, g[i], o).size());
  }
  EXPECT_THAT(error_of([&] { yolo::segment_batch(heads, protos, {g[0]}, o); }),
              HasSubstr("letterbox holds 1 entries and protos 2 for 2 heads"));
}

TEST(TaskErrors, NameTheArgument) {
  TinySegmentation t;
  const yolo::PostprocessOptions o;
  const xt::xtensor<float, 3> no_protos = xt::zeros<float>({size_t(0), size_t(4), size_t(4)});
  const xt::xtensor<float, 3> many = xt::zeros<float>({size_t(8), size_t(4), size_t(4)});
  const std::pair<std::function<void()>, std::string> cases[] = {
      {[&] { yolo::segment(t.head, no_protos, same_size(16), o); },
       "segment(): protos must not be empty"},
      {[&] { yolo::segment(t.head, many, same_size(16), o); },
       "segment(): head needs at least 13 columns (4 box values and a class score, then 8 mask "
       "coefficients)"},
      {[&] {
         yolo::postprocess_pose(t.head, same_size(16), o, {2, 4});
       },
       "postprocess_pose(): keypoint_shape must be K x D with K at least 1 and D 2 or 3"},
      {[&] {
         yolo::postprocess_pose(t.head, same_size(16), o, {1, 3});
       },
       "postprocess_pose(): head needs at least 8 columns"},
      {[&] { yolo::postprocess_obb_end2end(t.head * 0.0f, {}, o); }, "letterbox sizes"},
      {[&] {
         yolo::postprocess_pose_end2end(t.head, same_size(16), o, {1, 3});
       },
       "rows needs at least 9 columns (x1, y1, x2, y2, score, class, 1 x 3 keypoint values)"},
  };
  for (const auto& [call, message] : cases) EXPECT_THAT(error_of(call), HasSubstr(message));
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
