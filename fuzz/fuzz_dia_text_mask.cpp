// DiaPreprocessor::prepareTextInput on fuzzed scripts and lengths, and
// createAttnMask on fuzzed mask shapes and contents.
#include <stdexcept>

#include "dia.hpp"
#include "fuzz_input.hpp"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  FuzzInput in(data, size);
  dia::DiaPreprocessor dia;
  const int max_len = in.range(-4, 300);
  const auto pad = in.take<uint8_t>();
  const std::string text = in.string(200);
  try {
    const auto tokens = dia.prepareTextInput(text, pad, max_len);
    if (tokens.size() != static_cast<size_t>(max_len)) __builtin_trap();
  } catch (const std::length_error&) {
    if (max_len >= 0) __builtin_trap();
  }

  const auto mask = [&in](size_t rank) {
    xt::xarray<bool>::shape_type shape(rank);
    for (auto& s : shape) s = static_cast<size_t>(in.range(0, 5));
    xt::xarray<bool> m(shape);
    for (auto&& v : m) v = in.take<uint8_t>() & 1;
    return m;
  };
  const auto q = mask(static_cast<size_t>(in.range(0, 3)));
  const auto k = mask(static_cast<size_t>(in.range(0, 3)));
  try {
    dia.createAttnMask(q, k, in.take<uint8_t>() & 1);
  } catch (const std::runtime_error&) {
  }
  return 0;
}
