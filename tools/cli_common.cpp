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

// The element type of an .npy file, as its header's descr (e.g. "<i4").
std::string npy_descr(const std::string& path) {
  require_file(path);
  std::ifstream in(path, std::ios::binary);
  char magic[8] = {};
  in.read(magic, sizeof magic);
  if (!in || std::string(magic, 6) != "\x93NUMPY") {
    throw std::runtime_error(path + " is not an .npy file");
  }
  unsigned char size_bytes[4] = {};
  const int width = magic[6] == 1 ? 2 : 4;  // header length field: 2 bytes in version 1
  in.read(reinterpret_cast<char*>(size_bytes), width);
  size_t header_size = 0;
  for (int i = width - 1; i >= 0; --i) header_size = header_size * 256 + size_bytes[i];
  std::string header(std::min<size_t>(header_size, 1 << 16), '\0');
  in.read(header.data(), static_cast<std::streamsize>(header.size()));
  const std::string key = "'descr': '";
  const size_t at = header.find(key);
  const size_t end = at == std::string::npos ? at : header.find('\'', at + key.size());
  if (end == std::string::npos) throw std::runtime_error(path + ": .npy header has no descr");
  return header.substr(at + key.size(), end - at - key.size());
}

xt::xarray<float> load_npy_as_float(const std::string& path) {
  const std::string descr = npy_descr(path);
  if (descr == "<f4") return xt::load_npy<float>(path);
  if (descr == "<f8") return xt::cast<float>(xt::load_npy<double>(path));
  if (descr == "<i4") return xt::cast<float>(xt::load_npy<int32_t>(path));
  if (descr == "<i8") return xt::cast<float>(xt::load_npy<int64_t>(path));
  throw std::runtime_error(path + " holds " + descr +
                           " values; expected float32, float64, int32 or int64");
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
