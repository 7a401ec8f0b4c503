// framework/cpu.h: which vector units this processor has, asked once per
// process. The loaders' and tools' wide paths choose by these answers, so a
// processor gets every wide path or none of a family.
#pragma once

namespace ldr {

bool cpuHasSsse3() noexcept;
// AVX-512 F, BW, VL and VBMI: byte permutes across a whole register.
bool cpuHasAvx512Vbmi() noexcept;
// The above and VBMI2, GFNI and BMI2: funnel shifts and bit-matrix transposes.
bool cpuHasAvx512Gfni() noexcept;

}  // namespace ldr
