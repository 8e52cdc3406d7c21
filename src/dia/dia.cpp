// Speech-synthesis helpers, top to bottom: text tokens, the delay index pairs
// and the two shifts that use them (apply, revert), the decoder's initial
// audio block, next-code sampling (unseeded and seeded), guidance and code
// masks, attention masks.
#include "dia.hpp"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <limits>
#include <random>
#include <stdexcept>
#include <utility>

#if defined(__x86_64__) || defined(__i386__)
#include <immintrin.h>
#endif

#include <xtensor/xadapt.hpp>
#include <xtensor/xbuilder.hpp>

#include "../pixels/cpu.hpp"

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

#if defined(__x86_64__) || defined(__i386__)
// Eight elements at a time with the hardware gather. Each group of offsets is
// checked against the block before it is gathered from; the function stops at
// the first group holding an offset outside it (or at the tail) and returns
// how many elements it wrote, leaving the rest to the portable loop.
__attribute__((target("avx2"))) size_t shift_avx2(const float* a, const int* g, const int* t,
                                                  float* o, size_t n, int lo, float below, int hi,
                                                  float above) {
  const __m256i last = _mm256_set1_epi32(static_cast<int>(n - 1));
  const __m256i vlo = _mm256_set1_epi32(lo);
  const __m256i vhi = _mm256_set1_epi32(hi);
  const __m256 vbelow = _mm256_set1_ps(below);
  const __m256 vabove = _mm256_set1_ps(above);
  size_t i = 0;
  for (; i + 8 <= n; i += 8) {
    const __m256i gi = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(g + i));
    // Unsigned: a negative offset reads as a huge one.
    const __m256i inside = _mm256_cmpeq_epi32(_mm256_min_epu32(gi, last), gi);
    if (_mm256_movemask_epi8(inside) != -1) break;
    const __m256i ti = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(t + i));
    const __m256 gathered = _mm256_setr_ps(a[g[i]], a[g[i + 1]], a[g[i + 2]], a[g[i + 3]],
                                           a[g[i + 4]], a[g[i + 5]], a[g[i + 6]], a[g[i + 7]]);
    const __m256 in_range = _mm256_castsi256_ps(_mm256_cmpgt_epi32(vhi, ti));
    const __m256 before = _mm256_castsi256_ps(_mm256_cmpgt_epi32(vlo, ti));
    const __m256 kept = _mm256_blendv_ps(vabove, gathered, in_range);
    _mm256_storeu_ps(o + i, _mm256_blendv_ps(kept, vbelow, before));
  }
  return i;
}
#endif

// One gather and one selection over the block:
// out[i] = t < lo ? below : (t >= hi ? above : audio[gather[i]]), t = time_index[i].
// Every offset is checked against the block before it is read from, so a pair
// built for another shape throws instead of reading outside the block. The
// offsets are ints, so a block of more than INT_MAX elements cannot match any
// pair.
xt::xarray<float> shift_block(const char* function, const xt::xarray<float>& audio,
                              const IndexPair& pair, int lo, float below, int hi, float above) {
  const auto& time_index = std::get<0>(pair);
  const auto& gather = std::get<1>(pair);
  const size_t n = audio.size();
  const auto mismatch = [function] {
    return error(function, "precomputed indices do not match the audio shape");
  };
  if (time_index.shape() != audio.shape() || gather.size() != n ||
      n > static_cast<size_t>(kIntMax)) {
    throw mismatch();
  }

  xt::xarray<float> out = xt::xarray<float>::from_shape(audio.shape());
  const int* g = gather.data();
  const int* t = time_index.data();
  const float* a = audio.data();
  float* o = out.data();
  size_t i = 0;
#if defined(__x86_64__) || defined(__i386__)
  // The shared switch, so that tests can force the portable loop below.
  if (vemoproc::detail::use_avx2()) i = shift_avx2(a, g, t, o, n, lo, below, hi, above);
#endif
  for (; i < n; ++i) {
    const auto offset = static_cast<uint32_t>(g[i]);
    if (offset >= n) throw mismatch();
    o[i] = t[i] < lo ? below : (t[i] >= hi ? above : a[offset]);
  }
  return out;
}

