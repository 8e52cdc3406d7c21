#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <stdexcept>

#include <xtensor/xbuilder.hpp>
#include <xtensor/xio.hpp>

#include "dia.hpp"

namespace {

using Pair = std::tuple<xt::xarray<int>, xt::xarray<int>>;
using Codes = std::vector<int>;
constexpr float kInf = std::numeric_limits<float>::infinity();
const float ln2 = std::log(2.0f);
dia::DiaPreprocessor dp;

Codes drawn(const xt::xarray<int>& codes) { return {codes.begin(), codes.end()}; }

xt::xarray<float> repeat_rows(const std::vector<float>& row, size_t rows) {
  xt::xarray<float> out = xt::xarray<float>::from_shape({rows, row.size()});
  for (size_t r = 0; r < rows; ++r) std::copy(row.begin(), row.end(), out.begin() + r * row.size());
  return out;
}

// The message of what `call` throws.
template <class Call>
std::string error_of(Call call) {
  try {
    call();
  } catch (const std::runtime_error& e) {
    return e.what();
  }
  return "no error";
}

}  // namespace

TEST(DiaText, FoldsTagsThenPadsOrCuts) {
  // (text, tokens for a max_len of the tokens' length, pad 7)
  const std::pair<std::string, std::string> cases[] = {
      {"[S1] Hello [S2] Hi", "\1 Hello \2 Hi\7\7"},
      {"", "\7\7\7\7"},
      {"", ""},
      {"[S2]ab", "\2ab"},  // exact length: nothing appended
      {"[S1][S1]abc", "\1\1ab"},
      {"[S1[s2]", "[S1[s2]"},  // cut after folding; only exact tags fold
  };
  for (const auto& [text, tokens] : cases) {
    const auto t = dp.prepareTextInput(text, 7, static_cast<int>(tokens.size()));
    EXPECT_EQ(t.shape(), (std::vector<size_t>{1, tokens.size()})) << text;
    EXPECT_EQ(std::string(t.begin(), t.end()), tokens) << text;
  }
  EXPECT_THROW(dp.prepareTextInput("abc", 0, -1), std::length_error);
}

TEST(DiaDelay, IndexPairs) {
  const auto pair = dp.buildDelayIndices(1, 4, 2, {0, 2});
  EXPECT_EQ(std::get<0>(pair), (xt::xarray<int>{{{0, -2}, {1, -1}, {2, 0}, {3, 1}}}));
  EXPECT_EQ(std::get<1>(pair), (xt::xarray<int>{0, 1, 2, 1, 4, 1, 6, 3}));
  const auto revert = dp.buildRevertIndices(1, 4, 2, {0, 2});
  EXPECT_EQ(std::get<0>(revert), (xt::xarray<int>{{{0, 2}, {1, 3}, {2, 3}, {3, 3}}}));
  EXPECT_EQ(std::get<1>(revert), (xt::xarray<int>{0, 5, 2, 7, 4, 7, 6, 7}));
  // Extreme delays saturate the time index instead of overflowing.
  const auto extreme = dp.buildDelayIndices(1, 2, 2, {INT32_MIN, 0});
  EXPECT_EQ(std::get<0>(extreme)(0, 0, 0), INT32_MAX);
}

// Every element against the per-element definition of both shifts: apply
// takes frame t - d (BOS -1 before 0, pad -2 at T or later), revert takes
// frame min(t + d, T - 1) (pad -2 at `bound` or later). Shapes cover zero,
// negative and over-long delays, batches, and blocks long enough for the
// vector loop with a tail.
TEST(DiaDelay, BlocksMatchThePerElementShift) {
  struct Case {
    int B, T, C;
    std::vector<int> delays;
    int bound;
  };
  const Case cases[] = {
      {1, 4, 2, {0, 0}, 4}, {1, 4, 2, {4, -3}, 4},   {2, 3, 1, {1}, 3},          {2, 3, 1, {-1}, 3},
      {1, 4, 2, {0, 2}, 3}, {1, 4, 3, {0, 1, 3}, 4}, {2, 21, 3, {0, 5, 30}, 19},
  };
  for (const Case& k : cases) {
    xt::xarray<float> audio = xt::arange<float>(static_cast<float>(k.B * k.T * k.C));
    audio.reshape({k.B, k.T, k.C});
    std::vector<int> late = k.delays;  // the revert takes non-negative delays only
    for (int& d : late) d = std::max(d, 0);
    const auto applied =
        dp.applyAudioDelay(audio, -2, -1, dp.buildDelayIndices(k.B, k.T, k.C, k.delays));
    const auto reverted =
        dp.revertAudioDelay(audio, -2, dp.buildRevertIndices(k.B, k.T, k.C, late), k.bound);
    for (int b = 0; b < k.B; ++b) {
      for (int t = 0; t < k.T; ++t) {
        for (int c = 0; c < k.C; ++c) {
          const int from = t - k.delays[c], to = std::min(t + late[c], k.T - 1);
          const float want = from < 0 ? -1.0f : from >= k.T ? -2.0f : audio(b, from, c);
          EXPECT_EQ(applied(b, t, c), want) << k.T << " b" << b << " t" << t << " c" << c;
          EXPECT_EQ(reverted(b, t, c), to >= k.bound ? -2.0f : audio(b, to, c)) << t << " c" << c;
        }
      }
    }
  }
}

