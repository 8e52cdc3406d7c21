#include "npy.hpp"

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <limits>
#include <stdexcept>
#include <sys/stat.h>

#include <xtensor/xadapt.hpp>

#if !defined(__BYTE_ORDER__) || __BYTE_ORDER__ != __ORDER_LITTLE_ENDIAN__
#error "the .npy reader copies little-endian elements as they are; add byte swapping first"
#endif

namespace cli {

namespace {

// The header dict, a subset of Python literals: {'key': value, ...} with
// string, True / False and tuple-of-integers values, as numpy writes it.
class HeaderParser {
 public:
  HeaderParser(const std::string& text, const std::string& name) : s_(text), name_(name) {}

  NpyHeader parse() {
    NpyHeader h;
    bool have_descr = false, have_order = false, have_shape = false;
    bool fortran = false;
    skip_space();
    expect('{');
    skip_space();
    while (peek() != '}') {
      const std::string key = string_value();
      skip_space();
      expect(':');
      skip_space();
      if (key == "descr") {
        if (have_descr) fail("repeats 'descr'");
        if (peek() != '\'' && peek() != '"') fail("has a 'descr' that is not a plain type string");
        h.descr = string_value();
        have_descr = true;
      } else if (key == "fortran_order") {
        if (have_order) fail("repeats 'fortran_order'");
        fortran = bool_value();
        have_order = true;
      } else if (key == "shape") {
        if (have_shape) fail("repeats 'shape'");
        h.shape = shape_value();
        have_shape = true;
      } else {
        fail("has an unexpected key '" + key + "'");
      }
      skip_space();
      if (peek() == ',') {
        ++pos_;
        skip_space();
      } else if (peek() != '}') {
        fail("is not a dict");
      }
    }
    ++pos_;
    skip_space();
    if (pos_ != s_.size()) fail("has text after the dict");
    if (!have_descr || !have_order || !have_shape) {
      fail("needs 'descr', 'fortran_order' and 'shape'");
    }
    if (fortran) {
      throw std::runtime_error(name_ +
                               " is a Fortran-order array, which is not supported; save it in C "
                               "order (numpy.ascontiguousarray)");
    }
    return h;
  }

 private:
  [[noreturn]] void fail(const std::string& what) const {
    throw std::runtime_error(name_ + ": .npy header " + what);
  }
  char peek() const { return pos_ < s_.size() ? s_[pos_] : '\0'; }
  void expect(char c) {
    if (peek() != c) fail(std::string("is malformed (expected '") + c + "')");
    ++pos_;
  }
  void skip_space() {
    while (pos_ < s_.size() &&
           (s_[pos_] == ' ' || s_[pos_] == '\t' || s_[pos_] == '\n' || s_[pos_] == '\r')) {
      ++pos_;
    }
  }
  std::string string_value() {
    const char quote = peek();
    if (quote != '\'' && quote != '"') fail("is malformed (expected a quoted key)");
    const size_t end = s_.find(quote, pos_ + 1);
    if (end == std::string::npos) fail("has an unterminated string");
    std::string value = s_.substr(pos_ + 1, end - pos_ - 1);
    if (value.find('\\') != std::string::npos) fail("has an escaped string");
    pos_ = end + 1;
    return value;
  }
  bool bool_value() {
    if (s_.compare(pos_, 4, "True") == 0) {
      pos_ += 4;
      return true;
    }
    if (s_.compare(pos_, 5, "False") == 0) {
      pos_ += 5;
      return false;
    }
    fail("has a 'fortran_order' that is not True or False");
  }
  std::vector<size_t> shape_value() {
    if (peek() != '(') fail("has a 'shape' that is not a tuple");
    ++pos_;
    std::vector<size_t> shape;
    bool comma = false;  // a one-element tuple needs its trailing comma
    skip_space();
    while (peek() != ')') {
      if (peek() < '0' || peek() > '9') fail("has a 'shape' that is not a tuple of integers");
      size_t dim = 0;
      while (peek() >= '0' && peek() <= '9') {
        if (__builtin_mul_overflow(dim, size_t{10}, &dim) ||
            __builtin_add_overflow(dim, static_cast<size_t>(peek() - '0'), &dim)) {
          fail("has a 'shape' dimension too large");
        }
        ++pos_;
      }
      if (peek() == 'L') ++pos_;  // Python 2 long, as very old numpy wrote it
      shape.push_back(dim);
      skip_space();
      comma = peek() == ',';
      if (comma) {
        ++pos_;
        skip_space();
      } else if (peek() != ')') {
        fail("has a 'shape' that is not a tuple of integers");
      }
    }
    ++pos_;
    if (shape.size() == 1 && !comma) fail("has a 'shape' that is not a tuple");
    return shape;
  }

