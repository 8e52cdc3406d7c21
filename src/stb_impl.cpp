// The one translation unit that compiles the stb implementations into the
// library. Their C interface is exported so that users of the library can
// decode, resize and write images with the very same code the library uses.
#define STBIDEF extern "C" __attribute__((visibility("default")))
#define STBIWDEF extern "C" __attribute__((visibility("default")))
#define STBIRDEF extern "C" __attribute__((visibility("default")))

#ifndef STBI_MAX_DIMENSIONS
#define STBI_MAX_DIMENSIONS (1 << 24)
#endif

#include <cstdio>
#include <cstring>

// A PNG whose first data chunk is empty makes the decoder copy zero bytes into
// a buffer it has not allocated yet, memcpy(nullptr, src, 0): undefined, and
// licence for the compiler to drop the decoder's later null checks. Every copy
// in the stb implementations goes through this one, which skips empty copies.
static inline void* vemoproc_stb_memcpy(void* dst, const void* src, size_t n) {
  return n == 0 ? dst : std::memcpy(dst, src, n);
}
#define memcpy vemoproc_stb_memcpy

#define STB_IMAGE_IMPLEMENTATION
#include <stb_image.h>

#define STB_IMAGE_WRITE_IMPLEMENTATION
#include <stb_image_write.h>

#define STB_IMAGE_RESIZE_IMPLEMENTATION
#include <stb_image_resize2.h>

#undef memcpy

#include "stb_rgb.hpp"

namespace {

// Softimage PIC files start with a magic number and carry "PICT" at byte 88.
bool is_pic_file(const char* path) {
  unsigned char head[92];
  std::FILE* f = std::fopen(path, "rb");
  if (f == nullptr) return false;
  const size_t n = std::fread(head, 1, sizeof head, f);
  std::fclose(f);
  static const unsigned char magic[4] = {0x53, 0x80, 0xF6, 0x34};
  return n == sizeof head && std::memcmp(head, magic, 4) == 0 &&
         std::memcmp(head + 88, "PICT", 4) == 0;
}

}  // namespace

unsigned char* vemoproc_load_rgb(const char* path, int* x, int* y, int* channels_in_file) {
  if (!is_pic_file(path)) return stbi_load(path, x, y, channels_in_file, 3);
  // The PIC decoder converts its buffer to the requested channel count even
  // after a failed decode, reading through a null pointer. Asked for its own
  // four channels it skips that conversion; alpha is then dropped here,
  // exactly as the decoder's four-to-three conversion does.
  unsigned char* rgba = stbi_load(path, x, y, channels_in_file, 4);
  if (rgba == nullptr) return nullptr;
  const size_t pixels = static_cast<size_t>(*x) * static_cast<size_t>(*y);
  for (size_t i = 0; i < pixels; ++i) {
    rgba[3 * i] = rgba[4 * i];
    rgba[3 * i + 1] = rgba[4 * i + 1];
    rgba[3 * i + 2] = rgba[4 * i + 2];
  }
  return rgba;
}
