// Run-time detection of the wider vector paths, with the tests' off switch.
#include "cpu.hpp"

#include <atomic>

namespace vemoproc::detail {

namespace {

bool processor_has_avx2() {
#if defined(__x86_64__) || defined(__i386__)
  static const bool has = __builtin_cpu_supports("avx2") && __builtin_cpu_supports("f16c");
  return has;
#else
  return false;
#endif
}

std::atomic<bool> wide_paths_enabled{true};

}  // namespace

bool use_avx2() {
  return processor_has_avx2() && wide_paths_enabled.load(std::memory_order_relaxed);
}

void set_wide_paths_enabled(bool enabled) {
  wide_paths_enabled.store(enabled, std::memory_order_relaxed);
}

}  // namespace vemoproc::detail
