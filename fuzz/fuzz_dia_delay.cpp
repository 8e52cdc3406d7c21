// The delay index builders and appliers with fuzzed shapes and patterns,
// including pairs built for one shape and applied to another.
#include <stdexcept>

#include "dia.hpp"
#include "fuzz_input.hpp"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  FuzzInput in(data, size);
  dia::DiaPreprocessor dia;
  const int B = in.range(-1, 3), T = in.range(-1, 12), C = in.range(-1, 5);
  std::vector<int> delays(static_cast<size_t>(in.range(0, 6)));
  for (int& d : delays) d = in.range(-14, 14);

  xt::xarray<float> audio =
      xt::zeros<float>({static_cast<size_t>(in.range(0, 3)), static_cast<size_t>(in.range(0, 12)),
                        static_cast<size_t>(in.range(0, 5))});
  for (float& v : audio) v = static_cast<float>(in.take<int16_t>());
  const int bound = in.range(-2, 14);
  try {
    const auto pair = dia.buildDelayIndices(B, T, C, delays);
    dia.applyAudioDelay(audio, -1.0f, -2.0f, pair);
  } catch (const std::exception&) {
  }
  try {
    const auto pair = dia.buildRevertIndices(B, T, C, delays);
    dia.revertAudioDelay(audio, -1.0f, pair, bound);
  } catch (const std::exception&) {
  }

  xt::xarray<int> prompt =
      xt::zeros<int>({static_cast<size_t>(in.range(0, 4)), static_cast<size_t>(in.range(0, 5))});
  for (int& v : prompt) v = in.take<int16_t>();
  try {
    dia.prepareAudioPrompt(in.take<uint8_t>() & 1 ? &prompt : nullptr, 1026, 1025, C, delays);
  } catch (const std::exception&) {
  }
  return 0;
}
