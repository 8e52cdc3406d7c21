#pragma once
// Real encoded image files for the tests, written with the stb writer that the
// library exports, into a per-process scratch folder.
#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include "pixels.hpp"
#include "stb_image_write.h"

namespace testimg {

enum class Format { Png, Jpeg, Bmp, Tga };

// Interleaved pixels with `channels` samples each (1 grey, 2 grey+alpha, 3 RGB, 4 RGBA).
struct Pixels {
  int width = 0, height = 0, channels = 3;
  std::vector<uint8_t> data;
  uint8_t* at(int x, int y) { return data.data() + (size_t(y) * width + x) * channels; }
};

// Every sample of pixel (x, y), channel c is f(x, y, c).
inline Pixels make(int width, int height, int channels,
                   const std::function<uint8_t(int, int, int)>& f) {
  Pixels p{width, height, channels, std::vector<uint8_t>(size_t(width) * height * channels)};
  for (int y = 0; y < height; ++y)
    for (int x = 0; x < width; ++x)
      for (int c = 0; c < channels; ++c) p.at(x, y)[c] = f(x, y, c);
  return p;
}

inline Pixels solid(int width, int height, uint8_t r, uint8_t g, uint8_t b) {
  return make(width, height, 3, [=](int, int, int c) { return c == 0 ? r : c == 1 ? g : b; });
}

// A scratch folder removed when the test binary exits.
inline const std::filesystem::path& scratch_dir() {
  static const struct Dir {
    std::filesystem::path path =
        std::filesystem::temp_directory_path() / ("vemoproc-test-" + std::to_string(::getpid()));
    Dir() { std::filesystem::create_directories(path); }
    std::error_code ec;
    ~Dir() { std::filesystem::remove_all(path, ec); }
  } dir;
  return dir.path;
}

inline std::vector<uint8_t> read_bytes(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) throw std::runtime_error("cannot read " + path);
  return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

inline void write_bytes(const std::string& path, const std::vector<uint8_t>& bytes) {
  std::ofstream out(path, std::ios::binary);
  out.write(reinterpret_cast<const char*>(bytes.data()),
            static_cast<std::streamsize>(bytes.size()));
  if (!out) throw std::runtime_error("cannot write " + path);
}

// Writes `p` as a file named `name` in the scratch folder; returns its path.
inline std::string write(const Pixels& p, Format format, const std::string& name) {
  const std::string path = (scratch_dir() / name).string();
  const char* f = path.c_str();
  const int w = p.width, h = p.height, n = p.channels;
  const int ok = format == Format::Png    ? stbi_write_png(f, w, h, n, p.data.data(), w * n)
                 : format == Format::Jpeg ? stbi_write_jpg(f, w, h, n, p.data.data(), 100)
                 : format == Format::Bmp  ? stbi_write_bmp(f, w, h, n, p.data.data())
                                          : stbi_write_tga(f, w, h, n, p.data.data());
  if (!ok) throw std::runtime_error("test image not written: " + path);
  return path;
}

// A Softimage PIC file (a format the writer lacks), byte by byte: one raw
// RGB packet, `rgb` holding width * height * 3 samples. Cutting `drop` bytes
// off the end makes a truncated file.
inline std::string write_pic(int width, int height, const std::vector<uint8_t>& rgb,
                             const std::string& name, size_t drop = 0) {
  std::vector<uint8_t> b = {0x53, 0x80, 0xF6, 0x34};  // magic, then an empty 84-byte header
  b.resize(88, 0);
  b.insert(b.end(), {'P', 'I', 'C', 'T', uint8_t(width >> 8), uint8_t(width), uint8_t(height >> 8),
                     uint8_t(height)});
  // Ratio, fields and pad (8 zero bytes); then the last packet: 8 bits, raw, R|G|B.
  b.insert(b.end(), {0, 0, 0, 0, 0, 0, 0, 0, 0, 8, 0, 0xE0});
  b.insert(b.end(), rgb.begin(), rgb.end());
  b.resize(b.size() - drop);
  write_bytes((scratch_dir() / name).string(), b);
  return (scratch_dir() / name).string();
}

// Rewrites the PNG at `path` with an empty IDAT chunk in front of its first
// one: legal, and a decoder must then copy zero bytes before it has a buffer.
inline void insert_empty_idat(const std::string& path) {
  std::vector<uint8_t> b = read_bytes(path);
  static const uint8_t tag[4] = {'I', 'D', 'A', 'T'};
  auto at = std::search(b.begin(), b.end(), tag, tag + 4);
  if (at == b.end()) throw std::runtime_error("no IDAT in " + path);
  // Length 0, the tag, and the CRC-32 of "IDAT".
  b.insert(at - 4, {0, 0, 0, 0, 'I', 'D', 'A', 'T', 0x35, 0xAF, 0x06, 0x1E});
  write_bytes(path, b);
}

// The decoded pixels of a file, as every family's path loader sees them.
inline vemoproc::Image decode(const std::string& path) {
  const std::vector<uint8_t> b = read_bytes(path);
  return vemoproc::decode_image(b.data(), b.size());
}

// An image's pixels laid out as `format` in rows padded by `pad` bytes of
// 0xEE (a view of it has stride 0 when pad is 0). Keeps the buffer alive.
struct Layout {
  std::vector<uint8_t> bytes;
  vemoproc::ImageView view;
};
inline Layout lay_out(const vemoproc::Image& image, vemoproc::PixelFormat format, size_t pad) {
  using vemoproc::PixelFormat;
  const int ch = vemoproc::channels_of(format);
  const bool bgr = format == PixelFormat::BGR || format == PixelFormat::BGRA;
  const size_t row = static_cast<size_t>(image.width) * ch + pad;
  Layout out{std::vector<uint8_t>(row * image.height, 0xEE), {}};
  for (size_t i = 0; i < static_cast<size_t>(image.width) * image.height; ++i) {
    const uint8_t* rgb = &image.rgb[3 * i];
    uint8_t* p = out.bytes.data() + (i / image.width) * row + (i % image.width) * ch;
    const uint8_t px[4] = {bgr ? rgb[2] : rgb[0], rgb[1], bgr ? rgb[0] : rgb[2], 99};
    std::copy(px, px + ch, p);  // grey takes the red sample
  }
  out.view = {out.bytes.data(), image.width, image.height, pad == 0 ? 0 : row, format};
  return out;
}

// A file whose bytes are not an image in any format.
inline std::string write_garbage(const std::string& name) {
  const std::string path = (scratch_dir() / name).string(), text = "this is not an image file";
  write_bytes(path, {text.begin(), text.end()});
  return path;
}

// Runs `f` in a forked child and returns the child's exit status: 0 when f
// returned true, 1 when it returned false or threw, -1 when the child died by a
// signal. With `extra_mib`, the child's address space may grow by only that
// much past what it holds at the fork (not in sanitizer builds, whose shadow
// memory rules out an address-space limit, nor under a user-mode emulator,
// whose own reservations the limit would starve).
inline int in_child(const std::function<bool()>& f, size_t extra_mib = 0) {
  const pid_t pid = fork();
  if (pid == 0) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__) || defined(VEMOPROC_TEST_EMULATED)
    (void)extra_mib;
#else
    if (extra_mib > 0) {
      size_t pages = 0;
      std::ifstream("/proc/self/statm") >> pages;
      const rlim_t cap = pages * sysconf(_SC_PAGESIZE) + (rlim_t{extra_mib} << 20);
      const rlimit limit{cap, cap};
      setrlimit(RLIMIT_AS, &limit);
    }
#endif
    bool ok = false;
    try {
      ok = f();
    } catch (...) {
    }
    _exit(ok ? 0 : 1);
  }
  int status = 0;
  if (pid < 0 || waitpid(pid, &status, 0) != pid) return -2;
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

}  // namespace testimg
