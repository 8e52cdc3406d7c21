// Every way the library resizes (baseline and AVX2 builds, one thread or
// several) gives the bytes of the exported resizer called directly, and every
// image family the same result; and the thread pool's guarantees: every piece
// once, the first failure, no thread at the default setting.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <sys/wait.h>
#include <filesystem>
#include <thread>

#include <stb_image_resize2.h>
#include <xtensor/xadapt.hpp>

#include "../src/pixels/cpu.hpp"
#include "../src/pixels/image_io.hpp"
#include "../src/pixels/parallel.hpp"
#include "qwen2vl.hpp"
#include "test_images.hpp"
#include "threads.hpp"
#include "yolo.hpp"

namespace {

using testing::StartsWith;
using testing::StrEq;
using testing::ThrowsMessage;
using vemoproc::PixelFormat;
using vemoproc::detail::ResizeFilter;

// Restores the default (wide paths when present, one thread) when a test ends.
struct PathGuard {
  ~PathGuard() {
    vemoproc::detail::set_wide_paths_enabled(true);
    vemoproc::set_num_threads(1);
  }
};

// Noise on every third byte over a gradient, `n` bytes.
std::vector<uint8_t> picture(size_t n) {
  std::vector<uint8_t> v(n);
  for (size_t i = 0; i < n; ++i)
    v[i] = uint8_t(i % 3 ? i % 1001 + i / 3001 : (i * 2654435761u) >> 13);
  return v;
}

}  // namespace

TEST(ResizePaths, EveryBuildAndThreadCountGivesTheSameBytes) {
  PathGuard guard;
  // w, h, input row padding, output w, h, output row padding: up and down,
  // odd and one-pixel sizes, strided rows, sizes split across threads.
  const std::array<int, 6> cases[] = {{1920, 1080, 0, 640, 360, 0}, {640, 480, 5, 1280, 960, 4},
                                      {333, 777, 1, 1001, 97, 0},   {1, 1, 0, 7, 5, 0},
                                      {97, 3, 2, 1, 1, 0},          {31, 1, 0, 300, 300, 8}};
  const int w = 1280, h = 721;
  const std::vector<uint8_t> rgb = picture(w * h * 3), small = picture(300 * 200 * 3);
  const vemoproc::ImageView view{rgb.data(), w, h, 0, PixelFormat::RGB};
  const vemoproc::ImageView crop{rgb.data() + 51, 640, 500, size_t(w) * 3, PixelFormat::RGB};
  qwen2vl::Qwen2VLImageProcessor qwen(true, 56 * 56, 1280 * 28 * 28, true, 1.0f / 255, true, {0.5f},
                                      {0.5f}, 14, 2, 2);
  // A letterbox and a Qwen2-VL batch of three sizes (spread over the threads)
  // from the public entry points, then the exported resizer's bytes for each
  // case and filter.
  const auto everything = [&] {
    std::vector<xt::xarray<float>> out = {
        xt::adapt(yolo::letterbox(yolo::RawImage(view), {640, 640}).data),
        qwen.preprocess({view, {small.data(), 300, 200, 0, PixelFormat::RGB}, crop}).patches};
    for (const auto& [w, h, pad_in, ow, oh, pad_out] : cases) {
      for (ResizeFilter filter : {ResizeFilter::Default, ResizeFilter::CatmullRom}) {
        const size_t in_stride = size_t(w) * 3 + pad_in, out_stride = size_t(ow) * 3 + pad_out;
        const std::vector<uint8_t> in = picture(in_stride * h);
        std::vector<uint8_t> got(out_stride * oh, 0xAB), want = got;
        EXPECT_TRUE(vemoproc::detail::resize_rgb(in.data(), w, h, pad_in ? in_stride : 0,
                                                 got.data(), ow, oh, pad_out ? out_stride : 0,
                                                 filter));
        EXPECT_TRUE(stbir_resize(
            in.data(), w, h, int(in_stride), want.data(), ow, oh, int(out_stride), STBIR_RGB,
            STBIR_TYPE_UINT8, STBIR_EDGE_CLAMP,
            filter == ResizeFilter::CatmullRom ? STBIR_FILTER_CATMULLROM : STBIR_FILTER_DEFAULT));
        EXPECT_TRUE(got == want) << w << "x" << h << " to " << ow << "x" << oh;
        // Sizes the resizer refuses fail.
        EXPECT_FALSE(
            vemoproc::detail::resize_rgb(in.data(), w, h, 0, got.data(), 0, oh, 0, filter));
      }
    }
    return out;
  };
  std::vector<xt::xarray<float>> first;
  const auto tasks = [] {
    return std::distance(std::filesystem::directory_iterator("/proc/self/task"), {});
  };
  const auto before = tasks();
  for (const auto& [wide, threads] : {std::pair{false, 1}, {true, 1}, {false, 4}, {true, 3}}) {
    vemoproc::detail::set_wide_paths_enabled(wide);
    vemoproc::set_num_threads(threads);
    const auto out = everything();
    EXPECT_TRUE(threads > 1 || tasks() == before) << "one thread, the default, created threads";
    if (first.empty()) first = out;
    for (size_t i = 0; i < out.size(); ++i)
      EXPECT_TRUE(out[i] == first[i]) << i << " wide " << wide << " threads " << threads;
  }
}

