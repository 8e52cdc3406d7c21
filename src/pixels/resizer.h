/* Internal: the resizer's entry points as a table, so that the library can
   call either of its two builds of the same stb resizer source — the one the
   library exports (baseline x86-64) or a private one compiled for AVX2 and
   F16C — through one code path. Both give the same bytes. C and C++. */
#ifndef VEMOPROC_PIXELS_RESIZER_H
#define VEMOPROC_PIXELS_RESIZER_H

#include <stb_image_resize2.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef struct vemoproc_resizer {
  void (*resize_init)(STBIR_RESIZE* resize, const void* input_pixels, int input_w, int input_h,
                      int input_stride_in_bytes, void* output_pixels, int output_w, int output_h,
                      int output_stride_in_bytes, stbir_pixel_layout pixel_layout,
                      stbir_datatype data_type);
  int (*set_edgemodes)(STBIR_RESIZE* resize, stbir_edge horizontal_edge, stbir_edge vertical_edge);
  int (*set_filters)(STBIR_RESIZE* resize, stbir_filter horizontal_filter,
                     stbir_filter vertical_filter);
  int (*build_samplers_with_splits)(STBIR_RESIZE* resize, int try_splits);
  int (*resize_extended_split)(STBIR_RESIZE* resize, int split_start, int split_count);
  void (*free_samplers)(STBIR_RESIZE* resize);
} vemoproc_resizer;

/* The AVX2 + F16C build; only call it when the processor has both. Null in
   builds for other architectures. */
const vemoproc_resizer* vemoproc_resizer_avx2(void);

#ifdef __cplusplus
}
#endif

#endif