TEST(DiaDelay, RejectsPairsAndArgumentsOutsideTheContract) {
  using E = std::runtime_error;
  const xt::xarray<float> audio = xt::zeros<float>({1, 3, 2}),
                          long_audio = xt::zeros<float>({1, 20, 2});
  // A pair with one offset replaced; position 17 lies past the first vector groups.
  const auto forged = [](int T, size_t at, int offset) {
    Pair p = dp.buildDelayIndices(1, T, 2, {0, 1});
    std::get<1>(p)(at) = offset;
    return p;
  };
  EXPECT_THROW(dp.applyAudioDelay(audio, 0, 0, dp.buildDelayIndices(1, 4, 2, {0, 1})), E);
  EXPECT_THROW(dp.revertAudioDelay(audio, 0, dp.buildRevertIndices(1, 4, 2, {0, 1}), 3), E);
  EXPECT_THROW(dp.applyAudioDelay(audio, 0, 0, forged(3, 5, 6)), E);
  EXPECT_THROW(dp.revertAudioDelay(audio, 0, forged(3, 5, -1), 3), E);
  EXPECT_THROW(dp.applyAudioDelay(xt::zeros<float>({6}), 0, 0, forged(3, 0, 0)), E);
  EXPECT_THROW(dp.applyAudioDelay(long_audio, 0, 0, forged(20, 17, 40)), E);
  EXPECT_THROW(dp.applyAudioDelay(long_audio, 0, 0, forged(20, 17, INT32_MIN)), E);
  EXPECT_THROW(dp.buildDelayIndices(1, 4, 2, {0, 1, 2}), E);
  EXPECT_THROW(dp.buildRevertIndices(-1, 4, 2, {0, 1}), E);
  EXPECT_THROW(dp.buildDelayIndices(1 << 16, 1 << 16, 1, {0}), E);
  const xt::xarray<int> narrow = xt::zeros<int>({2, 1});
  EXPECT_THROW(dp.prepareAudioPrompt(&narrow, 9, 8, 2, {0, 1}), E);
  EXPECT_THROW(dp.prepareAudioPrompt(nullptr, 9, 8, 2, {}), E);
  EXPECT_THROW(dp.prepareAudioPrompt(nullptr, 9, 8, 2, {0, 1, 2}), E);
  EXPECT_THROW(dp.prepareAudioPrompt(nullptr, 9, 8, 2, {-1, -2}), E);
  for (const std::vector<int>& negative : {std::vector<int>{0, -1}, std::vector<int>{-2, 0}}) {
    EXPECT_THAT(error_of([&] { dp.buildRevertIndices(1, 4, 2, negative); }),
                testing::HasSubstr("delay_pattern"));
  }
}

