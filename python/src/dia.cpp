// vemoproc.dia: text tokens, the audio-code delay pattern, the decoder's
// initial block, next-code sampling and attention masks.
#include <optional>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "common.hpp"
#include "dia.hpp"

namespace vemoproc_py {

namespace {

using IndexPair = std::tuple<xt::xarray<int>, xt::xarray<int>>;

py::tuple to_python(IndexPair&& p) {
  return py::make_tuple(to_numpy(std::move(std::get<0>(p))), to_numpy(std::move(std::get<1>(p))));
}

IndexPair index_pair(py::handle obj) {
  py::tuple t = py::reinterpret_borrow<py::object>(obj).cast<py::tuple>();
  if (t.size() != 2) throw py::value_error("precomputed: expected a pair of index arrays");
  return {to_xarray<int>(t[0], "precomputed[0]"), to_xarray<int>(t[1], "precomputed[1]")};
}

}  // namespace

void bind_dia(py::module_& parent) {
  py::module_ m = parent.def_submodule(
      "dia", "Speech-synthesis helpers: text tokens, audio-code delays, sampling, masks.");
  using dia::DiaPreprocessor;
  py::class_<dia::SamplingParams>(m, "SamplingParams",
                                  "Filters of seeded sampling: temperature, top_k, top_p, min_p.")
      .def(py::init([](float temperature, float top_p, int top_k, float min_p) {
             return dia::SamplingParams{temperature, top_p, top_k, min_p};
           }),
           py::arg("temperature"), py::arg("top_p") = 1.0f, py::arg("top_k") = 0,
           py::arg("min_p") = 0.0f)
      .def_readwrite("temperature", &dia::SamplingParams::temperature)
      .def_readwrite("top_p", &dia::SamplingParams::top_p)
      .def_readwrite("top_k", &dia::SamplingParams::top_k)
      .def_readwrite("min_p", &dia::SamplingParams::min_p);
  py::class_<DiaPreprocessor>(m, "DiaPreprocessor",
                              "Stateless helpers; one instance may serve any number of threads.")
      .def(py::init<>())
      .def(
          "prepareTextInput",
          [](DiaPreprocessor& self, py::handle text, unsigned char pad_value, int max_len) {
            std::string bytes = py::isinstance<py::str>(text)
                                    ? text.cast<std::string>()
                                    : text.cast<py::bytes>().cast<std::string>();
            xt::xarray<uint8_t> out =
                released([&] { return self.prepareTextInput(bytes, pad_value, max_len); });
            return to_numpy(std::move(out));
          },
          py::arg("text"), py::arg("pad_value") = 0, py::arg("max_len") = 1024,
          R"(One token per byte of text (str as UTF-8, or bytes), "[S1]" folded into 1
and "[S2]" into 2, cut or padded with pad_value to max_len: uint8 [1, max_len].
Raises ValueError for a negative max_len.)")
      .def(
          "buildDelayIndices",
          [](DiaPreprocessor& self, int B, int T, int C, std::vector<int> delay_pattern) {
            IndexPair out =
                released([&] { return self.buildDelayIndices(B, T, C, delay_pattern); });
            return to_python(std::move(out));
          },
          py::arg("B"), py::arg("T"), py::arg("C"), py::arg("delay_pattern"),
          R"(Index pair for applying the delay to [B, T, C] blocks: (t - delay[c] per
position, int32 [B, T, C]; clamped flat gather offsets, int32). Build once per
shape and pattern and pass to applyAudioDelay.)")
      .def(
          "applyAudioDelay",
          [](DiaPreprocessor& self, py::array audio, float pad_value, float bos_value,
             py::handle precomputed) {
            xt::xarray<float> a = to_xarray<float>(audio, "audio");
            IndexPair idx = index_pair(precomputed);
            xt::xarray<float> out =
                released([&] { return self.applyAudioDelay(a, pad_value, bos_value, idx); });
            return to_numpy(std::move(out));
          },
          py::arg("audio"), py::arg("pad_value"), py::arg("bos_value"), py::arg("precomputed"),
          R"(Delayed copy of audio [B, T, C] as float32: bos_value before a channel
starts, pad_value past the end, the gathered code otherwise. Raises
RuntimeError for indices built for another shape.)")
      .def(
          "buildRevertIndices",
          [](DiaPreprocessor& self, int B, int T, int C, std::vector<int> delay_pattern) {
            IndexPair out =
                released([&] { return self.buildRevertIndices(B, T, C, delay_pattern); });
            return to_python(std::move(out));
          },
          py::arg("B"), py::arg("T"), py::arg("C"), py::arg("delay_pattern"),
          R"(Index pair for reverting the delay: (min(t + delay[c], T - 1), flat gather
offsets), both int32. Raises RuntimeError for a negative delay.)")
      .def(
          "revertAudioDelay",
          [](DiaPreprocessor& self, py::array audio, float pad_value, py::handle precomputed,
             int T) {
            xt::xarray<float> a = to_xarray<float>(audio, "audio");
            IndexPair idx = index_pair(precomputed);
            xt::xarray<float> out =
                released([&] { return self.revertAudioDelay(a, pad_value, idx, T); });
            return to_numpy(std::move(out));
          },
          py::arg("audio"), py::arg("pad_value"), py::arg("precomputed"), py::arg("T"),
          R"(Reverted copy of audio [B, T, C] as float32: pad_value where the capped
source frame is >= T, the gathered code otherwise.)")
      .def(
          "prepareAudioPrompt",
          [](DiaPreprocessor& self, py::handle audio_prompt, int bos_value, int pad_value,
             int num_channels, std::vector<int> delay_pattern) {
            xt::xarray<int> prompt;
            const bool has_prompt = !audio_prompt.is_none();
            if (has_prompt) prompt = to_xarray<int>(audio_prompt, "audio_prompt");
            std::pair<xt::xarray<int>, int> out = released([&] {
              return self.prepareAudioPrompt(has_prompt ? &prompt : nullptr, bos_value, pad_value,
                                             num_channels, delay_pattern);
            });
            return py::make_tuple(to_numpy(std::move(out.first)), out.second);
          },
          py::arg("audio_prompt"), py::arg("bos_value"), py::arg("pad_value"),
          py::arg("num_channels"), py::arg("delay_pattern"),
          R"(The decoder's initial block: a BOS frame, the prompt codes [T_p, C] (or
None), max(delay_pattern) frames of -1, with the delay applied. Returns
(codes int32 [L, C], prefill length 1 + T_p).)")
      .def(
          "sampleNextToken",
          [](DiaPreprocessor& self, py::array logits, float temperature, float top_p, int top_k,
             std::optional<uint64_t> seed) {
            xt::xarray<float> l = to_xarray<float>(logits, "logits");
            xt::xarray<int> out = released([&] {
              return seed ? self.sampleNextToken(l, temperature, top_p, top_k, *seed)
                          : self.sampleNextToken(l, temperature, top_p, top_k);
            });
            return to_numpy(std::move(out));
          },
          py::arg("logits"), py::arg("temperature") = 1.0f, py::arg("top_p") = 1.0f,
          py::arg("top_k") = 0, py::kw_only(), py::arg("seed") = py::none(),
          R"(One code per row of logits [C, V]: int32 [C]. temperature 0 takes the
argmax (lowest index on ties); otherwise scales, keeps the top_k best (when
1 <= top_k < V), then the top_p nucleus (when top_p < 1), and draws from a
freshly seeded engine, or, with seed, reproducibly: row r draws from
mt19937_64 seeded with splitmix64(seed + r), the same on every platform.
Raises RuntimeError for a row with no distribution.)")
      .def(
          "sampleNextToken",
          [](DiaPreprocessor& self, py::array logits, const dia::SamplingParams& params,
             uint64_t seed) {
            xt::xarray<float> l = to_xarray<float>(logits, "logits");
            xt::xarray<int> out = released([&] { return self.sampleNextToken(l, params, seed); });
            return to_numpy(std::move(out));
          },
          py::arg("logits"), py::arg("params"), py::arg("seed"),
          "Seeded sampling with the filters of a SamplingParams (min_p included).")
      .def(
          "applyCfg",
          [](DiaPreprocessor& self, py::array cond, py::array uncond, float cfg_scale) {
            xt::xarray<float> c = to_xarray<float>(cond, "cond");
            xt::xarray<float> u = to_xarray<float>(uncond, "uncond");
            xt::xarray<float> out = released([&] { return self.applyCfg(c, u, cfg_scale); });
            return to_numpy(std::move(out));
          },
          py::arg("cond"), py::arg("uncond"), py::arg("cfg_scale"),
          R"(Classifier-free guidance: cond + cfg_scale * (cond - uncond), float32,
element by element. Raises RuntimeError when the shapes differ.)")
      .def(
          "maskAudioLogits",
          [](DiaPreprocessor& self, py::array logits, int eos_value) {
            if (!logits.dtype().is(py::dtype::of<float>())) {
              throw py::type_error("logits: expected a float32 array (it is changed in place)");
            }
            if (!logits.writeable()) throw py::value_error("logits: array is read-only");
            xt::xarray<float> l = to_xarray<float>(logits, "logits");
            released([&] { self.maskAudioLogits(l, eos_value); });
            // Back into the caller's array, whatever its strides.
            py::module_::import("numpy").attr("copyto")(logits, to_numpy(std::move(l)));
          },
          py::arg("logits"), py::arg("eos_value"),
          R"(Restrict one step's float32 [C, V] logits in place: entries above
eos_value become -inf in every row, and eos_value itself in every row but
row 0. Raises RuntimeError for another rank or eos_value outside [0, V).)")
      .def(
          "createAttnMask",
          [](DiaPreprocessor& self, py::array query_mask, py::array key_mask, bool causal) {
            xt::xarray<bool> q = to_xarray<bool>(query_mask, "query_mask");
            xt::xarray<bool> k = to_xarray<bool>(key_mask, "key_mask");
            xt::xarray<bool> out = released([&] { return self.createAttnMask(q, k, causal); });
            return to_numpy(std::move(out));
          },
          py::arg("query_mask"), py::arg("key_mask"), py::arg("causal") = false,
          R"(Attention mask bool [B, 1, Tq, Tk] from padding masks [B, Tq] and [B, Tk]:
true where query and key are both real or both padding, and, when causal,
only at key positions at or before the query position.)");
}

}  // namespace vemoproc_py
