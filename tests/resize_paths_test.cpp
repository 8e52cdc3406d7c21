// Every way the library resizes — the baseline and AVX2 builds of the
// resizer, one thread or several — gives the bytes of the resizer the library
// exports, called directly with the same settings. Also the thread pool's own
// guarantees: every piece runs once, nesting and concurrent callers, the first
// exception, and no thread at the default setting.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <dirent.h>
#include <sys/wait.h>
#include <random>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <stb_image_resize2.h>

#include "../src/pixels/cpu.hpp"
#include "../src/pixels/image_io.hpp"
#include "../src/pixels/parallel.hpp"
#include "convnext.hpp"
#include "qwen2vl.hpp"
#include "test_images.hpp"
#include "threads.hpp"
#include "yolo.hpp"
#include "zentil.hpp"

namespace {

using vemoproc::detail::ResizeFilter;

// Restores the default (AVX2 when present, one thread) when a test ends.
struct PathGuard {
  ~PathGuard() {
    vemoproc::detail::set_wide_paths_enabled(true);
    vemoproc::set_num_threads(1);
  }
};

// The four ways a resize can run; the first is the reference layout.
struct Path {
  bool wide;
  int threads;
};
const Path kPaths[] = {{false, 1}, {true, 1}, {false, 4}, {true, 3}};

template <class F>
auto on_path(const Path& p, F&& f) {
  vemoproc::detail::set_wide_paths_enabled(p.wide);
  vemoproc::set_num_threads(p.threads);
  return f();
}

std::vector<uint8_t> noise(size_t n, uint32_t seed) {
  std::mt19937 rng(seed);
  std::vector<uint8_t> v(n);
  for (uint8_t& b : v) b = static_cast<uint8_t>(rng());
  return v;
}

// A smooth picture with noise on top, so that both flat and busy areas occur.
std::vector<uint8_t> picture(int w, int h, size_t stride, uint32_t seed) {
  std::vector<uint8_t> v = noise(stride * h, seed);
  for (int y = 0; y < h; ++y)
    for (int x = 0; x < w * 3; ++x) {
      uint8_t& s = v[static_cast<size_t>(y) * stride + x];
      if ((x / 3 + y) % 3 != 0) s = static_cast<uint8_t>(x + 2 * y + s / 16);
    }
  return v;
}

// stb's exported resizer called the documented way, one thread.
std::vector<uint8_t> stb_reference(const std::vector<uint8_t>& in, int w, int h, size_t in_stride,
                                   int ow, int oh, size_t out_stride, ResizeFilter filter) {
  std::vector<uint8_t> out(out_stride * oh, 0xAB);
  STBIR_RESIZE r;
  stbir_resize_init(&r, in.data(), w, h, static_cast<int>(in_stride), out.data(), ow, oh,
                    static_cast<int>(out_stride), STBIR_RGB, STBIR_TYPE_UINT8);
  stbir_set_edgemodes(&r, STBIR_EDGE_CLAMP, STBIR_EDGE_CLAMP);
  if (filter == ResizeFilter::CatmullRom) {
    stbir_set_filters(&r, STBIR_FILTER_CATMULLROM, STBIR_FILTER_CATMULLROM);
  }
  EXPECT_EQ(stbir_resize_extended(&r), 1);
  return out;
}

struct Case {
  int w, h, pad_in, ow, oh, pad_out;
};

// Upscales, downscales, odd and one-pixel sizes, strided rows on both sides,
// and sizes large enough to be split across threads.
const Case kCases[] = {
    {1920, 1080, 0, 640, 360, 0}, {640, 480, 5, 1280, 960, 4}, {333, 777, 1, 1001, 97, 0},
    {1, 1, 0, 7, 5, 0},           {97, 3, 2, 1, 1, 0},         {1000, 700, 3, 333, 233, 8},
    {31, 1, 0, 300, 300, 0},      {257, 129, 0, 128, 64, 0},   {1024, 1024, 0, 224, 224, 0},
};

std::string name(const Case& c, ResizeFilter f) {
  return std::to_string(c.w) + "x" + std::to_string(c.h) + " -> " + std::to_string(c.ow) + "x" +
         std::to_string(c.oh) + (f == ResizeFilter::CatmullRom ? " catmull-rom" : " default");
}

}  // namespace

