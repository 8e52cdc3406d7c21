#pragma once
// Pieces shared by the subcommands of the vemoproc tool.
#include <CLI/CLI.hpp>

#include <array>
#include <chrono>
#include <stdexcept>
#include <string>

#include <xtensor/xarray.hpp>
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

// The element type of an .npy file, as its header's descr (e.g. "<i4");
// throws a one-line std::runtime_error naming the file when it is missing or
// not an .npy file.
std::string npy_descr(const std::string& path);

// Reads a .npy of float32, float64, int32 or int64 elements as float; throws a
// one-line std::runtime_error naming the file when it is missing or holds
// anything else.
xt::xarray<float> load_npy_as_float(const std::string& path);

// Prints "[k/n] label ... done (X ms)" around one stage of a pipeline, so a
// person watching a long run sees where it is.
class Stage {
 public:
  Stage(int index, int count, const std::string& label);
  ~Stage();
  Stage(const Stage&) = delete;
  Stage& operator=(const Stage&) = delete;

 private:
  std::chrono::steady_clock::time_point start_;
};

}  // namespace cli

// Each family registers its subcommands on the top-level app.
void add_yolo_commands(CLI::App& app);
void add_vision_commands(CLI::App& app);
void add_dia_commands(CLI::App& app);
void add_stream_command(CLI::App& app);
