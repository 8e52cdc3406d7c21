// vemoproc convnext | zentil | qwen2vl: vision-model inputs from image files,
// written as .npy.
#include "cli_common.hpp"
#include "cli_images.hpp"

#include <iostream>
#include <limits>
#include <memory>
#include <string>
#include <vector>

#include "convnext.hpp"
#include "qwen2vl.hpp"
#include "zentil.hpp"

namespace {

constexpr const char* kImageHelp =
    "Image file (any format stb_image reads), or - for an encoded image on standard input";

// A family's result on one image argument: path arguments go through the
// path entry point (its own messages), standard input and raw frames through
// the view entry point.
template <class Pre>
xt::xarray<float> process_arg(Pre& pre, const std::string& image, const std::string& raw,
                              bool match_python) {
  if (match_python) {
    const vemoproc::Pipeline python = vemoproc::Pipeline::MatchPython;
    if (cli::needs_reading(image, raw)) {
      return pre.process(cli::read_image(image, raw, vemoproc::Decoder::Reference).view(), python);
    }
    cli::require_file(image);
    return pre.process(image, python);
  }
  if (cli::needs_reading(image, raw)) return pre.process(cli::read_image(image, raw).view());
  cli::require_file(image);
  return pre.process(image);
}

struct ConvNextArgs {
  std::string image;
  std::string raw;
  int size = 224;
  float crop_pct = 0.875f;
  std::string output;
  bool match_python = false;
  bool bilinear = false;
};

struct ZentilArgs {
  std::string image;
  std::string raw;
  int size = 224;
  std::string output;
  bool match_python = false;
};

// Published Qwen2-VL budget: 56 * 56 to 28 * 28 * 1280 pixels.
struct Qwen2VLArgs {
  std::vector<std::string> images;
  std::string raw;
  long long min_pixels = 56 * 56;
  long long max_pixels = 28 * 28 * 1280;
  size_t patch_size = 14;
  size_t temporal_patch_size = 2;
  size_t merge_size = 2;
  std::string output;
  bool match_python = false;
};

void add_convnext(CLI::App& app) {
  auto args = std::make_shared<ConvNextArgs>();
  CLI::App* cmd = app.add_subcommand(
      "convnext", "ConvNeXt input: shortest-edge resize, centre crop, normalise -> [3, S, S]");
  cmd->add_option("image", args->image, kImageHelp)->required();
  cmd->add_option("--raw", args->raw, cli::kRawHelp);
  cmd->add_option("--size", args->size, "Side of the square crop")
      ->check(cli::integer_in(1, std::numeric_limits<int>::max()))
      ->capture_default_str();
  cmd->add_option("--crop-pct", args->crop_pct, "Crop fraction in (0, 1]")
      ->check(cli::finite_float())
      ->capture_default_str();
  cmd->add_option("-o,--output", args->output, "Output .npy file")->required();
  cmd->add_flag("--match-python", args->match_python, cli::kMatchPythonHelp);
  cmd->add_flag("--bilinear", args->bilinear,
                "With --match-python: Pillow bilinear instead of bicubic");
  cmd->callback([args] {
    cli::check_pixels(args->size, args->size, "--size");
    convnext::ConvNextPreprocessor pre(args->size, args->crop_pct);
    if (args->bilinear) pre.resample = vemoproc::Resample::PillowBilinear;
    cli::write_npy(args->output, process_arg(pre, args->image, args->raw, args->match_python));
    std::cout << args->output << ": [3, " << args->size << ", " << args->size << "]\n";
  });
}

void add_zentil(CLI::App& app) {
  auto args = std::make_shared<ZentilArgs>();
  CLI::App* cmd = app.add_subcommand(
      "zentil", "Zentil input: stretch to a square, normalise to [-1, 1] -> [1, 3, S, S]");
  cmd->add_option("image", args->image, kImageHelp)->required();
  cmd->add_option("--raw", args->raw, cli::kRawHelp);
  cmd->add_option("--size", args->size, "Side of the square output")
      ->check(cli::integer_in(1, std::numeric_limits<int>::max()))
      ->capture_default_str();
  cmd->add_option("-o,--output", args->output, "Output .npy file")->required();
  cmd->add_flag("--match-python", args->match_python, cli::kMatchPythonHelp);
  cmd->callback([args] {
    cli::check_pixels(args->size, args->size, "--size");
    zentil::ZentilPreprocessor pre(args->size);
    cli::write_npy(args->output, process_arg(pre, args->image, args->raw, args->match_python));
    std::cout << args->output << ": [1, 3, " << args->size << ", " << args->size << "]\n";
  });
}

void add_qwen2vl(CLI::App& app) {
  auto args = std::make_shared<Qwen2VLArgs>();
  CLI::App* cmd = app.add_subcommand(
      "qwen2vl",
      "Qwen2-VL input: patch-aligned resize, default statistics, merge-ordered patch rows");
  cmd->add_option("images", args->images,
                  "Image files, stacked in this order (- for an encoded image on standard input)")
      ->required();
  cmd->add_option("--raw", args->raw, cli::kRawHelp);
  // The library narrows the budgets and patch_size * merge_size to int.
  constexpr long long kIntMax = std::numeric_limits<int>::max();
  cmd->add_option("--min-pixels", args->min_pixels, "Lower pixel budget")
      ->check(cli::integer_in(0, kIntMax))
      ->capture_default_str();
  cmd->add_option("--max-pixels", args->max_pixels, "Upper pixel budget")
      ->check(cli::integer_in(1, kIntMax))
      ->capture_default_str();
  cmd->add_option("--patch-size", args->patch_size, "Patch side in pixels")
      ->check(cli::unsigned_in(1, 1 << 16))
      ->capture_default_str();
  cmd->add_option("--temporal-patch-size", args->temporal_patch_size, "Frames per patch (1 to 16)")
      ->check(cli::unsigned_in(1, 16))
      ->capture_default_str();
  cmd->add_option("--merge-size", args->merge_size, "Patches per merged block side")
      ->check(cli::unsigned_in(1, 1 << 16))
      ->capture_default_str();
  cmd->add_option("-o,--output", args->output, "Output .npy file of patch rows")->required();
  cmd->add_flag("--match-python", args->match_python, cli::kMatchPythonHelp);
  cmd->callback([args] {
    if (args->patch_size * args->merge_size > static_cast<size_t>(kIntMax)) {
      throw std::runtime_error("--patch-size " + std::to_string(args->patch_size) +
                               " times --merge-size " + std::to_string(args->merge_size) +
                               " must fit int (at most 2147483647)");
    }
    if (args->min_pixels > args->max_pixels) {
      throw std::runtime_error("--min-pixels " + std::to_string(args->min_pixels) +
                               " is above --max-pixels " + std::to_string(args->max_pixels));
    }
    // Paths through the family's loader (its messages), standard input and
    // raw frames through the shared reader; all handed over as views.
    cli::check_stdin_once(args->images);
    std::vector<vemoproc::Image> decoded;
    decoded.reserve(args->images.size());
    std::vector<vemoproc::ImageView> views;
    for (const std::string& path : args->images) {
      if (args->match_python) {
        // The Python loader's pixels, also for files.
        if (!cli::needs_reading(path, args->raw)) cli::require_file(path);
        decoded.push_back(cli::needs_reading(path, args->raw)
                              ? cli::read_image(path, args->raw, vemoproc::Decoder::Reference)
                              : vemoproc::decode_image_file(path, vemoproc::Decoder::Reference));
      } else if (cli::needs_reading(path, args->raw)) {
        decoded.push_back(cli::read_image(path, args->raw));
      } else {
        cli::require_file(path);
        const auto image = qwen2vl::Qwen2VLImageProcessor::load_image(path);
        decoded.push_back({static_cast<int>(image.shape(1)), static_cast<int>(image.shape(0)),
                           std::vector<uint8_t>(image.begin(), image.end())});
      }
      views.push_back(decoded.back().view());
    }
    qwen2vl::Qwen2VLImageProcessor proc(true, args->min_pixels, args->max_pixels, true,
                                        1.0f / 255.0f, true, qwen2vl::kDefaultImageMean,
                                        qwen2vl::kDefaultImageStd, args->patch_size,
                                        args->temporal_patch_size, args->merge_size);
    const qwen2vl::Qwen2VLImageOutput out =
        proc.preprocess(views, cli::pipeline_of(args->match_python));
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
