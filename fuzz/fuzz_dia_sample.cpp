// DiaPreprocessor::sampleNextToken with fuzzed logits (NaN, infinities, huge
// values), shapes, temperatures, top-p and top-k.
#include <stdexcept>

#include "dia.hpp"
#include "fuzz_input.hpp"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  FuzzInput in(data, size);
  dia::DiaPreprocessor dia;
  const auto temperature = in.take<float>();
  const auto top_p = in.take<float>();
  const auto top_k = in.take<int>();
  const size_t rows = static_cast<size_t>(in.range(0, 3));
  const size_t cols = static_cast<size_t>(in.range(0, 24));
  xt::xarray<float> logits = xt::zeros<float>({rows, cols});
  for (float& v : logits) v = in.take<float>();
  try {
    const auto codes = dia.sampleNextToken(logits, temperature, top_p, top_k);
    if (codes.size() != rows) __builtin_trap();
    for (int c : codes)
      if (c < 0 || static_cast<size_t>(c) >= cols) __builtin_trap();
  } catch (const std::runtime_error&) {
  }
  return 0;
}
