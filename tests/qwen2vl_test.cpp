#include "qwen2vl.hpp"
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <climits>
#include <cmath>
#include <functional>
#include <stdexcept>

#include <xtensor/xview.hpp>

#include "test_images.hpp"

namespace {

using qwen2vl::Qwen2VLImageOutput;
using qwen2vl::Qwen2VLImageProcessor;
using qwen2vl::smart_resize;
using Image = xt::xtensor<uint8_t, 3>;
using Images = std::vector<Image>;
using testimg::Format;

Image make_image(size_t h, size_t w, unsigned seed) {
  Image img = Image::from_shape({h, w, 3});
  for (size_t i = 0; i < img.size(); ++i)
    img.data()[i] = static_cast<uint8_t>((i * 37 + seed) % 251);
  return img;
}

vemoproc::ImageView view_of(const Image& img) {
  return {img.data(), int(img.shape(1)), int(img.shape(0)), 0, vemoproc::PixelFormat::RGB};
}

Qwen2VLImageProcessor processor(bool resize, bool rescale, bool normalize,
                                std::vector<float> mean = qwen2vl::kDefaultImageMean,
                                std::vector<float> std_dev = qwen2vl::kDefaultImageStd,
                                size_t patch = 14, size_t temporal = 2, size_t merge = 2) {
  return Qwen2VLImageProcessor(resize, 56 * 56, 28 * 28 * 1280, rescale, 1.0f / 255.0f, normalize,
                               std::move(mean), std::move(std_dev), patch, temporal, merge);
}

// The message of the std::runtime_error f throws, or "(no exception)".
std::string message_of(const std::function<void()>& f) {
  try {
    f();
  } catch (const std::runtime_error& e) {
    return e.what();
  }
  return "(no exception)";
}

void expect_same(const Qwen2VLImageOutput& a, const Qwen2VLImageOutput& b) {
  ASSERT_EQ(a.grid_thw, b.grid_thw);
  ASSERT_TRUE(a.patches == b.patches);
}

// Raw patch values (no rescale, no normalisation) show where pixels land:
// each cell is {patch row, column, image, y, x, channel}.
struct Cell {
  size_t row, col;
  const Image* image;
  size_t y, x, c;
};
void expect_cells(const Qwen2VLImageOutput& out, std::array<size_t, 3> grid,
                  const std::vector<Cell>& cells) {
  EXPECT_EQ(out.grid_thw, (xt::xarray<size_t>{{grid[0], grid[1], grid[2]}}));
  for (const Cell& c : cells)
    EXPECT_EQ(out.patches(c.row, c.col), (*c.image)(c.y, c.x, c.c)) << c.row << ", " << c.col;
}

TEST(SmartResize, RoundsToTheFactorWithinTheBudgetAndTheAspectLimit) {
  struct Case {
    int h, w, factor, min_pixels, max_pixels;
    std::pair<int, int> want;
  };
  const Case cases[] = {
      {224, 224, 28, 1000, 100000, {224, 224}},
      // 1008 x 1008 is over budget: beta = sqrtf(10), 1008 / 3.1623 -> 318, floor(318 / 28) = 11.
      {1000, 1000, 28, 1000, 100000, {308, 308}},
      // Halves round away from zero; 13 is lifted to the factor.
      {42, 14, 28, 0, INT_MAX, {56, 28}},
      {13, 70, 28, 0, INT_MAX, {28, 84}},
      // Below min_pixels: beta = sqrtf(3136 / 784) = 2, 28 * 2 = 56; for 20 x 30,
      // beta = sqrtf(3136 / 600) = 2.286, 28 * 2.286 -> 64, ceil(64 / 28) * 28 = 84.
      {28, 28, 28, 3136, INT_MAX, {56, 56}},
      {20, 30, 28, 3136, INT_MAX, {84, 84}},
      // Over budget shrinks the rounded sides with a floor and no lower clamp:
      // beta = sqrtf(156800 / 1000) = 12.52; 28 -> 2 -> 0; 5600 -> 447 -> 420.
      {28, 5600, 28, 0, 1000, {0, 420}},
      {0, 100, 28, 0, 1000000, {28, 112}},  // a zero side passes the aspect check
      // Aspect ratios of 200 pass (200.995 truncates to 200).
      {10, 2000, 10, 0, INT_MAX, {10, 2000}},
      {200, 40199, 28, 0, INT_MAX, {196, 40208}},
  };
  for (const Case& c : cases)
    EXPECT_EQ(smart_resize(c.h, c.w, c.factor, c.min_pixels, c.max_pixels), c.want) << c.h;
  // Overflowing products have defined results (the sanitizer build checks).
  EXPECT_NO_THROW(smart_resize(INT_MAX, INT_MAX, 28, 3136, 1003520));
  EXPECT_NO_THROW(smart_resize(46341, 46341, 1, INT_MAX, INT_MAX));
}

TEST(ResizeImage, ShapesIdentityAndThePixelBudget) {
  const Image img = make_image(10, 6, 3);
  EXPECT_EQ(qwen2vl::resize_image(img, 10, 6), img);
  EXPECT_EQ(qwen2vl::resize_image(img, 5, 12).shape(), (std::array<size_t, 3>{5, 12, 3}));
  EXPECT_EQ(qwen2vl::resize_image(Image::from_shape({0, 4, 3}), 2, 3),  // nothing: black
            xt::zeros<uint8_t>({2, 3, 3}));
  EXPECT_EQ(qwen2vl::resize_image(img, 0, 7).size(), 0u);
  const uint64_t saved = vemoproc::max_image_pixels();
  vemoproc::set_max_image_pixels(1000);
  EXPECT_EQ(qwen2vl::resize_image(img, 40, 25).shape(0), 40u);
  EXPECT_EQ(message_of([&] { qwen2vl::resize_image(img, 40, 26); }), "Failed to resize image");
  vemoproc::set_max_image_pixels(saved);
  // Any file loads as three channels.
  const Image g = Qwen2VLImageProcessor::load_image(testimg::write(
      testimg::make(5, 3, 1, [](int x, int y, int) { return 10 * x + y; }), Format::Png, "g.png"));
  ASSERT_EQ(g.shape(), (std::array<size_t, 3>{3, 5, 3}));
  EXPECT_TRUE(g(2, 4, 0) == 42 && g(2, 4, 1) == 42 && g(2, 4, 2) == 42);
}

// Rows in merge order (2 x 2 blocks of patches), each row channel by channel,
// frame by frame (a still image repeats), then the patch row-major; values
// rescaled and normalised as (v / 255 - mean[c]) / std[c].
TEST(Qwen2VLImageProcessor, PatchRowsInMergeOrderAndNormalisedValues) {
  const Image img = make_image(224, 224, 1), other = make_image(56, 84, 2);
  const auto out = processor(true, false, false).preprocess(Images{img});
  ASSERT_EQ(out.patches.shape(), (std::vector<size_t>{256, 1176}));
  const std::vector<Cell> c14 = {
      {0, 0, &img, 0, 0, 0},     {1, 0, &img, 0, 14, 0},  {2, 0, &img, 14, 0, 0},
      {4, 0, &img, 0, 28, 0},    {0, 15, &img, 1, 1, 0},  {3, 216, &img, 15, 20, 0},
      {3, 412, &img, 15, 20, 1}, {32, 0, &img, 28, 0, 0}, {255, 1175, &img, 223, 223, 2}};
  expect_cells(out, {1, 16, 16}, c14);
  // 7-pixel patches, one frame (147 columns), merge 2; 4-pixel patches, three
  // frames (144 columns), no merging.
  const std::vector<Cell> c7 = {
      {1, 0, &other, 0, 7, 0}, {2, 8, &other, 8, 1, 0}, {4, 52, &other, 0, 17, 1}};
  const std::vector<Cell> c4 = {{1, 0, &other, 0, 4, 0},
                                {21, 5, &other, 5, 1, 0},
                                {0, 21, &other, 1, 1, 0},
                                {0, 48, &other, 0, 0, 1}};
  expect_cells(processor(false, false, false, {}, {}, 7, 1, 2).preprocess(Images{other}),
               {1, 8, 12}, c7);
  expect_cells(processor(false, false, false, {}, {}, 4, 3, 1).preprocess(Images{other}),
               {1, 14, 21}, c4);
  // One mean and std value serves all channels.
  const Image small = make_image(28, 28, 4);
  const auto norm = processor(false, true, true).preprocess(Images{small});
  const auto one = processor(false, true, true, {0.25f}, {0.75f}).preprocess(Images{small});
  for (size_t c = 0; c < 3; ++c) {
    const float v = small(0, 1, c) * (1.0f / 255.0f);
    EXPECT_FLOAT_EQ(norm.patches(0, c * 392 + 1),
                    (v - qwen2vl::kDefaultImageMean[c]) / qwen2vl::kDefaultImageStd[c]);
    EXPECT_FLOAT_EQ(one.patches(0, c * 392 + 1), (v - 0.25f) / 0.75f);
  }
}

// A batch stacks the single results; views (RGB in place with or without
// padded rows, BGR converted) give the decoded image's rows; a video groups
// frames along time, padding with its last frame.
TEST(Qwen2VLImageProcessor, BatchesViewsAndVideos) {
  auto p = processor(true, true, true);
  const Images images = {make_image(224, 224, 1), make_image(60, 90, 3)};
  const auto batch = p.preprocess(images);
  EXPECT_TRUE(xt::view(batch.patches, xt::range(0, 256)) ==
              p._preprocess_single_image(images[0]).patches);
  EXPECT_TRUE(xt::view(batch.patches, xt::range(256, 280)) ==
              p._preprocess_single_image(images[1]).patches);
  EXPECT_EQ(batch.grid_thw, (xt::xarray<size_t>{{1, 16, 16}, {1, 4, 6}}));
  const auto empty = p.preprocess(Images{});
  EXPECT_EQ(empty.patches.dimension() + empty.grid_thw.dimension(), 0u);
  const std::string path = testimg::write(
      testimg::make(56, 84, 3, [](int x, int y, int c) { return (x * 3 + y * 7 + c * 50) % 256; }),
      Format::Png, "v.png");
  const Image file = Qwen2VLImageProcessor::load_image(path);
  for (bool resize : {true, false}) {
    auto q = processor(resize, true, true);
    expect_same(q.preprocess_video({view_of(file)}), q._preprocess_single_image(file));
    for (auto format : {vemoproc::PixelFormat::RGB, vemoproc::PixelFormat::BGR})
      for (size_t pad : {0, 7}) {
        const testimg::Layout in = testimg::lay_out(testimg::decode(path), format, pad);
        expect_same(q.preprocess(std::vector<vemoproc::ImageView>{in.view, in.view}),
                    q.preprocess(Images{file, file}));
      }
  }
  // Three frames pad to (a, b), (c, c): in each channel of a row, 196 values
  // of the group's first frame, then 196 of its second.
  const Image a = make_image(56, 84, 1), b = make_image(56, 84, 2), c = make_image(56, 84, 3);
  const std::vector<Cell> cells = {
      {0, 0, &a, 0, 0, 0},  {0, 196, &b, 0, 0, 0},  {0, 603, &b, 1, 1, 1},    {1, 0, &a, 0, 14, 0},
      {24, 0, &c, 0, 0, 0}, {24, 196, &c, 0, 0, 0}, {47, 1175, &c, 55, 83, 2}};
  auto raw = processor(false, false, false);
  expect_cells(raw.preprocess_video({view_of(a), view_of(b), view_of(c)}), {2, 4, 6}, cells);
}

TEST(Qwen2VLVideo, FrameIndicesAreEvenlySpacedWholeGroups) {
  using qwen2vl::sample_frame_indices;
  // 10 s at 30 fps sampled at 2 fps: 20 frames, every 15th.
  const std::vector<int> twenty = sample_frame_indices(300, 30.0f, 2.0f, 4, 768, 2);
  ASSERT_EQ(twenty.size(), 20u);
  EXPECT_EQ(twenty[1], 15);
  EXPECT_EQ(twenty.back(), 285);
  // Clamped to max_frames, floored to whole groups: 1000 -> 768 or 766.
  EXPECT_EQ(sample_frame_indices(1000, 1.0f, 1.0f, 4, 768, 2).size(), 768u);
  EXPECT_EQ(sample_frame_indices(1000, 1.0f, 1.0f, 4, 767, 2).size(), 766u);
  // Raised to min_frames but never past the video; at least one group.
  EXPECT_EQ(sample_frame_indices(50, 25.0f, 1.0f, 7, 100, 3),
            (std::vector<int>{0, 8, 16, 25, 33, 41}));
  EXPECT_EQ(sample_frame_indices(1, 30.0f, 2.0f, 4, 768, 2), (std::vector<int>{0, 0}));
}

// Every refusal, with the part of its message that names the argument ("" where
// any exception will do: the reshape, or a sampling limit).
TEST(Qwen2VL, ErrorsNameTheArgument) {
  const Image img = make_image(56, 56, 0), wide = make_image(1, 300, 0);
  const Image odd = make_image(56, 42, 0), rgba = Image::from_shape({28, 28, 4});
  const std::string limit = "Absolute aspect ratio must be smaller than 200";
  const std::string missing = (testimg::scratch_dir() / "gone.png").string();
  const auto single = [](Qwen2VLImageProcessor p, const Image& i) {
    return [p, &i]() mutable { p._preprocess_single_image(i); };
  };
  const auto frames = [](int total, float fps, float sample_fps, int min, int max, int group) {
    return [=] { qwen2vl::sample_frame_indices(total, fps, sample_fps, min, max, group); };
  };
  auto p = processor(false, true, true);
  const Images mixed = {img, make_image(30, 28, 0)};
  const std::vector<vemoproc::ImageView> sizes = {view_of(img), view_of(odd)};
  const std::pair<std::function<void()>, std::string> errors[] = {
      {[] { smart_resize(10, 2010, 10, 0, INT_MAX); }, limit},
      {[] { smart_resize(2010, 10, 10, 0, INT_MAX); }, limit},
      {[] { smart_resize(28, 28, 0, 0, INT_MAX); }, "factor"},
      {[] { smart_resize(INT_MIN, -1, -28, INT_MAX, INT_MIN); }, ""},
      {[] { smart_resize(100, 100, 28, 3136, 0); }, "max_pixels"},
      {[] { smart_resize(100, 100, 28, 3136, -5); }, "max_pixels"},
      {[] { smart_resize(0, 0, 28, 3136, 1003520); }, "height and width"},
      {[&] { qwen2vl::resize_image(img, -1, 4); }, "new_height"},
      {[&] { qwen2vl::resize_image(img, 4, -2); }, "new_width"},
      {[&] { qwen2vl::resize_image(img, (1 << 24) + 1, 1); }, "new_height"},
      {[] {
         qwen2vl::resize_image(Image::from_shape({4, 4, 1}), 2, 2);
       },
       ""},
      {[&] { Qwen2VLImageProcessor::load_image(missing); }, "Failed to load image: " + missing},
      {[&] { p.preprocess(missing); }, "Failed to load image: " + missing},
      {single(processor(false, true, true, {0.5f, 0.5f}), img), "image_mean"},
      {single(processor(false, true, true, {0.5f}, {}), img), "image_std"},
      {single(processor(true, true, true, {0.5f}, {1}, 0), img), "patch_size"},
      {single(processor(true, true, true, {0.5f}, {1}, 14, 0), img), "temporal_patch_size"},
      {single(processor(true, true, true, {0.5f}, {1}, 14, 2, 0), img), "merge_size"},
      {single(p, odd), ""},  // not whole merge blocks
      {single(p, rgba), ""},
      {single(processor(true, true, true), wide), limit},
      {[&] { p.preprocess(mixed); }, ""},
      {[&] { p.preprocess_video(sizes); }, "preprocess_video: frames must all have the same size"},
      {[&] { p.preprocess_video({}); }, ""},
      {frames(0, 30, 2, 4, 8, 2), ""},
      {frames(9, 0, 2, 4, 8, 2), ""},
      {frames(9, 30, NAN, 4, 8, 2), ""},
      {frames(9, 30, 2, 4, 8, 0), ""},
      {frames(9, 30, 2, 9, 8, 2), ""}};
  for (size_t i = 0; i < std::size(errors); ++i)
    EXPECT_THAT(errors[i].first,
                testing::ThrowsMessage<std::runtime_error>(testing::HasSubstr(errors[i].second)))
        << "row " << i;
}

}  // namespace