TEST(ResizePaths, EveryBuildAndThreadCountGivesTheExportedResizersBytes) {
  PathGuard guard;
  uint32_t seed = 1;
  for (const Case& c : kCases) {
    for (ResizeFilter filter : {ResizeFilter::Default, ResizeFilter::CatmullRom}) {
      const size_t in_stride = static_cast<size_t>(c.w) * 3 + c.pad_in;
      const size_t out_stride = static_cast<size_t>(c.ow) * 3 + c.pad_out;
      const std::vector<uint8_t> in = picture(c.w, c.h, in_stride, seed++);
      const std::vector<uint8_t> want =
          stb_reference(in, c.w, c.h, in_stride, c.ow, c.oh, out_stride, filter);
      for (const Path& p : kPaths) {
        std::vector<uint8_t> got(out_stride * c.oh, 0xAB);
        const bool ok = on_path(p, [&] {
          return vemoproc::detail::resize_rgb(in.data(), c.w, c.h, c.pad_in ? in_stride : 0,
                                              got.data(), c.ow, c.oh, c.pad_out ? out_stride : 0,
                                              filter);
        });
        ASSERT_TRUE(ok) << name(c, filter);
        EXPECT_TRUE(got == want) << name(c, filter) << " wide " << p.wide << " threads "
                                 << p.threads;
      }
    }
  }
}

TEST(ResizePaths, SizesTheResizerRefusesFailOnEveryPath) {
  PathGuard guard;
  const std::vector<uint8_t> in = noise(64 * 64 * 3, 9);
  std::vector<uint8_t> out(64 * 64 * 3);
  for (const Path& p : kPaths) {
    on_path(p, [&] {
      EXPECT_FALSE(vemoproc::detail::resize_rgb(in.data(), 64, 64, 0, out.data(), 0, 10, 0,
                                                ResizeFilter::Default));
      EXPECT_FALSE(vemoproc::detail::resize_rgb(in.data(), 64, 64, 0, out.data(), 10, 0, 0,
                                                ResizeFilter::CatmullRom));
      return 0;
    });
  }
}

// Each family's own resize, from the public entry points: same output on
// every path (the families' float steps are not duplicated here).
TEST(ResizePaths, EveryImageFamilyGivesTheSameResultOnEveryPath) {
  PathGuard guard;
  const int w = 1280, h = 721;
  const std::vector<uint8_t> rgb = picture(w, h, static_cast<size_t>(w) * 3, 42);
  const vemoproc::ImageView view{rgb.data(), w, h, 0, vemoproc::PixelFormat::RGB};
  const yolo::RawImage raw(view);
  convnext::ConvNextPreprocessor convnext_pre(224, 0.875f);
  zentil::ZentilPreprocessor zentil_pre(384);
  qwen2vl::Qwen2VLImageProcessor qwen(true, 56 * 56, 1280 * 28 * 28, true, 1.0f / 255, true, {0.5f},
                                      {0.5f}, 14, 2, 2);

  const auto letterbox = [&] { return yolo::letterbox(raw, {640, 640}).data; };
  const auto convnext = [&] { return xt::xarray<float>(convnext_pre.process(view)); };
  const auto zentil = [&] { return xt::xarray<float>(zentil_pre.process(view)); };
  // A Qwen2-VL batch of three sizes: images spread over the threads.
  const std::vector<uint8_t> small = picture(300, 200, 900, 43);
  const vemoproc::ImageView small_view{small.data(), 300, 200, 0, vemoproc::PixelFormat::RGB};
  const vemoproc::ImageView crop_view{rgb.data() + 3 * 17, 640, 500, static_cast<size_t>(w) * 3,
                                      vemoproc::PixelFormat::RGB};
  const auto qwen_patches = [&] {
    const auto out = qwen.preprocess({view, small_view, crop_view});
    xt::xarray<float> rows = out.patches;
    EXPECT_EQ(out.grid_thw.shape(0), 3u);
    return rows;
  };

  const auto want_letterbox = on_path(kPaths[0], letterbox);
  const auto want_convnext = on_path(kPaths[0], convnext);
  const auto want_zentil = on_path(kPaths[0], zentil);
  const auto want_qwen = on_path(kPaths[0], qwen_patches);
  for (const Path& p : kPaths) {
    SCOPED_TRACE(std::string("wide ") + (p.wide ? "on" : "off") + ", threads " +
                 std::to_string(p.threads));
    EXPECT_TRUE(on_path(p, letterbox) == want_letterbox);
    EXPECT_TRUE(on_path(p, convnext) == want_convnext);
    EXPECT_TRUE(on_path(p, zentil) == want_zentil);
    EXPECT_TRUE(on_path(p, qwen_patches) == want_qwen);
  }
}

