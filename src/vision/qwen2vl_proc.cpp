// Qwen2-VL image input, top to bottom: the size rule (smart_resize), the
// resampler (resize_image), the loader, and the processor that turns images
// into merge-ordered flattened patch rows.
//
// The processor writes every patch row straight from the 8-bit pixels: a
// per-channel table holds each byte value's float after rescale and
// normalisation (the same float operations in the same order, so the same
// bits), the frame is copied temporal_patch_size times inside the row, and a
// batch is laid out in one allocation. This is the step-by-step pipeline
// (convert, rescale, normalise, transpose, tile, reshape, permute, reshape,
// concatenate) without its intermediate tensors.
#include "qwen2vl.hpp"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>
#include <limits>
#include <memory>
#include <stdexcept>

#include <xtensor/xadapt.hpp>

#include "../pixels/image_io.hpp"
#include "../pixels/parallel.hpp"
#include "python_steps.hpp"

namespace qwen2vl {

const std::vector<float> kDefaultImageMean = {0.48145466f, 0.4578275f, 0.40821073f};
const std::vector<float> kDefaultImageStd = {0.26862954f, 0.26130258f, 0.27577711f};

namespace {

constexpr int kMaxAspectRatio = 200;

// Float to int, truncating toward zero; NaN becomes 0 and out-of-range values
// saturate at the int limits instead of being undefined.
int saturating_int(float v) {
  if (std::isnan(v)) return 0;
  if (v >= 2147483648.0f) return std::numeric_limits<int>::max();
  if (v < -2147483648.0f) return std::numeric_limits<int>::min();
  return static_cast<int>(v);
}

// 32-bit product that wraps (two's complement) instead of overflowing.
int wrapping_mul(int a, int b) {
  return static_cast<int>(static_cast<uint32_t>(a) * static_cast<uint32_t>(b));
}

// Narrowing to 32 bits keeps the low 32 bits (two's complement).
template <class T>
int wrapping_int(T v) {
  return static_cast<int>(static_cast<uint32_t>(v));
}

// Size arithmetic that throws where the element count would not fit size_t.
[[noreturn]] void throw_too_large() {
  throw std::length_error("Qwen2VLImageProcessor: patch matrix size overflows size_t");
}
size_t checked_mul(size_t a, size_t b) {
  size_t r = 0;
  if (__builtin_mul_overflow(a, b, &r)) throw_too_large();
  return r;
}
size_t checked_add(size_t a, size_t b) {
  size_t r = 0;
  if (__builtin_add_overflow(a, b, &r)) throw_too_large();
  return r;
}

// Largest side the resampler is given, in or out: the decoder's own limit.
// Far larger sides overflow the resampler's internal int arithmetic.
constexpr size_t kMaxSide = size_t{1} << 24;

// An image's samples as the processor reads them: `channels` bytes per pixel,
// rows `stride` bytes apart (a decoded tensor, or a caller's view).
struct Pixels {
  const uint8_t* data;
  size_t height;
  size_t width;
  size_t channels;
  size_t stride;
};

Pixels pixels_of(const xt::xtensor<uint8_t, 3>& image) {
  return {image.data(), image.shape(0), image.shape(1), image.shape(2),
          image.shape(1) * image.shape(2)};
}

Pixels pixels_of(const vemoproc::detail::RgbSource& rgb) {
  return {rgb.data(), static_cast<size_t>(rgb.height()), static_cast<size_t>(rgb.width()), 3,
          rgb.stride()};
}

// What a resize may be asked for: the resampler reads height * width * 3
// bytes and works with int sizes.
void check_resize_arguments(const Pixels& image, int new_height, int new_width) {
  if (new_height < 0) throw std::runtime_error("resize_image: new_height must not be negative");
  if (new_width < 0) throw std::runtime_error("resize_image: new_width must not be negative");
  if (static_cast<size_t>(new_height) > kMaxSide) {
    throw std::runtime_error("resize_image: new_height must not exceed 16777216");
  }
  if (static_cast<size_t>(new_width) > kMaxSide) {
    throw std::runtime_error("resize_image: new_width must not exceed 16777216");
  }
  const bool empty = image.height == 0 || image.width == 0;
  if (!empty && image.channels < 3) {
    throw std::runtime_error("resize_image: image must hold 3 samples per pixel");
  }
  if (image.height > kMaxSide || image.width > kMaxSide) {
    throw std::runtime_error("resize_image: image sides must not exceed 16777216");
  }
  // The resize target is held to the same pixel budget as decoding.
  if (!vemoproc::detail::within_pixel_budget(new_width, new_height)) {
    throw std::runtime_error("Failed to resize image");
  }
}

// Catmull-Rom, clamped edges, into a new [new_height, new_width, 3] image
// (black where the resampler cannot work: an empty input or output).
xt::xtensor<uint8_t, 3> resize_pixels(const Pixels& image, int new_height, int new_width) {
  const size_t rows = static_cast<size_t>(new_height);
  const size_t row_bytes = static_cast<size_t>(new_width) * 3u;
  xt::xtensor<uint8_t, 3> out = xt::zeros<uint8_t>({rows, row_bytes / 3u, size_t{3}});
  // With an empty output buffer the resampler would allocate one of its own,
  // so it is not called.
  if (out.size() == 0 || image.height == 0 || image.width == 0) return out;
  // It also stores four bytes at a time as one int, so rows must start
  // 4-aligned; other widths go through a padded buffer.
  const size_t stride = (row_bytes + 3u) & ~size_t{3};
  std::vector<uint8_t> padded(stride == row_bytes ? 0 : stride * rows);
  uint8_t* target = padded.empty() ? out.data() : padded.data();
  vemoproc::detail::resize_rgb(image.data, static_cast<int>(image.width),
                               static_cast<int>(image.height), image.stride, target, new_width,
                               new_height, stride, vemoproc::detail::ResizeFilter::CatmullRom);
  for (size_t y = 0; !padded.empty() && y < rows; ++y) {
    std::memcpy(out.data() + y * row_bytes, padded.data() + y * stride, row_bytes);
  }
  return out;
}

}  // namespace

// ---------------------------------------------------------------------------
// Size rule, resampler, loader
// ---------------------------------------------------------------------------

std::pair<int, int> smart_resize(int height, int width, int factor, int min_pixels,
                                 int max_pixels) {
  if (factor == 0) throw std::runtime_error("smart_resize: factor must not be 0");
  // Integer quotient first, so a true ratio of 200.9 passes; a zero side
  // gives quotient 0.
  const int shorter = std::min(height, width);
  const int ratio = shorter == 0 ? 0 : std::max(height, width) / shorter;
  if (ratio > kMaxAspectRatio) {
    throw std::runtime_error("Absolute aspect ratio must be smaller than " +
                             std::to_string(kMaxAspectRatio));
  }

  const float f = static_cast<float>(factor);
  // roundf: halves go away from zero.
  int h_bar = std::max(factor, saturating_int(std::round(static_cast<float>(height) / f) * f));
  int w_bar = std::max(factor, saturating_int(std::round(static_cast<float>(width) / f) * f));

  const int pixels = wrapping_mul(h_bar, w_bar);
  const float area = static_cast<float>(wrapping_mul(height, width));
  if (pixels > max_pixels) {
    // beta divides by max_pixels: a budget of zero or less has no size.
    if (max_pixels <= 0) throw std::runtime_error("smart_resize: max_pixels must be positive");
    // The rounded sides (not the input ones) are scaled down, truncated, then
    // floored to a multiple of factor; no lower clamp here.
    const float beta = std::sqrt(area / static_cast<float>(max_pixels));
    const auto shrink = [&](int side) {
      const float scaled = static_cast<float>(saturating_int(static_cast<float>(side) / beta));
      return saturating_int(std::floor(scaled / f) * f);
    };
    h_bar = shrink(h_bar);
    w_bar = shrink(w_bar);
  } else if (pixels < min_pixels) {
    // beta divides by the input area: an empty image has no scale.
    if (area == 0.0f) {
      throw std::runtime_error(
          "smart_resize: height and width must be positive to reach min_pixels");
    }
    const float beta = std::sqrt(static_cast<float>(min_pixels) / area);
    const auto grow = [&](int side) {
      const float scaled = static_cast<float>(saturating_int(static_cast<float>(side) * beta));
      return saturating_int(std::ceil(scaled / f) * f);
    };
    h_bar = grow(h_bar);
    w_bar = grow(w_bar);
  }
  return {h_bar, w_bar};
}

xt::xtensor<uint8_t, 3> resize_image(const xt::xtensor<uint8_t, 3>& image, int new_height,
                                     int new_width) {
  const Pixels pixels = pixels_of(image);
  check_resize_arguments(pixels, new_height, new_width);
  return resize_pixels(pixels, new_height, new_width);
}

xt::xtensor<uint8_t, 3> Qwen2VLImageProcessor::load_image(const std::string& image_path) {
  const vemoproc::detail::DecodedRgb decoded = vemoproc::detail::load_rgb_file(image_path);
  if (!decoded) throw std::runtime_error("Failed to load image: " + image_path);
  auto image = xt::xtensor<uint8_t, 3>::from_shape(
      {static_cast<size_t>(decoded.height), static_cast<size_t>(decoded.width), size_t{3}});
  std::copy_n(decoded.pixels.get(), image.size(), image.data());  // may be empty: no memcpy of null
  return image;
}

// ---------------------------------------------------------------------------
// Patch rows
// ---------------------------------------------------------------------------

namespace {

using ValueTable = std::array<std::array<float, 256>, 3>;

// One image's geometry after the optional resize.
struct ImagePlan {
  bool resize = false;
  size_t height = 0;
  size_t width = 0;
  size_t grid_h = 0;
  size_t grid_w = 0;
};

void check_statistics(const xt::xtensor<float, 1>& values, const char* name) {
  if (values.size() < 3 && values.size() != 1) {
    throw std::runtime_error(std::string("Qwen2VLImageProcessor: ") + name +
                             " must hold 1 or at least 3 values");
  }
}

void check_arguments(const Qwen2VLImageProcessor& p) {
  if (p.patch_size == 0)
    throw std::runtime_error("Qwen2VLImageProcessor: patch_size must not be 0");
  if (p.temporal_patch_size == 0) {
    throw std::runtime_error("Qwen2VLImageProcessor: temporal_patch_size must not be 0");
  }
  if (p.merge_size == 0)
    throw std::runtime_error("Qwen2VLImageProcessor: merge_size must not be 0");
  // The statistics are read only when normalising.
  if (p.do_normalize) {
    check_statistics(p.image_mean, "image_mean");
    check_statistics(p.image_std, "image_std");
  }
}

// Floats of one row: 3 channels x frames x patch pixels.
size_t row_length(const Qwen2VLImageProcessor& p) {
  return checked_mul(checked_mul(3, p.temporal_patch_size),
                     checked_mul(p.patch_size, p.patch_size));
}

// Target size and patch grid of one image; throws everything the image would
// throw before any work is done on it.
ImagePlan plan_image(const Qwen2VLImageProcessor& p, const Pixels& image,
                     vemoproc::Pipeline pipeline) {
  ImagePlan plan;
  plan.height = image.height;
  plan.width = image.width;
  size_t channels = image.channels;
  if (p.do_resize) {
    const int factor = wrapping_int(p.patch_size * p.merge_size);
    const auto [h, w] =
        pipeline == vemoproc::Pipeline::MatchPython
            ? smart_resize_match_python(wrapping_int(plan.height), wrapping_int(plan.width), factor,
                                        p.min_pixels, p.max_pixels)
            : smart_resize(wrapping_int(plan.height), wrapping_int(plan.width), factor,
                           wrapping_int(p.min_pixels), wrapping_int(p.max_pixels));
    check_resize_arguments(image, h, w);
    // The Python processor leaves an image of the target size as it is.
    plan.resize = pipeline == vemoproc::Pipeline::Native || static_cast<size_t>(h) != plan.height ||
                  static_cast<size_t>(w) != plan.width;
    plan.height = static_cast<size_t>(h);
    plan.width = static_cast<size_t>(w);
    // The resize keeps the channel count: four channels stay four and fail
    // the reshape below. An empty image resizes to black RGB.
    if (image.height == 0 || image.width == 0) channels = 3;
  }
  plan.grid_h = plan.height / p.patch_size;
  plan.grid_w = plan.width / p.patch_size;
  // The reshape into merge blocks keeps the element count only when both
  // sides are whole blocks and the image has 3 channels.
  const size_t m = p.merge_size;
  if ((plan.grid_h / m) * m * p.patch_size != plan.height ||
      (plan.grid_w / m) * m * p.patch_size != plan.width || channels != 3) {
    throw std::runtime_error(
        "Cannot reshape with incorrect number of elements. Do you mean to resize?");
  }
  return plan;
}

// Each byte value of each channel after value -> float, * rescale_factor,
// (v - mean[c]) / std[c]: the float operations of the elementwise pipeline.
// Statistics of length 1 serve every channel.
// MatchPython rescales as numpy does, float(double(v) * factor), with Python's
// double 1 / 255 for the float one.
ValueTable value_table(const Qwen2VLImageProcessor& p, vemoproc::Pipeline pipeline) {
  const double python_factor = p.rescale_factor == 1.0f / 255.0f
                                   ? vemoproc::detail::kPythonRescale
                                   : static_cast<double>(p.rescale_factor);
  ValueTable table{};
  for (size_t c = 0; c < 3; ++c) {
    for (int v = 0; v < 256; ++v) {
      float x = static_cast<float>(v);
      if (p.do_rescale && pipeline == vemoproc::Pipeline::MatchPython) {
        x = static_cast<float>(v * python_factor);
      } else if (p.do_rescale) {
        x = x * p.rescale_factor;
      }
      if (p.do_normalize) {
        const size_t mc = p.image_mean.size() == 1 ? 0 : c;
        const size_t sc = p.image_std.size() == 1 ? 0 : c;
        x = (x - p.image_mean(mc)) / p.image_std(sc);
      }
      table[c][static_cast<size_t>(v)] = x;
    }
  }
  return table;
}

// One frame as the patch writer reads it: its own row stride, since the
// frames of a video may be crops of different buffers.
struct FrameRows {
  const uint8_t* data;
  size_t stride;
  bool operator==(const FrameRows& o) const { return data == o.data && stride == o.stride; }
};

// Writes one image's rows: blocks of merge_size x merge_size patches in
// row-major order over the image, patches row-major inside a block; within a
// row channel, frame, pixel row, pixel column. Returns the end of the rows.
float* write_patch_rows(const Qwen2VLImageProcessor& p, const ValueTable& table,
                        const FrameRows* frames, const ImagePlan& plan, float* out) {
  const size_t ps = p.patch_size;
  const size_t m = p.merge_size;
  const size_t depth = p.temporal_patch_size;
  const size_t plane = ps * ps;
  for (size_t bh = 0; bh < plan.grid_h / m; ++bh) {
    // Read the block row's pixels in address order first: the patch walk
    // below jumps between image rows, which hardware prefetch does not follow.
    for (size_t t = 0; t < depth; ++t) {
      if (t > 0 && frames[t] == frames[t - 1]) continue;
      const uint8_t* strip = frames[t].data + bh * m * ps * frames[t].stride;
      const size_t strip_bytes = m * ps * frames[t].stride;
      for (size_t off = 0; off < strip_bytes; off += 64) __builtin_prefetch(strip + off);
    }
    for (size_t bw = 0; bw < plan.grid_w / m; ++bw) {
      for (size_t mi = 0; mi < m; ++mi) {
        for (size_t mj = 0; mj < m; ++mj) {
          const size_t y0 = (bh * m + mi) * ps;
          const size_t x0 = (bw * m + mj) * ps;
          for (size_t c = 0; c < 3; ++c) {
            const float* values = table[c].data();
            for (size_t t = 0; t < depth; ++t, out += plane) {
              // A repeated frame (a still image, or a video's padding) is
              // the previous plane again.
              if (t > 0 && frames[t] == frames[t - 1]) {
                std::memcpy(out, out - plane, plane * sizeof(float));
                continue;
              }
              float* dst = out;
              for (size_t py = 0; py < ps; ++py) {
                const uint8_t* src = frames[t].data + (y0 + py) * frames[t].stride + x0 * 3 + c;
                for (size_t px = 0; px < ps; ++px) *dst++ = values[src[3 * px]];
              }
            }
          }
        }
      }
    }
  }
  return out;
}

// One image's pixels at the planned size: the library's resampler (Native)
// or Pillow bicubic (MatchPython), rows width * 3 bytes apart.
struct PlannedPixels {
  xt::xtensor<uint8_t, 3> native;
  vemoproc::Image python;
  const uint8_t* data = nullptr;
};

PlannedPixels resize_planned(const Pixels& image, const ImagePlan& plan,
                             vemoproc::Pipeline pipeline) {
  PlannedPixels out;
  const int h = static_cast<int>(plan.height);
  const int w = static_cast<int>(plan.width);
  if (pipeline == vemoproc::Pipeline::MatchPython) {
    const vemoproc::ImageView view{image.data, static_cast<int>(image.width),
                                   static_cast<int>(image.height), image.stride,
                                   vemoproc::PixelFormat::RGB};
    out.python = vemoproc::resize(view, w, h, vemoproc::Resample::PillowBicubic);
    out.data = out.python.rgb.data();
  } else {
    out.native = resize_pixels(image, h, w);
    out.data = out.native.data();
  }
  return out;
}

// The batch: every image planned (and checked) first, then all rows written
// into one allocation, in input order.
Qwen2VLImageOutput process_images(const Qwen2VLImageProcessor& p, const std::vector<Pixels>& images,
                                  vemoproc::Pipeline pipeline = vemoproc::Pipeline::Native) {
  check_arguments(p);
  const size_t count = images.size();
  std::vector<ImagePlan> plans;
  plans.reserve(count);
  std::vector<size_t> first_row;  // each image's first patch row
  first_row.reserve(count);
  size_t total_rows = 0;
  for (const Pixels& image : images) {
    plans.push_back(plan_image(p, image, pipeline));
    first_row.push_back(total_rows);
    total_rows = checked_add(total_rows, checked_mul(plans.back().grid_h, plans.back().grid_w));
  }
  const size_t row_len = row_length(p);
  checked_mul(total_rows, row_len);

  Qwen2VLImageOutput result;
  result.patches = xt::xarray<float>::from_shape({total_rows, row_len});
  result.grid_thw = xt::xarray<size_t>::from_shape({count, size_t{3}});
  const ValueTable table = value_table(p, pipeline);
  // One image per thread (vemoproc::set_num_threads), each into its own rows.
  vemoproc::detail::parallel_for_each_item(count, [&](size_t i) {
    const ImagePlan& plan = plans[i];
    PlannedPixels resized;
    if (plan.resize) resized = resize_planned(images[i], plan, pipeline);
    // The still image repeated over the temporal depth.
    const FrameRows frame = plan.resize ? FrameRows{resized.data, plan.width * 3}
                                        : FrameRows{images[i].data, images[i].stride};
    const std::vector<FrameRows> frames(p.temporal_patch_size, frame);
    write_patch_rows(p, table, frames.data(), plan, result.patches.data() + first_row[i] * row_len);
    // grid_t: the tiled depth divided by temporal_patch_size, always 1.
    result.grid_thw(i, 0) = 1;
    result.grid_thw(i, 1) = plan.grid_h;
    result.grid_thw(i, 2) = plan.grid_w;
  });
  return result;
}

// One video: every frame planned like a still image of its size (all frames
// share one size), resized the same way, the count padded with the last frame
// to whole temporal groups; rows run over the groups, then the blocks.
Qwen2VLImageOutput process_video(const Qwen2VLImageProcessor& p, const std::vector<Pixels>& frames,
                                 vemoproc::Pipeline pipeline = vemoproc::Pipeline::Native) {
  check_arguments(p);
  if (frames.empty()) throw std::runtime_error("preprocess_video: frames must not be empty");
  for (const Pixels& f : frames) {
    if (f.height != frames[0].height || f.width != frames[0].width) {
      throw std::runtime_error("preprocess_video: frames must all have the same size");
    }
  }
  const ImagePlan plan = plan_image(p, frames[0], pipeline);
  const size_t depth = p.temporal_patch_size;
  const size_t groups = checked_add(frames.size(), depth - 1) / depth;
  const size_t rows = checked_mul(groups, checked_mul(plan.grid_h, plan.grid_w));
  const size_t row_len = row_length(p);
  checked_mul(rows, row_len);

  std::vector<PlannedPixels> resized(plan.resize ? frames.size() : 0);
  // Each frame keeps its own stride: a crop of a wide buffer and a packed
  // frame may follow each other.
  std::vector<FrameRows> pixels(groups * depth);
  for (size_t i = 0; i < pixels.size(); ++i) {
    const size_t f = std::min(i, frames.size() - 1);  // padding repeats the last frame
    if (plan.resize && resized[f].data == nullptr) {
      resized[f] = resize_planned(frames[f], plan, pipeline);
    }
    pixels[i] = plan.resize ? FrameRows{resized[f].data, plan.width * 3}
                            : FrameRows{frames[f].data, frames[f].stride};
  }

  Qwen2VLImageOutput result;
  result.patches = xt::xarray<float>::from_shape({rows, row_len});
  const ValueTable table = value_table(p, pipeline);
  float* out = result.patches.data();
  for (size_t g = 0; g < groups; ++g) {
    out = write_patch_rows(p, table, pixels.data() + g * depth, plan, out);
  }
  result.grid_thw = xt::xarray<size_t>{{groups, plan.grid_h, plan.grid_w}};
  return result;
}

}  // namespace

std::vector<int> sample_frame_indices(int total_frames, float video_fps, float target_fps,
                                      int min_frames, int max_frames, int temporal_patch_size) {
  if (total_frames < 1)
    throw std::runtime_error("sample_frame_indices: total_frames must be positive");
  if (!(video_fps > 0.0f) || !(target_fps > 0.0f)) {
    throw std::runtime_error("sample_frame_indices: video_fps and target_fps must be positive");
  }
  if (temporal_patch_size < 1) {
    throw std::runtime_error("sample_frame_indices: temporal_patch_size must be positive");
  }
  if (min_frames > max_frames) {
    throw std::runtime_error("sample_frame_indices: min_frames must not exceed max_frames");
  }
  if (min_frames < 1) throw std::runtime_error("sample_frame_indices: min_frames must be positive");
  const float wanted = static_cast<float>(total_frames) / video_fps * target_fps;
  int n = saturating_int(wanted);
  n = std::min(std::max(n, min_frames), std::min(max_frames, total_frames));
  // Whole temporal groups, at least one.
  n = std::max(n / temporal_patch_size * temporal_patch_size, temporal_patch_size);
  std::vector<int> indices(static_cast<size_t>(n));
  for (int i = 0; i < n; ++i) {
    indices[static_cast<size_t>(i)] = static_cast<int>(int64_t{i} * total_frames / n);
  }
  return indices;
}

// ---------------------------------------------------------------------------
// Processor
// ---------------------------------------------------------------------------

Qwen2VLImageProcessor::Qwen2VLImageProcessor(bool do_resize, long long min_pixels,
                                             long long max_pixels, bool do_rescale,
                                             float rescale_factor, bool do_normalize,
                                             std::vector<float> image_mean,
                                             std::vector<float> image_std, size_t patch_size,
                                             size_t temporal_patch_size, size_t merge_size)
    : do_resize(do_resize),
      min_pixels(min_pixels),
      max_pixels(max_pixels),
      do_rescale(do_rescale),
      rescale_factor(rescale_factor),
      do_normalize(do_normalize),
      image_mean(xt::adapt(image_mean, {image_mean.size()})),
      image_std(xt::adapt(image_std, {image_std.size()})),
      patch_size(patch_size),
      temporal_patch_size(temporal_patch_size),
      merge_size(merge_size) {}

Qwen2VLImageOutput Qwen2VLImageProcessor::preprocess(const std::string& image_path) {
  return _preprocess_single_image(load_image(image_path));
}

Qwen2VLImageOutput Qwen2VLImageProcessor::preprocess(
    const std::vector<xt::xtensor<uint8_t, 3>>& images) {
  // Nothing to stack: the two default-constructed (zero-dimensional) arrays.
  if (images.empty()) return Qwen2VLImageOutput{};
  std::vector<Pixels> pixels;
  pixels.reserve(images.size());
  for (const auto& image : images) pixels.push_back(pixels_of(image));
  return process_images(*this, pixels);
}

Qwen2VLImageOutput Qwen2VLImageProcessor::preprocess(
    const std::vector<vemoproc::ImageView>& images) {
  if (images.empty()) return Qwen2VLImageOutput{};
  // RGB views are read in place; other formats are converted once.
  std::vector<vemoproc::detail::RgbSource> sources;
  sources.reserve(images.size());
  std::vector<Pixels> pixels;
  pixels.reserve(images.size());
  for (const vemoproc::ImageView& view : images) {
    pixels.push_back(pixels_of(sources.emplace_back(view)));
  }
  return process_images(*this, pixels);
}

Qwen2VLImageOutput Qwen2VLImageProcessor::preprocess_video(
    const std::vector<vemoproc::ImageView>& frames) {
  std::vector<vemoproc::detail::RgbSource> sources;
  sources.reserve(frames.size());
  std::vector<Pixels> pixels;
  pixels.reserve(frames.size());
  for (const vemoproc::ImageView& view : frames) {
    const vemoproc::detail::RgbSource& rgb = sources.emplace_back(view);
    pixels.push_back(pixels_of(rgb));
  }
  return process_video(*this, pixels);
}

Qwen2VLImageOutput Qwen2VLImageProcessor::_preprocess_single_image(
    const xt::xtensor<uint8_t, 3>& image) {
  return process_images(*this, {pixels_of(image)});
}

// ---------------------------------------------------------------------------
// The same with a choice of pipeline
// ---------------------------------------------------------------------------

namespace {

// Views as the processor reads them (RGB borrowed, other formats converted).
struct ViewPixels {
  std::vector<vemoproc::detail::RgbSource> sources;
  std::vector<Pixels> pixels;

