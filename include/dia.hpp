#pragma once
// Speech-synthesis helpers for the Dia text-to-speech model: text tokens, the
// per-channel delay pattern of audio codes (apply and revert), the decoder's
// initial audio block, next-code sampling and attention masks.
//
// Audio codes are [B, T, C] blocks (batch, frames, codebook channels),
// row-major. Channel c is shifted delay_pattern[c] frames later before the
// model sees it and shifted back afterwards.
#include <cstdint>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include <xtensor/xarray.hpp>

#include "vemoproc_export.hpp"

namespace dia {

// Filters of the seeded sampleNextToken: temperature, then top_k (0 or less,
// or V and more: off), then top_p (1 or more: off), then min_p (0: off; tokens
// whose probability is below min_p times the row's largest are dropped).
struct SamplingParams {
  float temperature;
  float top_p = 1;
  int top_k = 0;
  float min_p = 0;
};

// Stateless: every operation depends on its arguments alone, so one instance
// may be shared by any number of threads.
class VEMOPROC_API DiaPreprocessor {
 public:
  DiaPreprocessor();

  // One token per byte of `text`, with "[S1]" folded into 0x01 and "[S2]"
  // into 0x02, cut or padded with pad_value to max_len; shape [1, max_len].
  // A negative max_len throws std::length_error. (A text of 2^31 bytes or
  // more counts as longer than any max_len.)
  xt::xarray<uint8_t> prepareTextInput(const std::string& text, unsigned char pad_value,
                                       int max_len);

  // Index pair for applying the delay to [B, T, C] blocks: (t - delay[c] per
  // position, unclamped; flat gather offsets of the source clamped to
  // [0, T - 1]). Build once per shape and pattern, reuse for every block.
  // A pattern whose length is not C fails xtensor's reshape (its exception
  // propagates). Throws std::runtime_error naming the argument for a negative
  // B, T or C, or when B * T * C exceeds the int range. Time indices beyond
  // the int range (delays near the int limits) saturate.
  std::tuple<xt::xarray<int>, xt::xarray<int>> buildDelayIndices(
      int B, int T, int C, const std::vector<int>& delay_pattern);

  // Delayed copy of `audio` [B, T, C]: bos_value where the source frame is
  // before 0, pad_value where it is at or past audio's frame count, the
  // gathered code otherwise. Note the order: pad first, BOS second. Throws
  // std::runtime_error "applyAudioDelay(): precomputed indices do not match
  // the audio shape" for a pair built for another shape, and
  // "applyAudioDelay(): audio must be a [B, T, C] block" for another rank.
  xt::xarray<float> applyAudioDelay(
      const xt::xarray<float>& audio, float pad_value, float bos_value,
      const std::tuple<xt::xarray<int>, xt::xarray<int>>& precomputed);

  // Index pair for reverting the delay: (min(t + delay[c], T - 1), flat
  // gather offsets of that frame). No lower clamp: delays must be
  // non-negative, and a negative entry throws std::runtime_error naming
  // delay_pattern. Other checks as buildDelayIndices.
  std::tuple<xt::xarray<int>, xt::xarray<int>> buildRevertIndices(
      int B, int T, int C, const std::vector<int>& delay_pattern);

  // Reverted copy of `audio` [B, T, C]: pad_value where the capped source
  // frame is >= T, the gathered code otherwise. With T equal to the pair's own
  // frame count nothing is padded and the last delay[c] frames of channel c
  // repeat its last frame. Throws like applyAudioDelay (naming
  // revertAudioDelay) for a pair that does not match `audio`.
  xt::xarray<float> revertAudioDelay(
      const xt::xarray<float>& audio, float pad_value,
      const std::tuple<xt::xarray<int>, xt::xarray<int>>& precomputed, int T);

  // The decoder's initial block: a BOS frame, the prompt codes [T_p, C] (if
  // audio_prompt is not null), max(delay_pattern) frames of -1, with the delay
  // applied. Returns (codes [L, C], prefill length 1 + T_p). Codes pass
  // through float, so they must lie within +-2^24; values beyond the int
  // range saturate on the way back. A prompt whose width is not
  // num_channels fails xtensor's concatenation (its exception propagates).
  // Throws std::runtime_error naming the argument for an empty delay_pattern,
  // a negative largest delay, a negative num_channels, or a block longer than
  // the int range.
  std::pair<xt::xarray<int>, int> prepareAudioPrompt(const xt::xarray<int>* audio_prompt,
                                                     int bos_value, int pad_value, int num_channels,
                                                     const std::vector<int>& delay_pattern);

