// Detection family: preprocess, its letterbox and pack stages, postprocess and
// drawing, each next to a baseline measured in the same run.
#include <cstring>
#include <filesystem>
#include <random>

#include "../src/pixels/cpu.hpp"
#include "../src/pixels/image_io.hpp"
#include "../src/yolo/pack.hpp"
#include "inputs.hpp"
#include "ratios.hpp"
#include "stb_image_resize2.h"
#include "stb_image_write.h"
#include "threads.hpp"
#include "yolo.hpp"

#include <xtensor/xmanipulation.hpp>

namespace {

using benchinputs::frame_1080p;
using benchinputs::jpeg_1080p;
using benchinputs::realistic_head;

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

// The same work from a caller's RGB pixels, geometry included.
void BM_PreprocessImages_1080pView_to_640(benchmark::State& state) {
  const auto im = frame_1080p();
  const std::vector<vemoproc::ImageView> views = {
      {im.data.data(), im.width, im.height, 0, vemoproc::PixelFormat::RGB}};
  for (auto _ : state) benchmark::DoNotOptimize(yolo::preprocess_images(views, {640, 640}));
}
BENCHMARK(BM_PreprocessImages_1080pView_to_640)->Unit(benchmark::kMillisecond);

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

// The geometry overload on the same head, as [8400, 84] and as the [84, 8400]
// that exports give, read in place.
void postprocess_geometry(benchmark::State& state, bool channels_first) {
  const xt::xtensor<float, 2> rows = realistic_head();
  const xt::xtensor<float, 2> head =
      channels_first ? xt::xtensor<float, 2>(xt::transpose(rows)) : rows;
  yolo::PostprocessOptions options;
  options.channels_first = channels_first;
  const yolo::LetterboxInfo letterbox = yolo::letterbox_info(1920, 1080, {640, 640});
  for (auto _ : state) benchmark::DoNotOptimize(yolo::postprocess(head, letterbox, options));
}
void BM_PostprocessGeometry_8400x84(benchmark::State& state) { postprocess_geometry(state, false); }
BENCHMARK(BM_PostprocessGeometry_8400x84)->Unit(benchmark::kMicrosecond);
void BM_PostprocessChannelsFirst_84x8400(benchmark::State& state) {
  postprocess_geometry(state, true);
}
BENCHMARK(BM_PostprocessChannelsFirst_84x8400)->Unit(benchmark::kMicrosecond);

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
       {"BM_PreprocessImages_1080pView_to_640", "BM_LetterboxAndPack_1080p_to_640", 1.05},
       {"BM_PostprocessChannelsFirst_84x8400", "BM_PostprocessGeometry_8400x84", 1.2},

       {"BM_Resize_1080p_to_640x360_Avx2", "BM_Resize_1080p_to_640x360_Baseline", 0.0},
       {"BM_Resize_1080p_to_640x360_Avx2_2Threads", "BM_Resize_1080p_to_640x360_Avx2", 0.0}});
}
