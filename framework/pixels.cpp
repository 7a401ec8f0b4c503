// framework/pixels.cpp
//
// On x86-64 processors with SSSE3, byte shuffles reorder sixteen three-byte
// pixels (three vectors) or four four-byte pixels (one vector) at a time, and
// spread sixteen pixels of three planes; SSE2 unpacking interleaves four
// planes. Elsewhere, and for the last few pixels of a row, a plain loop does
// the work.
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

void interleave3Plain(const uint8_t* r, const uint8_t* g, const uint8_t* b, uint8_t* out, size_t n) {
  for (size_t x = 0; x < n; ++x, out += 3) {
    out[0] = r[x];
    out[1] = g[x];
    out[2] = b[x];
  }
}

void interleave4Plain(const uint8_t* r, const uint8_t* g, const uint8_t* b, const uint8_t* a,
                      uint8_t* out, size_t n) {
  for (size_t x = 0; x < n; ++x, out += 4) {
    out[0] = r[x];
    out[1] = g[x];
    out[2] = b[x];
    out[3] = a[x];
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

__attribute__((target("ssse3"))) void swap4Ssse3(uint8_t* p, size_t count) {
  const __m128i order = _mm_setr_epi8(2, 1, 0, 3, 6, 5, 4, 7, 10, 9, 8, 11, 14, 13, 12, 15);
  size_t i = 0;
  for (; i + 4 <= count; i += 4) {
    __m128i* at = reinterpret_cast<__m128i*>(p + 4 * i);
    _mm_storeu_si128(at, _mm_shuffle_epi8(_mm_loadu_si128(at), order));
  }
  swapPlain(p + 4 * i, count - i, 4);
}

// kSpread[out][plane]: the shuffle that moves the bytes of one plane's 16
// pixels to their places in output vector `out` of 48 interleaved bytes;
// 0x80 lanes are filled from the other planes.
constexpr auto kSpread = [] {
  std::array<std::array<std::array<uint8_t, 16>, 3>, 3> m{};
  for (auto& out : m)
    for (auto& plane : out) plane.fill(0x80);
  for (int p = 0; p < 48; ++p) m[p / 16][p % 3][p % 16] = uint8_t(p / 3);
  return m;
}();

__attribute__((target("ssse3"))) void interleave3Ssse3(const uint8_t* r, const uint8_t* g,
                                                       const uint8_t* b, uint8_t* out, size_t n) {
  __m128i mask[3][3];
  for (int o = 0; o < 3; ++o)
    for (int p = 0; p < 3; ++p)
      mask[o][p] = _mm_loadu_si128(reinterpret_cast<const __m128i*>(kSpread[o][p].data()));
  size_t x = 0;
  for (; x + 16 <= n; x += 16) {
    const __m128i vr = _mm_loadu_si128(reinterpret_cast<const __m128i*>(r + x));
    const __m128i vg = _mm_loadu_si128(reinterpret_cast<const __m128i*>(g + x));
    const __m128i vb = _mm_loadu_si128(reinterpret_cast<const __m128i*>(b + x));
    __m128i* to = reinterpret_cast<__m128i*>(out + 3 * x);
    for (int o = 0; o < 3; ++o)
      _mm_storeu_si128(to + o, _mm_or_si128(_mm_or_si128(_mm_shuffle_epi8(vr, mask[o][0]),
                                                         _mm_shuffle_epi8(vg, mask[o][1])),
                                            _mm_shuffle_epi8(vb, mask[o][2])));
  }
  interleave3Plain(r + x, g + x, b + x, out + 3 * x, n - x);
}

void interleave4Sse2(const uint8_t* r, const uint8_t* g, const uint8_t* b, const uint8_t* a,
                     uint8_t* out, size_t n) {
  size_t x = 0;
  for (; x + 16 <= n; x += 16) {
    const __m128i vr = _mm_loadu_si128(reinterpret_cast<const __m128i*>(r + x));
    const __m128i vg = _mm_loadu_si128(reinterpret_cast<const __m128i*>(g + x));
    const __m128i vb = _mm_loadu_si128(reinterpret_cast<const __m128i*>(b + x));
    const __m128i va = _mm_loadu_si128(reinterpret_cast<const __m128i*>(a + x));
    const __m128i rgLow = _mm_unpacklo_epi8(vr, vg), rgHigh = _mm_unpackhi_epi8(vr, vg);
    const __m128i baLow = _mm_unpacklo_epi8(vb, va), baHigh = _mm_unpackhi_epi8(vb, va);
    __m128i* to = reinterpret_cast<__m128i*>(out + 4 * x);
    _mm_storeu_si128(to, _mm_unpacklo_epi16(rgLow, baLow));
    _mm_storeu_si128(to + 1, _mm_unpackhi_epi16(rgLow, baLow));
    _mm_storeu_si128(to + 2, _mm_unpacklo_epi16(rgHigh, baHigh));
    _mm_storeu_si128(to + 3, _mm_unpackhi_epi16(rgHigh, baHigh));
  }
  interleave4Plain(r + x, g + x, b + x, a + x, out + 4 * x, n - x);
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

void interleave3(const uint8_t* r, const uint8_t* g, const uint8_t* b, uint8_t* out,
                 size_t count) noexcept {
#if defined(__x86_64__)
  if (hasSsse3()) return interleave3Ssse3(r, g, b, out, count);
#endif
  interleave3Plain(r, g, b, out, count);
}

void interleave4(const uint8_t* r, const uint8_t* g, const uint8_t* b, const uint8_t* a,
                 uint8_t* out, size_t count) noexcept {
#if defined(__x86_64__)
  interleave4Sse2(r, g, b, a, out, count);
#else
  interleave4Plain(r, g, b, a, out, count);
#endif
}

}  // namespace ldr
