// The Hugging Face processors' shared steps (see python_steps.hpp).
#include "python_steps.hpp"

namespace vemoproc::detail {

Image load_image_python(const std::string& path) {
  return decode_image_file(path, Decoder::Reference);
}

ResizedRgb resize_python(const RgbSource& rgb, int width, int height, Resample method) {
  ResizedRgb out;
  if (width == rgb.width() && height == rgb.height()) {
    out.data = rgb.data();
    out.stride = rgb.stride();
    return out;
  }
  const ImageView view{rgb.data(), rgb.width(), rgb.height(), rgb.stride(), PixelFormat::RGB};
  out.owned = resize(view, width, height, method);
  out.data = out.owned.rgb.data();
  out.stride = static_cast<size_t>(width) * 3u;
  return out;
}

std::array<float, 256> python_value_table(double scale, float mean, float std_dev) {
  std::array<float, 256> table{};
  for (int v = 0; v < 256; ++v) {
    const auto x = static_cast<float>(static_cast<double>(v) * scale);
    table[static_cast<size_t>(v)] = (x - mean) / std_dev;
  }
  return table;
}

void write_normalised_crop(const uint8_t* rows, int width, int height, size_t stride, int left,
                           int top, int side, const std::array<std::array<float, 256>, 3>& table,
                           float* out) {
  for (size_t c = 0; c < 3; ++c) {
    const float zero = table[c][0];
    for (int y = 0; y < side; ++y) {
      const int sy = top + y;
      for (int x = 0; x < side; ++x) {
        const int sx = left + x;
        const bool inside = sy >= 0 && sy < height && sx >= 0 && sx < width;
        *out++ =
            inside
                ? table[c]
                       [rows[static_cast<size_t>(sy) * stride + static_cast<size_t>(sx) * 3u + c]]
                : zero;
      }
    }
  }
}

}  // namespace vemoproc::detail