// The setting is checked. A failing loop returns its exception once every
// started piece has ended, and the pool works on; a failing batch reports its
// first bad item, like a plain loop, whichever thread failed first.
TEST(Threads, FailuresPropagateLikeAPlainLoop) {
  PathGuard guard;
  vemoproc::set_num_threads(vemoproc::kMaxThreads);
  for (int bad : {0, -3, vemoproc::kMaxThreads + 1})
    EXPECT_THAT([&] { vemoproc::set_num_threads(bad); },
                ThrowsMessage<std::runtime_error>(StrEq(
                    "set_num_threads(): n must be between 1 and 256, got " + std::to_string(bad))));
  EXPECT_EQ(vemoproc::num_threads(), vemoproc::kMaxThreads);
  const auto px = testimg::solid(30, 20, 1, 2, 3);
  const std::string ok = testimg::write(px, testimg::Format::Png, "ok.png");
  const std::vector<std::string> paths = {ok, ok + ".1", ok, ok + ".3", ok};
  const vemoproc::ImageView good{px.data.data(), 30, 20, 0, PixelFormat::RGB};
  std::vector<vemoproc::ImageView> views = {good, good, good, good, good};
  views[1].data = views[3].data = nullptr;
  for (int threads : {1, 4}) {
    vemoproc::set_num_threads(threads);
    std::atomic<int> running{0}, after{0};
    std::vector<std::atomic<int>> ran(200);
    const auto piece = [&](size_t i) {
      ++running;
      if (i == 5) throw std::invalid_argument("piece 5");
      std::this_thread::sleep_for(std::chrono::microseconds(200));
      --running;
    };
    EXPECT_THAT([&] { vemoproc::detail::parallel_for(64, piece); },
                ThrowsMessage<std::invalid_argument>(StrEq("piece 5")));
    EXPECT_EQ(running.load(), 1) << threads << " threads";
    vemoproc::detail::parallel_for(10, [&](size_t) { ++after; });
    EXPECT_EQ(after.load(), 10);
    const auto item = [&](size_t i) {
      ++ran[i];
      if (i == 150 || i == 40 || i == 41) throw std::runtime_error("item " + std::to_string(i));
    };
    EXPECT_THAT([&] { vemoproc::detail::parallel_for_each_item(200, item); },
                ThrowsMessage<std::runtime_error>(StrEq("item 40")));
    for (size_t i = 0; i <= 40; ++i) EXPECT_EQ(ran[i].load(), 1) << "item " << i;
    EXPECT_THAT(
        [&] {
          yolo::preprocess(paths, {160, 128});
        },
        ThrowsMessage<std::runtime_error>(StrEq("stbi_load failed for: " + paths[1])));
    EXPECT_THAT(
        [&] {
          yolo::preprocess_images(views, {160, 128});
        },
        ThrowsMessage<std::runtime_error>(StartsWith("preprocess_images(): images[1]")));
  }
}

// fork() after a pooled batch: the child runs a pooled call of its own and
// leaves through exit() (static destructors included) with status 0; the
// parent's pool still works.
TEST(Threads, AForkedChildUsesItsOwnPoolAndExitsCleanly) {
#if defined(__SANITIZE_THREAD__)
  GTEST_SKIP() << "ThreadSanitizer does not support threads started after a multi-threaded fork";
#endif
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
