// The library's one resize: the stb resizer, through its AVX2 build when the
// processor has it, split over the opt-in threads when the image is large.
// Every choice gives the same bytes.
#include <atomic>
#include <climits>
#include <cstdint>

#include "cpu.hpp"
#include "image_io.hpp"
#include "parallel.hpp"
#include "resizer.h"
#include "threads.hpp"

namespace vemoproc::detail {

namespace {

const vemoproc_resizer& baseline_resizer() {
  static const vemoproc_resizer table = {
      stbir_resize_init,           stbir_set_edgemodes,
      stbir_set_filters,           stbir_build_samplers_with_splits,
      stbir_resize_extended_split, stbir_free_samplers,
  };
  return table;
}

const vemoproc_resizer& chosen_resizer() {
#if defined(__x86_64__) || defined(__i386__)
  if (use_avx2()) return *vemoproc_resizer_avx2();
#endif
  return baseline_resizer();
}

// Input plus output pixels below which a resize stays on one thread: handing
// out the pieces would cost about as much as the work.
constexpr int64_t kMinPixelsToSplit = int64_t{1} << 18;

// Frees the samplers however the resize ends.
struct Samplers {
  const vemoproc_resizer& resizer;
  STBIR_RESIZE& resize;
  ~Samplers() { resizer.free_samplers(&resize); }
};

}  // namespace

bool resize_rgb(const uint8_t* in, int in_w, int in_h, size_t in_stride, uint8_t* out, int out_w,
                int out_h, size_t out_stride, ResizeFilter filter) {
  if (in_stride > static_cast<size_t>(INT_MAX) || out_stride > static_cast<size_t>(INT_MAX)) {
    return false;
  }
  const vemoproc_resizer& resizer = chosen_resizer();
  STBIR_RESIZE resize;
  resizer.resize_init(&resize, in, in_w, in_h, static_cast<int>(in_stride), out, out_w, out_h,
                      static_cast<int>(out_stride), STBIR_RGB, STBIR_TYPE_UINT8);
  resizer.set_edgemodes(&resize, STBIR_EDGE_CLAMP, STBIR_EDGE_CLAMP);
  if (filter == ResizeFilter::CatmullRom) {
    resizer.set_filters(&resize, STBIR_FILTER_CATMULLROM, STBIR_FILTER_CATMULLROM);
  }

  const int64_t pixels = int64_t{in_w} * in_h + int64_t{out_w} * out_h;
  const int wanted = pixels >= kMinPixelsToSplit ? num_threads() : 1;
  // The resizer may settle for fewer pieces (it keeps a few rows in each);
  // zero means it cannot resize these sizes at all.
  const int splits = resizer.build_samplers_with_splits(&resize, wanted);
  Samplers samplers{resizer, resize};
  if (splits <= 0) return false;

  std::atomic<bool> ok{true};
  parallel_for(static_cast<size_t>(splits), [&](size_t i) {
    if (!resizer.resize_extended_split(&resize, static_cast<int>(i), 1)) ok.store(false);
  });
  return ok.load();
}

}  // namespace vemoproc::detail
