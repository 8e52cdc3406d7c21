// Streaming cost per generation step: 4096 single-token steps of English text
// with a line end every 80 bytes, through a byte-level tokenizer, into a stream
// that discards its bytes. Baselines in the same run: decoding the same caches
// with the same tokenizer (the work every streamer step has to do anyway), and
// a memcpy of the text.
#include "ratios.hpp"

#include <cstring>
#include <ostream>
#include <streambuf>
#include <string>
#include <vector>

#include "streamer.hpp"

namespace {

constexpr int kSteps = 4096;
constexpr size_t kLineBytes = 80;  // line feed included

// Lines of exactly 79 bytes of English words and punctuation, then '\n'.
std::string english_text() {
  static const char* const words[] = {"the",  "model", "writes", "one",   "token,", "at",
                                      "a",    "time.", "Each",   "step",  "adds",   "text;",
                                      "does", "it",    "end?",   "Often", "not:",   "more"};
  std::string text;
  std::string line;
  size_t w = 0;
  while (text.size() < kSteps) {
    const std::string word = words[w++ % (sizeof(words) / sizeof(words[0]))];
    if (line.size() + 1 + word.size() > kLineBytes - 1) {
      line.resize(kLineBytes - 1, ' ');
      text += line + '\n';
      line.clear();
    }
    line += (line.empty() ? "" : " ") + word;
  }
  text.resize(kSteps);
  return text;
}

std::vector<int> byte_ids(const std::string& text) {
  std::vector<int> ids;
  for (const char c : text) ids.push_back(static_cast<unsigned char>(c));
  return ids;
}

class ByteTokenizer : public Tokenizer {
 public:
  std::string decode(const std::vector<int>& tokens) override {
    std::string text;
    text.reserve(tokens.size());
    for (const int id : tokens) text += static_cast<char>(static_cast<unsigned char>(id));
    return text;
  }
};

// Takes every byte and every flush without keeping anything.
class DiscardBuf : public std::streambuf {
 protected:
  int_type overflow(int_type c) override { return traits_type::not_eof(c); }
  std::streamsize xsputn(const char*, std::streamsize n) override { return n; }
  int sync() override { return 0; }
};

void add_step_counters(benchmark::State& state) {
  state.SetItemsProcessed(state.iterations() * kSteps);
  state.counters["per_step"] = benchmark::Counter(
      kSteps, benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}

void BM_TextStreamer(benchmark::State& state) {
  const std::vector<int> ids = byte_ids(english_text());
  ByteTokenizer tokenizer;
  DiscardBuf sink;
  std::ostream out(&sink);
  std::vector<int> step(1);
  for (auto _ : state) {
    TextStreamer streamer(tokenizer, out, false);
    for (const int id : ids) {
      step[0] = id;
      streamer.put(step);
    }
    streamer.end();
  }
  add_step_counters(state);
}
BENCHMARK(BM_TextStreamer);

// The same caches decoded once per step, restarting after each line feed.
void BM_DecodeSameCaches(benchmark::State& state) {
  const std::vector<int> ids = byte_ids(english_text());
  ByteTokenizer tokenizer;
  std::vector<int> cache;
  for (auto _ : state) {
    cache.clear();
    for (const int id : ids) {
      cache.push_back(id);
      const std::string text = tokenizer.decode(cache);
      benchmark::DoNotOptimize(text.data());
      if (id == '\n') cache.clear();
    }
  }
  add_step_counters(state);
}
BENCHMARK(BM_DecodeSameCaches);

void BM_MemcpyText(benchmark::State& state) {
  const std::string text = english_text();
  std::string copy(text.size(), '\0');
  for (auto _ : state) {
    std::memcpy(&copy[0], text.data(), text.size());
    benchmark::ClobberMemory();
  }
  add_step_counters(state);
}
BENCHMARK(BM_MemcpyText);

}  // namespace

int main(int argc, char** argv) {
  return benchratio::run(argc, argv, {{"BM_TextStreamer", "BM_DecodeSameCaches", 0}});
}
