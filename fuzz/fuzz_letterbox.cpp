// yolo::letterbox with fuzzed image and target sizes, pixel buffers that may
// disagree with the declared size, and fuzzed padding.
#include <stdexcept>

#include "fuzz_input.hpp"
#include "yolo.hpp"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  FuzzInput in(data, size);
  yolo::RawImage image;
  image.width = in.range(-2, 64);
  image.height = in.range(-2, 64);
  image.channels = in.range(0, 4);
  const std::array<int, 2> shape = {in.range(-2, 200), in.range(-2, 200)};
  const auto pad = in.take<uint8_t>();
  image.data = in.rest();
  try {
    const auto out = yolo::letterbox(image, shape, pad);
    if (out.data.size() != static_cast<size_t>(shape[0]) * shape[1] * 3) __builtin_trap();
  } catch (const std::runtime_error&) {
  }
  return 0;
}
