// The tool's .npy reader (tools/npy.cpp) on fuzzed bytes: every input is
// either refused with std::runtime_error or parsed into a header whose data
// is exactly the rest of the input, and whose elements load into xtensor.
#include <stdexcept>

#include "npy.hpp"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  try {
    const cli::NpyHeader h = cli::parse_npy(data, size, "input");
    size_t count = 1;
    for (size_t d : h.shape) count *= d;
    if (h.data_offset > size || size - h.data_offset != h.data_size ||
        count * h.item_size != h.data_size) {
      __builtin_trap();
    }
    const xt::xarray<float> values = cli::npy_as_float(h, data);
    if (values.size() != count || values.dimension() != h.shape.size()) __builtin_trap();
    switch (h.type) {
      case cli::NpyType::Float32: (void)cli::npy_values<float>(h, data, "input"); break;
      case cli::NpyType::Float64: (void)cli::npy_values<double>(h, data, "input"); break;
      case cli::NpyType::Int32: (void)cli::npy_values<int32_t>(h, data, "input"); break;
      case cli::NpyType::Int64: (void)cli::npy_values<int64_t>(h, data, "input"); break;
      case cli::NpyType::UInt8: (void)cli::npy_values<uint8_t>(h, data, "input"); break;
      case cli::NpyType::Int8: (void)cli::npy_values<int8_t>(h, data, "input"); break;
    }
  } catch (const std::runtime_error&) {
  }
  return 0;
}