TEST(DiaPrompt, BuildsDelayedInitialBlock) {
  const xt::xarray<int> prompt = {{5, 6}, {7, 8}}, empty = xt::zeros<int>({0, 2});
  const std::tuple<const xt::xarray<int>*, std::vector<int>, xt::xarray<int>, int> cases[] = {
      {nullptr, {0, 1}, {{99, 99}, {-1, 99}}, 1},
      {&prompt, {0, 2}, {{99, 99}, {5, 99}, {7, 99}, {-1, 6}, {-1, 8}}, 3},
      {&prompt, {0, 0}, {{99, 99}, {5, 6}, {7, 8}}, 3},
      {&empty, {1, 0}, {{99, 99}, {99, -1}}, 1},
  };
  for (const auto& [audio_prompt, delays, codes, prefill] : cases) {
    EXPECT_EQ(dp.prepareAudioPrompt(audio_prompt, 99, 98, 2, delays),
              std::make_pair(codes, prefill));
  }
  EXPECT_EQ(prompt, (xt::xarray<int>{{5, 6}, {7, 8}}));
  // Codes beyond float's exact range saturate at the int limits.
  EXPECT_EQ(dp.prepareAudioPrompt(nullptr, INT32_MAX, 0, 1, {0}).first(0, 0), INT32_MAX);
}

// --- sampling ---------------------------------------------------------------

TEST(DiaSample, GreedyIgnoresFiltersAndPrefersLowestIndex) {
  const xt::xarray<float> logits = {{1, 3, 3, 2}, {-kInf, -5, -6, -7}, {0, 0, 0, 0}};
  const xt::xarray<int> expected = {1, 1, 0};
  EXPECT_EQ(dp.sampleNextToken(logits, 0.0f, 0.1f, 1), expected);
  EXPECT_EQ(dp.sampleNextToken(logits, -0.0f, 2.0f, 0), expected);
  EXPECT_EQ(dp.sampleNextToken(logits, {0.0f, 1.0f, 0, 0.9f}, 12), expected);
  EXPECT_EQ(dp.sampleNextToken(xt::zeros<float>({0, 5}), 1.0f, 0.9f, 5, 1).size(), 0u);
  EXPECT_EQ(dp.sampleNextToken(xt::zeros<float>({0, 5}), 1.0f, 0.9f, 5).size(), 0u);
}

// Expected codes worked out once outside the library, by a short transcription
// of the documented draw: splitmix64(seed + r) seeds a reference mt19937_64
// (checked against the standard's 10000th output), u = top 24 bits * 2^-24,
// first running float sum above u * total over the filtered softmax. Every
// row's u lies at least 1e-5 away from a cumulative boundary. Row r of a
// batch draws with seed + r. Filters that leave a single token give it on
// every row, also without a seed.
TEST(DiaSeededSample, PinnedCodes) {
  const std::vector<float> four{1.0f, 2.0f, 0.5f, 3.0f};  // p 0.085 0.232 0.052 0.631
  const std::vector<float> p532{std::log(0.2f), std::log(0.5f), std::log(0.3f)};
  const std::vector<float> six{-5, 0, -ln2, -2 * ln2, -3, -4};
  const std::vector<float> exact{-2 * ln2, 0, -kInf, -ln2, -2 * ln2};
  std::vector<float> six_wide(64, -9.0f), wide(5000, -1.0f), flat(4096, 0.0f);
  std::copy(six.begin(), six.end(), six_wide.begin());
  wide[4321] = 2.0f;
  const Codes all1(24, 1);
  const std::tuple<std::vector<float>, dia::SamplingParams, uint64_t, Codes> cases[] = {
      {wide, {1.3f, 1.0f, 1}, 0, Codes(24, 4321)},  // top_k 1 keeps the best
      {{3, 1, 2}, {-1.0f, 1.0f, 1}, 1, all1},       // the argmin for a negative temperature
      {{0, 1, 0.5f}, {0.7f, 0.0f, 0}, 2, all1},     // top_p <= 0 keeps the most probable
      {p532, {1.0f, 0.7f, 0}, 3, all1},             // 0.5 + 0.3 crosses 0.7: 0.3 is dropped
      {six, {1.0f, 0.85f, 3}, 4, all1},             // top-k first: 4/7 + 2/7 crosses 0.85
      {p532, {1.0f, 1.0f, 0, 1.0f}, 5, all1},       // min_p 1 keeps the maximum only
      {four, {1.0f}, 2026, {3, 3, 3, 3, 0, 1, 0, 1}},
      {four, {1.0f}, UINT64_MAX - 4, {3, 1, 0, 1, 3, 3, 3, 1}},  // seed + r wraps past 2^64
      // min_p 0.2 drops tokens 0 and 2; 1 and 3 renormalise to 0.269, 0.731.
      {four, {1.0f, 1.0f, 0, 0.2f}, 2026, {3, 3, 3, 3, 1, 3, 1, 3}},
      // Top-k 3 through the selection and through the heap: 4/7, 2/7, 1/7.
      {six, {1.0f, 1.0f, 3}, 40, {1, 1, 1, 3, 2, 3, 1, 1, 1, 2, 1, 1, 2, 1, 2, 1}},
      {six_wide, {1.0f, 1.0f, 3}, 40, {1, 1, 1, 3, 2, 3, 1, 1, 1, 2, 1, 1, 2, 1, 2, 1}},
      // 0.5, 0.25, 0.125, 0.125: the sum reaches 0.75 exactly, which keeps token 3.
      {exact, {1.0f, 0.75f}, 50, {1, 1, 1, 1, 3, 1, 3, 1, 1, 1, 3, 1, 3, 3, 1, 1}},
      // A top_k beyond the row filters nothing.
      {{0, -kInf, 0}, {1.0f, 1.0f, 10}, 60, {2, 0, 2, 2, 2, 0, 2, 0, 0, 0, 0, 0, 0, 0, 2, 2}},
      // 4096 equal codes (p = 2^-12): these seeds give u = k * 2^-12 exactly, so
      // the running sum meets the threshold at code k - 1 and first exceeds it at k.
      {flat, {1.0f}, 12899, {1551}},
      {flat, {1.0f}, 16501, {1975}},
      {flat, {1.0f}, 17378, {2941}},
  };
  for (const auto& [row, p, seed, codes] : cases) {
    const auto rows = repeat_rows(row, codes.size());
    EXPECT_EQ(drawn(dp.sampleNextToken(rows, p, seed)), codes) << seed;
    if (p.min_p == 0) {
      EXPECT_EQ(drawn(dp.sampleNextToken(rows, p.temperature, p.top_p, p.top_k, seed)), codes);
    }
    if (p.min_p == 0 && codes.size() > 1 && codes == Codes(codes.size(), codes[0])) {
      EXPECT_EQ(drawn(dp.sampleNextToken(rows, p.temperature, p.top_p, p.top_k)), codes) << seed;
    }
  }
}

