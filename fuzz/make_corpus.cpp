// Writes the image-loader seed corpus: a small valid file of every format the
// decoder reads (PNG, JPEG, BMP, TGA, HDR through the writer; PNM, GIF, PSD,
// PIC byte by byte), plus truncated and bit-flipped variants of each. With
// more folders: .npy seeds for fuzz_npy_reader (every version, element type
// and a few malformed headers) and command lines for fuzz_cli_args (one
// argument per line, a working command of every subcommand).
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "stb_image_write.h"

// The writer's deflate, exported by the library with the rest of its C interface.
extern "C" unsigned char* stbi_zlib_compress(unsigned char* data, int data_len, int* out_len,
                                             int quality);

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

// A .npy file: magic, VERSION, header length, DICT padded to 64 bytes, data.
Bytes npy(int version, const std::string& dict, const Bytes& data) {
  const size_t prefix = version == 1 ? 10 : 12;
  std::string header = dict;
  header.append(63 - (prefix + header.size()) % 64, ' ');
  header += '\n';
  Bytes b = {0x93, 'N', 'U', 'M', 'P', 'Y', uint8_t(version), 0};
  for (size_t i = 0; i < prefix - 8; ++i) b.push_back(uint8_t(header.size() >> (8 * i)));
  b.insert(b.end(), header.begin(), header.end());
  b.insert(b.end(), data.begin(), data.end());
  return b;
}

std::string dict(const std::string& descr, const std::string& shape, bool fortran = false) {
  return "{'descr': '" + descr + "', 'fortran_order': " + (fortran ? "True" : "False") +
         ", 'shape': " + shape + ", }";
}

void npy_seeds(const fs::path& dir) {
  fs::remove_all(dir);
  fs::create_directories(dir);
  Bytes six(24);
  for (size_t i = 0; i < six.size(); ++i) six[i] = uint8_t(i * 29);
  save(dir / "v1_f4.npy", npy(1, dict("<f4", "(2, 3)"), six));
  save(dir / "v2_i4.npy", npy(2, dict("<i4", "(3, 2)"), six));
  save(dir / "v3_f8.npy", npy(3, dict("<f8", "(3,)"), six));
  save(dir / "v1_i8.npy", npy(1, dict("<i8", "(1, 3, 1)"), six));
  save(dir / "v1_u1.npy", npy(1, dict("|u1", "(4, 6)"), six));
  save(dir / "v1_i1.npy", npy(1, dict("|i1", "(24,)"), six));
  save(dir / "scalar.npy", npy(1, dict("<f4", "()"), Bytes(six.begin(), six.begin() + 4)));
  save(dir / "empty.npy", npy(1, dict("<f4", "(0, 6)"), {}));
  save(dir / "fortran.npy", npy(1, dict("<f4", "(2, 3)", true), six));
  save(dir / "wrap.npy", npy(1, dict("<f4", "(4611686018427387904, 84)"), {}));
  save(dir / "quotes.npy",
       npy(1, R"({"shape": (2, 3), "fortran_order": False, "descr": "<f4"})", six));
  Bytes cut = npy(1, dict("<f4", "(2, 3)"), six);
  cut.resize(cut.size() - 5);
  save(dir / "cut.npy", cut);
}

void args_seeds(const fs::path& dir) {
  fs::remove_all(dir);
  fs::create_directories(dir);
  const std::vector<std::string> lines = {
      "yolo-preprocess\nimg.ppm\n--size\n32x32\n-o\nout.npy",
      "yolo-postprocess\nhead.npy\n--input-size\n640x640\n--image\nimg.ppm\n--names\nnames.txt"
      "\n--draw\nout.png\n--max-det\n5\n--conf\n0.1",
      "yolo-postprocess\nhead.npy\n--layout\ncn\n--input-size\n64x64\n--image\nimg.ppm",
      "demo\n--image\nimg.ppm\n--size\n32x32\n-o\nout.png",
      "convnext\nimg.ppm\n--size\n16\n--crop-pct\n0.875\n-o\nout.npy",
      "zentil\nimg.raw\n--raw\n8x6:rgb\n--size\n8\n-o\nout.npy",
      "qwen2vl\nimg.ppm\nimg.ppm\n--patch-size\n4\n--merge-size\n2\n--temporal-patch-size\n2"
      "\n--min-pixels\n64\n--max-pixels\n4096\n-o\nout.npy",
      "dia-text\n[S1] Hello [S2] Hi\n--max-len\n32\n--pad\n7",
      "dia-delay\ncodes.npy\n--delays\n0,2\n--bos\n99\n--pad\n98\n-o\nout.npy",
      "dia-delay\ncodes8.npy\n--delays\n1,0\n--pad\n0\n--revert\n-o\nout.npy",
      "dia-sample\nlogits.npy\n--temperature\n1.3\n--top-p\n0.95\n--top-k\n2",
      "stream\nids.txt\n--show-prompt\n--flush-marker\n|",
      "stream\n-\n--keep-leading-space",
      "qwen2vl\n--help"};
  for (size_t i = 0; i < lines.size(); ++i) {
    save(dir / ("args" + std::to_string(i)), Bytes(lines[i].begin(), lines[i].end()));
  }
}

}  // namespace

// CRC-32 (IEEE) of a PNG chunk's type and data.
unsigned crc32(const Bytes& b) {
  unsigned c = 0xFFFFFFFFu;
  for (uint8_t byte : b) {
    c ^= byte;
    for (int k = 0; k < 8; ++k) c = (c >> 1) ^ (0xEDB88320u & (0u - (c & 1u)));
  }
  return ~c;
}

void png_chunk(Bytes& png, const char* type, const Bytes& data) {
  put32be(png, unsigned(data.size()));
  Bytes body(type, type + 4);
  body.insert(body.end(), data.begin(), data.end());
  png.insert(png.end(), body.begin(), body.end());
  put32be(png, crc32(body));
}

// An inflate bomb: a 1 x 1 grey PNG whose compressed data inflates to
// `inflated` bytes (the decoder must stop near the declared size).
Bytes png_bomb(int inflated) {
  Bytes png = {0x89, 'P', 'N', 'G', 0x0D, 0x0A, 0x1A, 0x0A};
  Bytes ihdr;
  put32be(ihdr, 1);
  put32be(ihdr, 1);
  ihdr.insert(ihdr.end(), {8, 0, 0, 0, 0});
  png_chunk(png, "IHDR", ihdr);
  Bytes zeros(size_t(inflated), 0);
  int size = 0;
  unsigned char* z = stbi_zlib_compress(zeros.data(), inflated, &size, 8);
  png_chunk(png, "IDAT", Bytes(z, z + size));
  std::free(z);
  png_chunk(png, "IEND", {});
  return png;
}

int main(int argc, char** argv) {
  if (argc < 2 || argc > 4) {
    std::fprintf(stderr, "usage: make_corpus IMAGE_DIR [NPY_DIR [CLI_ARGS_DIR]]\n");
    return 2;
  }
  if (argc > 2) npy_seeds(argv[2]);
  if (argc > 3) args_seeds(argv[3]);
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
  save(dir / "bomb.png", png_bomb(16 << 20));

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
