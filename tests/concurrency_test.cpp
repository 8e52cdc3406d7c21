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

// Runs f() on 8 threads released at the same moment; every result must equal
// `want` (the first thread's result when `want` is empty).
template <class R>
void expect_same_on_threads(const std::function<R()>& f, R want = {}) {
  std::vector<R> results(8);
  std::atomic<int> ready{0};
  std::vector<std::thread> threads;
  for (size_t t = 0; t < results.size(); ++t)
    threads.emplace_back([&, t] {
      for (++ready; ready.load() < 8;) std::this_thread::yield();
      results[t] = f();
    });
  for (auto& th : threads) th.join();
  for (const R& r : results) EXPECT_TRUE(r == (want == R{} ? results[0] : want));
}

template <class S, class E>
void add(S& summary, const E& e) {
  summary.insert(summary.end(), e.begin(), e.end());
}

// Stateless, so one instance can serve every thread.
class ByteTokenizer : public Tokenizer {
 public:
  std::string decode(const std::vector<int>& tokens) override {
    return std::string(tokens.begin(), tokens.end());
  }
};

}  // namespace

// Every family, first at the default setting, then eight callers sharing the
// opt-in pool's four threads (large resizes split, batch images spread, nested
// loops), which must give the one-thread result.
TEST(Concurrency, EveryFamilyAndTheOptInPool) {
  const auto pixels = testimg::make(
      900, 700, 3, [](int x, int y, int c) { return uint8_t((x * 7) ^ (y * 3) ^ (c * 50)); });
  const vemoproc::ImageView view{pixels.data.data(), 900, 700, 0, vemoproc::PixelFormat::RGB};
  const std::string path =
      testimg::write(testimg::solid(96, 64, 9, 99, 199), testimg::Format::Png, "s.png");
  const xt::xtensor<float, 2> head = {
      {40, 30, 20, 20, 0.9f, 0.1f}, {42, 31, 20, 20, 0.8f, 0.1f}, {10, 10, 8, 8, 0.1f, 0.7f}};
  convnext::ConvNextPreprocessor convnext(224, 0.875f);
  zentil::ZentilPreprocessor zentil(24);
  qwen2vl::Qwen2VLImageProcessor qwen(true, 56 * 56, 28 * 28 * 16, true, 1.0f / 255.0f, true,
                                      {0.5f}, {0.5f}, 14, 2, 2);
  dia::DiaPreprocessor dia;
  const std::vector<int> delays = {0, 1, 2};
  const auto apply_pair = dia.buildDelayIndices(2, 16, 3, delays);
  const auto revert_pair = dia.buildRevertIndices(2, 16, 3, delays);
  const xt::xarray<float> audio = xt::reshape_view(xt::arange<float>(2 * 16 * 3), {2, 16, 3});
  const xt::xarray<bool> mask = {{true, true, false, false}};
  // Spread scores, so that the seeded draw has many candidates per row.
  const xt::xarray<float> wave = xt::reshape_view(xt::sin(xt::arange<float>(120)), {3, 40});
  const std::function<std::vector<float>()> work = [&] {
    std::vector<float> summary;
    yolo::RawImage canvas = yolo::letterbox(yolo::RawImage(view), {640, 640}, 114);
    const auto dets = yolo::postprocess(head, {64, 64}, {64, 96}, 0.25f, 0.45f, 10);
    yolo::draw_detections(canvas, dets, {"a", "b"}, true, 2);
    add(summary, canvas.data);
    add(summary, yolo::preprocess({path, path, path}, {64, 64}));
    add(summary, convnext.process(view));
    add(summary, zentil.process(path));
    add(summary, qwen.preprocess(path).patches);
    add(summary, qwen.preprocess({view, view}).patches);
    add(summary, dia.prepareTextInput("[S1] hello [S2] hi", 0, 32));
    const auto delayed = dia.applyAudioDelay(audio, -1.0f, -2.0f, apply_pair);
    add(summary, dia.revertAudioDelay(delayed, -1.0f, revert_pair, 16));
    add(summary, dia.createAttnMask(mask, mask, true));
    add(summary, dia.sampleNextToken(wave, 0.0f, 0.9f, 5));
    xt::xarray<float> guided = dia.applyCfg(wave, wave * 0.1f, 0.5f);
    dia.maskAudioLogits(guided, 30);
    // Every thread draws with the same seed: every thread gets the same codes.
    add(summary, dia.sampleNextToken(guided, dia::SamplingParams{1.0f, 0.9f, 0, 0.01f}, 7));
    return summary;
  };
  expect_same_on_threads(work);
  const std::vector<float> one_thread = work();
  vemoproc::set_num_threads(4);
  expect_same_on_threads(work, one_thread);
  vemoproc::set_num_threads(1);
}

TEST(Concurrency, StreamersShareOneTokenizerAndBuildTheHoldBackSetOnce) {
  ByteTokenizer tokenizer;
  const std::string text = "Hello, world. Fine; thanks: and you?\nYes.";
  expect_same_on_threads<std::string>(
      [&] {
        std::ostringstream out;
        TextStreamer streamer(tokenizer, out, false, true);
        for (char ch : text) streamer.put({static_cast<unsigned char>(ch)});
        streamer.end();
        return out.str();
      },
      text + "\n");
}
