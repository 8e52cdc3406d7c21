// Detection family: preprocess, its letterbox and pack stages, postprocess and
// drawing, each next to a baseline measured in the same run.
#include <cstring>
#include <filesystem>
#include <random>

#include "../src/pixels/cpu.hpp"
#include "../src/pixels/image_io.hpp"
#include "../src/yolo/pack.hpp"
#include "ratios.hpp"
#include "stb_image_resize2.h"
#include "stb_image_write.h"
#include "threads.hpp"
#include "yolo.hpp"

namespace {

// A 1920x1080 photo-like frame: smooth gradients with some texture.
yolo::RawImage frame_1080p() {
  yolo::RawImage im;
  im.width = 1920;
  im.height = 1080;
  im.channels = 3;
  im.data.resize(1920u * 1080u * 3u);
  std::mt19937 rng(1);
  for (int y = 0; y < 1080; ++y)
    for (int x = 0; x < 1920; ++x)
      for (int c = 0; c < 3; ++c)
        im.data[(static_cast<size_t>(y) * 1920 + x) * 3 + c] =
            static_cast<uint8_t>((x / 8 + y / 5 + 60 * c + (rng() & 15)) & 255);
  return im;
}

const std::string& jpeg_1080p() {
  static const std::string path = [] {
    const auto p = (std::filesystem::temp_directory_path() / "vemoproc-bench-1080p.jpg").string();
    const auto im = frame_1080p();
    stbi_write_jpg(p.c_str(), im.width, im.height, 3, im.data.data(), 90);
    return p;
  }();
  return path;
}

void BM_Preprocess_Jpeg1080p_to_640(benchmark::State& state) {
  const std::vector<std::string> paths = {jpeg_1080p()};
  for (auto _ : state) benchmark::DoNotOptimize(yolo::preprocess(paths, {640, 640}));
}
BENCHMARK(BM_Preprocess_Jpeg1080p_to_640)->Unit(benchmark::kMillisecond);

void BM_LetterboxAndPack_1080p_to_640(benchmark::State& state) {
  const auto im = frame_1080p();
  std::vector<float> slot(3u * 640 * 640);
  for (auto _ : state) {
    const auto boxed = yolo::letterbox(im, {640, 640}, 114);
    yolo::internal::pack_planar(boxed.data.data(), 640u * 640u, slot.data());
    benchmark::DoNotOptimize(slot.data());
  }
}
BENCHMARK(BM_LetterboxAndPack_1080p_to_640)->Unit(benchmark::kMillisecond);

void BM_Letterbox_1080p_to_640(benchmark::State& state) {
  const auto im = frame_1080p();
  for (auto _ : state) benchmark::DoNotOptimize(yolo::letterbox(im, {640, 640}, 114));
}
BENCHMARK(BM_Letterbox_1080p_to_640)->Unit(benchmark::kMillisecond);

// Baseline: the resize call letterbox makes, alone, into a reused buffer.
void BM_BareStbResize_1080p_to_640x360(benchmark::State& state) {
  const auto im = frame_1080p();
  std::vector<uint8_t> out(640u * 360u * 3u);
  for (auto _ : state) {
    benchmark::DoNotOptimize(stbir_resize_uint8_linear(im.data.data(), 1920, 1080, 0, out.data(),
                                                       640, 360, 0, STBIR_RGB));
  }
}
BENCHMARK(BM_BareStbResize_1080p_to_640x360)->Unit(benchmark::kMillisecond);

// The library's resize on the baseline build of the resizer, on the AVX2
// build, and on the AVX2 build split over two threads.
void resize_1080p_to_640x360(benchmark::State& state, bool wide, int threads) {
  const auto im = frame_1080p();
  std::vector<uint8_t> out(640u * 360u * 3u);
  vemoproc::detail::set_wide_paths_enabled(wide);
  vemoproc::set_num_threads(threads);
  for (auto _ : state) {
    benchmark::DoNotOptimize(vemoproc::detail::resize_rgb(im.data.data(), 1920, 1080, 0, out.data(),
                                                          640, 360, 0,
                                                          vemoproc::detail::ResizeFilter::Default));
  }
  vemoproc::detail::set_wide_paths_enabled(true);
  vemoproc::set_num_threads(1);
}
void BM_Resize_1080p_to_640x360_Baseline(benchmark::State& state) {
  resize_1080p_to_640x360(state, false, 1);
}
void BM_Resize_1080p_to_640x360_Avx2(benchmark::State& state) {
  resize_1080p_to_640x360(state, true, 1);
}
void BM_Resize_1080p_to_640x360_Avx2_2Threads(benchmark::State& state) {
  resize_1080p_to_640x360(state, true, 2);
}
BENCHMARK(BM_Resize_1080p_to_640x360_Baseline)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Resize_1080p_to_640x360_Avx2)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Resize_1080p_to_640x360_Avx2_2Threads)->Unit(benchmark::kMillisecond);

