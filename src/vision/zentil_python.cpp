// Zentil input the way the Python (Hugging Face SigLIP) processor makes it,
// top to bottom: decode -> Pillow bicubic to size x size -> rescale and
// normalise into [1, 3, size, size].
#include <stdexcept>

#include "python_steps.hpp"
#include "zentil.hpp"

namespace zentil {

namespace {

void check_python_size(int size) {
  if (size < 0) throw std::runtime_error("ZentilPreprocessor: size must not be negative");
  if (size > (1 << 24))
    throw std::runtime_error("ZentilPreprocessor: size must not exceed 16777216");
}

xt::xarray<float> preprocess_python(const ZentilPreprocessor& p,
                                    const vemoproc::detail::RgbSource& rgb) {
  const size_t side = static_cast<size_t>(p.size);
  auto out = xt::xarray<float>::from_shape({1, 3, side, side});
  if (side == 0) return out;
  if (!vemoproc::detail::within_pixel_budget(p.size, p.size)) {
    throw std::runtime_error("Failed to resize image");
  }
  const vemoproc::detail::ResizedRgb resized =
      vemoproc::detail::resize_python(rgb, p.size, p.size, vemoproc::Resample::PillowBicubic);
  std::array<std::array<float, 256>, 3> table{};
  for (size_t c = 0; c < 3; ++c) {
    table[c] =
        vemoproc::detail::python_value_table(vemoproc::detail::kPythonRescale, p.mean[c], p.std[c]);
  }
  vemoproc::detail::write_normalised_crop(resized.data, p.size, p.size, resized.stride, 0, 0,
                                          p.size, table, out.data());
  return out;
}

}  // namespace

xt::xarray<float> ZentilPreprocessor::process(const std::string& image_path,
                                              vemoproc::Pipeline pipeline) {
  if (pipeline == vemoproc::Pipeline::Native) return process(image_path);
  check_python_size(size);
  const vemoproc::Image image = vemoproc::detail::load_image_python(image_path);
  return preprocess_python(*this, vemoproc::detail::RgbSource(image.view()));
}

xt::xarray<float> ZentilPreprocessor::process(const vemoproc::ImageView& image,
                                              vemoproc::Pipeline pipeline) {
  if (pipeline == vemoproc::Pipeline::Native) return process(image);
  check_python_size(size);
  return preprocess_python(*this, vemoproc::detail::RgbSource(image));
}

}  // namespace zentil
