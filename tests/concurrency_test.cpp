// Every family called from 8 threads at once on shared read-only arguments.
// Run under ThreadSanitizer in CI; each case also checks that all threads got
// the same result. Each case runs in its own process, so the streamer case
// constructs the shared hold-back set under concurrent first use.
#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <sstream>
#include <thread>

#include <xtensor/xmath.hpp>

#include "convnext.hpp"
#include "dia.hpp"
#include "qwen2vl.hpp"
#include "streamer.hpp"
#include "test_images.hpp"
#include "threads.hpp"
#include "yolo.hpp"
#include "zentil.hpp"

namespace {

constexpr int kThreads = 8;

// Runs f(thread index) on kThreads threads released at the same moment and
// returns their results in thread order.
template <class R>
std::vector<R> on_threads(const std::function<R(int)>& f) {
  std::vector<R> results(kThreads);
  std::atomic<int> ready{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      ++ready;
      while (ready.load() < kThreads) std::this_thread::yield();
      results[static_cast<size_t>(t)] = f(t);
    });
  }
  for (auto& th : threads) th.join();
  return results;
}

template <class R>
void expect_all_equal(const std::vector<R>& results) {
  for (const R& r : results) EXPECT_EQ(r, results.front());
}

const std::string& shared_image() {
  static const std::string path = testimg::write(
      testimg::make(96, 64, 3, [](int x, int y, int c) { return uint8_t(3 * x + 5 * y + 70 * c); }),
      testimg::Format::Png, "shared.png");
  return path;
}

}  // namespace

TEST(Concurrency, Detection) {
  const std::vector<std::string> paths = {shared_image(), shared_image()};
  const yolo::RawImage image(shared_image());
  const xt::xtensor<float, 2> head = {
      {40, 30, 20, 20, 0.9f, 0.1f}, {42, 31, 20, 20, 0.8f, 0.1f}, {10, 10, 8, 8, 0.1f, 0.7f}};
  const std::vector<std::string> names = {"a", "b"};
  expect_all_equal(on_threads<std::vector<float>>([&](int) {
    const auto batch = yolo::preprocess(paths, {64, 64});
    const auto boxed = yolo::letterbox(image, {48, 48}, 114);
    const auto dets = yolo::postprocess(head, {64, 64}, {64, 96}, 0.25f, 0.45f, 10);
    yolo::RawImage canvas = image;
    yolo::draw_detections(canvas, dets, names, true, 2);
    std::vector<float> summary(batch.begin(), batch.begin() + 100);
    for (const auto& d : dets) summary.insert(summary.end(), {d.x1, d.y1, d.x2, d.y2, d.score});
    summary.push_back(static_cast<float>(boxed.data[1000] + canvas.data[3000]));
    return summary;
  }));
}

TEST(Concurrency, VisionInputs) {
  convnext::ConvNextPreprocessor convnext(32, 0.875f);
  zentil::ZentilPreprocessor zentil(24);
  qwen2vl::Qwen2VLImageProcessor qwen(true, 56 * 56, 28 * 28 * 16, true, 1.0f / 255.0f, true,
                                      qwen2vl::kDefaultImageMean, qwen2vl::kDefaultImageStd, 14, 2,
                                      2);
  const auto decoded = qwen.load_image(shared_image());
  const std::vector<xt::xtensor<uint8_t, 3>> batch = {decoded, decoded};
  expect_all_equal(on_threads<std::vector<float>>([&](int) {
    const auto a = convnext.process(shared_image());
    const auto b = zentil.process(shared_image());
    const auto c = qwen.preprocess(shared_image());
    const auto d = qwen.preprocess(batch);
    const auto size = qwen2vl::smart_resize(1000, 700, 28, 3136, 1003520);
    std::vector<float> summary(a.begin(), a.begin() + 50);
    summary.insert(summary.end(), b.begin(), b.begin() + 50);
    summary.insert(summary.end(), c.patches.begin(), c.patches.begin() + 50);
    summary.push_back(static_cast<float>(d.patches.shape(0) + size.first + size.second));
    return summary;
  }));
}

