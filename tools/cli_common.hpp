#pragma once
// Pieces shared by the subcommands of the vemoproc tool.
#include <CLI/CLI.hpp>

#include <array>
#include <chrono>
#include <memory>
#include <stdexcept>
#include <string>

#include <xtensor/xarray.hpp>
#include <xtensor/xnpy.hpp>

namespace cli {

// "WxH" (e.g. "640x480") to {width, height}; throws std::runtime_error on a
// malformed or non-positive size, naming the option.
std::array<int, 2> parse_size(const std::string& text, const std::string& option);

// Throws std::runtime_error("no such file: PATH") unless PATH is a readable
// file, and "PATH is a directory" for a directory.
void require_file(const std::string& path);

// Writes the bytes to PATH, checking every write and the close; throws a
// one-line std::runtime_error "cannot write PATH: REASON".
void write_file(const std::string& path, const std::string& bytes);

// Encodes `channels`-byte pixels (rows of w * channels bytes) as PNG in memory,
// then writes through write_file (stb's own file writer ignores failed writes).
void write_png(const std::string& path, const uint8_t* pixels, int w, int h, int channels);

// Writes a tensor as .npy with xtensor's own writer (into memory, then
// write_file); throws when the file cannot be written.
template <class E>
void write_npy(const std::string& path, const E& tensor) {
  write_file(path, xt::dump_npy(tensor));
}

// Reads a .npy of float32, float64, int32, int64, int8 or uint8 elements as
// float through the tool's own reader (npy.hpp); throws a one-line
// std::runtime_error naming the file when it is missing, malformed, truncated,
// longer than declared, or holds anything else.
xt::xarray<float> load_npy_as_float(const std::string& path);

// CLI11 checks run on an option's text before it is converted, so that no
// value narrows or wraps: an integer written in decimal within [lo, hi], and a
// finite number within float's range (optionally within [lo, hi]). The
// messages name the option (CLI11 prefixes it).
CLI::Validator integer_in(long long lo, long long hi);
CLI::Validator unsigned_in(unsigned long long lo, unsigned long long hi);
CLI::Validator finite_float(double lo = -3.4028234663852886e38, double hi = 3.4028234663852886e38);

// Refuses WIDTHxHEIGHT sizes (or a square side) above the library's pixel
// budget, naming the option.
void check_pixels(long long width, long long height, const std::string& option);

// Builds the whole command line (every subcommand registered); parse errors
// are CLI11 exceptions, run-time errors std::exception.
std::unique_ptr<CLI::App> make_app();

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
