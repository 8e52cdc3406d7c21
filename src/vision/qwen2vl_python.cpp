// Qwen2-VL's Python (Hugging Face) size rule, in double precision as Python
// computes it. The processor's MatchPython forms use it in qwen2vl_proc.cpp.
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <stdexcept>
#include <string>

#include "qwen2vl.hpp"

namespace qwen2vl {

namespace {

// Python's round() on a double: the nearest integer, halves to even.
double round_half_even(double v) {
  const double f = std::floor(v);
  const double d = v - f;
  if (d > 0.5) return f + 1.0;
  if (d < 0.5) return f;
  return std::fmod(f, 2.0) == 0.0 ? f : f + 1.0;
}

// A side of the rule as int; sides beyond int are out of any budget.
int side_of(double multiple, int factor) {
  const double v = multiple * factor;
  if (!(v <= 2147483647.0))
    throw std::runtime_error("smart_resize_match_python: size overflows int");
  return static_cast<int>(v);
}

}  // namespace

std::pair<int, int> smart_resize_match_python(int height, int width, int factor,
                                              long long min_pixels, long long max_pixels) {
  if (factor < 1) throw std::runtime_error("smart_resize_match_python: factor must be positive");
  if (height < factor || width < factor) {
    throw std::runtime_error("smart_resize_match_python: height " + std::to_string(height) +
                             " and width " + std::to_string(width) + " must be at least factor " +
                             std::to_string(factor));
  }
  const double h = height;
  const double w = width;
  if (std::max(h, w) / std::min(h, w) > 200.0) {
    throw std::runtime_error("Absolute aspect ratio must be smaller than 200");
  }
  const double f = factor;
  int h_bar = side_of(round_half_even(h / f), factor);
  int w_bar = side_of(round_half_even(w / f), factor);
  const int64_t area = int64_t{height} * width;
  if (int64_t{h_bar} * w_bar > max_pixels) {
    if (max_pixels <= 0) {
      throw std::runtime_error("smart_resize_match_python: max_pixels must be positive");
    }
    const double beta = std::sqrt(static_cast<double>(area) / static_cast<double>(max_pixels));
    h_bar = side_of(std::floor(h / beta / f), factor);
    w_bar = side_of(std::floor(w / beta / f), factor);
  } else if (int64_t{h_bar} * w_bar < min_pixels) {
    const double beta = std::sqrt(static_cast<double>(min_pixels) / static_cast<double>(area));
    h_bar = side_of(std::ceil(h * beta / f), factor);
    w_bar = side_of(std::ceil(w * beta / f), factor);
  }
  return {h_bar, w_bar};
}

}  // namespace qwen2vl