  const std::string& s_;
  const std::string& name_;
  size_t pos_ = 0;
};

void element_type(NpyHeader& h, const std::string& name) {
  const std::string& d = h.descr;
  if (d.size() >= 2 && d[0] == '>' && d.substr(1) != "u1" && d.substr(1) != "i1") {
    throw std::runtime_error(name + " is big-endian (" + d + "); expected little-endian values");
  }
  struct Known {
    const char* descr;
    NpyType type;
    size_t size;
  };
  static const Known known[] = {
      {"<f4", NpyType::Float32, 4}, {"<f8", NpyType::Float64, 8}, {"<i4", NpyType::Int32, 4},
      {"<i8", NpyType::Int64, 8},   {"|u1", NpyType::UInt8, 1},   {"<u1", NpyType::UInt8, 1},
      {">u1", NpyType::UInt8, 1},   {"|i1", NpyType::Int8, 1},    {"<i1", NpyType::Int8, 1},
      {">i1", NpyType::Int8, 1}};
  for (const Known& k : known) {
    if (d == k.descr) {
      h.type = k.type;
      h.item_size = k.size;
      return;
    }
  }
  throw std::runtime_error(name + " holds " + d +
                           " values; expected int32, int64, float32, float64, int8 or uint8");
}

template <class T>
constexpr NpyType type_of() {
  if constexpr (std::is_same_v<T, float>) return NpyType::Float32;
  if constexpr (std::is_same_v<T, double>) return NpyType::Float64;
  if constexpr (std::is_same_v<T, int32_t>) return NpyType::Int32;
  if constexpr (std::is_same_v<T, int64_t>) return NpyType::Int64;
  if constexpr (std::is_same_v<T, uint8_t>) return NpyType::UInt8;
  if constexpr (std::is_same_v<T, int8_t>) return NpyType::Int8;
}

}  // namespace

NpyHeader parse_npy(const uint8_t* bytes, size_t size, const std::string& name) {
  static const uint8_t magic[6] = {0x93, 'N', 'U', 'M', 'P', 'Y'};
  if (size < 10 || std::memcmp(bytes, magic, sizeof magic) != 0) {
    throw std::runtime_error(name + " is not an .npy file");
  }
  const unsigned major = bytes[6], minor = bytes[7];
  if (major < 1 || major > 3 || minor != 0) {
    throw std::runtime_error(name + ": .npy version " + std::to_string(major) + "." +
                             std::to_string(minor) + " is not supported (1.0, 2.0 or 3.0)");
  }
  size_t header_start = 10;
  size_t header_len = size_t{bytes[8]} | size_t{bytes[9]} << 8;  // unsigned bytes, no sign
  if (major >= 2) {
    if (size < 12) throw std::runtime_error(name + ": .npy header is truncated");
    header_start = 12;
    header_len |= size_t{bytes[10]} << 16 | size_t{bytes[11]} << 24;
  }
  if (header_len > size - header_start) {
    throw std::runtime_error(name + ": .npy header is truncated (declares " +
                             std::to_string(header_len) + " bytes, the file has " +
                             std::to_string(size - header_start) + ")");
  }
  const std::string text(reinterpret_cast<const char*>(bytes) + header_start, header_len);
  NpyHeader h = HeaderParser(text, name).parse();
  element_type(h, name);

  // Element count and byte size, overflow-checked; the product of the
  // non-zero sides must fit too (xtensor's strides are signed).
  size_t count = 1;
  size_t extent = h.item_size;
  for (const size_t dim : h.shape) {
    count *= dim;  // cannot overflow once extent (>= count * item_size) is checked
    if (__builtin_mul_overflow(extent, dim == 0 ? size_t{1} : dim, &extent) ||
        extent > static_cast<size_t>(std::numeric_limits<std::ptrdiff_t>::max())) {
      throw std::runtime_error(name + ": .npy shape is too large");
    }
  }
  h.data_offset = header_start + header_len;
  h.data_size = count * h.item_size;
  const size_t have = size - h.data_offset;
  if (have != h.data_size) {
    throw std::runtime_error(name + ": .npy data is " + std::to_string(have) +
                             " bytes but the header declares " + std::to_string(h.data_size) +
                             (have < h.data_size ? " (truncated)" : " (trailing bytes)"));
  }
  return h;
}

template <class T>
xt::xarray<T> npy_values(const NpyHeader& header, const uint8_t* bytes, const std::string& name) {
  if (header.type != type_of<T>() || header.item_size != sizeof(T)) {
    throw std::runtime_error(name + " holds " + header.descr + " values");
  }
  auto out = xt::xarray<T>::from_shape(header.shape);
  if (header.data_size != 0) std::memcpy(out.data(), bytes + header.data_offset, header.data_size);
  return out;
}

template xt::xarray<float> npy_values<float>(const NpyHeader&, const uint8_t*, const std::string&);
template xt::xarray<double> npy_values<double>(const NpyHeader&, const uint8_t*,
                                               const std::string&);
template xt::xarray<int32_t> npy_values<int32_t>(const NpyHeader&, const uint8_t*,
                                                 const std::string&);
template xt::xarray<int64_t> npy_values<int64_t>(const NpyHeader&, const uint8_t*,
                                                 const std::string&);
template xt::xarray<uint8_t> npy_values<uint8_t>(const NpyHeader&, const uint8_t*,
                                                 const std::string&);
template xt::xarray<int8_t> npy_values<int8_t>(const NpyHeader&, const uint8_t*,
                                               const std::string&);

xt::xarray<float> npy_as_float(const NpyHeader& header, const uint8_t* bytes) {
  // Read through an adaptor over the file's bytes (copied to aligned storage
  // of the element type first), then cast.
  const auto convert = [&](auto tag) -> xt::xarray<float> {
    using T = decltype(tag);
    std::vector<T> values(header.data_size / sizeof(T));
    if (header.data_size != 0) {
      std::memcpy(values.data(), bytes + header.data_offset, header.data_size);
    }
    return xt::cast<float>(xt::adapt(values, header.shape));
  };
  switch (header.type) {
    case NpyType::Float32: return convert(float{});
    case NpyType::Float64: return convert(double{});
    case NpyType::Int32: return convert(int32_t{});
    case NpyType::Int64: return convert(int64_t{});
    case NpyType::UInt8: return convert(uint8_t{});
    case NpyType::Int8: return convert(int8_t{});
  }
  throw std::logic_error("unknown .npy element type");
}

std::vector<uint8_t> read_file(const std::string& path) {
  std::FILE* f = std::fopen(path.c_str(), "rb");
  if (f == nullptr) {
    if (errno == ENOENT) throw std::runtime_error("no such file: " + path);
    throw std::runtime_error("cannot read " + path + ": " + std::strerror(errno));
  }
  struct stat st {};
  if (fstat(fileno(f), &st) == 0 && S_ISDIR(st.st_mode)) {
    std::fclose(f);
    throw std::runtime_error(path + " is a directory");
  }
  std::vector<uint8_t> bytes;
  uint8_t chunk[1 << 16];
  for (size_t n; (n = std::fread(chunk, 1, sizeof chunk, f)) > 0;) {
    bytes.insert(bytes.end(), chunk, chunk + n);
  }
  const int err = std::ferror(f) ? errno : 0;
  std::fclose(f);
  if (err != 0) throw std::runtime_error("cannot read " + path + ": " + std::strerror(err));
  return bytes;
}

}  // namespace cli
