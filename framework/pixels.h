// framework/pixels.h: pixel reorderings that loaders need on their hot paths.
#pragma once

#include <cstddef>
#include <cstdint>

namespace ldr {

// Swaps the first and third byte of each of `count` pixels in place:
// B, G, R becomes R, G, B (3 bytes a pixel), B, G, R, A becomes R, G, B, A (4).
void swapRedBlue3(uint8_t* pixels, size_t count) noexcept;
void swapRedBlue4(uint8_t* pixels, size_t count) noexcept;

// Three planes of `count` bytes each into `count` three-byte pixels at `dst`:
// R, G, B from r, g, b.
void interleave3(const uint8_t* r, const uint8_t* g, const uint8_t* b, uint8_t* dst, size_t count) noexcept;

}  // namespace ldr