// With the opt-in pool on, eight callers share its four threads: every large
// resize is split and the batch images spread, and all get the one-thread result.
TEST(Concurrency, CallersShareTheOptInPool) {
  const auto pixels = testimg::make(
      900, 700, 3, [](int x, int y, int c) { return uint8_t((x * 7) ^ (y * 3) ^ (c * 50)); });
  const vemoproc::ImageView view{pixels.data.data(), 900, 700, 0, vemoproc::PixelFormat::RGB};
  convnext::ConvNextPreprocessor convnext(224, 0.875f);
  const std::vector<std::string> paths = {shared_image(), shared_image(), shared_image()};
  const auto work = [&] {
    const auto boxed = yolo::letterbox(yolo::RawImage(view), {640, 640}, 114);
    const auto crop = convnext.process(view);
    const auto batch = yolo::preprocess(paths, {64, 64});
    std::vector<float> summary(boxed.data.begin(), boxed.data.end());
    summary.insert(summary.end(), crop.begin(), crop.end());
    summary.insert(summary.end(), batch.begin(), batch.end());
    return summary;
  };
  const std::vector<float> one_thread = work();
  vemoproc::set_num_threads(4);
  const auto results = on_threads<std::vector<float>>([&](int) { return work(); });
  vemoproc::set_num_threads(1);
  for (const auto& r : results) EXPECT_TRUE(r == one_thread);
}

TEST(Concurrency, SpeechHelpers) {
  dia::DiaPreprocessor dia;
  const std::vector<int> delays = {0, 1, 2};
  const auto apply_pair = dia.buildDelayIndices(2, 16, 3, delays);
  const auto revert_pair = dia.buildRevertIndices(2, 16, 3, delays);
  const xt::xarray<float> audio = xt::reshape_view(xt::arange<float>(2 * 16 * 3), {2, 16, 3});
  const xt::xarray<int> prompt = {{5, 6, 7}, {8, 9, 10}};
  xt::xarray<float> logits = xt::zeros<float>({3, 40});
  for (size_t r = 0; r < 3; ++r) logits(r, 7 * r + 1) = 9.0f;
  const xt::xarray<bool> mask = {{true, true, false, false}};
  // Spread scores, so that the seeded draw has many candidates per row.
  const xt::xarray<float> wave = xt::reshape_view(xt::sin(xt::arange<float>(120)), {3, 40});
  const xt::xarray<float> slope = xt::reshape_view(xt::arange<float>(120) * 0.1f, {3, 40});
  expect_all_equal(on_threads<std::vector<int>>([&](int) {
    const auto text = dia.prepareTextInput("[S1] hello [S2] hi", 0, 32);
    const auto delayed = dia.applyAudioDelay(audio, -1.0f, -2.0f, apply_pair);
    const auto reverted = dia.revertAudioDelay(delayed, -1.0f, revert_pair, 16);
    const auto built = dia.buildDelayIndices(2, 16, 3, delays);
    const auto prepared = dia.prepareAudioPrompt(&prompt, 1026, 1025, 3, delays);
    const auto greedy = dia.sampleNextToken(logits, 0.0f, 0.9f, 5);
    const auto top1 = dia.sampleNextToken(logits, 1.3f, 0.95f, 1);
    const auto attn = dia.createAttnMask(mask, mask, true);
    xt::xarray<float> guided = dia.applyCfg(wave, slope, 0.5f);
    dia.maskAudioLogits(guided, 30);
    // Every thread draws with the same seed: every thread gets the same codes.
    const auto seeded = dia.sampleNextToken(guided, dia::SamplingParams{1.0f, 0.9f, 0, 0.01f}, 7);
    std::vector<int> summary(text.begin(), text.end());
    summary.insert(summary.end(), seeded.begin(), seeded.end());
    summary.insert(summary.end(), reverted.begin(), reverted.end());
    summary.insert(summary.end(), std::get<1>(built).begin(), std::get<1>(built).end());
    summary.insert(summary.end(), prepared.first.begin(), prepared.first.end());
    summary.insert(summary.end(), greedy.begin(), greedy.end());
    summary.insert(summary.end(), top1.begin(), top1.end());
    summary.insert(summary.end(), attn.begin(), attn.end());
    return summary;
  }));
}

namespace {

// Stateless, so one instance can serve every thread.
class ByteTokenizer : public Tokenizer {
 public:
  std::string decode(const std::vector<int>& tokens) override {
    return std::string(tokens.begin(), tokens.end());
  }
};

}  // namespace

TEST(Concurrency, StreamersShareOneTokenizerAndBuildTheHoldBackSetOnce) {
  ByteTokenizer tokenizer;
  const std::string text = "Hello, world. Fine; thanks: and you?\nYes.";
  const auto written = on_threads<std::string>([&](int) {
    std::ostringstream out;
    TextStreamer streamer(tokenizer, out, false, true);
    for (char ch : text) streamer.put({static_cast<unsigned char>(ch)});
    streamer.end();
    return out.str();
  });
  for (const auto& w : written) EXPECT_EQ(w, text + "\n");
}
