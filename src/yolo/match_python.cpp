// Detection input the way the Python pipeline makes it, top to bottom: decode
// (cv2.imread's pixels) -> the letterbox geometry in double -> OpenCV linear
// resize when the size changes -> grey border -> RGB planes of sample / 255.0f.
// The same calls with Pipeline::Native forward to the library's own letterbox.
#include <algorithm>
#include <cmath>
#include <stdexcept>
#include <string>

#include "../pixels/image_io.hpp"
#include "../pixels/parallel.hpp"
#include "pack.hpp"
#include "yolo.hpp"

namespace yolo {

namespace {

using vemoproc::Pipeline;
using vemoproc::PixelFormat;

// Python's round() on a double: the nearest integer, halves to even.
double round_half_even(double v) {
  const double f = std::floor(v);
  const double d = v - f;
  if (d > 0.5) return f + 1.0;
  if (d < 0.5) return f;
  return std::fmod(f, 2.0) == 0.0 ? f : f + 1.0;
}

void check_sizes(int width, int height, const std::array<int, 2>& new_shape,
                 const std::string& function) {
  if (width < 1 || height < 1) {
    throw std::runtime_error(function + ": width and height must be at least 1");
  }
  if (new_shape[0] < 0 || new_shape[1] < 0) {
    throw std::runtime_error(function + ": new_shape must not be negative");
  }
}

void check_target(const std::array<int, 2>& new_shape, const std::string& function) {
  if (new_shape[0] < 0 || new_shape[1] < 0) {
    throw std::runtime_error(function + ": new_shape must not be negative");
  }
  if (new_shape[0] == 0 || new_shape[1] == 0) {
    throw std::runtime_error(function + ": new_shape sides must be at least 1");
  }
  if (!vemoproc::detail::within_pixel_budget(new_shape[0], new_shape[1])) {
    throw std::runtime_error(function + ": new_shape exceeds the pixel budget");
  }
}

// The Python letterbox rule (sizes already checked).
LetterboxInfo python_geometry(int width, int height, const std::array<int, 2>& new_shape) {
  const int W = new_shape[0];
  const int H = new_shape[1];
  const double r = std::min(static_cast<double>(H) / height, static_cast<double>(W) / width);
  LetterboxInfo g{};
  g.original_width = width;
  g.original_height = height;
  g.scale = static_cast<float>(r);
  // Both products are at most W and H (plus rounding), so they fit int.
  g.new_width = static_cast<int>(round_half_even(width * r));
  g.new_height = static_cast<int>(round_half_even(height * r));
  // dw / 2 is x.0 or x.5: the odd pixel goes right and bottom.
  g.left = static_cast<int>(round_half_even((W - g.new_width) / 2.0 - 0.1));
  g.top = static_cast<int>(round_half_even((H - g.new_height) / 2.0 - 0.1));
  return g;
}

// Writes `n` pixels of a row in `format` to the three planes as
// sample / 255.0f, red first: BGR swaps here, alpha is skipped, grey repeats.
void pack_row(const uint8_t* src, size_t n, PixelFormat format, float* r, float* g, float* b) {
  switch (format) {
    case PixelFormat::RGB:
      internal::pack_planar_row(src, n, r, g, b);
      return;
    case PixelFormat::BGR:
      internal::pack_planar_row(src, n, b, g, r);
      return;
    default:
      break;
  }
  const std::array<float, 256>& lut = internal::unit_scale_table();
  const size_t step = static_cast<size_t>(vemoproc::channels_of(format));
  const bool swap = format == PixelFormat::BGRA;
  const size_t green = format == PixelFormat::GRAY ? 0 : 1;
  const size_t red = format == PixelFormat::GRAY ? 0 : swap ? 2 : 0;
  const size_t blue = format == PixelFormat::GRAY ? 0 : swap ? 0 : 2;
  for (size_t i = 0; i < n; ++i, src += step) {
    r[i] = lut[src[red]];
    g[i] = lut[src[green]];
    b[i] = lut[src[blue]];
  }
}

// One checked view letterboxed the Python way into slot [3, H, W].
LetterboxInfo python_letterbox(const vemoproc::ImageView& view, const std::array<int, 2>& new_shape,
                               float* slot, const std::string& name) {
  const LetterboxInfo g = python_geometry(view.width, view.height, new_shape);
  if (g.new_width < 1 || g.new_height < 1) {
    throw std::runtime_error(name + " of " + std::to_string(view.width) + "x" +
                             std::to_string(view.height) + " scales to an empty block");
  }
  // Resized only when the size changes; the block keeps the view's format.
  vemoproc::Image resized;
  const uint8_t* rows = view.data;
  const size_t channels = static_cast<size_t>(vemoproc::channels_of(view.format));
  size_t stride = view.stride != 0 ? view.stride : static_cast<size_t>(view.width) * channels;
  if (g.new_width != view.width || g.new_height != view.height) {
    resized = vemoproc::resize(view, g.new_width, g.new_height, vemoproc::Resample::OpenCVLinear);
    rows = resized.rgb.data();
    stride = static_cast<size_t>(g.new_width) * channels;
  }

  const size_t W = static_cast<size_t>(new_shape[0]);
  const size_t plane = W * static_cast<size_t>(new_shape[1]);
  std::fill(slot, slot + 3 * plane, internal::unit_scale_table()[114]);
  for (int y = 0; y < g.new_height; ++y) {
    float* r = slot + static_cast<size_t>(g.top + y) * W + static_cast<size_t>(g.left);
    pack_row(rows + static_cast<size_t>(y) * stride, static_cast<size_t>(g.new_width), view.format,
             r, r + plane, r + 2 * plane);
  }
  return g;
}

// A batch [N, 3, H, W] for new_shape = {W, H}, left for the caller to fill.
DetectionBatch empty_batch(size_t n, const std::array<int, 2>& new_shape) {
  DetectionBatch out;
  out.tensor = xt::xtensor<float, 4>::from_shape(
      {n, size_t{3}, static_cast<size_t>(new_shape[1]), static_cast<size_t>(new_shape[0])});
  out.letterbox.resize(n);
  return out;
}

// Item i of a batch: its pixels (views borrowed, files decoded), letterboxed
// by either pipeline into its slot.
template <class GetImage>
DetectionBatch letterbox_batch(size_t n, const std::array<int, 2>& new_shape, Pipeline pipeline,
                               const std::string& function, GetImage&& get_image) {
  if (pipeline == Pipeline::MatchPython) {
    check_target(new_shape, function);
  } else if (new_shape[0] < 0 || new_shape[1] < 0) {
    throw std::runtime_error(function + ": new_shape must not be negative");
  }
  DetectionBatch out = empty_batch(n, new_shape);
  const size_t slot_size = out.tensor.size() / std::max<size_t>(n, 1);
  vemoproc::detail::parallel_for_each_item(n, [&](size_t i) {
    const std::string name = function + ": images[" + std::to_string(i) + "]";
    vemoproc::Image owned;
    const vemoproc::ImageView view = get_image(i, owned);
    vemoproc::detail::check_view(view, name.c_str());
    float* slot = out.tensor.data() + i * slot_size;
    if (pipeline == Pipeline::MatchPython) {
      out.letterbox[i] = python_letterbox(view, new_shape, slot, name);
      return;
    }
    DetectionBatch one = preprocess_images({view}, new_shape);
    std::copy(one.tensor.begin(), one.tensor.end(), slot);
    out.letterbox[i] = one.letterbox[0];
  });
  return out;
}

vemoproc::Decoder decoder_for(Pipeline pipeline) {
  return pipeline == Pipeline::MatchPython ? vemoproc::Decoder::Reference : vemoproc::Decoder::Stb;
}

}  // namespace

LetterboxInfo letterbox_info(int width, int height, const std::array<int, 2>& new_shape,
                             Pipeline pipeline) {
  if (pipeline == Pipeline::Native) return letterbox_info(width, height, new_shape);
  check_sizes(width, height, new_shape, "letterbox_info()");
  check_target(new_shape, "letterbox_info()");
  return python_geometry(width, height, new_shape);
}

DetectionBatch preprocess_images(const std::vector<vemoproc::ImageView>& images,
                                 const std::array<int, 2>& new_shape, Pipeline pipeline) {
  if (pipeline == Pipeline::Native) return preprocess_images(images, new_shape);
  return letterbox_batch(images.size(), new_shape, pipeline, "preprocess_images()",
                         [&](size_t i, vemoproc::Image&) { return images[i]; });
}

DetectionBatch preprocess(const std::vector<std::string>& paths,
                          const std::array<int, 2>& new_shape, Pipeline pipeline) {
  return letterbox_batch(paths.size(), new_shape, pipeline, "preprocess()",
                         [&](size_t i, vemoproc::Image& owned) {
                           owned = vemoproc::decode_image_file(paths[i], decoder_for(pipeline));
                           return owned.view();
                         });
}

DetectionBatch preprocess_encoded(const std::vector<EncodedImage>& images,
                                  const std::array<int, 2>& new_shape, Pipeline pipeline) {
  return letterbox_batch(images.size(), new_shape, pipeline, "preprocess_encoded()",
                         [&](size_t i, vemoproc::Image& owned) {
                           owned = vemoproc::decode_image(images[i].data, images[i].size,
                                                          decoder_for(pipeline));
                           return owned.view();
                         });
}

}  // namespace yolo
