// Vision inputs: ConvNeXt / Zentil on a 1080p JPEG next to a decode-only
// baseline; ConvNeXt on caller pixels (an RGB view read in place against a
// BGR one that must be converted first); a 1080p NV12 camera frame to RGB
// next to a memcpy of the RGB output; Qwen2-VL single image, batches, and the
// patch stage alone next to a memcpy of its output bytes.
#include "ratios.hpp"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "convnext.hpp"
#include "pixels.hpp"
#include "qwen2vl.hpp"
#include "stb_image.h"
#include "stb_image_write.h"
#include "zentil.hpp"

namespace {

using Image = xt::xtensor<uint8_t, 3>;

// Smooth gradients with some texture, like a photo compresses.
std::vector<uint8_t> photo_like(int w, int h) {
  std::vector<uint8_t> px(static_cast<size_t>(w) * h * 3);
  for (int y = 0; y < h; ++y)
    for (int x = 0; x < w; ++x)
      for (int c = 0; c < 3; ++c)
        px[(static_cast<size_t>(y) * w + x) * 3 + c] =
            static_cast<uint8_t>((x * (c + 1) / 8 + y / 5 + ((x * 7 + y * 13) % 17)) & 0xff);
  return px;
}

const std::string& jpeg_1080p() {
  static const std::string path = [] {
    const std::string p = "/tmp/vemoproc-vision-bench-1080p.jpg";
    const auto px = photo_like(1920, 1080);
    if (!stbi_write_jpg(p.c_str(), 1920, 1080, 3, px.data(), 90)) std::abort();
    return p;
  }();
  return path;
}

Image image_of(size_t side) {
  const auto px = photo_like(static_cast<int>(side), static_cast<int>(side));
  Image img = Image::from_shape({side, side, 3});
  std::memcpy(img.data(), px.data(), px.size());
  return img;
}

qwen2vl::Qwen2VLImageProcessor default_processor(bool do_resize) {
  return qwen2vl::Qwen2VLImageProcessor(do_resize, 56 * 56, 28 * 28 * 1280, true, 1.0f / 255.0f,
                                        true, qwen2vl::kDefaultImageMean, qwen2vl::kDefaultImageStd,
                                        14, 2, 2);
}

void BM_DecodeJpeg1080p(benchmark::State& state) {
  for (auto _ : state) {
    int w = 0, h = 0, n = 0;
    stbi_uc* px = stbi_load(jpeg_1080p().c_str(), &w, &h, &n, 3);
    benchmark::DoNotOptimize(px);
    stbi_image_free(px);
  }
}
BENCHMARK(BM_DecodeJpeg1080p)->Unit(benchmark::kMillisecond);

void BM_ConvNextProcess1080p(benchmark::State& state) {
  convnext::ConvNextPreprocessor pre(224, 0.875f);
  for (auto _ : state) benchmark::DoNotOptimize(pre.process(jpeg_1080p()));
}
BENCHMARK(BM_ConvNextProcess1080p)->Unit(benchmark::kMillisecond);

void BM_ZentilProcess1080p(benchmark::State& state) {
  zentil::ZentilPreprocessor pre(224);
  for (auto _ : state) benchmark::DoNotOptimize(pre.process(jpeg_1080p()));
}
BENCHMARK(BM_ZentilProcess1080p)->Unit(benchmark::kMillisecond);

// The same 1080p picture as caller pixels: RGB is resized in place, BGR goes
// through one conversion to RGB first; the gap is the cost of a whole copy.
void convnext_view(benchmark::State& state, vemoproc::PixelFormat format) {
  std::vector<uint8_t> px = photo_like(1920, 1080);
  if (format == vemoproc::PixelFormat::BGR)
    for (size_t i = 0; i < px.size(); i += 3) std::swap(px[i], px[i + 2]);
  const vemoproc::ImageView view{px.data(), 1920, 1080, 0, format};
  convnext::ConvNextPreprocessor pre(224, 0.875f);
  for (auto _ : state) benchmark::DoNotOptimize(pre.process(view));
}
void BM_ConvNextRgbView1080p(benchmark::State& state) {
  convnext_view(state, vemoproc::PixelFormat::RGB);
}
BENCHMARK(BM_ConvNextRgbView1080p)->Unit(benchmark::kMillisecond);
void BM_ConvNextBgrView1080p(benchmark::State& state) {
  convnext_view(state, vemoproc::PixelFormat::BGR);
}
BENCHMARK(BM_ConvNextBgrView1080p)->Unit(benchmark::kMillisecond);

// A 1080p NV12 camera frame to packed RGB, next to a memcpy of those bytes.
void BM_Nv12ToRgb1080p(benchmark::State& state) {
  const int w = 1920, h = 1080;
  std::vector<uint8_t> y(size_t(w) * h), uv(size_t(w) * h / 2);
  for (size_t i = 0; i < y.size(); ++i) y[i] = uint8_t(i * 7 + i / w);
  for (size_t i = 0; i < uv.size(); ++i) uv[i] = uint8_t(i * 13 + 64);
  const vemoproc::YuvView frame{y.data(),
                                size_t(w),
                                uv.data(),
                                size_t(w),
                                nullptr,
                                0,
                                w,
                                h,
                                vemoproc::YuvLayout::NV12,
                                vemoproc::YuvRange::Video};
  for (auto _ : state) benchmark::DoNotOptimize(vemoproc::to_rgb(frame));
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * w * h * 3);
}
BENCHMARK(BM_Nv12ToRgb1080p)->Unit(benchmark::kMicrosecond);

