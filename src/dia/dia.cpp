// Speech-synthesis helpers, top to bottom: text tokens, the delay index pairs
// and the two shifts that use them (apply, revert), the decoder's initial
// audio block, next-code sampling, attention masks.
#include "dia.hpp"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <numeric>
#include <random>
#include <stdexcept>

#include <xtensor/xadapt.hpp>
#include <xtensor/xbuilder.hpp>

namespace dia {

using IndexPair = std::tuple<xt::xarray<int>, xt::xarray<int>>;

namespace {

constexpr int kIntMax = std::numeric_limits<int>::max();
constexpr int kIntMin = std::numeric_limits<int>::min();

int saturate_to_int(int64_t v) {
  return static_cast<int>(std::clamp<int64_t>(v, kIntMin, kIntMax));
}

// Float to int, truncating toward zero; values past the int range saturate
// instead of being undefined. (NaN cannot reach the callers.)
int truncate_to_int(float v) {
  if (v >= 2147483648.0f) return kIntMax;
  if (v < -2147483648.0f) return kIntMin;
  return static_cast<int>(v);
}

std::runtime_error error(const char* function, const std::string& what) {
  return std::runtime_error(std::string(function) + ": " + what);
}

}  // namespace

DiaPreprocessor::DiaPreprocessor() = default;

// ---------------------------------------------------------------------------
// Text input
// ---------------------------------------------------------------------------

namespace {

// Replaces each occurrence of the four-byte tag by one control byte, scanning
// on from just past the inserted byte.
void fold_tag(std::string& text, const char* tag, char token) {
  for (size_t pos = text.find(tag); pos != std::string::npos; pos = text.find(tag, pos + 1)) {
    text.replace(pos, 4, 1, token);
  }
}

}  // namespace

xt::xarray<uint8_t> DiaPreprocessor::prepareTextInput(const std::string& text,
                                                      unsigned char pad_value, int max_len) {
  std::string folded = text;
  fold_tag(folded, "[S1]", '\x01');
  fold_tag(folded, "[S2]", '\x02');
  std::vector<uint8_t> bytes(folded.begin(), folded.end());

  // The length is compared as its true value (a text of 2^31 bytes or more is
  // longer than any max_len). A negative max_len reaches the resize below and
  // fails there with std::length_error.
  const size_t n = bytes.size();
  if (n <= static_cast<size_t>(kIntMax) && static_cast<int>(n) < max_len) {
    bytes.resize(static_cast<size_t>(max_len), pad_value);
  } else {
    bytes.resize(static_cast<size_t>(max_len));
  }
  xt::xarray<uint8_t> tokens = xt::xarray<uint8_t>::from_shape({size_t{1}, bytes.size()});
  std::copy(bytes.begin(), bytes.end(), tokens.begin());
  return tokens;
}

// ---------------------------------------------------------------------------
// Delay index pairs
// ---------------------------------------------------------------------------

// Row-major offset ((b * T) + t) * C + c of equally shaped index tensors.
// Computed in unsigned arithmetic so that a product past the int range wraps
// instead of overflowing; the builders only pass indices whose offsets fit.
static xt::xarray<int> linear_idx(const xt::xarray<int>& b_idx, const xt::xarray<int>& t_idx,
                                  const xt::xarray<int>& c_idx, int T, int C) {
  xt::xarray<int> out = xt::xarray<int>::from_shape(b_idx.shape());
  const auto uT = static_cast<uint32_t>(T);
  const auto uC = static_cast<uint32_t>(C);
  for (size_t i = 0; i < out.size(); ++i) {
    const uint32_t offset =
        (static_cast<uint32_t>(b_idx.data()[i]) * uT + static_cast<uint32_t>(t_idx.data()[i])) *
            uC +
        static_cast<uint32_t>(c_idx.data()[i]);
    out.data()[i] = static_cast<int>(offset);
  }
  return out;
}

namespace {

// The pair describes [B, T, C] blocks through int offsets: negative extents
// and blocks whose element count does not fit an int are rejected.
void require_block_shape(const char* function, int B, int T, int C) {
  if (B < 0) throw error(function, "B must not be negative");
  if (T < 0) throw error(function, "T must not be negative");
  if (C < 0) throw error(function, "C must not be negative");
  const uint64_t bt = static_cast<uint64_t>(B) * static_cast<uint64_t>(T);
  if (C != 0 && bt > static_cast<uint64_t>(kIntMax) / static_cast<uint64_t>(C)) {
    throw error(function, "B * T * C exceeds the int range");
  }
}

// The delay vector viewed as [1, 1, C]; a length other than C fails the
// tensor library's reshape, whose exception propagates.
xt::xarray<int> delay_view(const std::vector<int>& delay_pattern, int C) {
  xt::xarray<int> delay = xt::adapt(delay_pattern, {delay_pattern.size()});
  delay.reshape({size_t{1}, size_t{1}, static_cast<size_t>(C)});
  return delay;
}

xt::xarray<int> block_of(int B, int T, int C) {
  return xt::xarray<int>::from_shape(
      {static_cast<size_t>(B), static_cast<size_t>(T), static_cast<size_t>(C)});
}

// [B, T, C] tensor whose element [b, t, c] is value(b, t, c).
template <class Value>
xt::xarray<int> grid(int B, int T, int C, Value value) {
  xt::xarray<int> out = block_of(B, T, C);
  int* p = out.data();
  for (int b = 0; b < B; ++b) {
    for (int t = 0; t < T; ++t) {
      for (int c = 0; c < C; ++c) *p++ = value(b, t, c);
    }
  }
  return out;
}

// (time-index tensor, flat offsets of source_time) for a [B, T, C] block.
IndexPair index_pair(int B, int T, int C, xt::xarray<int> time_index,
                     const xt::xarray<int>& source_time) {
  const auto batch = grid(B, T, C, [](int b, int, int) { return b; });
  const auto channel = grid(B, T, C, [](int, int, int c) { return c; });
  xt::xarray<int> offsets = linear_idx(batch, source_time, channel, T, C);
  offsets.reshape({offsets.size()});
  return {std::move(time_index), std::move(offsets)};
}

}  // namespace

IndexPair DiaPreprocessor::buildDelayIndices(int B, int T, int C,
                                             const std::vector<int>& delay_pattern) {
  require_block_shape("buildDelayIndices()", B, T, C);
  const auto delay = delay_view(delay_pattern, C);
  const int* d = delay.data();

  // t - delay[c], unclamped: applyAudioDelay tells BOS and pad positions by
  // it. Only the gather source is clamped into the block.
  auto time_index = grid(
      B, T, C, [d](int, int t, int c) { return saturate_to_int(static_cast<int64_t>(t) - d[c]); });
  const auto source = grid(B, T, C, [d, T](int, int t, int c) {
    return static_cast<int>(std::clamp<int64_t>(static_cast<int64_t>(t) - d[c], 0, T - 1));
  });
  return index_pair(B, T, C, std::move(time_index), source);
}

IndexPair DiaPreprocessor::buildRevertIndices(int B, int T, int C,
                                              const std::vector<int>& delay_pattern) {
  require_block_shape("buildRevertIndices()", B, T, C);
  const auto delay = delay_view(delay_pattern, C);
  const int* d = delay.data();
  // Reverting reads later frames; a negative delay would read before the
  // row (into the previous batch row or before the block).
  if (std::any_of(delay.begin(), delay.end(), [](int v) { return v < 0; })) {
    throw error("buildRevertIndices()", "delay_pattern must not hold negative delays");
  }

  // min(t + delay[c], T - 1): capped above only. The capped index is both the
  // pair's time index and the gather source.
  auto time_index = grid(B, T, C, [d, T](int, int t, int c) {
    return static_cast<int>(std::min<int64_t>(static_cast<int64_t>(t) + d[c], T - 1));
  });
  const xt::xarray<int> source = time_index;
  return index_pair(B, T, C, std::move(time_index), source);
}

// ---------------------------------------------------------------------------
// Applying and reverting the delay
// ---------------------------------------------------------------------------

namespace {

// One gather and one selection over the block:
// out[i] = t < lo ? below : (t >= hi ? above : audio[gather[i]]), t = time_index[i].
// The pair is checked against the block first, so the gather never reads
// outside it.
xt::xarray<float> shift_block(const char* function, const xt::xarray<float>& audio,
                              const IndexPair& pair, int64_t lo, float below, int64_t hi,
                              float above) {
  const auto& time_index = std::get<0>(pair);
  const auto& gather = std::get<1>(pair);
  if (audio.dimension() != 3) throw error(function, "audio must be a [B, T, C] block");
  const size_t n = audio.size();
  if (time_index.shape() != audio.shape() || gather.size() != n) {
    throw error(function, "precomputed indices do not match the audio shape");
  }
  const int* g = gather.data();
  int lowest = kIntMax;
  int highest = kIntMin;
  for (size_t i = 0; i < n; ++i) {
    lowest = std::min(lowest, g[i]);
    highest = std::max(highest, g[i]);
  }
  if (n != 0 && (lowest < 0 || static_cast<size_t>(highest) >= n)) {
    throw error(function, "precomputed indices do not match the audio shape");
  }

  xt::xarray<float> out = xt::xarray<float>::from_shape(audio.shape());
  const int* t = time_index.data();
  const float* a = audio.data();
  float* o = out.data();
  for (size_t i = 0; i < n; ++i) {
    const float v = a[g[i]];
    o[i] = t[i] < lo ? below : (t[i] >= hi ? above : v);
  }
  return out;
}

}  // namespace

xt::xarray<float> DiaPreprocessor::applyAudioDelay(const xt::xarray<float>& audio, float pad_value,
                                                   float bos_value, const IndexPair& precomputed) {
  // The BOS test comes first: a source frame before 0 is BOS even if the
  // block is shorter than the pair expects.
  const int64_t frames = audio.dimension() == 3 ? static_cast<int64_t>(audio.shape(1)) : 0;
  return shift_block("applyAudioDelay()", audio, precomputed, 0, bos_value, frames, pad_value);
}

xt::xarray<float> DiaPreprocessor::revertAudioDelay(const xt::xarray<float>& audio, float pad_value,
                                                    const IndexPair& precomputed, int T) {
  return shift_block("revertAudioDelay()", audio, precomputed, std::numeric_limits<int64_t>::min(),
                     pad_value, T, pad_value);
}

// ---------------------------------------------------------------------------
// Audio prompt
// ---------------------------------------------------------------------------

std::pair<xt::xarray<int>, int> DiaPreprocessor::prepareAudioPrompt(
    const xt::xarray<int>* audio_prompt, int bos_value, int pad_value, int num_channels,
    const std::vector<int>& delay_pattern) {
  constexpr const char* kFn = "prepareAudioPrompt()";
  if (delay_pattern.empty()) throw error(kFn, "delay_pattern must not be empty");
  if (num_channels < 0) throw error(kFn, "num_channels must not be negative");
  const int max_delay = *std::max_element(delay_pattern.begin(), delay_pattern.end());
  if (max_delay < 0) throw error(kFn, "the largest entry of delay_pattern must not be negative");
  const auto C = static_cast<size_t>(num_channels);

  // BOS frame, then the prompt (a width other than C fails the join).
  xt::xarray<int> bos_frame = xt::xarray<int>::from_shape({size_t{1}, C});
  bos_frame.fill(bos_value);
  int64_t prefill = 1;
  xt::xarray<int> known = bos_frame;
  if (audio_prompt != nullptr) {
    known = xt::concatenate(xt::xtuple(bos_frame, *audio_prompt), 0);
    prefill = static_cast<int64_t>(audio_prompt->shape(0)) + 1;
  }
  // Tail frames of -1 (no code yet; neither pad nor BOS) for the delayed
  // channels to run into.
  const int64_t frames = prefill + max_delay;
  if (frames > kIntMax)
    throw error(kFn, "the block of prompt and delay frames exceeds the int range");
  xt::xarray<int> tail = xt::xarray<int>::from_shape({static_cast<size_t>(max_delay), C});
  tail.fill(-1);
  const xt::xarray<int> block = xt::concatenate(xt::xtuple(known, tail), 0);

  const int L = static_cast<int>(frames);
  const auto pair = buildDelayIndices(1, L, num_channels, delay_pattern);
  xt::xarray<float> as_float = xt::xarray<float>::from_shape({size_t{1}, block.shape(0), C});
  std::transform(block.begin(), block.end(), as_float.begin(),
                 [](int v) { return static_cast<float>(v); });
  const auto delayed =
      applyAudioDelay(as_float, static_cast<float>(pad_value), static_cast<float>(bos_value), pair);

  xt::xarray<int> codes = xt::xarray<int>::from_shape({block.shape(0), C});
  std::transform(delayed.begin(), delayed.end(), codes.begin(), truncate_to_int);
  return {std::move(codes), static_cast<int>(prefill)};
}

// ---------------------------------------------------------------------------
// Sampling
// ---------------------------------------------------------------------------
//
// Per row: scale, keep a candidate set (top-k, then top-p), softmax over it,
// draw. Entries outside the candidate set stand for -inf: their exp is exactly
// 0, so a softmax over the candidates in index order gives the same float sum
// and the same probabilities as one over the whole row. Only as much of the
// row is ordered as each filter needs.

namespace {

struct Scored {
  float value;
  int index;
};

// Scaled scores must be ordered and have a softmax: no NaN, finite maximum.
void require_finite_maximum(const std::vector<float>& row, size_t r) {
  bool nan = false;
  float maximum = -std::numeric_limits<float>::infinity();
  for (float v : row) {
    nan |= std::isnan(v);
    maximum = v > maximum ? v : maximum;
  }
  if (nan || !std::isfinite(maximum)) {
    throw std::runtime_error("sampleNextToken(): logits row " + std::to_string(r) +
                             " holds NaN or has no finite maximum after temperature scaling");
  }
}

std::vector<int> ascending_indices(const std::vector<Scored>& entries) {
  std::vector<int> out(entries.size());
  std::transform(entries.begin(), entries.end(), out.begin(),
                 [](const Scored& e) { return e.index; });
  std::sort(out.begin(), out.end());
  return out;
}

// The top_k highest scores; ties at the boundary go either way, as with an
// unstable sort. Small k: one pass with a min-heap of the best seen so far;
// otherwise a selection over the whole row.
std::vector<int> top_k_candidates(const std::vector<float>& row, size_t k) {
  const auto higher = [](const Scored& a, const Scored& b) { return a.value > b.value; };
  std::vector<Scored> best;
  if (k * 8 <= row.size()) {
    best.reserve(k);
    for (size_t i = 0; i < row.size(); ++i) {
      if (best.size() < k) {
        best.push_back({row[i], static_cast<int>(i)});
        std::push_heap(best.begin(), best.end(), higher);
      } else if (row[i] > best.front().value) {
        std::pop_heap(best.begin(), best.end(), higher);
        best.back() = {row[i], static_cast<int>(i)};
        std::push_heap(best.begin(), best.end(), higher);
      }
    }
  } else {
    best.resize(row.size());
    for (size_t i = 0; i < row.size(); ++i) best[i] = {row[i], static_cast<int>(i)};
    std::nth_element(best.begin(), best.begin() + static_cast<ptrdiff_t>(k) - 1, best.end(),
                     higher);
    best.resize(k);
  }
  return ascending_indices(best);
}

// Softmax restricted to the candidates (ascending indices): m = maximum,
// e = exp(s - m) in float, float sum in index order, p = e / sum.
std::vector<float> softmax(const std::vector<float>& row, const std::vector<int>& candidates) {
  float maximum = -std::numeric_limits<float>::infinity();
  for (int i : candidates) maximum = row[i] > maximum ? row[i] : maximum;
  std::vector<float> p(candidates.size());
  float sum = 0.0f;
  for (size_t j = 0; j < candidates.size(); ++j) {
    p[j] = std::exp(row[candidates[j]] - maximum);
    sum += p[j];
  }
  for (float& v : p) v /= sum;
  return p;
}

// Walks the candidates in descending probability with a float running sum;
// from the first token (not the first visited) at which the sum strictly
// exceeds top_p, that token and all after it are dropped. The descending
// order is produced chunk by chunk (select the most probable rest, sort it),
// so a short nucleus never sorts the whole row. Zero probabilities do not move
// the sum: if it never exceeds top_p, every candidate stays.
std::vector<int> top_p_candidates(const std::vector<int>& candidates, const std::vector<float>& p,
                                  float top_p) {
  std::vector<Scored> order;
  order.reserve(candidates.size());
  for (size_t j = 0; j < candidates.size(); ++j) {
    if (p[j] > 0.0f) order.push_back({p[j], candidates[j]});
  }
  const auto more_probable = [](const Scored& a, const Scored& b) { return a.value > b.value; };
  float running = 0.0f;
  size_t begin = 0;
  for (size_t chunk = 64; begin < order.size(); chunk *= 4) {
    const auto first = order.begin() + static_cast<ptrdiff_t>(begin);
    const size_t end = std::min(order.size(), begin + chunk);
    const auto last = order.begin() + static_cast<ptrdiff_t>(end);
    if (end < order.size()) std::nth_element(first, last, order.end(), more_probable);
    std::sort(first, last, more_probable);
    for (size_t j = begin; j < end; ++j) {
      running += order[j].value;
      if (running > top_p && j != 0) {
        order.resize(j);
        return ascending_indices(order);
      }
    }
    begin = end;
  }
  return candidates;
}

// One draw from the candidates' weights with a freshly seeded engine.
// Zero weights are left out of the table: they are never drawn (the standard
// table would otherwise hand a trailing zero weight its rounding slack), and
// a vocabulary-wide row then costs a table of the kept tokens only.
int draw(const std::vector<int>& candidates, const std::vector<float>& p) {
  std::vector<float> weights;
  std::vector<int> tokens;
  for (size_t j = 0; j < candidates.size(); ++j) {
    if (p[j] > 0.0f) {
      weights.push_back(p[j]);
      tokens.push_back(candidates[j]);
    }
  }
  std::mt19937 engine = [] {
    std::random_device device("/dev/urandom");
    return std::mt19937(device());
  }();
  std::discrete_distribution<int> distribution(weights.begin(), weights.end());
  return tokens[static_cast<size_t>(distribution(engine))];
}

// Argmax along axis 1 of any tensor of two or more dimensions: the first
// index of the largest value (a later value must be strictly greater).
xt::xarray<int> greedy(const xt::xarray<float>& logits) {
  if (logits.dimension() < 2) {
    throw std::runtime_error("sampleNextToken(): logits must have at least two dimensions");
  }
  const size_t outer = logits.shape(0);
  const size_t V = logits.shape(1);
  std::vector<size_t> shape{outer};
  size_t inner = 1;
  for (size_t a = 2; a < logits.dimension(); ++a) {
    shape.push_back(logits.shape(a));
    inner *= logits.shape(a);
  }
  xt::xarray<int> result = xt::xarray<int>::from_shape(shape);
  if (V == 0 && result.size() != 0) {
    throw std::runtime_error("sampleNextToken(): logits rows have no columns");
  }
  const float* x = logits.data();
  for (size_t o = 0; o < outer; ++o) {
    for (size_t r = 0; r < inner; ++r) {
      const float* column = x + o * V * inner + r;
      size_t best = 0;
      for (size_t v = 1; v < V; ++v) {
        if (column[v * inner] > column[best * inner]) best = v;
      }
      result.data()[o * inner + r] = static_cast<int>(best);
    }
  }
  return result;
}

}  // namespace

xt::xarray<int> DiaPreprocessor::sampleNextToken(const xt::xarray<float>& logits, float temperature,
                                                 float top_p, int top_k) {
  if (temperature == 0.0f) return greedy(logits);
  if (logits.dimension() != 2) {
    throw std::runtime_error("sampleNextToken(): logits must be two-dimensional [C, V]");
  }
  const size_t C = logits.shape(0);
  const size_t V = logits.shape(1);
  if (C != 0 && V == 0) throw std::runtime_error("sampleNextToken(): logits rows have no columns");
  // A top_k of V or more removes nothing.
  const bool use_top_k = top_k >= 1 && static_cast<size_t>(top_k) < V;
  const bool use_top_p = top_p < 1.0f;

  xt::xarray<int> result = xt::xarray<int>::from_shape({C});
  std::vector<float> row(V);
  std::vector<int> all(V);
  std::iota(all.begin(), all.end(), 0);
  for (size_t r = 0; r < C; ++r) {
    const float* x = logits.data() + r * V;
    for (size_t i = 0; i < V; ++i) row[i] = x[i] / temperature;
    require_finite_maximum(row, r);

    std::vector<int> candidates =
        use_top_k ? top_k_candidates(row, static_cast<size_t>(top_k)) : all;
    if (use_top_p) candidates = top_p_candidates(candidates, softmax(row, candidates), top_p);
    result(r) = draw(candidates, softmax(row, candidates));
  }
  return result;
}

// ---------------------------------------------------------------------------
// Attention masks
// ---------------------------------------------------------------------------

xt::xarray<bool> DiaPreprocessor::createAttnMask(const xt::xarray<bool>& query_mask,
                                                 const xt::xarray<bool>& key_mask, bool causal) {
  if (query_mask.dimension() != 2) {
    throw std::runtime_error("createAttnMask(): query_mask must be two-dimensional [B, Tq]");
  }
  if (key_mask.dimension() != 2) {
    throw std::runtime_error("createAttnMask(): key_mask must be two-dimensional [B, Tk]");
  }
  if (query_mask.shape(0) != key_mask.shape(0)) {
    throw std::runtime_error("Query and key batch dimensions must match");
  }
  const size_t B = query_mask.shape(0);
  const size_t Tq = query_mask.shape(1);
  const size_t Tk = key_mask.shape(1);

  // Allowed when both positions are real or both are padding: padding attends
  // only to padding, real positions only to real ones.
  xt::xarray<bool> mask = xt::xarray<bool>::from_shape({B, size_t{1}, Tq, Tk});
  bool* m = mask.data();
  for (size_t b = 0; b < B; ++b) {
    const bool* q = query_mask.data() + b * Tq;
    const bool* k = key_mask.data() + b * Tk;
    for (size_t i = 0; i < Tq; ++i) {
      for (size_t j = 0; j < Tk; ++j) *m++ = q[i] == k[j];
    }
  }
  if (causal) {
    if (Tq != Tk) {
      throw std::runtime_error("Causal mask requires query and key sequence lengths to be equal");
    }
    m = mask.data();
    for (size_t b = 0; b < B; ++b) {
      for (size_t i = 0; i < Tq; ++i) {
        for (size_t j = 0; j < Tk; ++j) {
          *m = *m && i >= j;
          ++m;
        }
      }
    }
  }
  return mask;
}

}  // namespace dia
