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
