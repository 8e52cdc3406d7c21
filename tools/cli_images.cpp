#include "cli_images.hpp"

#include <sys/stat.h>

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <cstdio>
#include <stdexcept>

namespace cli {

namespace {

// Reads to the end, or up to `limit` bytes (a raw frame needs a known count,
// and standard input may never end).
std::vector<uint8_t> read_all(std::FILE* f, size_t limit) {
  std::vector<uint8_t> bytes;
  uint8_t chunk[1 << 16];
  while (bytes.size() < limit) {
    const size_t n = std::fread(chunk, 1, std::min(sizeof chunk, limit - bytes.size()), f);
    if (n == 0) break;
    bytes.insert(bytes.end(), chunk, chunk + n);
  }
  return bytes;
}

std::vector<uint8_t> read_source(const std::string& arg, size_t limit = SIZE_MAX) {
  if (arg == "-") {
    std::vector<uint8_t> bytes = read_all(stdin, limit);
    if (std::ferror(stdin)) throw std::runtime_error("cannot read standard input");
    return bytes;
  }
  std::FILE* f = std::fopen(arg.c_str(), "rb");
  if (f == nullptr) throw std::runtime_error("no such file: " + arg);
  std::vector<uint8_t> bytes = read_all(f, limit);
  const bool failed = std::ferror(f) != 0;
  std::fclose(f);
  if (failed) throw std::runtime_error("cannot read " + arg);
  return bytes;
}

struct RawLayout {
  int width = 0;
  int height = 0;
  bool yuv = false;
  vemoproc::PixelFormat format = vemoproc::PixelFormat::RGB;
  vemoproc::YuvLayout layout = vemoproc::YuvLayout::NV12;
  vemoproc::YuvRange range = vemoproc::YuvRange::Video;
};

RawLayout parse_raw(const std::string& text) {
  const auto bad = [&] {
    return std::runtime_error(
        "--raw expects WIDTHxHEIGHT:FORMAT (rgb, bgr, rgba, bgra, gray, "
        "nv12, nv21, i420, YUV with optional +full), got '" +
        text + "'");
  };
  const size_t colon = text.find(':');
  const size_t x = text.find_first_of("xX");
  if (colon == std::string::npos || x == std::string::npos || x > colon) throw bad();
  RawLayout frame;
  const char* s = text.data();
  const auto w = std::from_chars(s, s + x, frame.width);
  const auto h = std::from_chars(s + x + 1, s + colon, frame.height);
  if (w.ec != std::errc() || w.ptr != s + x || h.ec != std::errc() || h.ptr != s + colon ||
      frame.width <= 0 || frame.height <= 0) {
    throw bad();
  }
  std::string format = text.substr(colon + 1);
  const std::string full = "+full";
  const bool is_full = format.size() > full.size() &&
                       format.compare(format.size() - full.size(), full.size(), full) == 0;
  if (is_full) format.resize(format.size() - full.size());
  using vemoproc::PixelFormat;
  using vemoproc::YuvLayout;
  if (format == "nv12" || format == "nv21" || format == "i420") {
    frame.yuv = true;
    frame.layout = format == "nv12"   ? YuvLayout::NV12
                   : format == "nv21" ? YuvLayout::NV21
                                      : YuvLayout::I420;
    frame.range = is_full ? vemoproc::YuvRange::Full : vemoproc::YuvRange::Video;
    return frame;
  }
  if (is_full) throw bad();
  if (format == "rgb")
    frame.format = PixelFormat::RGB;
  else if (format == "bgr")
    frame.format = PixelFormat::BGR;
  else if (format == "rgba")
    frame.format = PixelFormat::RGBA;
  else if (format == "bgra")
    frame.format = PixelFormat::BGRA;
  else if (format == "gray")
    frame.format = PixelFormat::GRAY;
  else
    throw bad();
  return frame;
}

}  // namespace

vemoproc::Image read_image(const std::string& arg, const std::string& raw) {
  return read_image(arg, raw, vemoproc::Decoder::Stb);
}

vemoproc::Image read_image(const std::string& arg, const std::string& raw,
                           vemoproc::Decoder decoder) {
  const std::string name = arg == "-" ? "standard input" : arg;
  if (raw.empty()) {
    const std::vector<uint8_t> bytes = read_source(arg);
    try {
      return decoder == vemoproc::Decoder::Stb
                 ? vemoproc::decode_image(bytes.data(), bytes.size())
                 : vemoproc::decode_image(bytes.data(), bytes.size(), decoder);
    } catch (const std::runtime_error& e) {
      throw std::runtime_error(name + ": " + e.what());
    }
  }
  const RawLayout frame = parse_raw(raw);
  const size_t w = static_cast<size_t>(frame.width);
  const size_t h = static_cast<size_t>(frame.height);
  const size_t cw = (w + 1) / 2;
  const size_t ch = (h + 1) / 2;
  const size_t expected =
      frame.yuv ? w * h + 2 * cw * ch : w * h * vemoproc::channels_of(frame.format);
  // The frame's bytes and one more, to tell a longer input: never more, since
  // standard input may be endless. A longer regular file reports its size.
  std::vector<uint8_t> bytes = read_source(arg, expected + 1);
  if (bytes.size() != expected) {
    struct stat st {};
    std::string got = std::to_string(bytes.size());
    if (bytes.size() > expected) {
      got = arg != "-" && ::stat(arg.c_str(), &st) == 0 && S_ISREG(st.st_mode)
                ? std::to_string(st.st_size)
                : "more than " + std::to_string(expected);
    }
    throw std::runtime_error(name + ": a " + raw + " frame is " + std::to_string(expected) +
                             " bytes, got " + got);
  }
  if (!frame.yuv) {
    return vemoproc::to_rgb(
        vemoproc::ImageView{bytes.data(), frame.width, frame.height, 0, frame.format});
  }
  // Planes one after another: Y, then the interleaved chroma (NV12/NV21) or U then V (I420).
  const uint8_t* y = bytes.data();
  const uint8_t* u = y + w * h;
  const bool planar = frame.layout == vemoproc::YuvLayout::I420;
  const uint8_t* v = planar ? u + cw * ch : nullptr;
  return vemoproc::to_rgb(vemoproc::YuvView{y, w, u, planar ? cw : 2 * cw, v, cw, frame.width,
                                            frame.height, frame.layout, frame.range});
}

void check_stdin_once(const std::vector<std::string>& args) {
  size_t dashes = 0;
  for (const std::string& a : args) dashes += a == "-";
  if (dashes > 1) throw std::runtime_error("standard input ('-') can be read only once");
}

}  // namespace cli
