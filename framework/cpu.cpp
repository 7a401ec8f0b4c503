// framework/cpu.cpp: the processor's vector units, read once.
#include "framework/cpu.h"

namespace ldr {

#if defined(__x86_64__)
bool cpuHasSsse3() noexcept {
  static const bool has = __builtin_cpu_supports("ssse3");
  return has;
}

bool cpuHasAvx512Vbmi() noexcept {
  static const bool has = __builtin_cpu_supports("avx512f") && __builtin_cpu_supports("avx512bw") &&
                          __builtin_cpu_supports("avx512vl") && __builtin_cpu_supports("avx512vbmi");
  return has;
}

bool cpuHasAvx512Gfni() noexcept {
  static const bool has = cpuHasAvx512Vbmi() && __builtin_cpu_supports("avx512vbmi2") &&
                          __builtin_cpu_supports("gfni") && __builtin_cpu_supports("bmi2");
  return has;
}
#else
bool cpuHasSsse3() noexcept { return false; }
bool cpuHasAvx512Vbmi() noexcept { return false; }
bool cpuHasAvx512Gfni() noexcept { return false; }
#endif

}  // namespace ldr
