// Run-time detection of the wider vector paths, with the tests' off switch.
#include "cpu.hpp"

#include <atomic>

#if defined(__x86_64__) || defined(__i386__)
#include <cpuid.h>
#endif

namespace vemoproc::detail {

namespace {

bool processor_has_avx2() {
#if defined(__x86_64__) || defined(__i386__)
  // AVX2 as the compiler's runtime sees it (processor and operating system),
  // F16C straight from CPUID leaf 1 (ECX bit 29): not every compiler's
  // feature query knows its name.
  static const bool has = [] {
    unsigned a = 0, b = 0, c = 0, d = 0;
    return __builtin_cpu_supports("avx2") && __get_cpuid(1, &a, &b, &c, &d) != 0 &&
           (c & (1u << 29)) != 0;
  }();
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