namespace {

TEST(Qwen2VLMatchPython, SizeRuleOfThePythonProcessor) {
  using qwen2vl::smart_resize_match_python;
  struct Row {
    int h, w;
    long long max_pixels;
    std::pair<int, int> want;
  };
  const Row rows[] = {
      {1200, 1600, 1003520, {840, 1148}},    // original sides over beta (the native rule: 868)
      {70, 70, 1003520, {56, 56}},           // 2.5 rounds to 2
      {98, 42, 1003520, {112, 56}},          // 3.5 -> 4, 1.5 -> 2
      {28, 28, 1003520, {56, 56}},           // raised to min_pixels
      {28, 5600, 1003520, {28, 5600}},       // a ratio of exactly 200 passes
      {3000, 4000, 12845056, {2996, 4004}},  // the 7B checkpoint's budget
  };
  for (const Row& r : rows) {
    EXPECT_EQ(smart_resize_match_python(r.h, r.w, 28, 3136, r.max_pixels), r.want) << r.h;
  }
  EXPECT_EQ(message_of([] { smart_resize_match_python(27, 100, 28, 3136, 1003520); }),
            "smart_resize_match_python: height 27 and width 100 must be at least factor 28");
  EXPECT_EQ(message_of([] { smart_resize_match_python(28, 5601, 28, 3136, 1003520); }),
            "Absolute aspect ratio must be smaller than 200");
  EXPECT_EQ(message_of([] { smart_resize_match_python(28, 28, 0, 3136, 1003520); }),
            "smart_resize_match_python: factor must be positive");
  EXPECT_EQ(message_of([] { smart_resize_match_python(280, 280, 28, 3136, 0); }),
            "smart_resize_match_python: max_pixels must be positive");

  // The processor: 1600x1200 gives the Python processor's 60 x 82 grid.
  Qwen2VLImageProcessor p(true, 3136, 1003520, true, 1.0f / 255.0f, true,
                          qwen2vl::kDefaultImageMean, qwen2vl::kDefaultImageStd, 14, 2, 2);
  const std::vector<uint8_t> pixels(1600 * 1200 * 3, 77);
  const auto out = p.preprocess({{pixels.data(), 1600, 1200, 0, vemoproc::PixelFormat::RGB}},
                                vemoproc::Pipeline::MatchPython);
  EXPECT_EQ(out.grid_thw, (xt::xarray<size_t>{{1, 60, 82}}));
  EXPECT_EQ(out.patches.shape(0), 4920u);
  // Flat grey stays 77: float(77 / 255.0) normalised, as numpy computes it.
  const float want = (static_cast<float>(77 / 255.0) - 0.48145466f) / 0.26862954f;
  EXPECT_EQ(out.patches(4919, 0), want);
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
