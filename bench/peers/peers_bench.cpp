// The same work timed with this library and with OpenCV in one process, each
// stage's ratio printed at the end (ours / OpenCV, or ours at 2 threads /
// ours at 1). Single-image stages run both sides on one thread
// (cv::setNumThreads(1), the library's default); the batch stages give both
// the same thread count.
#include <opencv2/core.hpp>
#include <opencv2/dnn.hpp>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

#include <algorithm>
#include <cmath>
#include <array>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "../inputs.hpp"
#include "../ratios.hpp"
#include "convnext.hpp"
#include "pixels.hpp"
#include "threads.hpp"
#include "yolo.hpp"

namespace {

constexpr int kBox = 640;
constexpr int kBatch = 8;

// Eight files holding the benchmark JPEG, for the batch stages.
const std::vector<std::string>& batch_files() {
  static const std::vector<std::string> paths = [] {
    std::vector<std::string> p;
    for (int i = 0; i < kBatch; ++i) {
      const auto dst =
          std::filesystem::temp_directory_path() / ("vemoproc-peers-" + std::to_string(i) + ".jpg");
      std::filesystem::copy_file(benchinputs::jpeg_1080p(), dst,
                                 std::filesystem::copy_options::overwrite_existing);
      p.push_back(dst.string());
    }
    return p;
  }();
  return paths;
}

// OpenCV's usual letterbox: resize keeping the aspect ratio, then pad with 114.
cv::Mat cv_letterbox(const cv::Mat& image, int interpolation) {
  const double r =
      std::min(static_cast<double>(kBox) / image.rows, static_cast<double>(kBox) / image.cols);
  const int w = static_cast<int>(std::lround(r * image.cols));
  const int h = static_cast<int>(std::lround(r * image.rows));
  cv::Mat resized;
  cv::resize(image, resized, cv::Size(w, h), 0, 0, interpolation);
  const int top = (kBox - h) / 2;
  const int left = (kBox - w) / 2;
  cv::Mat boxed;
  cv::copyMakeBorder(resized, boxed, top, kBox - h - top, left, kBox - w - left,
                     cv::BORDER_CONSTANT, cv::Scalar(114, 114, 114));
  return boxed;
}

cv::Mat cv_detection_blob(const std::vector<std::string>& paths) {
  std::vector<cv::Mat> boxed;
  for (const std::string& p : paths) boxed.push_back(cv_letterbox(cv::imread(p), cv::INTER_LINEAR));
  return cv::dnn::blobFromImages(boxed, 1.0 / 255.0, cv::Size(), cv::Scalar(), true, false);
}

// --- Decoding ---------------------------------------------------------------

void BM_Decode_Ours(benchmark::State& state) {
  for (auto _ : state) benchmark::DoNotOptimize(yolo::RawImage(benchinputs::jpeg_1080p()));
}
void BM_Decode_OpenCV(benchmark::State& state) {
  for (auto _ : state) benchmark::DoNotOptimize(cv::imread(benchinputs::jpeg_1080p()));
}

// --- Letterbox 1080p to 640 -------------------------------------------------

void BM_Letterbox_Ours(benchmark::State& state) {
  const yolo::RawImage im = benchinputs::frame_1080p();
  for (auto _ : state) benchmark::DoNotOptimize(yolo::letterbox(im, {kBox, kBox}, 114));
}
void cv_letterbox_bench(benchmark::State& state, int interpolation) {
  yolo::RawImage im = benchinputs::frame_1080p();
  const cv::Mat mat(im.height, im.width, CV_8UC3, im.data.data());
  for (auto _ : state) benchmark::DoNotOptimize(cv_letterbox(mat, interpolation));
}
void BM_Letterbox_OpenCV_Linear(benchmark::State& state) {
  cv_letterbox_bench(state, cv::INTER_LINEAR);
}
void BM_Letterbox_OpenCV_Area(benchmark::State& state) {
  cv_letterbox_bench(state, cv::INTER_AREA);
}

// --- Whole detection preprocess of the file -----------------------------------

void BM_Preprocess_Ours(benchmark::State& state) {
  const std::vector<std::string> paths = {benchinputs::jpeg_1080p()};
  for (auto _ : state) benchmark::DoNotOptimize(yolo::preprocess(paths, {kBox, kBox}));
}
void BM_Preprocess_OpenCV(benchmark::State& state) {
  const std::vector<std::string> paths = {benchinputs::jpeg_1080p()};
  for (auto _ : state) benchmark::DoNotOptimize(cv_detection_blob(paths));
}

// --- Postprocess of an [8400, 84] head ----------------------------------------

void BM_Postprocess_Ours(benchmark::State& state) {
  const auto head = benchinputs::realistic_head();
  for (auto _ : state) {
    benchmark::DoNotOptimize(
        yolo::postprocess(head, {kBox, kBox}, {1080, 1920}, 0.25f, 0.45f, 300));
  }
}
// Best class per row, class-offset boxes through NMSBoxes, letterbox undone.
void BM_Postprocess_OpenCV(benchmark::State& state) {
  const auto head = benchinputs::realistic_head();
  const int rows = static_cast<int>(head.shape(0));
  const int classes = static_cast<int>(head.shape(1)) - 4;
  const float gain = std::min(640.0f / 1080.0f, 640.0f / 1920.0f);
  const float pad_x = (640 - 1920 * gain) / 2, pad_y = (640 - 1080 * gain) / 2;
  for (auto _ : state) {
    std::vector<cv::Rect2d> boxes;
    std::vector<float> scores;
    std::vector<int> ids;
    for (int i = 0; i < rows; ++i) {
      const float* row = head.data() + static_cast<size_t>(i) * (classes + 4);
      const float* best = std::max_element(row + 4, row + 4 + classes);
      if (*best <= 0.25f) continue;
      const int id = static_cast<int>(best - row - 4);
      const double offset = id * 7680.0;
      boxes.emplace_back(row[0] - row[2] / 2 + offset, row[1] - row[3] / 2 + offset, row[2],
                         row[3]);
      scores.push_back(*best);
      ids.push_back(id);
    }
    std::vector<int> keep;
    cv::dnn::NMSBoxes(boxes, scores, 0.25f, 0.45f, keep, 1.0f, 300);
    std::vector<std::array<float, 6>> dets;
    for (int k : keep) {
      const double offset = ids[k] * 7680.0;
      const auto& b = boxes[k];
      const auto x = [&](double v) {
        return std::clamp(static_cast<float>((v - offset - pad_x) / gain), 0.0f, 1920.0f);
      };
      const auto y = [&](double v) {
        return std::clamp(static_cast<float>((v - offset - pad_y) / gain), 0.0f, 1080.0f);
      };
      dets.push_back({x(b.x), y(b.y), x(b.x + b.width), y(b.y + b.height), scores[k],
                      static_cast<float>(ids[k])});
    }
    benchmark::DoNotOptimize(dets.data());
  }
}

// --- ConvNeXt 224 from the file ---------------------------------------------

void BM_ConvNext_Ours(benchmark::State& state) {
  convnext::ConvNextPreprocessor pre(224, 0.875f);
  for (auto _ : state) benchmark::DoNotOptimize(pre.process(benchinputs::jpeg_1080p()));
}
// Shortest edge to 256 with INTER_CUBIC, centre 224 crop, (x / 255 - mean) / std.
void BM_ConvNext_OpenCV(benchmark::State& state) {
  const cv::Scalar mean(0.485 * 255, 0.456 * 255, 0.406 * 255);
  const float stds[3] = {0.229f, 0.224f, 0.225f};
  for (auto _ : state) {
    const cv::Mat im = cv::imread(benchinputs::jpeg_1080p());
    const int edge = 256;
    const double r = static_cast<double>(edge) / std::min(im.rows, im.cols);
    cv::Mat resized;
    cv::resize(im, resized, cv::Size(static_cast<int>(im.cols * r), static_cast<int>(im.rows * r)),
               0, 0, cv::INTER_CUBIC);
    const cv::Rect crop((resized.cols - 224) / 2, (resized.rows - 224) / 2, 224, 224);
    cv::Mat blob = cv::dnn::blobFromImage(resized(crop), 1.0 / 255.0, cv::Size(), mean, true);
    for (int c = 0; c < 3; ++c) {
      cv::Mat plane(224, 224, CV_32F, blob.ptr<float>(0, c));
      plane /= stds[c];
    }
    benchmark::DoNotOptimize(blob.data);
  }
}

// --- NV12 1080p to RGB ------------------------------------------------------

struct Nv12 {
  std::vector<uint8_t> bytes;  // Y plane then interleaved UV plane
  Nv12() : bytes(1920u * 1080u * 3u / 2u) {
    for (size_t i = 0; i < bytes.size(); ++i)
      bytes[i] = static_cast<uint8_t>((i * 7 + i / 1920) & 255);
  }
};
void BM_Nv12ToRgb_Ours(benchmark::State& state) {
  const Nv12 f;
  const uint8_t* uv = f.bytes.data() + 1920u * 1080u;
  const vemoproc::YuvView view{
      f.bytes.data(),           1920, uv, 1920, nullptr, 0, 1920, 1080, vemoproc::YuvLayout::NV12,
      vemoproc::YuvRange::Video};
  for (auto _ : state) benchmark::DoNotOptimize(vemoproc::to_rgb(view));
}
void BM_Nv12ToRgb_OpenCV(benchmark::State& state) {
  Nv12 f;
  const cv::Mat yuv(1080 * 3 / 2, 1920, CV_8UC1, f.bytes.data());
  for (auto _ : state) {
    cv::Mat rgb;
    cv::cvtColor(yuv, rgb, cv::COLOR_YUV2RGB_NV12);
    benchmark::DoNotOptimize(rgb.data);
  }
}

// --- Reference forms: the same bytes as OpenCV ---------------------------------

// The benchmark JPEG's bytes, decoded from memory by both (same codec).
const std::vector<uint8_t>& jpeg_bytes() {
  static const std::vector<uint8_t> bytes = [] {
    std::ifstream in(benchinputs::jpeg_1080p(), std::ios::binary);
    return std::vector<uint8_t>(std::istreambuf_iterator<char>(in), {});
  }();
  return bytes;
}
void BM_ReferenceDecode_Ours(benchmark::State& state) {
  const std::vector<uint8_t>& b = jpeg_bytes();
  for (auto _ : state)
    benchmark::DoNotOptimize(
        vemoproc::decode_image(b.data(), b.size(), vemoproc::Decoder::Reference));
}
void BM_ReferenceDecode_OpenCV(benchmark::State& state) {
  const cv::Mat b(1, static_cast<int>(jpeg_bytes().size()), CV_8UC1,
                  const_cast<uint8_t*>(jpeg_bytes().data()));
  for (auto _ : state) benchmark::DoNotOptimize(cv::imdecode(b, cv::IMREAD_COLOR));
}

// 1920x1080 RGB to 640x360 (a 3x reduction) and to 960x540 (OpenCV's exact halving).
void resize_ours(benchmark::State& state, int w, int h) {
  const yolo::RawImage im = benchinputs::frame_1080p();
  const vemoproc::ImageView view{im.data.data(), 1920, 1080, 0, vemoproc::PixelFormat::RGB};
  for (auto _ : state)
    benchmark::DoNotOptimize(vemoproc::resize(view, w, h, vemoproc::Resample::OpenCVLinear));
}
void resize_opencv(benchmark::State& state, int w, int h) {
  yolo::RawImage im = benchinputs::frame_1080p();
  const cv::Mat mat(1080, 1920, CV_8UC3, im.data.data());
  for (auto _ : state) {
    cv::Mat out;
    cv::resize(mat, out, cv::Size(w, h), 0, 0, cv::INTER_LINEAR);
    benchmark::DoNotOptimize(out.data);
  }
}
void BM_ResizeLinear640_Ours(benchmark::State& state) { resize_ours(state, 640, 360); }
void BM_ResizeLinear640_OpenCV(benchmark::State& state) { resize_opencv(state, 640, 360); }
void BM_ResizeLinear960_Ours(benchmark::State& state) { resize_ours(state, 960, 540); }
void BM_ResizeLinear960_OpenCV(benchmark::State& state) { resize_opencv(state, 960, 540); }

// The Python pipeline's whole detection preprocess of the encoded 1080p JPEG:
// the library's MatchPython form, and the same steps in OpenCV (imdecode,
// resize, copyMakeBorder, blobFromImage with the swap to RGB and / 255).
void BM_PreprocessPython_Ours(benchmark::State& state) {
  const std::vector<yolo::EncodedImage> files = {{jpeg_bytes().data(), jpeg_bytes().size()}};
  for (auto _ : state) {
    benchmark::DoNotOptimize(
        yolo::preprocess_encoded(files, {kBox, kBox}, vemoproc::Pipeline::MatchPython));
  }
}
void BM_PreprocessPython_OpenCV(benchmark::State& state) {
  const cv::Mat b(1, static_cast<int>(jpeg_bytes().size()), CV_8UC1,
                  const_cast<uint8_t*>(jpeg_bytes().data()));
  for (auto _ : state) {
    const cv::Mat im = cv::imdecode(b, cv::IMREAD_COLOR);
    const double r =
        std::min(static_cast<double>(kBox) / im.rows, static_cast<double>(kBox) / im.cols);
    const int w = static_cast<int>(std::nearbyint(im.cols * r));
    const int h = static_cast<int>(std::nearbyint(im.rows * r));
    cv::Mat resized;
    cv::resize(im, resized, cv::Size(w, h), 0, 0, cv::INTER_LINEAR);
    const double dw = (kBox - w) / 2.0;
    const double dh = (kBox - h) / 2.0;
    cv::Mat boxed;
    cv::copyMakeBorder(
        resized, boxed, static_cast<int>(std::nearbyint(dh - 0.1)),
        static_cast<int>(std::nearbyint(dh + 0.1)), static_cast<int>(std::nearbyint(dw - 0.1)),
        static_cast<int>(std::nearbyint(dw + 0.1)), cv::BORDER_CONSTANT, cv::Scalar(114, 114, 114));
    benchmark::DoNotOptimize(
        cv::dnn::blobFromImage(boxed, 1.0 / 255.0, cv::Size(), cv::Scalar(), true, false));
  }
}

// --- A batch of 8 files, 1 and 2 threads ------------------------------------

void batch_ours(benchmark::State& state, int threads) {
  vemoproc::set_num_threads(threads);
  for (auto _ : state) benchmark::DoNotOptimize(yolo::preprocess(batch_files(), {kBox, kBox}));
  vemoproc::set_num_threads(1);
}
void batch_opencv(benchmark::State& state, int threads) {
  cv::setNumThreads(threads);
  for (auto _ : state) benchmark::DoNotOptimize(cv_detection_blob(batch_files()));
  cv::setNumThreads(1);
}
void BM_Batch8_Ours_1Thread(benchmark::State& state) { batch_ours(state, 1); }
void BM_Batch8_Ours_2Threads(benchmark::State& state) { batch_ours(state, 2); }
void BM_Batch8_OpenCV_1Thread(benchmark::State& state) { batch_opencv(state, 1); }
void BM_Batch8_OpenCV_2Threads(benchmark::State& state) { batch_opencv(state, 2); }

}  // namespace

