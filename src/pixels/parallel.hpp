#pragma once
// Internal: running independent pieces of work on the library's opt-in thread
// pool (see threads.hpp).
#include <cstddef>
#include <functional>

#include "vemoproc_export.hpp"

namespace vemoproc::detail {

// Calls fn(i) once for every i in [0, count), on up to num_threads() threads
// (the caller's included), and returns when all calls have returned. With one
// thread, or one piece, everything runs inline in index order. When calls
// throw, the first exception is rethrown here after every started call has
// finished; pieces not yet started are skipped. Safe to call from several
// threads at once and from inside fn (the nested call makes progress on its
// caller's thread even when every worker is busy). Exported for the tests.
VEMOPROC_API void parallel_for(size_t count, const std::function<void(size_t)>& fn);

// parallel_for for the items of a batch, failing the way a plain loop over
// them does: when items throw, the exception of the lowest failing index is
// rethrown (items after a known failure are skipped, items before it still
// run). Exported for the tests.
VEMOPROC_API void parallel_for_each_item(size_t count, const std::function<void(size_t)>& fn);

}  // namespace vemoproc::detail
