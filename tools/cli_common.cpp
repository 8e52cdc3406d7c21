#include "cli_common.hpp"

#include <fstream>
#include <regex>

namespace cli {

std::array<int, 2> parse_size(const std::string& text, const std::string& option) {
  static const std::regex pattern("([0-9]{1,6})[xX]([0-9]{1,6})");
  std::smatch m;
  if (!std::regex_match(text, m, pattern)) {
    throw std::runtime_error(option + " expects WIDTHxHEIGHT (e.g. 640x640), got '" + text + "'");
  }
  const int w = std::stoi(m[1].str());
  const int h = std::stoi(m[2].str());
  if (w <= 0 || h <= 0) {
    throw std::runtime_error(option + " needs a positive width and height, got '" + text + "'");
  }
  return {w, h};
}

void require_file(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) throw std::runtime_error("no such file: " + path);
}

}  // namespace cli
