#pragma once
// Reads typed values off the front of a fuzzer's input; past the end every
// read yields zeros, so a harness never reads outside the data.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

class FuzzInput {
 public:
  FuzzInput(const uint8_t* data, size_t size) : data_(data), size_(size) {}

  template <class T>
  T take() {
    T value{};
    const size_t n = std::min(sizeof(T), size_ - pos_);
    std::memcpy(&value, data_ + pos_, n);
    pos_ += n;
    return value;
  }

  // An integer in [lo, hi].
  int range(int lo, int hi) {
    const auto v = take<uint32_t>();
    return lo + static_cast<int>(v % static_cast<uint32_t>(hi - lo + 1));
  }

  std::string string(size_t max_len) {
    const size_t n = std::min<size_t>(take<uint8_t>() % (max_len + 1), size_ - pos_);
    std::string s(reinterpret_cast<const char*>(data_ + pos_), n);
    pos_ += n;
    return s;
  }

  std::vector<uint8_t> rest() {
    std::vector<uint8_t> v(data_ + pos_, data_ + size_);
    pos_ = size_;
    return v;
  }

  size_t remaining() const { return size_ - pos_; }

 private:
  const uint8_t* data_;
  size_t size_;
  size_t pos_ = 0;
};