  // One code per row of `logits` [C, V]. temperature 0 (or -0): argmax per
  // row, lowest index on ties. Otherwise logits / temperature, then top-k
  // (top_k >= 1 and < V keeps the top_k highest), then top-p (top_p < 1:
  // tokens in descending probability are kept until the running float sum
  // strictly exceeds top_p; the token crossing it is dropped, the most
  // probable is always kept), then one draw per row from a freshly seeded
  // engine ("/dev/urandom"). Results are not reproducible by design.
  // Throws std::runtime_error naming logits when the sampling path gets other
  // than two dimensions, when a non-empty set of rows has no columns, or when
  // a row holds NaN or has no finite maximum after scaling (all -inf, or a
  // +inf entry): such a row has no probability distribution to draw from.
  xt::xarray<int> sampleNextToken(const xt::xarray<float>& logits, float temperature, float top_p,
                                  int top_k);

  // Reproducible form: the same filters, and a draw that depends only on the
  // row's final probabilities, the seed and the row index r, so a seed gives
  // the same codes on every platform and standard library, whatever the other
  // rows hold. No random device is opened.
  //
  // Row r: the unseeded function's temperature, top-k and top-p, then min-p
  // (on the softmax of what is left, entries with probability < min_p times
  // the largest become -inf), then the softmax P of the remaining row. The
  // engine is std::mt19937_64 seeded with splitmix64(seed + r) (modulo 2^64);
  // u = (engine() >> 40) * 2^-24 as a float in [0, 1). The code is the first
  // index, in index order, at which the float running sum of P exceeds
  // u * (the float sum of P), or, should rounding keep it short, the last
  // index with nonzero probability. Row r of a batch therefore equals the
  // single row sampled with seed + r.
  //
  // Temperature 0 (or -0) is the argmax, as in the unseeded form (seed and
  // min_p unused). Throws the unseeded form's errors, and std::runtime_error
  // "sampleNextToken(): min_p must lie in [0, 1]" for any other min_p (NaN
  // included), checked before anything else.
  xt::xarray<int> sampleNextToken(const xt::xarray<float>& logits, float temperature, float top_p,
                                  int top_k, uint64_t seed);
  xt::xarray<int> sampleNextToken(const xt::xarray<float>& logits, const SamplingParams& params,
                                  uint64_t seed);

  // Classifier-free guidance: cond + cfg_scale * (cond - uncond), element by
  // element in float, in that order (no fused multiply-add). Throws
  // std::runtime_error "applyCfg(): uncond must have the shape of cond" when
  // the shapes differ.
  xt::xarray<float> applyCfg(const xt::xarray<float>& cond, const xt::xarray<float>& uncond,
                             float cfg_scale);

  // Restricts one step's [C, V] logits, in place, to codes a channel may
  // emit: in every row the entries above eos_value become -inf, and in every
  // row but row 0 eos_value itself too (only channel 0 may end the stream).
  // Throws std::runtime_error, leaving logits unchanged,
  // "maskAudioLogits(): logits must be two-dimensional [C, V]" for another
  // rank and "maskAudioLogits(): eos_value must lie in [0, V)" otherwise.
  void maskAudioLogits(xt::xarray<float>& logits, int eos_value);

  // Attention mask [B, 1, Tq, Tk] from padding masks [B, Tq] and [B, Tk]:
  // true where query and key are both real or both padding, and, when causal,
  // only for key positions at or before the query position. Throws
  // std::runtime_error "Query and key batch dimensions must match",
  // "Causal mask requires query and key sequence lengths to be equal", or
  // naming the argument when a mask is not two-dimensional.
  xt::xarray<bool> createAttnMask(const xt::xarray<bool>& query_mask,
                                  const xt::xarray<bool>& key_mask, bool causal);
};

}  // namespace dia
