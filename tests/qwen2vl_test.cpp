#include "qwen2vl.hpp"
#include <gtest/gtest.h>

#include <climits>
#include <cmath>
#include <functional>
#include <stdexcept>

#include <xtensor/xadapt.hpp>
#include <xtensor/xbuilder.hpp>
#include <xtensor/xmanipulation.hpp>
#include <xtensor/xpad.hpp>
#include <xtensor/xview.hpp>

#include "test_images.hpp"

namespace {

using qwen2vl::Qwen2VLImageOutput;
using qwen2vl::Qwen2VLImageProcessor;
using qwen2vl::smart_resize;
using Image = xt::xtensor<uint8_t, 3>;
using testimg::Format;

Image make_image(size_t h, size_t w, unsigned seed) {
  Image img = Image::from_shape({h, w, 3});
  for (size_t i = 0; i < img.size(); ++i)
    img.data()[i] = static_cast<uint8_t>((i * 37 + seed) % 251);
  return img;
}

Qwen2VLImageProcessor processor(bool resize, bool rescale, bool normalize,
                                std::vector<float> mean = qwen2vl::kDefaultImageMean,
                                std::vector<float> std_dev = qwen2vl::kDefaultImageStd,
                                size_t patch = 14, size_t temporal = 2, size_t merge = 2) {
  return Qwen2VLImageProcessor(resize, 56 * 56, 28 * 28 * 1280, rescale, 1.0f / 255.0f, normalize,
                               std::move(mean), std::move(std_dev), patch, temporal, merge);
}

// The pipeline step by step with whole-tensor operations: convert, rescale,
// normalise, transpose, add an axis, tile, reshape, permute, reshape.
Qwen2VLImageOutput reference(const Qwen2VLImageProcessor& p, const Image& image) {
  Image img = image;
  size_t h = img.shape(0);
  size_t w = img.shape(1);
  if (p.do_resize) {
    const auto hw = smart_resize(int(h), int(w), int(p.patch_size * p.merge_size),
                                 int(p.min_pixels), int(p.max_pixels));
    img = qwen2vl::resize_image(img, hw.first, hw.second);
    h = size_t(hw.first);
    w = size_t(hw.second);
  }
  xt::xtensor<float, 3> f = xt::cast<float>(img);
  if (p.do_rescale) f = f * p.rescale_factor;
  if (p.do_normalize) {
    for (size_t c = 0; c < 3; ++c) {
      auto ch = xt::view(f, xt::all(), xt::all(), c);
      ch = (ch - p.image_mean(c)) / p.image_std(c);
    }
  }
  xt::xarray<float> chw = xt::transpose(f, {2, 0, 1});
  xt::xarray<float> tiled = xt::tile(xt::xarray<float>(xt::expand_dims(chw, 0)),
                                     {p.temporal_patch_size, size_t{1}, size_t{1}, size_t{1}});
  const size_t tps = p.temporal_patch_size, ps = p.patch_size, m = p.merge_size;
  const size_t gt = tiled.shape(0) / tps, gh = h / ps, gw = w / ps;
  tiled.reshape({gt, tps, size_t{3}, gh / m, m, ps, gw / m, m, ps});
  xt::xarray<float> rows = xt::transpose(tiled, {0, 3, 6, 4, 7, 2, 1, 5, 8});
  rows.reshape({gt * gh * gw, 3 * tps * ps * ps});
  return {rows, xt::xarray<size_t>{{gt, gh, gw}}};
}

void expect_same(const Qwen2VLImageOutput& a, const Qwen2VLImageOutput& b) {
  ASSERT_EQ(a.patches.shape(), b.patches.shape());
  ASSERT_EQ(a.grid_thw, b.grid_thw);
  for (size_t i = 0; i < a.patches.size(); ++i) {
    ASSERT_EQ(a.patches.data()[i], b.patches.data()[i]) << "element " << i;
  }
}

std::string message_of(const std::function<void()>& f) {
  try {
    f();
  } catch (const std::runtime_error& e) {
    return e.what();
  }
  return "(no exception)";
}

TEST(SmartResize, RoundsToFactorWithinBudget) {
  EXPECT_EQ(smart_resize(224, 224, 28, 1000, 100000), std::make_pair(224, 224));
  // 1008 x 1008 is over budget: beta = sqrtf(10), 1008 / 3.1623 -> 318, floor(318 / 28) = 11.
  EXPECT_EQ(smart_resize(1000, 1000, 28, 1000, 100000), std::make_pair(308, 308));
  // Halves round away from zero; 13 is lifted to the factor.
  EXPECT_EQ(smart_resize(42, 14, 28, 0, INT_MAX), std::make_pair(56, 28));
  EXPECT_EQ(smart_resize(13, 70, 28, 0, INT_MAX), std::make_pair(28, 84));
  // Below min_pixels: beta = sqrtf(3136 / 784) = 2, 28 * 2 = 56.
  EXPECT_EQ(smart_resize(28, 28, 28, 3136, INT_MAX), std::make_pair(56, 56));
  // Over budget shrinks the rounded sides with a floor and no lower clamp:
  // beta = sqrtf(156800 / 1000) = 12.52; 28 -> 2 -> 0; 5600 -> 447 -> 420.
  EXPECT_EQ(smart_resize(28, 5600, 28, 0, 1000), std::make_pair(0, 420));
  // A zero side passes the aspect check with quotient 0.
  EXPECT_EQ(smart_resize(0, 100, 28, 0, 1000000), std::make_pair(28, 112));
}

TEST(SmartResize, AspectLimitAndDegenerateArguments) {
  const std::string limit = "Absolute aspect ratio must be smaller than 200";
  EXPECT_NO_THROW(smart_resize(10, 2000, 10, 0, INT_MAX));
  EXPECT_NO_THROW(smart_resize(200, 40199, 28, 0, INT_MAX));  // 200.995 truncates to 200
  EXPECT_EQ(message_of([] { smart_resize(10, 2010, 10, 0, INT_MAX); }), limit);
  EXPECT_EQ(message_of([] { smart_resize(2010, 10, 10, 0, INT_MAX); }), limit);
  EXPECT_NE(message_of([] { smart_resize(28, 28, 0, 0, INT_MAX); }).find("factor"),
            std::string::npos);
  // Overflowing products and conversions have defined results (the sanitizer
  // build checks there is no undefined behaviour on the way).
  EXPECT_NO_THROW(smart_resize(INT_MAX, INT_MAX, 28, 3136, 1003520));
  EXPECT_THROW(smart_resize(INT_MIN, -1, -28, INT_MAX, INT_MIN), std::runtime_error);
  // Where the rule would divide by zero it refuses, naming the argument,
  // instead of returning (0, 0) or (INT_MAX, INT_MAX).
  EXPECT_NE(message_of([] { smart_resize(100, 100, 28, 3136, 0); }).find("max_pixels"),
            std::string::npos);
  EXPECT_NE(message_of([] { smart_resize(100, 100, 28, 3136, -5); }).find("max_pixels"),
            std::string::npos);
  EXPECT_NE(message_of([] { smart_resize(0, 0, 28, 3136, 1003520); }).find("height and width"),
            std::string::npos);
  EXPECT_NO_THROW(smart_resize(46341, 46341, 1, INT_MAX, INT_MAX));
}

TEST(ResizeImage, ShapesIdentityAndBadArguments) {
  const Image img = make_image(10, 6, 3);
  EXPECT_EQ(qwen2vl::resize_image(img, 10, 6), img);
  EXPECT_EQ(qwen2vl::resize_image(img, 5, 12).shape(), (std::array<size_t, 3>{5, 12, 3}));
  // Nothing to resample from: the result stays black.
  const Image black = qwen2vl::resize_image(Image::from_shape({0, 4, 3}), 2, 3);
  EXPECT_EQ(black, xt::zeros<uint8_t>({2, 3, 3}));
  EXPECT_EQ(qwen2vl::resize_image(img, 0, 7).size(), 0u);
  EXPECT_NE(message_of([&] { qwen2vl::resize_image(img, -1, 4); }).find("new_height"),
            std::string::npos);
  EXPECT_NE(message_of([&] { qwen2vl::resize_image(img, 4, -2); }).find("new_width"),
            std::string::npos);
  EXPECT_NE(message_of([&] { qwen2vl::resize_image(img, (1 << 24) + 1, 1); }).find("new_height"),
            std::string::npos);
  EXPECT_THROW(qwen2vl::resize_image(Image::from_shape({4, 4, 1}), 2, 2), std::runtime_error);
}

TEST(LoadImage, AnyFileGivesThreeChannels) {
  const auto grey = testimg::make(5, 3, 1, [](int x, int y, int) { return 10 * x + y; });
  const auto rgba = testimg::make(2, 4, 4, [](int x, int y, int c) { return 50 * c + x + y; });
  const Image g = Qwen2VLImageProcessor::load_image(testimg::write(grey, Format::Png, "g.png"));
  const Image a = Qwen2VLImageProcessor::load_image(testimg::write(rgba, Format::Tga, "a.tga"));
  ASSERT_EQ(g.shape(), (std::array<size_t, 3>{3, 5, 3}));
  ASSERT_EQ(a.shape(), (std::array<size_t, 3>{4, 2, 3}));
  for (int c = 0; c < 3; ++c) {
    EXPECT_EQ(g(2, 4, c), 42);
    EXPECT_EQ(a(3, 1, c), 50 * c + 4);
  }
  const std::string missing = (testimg::scratch_dir() / "gone.png").string();
  EXPECT_EQ(message_of([&] { Qwen2VLImageProcessor::load_image(missing); }),
            "Failed to load image: " + missing);
  EXPECT_EQ(message_of([&] { processor(true, true, true).preprocess(missing); }),
            "Failed to load image: " + missing);
}

TEST(LoadImage, AFileDeclaringZeroRowsGivesAnEmptyImage) {
  // A radiance header with zero rows decodes to an empty pixel buffer.
  const std::string path = (testimg::scratch_dir() / "empty.hdr").string();
  const std::string header = "#?RADIANCE\nFORMAT=32-bit_rle_rgbe\n\n-Y 0 +X 4\n";
  testimg::write_bytes(path, {header.begin(), header.end()});
  try {
    const Image empty = Qwen2VLImageProcessor::load_image(path);
    EXPECT_EQ(empty.size(), 0u);
  } catch (const std::runtime_error& e) {
    EXPECT_EQ(std::string(e.what()), "Failed to load image: " + path);
  }
}

// Raw values (no rescale, no normalisation) show where every pixel lands.
TEST(Qwen2VLImageProcessor, MergeOrderedPatchLayout) {
  const Image img = make_image(224, 224, 1);
  const auto out = processor(true, false, false).preprocess(std::vector<Image>{img});
  ASSERT_EQ(out.patches.shape(), (std::vector<size_t>{256, 1176}));
  EXPECT_EQ(out.grid_thw, (xt::xarray<size_t>{{1, 16, 16}}));
  // Row 0: top-left patch; row 1: to its right; row 2: below row 0; row 4:
  // the third patch of the top row.
  EXPECT_EQ(out.patches(0, 0), img(0, 0, 0));
  EXPECT_EQ(out.patches(1, 0), img(0, 14, 0));
  EXPECT_EQ(out.patches(2, 0), img(14, 0, 0));
  EXPECT_EQ(out.patches(4, 0), img(0, 28, 0));
  EXPECT_EQ(out.patches(0, 15), img(1, 1, 0));
  // Channel 0 frame 0, channel 0 frame 1 (the same), then channel 1.
  EXPECT_EQ(out.patches(3, 196 + 20), img(14 + 1, 14 + 6, 0));
  EXPECT_EQ(out.patches(3, 392 + 20), img(15, 20, 1));
  EXPECT_EQ(out.patches(255, 1175), img(223, 223, 2));
}

TEST(Qwen2VLImageProcessor, MatchesStepByStepPipeline) {
  const Image odd = make_image(100, 70, 5);
  expect_same(processor(true, true, true)._preprocess_single_image(odd),
              reference(processor(true, true, true), odd));
  const Image aligned = make_image(56, 84, 9);
  expect_same(processor(false, true, true)._preprocess_single_image(aligned),
              reference(processor(false, true, true), aligned));
  // One value serves all channels; other patch geometry.
  auto single = processor(false, true, true, {0.25f}, {0.75f}, 4, 3, 1);
  expect_same(single._preprocess_single_image(aligned), reference(single, aligned));
  // Raw bytes when neither rescaling nor normalising; statistics unused.
  auto raw = processor(false, false, false, {}, {}, 7, 1, 2);
  expect_same(raw._preprocess_single_image(aligned), reference(raw, aligned));
}

TEST(Qwen2VLImageProcessor, BatchStacksSingleResults) {
  auto p = processor(true, true, true);
  const std::vector<Image> images = {make_image(224, 224, 1), make_image(112, 112, 2),
                                     make_image(60, 90, 3)};
  const auto batch = p.preprocess(images);
  ASSERT_EQ(batch.patches.shape(0), 256u + 64u + 24u);
  Qwen2VLImageOutput stacked = p._preprocess_single_image(images[0]);
  for (size_t i = 1; i < images.size(); ++i) {
    const auto one = p._preprocess_single_image(images[i]);
    stacked.patches = xt::concatenate(xt::xtuple(stacked.patches, one.patches), 0);
    stacked.grid_thw = xt::concatenate(xt::xtuple(stacked.grid_thw, one.grid_thw), 0);
  }
  expect_same(batch, stacked);

  const auto empty = p.preprocess(std::vector<Image>{});
  EXPECT_EQ(empty.patches.dimension(), 0u);
  EXPECT_EQ(empty.grid_thw.dimension(), 0u);
  EXPECT_EQ(empty.patches(), 0.0f);
  EXPECT_EQ(empty.grid_thw(), 0u);

  const auto from_file = p.preprocess(testimg::write(
      testimg::make(30, 20, 1, [](int x, int, int) { return 8 * x; }), Format::Png, "f.png"));
  // 20 x 30 rounds to 28 x 28, below 3136 pixels: beta = sqrtf(3136 / 600) =
  // 2.286, 28 * 2.286 -> 64, ceil(64 / 28) * 28 = 84 on both sides.
  EXPECT_EQ(from_file.grid_thw, (xt::xarray<size_t>{{1, 6, 6}}));
}

TEST(Qwen2VLImageProcessor, RejectsArgumentsThatWouldReadOutOfBounds) {
  const Image img = make_image(56, 56, 0);
  const auto what = [&](Qwen2VLImageProcessor p) {
    return message_of([&] { p._preprocess_single_image(img); });
  };
  EXPECT_NE(what(processor(false, true, true, {0.5f, 0.5f})).find("image_mean"), std::string::npos);
  EXPECT_NE(what(processor(false, true, true, {0.5f}, {})).find("image_std"), std::string::npos);
  EXPECT_NE(what(processor(true, true, true, {0.5f}, {1}, 0)).find("patch_size"),
            std::string::npos);
  EXPECT_NE(what(processor(true, true, true, {0.5f}, {1}, 14, 0)).find("temporal_patch_size"),
            std::string::npos);
  EXPECT_NE(what(processor(true, true, true, {0.5f}, {1}, 14, 2, 0)).find("merge_size"),
            std::string::npos);
  // Sides that are not whole merge blocks fail the reshape; so do other channel counts.
  auto no_resize = processor(false, true, true);
  EXPECT_THROW(no_resize._preprocess_single_image(make_image(56, 42, 0)), std::runtime_error);
  EXPECT_THROW(no_resize._preprocess_single_image(Image::from_shape({28, 28, 4})),
               std::runtime_error);
  EXPECT_THROW(no_resize.preprocess(std::vector<Image>{img, make_image(30, 28, 0)}),
               std::runtime_error);
  // A resize to an extreme aspect ratio is refused before any work.
  EXPECT_EQ(message_of([] {
              processor(true, true, true)._preprocess_single_image(make_image(1, 300, 0));
            }),
            "Absolute aspect ratio must be smaller than 200");
}

// Views (RGB in place with or without padded rows, other formats converted)
// give the rows of the decoded-image form, with and without resizing.
TEST(Qwen2VLImageProcessor, ViewsGiveTheDecodedImageRows) {
  const std::string path = testimg::write(
      testimg::make(56, 84, 3, [](int x, int y, int c) { return (x * 3 + y * 7 + c * 50) % 256; }),
      Format::Png, "v.png");
  const vemoproc::Image decoded = testimg::decode(path);
  for (bool resize : {true, false}) {
    auto p = processor(resize, true, true);
    const auto want = p.preprocess(std::vector<Image>{Qwen2VLImageProcessor::load_image(path)});
    for (auto format : {vemoproc::PixelFormat::RGB, vemoproc::PixelFormat::BGR}) {
      for (size_t pad : {0, 7}) {
        const testimg::Layout in = testimg::lay_out(decoded, format, pad);
        expect_same(p.preprocess(std::vector<vemoproc::ImageView>{in.view, in.view}),
                    p.preprocess(std::vector<Image>{Qwen2VLImageProcessor::load_image(path),
                                                    Qwen2VLImageProcessor::load_image(path)}));
        expect_same(p.preprocess(std::vector<vemoproc::ImageView>{in.view}), want);
      }
    }
  }
}

TEST(ResizeImage, TargetsOverThePixelBudgetAreRefused) {
  const uint64_t saved = vemoproc::max_image_pixels();
  vemoproc::set_max_image_pixels(1000);
  EXPECT_EQ(message_of([] { qwen2vl::resize_image(make_image(4, 4, 0), 40, 26); }),
            "Failed to resize image");
  EXPECT_EQ(qwen2vl::resize_image(make_image(4, 4, 0), 40, 25).shape(0), 40u);
  vemoproc::set_max_image_pixels(saved);
}

vemoproc::ImageView view_of(const Image& img) {
  return {img.data(), int(img.shape(1)), int(img.shape(0)), 0, vemoproc::PixelFormat::RGB};
}

TEST(Qwen2VLVideo, FramesFillTheTemporalAxisInGroups) {
  const Image a = make_image(56, 84, 1), b = make_image(56, 84, 2), c = make_image(56, 84, 3);
  // A one-frame video is the still image, with and without resizing.
  for (bool resize : {false, true}) {
    auto p = processor(resize, true, true);
    expect_same(p.preprocess_video({view_of(a)}), p._preprocess_single_image(a));
  }
  // Raw values: within each channel of a row, 196 values of the group's
  // first frame, then 196 of its second. Three frames pad to (a, b), (c, c).
  auto p = processor(false, false, false);
  const auto video = p.preprocess_video({view_of(a), view_of(b), view_of(c)});
  const auto sa = p._preprocess_single_image(a), sb = p._preprocess_single_image(b);
  const auto sc = p._preprocess_single_image(c);
  const size_t rows = sa.patches.shape(0);
  ASSERT_EQ(video.patches.shape(0), 2 * rows);
  EXPECT_EQ(video.grid_thw, (xt::xarray<size_t>{{2, 4, 6}}));
  for (size_t r = 0; r < rows; ++r)
    for (size_t ch = 0; ch < 3; ++ch)
      for (size_t i = 0; i < 196; ++i) {
        const size_t at = ch * 392 + i;
        ASSERT_EQ(video.patches(r, at), sa.patches(r, at));
        ASSERT_EQ(video.patches(r, at + 196), sb.patches(r, at));
        ASSERT_EQ(video.patches(rows + r, at), sc.patches(r, at));
        ASSERT_EQ(video.patches(rows + r, at + 196), sc.patches(r, at));
      }
  EXPECT_EQ(message_of([&] {
              p.preprocess_video({view_of(a), view_of(make_image(28, 28, 0))});
            }),
            "preprocess_video: frames must all have the same size");
  EXPECT_THROW(p.preprocess_video({}), std::runtime_error);
}

TEST(Qwen2VLVideo, FrameIndicesAreEvenlySpacedWholeGroups) {
  using qwen2vl::sample_frame_indices;
  // 10 s at 30 fps sampled at 2 fps: 20 frames, every 15th.
  const std::vector<int> twenty = sample_frame_indices(300, 30.0f, 2.0f, 4, 768, 2);
  ASSERT_EQ(twenty.size(), 20u);
  EXPECT_EQ(twenty[1], 15);
  EXPECT_EQ(twenty.back(), 285);
  // Clamped to max_frames, floored to whole groups: 1000 -> 768 -> 768.
  EXPECT_EQ(sample_frame_indices(1000, 1.0f, 1.0f, 4, 768, 2).size(), 768u);
  EXPECT_EQ(sample_frame_indices(1000, 1.0f, 1.0f, 4, 767, 2).size(), 766u);
  // Raised to min_frames but never past the video; at least one group.
  EXPECT_EQ(sample_frame_indices(50, 25.0f, 1.0f, 7, 100, 3),
            (std::vector<int>{0, 8, 16, 25, 33, 41}));
  EXPECT_EQ(sample_frame_indices(1, 30.0f, 2.0f, 4, 768, 2), (std::vector<int>{0, 0}));
  for (auto bad : {std::function<void()>([] { sample_frame_indices(0, 30, 2, 4, 8, 2); }),
                   std::function<void()>([] { sample_frame_indices(9, 0, 2, 4, 8, 2); }),
                   std::function<void()>([] { sample_frame_indices(9, 30, NAN, 4, 8, 2); }),
                   std::function<void()>([] { sample_frame_indices(9, 30, 2, 4, 8, 0); }),
                   std::function<void()>([] { sample_frame_indices(9, 30, 2, 9, 8, 2); })}) {
    EXPECT_THROW(bad(), std::runtime_error);
  }
}

// Hostile callers: frames of one video at different strides, a four-channel
// image under do_resize, non-positive frame limits.
TEST(Qwen2VLVideo, HostileFramesAndLimitsAreReadRightOrRefused) {
  const Image a = make_image(28, 28, 1), b = make_image(28, 28, 2);
  // `a` again as a crop of a 3000-byte-wide buffer.
  std::vector<uint8_t> wide(3000 * 28, 0xEE);
  for (size_t y = 0; y < 28; ++y) std::copy_n(a.data() + y * 84, 84, wide.data() + y * 3000);
  const vemoproc::ImageView crop{wide.data(), 28, 28, 3000, vemoproc::PixelFormat::RGB};
  for (bool resize : {false, true}) {
    auto p = processor(resize, true, true);
    expect_same(p.preprocess_video({crop, view_of(b)}),
                p.preprocess_video({view_of(a), view_of(b)}));
    expect_same(p.preprocess_video({view_of(b), crop}),
                p.preprocess_video({view_of(b), view_of(a)}));
  }
  auto p = processor(true, true, true);
  EXPECT_EQ(message_of([&] {
              p._preprocess_single_image(Image::from_shape({56, 56, 4}));
            }),
            "Cannot reshape with incorrect number of elements. Do you mean to resize?");
  for (auto limits : {std::pair{0, 0}, std::pair{-5, -3}, std::pair{0, 8}}) {
    EXPECT_EQ(message_of(
                  [&] { qwen2vl::sample_frame_indices(9, 30, 2, limits.first, limits.second, 2); }),
              "sample_frame_indices: min_frames must be positive");
  }
}

}  // namespace
