// framework/pixels.h: pixel reorderings that loaders need on their hot paths.
#pragma once

#include <cstddef>
#include <cstdint>

namespace ldr {

// Swaps the first and third byte of each of `count` pixels in place:
// B, G, R becomes R, G, B (3 bytes a pixel), B, G, R, A becomes R, G, B, A (4).
void swapRedBlue3(uint8_t* pixels, size_t count) noexcept;
void swapRedBlue4(uint8_t* pixels, size_t count) noexcept;

// Interleaves `count` pixels kept as separate planes (one byte a pixel each)
// into R, G, B (3 bytes a pixel) or R, G, B, A (4).
void interleave3(const uint8_t* r, const uint8_t* g, const uint8_t* b, uint8_t* out,
                 size_t count) noexcept;
void interleave4(const uint8_t* r, const uint8_t* g, const uint8_t* b, const uint8_t* a,
                 uint8_t* out, size_t count) noexcept;

}  // namespace ldr
