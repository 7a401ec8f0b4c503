// framework/checked.h: overflow-checked size arithmetic for values that come
// from files. Widen, check, then narrow; never multiply in the narrow type and
// check afterwards.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>

namespace ldr {

template <class T>
[[nodiscard]] constexpr bool mulOk(T a, T b, T& out) noexcept {
  return !__builtin_mul_overflow(a, b, &out);
}
template <class T>
[[nodiscard]] constexpr bool addOk(T a, T b, T& out) noexcept {
  return !__builtin_add_overflow(a, b, &out);
}

// Bytes of one row of `width` pixels of `bits` bits, padded to a multiple of
// `align` bytes; empty when the result would not fit a 32-bit signed stride.
[[nodiscard]] constexpr std::optional<uint32_t> rowBytes(uint32_t width, uint32_t bits,
                                                         uint32_t align = 1) noexcept {
  const uint64_t bytes = (uint64_t{width} * bits + 7) / 8;  // 32 x 32 bits fits in 64
  const uint64_t padded = (bytes + align - 1) / align * align;
  if (padded > INT32_MAX) return std::nullopt;
  return static_cast<uint32_t>(padded);
}

// Start of row `row` of a buffer whose rows are `stride` bytes apart.
inline uint8_t* rowAt(uint8_t* base, int64_t row, int32_t stride) noexcept {
  return base + static_cast<std::ptrdiff_t>(row * stride);  // widened before multiplying
}

// Bytes one row of `width` pixels takes in the caller's buffer for a layout;
// empty for an unknown layout or a row too long for a 32-bit stride.
[[nodiscard]] constexpr std::optional<uint32_t> layoutRowBytes(uint8_t layout,
                                                               uint32_t width) noexcept {
  switch (layout) {
    case 0: return rowBytes(width, 1);
    case 1: return rowBytes(width, 8);
    case 2: return rowBytes(width, 24);
    case 7: return rowBytes(width, 32);
    default: return std::nullopt;
  }
}

}  // namespace ldr
