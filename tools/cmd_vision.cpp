// vemoproc convnext | zentil | qwen2vl: vision-model inputs from image files,
// written as .npy.
#include "cli_common.hpp"

#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include "convnext.hpp"
#include "qwen2vl.hpp"
#include "zentil.hpp"

namespace {

struct ConvNextArgs {
  std::string image;
  int size = 224;
  float crop_pct = 0.875f;
  std::string output;
};

struct ZentilArgs {
  std::string image;
  int size = 224;
  std::string output;
};

// Published Qwen2-VL budget: 56 * 56 to 28 * 28 * 1280 pixels.
struct Qwen2VLArgs {
  std::vector<std::string> images;
  long long min_pixels = 56 * 56;
  long long max_pixels = 28 * 28 * 1280;
  size_t patch_size = 14;
  size_t temporal_patch_size = 2;
  size_t merge_size = 2;
  std::string output;
};

void add_convnext(CLI::App& app) {
  auto args = std::make_shared<ConvNextArgs>();
  CLI::App* cmd = app.add_subcommand(
      "convnext", "ConvNeXt input: shortest-edge resize, centre crop, normalise -> [3, S, S]");
  cmd->add_option("image", args->image, "Image file (any format stb_image reads)")->required();
  cmd->add_option("--size", args->size, "Side of the square crop")->capture_default_str();
  cmd->add_option("--crop-pct", args->crop_pct, "Crop fraction in (0, 1]")->capture_default_str();
  cmd->add_option("-o,--output", args->output, "Output .npy file")->required();
  cmd->callback([args] {
    cli::require_file(args->image);
    convnext::ConvNextPreprocessor pre(args->size, args->crop_pct);
    cli::write_npy(args->output, pre.process(args->image));
    std::cout << args->output << ": [3, " << args->size << ", " << args->size << "]\n";
  });
}

void add_zentil(CLI::App& app) {
  auto args = std::make_shared<ZentilArgs>();
  CLI::App* cmd = app.add_subcommand(
      "zentil", "Zentil input: stretch to a square, normalise to [-1, 1] -> [1, 3, S, S]");
  cmd->add_option("image", args->image, "Image file (any format stb_image reads)")->required();
  cmd->add_option("--size", args->size, "Side of the square output")->capture_default_str();
  cmd->add_option("-o,--output", args->output, "Output .npy file")->required();
  cmd->callback([args] {
    cli::require_file(args->image);
    zentil::ZentilPreprocessor pre(args->size);
    cli::write_npy(args->output, pre.process(args->image));
    std::cout << args->output << ": [1, 3, " << args->size << ", " << args->size << "]\n";
  });
}

void add_qwen2vl(CLI::App& app) {
  auto args = std::make_shared<Qwen2VLArgs>();
  CLI::App* cmd = app.add_subcommand(
      "qwen2vl",
      "Qwen2-VL input: patch-aligned resize, default statistics, merge-ordered patch rows");
  cmd->add_option("images", args->images, "Image files, stacked in this order")->required();
  cmd->add_option("--min-pixels", args->min_pixels, "Lower pixel budget")->capture_default_str();
  cmd->add_option("--max-pixels", args->max_pixels, "Upper pixel budget")->capture_default_str();
  cmd->add_option("--patch-size", args->patch_size, "Patch side in pixels")
      ->check(CLI::Range(size_t{1}, size_t{1} << 16))
      ->capture_default_str();
  cmd->add_option("--temporal-patch-size", args->temporal_patch_size, "Frames per patch")
      ->check(CLI::Range(size_t{1}, size_t{1} << 16))
      ->capture_default_str();
  cmd->add_option("--merge-size", args->merge_size, "Patches per merged block side")
      ->check(CLI::Range(size_t{1}, size_t{1} << 16))
      ->capture_default_str();
  cmd->add_option("-o,--output", args->output, "Output .npy file of patch rows")->required();
  cmd->callback([args] {
    std::vector<xt::xtensor<uint8_t, 3>> decoded;
    for (const std::string& path : args->images) {
      cli::require_file(path);
      decoded.push_back(qwen2vl::Qwen2VLImageProcessor::load_image(path));
    }
    qwen2vl::Qwen2VLImageProcessor proc(true, args->min_pixels, args->max_pixels, true,
                                        1.0f / 255.0f, true, qwen2vl::kDefaultImageMean,
                                        qwen2vl::kDefaultImageStd, args->patch_size,
                                        args->temporal_patch_size, args->merge_size);
    const qwen2vl::Qwen2VLImageOutput out = proc.preprocess(decoded);
    cli::write_npy(args->output, out.patches);
    for (size_t i = 0; i < args->images.size(); ++i) {
      const size_t t = out.grid_thw(i, 0), h = out.grid_thw(i, 1), w = out.grid_thw(i, 2);
      std::cout << args->images[i] << ": grid (t, h, w) = (" << t << ", " << h << ", " << w << "), "
                << t * h * w << " patch rows\n";
    }
    std::cout << args->output << ": [" << out.patches.shape(0) << ", " << out.patches.shape(1)
              << "]\n";
  });
}

}  // namespace

void add_vision_commands(CLI::App& app) {
  add_convnext(app);
  add_zentil(app);
  add_qwen2vl(app);
}
