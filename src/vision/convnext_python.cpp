// ConvNeXt input the way the Python (Hugging Face) processor makes it, top to
// bottom: decode -> size rule in double -> Pillow resize -> centre crop ->
// rescale and normalise into [3, size, size].
#include <cmath>
#include <cstdint>
#include <stdexcept>

#include "convnext.hpp"
#include "python_steps.hpp"

namespace convnext {

namespace {

using vemoproc::Resample;

// Largest resized side: the decoder's own limit.
constexpr double kMaxSide = 1 << 24;

void check_python_arguments(const ConvNextPreprocessor& p) {
  if (p.size < 1) throw std::runtime_error("ConvNextPreprocessor: size must be at least 1");
  if (!(p.crop_pct > 0.0f) || !std::isfinite(p.crop_pct)) {
    throw std::runtime_error("ConvNextPreprocessor: crop_pct must be a positive finite number");
  }
  if (p.resample != Resample::PillowBicubic && p.resample != Resample::PillowBilinear) {
    throw std::runtime_error(
        "ConvNextPreprocessor: resample must be PillowBicubic or PillowBilinear");
  }
}

// Output sides (width, height) of the resize, in double as Python computes
// them, truncated.
std::array<double, 2> resized_size(const ConvNextPreprocessor& p, int width, int height) {
  if (p.size >= 384) return {static_cast<double>(p.size), static_cast<double>(p.size)};
  const double shortest = std::trunc(p.size / static_cast<double>(p.crop_pct));
  const bool portrait = width <= height;
  const double s = portrait ? width : height;
  const double l = portrait ? height : width;
  const double other = std::trunc(shortest * l / s);
  return portrait ? std::array<double, 2>{shortest, other} : std::array<double, 2>{other, shortest};
}

xt::xarray<float> preprocess_python(const ConvNextPreprocessor& p,
                                    const vemoproc::detail::RgbSource& rgb) {
  const auto [w, h] = resized_size(p, rgb.width(), rgb.height());
  if (!(w >= 1 && h >= 1 && w <= kMaxSide && h <= kMaxSide) ||
      !vemoproc::detail::within_pixel_budget(static_cast<int64_t>(w), static_cast<int64_t>(h))) {
    throw std::runtime_error("Failed to resize image");
  }
  const int new_w = static_cast<int>(w);
  const int new_h = static_cast<int>(h);
  const vemoproc::detail::ResizedRgb resized =
      vemoproc::detail::resize_python(rgb, new_w, new_h, p.resample);

  std::array<std::array<float, 256>, 3> table{};
  for (size_t c = 0; c < 3; ++c) {
    table[c] =
        vemoproc::detail::python_value_table(vemoproc::detail::kPythonRescale, p.mean[c], p.std[c]);
  }
  // Floor division, also when the image is smaller than the crop.
  const auto floor_half = [](int v) { return v >= 0 ? v / 2 : -((1 - v) / 2); };
  const size_t side = static_cast<size_t>(p.size);
  auto out = xt::xarray<float>::from_shape({3, side, side});
  vemoproc::detail::write_normalised_crop(resized.data, new_w, new_h, resized.stride,
                                          floor_half(new_w - p.size), floor_half(new_h - p.size),
                                          p.size, table, out.data());
  return out;
}

}  // namespace

xt::xarray<float> ConvNextPreprocessor::process(const std::string& image_path,
                                                vemoproc::Pipeline pipeline) {
  if (pipeline == vemoproc::Pipeline::Native) return process(image_path);
  check_python_arguments(*this);
  const vemoproc::Image image = vemoproc::detail::load_image_python(image_path);
  return preprocess_python(*this, vemoproc::detail::RgbSource(image.view()));
}

xt::xarray<float> ConvNextPreprocessor::process(const vemoproc::ImageView& image,
                                                vemoproc::Pipeline pipeline) {
  if (pipeline == vemoproc::Pipeline::Native) return process(image);
  check_python_arguments(*this);
  return preprocess_python(*this, vemoproc::detail::RgbSource(image));
}

}  // namespace convnext