TEST(DiaSample, NucleusLongerThanOneSelectionChunk) {
  // p_i proportional to exp(-0.01 i): the sum first exceeds 0.9 at i = 230
  // (exp(-2.31) < 0.1 + 0.9 exp(-10) < exp(-2.30)), so tokens 0 .. 229 stay;
  // with these seeds some draw lands at 200 or above.
  std::vector<float> row(1000);
  for (size_t i = 0; i < row.size(); ++i) row[i] = -0.01f * static_cast<float>(i);
  const auto codes = dp.sampleNextToken(repeat_rows(row, 1000), 1.0f, 0.9f, -1, 3);
  EXPECT_LE(xt::amax(codes)(), 229);
  EXPECT_GE(xt::amax(codes)(), 200);
}

TEST(DiaSample, RejectsRowsWithoutADistribution) {
  const xt::xarray<float> two = {{0, 1}};
  for (float min_p : {-0.1f, 1.5f, NAN}) {
    const dia::SamplingParams p{1, 1, 0, min_p};
    EXPECT_EQ(error_of([&] { dp.sampleNextToken(two, p, 1); }),
              "sampleNextToken(): min_p must lie in [0, 1]");
  }
  const xt::xarray<float> bad[] = {xt::xarray<float>{{0, NAN}}, xt::xarray<float>{{0, kInf}},
                                   xt::xarray<float>{{0, 1}, {-kInf, -kInf}},
                                   xt::xarray<float>{0, 1}};
  for (const auto& logits : bad) {
    EXPECT_THROW(dp.sampleNextToken(logits, 1.0f, 0.5f, 2), std::runtime_error) << logits;
    EXPECT_THROW(dp.sampleNextToken(logits, 1.0f, 0.5f, 2, 1), std::runtime_error) << logits;
  }
  EXPECT_THROW(dp.sampleNextToken(two, NAN, 1.0f, 0), std::runtime_error);
  EXPECT_THROW(dp.sampleNextToken(xt::zeros<float>({2, 0}), 0.0f, 1.0f, 0), std::runtime_error);
}

// --- masks and guidance ---------------------------------------------------------

