#pragma once
// Qwen2-VL image input: patch-aligned size rule within a pixel budget,
// Catmull-Rom resize, and merge-ordered flattened patch rows.
#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include <xtensor/xarray.hpp>
#include <xtensor/xtensor.hpp>

#include "pixels.hpp"
#include "vemoproc_export.hpp"

namespace qwen2vl {

// Published Qwen2-VL statistics, for callers to pass as image_mean and
// image_std (no function reads them itself).
VEMOPROC_API extern const std::vector<float>
    kDefaultImageMean;  // 0.48145466, 0.4578275, 0.40821073
VEMOPROC_API extern const std::vector<float>
    kDefaultImageStd;  // 0.26862954, 0.26130258, 0.27577711

// Target (height, width): each side rounded half away from zero to a
// multiple of `factor` (at least `factor`), then, when the product exceeds
// max_pixels, shrunk by beta = sqrtf(height * width / max_pixels) with a floor
// to a multiple of factor (no lower clamp); when it is below min_pixels,
// enlarged by beta = sqrtf(min_pixels / (height * width)) with a ceil. All in
// 32-bit int and single-precision float, in that order of operations.
//
// Throws std::runtime_error "Absolute aspect ratio must be smaller than 200"
// when max(h, w) / min(h, w), an integer quotient, is 201 or more (a zero side
// gives quotient 0 and passes), and a message naming the argument where the
// rule would divide by zero: `factor` 0, `max_pixels` of 0 or less when the
// rounded size exceeds it, and a zero height * width when the rounded size is
// below min_pixels.
// Int products that overflow wrap (two's complement) and float-to-int
// conversions saturate at the int limits with NaN giving 0, so every argument
// value has a defined result.
VEMOPROC_API std::pair<int, int> smart_resize(int height, int width, int factor, int min_pixels,
                                              int max_pixels);

// The size rule of the Python (Hugging Face) Qwen2-VL processor, next to the
// library's own above, in double precision as Python computes it: each side
// rounded to a multiple of factor with halves to even; when the product
// exceeds max_pixels, beta = sqrt(height * width / max_pixels) and each side
// becomes floor(side / beta / factor) * factor (the original sides, not the
// rounded ones); when it is below min_pixels, beta =
// sqrt(min_pixels / (height * width)) and each side becomes
// ceil(side * beta / factor) * factor. 1600x1200 -> (840, 1148) with the
// default budget. Throws std::runtime_error
// "smart_resize_match_python: height H and width W must be at least factor F"
// for a side below factor, "Absolute aspect ratio must be smaller than 200"
// when max(h, w) / min(h, w) (a true quotient) is above 200, and a message
// naming `factor` or `max_pixels` when it is not positive.
VEMOPROC_API std::pair<int, int> smart_resize_match_python(int height, int width, int factor,
                                                           long long min_pixels,
                                                           long long max_pixels);

// Resamples an [H, W, 3] RGB image to [new_height, new_width, 3] with
// Catmull-Rom and clamped edges. A resampler failure (e.g. an empty input)
// leaves the result black. Only the first H * W * 3 bytes are read: the
// channel count is taken to be 3. Throws std::runtime_error naming the
// argument when the image holds fewer bytes than that, or when a side of the
// image or new_height / new_width is negative or above 16777216 (the
// decoder's limit; far larger sides overflow the resampler), and
// "Failed to resize image" when the target exceeds vemoproc::max_image_pixels().
VEMOPROC_API xt::xtensor<uint8_t, 3> resize_image(const xt::xtensor<uint8_t, 3>& image,
                                                  int new_height, int new_width);

// Which frames of a decoded video to hand to preprocess_video:
// n = total_frames / video_fps * target_fps (float, truncated), clamped to
// [min_frames, min(max_frames, total_frames)], floored to a multiple of
// temporal_patch_size (at least one group); indices i * total_frames / n
// (integer division), evenly spaced from 0. Throws std::runtime_error naming
// the argument for non-positive counts or rates, or min_frames > max_frames.
VEMOPROC_API std::vector<int> sample_frame_indices(int total_frames, float video_fps,
                                                   float target_fps, int min_frames, int max_frames,
                                                   int temporal_patch_size);

// Flattened patch rows and the patch grid of every image.
struct Qwen2VLImageOutput {
  xt::xarray<float> patches;    // [patches, 3 * temporal_patch_size * patch_size^2]
  xt::xarray<size_t> grid_thw;  // [images, 3]: grid_t, grid_h, grid_w
};

class VEMOPROC_API Qwen2VLImageProcessor {
 public:
  bool do_resize;
  long long min_pixels;
  long long max_pixels;
  bool do_rescale;
  float rescale_factor;
  bool do_normalize;
  xt::xtensor<float, 1> image_mean;  // length 1 serves all three channels
  xt::xtensor<float, 1> image_std;
  size_t patch_size;
  size_t temporal_patch_size;
  size_t merge_size;

