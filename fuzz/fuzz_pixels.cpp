// Caller pixels and camera frames: fuzzed sizes, strides, formats, layouts
// and rotations over buffers sized exactly as the views declare (so ASan
// catches any read past a row's end or a plane's last row), then through a
// family that takes views, and as frames of different strides of one video.
// Conversion either succeeds or throws.
#include <algorithm>
#include <stdexcept>
#include <vector>

#include "convnext.hpp"
#include "fuzz_input.hpp"
#include "pixels.hpp"
#include "qwen2vl.hpp"

namespace {

template <class F>
void expect_runtime_error_or_success(F&& f) {
  try {
    f();
  } catch (const std::runtime_error&) {
  }
}

// Exactly `rows` rows of `stride` bytes (the last one only `last` long),
// filled from the input.
std::vector<uint8_t> plane(FuzzInput& in, size_t stride, size_t rows, size_t last) {
  std::vector<uint8_t> bytes(rows == 0 ? 0 : stride * (rows - 1) + last);
  for (auto& b : bytes) b = in.take<uint8_t>();
  return bytes;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  FuzzInput in(data, size);
  const auto rotation = static_cast<vemoproc::Rotation>(in.range(0, 3));
  const int w = in.range(-1, 40);
  const int h = in.range(-1, 40);
  if (in.take<uint8_t>() % 2 == 0) {
    const auto format = static_cast<vemoproc::PixelFormat>(in.range(0, 4));
    const size_t row = static_cast<size_t>(w < 0 ? 0 : w) * vemoproc::channels_of(format);
    const size_t stride = in.take<uint8_t>() % 4 == 0 ? 0 : row + in.range(0, 9);
    const std::vector<uint8_t> px =
        plane(in, stride == 0 ? row : stride, static_cast<size_t>(h < 0 ? 0 : h), row);
    const vemoproc::ImageView view{px.empty() ? nullptr : px.data(), w, h, stride, format};
    expect_runtime_error_or_success([&] { vemoproc::to_rgb(view, rotation); });
    expect_runtime_error_or_success(
        [&] { convnext::ConvNextPreprocessor(8, 0.875f).process(view); });
    // The same pixels as a second video frame of another stride (packed),
    // before and after the strided one.
    if (px.empty() || stride == 0) return 0;
    std::vector<uint8_t> packed(row * static_cast<size_t>(h));
    for (size_t y = 0; y < static_cast<size_t>(h); ++y) {
      std::copy_n(px.data() + y * stride, row, packed.data() + y * row);
    }
    const vemoproc::ImageView tight{packed.data(), w, h, 0, format};
    qwen2vl::Qwen2VLImageProcessor video(in.take<uint8_t>() % 2 == 0, 16, 4096, true, 1.0f / 255.0f,
                                         true, qwen2vl::kDefaultImageMean,
                                         qwen2vl::kDefaultImageStd, 2, 2, 2);
    expect_runtime_error_or_success([&] { video.preprocess_video({view, tight, view}); });
    expect_runtime_error_or_success([&] { video.preprocess_video({tight, view}); });
    return 0;
  }
  const auto layout = static_cast<vemoproc::YuvLayout>(in.range(0, 2));
  const auto range = static_cast<vemoproc::YuvRange>(in.range(0, 1));
  const size_t uw = static_cast<size_t>(w < 0 ? 0 : w);
  const size_t uh = static_cast<size_t>(h < 0 ? 0 : h);
  const size_t cw = (uw + 1) / 2;
  const size_t ch = (uh + 1) / 2;
  const size_t crow = layout == vemoproc::YuvLayout::I420 ? cw : 2 * cw;
  const size_t ys = uw + in.range(0, 5);
  const size_t us = crow + in.range(0, 5);
  const size_t vs = cw + in.range(0, 5);
  const std::vector<uint8_t> y = plane(in, ys, uh, uw);
  const std::vector<uint8_t> u = plane(in, us, ch, crow);
  const std::vector<uint8_t> v = plane(in, vs, ch, cw);
  const vemoproc::YuvView frame{y.data(), ys, u.data(), us, v.data(), vs, w, h, layout, range};
  expect_runtime_error_or_success([&] { vemoproc::to_rgb(frame, rotation); });
  return 0;
}
