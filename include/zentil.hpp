#pragma once
// Zentil vision-encoder input: stretch to a square, normalise to [-1, 1],
// channel-first with a batch axis.
#include <array>
#include <string>

#include <xtensor/xarray.hpp>

#include "pixels.hpp"
#include "vemoproc_export.hpp"

namespace zentil {

class VEMOPROC_API ZentilPreprocessor {
 public:
  int size;
  std::array<float, 3> mean;  // 0.5 on every channel
  std::array<float, 3> std;   // 0.5 on every channel

  // Stores `size` and the fixed statistics; validates nothing.
  explicit ZentilPreprocessor(int size);

  // Decodes the file as 8-bit RGB, stretches the whole image to size x size
  // with Catmull-Rom (aspect ratio not kept, nothing cropped) and returns
  // [1, 3, size, size] with ((float)byte * (1/255.0f) - 0.5f) / 0.5f.
  // size 0 gives an empty [1, 3, 0, 0] tensor.
  //
  // Throws std::runtime_error:
  //  - "Failed to load image: PATH" when the file cannot be decoded;
  //  - "Failed to resize image" when the resampler fails, or when size x size
  //    exceeds vemoproc::max_image_pixels();
  //  - a message naming `size` when size is negative or above 16777216
  //    (the decoder's side limit).
  // Allocation failures propagate.
  xt::xarray<float> process(const std::string& image_path);

  // The same pipeline on a caller's pixels (any vemoproc::PixelFormat; RGB
  // views are resized in place, other formats converted first). For RGB
  // pixels equal to what a file decodes to, the result is bit-identical to
  // process(path). Throws as above, and std::runtime_error naming the
  // argument for a view that cannot be read.
  xt::xarray<float> process(const vemoproc::ImageView& image);

  // The calls above with a choice of pipeline: Native is the call without
  // it; MatchPython gives the Python (Hugging Face) SigLIP processor's
  // tensor bit for bit: files decoded by vemoproc::Decoder::Reference (EXIF
  // applied), a Pillow bicubic resize to size x size (skipped when the size
  // does not change), float(double(byte) / 255), then (x - mean[c]) / std[c]
  // in float. [1, 3, size, size]; size 0 gives an empty tensor. Throws as
  // the Native calls (decoding errors propagate from
  // vemoproc::decode_image_file).
  xt::xarray<float> process(const std::string& image_path, vemoproc::Pipeline pipeline);
  xt::xarray<float> process(const vemoproc::ImageView& image, vemoproc::Pipeline pipeline);
};

}  // namespace zentil
