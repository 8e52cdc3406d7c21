// Every image loader on fuzzed file bytes: decode_image from memory (with and
// without EXIF orientation, and the reference decoder), then the bytes go to a file and through
// yolo::RawImage, ConvNeXt and Zentil process, and the Qwen2-VL load_image
// and preprocess. Decoding either succeeds or throws.
#include <unistd.h>

#include <cstdio>
#include <stdexcept>
#include <string>

#include "convnext.hpp"
#include "pixels.hpp"
#include "qwen2vl.hpp"
#include "yolo.hpp"
#include "zentil.hpp"

namespace {

const std::string& scratch_path() {
  static const std::string path = "/tmp/vemoproc-fuzz-image-" + std::to_string(::getpid());
  return path;
}

template <class F>
void expect_runtime_error_or_success(F&& f) {
  try {
    f();
  } catch (const std::runtime_error&) {
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  expect_runtime_error_or_success([&] { vemoproc::decode_image(data, size, size % 2 == 0); });
  expect_runtime_error_or_success(
      [&] { vemoproc::decode_image(data, size, vemoproc::Decoder::Reference); });
  const std::string& path = scratch_path();
  std::FILE* f = std::fopen(path.c_str(), "wb");
  if (f == nullptr) return 0;
  std::fwrite(data, 1, size, f);
  std::fclose(f);

  expect_runtime_error_or_success([&] { yolo::RawImage image(path); });
  expect_runtime_error_or_success(
      [&] { convnext::ConvNextPreprocessor(16, 0.875f).process(path); });
  expect_runtime_error_or_success([&] { zentil::ZentilPreprocessor(12).process(path); });
  qwen2vl::Qwen2VLImageProcessor qwen(true, 28 * 28, 28 * 28 * 4, true, 1.0f / 255.0f, true,
                                      qwen2vl::kDefaultImageMean, qwen2vl::kDefaultImageStd, 14, 2,
                                      2);
  expect_runtime_error_or_success([&] { qwen.load_image(path); });
  expect_runtime_error_or_success([&] { qwen.preprocess(path); });
  return 0;
}