TEST(DiaMask, EqualityOfMasksWithOptionalCausalLimit) {
  using Mask = xt::xarray<bool>;
  const Mask q = {{true, true, false}}, k = {{true, false}}, pad = xt::zeros<bool>({2, 2});
  EXPECT_EQ(dp.createAttnMask(q, k, false), (Mask{{{{1, 0}, {1, 0}, {0, 1}}}}));
  EXPECT_EQ(dp.createAttnMask(q, q, true), (Mask{{{{1, 0, 0}, {1, 1, 0}, {0, 0, 1}}}}));
  EXPECT_EQ(dp.createAttnMask(pad, pad, true), (Mask{{{{1, 0}, {1, 1}}}, {{{1, 0}, {1, 1}}}}));
  EXPECT_EQ(dp.createAttnMask(xt::zeros<bool>({3, 0}), xt::zeros<bool>({3, 0}), true).shape(),
            (std::vector<size_t>{3, 1, 0, 0}));
  EXPECT_EQ(error_of([&] { dp.createAttnMask(q, k, true); }),
            "Causal mask requires query and key sequence lengths to be equal");
  const Mask two_rows = xt::ones<bool>({2, 1}), three_rows = xt::ones<bool>({3, 1});
  for (bool causal : {false, true}) {
    EXPECT_EQ(error_of([&] { dp.createAttnMask(two_rows, three_rows, causal); }),
              "Query and key batch dimensions must match");
  }
  const Mask flat = {1, 1};
  EXPECT_THAT(error_of([&] { dp.createAttnMask(flat, pad, false); }),
              testing::HasSubstr("query_mask"));
}

TEST(DiaGuidance, CfgCombinesInFloatInTheStatedOrder) {
  const xt::xarray<float> cond = {{1.0f, -2.0f}, {0.5f, 3.0f}};
  const xt::xarray<float> uncond = {{0.0f, 2.0f}, {0.5f, 1.0f}};
  EXPECT_EQ(dp.applyCfg(cond, uncond, 3.0f), (xt::xarray<float>{{4.0f, -14.0f}, {0.5f, 9.0f}}));
  EXPECT_EQ(dp.applyCfg(cond, uncond, 0.0f), cond);
  // cond 1, uncond 0x3c7efa40 (0.0155626), scale 1.5: rounding after each
  // step gives 0x401e8188; a fused multiply-add would give 0x401e8189
  // (both worked out with exact rationals).
  const auto from_bits = [](uint32_t bits) {
    float f = 0;
    std::memcpy(&f, &bits, sizeof f);
    return f;
  };
  const xt::xarray<float> one = {1.0f}, uncond_bits = {from_bits(0x3c7efa40)}, row = {{1, 2}};
  EXPECT_EQ(dp.applyCfg(one, uncond_bits, 1.5f)(0), from_bits(0x401e8188));
  EXPECT_EQ(error_of([&] { dp.applyCfg(cond, row, 1.0f); }),
            "applyCfg(): uncond must have the shape of cond");
}

TEST(DiaGuidance, MaskLeavesEosToChannelZeroOnly) {
  const float x = -kInf;
  xt::xarray<float> logits = {{1, 2, 3, 4}, {5, 6, 7, 8}, {9, 10, 11, 12}}, last = {{1, 2}, {3, 4}};
  dp.maskAudioLogits(logits, 2);
  EXPECT_EQ(logits, (xt::xarray<float>{{1, 2, 3, x}, {5, 6, x, x}, {9, 10, x, x}}));
  dp.maskAudioLogits(last, 1);  // EOS as the last code: nothing above it
  EXPECT_EQ(last, (xt::xarray<float>{{1, 2}, {3, x}}));
  // Errors leave the logits unchanged.
  for (int eos : {-1, 2}) {
    EXPECT_EQ(error_of([&] { dp.maskAudioLogits(last, eos); }),
              "maskAudioLogits(): eos_value must lie in [0, V)");
  }
  xt::xarray<float> flat = {1, 2};
  EXPECT_EQ(error_of([&] { dp.maskAudioLogits(flat, 0); }),
            "maskAudioLogits(): logits must be two-dimensional [C, V]");
  EXPECT_EQ(last, (xt::xarray<float>{{1, 2}, {3, x}}));
  EXPECT_EQ(flat, (xt::xarray<float>{1, 2}));
}
