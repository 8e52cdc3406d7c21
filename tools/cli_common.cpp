#include "cli_common.hpp"

#include <cerrno>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iomanip>
#include <iostream>
#include <sstream>

#include "npy.hpp"
#include "pixels.hpp"
#include "stb_image_write.h"

namespace cli {

std::array<int, 2> parse_size(const std::string& text, const std::string& option) {
  const auto bad = [&] {
    return std::runtime_error(
        option + " expects WIDTHxHEIGHT with positive sides (e.g. 640x640), got '" + text + "'");
  };
  const size_t x = text.find_first_of("xX");
  if (x == std::string::npos) throw bad();
  std::array<int, 2> size{};
  const char* begin = text.data();
  const char* end = begin + text.size();
  const auto w = std::from_chars(begin, begin + x, size[0]);
  const auto h = std::from_chars(begin + x + 1, end, size[1]);
  if (w.ec != std::errc() || w.ptr != begin + x || h.ec != std::errc() || h.ptr != end ||
      size[0] <= 0 || size[1] <= 0) {
    throw bad();
  }
  return size;
}

void require_file(const std::string& path) {
  std::error_code ec;
  if (std::filesystem::is_directory(path, ec)) throw std::runtime_error(path + " is a directory");
  std::ifstream in(path, std::ios::binary);
  if (!in) throw std::runtime_error("no such file: " + path);
}

void write_file(const std::string& path, const std::string& bytes) {
  const auto failed = [&](int err) {
    return std::runtime_error("cannot write " + path + ": " + std::strerror(err));
  };
  std::FILE* f = std::fopen(path.c_str(), "wb");
  if (f == nullptr) throw failed(errno);
  if (std::fwrite(bytes.data(), 1, bytes.size(), f) != bytes.size() || std::fflush(f) != 0) {
    const int err = errno;
    std::fclose(f);
    throw failed(err);
  }
  if (std::fclose(f) != 0) throw failed(errno);
}

void write_png(const std::string& path, const uint8_t* pixels, int w, int h, int channels) {
  std::string bytes;
  const auto append = [](void* context, void* data, int size) {
    static_cast<std::string*>(context)->append(static_cast<const char*>(data),
                                               static_cast<size_t>(size));
  };
  if (!stbi_write_png_to_func(append, &bytes, w, h, channels, pixels, w * channels)) {
    throw std::runtime_error("cannot write " + path + ": PNG encoding failed");
  }
  write_file(path, bytes);
}

xt::xarray<float> load_npy_as_float(const std::string& path) {
  const std::vector<uint8_t> bytes = read_file(path);
  const NpyHeader header = parse_npy(bytes.data(), bytes.size(), path);
  return npy_as_float(header, bytes.data());
}

CLI::Validator integer_in(long long lo, long long hi) {
  const std::string range = std::to_string(lo) + " to " + std::to_string(hi);
  return CLI::Validator(
      [lo, hi, range](std::string& text) -> std::string {
        long long v = 0;
        const char* end = text.data() + text.size();
        const auto r = std::from_chars(text.data(), end, v);
        if (r.ec != std::errc() || r.ptr != end || v < lo || v > hi) {
          return "expects an integer from " + range + ", got '" + text + "'";
        }
        return {};
      },
      "INT in [" + range + "]", "integer_in");
}

CLI::Validator unsigned_in(unsigned long long lo, unsigned long long hi) {
  const std::string range = std::to_string(lo) + " to " + std::to_string(hi);
  return CLI::Validator(
      [lo, hi, range](std::string& text) -> std::string {
        unsigned long long v = 0;
        const char* end = text.data() + text.size();
        const auto r = std::from_chars(text.data(), end, v);  // no sign accepted
        if (r.ec != std::errc() || r.ptr != end || v < lo || v > hi) {
          return "expects an integer from " + range + ", got '" + text + "'";
        }
        return {};
      },
      "INT in [" + range + "]", "unsigned_in");
}

CLI::Validator finite_float(double lo, double hi) {
  return CLI::Validator(
      [lo, hi](std::string& text) -> std::string {
        // strtod, not from_chars: libstdc++ 9-10 lack the floating overloads.
        errno = 0;
        char* end = nullptr;
        const double v = text.empty() ? 0.0 : std::strtod(text.c_str(), &end);
        if (text.empty() || end != text.c_str() + text.size() ||
            std::isspace(static_cast<unsigned char>(text[0])) || !std::isfinite(v) || v < lo ||
            v > hi) {
          std::ostringstream range;
          range << " from " << lo << " to " << hi;
          const bool whole_range = lo <= -3.4e38 && hi >= 3.4e38;
          return "expects a finite number" + (whole_range ? std::string() : range.str()) +
                 ", got '" + text + "'";
        }
        return {};
      },
      "NUMBER", "finite_float");
}

void check_pixels(long long width, long long height, const std::string& option) {
  const uint64_t budget = vemoproc::max_image_pixels();
  if (width > 0 && height > 0 &&
      static_cast<unsigned long long>(width) > budget / static_cast<unsigned long long>(height)) {
    throw std::runtime_error(option + " asks for " + std::to_string(width) + " x " +
                             std::to_string(height) + " pixels, more than the pixel budget (" +
                             std::to_string(budget) + ")");
  }
}

std::unique_ptr<CLI::App> make_app() {
  auto app = std::make_unique<CLI::App>(
      "vemoproc: model pre- and post-processing on files (detection, vision inputs, "
      "speech-synthesis helpers, text streaming)");
  app->require_subcommand(1);
  app->set_help_all_flag("--help-all", "Show help for every subcommand");
  add_yolo_commands(*app);
  add_vision_commands(*app);
  add_dia_commands(*app);
  add_stream_command(*app);
  return app;
}

Stage::Stage(int index, int count, const std::string& label)
    : start_(std::chrono::steady_clock::now()) {
  std::cout << "[" << index << "/" << count << "] " << label << " ... " << std::flush;
}

Stage::~Stage() {
  const std::chrono::duration<double, std::milli> ms = std::chrono::steady_clock::now() - start_;
  std::cout << "done (" << std::fixed << std::setprecision(2) << ms.count() << " ms)" << std::endl;
}

}  // namespace cli
