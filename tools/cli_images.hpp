#pragma once
// Image arguments of the tool's image subcommands: a file path, "-" for an
// encoded image on standard input, or (with --raw WIDTHxHEIGHT:FORMAT) a raw
// frame file or "-" for a raw frame on standard input.
#include <string>
#include <vector>

#include "pixels.hpp"

namespace cli {

// Registers the --raw option's help text in one place.
constexpr const char* kRawHelp =
    "Read the images as raw frames WIDTHxHEIGHT:FORMAT, FORMAT one of rgb, bgr, rgba, bgra, "
    "gray, nv12, nv21, i420 (YUV 4:2:0, add +full for full range), tightly packed";

// True when `arg` must go through read_image rather than a path entry point.
inline bool needs_reading(const std::string& arg, const std::string& raw) {
  return arg == "-" || !raw.empty();
}

// Reads and converts one image argument to RGB. Throws a one-line
// std::runtime_error naming the argument on a malformed --raw value, a frame
// file of the wrong size, or bytes that do not decode.
vemoproc::Image read_image(const std::string& arg, const std::string& raw);

// read_image with a choice of decoder for encoded bytes (raw frames are not
// decoded): vemoproc::Decoder::Reference for the --match-python forms.
vemoproc::Image read_image(const std::string& arg, const std::string& raw,
                           vemoproc::Decoder decoder);

// Registers the --match-python flag's help text in one place.
constexpr const char* kMatchPythonHelp =
    "Give the Python pipeline's tensor bit for bit (OpenCV-style letterbox for yolo, the Hugging "
    "Face processor for the vision families), decoding files as the Python loaders do";

// The pipeline the --match-python flag selects.
inline vemoproc::Pipeline pipeline_of(bool match_python) {
  return match_python ? vemoproc::Pipeline::MatchPython : vemoproc::Pipeline::Native;
}

// Refuses more than one "-" among the image arguments (standard input can be
// read once).
void check_stdin_once(const std::vector<std::string>& args);

}  // namespace cli