TEST(Threads, SettingIsCheckedAndReadBack) {
  PathGuard guard;
  EXPECT_EQ(vemoproc::num_threads(), 1);
  vemoproc::set_num_threads(vemoproc::kMaxThreads);
  EXPECT_EQ(vemoproc::num_threads(), vemoproc::kMaxThreads);
  for (int bad : {0, -3, vemoproc::kMaxThreads + 1}) {
    try {
      vemoproc::set_num_threads(bad);
      FAIL() << bad << " accepted";
    } catch (const std::runtime_error& e) {
      EXPECT_EQ(std::string(e.what()),
                "set_num_threads(): n must be between 1 and 256, got " + std::to_string(bad));
    }
  }
  EXPECT_EQ(vemoproc::num_threads(), vemoproc::kMaxThreads);
}

namespace {

size_t threads_in_process() {
  size_t n = 0;
  DIR* dir = opendir("/proc/self/task");
  if (dir == nullptr) return 0;
  while (const dirent* e = readdir(dir)) n += e->d_name[0] != '.';
  closedir(dir);
  return n;
}

}  // namespace

TEST(Threads, DefaultSettingCreatesNoThread) {
  const size_t before = threads_in_process();
  if (before == 0) GTEST_SKIP() << "no /proc/self/task";
  const std::vector<uint8_t> in = noise(1920 * 1080 * 3, 3);
  std::vector<uint8_t> out(640 * 360 * 3);
  ASSERT_TRUE(vemoproc::detail::resize_rgb(in.data(), 1920, 1080, 0, out.data(), 640, 360, 0,
                                           ResizeFilter::Default));
  std::atomic<int> sum{0};
  vemoproc::detail::parallel_for(100, [&](size_t i) { sum += static_cast<int>(i); });
  EXPECT_EQ(sum.load(), 4950);
  EXPECT_EQ(threads_in_process(), before);
}

TEST(Threads, EveryPieceRunsOnceFromConcurrentAndNestedCalls) {
  PathGuard guard;
  vemoproc::set_num_threads(4);
  constexpr size_t kOuter = 37, kInner = 53, kCallers = 3;
  std::vector<std::atomic<int>> hits(kCallers * kOuter * kInner);
  std::vector<std::thread> callers;
  for (size_t c = 0; c < kCallers; ++c) {
    callers.emplace_back([&, c] {
      vemoproc::detail::parallel_for(kOuter, [&](size_t i) {
        vemoproc::detail::parallel_for(kInner,
                                       [&](size_t j) { ++hits[(c * kOuter + i) * kInner + j]; });
      });
    });
  }
  for (std::thread& t : callers) t.join();
  for (size_t k = 0; k < hits.size(); ++k) ASSERT_EQ(hits[k].load(), 1) << "piece " << k;
}

TEST(Threads, FirstExceptionPropagatesAfterStartedPiecesFinish) {
  PathGuard guard;
  for (int threads : {1, 4}) {
    vemoproc::set_num_threads(threads);
    std::atomic<int> running{0};
    std::atomic<int> overlap_seen{0};
    try {
      vemoproc::detail::parallel_for(64, [&](size_t i) {
        ++running;
        if (i == 5) throw std::invalid_argument("piece 5");
        std::this_thread::sleep_for(std::chrono::microseconds(200));
        --running;
      });
      FAIL() << "no exception with " << threads << " threads";
    } catch (const std::invalid_argument& e) {
      EXPECT_STREQ(e.what(), "piece 5");
      // Only the throwing piece is left counted: every other started piece
      // had finished before the call returned.
      overlap_seen = running.load();
    }
    EXPECT_EQ(overlap_seen.load(), 1) << threads << " threads";
    // The pool keeps working after a failure.
    std::atomic<int> after{0};
    vemoproc::detail::parallel_for(10, [&](size_t) { ++after; });
    EXPECT_EQ(after.load(), 10);
  }
}

