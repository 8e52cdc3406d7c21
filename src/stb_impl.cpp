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
#include <cstdlib>
#include <cstring>

#include "pixels/image_io.hpp"

// The PNG decoder grows its inflate buffer (and the buffer of gathered
// compressed chunks) with the data, whatever the header declared: a 1 x 1 PNG
// can inflate to gigabytes. Every growth goes through this hook, which
// refuses sizes beyond the limit the current decode set from the header.
namespace {
thread_local size_t inflate_limit = SIZE_MAX;
thread_local bool inflate_refused = false;
}  // namespace

static void* vemoproc_stb_grow(void* p, size_t new_size) {
  if (new_size > inflate_limit) {
    inflate_refused = true;
    return nullptr;
  }
  return std::realloc(p, new_size);
}

namespace vemoproc::detail {
InflateLimit::InflateLimit(size_t bytes) : saved_(inflate_limit) {
  inflate_limit = bytes;
  inflate_refused = false;
}
InflateLimit::~InflateLimit() { inflate_limit = saved_; }
bool InflateLimit::refused() const { return inflate_refused; }
}  // namespace vemoproc::detail

// A PNG whose first data chunk is empty makes the decoder copy zero bytes into
// a buffer it has not allocated yet, memcpy(nullptr, src, 0): undefined, and
// licence for the compiler to drop the decoder's later null checks. Every copy
// in the stb implementations goes through this one, which skips empty copies.
static inline void* vemoproc_stb_memcpy(void* dst, const void* src, size_t n) {
  return n == 0 ? dst : std::memcpy(dst, src, n);
}
#define memcpy vemoproc_stb_memcpy

#define STBI_MALLOC(size) std::malloc(size)
#define STBI_FREE(p) std::free(p)
#define STBI_REALLOC_SIZED(p, old_size, new_size) vemoproc_stb_grow(p, new_size)

#define STB_IMAGE_IMPLEMENTATION
#include <stb_image.h>

#define STB_IMAGE_WRITE_IMPLEMENTATION
#include <stb_image_write.h>

#define STB_IMAGE_RESIZE_IMPLEMENTATION
#include <stb_image_resize2.h>

#undef memcpy
