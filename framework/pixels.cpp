// framework/pixels.cpp
//
// On x86-64 processors with SSSE3, byte shuffles reorder sixteen three-byte
// pixels (three vectors) or four four-byte pixels (one vector) at a time, and
// weave sixteen pixels out of three planes;
// elsewhere, and for the last few pixels of a row, a plain loop does the work.
// Every block is loaded whole before it is stored and blocks never overlap:
// a load that straddles a store still in flight would stall the processor.
#include "framework/pixels.h"

#include <array>
#include <utility>

#if defined(__x86_64__)
#include <tmmintrin.h>
#endif

namespace ldr {
namespace {

void swapPlain(uint8_t* p, size_t count, size_t step) {
  for (size_t i = 0; i < count; ++i, p += step) std::swap(p[0], p[2]);
}

void interleavePlain(const uint8_t* r, const uint8_t* g, const uint8_t* b, uint8_t* dst, size_t count) {
  for (size_t i = 0; i < count; ++i, dst += 3) {
    dst[0] = r[i];
    dst[1] = g[i];
    dst[2] = b[i];
  }
}

#if defined(__x86_64__)
bool hasSsse3() {
  static const bool has = __builtin_cpu_supports("ssse3");
  return has;
}

// Shuffle masks for 48 bytes of B, G, R pixels: kMask3[out][in] moves the
// bytes of input vector `in` to their places in output vector `out`; 0x80
// lanes are filled from another input.
constexpr auto kMask3 = [] {
  std::array<std::array<std::array<uint8_t, 16>, 3>, 3> m{};
  for (auto& out : m)
    for (auto& in : out) in.fill(0x80);
  for (int p = 0; p < 48; ++p) {
    const int source = p / 3 * 3 + (2 - p % 3);
    m[p / 16][source / 16][p % 16] = uint8_t(source % 16);
  }
  return m;
}();

__attribute__((target("ssse3"))) void swap3Ssse3(uint8_t* p, size_t count) {
  const auto mask = [](int out, int in) {
    return _mm_loadu_si128(reinterpret_cast<const __m128i*>(kMask3[out][in].data()));
  };
  const __m128i a0 = mask(0, 0), a1 = mask(0, 1);
  const __m128i b0 = mask(1, 0), b1 = mask(1, 1), b2 = mask(1, 2);
  const __m128i c1 = mask(2, 1), c2 = mask(2, 2);
  size_t i = 0;
  for (; i + 16 <= count; i += 16) {
    __m128i* at = reinterpret_cast<__m128i*>(p + 3 * i);
    const __m128i x = _mm_loadu_si128(at), y = _mm_loadu_si128(at + 1), z = _mm_loadu_si128(at + 2);
    _mm_storeu_si128(at, _mm_or_si128(_mm_shuffle_epi8(x, a0), _mm_shuffle_epi8(y, a1)));
    _mm_storeu_si128(at + 1, _mm_or_si128(_mm_or_si128(_mm_shuffle_epi8(x, b0), _mm_shuffle_epi8(y, b1)),
                                          _mm_shuffle_epi8(z, b2)));
    _mm_storeu_si128(at + 2, _mm_or_si128(_mm_shuffle_epi8(y, c1), _mm_shuffle_epi8(z, c2)));
  }
  swapPlain(p + 3 * i, count - i, 3);
}

// kWeave3[out][plane]: where the bytes of sixteen pixels' `plane` go in
// output vector `out`; 0x80 lanes come from another plane.
constexpr auto kWeave3 = [] {
  std::array<std::array<std::array<uint8_t, 16>, 3>, 3> m{};
  for (auto& out : m)
    for (auto& plane : out) plane.fill(0x80);
  for (int k = 0; k < 48; ++k) m[k / 16][k % 3][k % 16] = uint8_t(k / 3);
  return m;
}();

__attribute__((target("ssse3"))) void interleave3Ssse3(const uint8_t* r, const uint8_t* g,
                                                       const uint8_t* b, uint8_t* dst, size_t count) {
  __m128i masks[3][3];
  for (int out = 0; out < 3; ++out)
    for (int plane = 0; plane < 3; ++plane)
      masks[out][plane] = _mm_loadu_si128(reinterpret_cast<const __m128i*>(kWeave3[out][plane].data()));
  size_t i = 0;
  for (; i + 16 <= count; i += 16) {
    const __m128i planes[3] = {_mm_loadu_si128(reinterpret_cast<const __m128i*>(r + i)),
                               _mm_loadu_si128(reinterpret_cast<const __m128i*>(g + i)),
                               _mm_loadu_si128(reinterpret_cast<const __m128i*>(b + i))};
    for (int out = 0; out < 3; ++out)
      _mm_storeu_si128(reinterpret_cast<__m128i*>(dst + 3 * i) + out,
                       _mm_or_si128(_mm_or_si128(_mm_shuffle_epi8(planes[0], masks[out][0]),
                                                 _mm_shuffle_epi8(planes[1], masks[out][1])),
                                    _mm_shuffle_epi8(planes[2], masks[out][2])));
  }
  interleavePlain(r + i, g + i, b + i, dst + 3 * i, count - i);
}

__attribute__((target("ssse3"))) void swap4Ssse3(uint8_t* p, size_t count) {
  const __m128i order = _mm_setr_epi8(2, 1, 0, 3, 6, 5, 4, 7, 10, 9, 8, 11, 14, 13, 12, 15);
  size_t i = 0;
  for (; i + 4 <= count; i += 4) {
    __m128i* at = reinterpret_cast<__m128i*>(p + 4 * i);
    _mm_storeu_si128(at, _mm_shuffle_epi8(_mm_loadu_si128(at), order));
  }
  swapPlain(p + 4 * i, count - i, 4);
}
#endif

}  // namespace

void swapRedBlue3(uint8_t* pixels, size_t count) noexcept {
#if defined(__x86_64__)
  if (hasSsse3()) return swap3Ssse3(pixels, count);
#endif
  swapPlain(pixels, count, 3);
}

void swapRedBlue4(uint8_t* pixels, size_t count) noexcept {
#if defined(__x86_64__)
  if (hasSsse3()) return swap4Ssse3(pixels, count);
#endif
  swapPlain(pixels, count, 4);
}

void interleave3(const uint8_t* r, const uint8_t* g, const uint8_t* b, uint8_t* dst, size_t count) noexcept {
#if defined(__x86_64__)
  if (hasSsse3()) return interleave3Ssse3(r, g, b, dst, count);
#endif
  interleavePlain(r, g, b, dst, count);
}

}  // namespace ldr
