// The one translation unit that compiles the stb implementations into the
// library. Their C interface is exported so that users of the library can
// decode, resize and write images with the very same code the library uses.
#define STBIDEF extern "C" __attribute__((visibility("default")))
#define STBIWDEF extern "C" __attribute__((visibility("default")))
#define STBIRDEF extern "C" __attribute__((visibility("default")))

#ifndef STBI_MAX_DIMENSIONS
#define STBI_MAX_DIMENSIONS (1 << 24)
#endif

#define STB_IMAGE_IMPLEMENTATION
#include <stb_image.h>

#define STB_IMAGE_WRITE_IMPLEMENTATION
#include <stb_image_write.h>

#define STB_IMAGE_RESIZE_IMPLEMENTATION
#include <stb_image_resize2.h>