  explicit ViewPixels(const std::vector<vemoproc::ImageView>& views) {
    sources.reserve(views.size());
    pixels.reserve(views.size());
    for (const vemoproc::ImageView& view : views)
      pixels.push_back(pixels_of(sources.emplace_back(view)));
  }
};

}  // namespace

Qwen2VLImageOutput Qwen2VLImageProcessor::preprocess(const std::string& image_path,
                                                     vemoproc::Pipeline pipeline) {
  if (pipeline == vemoproc::Pipeline::Native) return preprocess(image_path);
  const vemoproc::Image image = vemoproc::detail::load_image_python(image_path);
  return preprocess(std::vector<vemoproc::ImageView>{image.view()}, pipeline);
}

Qwen2VLImageOutput Qwen2VLImageProcessor::preprocess(const std::vector<vemoproc::ImageView>& images,
                                                     vemoproc::Pipeline pipeline) {
  if (images.empty()) return Qwen2VLImageOutput{};
  const ViewPixels views(images);
  return process_images(*this, views.pixels, pipeline);
}

Qwen2VLImageOutput Qwen2VLImageProcessor::preprocess_video(
    const std::vector<vemoproc::ImageView>& frames, vemoproc::Pipeline pipeline) {
  const ViewPixels views(frames);
  return process_video(*this, views.pixels, pipeline);
}

}  // namespace qwen2vl