void BM_MemcpyRgb1080p(benchmark::State& state) {
  const size_t bytes = size_t(1920) * 1080 * 3;
  std::vector<char> src(bytes, 1), dst(bytes, 0);
  for (auto _ : state) {
    std::memcpy(dst.data(), src.data(), bytes);
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * bytes));
}
BENCHMARK(BM_MemcpyRgb1080p)->Unit(benchmark::kMicrosecond);

// 1024 x 1024 with the default budget: resized to 1008 x 1008, 1296 rows.
void BM_Qwen2VLPreprocess1024(benchmark::State& state) {
  auto proc = default_processor(true);
  const std::vector<Image> images{image_of(1024)};
  for (auto _ : state) benchmark::DoNotOptimize(proc.preprocess(images));
}
BENCHMARK(BM_Qwen2VLPreprocess1024)->Unit(benchmark::kMillisecond);

// Batches of decoded 448 x 448 images; per_image should stay flat.
void BM_Qwen2VLBatch448(benchmark::State& state) {
  auto proc = default_processor(true);
  const std::vector<Image> images(static_cast<size_t>(state.range(0)), image_of(448));
  for (auto _ : state) benchmark::DoNotOptimize(proc.preprocess(images));
  state.counters["per_image"] = benchmark::Counter(
      static_cast<double>(state.iterations()) * static_cast<double>(state.range(0)),
      benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}
BENCHMARK(BM_Qwen2VLBatch448)->Arg(1)->Arg(8)->Arg(32)->Unit(benchmark::kMillisecond);

// A 16-frame 448 x 448 video against the same frames as 16 still images.
void BM_Qwen2VLVideo16x448(benchmark::State& state) {
  auto proc = default_processor(true);
  const Image frame = image_of(448);
  const vemoproc::ImageView view{frame.data(), 448, 448, 0, vemoproc::PixelFormat::RGB};
  const std::vector<vemoproc::ImageView> frames(16, view);
  for (auto _ : state) benchmark::DoNotOptimize(proc.preprocess_video(frames));
}
BENCHMARK(BM_Qwen2VLVideo16x448)->Unit(benchmark::kMillisecond);

void BM_Qwen2VLStills16x448(benchmark::State& state) {
  auto proc = default_processor(true);
  const Image frame = image_of(448);
  const vemoproc::ImageView view{frame.data(), 448, 448, 0, vemoproc::PixelFormat::RGB};
  for (auto _ : state)
    for (int i = 0; i < 16; ++i) benchmark::DoNotOptimize(proc.preprocess({view}));
}
BENCHMARK(BM_Qwen2VLStills16x448)->Unit(benchmark::kMillisecond);

// The stage after the resize (convert, rescale, normalise, tile, patch
// order) on a 1008 x 1008 image; BM_MemcpyPatchBytes1008 below copies the
// same output bytes as the baseline.
void BM_Qwen2VLPatchStage1008(benchmark::State& state) {
  auto proc = default_processor(false);
  const Image img = image_of(1008);
  size_t bytes = 0;
  for (auto _ : state) {
    auto out = proc._preprocess_single_image(img);
    bytes = out.patches.size() * sizeof(float);
    benchmark::DoNotOptimize(out);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * bytes));
}
BENCHMARK(BM_Qwen2VLPatchStage1008)->Unit(benchmark::kMillisecond);

void BM_MemcpyPatchBytes1008(benchmark::State& state) {
  // 72 x 72 patches of 3 * 2 * 14 * 14 floats: 24.4 MB.
  const size_t bytes = 5184u * 1176u * sizeof(float);
  std::vector<char> src(bytes, 1), dst(bytes, 0);
  for (auto _ : state) {
    std::memcpy(dst.data(), src.data(), bytes);
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * bytes));
}
BENCHMARK(BM_MemcpyPatchBytes1008)->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char** argv) {
  return benchratio::run(argc, argv,
                         {{"BM_Qwen2VLBatch448/32", "BM_Qwen2VLBatch448/1", 40.0},
                          {"BM_Qwen2VLBatch448/8", "BM_Qwen2VLBatch448/1", 0},
                          {"BM_Qwen2VLPatchStage1008", "BM_MemcpyPatchBytes1008", 4.0},
                          {"BM_ConvNextProcess1080p", "BM_DecodeJpeg1080p", 0},
                          {"BM_ConvNextRgbView1080p", "BM_ConvNextBgrView1080p", 0},
                          {"BM_Nv12ToRgb1080p", "BM_MemcpyRgb1080p", 3.0},
                          {"BM_Qwen2VLVideo16x448", "BM_Qwen2VLStills16x448", 1.1},
                          {"BM_ZentilProcess1080p", "BM_DecodeJpeg1080p", 0}});
}
