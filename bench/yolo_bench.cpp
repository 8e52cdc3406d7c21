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
#include "yolo_tasks.hpp"

#include <xtensor/xmanipulation.hpp>
#include <xtensor/xview.hpp>

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

// --- The other heads -----------------------------------------------------------

// 20 instances on a 1920 x 1080 original seen at 640 x 640: smooth prototypes
// [32, 160, 160] and end-to-end rows (x1, y1, x2, y2, score, class, 32
// coefficients) with boxes of 60 to 300 network pixels.
struct MaskCase {
  xt::xtensor<float, 3> protos = xt::zeros<float>({size_t(32), size_t(160), size_t(160)});
  xt::xtensor<float, 2> rows = xt::zeros<float>({size_t(20), size_t(38)});
  yolo::LetterboxInfo letterbox = yolo::letterbox_info(1920, 1080, {640, 640});

  MaskCase() {
    std::mt19937 rng(9);
    std::uniform_real_distribution<float> u(0.0f, 1.0f);
    // Prototype k: a Gaussian blob at (px[k], py[k]), lowered so only its core is positive.
    float px[32], py[32];
    for (size_t k = 0; k < 32; ++k) {
      px[k] = 160 * u(rng), py[k] = 35 + 90 * u(rng);
      const float s = 10 + 20 * u(rng);
      for (size_t y = 0; y < 160; ++y)
        for (size_t x = 0; x < 160; ++x) {
          const float dx = (float(x) - px[k]) / s, dy = (float(y) - py[k]) / s;
          protos(k, y, x) = std::exp(-(dx * dx + dy * dy)) - 0.25f;
        }
    }
    // Instance coefficients weigh the prototypes near the box centre most.
    for (size_t i = 0; i < 20; ++i) {
      const float w = 60 + 240 * u(rng), h = 60 + 200 * u(rng);
      const float x1 = (640 - w) * u(rng), y1 = 140 + (360 - h) * u(rng);
      rows(i, 0) = x1, rows(i, 1) = y1, rows(i, 2) = x1 + w, rows(i, 3) = y1 + h;
      rows(i, 4) = 0.9f;
      const float cx = (x1 + w / 2) / 4, cy = (y1 + h / 2) / 4;
      for (size_t k = 0; k < 32; ++k) {
        const float dx = (px[k] - cx) / 15, dy = (py[k] - cy) / 15;
        rows(i, 6 + k) = 2 * std::exp(-(dx * dx + dy * dy)) + 0.1f * u(rng);
      }
    }
  }
};

void BM_SegmentMasks_20x32x160x160_to_1080p(benchmark::State& state) {
  const MaskCase c;
  yolo::PostprocessOptions options;
  size_t area = 0;
  for (auto _ : state) {
    const auto dets = yolo::segment_end2end(c.rows, c.protos, c.letterbox, options);
    area = 0;
    for (const auto& d : dets) area += d.mask.area();
    benchmark::DoNotOptimize(area);
  }
  state.counters["mask_pixels"] = static_cast<double>(area);
}
BENCHMARK(BM_SegmentMasks_20x32x160x160_to_1080p)->Unit(benchmark::kMillisecond);

// Separable bilinear resize (half-pixel centres, edges clamped) of the rows
// [r0, r0 + in_h) of an in_w-wide map to out_w x out_h.
void bilinear(const float* src, size_t in_w, size_t in_h, size_t out_w, size_t out_h,
              std::vector<float>& across, float* dst) {
  across.resize(in_h * out_w);
  const float sx = float(in_w) / float(out_w), sy = float(in_h) / float(out_h);
  for (size_t x = 0; x < out_w; ++x) {
    const float p = std::max((float(x) + 0.5f) * sx - 0.5f, 0.0f);
    const size_t i0 = std::min(size_t(p), in_w - 1), i1 = std::min(i0 + 1, in_w - 1);
    const float a = p - float(i0);
    for (size_t y = 0; y < in_h; ++y)
      across[y * out_w + x] = (1 - a) * src[y * in_w + i0] + a * src[y * in_w + i1];
  }
  for (size_t y = 0; y < out_h; ++y) {
    const float p = std::max((float(y) + 0.5f) * sy - 0.5f, 0.0f);
    const size_t j0 = std::min(size_t(p), in_h - 1), j1 = std::min(j0 + 1, in_h - 1);
    const float b = p - float(j0);
    for (size_t x = 0; x < out_w; ++x)
      dst[y * out_w + x] = (1 - b) * across[j0 * out_w + x] + b * across[j1 * out_w + x];
  }
}