void require_block(const char* function, const xt::xarray<float>& audio) {
  if (audio.dimension() != 3) throw error(function, "audio must be a [B, T, C] block");
}

}  // namespace

xt::xarray<float> DiaPreprocessor::applyAudioDelay(const xt::xarray<float>& audio, float pad_value,
                                                   float bos_value, const IndexPair& precomputed) {
  require_block("applyAudioDelay()", audio);
  // The BOS test comes first: a source frame before 0 is BOS even if the
  // block is shorter than the pair expects. (Frame counts past INT_MAX fail
  // the pair check, so the saturated bound is never used.)
  const int frames = static_cast<int>(std::min<size_t>(audio.shape(1), kIntMax));
  return shift_block("applyAudioDelay()", audio, precomputed, 0, bos_value, frames, pad_value);
}

xt::xarray<float> DiaPreprocessor::revertAudioDelay(const xt::xarray<float>& audio, float pad_value,
                                                    const IndexPair& precomputed, int T) {
  require_block("revertAudioDelay()", audio);
  // No lower test: no int is below INT_MIN.
  return shift_block("revertAudioDelay()", audio, precomputed, kIntMin, pad_value, T, pad_value);
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
  if (frames > kIntMax) {
    throw error(kFn, "audio_prompt rows plus the largest delay exceed the int range");
  }
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
// row is ordered as each filter needs, and with top-k on, no row-sized buffer
// is allocated at all.

namespace {

// A token of one row: its scaled score (or probability) and its index.
struct Scored {
  float value;
  int index;
};
using Candidates = std::vector<Scored>;  // ascending index

const auto kHigher = [](const Scored& a, const Scored& b) { return a.value > b.value; };

std::runtime_error no_distribution(size_t r) {
  return std::runtime_error("sampleNextToken(): logits row " + std::to_string(r) +
                            " holds NaN or has no finite maximum after temperature scaling");
}

// Hands the scaled scores x[i] / temperature of row r to visit(block, first,
// count) a block at a time: a small buffer keeps the division vectorised
// without a row-sized allocation. A NaN is rejected before any ordering sees
// it. (The maximum is checked on the candidates, which always hold it.)
template <class Visit>
void scan_scaled(const float* x, size_t V, float temperature, size_t r, Visit visit) {
  constexpr size_t kBlock = 1024;
  float block[kBlock];
  for (size_t first = 0; first < V; first += kBlock) {
    const size_t count = std::min(kBlock, V - first);
    int nan = 0;  // an int flag keeps the loop vectorisable
    for (size_t i = 0; i < count; ++i) {
      block[i] = x[first + i] / temperature;
      nan |= block[i] != block[i] ? 1 : 0;
    }
    if (nan != 0) throw no_distribution(r);
    visit(block, first, count);
  }
}

float maximum_of(const Candidates& c) {
  float maximum = -std::numeric_limits<float>::infinity();
  for (const Scored& e : c) maximum = e.value > maximum ? e.value : maximum;
  return maximum;
}

void sort_by_index(Candidates& c) {
  std::sort(c.begin(), c.end(), [](const Scored& a, const Scored& b) { return a.index < b.index; });
}

// The whole scaled row, or only its top_k highest scores (top_k < V); ties at
// the boundary go either way, as with an unstable sort. Small top_k: one pass
// keeping a min-heap of the best seen so far; otherwise a selection.
Candidates scaled_candidates(const float* x, size_t V, float temperature, size_t top_k, size_t r) {
  Candidates kept;
  if (top_k < V && top_k * 8 <= V) {
    kept.reserve(top_k);
    // lowest: the smallest kept score once the heap is full; a score must beat
    // it to enter. Held in a local per block so the scan stays in registers.
    float lowest = std::numeric_limits<float>::infinity();
    scan_scaled(x, V, temperature, r, [&](const float* s, size_t first, size_t count) {
      size_t i = 0;
      for (; i < count && kept.size() < top_k; ++i) {
        kept.push_back({s[i], static_cast<int>(first + i)});
        std::push_heap(kept.begin(), kept.end(), kHigher);
        if (kept.size() == top_k) lowest = kept.front().value;
      }
      float floor = lowest;
      for (; i < count; ++i) {
        if (s[i] > floor) {
          std::pop_heap(kept.begin(), kept.end(), kHigher);
          kept.back() = {s[i], static_cast<int>(first + i)};
          std::push_heap(kept.begin(), kept.end(), kHigher);
          floor = kept.front().value;
        }
      }
      lowest = floor;
    });
    sort_by_index(kept);
    return kept;
  }
  // Fields are written one by one: building each pair on the stack and
  // copying it stalls store forwarding.
  kept.resize(V);
  scan_scaled(x, V, temperature, r, [&](const float* s, size_t first, size_t count) {
    for (size_t i = 0; i < count; ++i) {
      kept[first + i].value = s[i];
      kept[first + i].index = static_cast<int>(first + i);
    }
  });
  if (top_k < V) {
    std::nth_element(kept.begin(), kept.begin() + static_cast<ptrdiff_t>(top_k) - 1, kept.end(),
                     kHigher);
    kept.resize(top_k);
    sort_by_index(kept);
  }
  return kept;
}

// Softmax over the candidates: m = maximum, e = exp(s - m) in float, float sum
// in index order, p = e / sum.
std::vector<float> softmax(const Candidates& c) {
  const float maximum = maximum_of(c);
  std::vector<float> p(c.size());
  float sum = 0.0f;
  for (size_t j = 0; j < c.size(); ++j) {
    p[j] = std::exp(c[j].value - maximum);
    sum += p[j];
  }
  for (float& v : p) v /= sum;
  return p;
}

// Moves to the front of `order` every token of the probability buckets that
// together carry more than top_p, and returns their count. Buckets are the
// top bits of the float (exponent and three mantissa bits), which order
// positive floats, so the front is exactly the most probable tokens, in no
// particular order. One counting pass and one partition replace repeated
// selections when the nucleus holds thousands of tokens.
size_t gather_nucleus(std::vector<Scored>& order, float top_p) {
  constexpr int kShift = 20;
  const auto bucket = [](float p) {
    uint32_t bits = 0;
    std::memcpy(&bits, &p, sizeof bits);
    return bits >> kShift;
  };
  std::vector<double> mass(size_t{1} << (31 - kShift), 0.0);
  for (const Scored& e : order) mass[bucket(e.value)] += e.value;
  uint32_t lowest = 0;
  double carried = 0.0;
  for (size_t b = mass.size(); b-- > 0;) {
    carried += mass[b];
    if (carried > static_cast<double>(top_p)) {
      lowest = static_cast<uint32_t>(b);
      break;
    }
  }
  const auto front = std::partition(order.begin(), order.end(),
                                    [&](const Scored& e) { return bucket(e.value) >= lowest; });
  return static_cast<size_t>(front - order.begin());
}

// Walks the candidates in descending probability with a float running sum;
// from the first token (not the first visited) at which the sum strictly
// exceeds top_p, that token and all after it are dropped. Only the walked
// prefix is ever sorted: first the estimated nucleus, then, should rounding
// leave the sum short, further chunks selected from the rest. Zero
// probabilities do not move the sum: if it never exceeds top_p, every
// candidate stays.
Candidates top_p_candidates(const Candidates& c, const std::vector<float>& p, float top_p) {
  std::vector<Scored> order(c.size());  // (probability, position in c)
  size_t positive = 0;
  for (size_t j = 0; j < c.size(); ++j) {
    if (p[j] > 0.0f) {
      order[positive].value = p[j];
      order[positive].index = static_cast<int>(j);
      ++positive;
    }
  }
  order.resize(positive);
  float running = 0.0f;
  size_t begin = 0;
  size_t end = gather_nucleus(order, top_p);
  for (size_t chunk = std::max<size_t>(end, 64);; chunk *= 4) {
    const auto at = [&](size_t k) { return order.begin() + static_cast<ptrdiff_t>(k); };
    std::sort(at(begin), at(end), kHigher);
    for (size_t j = begin; j < end; ++j) {
      running += order[j].value;
      if (running > top_p && j != 0) {
        Candidates kept(j);
        for (size_t k = 0; k < j; ++k) kept[k] = c[static_cast<size_t>(order[k].index)];
        sort_by_index(kept);
        return kept;
      }
    }
    begin = end;
    if (begin == order.size()) return c;
    end = std::min(order.size(), begin + chunk);
    if (end < order.size()) std::nth_element(at(begin), at(end), order.end(), kHigher);
  }
}

// One draw from the candidates' weights with a freshly seeded engine.
// Zero weights are left out of the table: they are never drawn (the standard
// table would otherwise hand a trailing zero weight its rounding slack), and
// a vocabulary-wide row then costs a table of the kept tokens only.
int draw(const Candidates& c, const std::vector<float>& p) {
  std::vector<float> weights;
  std::vector<int> tokens;
  for (size_t j = 0; j < c.size(); ++j) {
    if (p[j] > 0.0f) {
      weights.push_back(p[j]);
      tokens.push_back(c[j].index);
    }
  }
  std::mt19937 engine = [] {
    std::random_device device("/dev/urandom");
    return std::mt19937(device());
  }();
  std::discrete_distribution<int> distribution(weights.begin(), weights.end());
  return tokens[static_cast<size_t>(distribution(engine))];
}

// The seeded filters' last step: on the softmax of the candidates left by
// top-k and top-p, drop those whose probability is below min_p times the
// largest. With min_p <= 1 the most probable candidate always stays.
Candidates min_p_candidates(const Candidates& c, const std::vector<float>& p, float min_p) {
  float largest = 0.0f;
  for (float v : p) largest = v > largest ? v : largest;
  const float floor = min_p * largest;
  Candidates kept;
  for (size_t j = 0; j < c.size(); ++j) {
    if (!(p[j] < floor)) kept.push_back(c[j]);
  }
  return kept;
}

// The standard splitmix64 finaliser: spreads consecutive seeds (seed + r)
// over the engine's whole seed space.
uint64_t splitmix64(uint64_t z) {
  z += 0x9E3779B97F4A7C15ull;
  z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
  z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
  return z ^ (z >> 31);
}

// Inverse-CDF draw fixed to the bit: the engine's output sequence and every
// float operation here are defined by the standard, so no library's
// distribution code is involved. Candidates are in index order and removed
// entries have probability 0, which moves no float sum, so the walk over the
// candidates picks what a walk over the whole row would.
int seeded_draw(const Candidates& c, const std::vector<float>& p, uint64_t row_seed) {
  std::mt19937_64 engine(splitmix64(row_seed));
  const float u = static_cast<float>(engine() >> 40) * 0x1p-24f;
  float total = 0.0f;
  for (float v : p) total += v;
  const float threshold = u * total;
  float running = 0.0f;
  size_t last_nonzero = 0;
  for (size_t j = 0; j < c.size(); ++j) {
    running += p[j];
    if (p[j] > 0.0f) last_nonzero = j;
    if (running > threshold) return c[j].index;
  }
  return c[last_nonzero].index;
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

namespace {

// Both forms share everything but the draw: greedy for temperature 0, the
// shape checks, and per row the scaling, top-k and top-p. draw(r, candidates)
// turns row r's candidates (index order) into its code.
template <class Draw>
xt::xarray<int> sample_rows(const xt::xarray<float>& logits, float temperature, float top_p,
                            int top_k, Draw draw) {
  if (temperature == 0.0f) return greedy(logits);
  if (logits.dimension() != 2) {
    throw std::runtime_error("sampleNextToken(): logits must be two-dimensional [C, V]");
  }
  const size_t C = logits.shape(0);
  const size_t V = logits.shape(1);
  if (C != 0 && V == 0) throw std::runtime_error("sampleNextToken(): logits rows have no columns");
  // A top_k of V or more removes nothing.
  const size_t keep = top_k >= 1 ? std::min(static_cast<size_t>(top_k), V) : V;
  const bool use_top_p = top_p < 1.0f;

  xt::xarray<int> result = xt::xarray<int>::from_shape({C});
  for (size_t r = 0; r < C; ++r) {
    Candidates candidates = scaled_candidates(logits.data() + r * V, V, temperature, keep, r);
    // Without a finite maximum (all -inf, or +inf present) there is no softmax.
    if (!std::isfinite(maximum_of(candidates))) throw no_distribution(r);
    if (use_top_p) candidates = top_p_candidates(candidates, softmax(candidates), top_p);
    result(r) = draw(r, std::move(candidates));
  }
  return result;
}

}  // namespace

xt::xarray<int> DiaPreprocessor::sampleNextToken(const xt::xarray<float>& logits, float temperature,
                                                 float top_p, int top_k) {
  return sample_rows(logits, temperature, top_p, top_k, [](size_t, const Candidates& candidates) {
    return draw(candidates, softmax(candidates));
  });
}

xt::xarray<int> DiaPreprocessor::sampleNextToken(const xt::xarray<float>& logits, float temperature,
                                                 float top_p, int top_k, uint64_t seed) {
  return sampleNextToken(logits, SamplingParams{temperature, top_p, top_k, 0.0f}, seed);
}

xt::xarray<int> DiaPreprocessor::sampleNextToken(const xt::xarray<float>& logits,
                                                 const SamplingParams& params, uint64_t seed) {
  const float min_p = params.min_p;
  if (!(min_p >= 0.0f && min_p <= 1.0f)) {
    throw std::runtime_error("sampleNextToken(): min_p must lie in [0, 1]");
  }
  return sample_rows(logits, params.temperature, params.top_p, params.top_k,
                     [min_p, seed](size_t r, Candidates candidates) {
                       if (min_p > 0.0f) {
                         candidates = min_p_candidates(candidates, softmax(candidates), min_p);
                       }
                       return seeded_draw(candidates, softmax(candidates), seed + r);
                     });
}

// ---------------------------------------------------------------------------
// Guidance and code masks
// ---------------------------------------------------------------------------

xt::xarray<float> DiaPreprocessor::applyCfg(const xt::xarray<float>& cond,
                                            const xt::xarray<float>& uncond, float cfg_scale) {
  if (cond.shape() != uncond.shape()) {
    throw std::runtime_error("applyCfg(): uncond must have the shape of cond");
  }
  xt::xarray<float> out = xt::xarray<float>::from_shape(cond.shape());
  const float* c = cond.data();
  const float* u = uncond.data();
  float* o = out.data();
  // Each operation rounds to float on its own (the build keeps a*b+c unfused).
  for (size_t i = 0; i < out.size(); ++i) o[i] = c[i] + cfg_scale * (c[i] - u[i]);
  return out;
}

void DiaPreprocessor::maskAudioLogits(xt::xarray<float>& logits, int eos_value) {
  if (logits.dimension() != 2) {
    throw std::runtime_error("maskAudioLogits(): logits must be two-dimensional [C, V]");
  }
  const size_t C = logits.shape(0);
  const size_t V = logits.shape(1);
  if (eos_value < 0 || static_cast<size_t>(eos_value) >= V) {
    throw std::runtime_error("maskAudioLogits(): eos_value must lie in [0, V)");
  }
  const auto eos = static_cast<size_t>(eos_value);
  constexpr float kMinusInf = -std::numeric_limits<float>::infinity();
  for (size_t r = 0; r < C; ++r) {
    float* row = logits.data() + r * V;
    // Channel 0 keeps EOS; every other channel loses it with the codes above.
    const size_t first_masked = r == 0 ? eos + 1 : eos;
    std::fill(row + first_masked, row + V, kMinusInf);
  }
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
