// Detection family: preprocess, its letterbox and pack stages, postprocess and
// drawing, each next to a baseline measured in the same run.
#include <cstring>
#include <filesystem>
#include <random>

#include "../src/yolo/pack.hpp"
#include "ratios.hpp"
#include "stb_image_resize2.h"
#include "stb_image_write.h"
#include "yolo.hpp"

#include <xtensor/xmanipulation.hpp>

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
       {"BM_PostprocessChannelsFirst_84x8400", "BM_PostprocessGeometry_8400x84", 1.2}});
}