// Baseline: the full-resolution route, one thread: all 20 logit maps at
// prototype resolution, each upsampled to the 640 x 640 input, its 640 x 360
// content resized to 1920 x 1080, thresholded and cropped to its box.
void BM_MasksFullResolutionRoute_20x32x160x160_to_1080p(benchmark::State& state) {
  const MaskCase c;
  std::vector<float> logits(20u * 160 * 160), input(640u * 640), original(1920u * 1080), across;
  std::vector<uint8_t> masks(20u * 1920 * 1080);
  for (auto _ : state) {
    std::fill(logits.begin(), logits.end(), 0.0f);
    for (size_t i = 0; i < 20; ++i)
      for (size_t k = 0; k < 32; ++k) {
        const float w = c.rows(i, 6 + k);
        const float* p = &c.protos(k, 0, 0);
        float* l = logits.data() + i * 160 * 160;
        for (size_t j = 0; j < 160u * 160; ++j) l[j] += w * p[j];
      }
    for (size_t i = 0; i < 20; ++i) {
      bilinear(logits.data() + i * 160 * 160, 160, 160, 640, 640, across, input.data());
      bilinear(input.data() + 140 * 640, 640, 360, 1920, 1080, across, original.data());
      const float x1 = c.rows(i, 0) * 3, y1 = (c.rows(i, 1) - 140) * 3;
      const float x2 = c.rows(i, 2) * 3, y2 = (c.rows(i, 3) - 140) * 3;
      uint8_t* m = masks.data() + i * 1920 * 1080;
      for (size_t y = 0; y < 1080; ++y)
        for (size_t x = 0; x < 1920; ++x)
          m[y * 1920 + x] = original[y * 1920 + x] > 0 && float(x) >= x1 && float(x) < x2 &&
                            float(y) >= y1 && float(y) < y2;
    }
    benchmark::DoNotOptimize(masks.data());
  }
}
BENCHMARK(BM_MasksFullResolutionRoute_20x32x160x160_to_1080p)->Unit(benchmark::kMillisecond);

// realistic_head()'s boxes and first `classes` scores, then `extra` values
// (keypoints near the box centre, or an angle).
xt::xtensor<float, 2> task_rows(size_t classes, size_t extra) {
  const auto det = realistic_head();
  xt::xtensor<float, 2> head = xt::zeros<float>({size_t(8400), 4 + classes + extra});
  for (size_t i = 0; i < 8400; ++i) {
    for (size_t c = 0; c < 4 + classes; ++c) head(i, c) = det(i, c);
    // Fold the 80 classes onto `classes` so the same objects score.
    for (size_t c = 4 + classes; c < 84; ++c) {
      const size_t to = 4 + (c - 4) % classes;
      head(i, to) = std::max(head(i, to), det(i, c));
    }
    for (size_t k = 0; k < extra; ++k) head(i, 4 + classes + k) = det(i, k % 2) + float(k % 7);
  }
  return head;
}

const yolo::LetterboxInfo kLetterbox1080p = yolo::letterbox_info(1920, 1080, {640, 640});

void BM_PoseDecode_8400x56(benchmark::State& state) {
  const auto head = task_rows(1, 51);
  const yolo::PostprocessOptions options;
  for (auto _ : state)
    benchmark::DoNotOptimize(yolo::postprocess_pose(head, kLetterbox1080p, options));
}
BENCHMARK(BM_PoseDecode_8400x56)->Unit(benchmark::kMicrosecond);

void BM_DetectSameRows_8400x5(benchmark::State& state) {
  const xt::xtensor<float, 2> head = xt::view(task_rows(1, 51), xt::all(), xt::range(0, 5));
  const yolo::PostprocessOptions options;
  for (auto _ : state) benchmark::DoNotOptimize(yolo::postprocess(head, kLetterbox1080p, options));
}
BENCHMARK(BM_DetectSameRows_8400x5)->Unit(benchmark::kMicrosecond);

void BM_ObbDecode_8400x20(benchmark::State& state) {
  const auto head = task_rows(15, 1);
  const yolo::PostprocessOptions options;
  for (auto _ : state)
    benchmark::DoNotOptimize(yolo::postprocess_obb(head, kLetterbox1080p, options));
}
BENCHMARK(BM_ObbDecode_8400x20)->Unit(benchmark::kMicrosecond);

void BM_DetectSameRows_8400x19(benchmark::State& state) {
  const xt::xtensor<float, 2> head = xt::view(task_rows(15, 1), xt::all(), xt::range(0, 19));
  const yolo::PostprocessOptions options;
  for (auto _ : state) benchmark::DoNotOptimize(yolo::postprocess(head, kLetterbox1080p, options));
}
BENCHMARK(BM_DetectSameRows_8400x19)->Unit(benchmark::kMicrosecond);

}  // namespace

int main(int argc, char** argv) {
  return benchratio::run(
      argc, argv,
      {{"BM_Pack_640", "BM_MemcpyPackOutput_640", 2.0},
       {"BM_Letterbox_1080p_to_640", "BM_BareStbResize_1080p_to_640x360", 1.2},
       {"BM_Postprocess_8400x84", "BM_ReadPassHead_8400x84", 3.0},
       {"BM_PreprocessImages_1080pView_to_640", "BM_LetterboxAndPack_1080p_to_640", 1.05},
       {"BM_PostprocessChannelsFirst_84x8400", "BM_PostprocessGeometry_8400x84", 1.2},
       {"BM_SegmentMasks_20x32x160x160_to_1080p",
        "BM_MasksFullResolutionRoute_20x32x160x160_to_1080p", 0.1},
       {"BM_PoseDecode_8400x56", "BM_DetectSameRows_8400x5", 1.2},
       {"BM_ObbDecode_8400x20", "BM_DetectSameRows_8400x19", 1.2},

       {"BM_Resize_1080p_to_640x360_Avx2", "BM_Resize_1080p_to_640x360_Baseline", 0.0},
       {"BM_Resize_1080p_to_640x360_Avx2_2Threads", "BM_Resize_1080p_to_640x360_Avx2", 0.0}});
}
