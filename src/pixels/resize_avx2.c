/* A second, private build of the stb resizer, compiled with AVX2 and F16C
   (fused multiply-add off, no contraction) so that its float arithmetic is the
   same as the baseline build's and the output bytes are identical. Every
   function of this copy is static; only the table below leaves this unit. */
#define STBIRDEF static
#define STB_IMAGE_RESIZE_IMPLEMENTATION
#include <stb_image_resize2.h>
#undef STB_IMAGE_RESIZE_IMPLEMENTATION

#include "resizer.h"

#if !defined(__AVX2__) || !defined(__F16C__) || defined(__FMA__)
#error "resize_avx2.c must be compiled with -mavx2 -mf16c -mno-fma"
#endif

__attribute__((visibility("hidden"))) const vemoproc_resizer* vemoproc_resizer_avx2(void) {
  static const vemoproc_resizer table = {
      stbir_resize_init,           stbir_set_edgemodes,
      stbir_set_filters,           stbir_build_samplers_with_splits,
      stbir_resize_extended_split, stbir_free_samplers,
  };
  return &table;
}