void BM_Pack_640(benchmark::State& state) {
  const auto boxed = yolo::letterbox(frame_1080p(), {640, 640}, 114);
  std::vector<float> slot(3u * 640 * 640);
  for (auto _ : state) {
    yolo::internal::pack_planar(boxed.data.data(), 640u * 640u, slot.data());
    benchmark::DoNotOptimize(slot.data());
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * slot.size() * 4);
}
BENCHMARK(BM_Pack_640)->Unit(benchmark::kMicrosecond);

// Baseline: a memcpy of the pack's output bytes.
void BM_MemcpyPackOutput_640(benchmark::State& state) {
  std::vector<float> src(3u * 640 * 640, 0.5f);
  std::vector<float> dst(src.size());
  for (auto _ : state) {
    std::memcpy(dst.data(), src.data(), src.size() * sizeof(float));
    benchmark::DoNotOptimize(dst.data());
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * dst.size() * 4);
}
BENCHMARK(BM_MemcpyPackOutput_640)->Unit(benchmark::kMicrosecond);

// [8400, 84] head: most candidates score below 0.25; ~300 rows in clusters of
// 15 around 20 objects score above it.
xt::xtensor<float, 2> realistic_head() {
  xt::xtensor<float, 2> head = xt::zeros<float>({8400, 84});
  std::mt19937 rng(3);
  std::uniform_real_distribution<float> u(0.0f, 1.0f);
  std::normal_distribution<float> jitter(0.0f, 4.0f);
  for (size_t i = 0; i < 8400; ++i) {
    head(i, 0) = 640 * u(rng);
    head(i, 1) = 640 * u(rng);
    head(i, 2) = 8 + 120 * u(rng);
    head(i, 3) = 8 + 120 * u(rng);
    for (size_t c = 4; c < 84; ++c) head(i, c) = 0.1f * u(rng) * u(rng);
  }
  for (size_t obj = 0; obj < 20; ++obj) {
    const float cx = 40 + 560 * u(rng), cy = 40 + 560 * u(rng), w = 30 + 150 * u(rng),
                h = 30 + 150 * u(rng);
    const size_t cls = 4 + static_cast<size_t>(80 * u(rng)) % 80;
    for (size_t k = 0; k < 15; ++k) {
      const size_t i = 400 * obj + 7 * k;
      head(i, 0) = cx + jitter(rng);
      head(i, 1) = cy + jitter(rng);
      head(i, 2) = w + jitter(rng);
      head(i, 3) = h + jitter(rng);
      head(i, cls) = 0.3f + 0.65f * u(rng);
    }
  }
  return head;
}

void BM_Postprocess_8400x84(benchmark::State& state) {
  const auto head = realistic_head();
  size_t kept = 0;
  for (auto _ : state) {
    const auto dets = yolo::postprocess(head, {640, 640}, {1080, 1920}, 0.25f, 0.45f, 300);
    kept = dets.size();
    benchmark::DoNotOptimize(dets.data());
  }
  state.counters["detections"] = static_cast<double>(kept);
}
BENCHMARK(BM_Postprocess_8400x84)->Unit(benchmark::kMicrosecond);

// Baseline: one read pass over the head (a running maximum of every value).
void BM_ReadPassHead_8400x84(benchmark::State& state) {
  const auto head = realistic_head();
  for (auto _ : state) {
    float m = 0;
    for (const float v : head) m = m > v ? m : v;
    benchmark::DoNotOptimize(m);
  }
}
BENCHMARK(BM_ReadPassHead_8400x84)->Unit(benchmark::kMicrosecond);

void BM_Draw100Boxes_1080p(benchmark::State& state) {
  auto im = frame_1080p();
  std::vector<yolo::Detection> dets;
  std::mt19937 rng(5);
  std::uniform_real_distribution<float> u(0.0f, 1.0f);
  for (int i = 0; i < 100; ++i) {
    const float x = 1700 * u(rng), y = 900 * u(rng);
    dets.push_back({x, y, x + 40 + 200 * u(rng), y + 40 + 200 * u(rng), u(rng), i % 80});
  }
  const std::vector<std::string> names = {"person", "bicycle", "car", "motorcycle", "bus"};
  for (auto _ : state) {
    yolo::draw_detections(im, dets, names, true, 2);
    benchmark::DoNotOptimize(im.data.data());
  }
}
BENCHMARK(BM_Draw100Boxes_1080p)->Unit(benchmark::kMicrosecond);

}  // namespace

int main(int argc, char** argv) {
  return benchratio::run(
      argc, argv,
      {{"BM_Pack_640", "BM_MemcpyPackOutput_640", 2.0},
       {"BM_Letterbox_1080p_to_640", "BM_BareStbResize_1080p_to_640x360", 1.2},
       {"BM_Postprocess_8400x84", "BM_ReadPassHead_8400x84", 3.0},
       {"BM_Resize_1080p_to_640x360_Avx2", "BM_Resize_1080p_to_640x360_Baseline", 0.0},
       {"BM_Resize_1080p_to_640x360_Avx2_2Threads", "BM_Resize_1080p_to_640x360_Avx2", 0.0}});
}