TEST(Threads, BatchItemsFailLikeAPlainLoop) {
  PathGuard guard;
  for (int threads : {1, 4}) {
    vemoproc::set_num_threads(threads);
    std::vector<std::atomic<int>> ran(200);
    try {
      vemoproc::detail::parallel_for_each_item(ran.size(), [&](size_t i) {
        ++ran[i];
        if (i == 150 || i == 40 || i == 41) throw std::runtime_error("item " + std::to_string(i));
      });
      FAIL() << "no exception with " << threads << " threads";
    } catch (const std::runtime_error& e) {
      EXPECT_STREQ(e.what(), "item 40") << threads << " threads";
    }
    for (size_t i = 0; i <= 40; ++i) EXPECT_EQ(ran[i].load(), 1) << "item " << i;
  }
}

TEST(Threads, DetectionBatchesAreTheSameOnFourThreadsAndReportTheFirstBadImage) {
  PathGuard guard;
  std::vector<std::string> paths;
  for (int i = 0; i < 6; ++i) {
    paths.push_back(testimg::write(
        testimg::make(300 + 40 * i, 200 + 25 * i, 3,
                      [i](int x, int y, int c) { return uint8_t(x * (i + 1) + 3 * y + 80 * c); }),
        i % 2 ? testimg::Format::Png : testimg::Format::Jpeg, "batch" + std::to_string(i)));
  }
  const auto one = yolo::preprocess(paths, {160, 128});
  vemoproc::set_num_threads(4);
  EXPECT_TRUE(yolo::preprocess(paths, {160, 128}) == one);

  std::vector<testimg::Pixels> pixels;
  std::vector<vemoproc::ImageView> views;
  for (int i = 0; i < 5; ++i) {
    pixels.push_back(testimg::make(500 + 30 * i, 300 + 10 * i, 3, [i](int x, int y, int c) {
      return uint8_t(x * (i + 2) ^ (y + 40 * c));
    }));
  }
  for (const testimg::Pixels& p : pixels) {
    views.push_back({p.data.data(), p.width, p.height, 0, vemoproc::PixelFormat::RGB});
  }
  vemoproc::set_num_threads(1);
  const yolo::DetectionBatch one_views = yolo::preprocess_images(views, {160, 128});
  vemoproc::set_num_threads(4);
  const yolo::DetectionBatch four_views = yolo::preprocess_images(views, {160, 128});
  EXPECT_TRUE(four_views.tensor == one_views.tensor);
  ASSERT_EQ(four_views.letterbox.size(), views.size());
  for (size_t i = 0; i < views.size(); ++i) {
    EXPECT_EQ(four_views.letterbox[i].new_width, one_views.letterbox[i].new_width);
    EXPECT_EQ(four_views.letterbox[i].top, one_views.letterbox[i].top);
  }
  views[3].data = nullptr;
  views[1].data = nullptr;
  try {
    yolo::preprocess_images(views, {160, 128});
    FAIL() << "null view accepted";
  } catch (const std::runtime_error& e) {
    EXPECT_EQ(std::string(e.what()).rfind("preprocess_images(): images[1]", 0), 0u) << e.what();
  }

  std::vector<std::string> broken = paths;
  broken[4] = broken[4] + ".missing";
  broken[1] = broken[1] + ".missing";
  for (int threads : {1, 4}) {
    vemoproc::set_num_threads(threads);
    try {
      yolo::preprocess(broken, {160, 128});
      FAIL() << "no exception with " << threads << " threads";
    } catch (const std::runtime_error& e) {
      EXPECT_EQ(std::string(e.what()), "stbi_load failed for: " + broken[1]);
    }
  }
}

// fork() after a pooled batch: the child runs a pooled call of its own and
// leaves through exit() (static destructors included) with status 0; the
// parent's pool still works.
TEST(Threads, AForkedChildUsesItsOwnPoolAndExitsCleanly) {
  vemoproc::set_num_threads(4);
  const auto batch = [] {
    std::atomic<size_t> sum{0};
    vemoproc::detail::parallel_for(64, [&](size_t i) { sum += i; });
    return sum.load() == 2016;
  };
  ASSERT_TRUE(batch());
  const pid_t pid = fork();
  if (pid == 0) std::exit(batch() ? 0 : 1);
  int status = -1;
  ASSERT_EQ(waitpid(pid, &status, 0), pid);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "status " << status;
  EXPECT_TRUE(batch());
  vemoproc::set_num_threads(1);
}
