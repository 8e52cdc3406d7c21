// qwen2vl::smart_resize with fuzzed integers (zero, negative and extreme sides,
// factors and budgets), and resize_image with small fuzzed sizes.
#include <stdexcept>

#include "fuzz_input.hpp"
#include "qwen2vl.hpp"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  FuzzInput in(data, size);
  const auto height = in.take<int>();
  const auto width = in.take<int>();
  const auto factor = in.take<int>();
  const auto min_pixels = in.take<int>();
  const auto max_pixels = in.take<int>();
  try {
    qwen2vl::smart_resize(height, width, factor, min_pixels, max_pixels);
  } catch (const std::runtime_error&) {
  }

  xt::xtensor<uint8_t, 3> image = xt::zeros<uint8_t>(
      {static_cast<size_t>(in.range(0, 12)), static_cast<size_t>(in.range(0, 12)), size_t{3}});
  for (auto& v : image) v = in.take<uint8_t>();
  try {
    qwen2vl::resize_image(image, in.range(-2, 40), in.range(-2, 40));
  } catch (const std::runtime_error&) {
  }
  return 0;
}
