#include "cli_common.hpp"

#include <charconv>
#include <fstream>
#include <iomanip>
#include <iostream>

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
  std::ifstream in(path, std::ios::binary);
  if (!in) throw std::runtime_error("no such file: " + path);
}

namespace {

template <class T>
bool try_load_npy(const std::string& path, xt::xarray<float>& out) {
  try {
    out = xt::cast<float>(xt::load_npy<T>(path));
    return true;
  } catch (const std::exception&) {
    return false;
  }
}

}  // namespace

xt::xarray<float> load_npy_as_float(const std::string& path) {
  require_file(path);
  xt::xarray<float> out;
  if (try_load_npy<float>(path, out) || try_load_npy<double>(path, out) ||
      try_load_npy<int32_t>(path, out) || try_load_npy<int64_t>(path, out)) {
    return out;
  }
  throw std::runtime_error(path + ": not a .npy file of float32, float64, int32 or int64");
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
