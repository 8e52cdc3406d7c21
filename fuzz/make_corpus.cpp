// Writes the image-loader seed corpus: a small valid file of every format the
// decoder reads (PNG, JPEG, BMP, TGA, HDR through the writer; PNM, GIF, PSD,
// PIC byte by byte), plus truncated and bit-flipped variants of each.
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "stb_image_write.h"

namespace fs = std::filesystem;
using Bytes = std::vector<uint8_t>;

namespace {

void save(const fs::path& path, const Bytes& bytes) {
  std::ofstream(path, std::ios::binary)
      .write(reinterpret_cast<const char*>(bytes.data()),
             static_cast<std::streamsize>(bytes.size()));
}

Bytes load(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  return Bytes(std::istreambuf_iterator<char>(in), {});
}

void put16be(Bytes& b, unsigned v) { b.insert(b.end(), {uint8_t(v >> 8), uint8_t(v)}); }
void put32be(Bytes& b, unsigned v) {
  put16be(b, v >> 16);
  put16be(b, v & 0xffff);
}

Bytes pnm(int w, int h) {
  const std::string header = "P6\n" + std::to_string(w) + " " + std::to_string(h) + "\n255\n";
  Bytes b(header.begin(), header.end());
  for (int i = 0; i < w * h * 3; ++i) b.push_back(uint8_t(37 * i));
  return b;
}

// The smallest GIF: one white pixel, two-colour global palette.
Bytes gif() {
  return {0x47, 0x49, 0x46, 0x38, 0x39, 0x61, 0x01, 0x00, 0x01, 0x00, 0x80, 0x00,
          0x00, 0xFF, 0xFF, 0xFF, 0x00, 0x00, 0x00, 0x2C, 0x00, 0x00, 0x00, 0x00,
          0x01, 0x00, 0x01, 0x00, 0x00, 0x02, 0x02, 0x44, 0x01, 0x00, 0x3B};
}

// Uncompressed 8-bit RGB PSD with planar channels.
Bytes psd(int w, int h) {
  Bytes b = {'8', 'B', 'P', 'S'};
  put16be(b, 1);
  b.insert(b.end(), 6, 0);
  put16be(b, 3);
  put32be(b, unsigned(h));
  put32be(b, unsigned(w));
  put16be(b, 8);
  put16be(b, 3);
  put32be(b, 0);  // colour mode data
  put32be(b, 0);  // image resources
  put32be(b, 0);  // layers and masks
  put16be(b, 0);  // raw
  for (int c = 0; c < 3; ++c)
    for (int i = 0; i < w * h; ++i) b.push_back(uint8_t(60 * c + 9 * i));
  return b;
}

// Softimage PIC: one uncompressed RGB packet.
Bytes pic(int w, int h) {
  Bytes b = {0x53, 0x80, 0xF6, 0x34};
  b.insert(b.end(), 84, 0);
  b.insert(b.end(), {'P', 'I', 'C', 'T'});
  put16be(b, unsigned(w));
  put16be(b, unsigned(h));
  b.insert(b.end(), 8, 0);             // ratio, fields, pad
  b.insert(b.end(), {0, 8, 0, 0xE0});  // last packet, 8 bits, raw, R|G|B
  for (int i = 0; i < w * h * 3; ++i) b.push_back(uint8_t(11 * i));
  return b;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: make_corpus OUTDIR\n");
    return 2;
  }
  const fs::path dir = argv[1];
  fs::remove_all(dir);  // start clean: only the valid files get damaged copies
  fs::create_directories(dir);

  std::vector<uint8_t> rgba(6 * 5 * 4);
  for (size_t i = 0; i < rgba.size(); ++i) rgba[i] = uint8_t(13 * i);
  std::vector<float> hdr(6 * 5 * 3);
  for (size_t i = 0; i < hdr.size(); ++i) hdr[i] = 0.1f * float(i);
  const auto at = [&](const char* name) { return (dir / name).string(); };
  stbi_write_png(at("rgb.png").c_str(), 6, 5, 3, rgba.data(), 18);
  stbi_write_png(at("rgba.png").c_str(), 6, 5, 4, rgba.data(), 24);
  stbi_write_png(at("grey.png").c_str(), 6, 5, 1, rgba.data(), 6);
  stbi_write_png(at("grey_alpha.png").c_str(), 6, 5, 2, rgba.data(), 12);
  stbi_write_jpg(at("rgb.jpg").c_str(), 6, 5, 3, rgba.data(), 90);
  stbi_write_jpg(at("grey.jpg").c_str(), 6, 5, 1, rgba.data(), 90);
  stbi_write_bmp(at("rgb.bmp").c_str(), 6, 5, 3, rgba.data());
  stbi_write_bmp(at("rgba.bmp").c_str(), 6, 5, 4, rgba.data());
  stbi_write_tga(at("rgb.tga").c_str(), 6, 5, 3, rgba.data());
  stbi_write_hdr(at("rgb.hdr").c_str(), 6, 5, 3, hdr.data());
  save(dir / "rgb.ppm", pnm(3, 2));
  save(dir / "pixel.gif", gif());
  save(dir / "rgb.psd", psd(3, 2));
  save(dir / "rgb.pic", pic(3, 2));

  // Damaged variants: cut at a quarter, half and all but one byte; one bit
  // flipped early (header), in the middle and near the end (pixel data).
  std::vector<fs::path> valid;
  for (const auto& entry : fs::directory_iterator(dir)) valid.push_back(entry.path());
  for (const fs::path& p : valid) {
    const Bytes b = load(p);
    if (b.size() < 4) continue;
    const std::string stem = p.filename().string();
    for (size_t cut : {b.size() / 4, b.size() / 2, b.size() - 1})
      save(dir / ("cut" + std::to_string(cut) + "-" + stem),
           Bytes(b.begin(), b.begin() + long(cut)));
    for (size_t pos : {size_t(3), b.size() / 2, b.size() - 2}) {
      Bytes flipped = b;
      flipped[pos] ^= uint8_t(1u << (pos % 8));
      save(dir / ("flip" + std::to_string(pos) + "-" + stem), flipped);
    }
  }
  std::printf("%zu seed files in %s\n", valid.size() * 7, dir.string().c_str());
  return 0;
}
