// framework/helpers.h: internal side of the shared helpers.
#pragma once

namespace ldr {

// Byte order of the calling thread's Get16u/Get32s/Get32u: true = big-endian.
void setBigEndian(bool bigEndian) noexcept;
bool bigEndian() noexcept;

}  // namespace ldr
