#pragma once
// Opt-in threads. By default the library works on the calling thread only and
// creates no thread. After set_num_threads(n) with n > 1, calls that have
// independent work (one large resize, the images of a batch) spread it over up
// to n threads: the calling thread plus workers from a pool the library
// creates the first time it needs them and keeps until the process ends.
// Results are bit-identical to one thread. The setting is process-wide and may
// be changed at any time, from any thread; calls already running keep the
// number they started with.
//
// fork(): the parent keeps its pool. The child (which has only the forking
// thread) inherits the setting and may call every library function: its
// first parallel call starts workers of its own, and it exits cleanly
// (the parent's workers are never joined or used there). Calls that were
// running on other threads at the fork do not exist in the child.
#include "vemoproc_export.hpp"

namespace vemoproc {

// Largest accepted thread count.
inline constexpr int kMaxThreads = 256;

// Sets how many threads library calls may use, counting the calling thread.
// 1 restores the default (no thread is created). Throws std::runtime_error
// "set_num_threads(): n must be between 1 and 256, got <n>" otherwise.
VEMOPROC_API void set_num_threads(int n);

// The current setting (1 unless changed).
VEMOPROC_API int num_threads();

}  // namespace vemoproc