BENCHMARK(BM_Decode_Ours)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Decode_OpenCV)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Letterbox_Ours)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Letterbox_OpenCV_Linear)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Letterbox_OpenCV_Area)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Preprocess_Ours)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Preprocess_OpenCV)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Postprocess_Ours)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_Postprocess_OpenCV)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_ConvNext_Ours)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ConvNext_OpenCV)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Nv12ToRgb_Ours)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Nv12ToRgb_OpenCV)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ReferenceDecode_Ours)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ReferenceDecode_OpenCV)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ResizeLinear640_Ours)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ResizeLinear640_OpenCV)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ResizeLinear960_Ours)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ResizeLinear960_OpenCV)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_PreprocessPython_Ours)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_PreprocessPython_OpenCV)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Batch8_Ours_1Thread)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Batch8_Ours_2Threads)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Batch8_OpenCV_1Thread)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Batch8_OpenCV_2Threads)->Unit(benchmark::kMillisecond);

int main(int argc, char** argv) {
  cv::setNumThreads(1);
  return benchratio::run(argc, argv,
                         {{"BM_Decode_Ours", "BM_Decode_OpenCV", 0.0},
                          {"BM_Letterbox_Ours", "BM_Letterbox_OpenCV_Linear", 0.0},
                          {"BM_Letterbox_Ours", "BM_Letterbox_OpenCV_Area", 0.7},
                          {"BM_Preprocess_Ours", "BM_Preprocess_OpenCV", 1.05},
                          {"BM_Postprocess_Ours", "BM_Postprocess_OpenCV", 1.0},
                          {"BM_ConvNext_Ours", "BM_ConvNext_OpenCV", 0.8},
                          {"BM_Nv12ToRgb_Ours", "BM_Nv12ToRgb_OpenCV", 1.5},
                          {"BM_ReferenceDecode_Ours", "BM_ReferenceDecode_OpenCV", 1.05},
                          {"BM_ResizeLinear640_Ours", "BM_ResizeLinear640_OpenCV", 1.2},
                          {"BM_ResizeLinear960_Ours", "BM_ResizeLinear960_OpenCV", 1.2},
                          {"BM_PreprocessPython_Ours", "BM_PreprocessPython_OpenCV", 1.0},
                          {"BM_Batch8_Ours_2Threads", "BM_Batch8_Ours_1Thread", 0.6},
                          {"BM_Batch8_Ours_1Thread", "BM_Batch8_OpenCV_1Thread", 0.0},
                          {"BM_Batch8_Ours_2Threads", "BM_Batch8_OpenCV_2Threads", 0.0}});
}