  // Stores the arguments; validates nothing (the processing calls do).
  Qwen2VLImageProcessor(bool do_resize, long long min_pixels, long long max_pixels, bool do_rescale,
                        float rescale_factor, bool do_normalize, std::vector<float> image_mean,
                        std::vector<float> image_std, size_t patch_size, size_t temporal_patch_size,
                        size_t merge_size);

  // Decodes a file as [height, width, 3] RGB (grey expanded, alpha dropped).
  // Throws std::runtime_error "Failed to load image: PATH".
  static xt::xtensor<uint8_t, 3> load_image(const std::string& image_path);

  // _preprocess_single_image(load_image(image_path)).
  Qwen2VLImageOutput preprocess(const std::string& image_path);

  // Every image through _preprocess_single_image, rows stacked in input
  // order; grid_thw gets one row per image. An empty vector returns two
  // default-constructed (zero-dimensional) arrays. The result is built in
  // one allocation, so the cost is linear in the number of images.
  Qwen2VLImageOutput preprocess(const std::vector<xt::xtensor<uint8_t, 3>>& images);

  // The same on a caller's pixels (any vemoproc::PixelFormat; RGB views are
  // read in place, strided or not, other formats converted first). For RGB
  // pixels equal to what a file decodes to, each image's rows are
  // bit-identical to the decoded-image form. Throws as that form, and
  // std::runtime_error naming the argument for a view that cannot be read.
  Qwen2VLImageOutput preprocess(const std::vector<vemoproc::ImageView>& images);

  // One video: frames of one size, each resized exactly as a still image of
  // that size would be (same smart_resize target and resampler), rescaled and
  // normalised the same way. The frame count is padded up to a multiple of
  // temporal_patch_size with copies of the last frame; each group of
  // temporal_patch_size consecutive frames is one step of the patches'
  // temporal axis. Rows run over the groups first, then the merge-ordered
  // blocks of the still-image rule; grid_thw is [1, 3] = (groups, grid_h,
  // grid_w). A one-frame video equals the still image. Throws
  // std::runtime_error naming `frames` when it is empty or the sizes differ,
  // and whatever the still-image form throws.
  Qwen2VLImageOutput preprocess_video(const std::vector<vemoproc::ImageView>& frames);

  // The calls above with a choice of pipeline: Native is the call without
  // it; MatchPython gives the rows of the Python (Hugging Face) processor bit
  // for bit: files decoded by vemoproc::Decoder::Reference (EXIF applied),
  // smart_resize_match_python, a Pillow bicubic resize
  // (vemoproc::Resample::PillowBicubic, skipped when the size does not
  // change), rescale as float(double(byte) * s) with s = 1 / 255 in double
  // when rescale_factor is 1 / 255.0f (otherwise double(rescale_factor)),
  // then (v - mean[c]) / std[c] in float, in the same patch order.
  // grid_thw holds the values of the Python processor's int64 image_grid_thw.
  // Throws as the Native calls, and what smart_resize_match_python throws.
  Qwen2VLImageOutput preprocess(const std::string& image_path, vemoproc::Pipeline pipeline);
  Qwen2VLImageOutput preprocess(const std::vector<vemoproc::ImageView>& images,
                                vemoproc::Pipeline pipeline);
  Qwen2VLImageOutput preprocess_video(const std::vector<vemoproc::ImageView>& frames,
                                      vemoproc::Pipeline pipeline);

  // One image: optional smart_resize + resize_image (factor = patch_size *
  // merge_size, budgets narrowed to int by wrapping), value -> float,
  // optional * rescale_factor, optional (v - mean[c]) / std[c], the frame
  // repeated temporal_patch_size times, cut into patch_size^2 patches ordered
  // by merge_size x merge_size blocks. Rows: [grid_t * grid_h * grid_w,
  // 3 * temporal_patch_size * patch_size^2], values channel, frame, pixel row,
  // pixel column; grid_thw [1, 3].
  //
  // Throws std::runtime_error naming the argument when patch_size,
  // temporal_patch_size or merge_size is 0, when image_mean or image_std has
  // fewer than 3 elements (other than exactly 1), and a reshape error when a
  // side is not a multiple of patch_size * merge_size (only possible with
  // do_resize false) or the image does not have 3 channels. Errors of
  // smart_resize, resize_image and the allocator propagate (std::length_error
  // when the patch matrix would hold more than SIZE_MAX elements).
  Qwen2VLImageOutput _preprocess_single_image(const xt::xtensor<uint8_t, 3>& image);
};

}  // namespace qwen2vl
