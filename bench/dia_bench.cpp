// Dia helpers on decoder-sized inputs. Each measured operation has a baseline
// next to it in the same run, so figures can be quoted as ratios:
//   delay apply/revert  vs  memcpy of the same block;
//   sampling            vs  memcpy of the logits, the random device opened once
//                           per row (which every draw must do), and a full sort
//                           of one row (what an unfiltered selection would cost);
//   seeded sampling     vs  the unseeded call on the same logits and filters
//                           (same filtering, a seeded engine instead of the
//                           random device and the standard distribution).
#include "ratios.hpp"

#include <algorithm>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "dia.hpp"

namespace {

// Logits with a spread like a decoder's: normal scores, fixed seed.
xt::xarray<float> make_logits(size_t rows, size_t vocab) {
  std::mt19937 gen(1234);
  std::normal_distribution<float> score(0.0f, 3.0f);
  xt::xarray<float> logits = xt::xarray<float>::from_shape({rows, vocab});
  for (float& v : logits) v = score(gen);
  return logits;
}

xt::xarray<float> make_codes(size_t B, size_t T, size_t C) {
  xt::xarray<float> codes = xt::xarray<float>::from_shape({B, T, C});
  int v = 0;
  for (float& x : codes) x = static_cast<float>(v++ % 1024);
  return codes;
}

constexpr int kB = 2;
constexpr int kT = 3072;
constexpr int kC = 9;
const std::vector<int> kDelays{0, 8, 9, 10, 11, 12, 13, 14, 15};

void set_bytes(benchmark::State& state, size_t bytes) {
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(bytes));
}

// --- delay ------------------------------------------------------------------

void BM_DelayBaselineMemcpy(benchmark::State& state) {
  const auto codes = make_codes(kB, kT, kC);
  std::vector<float> out(codes.size());
  for (auto _ : state) {
    std::memcpy(out.data(), codes.data(), codes.size() * sizeof(float));
    benchmark::DoNotOptimize(out.data());
    benchmark::ClobberMemory();
  }
  set_bytes(state, codes.size() * sizeof(float));
}
BENCHMARK(BM_DelayBaselineMemcpy);

// The index pair is built once, outside the timed loop, as callers do.
void BM_ShiftAudioDelay(benchmark::State& state, bool revert) {
  dia::DiaPreprocessor dp;
  const auto codes = make_codes(kB, kT, kC);
  const auto pair = revert ? dp.buildRevertIndices(kB, kT, kC, kDelays)
                           : dp.buildDelayIndices(kB, kT, kC, kDelays);
  for (auto _ : state) {
    auto out = revert ? dp.revertAudioDelay(codes, 1025.0f, pair, kT)
                      : dp.applyAudioDelay(codes, 1025.0f, 1026.0f, pair);
    benchmark::DoNotOptimize(out.data());
  }
  set_bytes(state, codes.size() * sizeof(float));
}
BENCHMARK_CAPTURE(BM_ShiftAudioDelay, apply, false);
BENCHMARK_CAPTURE(BM_ShiftAudioDelay, revert, true);

// --- sampling ---------------------------------------------------------------

// Arguments: rows, vocabulary, top_k, top_p * 100, temperature * 10. The
// seeded form gets a new seed every iteration, as a generation loop would.
void BM_Sample(benchmark::State& state, bool seeded) {
  dia::DiaPreprocessor dp;
  const auto logits =
      make_logits(static_cast<size_t>(state.range(0)), static_cast<size_t>(state.range(1)));
  const int top_k = static_cast<int>(state.range(2));
  const float top_p = static_cast<float>(state.range(3)) / 100.0f;
  const float temperature = static_cast<float>(state.range(4)) / 10.0f;
  uint64_t seed = 0;
  for (auto _ : state) {
    auto codes = seeded ? dp.sampleNextToken(logits, temperature, top_p, top_k, seed++)
                        : dp.sampleNextToken(logits, temperature, top_p, top_k);
    benchmark::DoNotOptimize(codes.data());
  }
  set_bytes(state, logits.size() * sizeof(float));
}
void BM_SampleNextToken(benchmark::State& state) { BM_Sample(state, false); }
void BM_SampleNextTokenSeeded(benchmark::State& state) { BM_Sample(state, true); }
BENCHMARK(BM_SampleNextToken)
    ->ArgNames({"rows", "vocab", "top_k", "top_p%", "temp*10"})
    ->Args({9, 1028, 35, 95, 13})
    ->Args({1, 151936, 50, 90, 10})
    ->Args({1, 151936, 0, 90, 10});
BENCHMARK(BM_SampleNextTokenSeeded)
    ->ArgNames({"rows", "vocab", "top_k", "top_p%", "temp*10"})
    ->Args({9, 1028, 35, 95, 13})
    ->Args({1, 151936, 50, 90, 10});

// Arguments: rows, vocabulary.
void BM_SampleBaselineMemcpy(benchmark::State& state) {
  const auto logits =
      make_logits(static_cast<size_t>(state.range(0)), static_cast<size_t>(state.range(1)));
  std::vector<float> out(logits.size());
  for (auto _ : state) {
    std::memcpy(out.data(), logits.data(), logits.size() * sizeof(float));
    benchmark::DoNotOptimize(out.data());
    benchmark::ClobberMemory();
  }
  set_bytes(state, logits.size() * sizeof(float));
}
BENCHMARK(BM_SampleBaselineMemcpy)->ArgNames({"rows", "vocab"})->Args({9, 1028})->Args({1, 151936});

// Argument: rows. The device opened and read once per row, as each draw does.
void BM_SampleBaselineRandomDevice(benchmark::State& state) {
  for (auto _ : state) {
    for (int64_t r = 0; r < state.range(0); ++r) {
      std::random_device device("/dev/urandom");
      benchmark::DoNotOptimize(device());
    }
  }
}
BENCHMARK(BM_SampleBaselineRandomDevice)->ArgName("rows")->Arg(9)->Arg(1);

// Argument: vocabulary. One full sort of one row's scores.
void BM_SampleBaselineFullSort(benchmark::State& state) {
  const auto logits = make_logits(1, static_cast<size_t>(state.range(0)));
  std::vector<float> row(logits.begin(), logits.end());
  for (auto _ : state) {
    std::copy(logits.begin(), logits.end(), row.begin());
    std::sort(row.begin(), row.end());
    benchmark::DoNotOptimize(row.data());
  }
}
BENCHMARK(BM_SampleBaselineFullSort)->ArgName("vocab")->Arg(151936);

// The seeded-versus-unseeded pairs: a Dia decoder step and one wide row.
const std::string kDecoderStep = "rows:9/vocab:1028/top_k:35/top_p%:95/temp*10:13";
const std::string kWideRow = "rows:1/vocab:151936/top_k:50/top_p%:90/temp*10:10";

}  // namespace

int main(int argc, char** argv) {
  return benchratio::run(
      argc, argv,
      {{"BM_ShiftAudioDelay/apply", "BM_DelayBaselineMemcpy", 3.0},
       {"BM_ShiftAudioDelay/revert", "BM_DelayBaselineMemcpy", 3.0},
       {"BM_SampleNextToken/rows:1/vocab:151936/top_k:50/top_p%:90/temp*10:10",
        "BM_SampleBaselineFullSort/vocab:151936", 0},
       {"BM_SampleNextTokenSeeded/" + kDecoderStep, "BM_SampleNextToken/" + kDecoderStep, 1.0},
       {"BM_SampleNextTokenSeeded/" + kWideRow, "BM_SampleNextToken/" + kWideRow, 1.0}});
}
