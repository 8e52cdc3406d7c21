#pragma once
// ConvNeXt classifier input: shortest-edge resize, centre crop, per-channel
// normalisation, channel-first output.
#include <array>
#include <string>

#include <xtensor/xarray.hpp>

#include "pixels.hpp"
#include "vemoproc_export.hpp"

namespace convnext {

class VEMOPROC_API ConvNextPreprocessor {
 public:
  int size;
  float crop_pct;
  std::array<float, 3> mean;  // R, G, B: 0.485, 0.456, 0.406
  std::array<float, 3> std;   // R, G, B: 0.229, 0.224, 0.225
  // The MatchPython forms' filter: PillowBicubic (the published checkpoints'
  // setting) or PillowBilinear (the Python class default). Native ignores it.
  vemoproc::Resample resample = vemoproc::Resample::PillowBicubic;

  // Stores the arguments and the fixed statistics; validates nothing.
  ConvNextPreprocessor(int size, float crop_pct);

  // Decodes the file as 8-bit RGB, scales its shortest edge to
  // (int)(size / crop_pct) with Catmull-Rom, cuts the centred size x size
  // square (an odd margin leaves the extra pixel right and bottom) and returns
  // [3, size, size] with ((float)byte * (1/255.0f) - mean[c]) / std[c].
  //
  // Throws std::runtime_error:
  //  - "Failed to load image: PATH" when the file cannot be decoded;
  //  - "Failed to resize image" when the resampler fails;
  //  - a message naming `size` or `crop_pct` when size < 1 or crop_pct is
  //    outside (0, 1] (NaN included), and one naming size / crop_pct when the
  //    resized image would be smaller than the crop (32-bit overflow) or have
  //    a side above 16777216, the decoder's limit;
  //  - "Failed to resize image" also when the resized image would exceed
  //    vemoproc::max_image_pixels().
  // Sizes are computed in 32-bit as documented; products that overflow wrap
  // and float-to-int conversions saturate (NaN gives 0) instead of being
  // undefined. Allocation failures propagate.
  xt::xarray<float> process(const std::string& image_path);

  // The same pipeline on a caller's pixels (any vemoproc::PixelFormat; RGB
  // views are resized in place, other formats converted first). For RGB
  // pixels equal to what a file decodes to, the result is bit-identical to
  // process(path). Throws as above, and std::runtime_error naming the
  // argument for a view that cannot be read.
  xt::xarray<float> process(const vemoproc::ImageView& image);

  // The calls above with a choice of pipeline: Native is the call without
  // it; MatchPython gives the Python (Hugging Face) ConvNeXt processor's
  // tensor bit for bit: files decoded by vemoproc::Decoder::Reference (EXIF
  // applied); below size 384 the shortest edge goes to
  // short = int(size / crop_pct) (double division, truncated) and the other
  // to int(short * long / shortest) (double), a Pillow resize with
  // `resample` (skipped when the size does not change), then the centred
  // size x size crop at ((H - size) // 2, (W - size) // 2), zero-padded where
  // it reaches past the image (crop_pct above 1); from 384 up, a resize
  // straight to size x size, no crop. Then float(double(byte) / 255) and
  // (x - mean[c]) / std[c] in float. [3, size, size].
  // Throws std::runtime_error naming `size` (below 1), `crop_pct` (not a
  // positive finite number) or `resample` (not a Pillow filter), "Failed to
  // resize image" for a resized image that is empty, has a side above
  // 16777216 or exceeds vemoproc::max_image_pixels(), and the view and
  // decoding errors of the Native forms (decoding errors propagate from
  // vemoproc::decode_image_file).
  xt::xarray<float> process(const std::string& image_path, vemoproc::Pipeline pipeline);
  xt::xarray<float> process(const vemoproc::ImageView& image, vemoproc::Pipeline pipeline);
};

}  // namespace convnext
