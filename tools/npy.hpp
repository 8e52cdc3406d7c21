#pragma once
// The tool's own .npy reader. The header is validated here (magic, versions
// 1, 2 and 3, any header length, a dict of exactly descr / fortran_order /
// shape, C order), sizes are computed with overflow checks, and the data must
// be exactly as long as the header declares. Nothing is read past the bytes
// given and nothing is allocated beyond what they can fill. The elements end
// up in xtensor containers.
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include <xtensor/xarray.hpp>

namespace cli {

// Element types the tool reads.
enum class NpyType { Int8, UInt8, Int32, Int64, Float32, Float64 };

// A parsed file: the element type, its descr as written ("<f4", "|u1"), the
// shape, and where the data starts in the bytes (`data_size` bytes from
// `data_offset`, exactly the element count times the element size).
struct NpyHeader {
  NpyType type = NpyType::Float32;
  std::string descr;
  std::vector<size_t> shape;
  size_t item_size = 0;
  size_t data_offset = 0;
  size_t data_size = 0;
};

// Parses and checks an .npy file held in memory. Throws a one-line
// std::runtime_error starting with `name` on anything malformed, truncated,
// too long, big-endian, Fortran-ordered or of another element type.
NpyHeader parse_npy(const uint8_t* bytes, size_t size, const std::string& name);

// The elements of a parsed file as T (the file's own type, checked).
template <class T>
xt::xarray<T> npy_values(const NpyHeader& header, const uint8_t* bytes, const std::string& name);

// Any supported element type converted to float.
xt::xarray<float> npy_as_float(const NpyHeader& header, const uint8_t* bytes);

// The whole file (read once, growing with what is actually read); throws
// "no such file: PATH", "PATH is a directory" or "cannot read PATH: REASON".
std::vector<uint8_t> read_file(const std::string& path);

}  // namespace cli
