#pragma once
// Pieces shared by the subcommands of the vemoproc tool.
#include <CLI/CLI.hpp>

#include <array>
#include <stdexcept>
#include <string>

#include <xtensor/xnpy.hpp>

namespace cli {

// "WxH" (e.g. "640x480") to {width, height}; throws std::runtime_error on a
// malformed or non-positive size, naming the option.
std::array<int, 2> parse_size(const std::string& text, const std::string& option);

// Throws std::runtime_error("no such file: PATH") unless PATH is a readable file.
void require_file(const std::string& path);

// Writes a tensor as .npy with xtensor's own writer; throws when the file
// cannot be written.
template <class E>
void write_npy(const std::string& path, const E& tensor) {
  try {
    xt::dump_npy(path, tensor);
  } catch (const std::exception& e) {
    throw std::runtime_error("cannot write " + path + ": " + e.what());
  }
}

}  // namespace cli

// Each family registers its subcommands on the top-level app.
void add_yolo_commands(CLI::App& app);
void add_vision_commands(CLI::App& app);
void add_dia_commands(CLI::App& app);
void add_stream_command(CLI::App& app);
