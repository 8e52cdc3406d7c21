#pragma once
// Internal: run-time choice of the wider vector paths. Every such path gives
// the same bytes as its portable equivalent; tests switch the wide paths off
// through this hook to prove it (exported for them, not installed).
#include "vemoproc_export.hpp"

namespace vemoproc::detail {

// True when the processor has AVX2 and F16C and the wide paths are enabled.
VEMOPROC_API bool use_avx2();

// Tests only: false forces every portable path, true restores the default
// (the processor's own capability). Process-wide.
VEMOPROC_API void set_wide_paths_enabled(bool enabled);

}  // namespace vemoproc::detail
