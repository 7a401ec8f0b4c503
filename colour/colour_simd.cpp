// colour/colour_simd.cpp: the colour tools' hot loops for processors with
// 512-bit vectors (AVX-512 F/BW/VL/VBMI), sixteen pixels or sixteen map
// entries at a time, and the choice between them and the plain code.
//
// Every kernel gives exactly what the plain code gives, in the same order
// where order is observable: the cache answers a cell for the first colour
// that meets it, so a vector of pixels reads the cells it finds resolved and
// hands the others, lowest lane first, to the plain lookup.
#include <algorithm>

#include "colour/colour.h"
#include "framework/cpu.h"

#if defined(__x86_64__)
#include <immintrin.h>
#define VLOAD_WIDE __attribute__((target("avx512f,avx512bw,avx512vl,avx512vbmi")))
#endif

namespace ldr::colour {
namespace {

thread_local ColourPath t_path = ColourPath::Auto;

bool hasWideUnits() noexcept { return cpuHasAvx512Vbmi(); }

}  // namespace

void forceColourPath(ColourPath path) noexcept { t_path = path; }

bool colourPathAvailable(ColourPath path) noexcept { return path != ColourPath::Wide || hasWideUnits(); }

bool useWideColour() noexcept { return t_path != ColourPath::Plain && hasWideUnits(); }

#if defined(__x86_64__)
// GCC 12's shift and permute intrinsics start from a self-initialised
// "undefined" vector, which its own warnings then flag once inlined here.
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wuninitialized"
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#endif

namespace {

constexpr int32_t kLanes = 16;
constexpr int32_t kPage = 256;  // entries whose index fits the low byte of a search key
constexpr __mmask64 kColourBytes = 0x7777777777777777;  // bytes 0..2 of every 32-bit lane

// Pixel k of three bytes into 32-bit lane k: bytes 3k, 3k + 1, 3k + 2 and a
// fourth that every user ignores or masks.
VLOAD_WIDE __m512i spreadIndex() noexcept {
  alignas(64) static constexpr uint8_t kIndex[64] = {
      0,  1,  2,  2,  3,  4,  5,  5,  6,  7,  8,  8,  9,  10, 11, 11, 12, 13, 14, 14, 15, 16,
      17, 17, 18, 19, 20, 20, 21, 22, 23, 23, 24, 25, 26, 26, 27, 28, 29, 29, 30, 31, 32, 32,
      33, 34, 35, 35, 36, 37, 38, 38, 39, 40, 41, 41, 42, 43, 44, 44, 45, 46, 47, 47};
  return _mm512_load_si512(kIndex);
}

// The first n pixels of bytesPerPixel bytes: a mask of their bytes.
__mmask64 pixelBytes(int32_t n, int32_t bytesPerPixel) noexcept {
  const int32_t bytes = n * bytesPerPixel;
  return bytes >= 64 ? ~__mmask64(0) : (__mmask64(1) << bytes) - 1;
}

// Cube cells of sixteen colours, R, G, B in bytes 0..2 of each 32-bit lane
// (byte 3 is ignored): each byte's top 6 bits, then R6 x 64 + G6 and B6 as
// 16-bit halves (maddubs with weights 64, 1, 1, 0), then the first half x 64
// plus the second (madd with weights 64, 1). No sum leaves its lane's range.
VLOAD_WIDE __m512i cellsOf(__m512i colours) noexcept {
  const __m512i six = _mm512_and_si512(_mm512_srli_epi16(colours, 2), _mm512_set1_epi8(0x3F));
  const __m512i halves = _mm512_maddubs_epi16(six, _mm512_set1_epi32(0x00010140));
  return _mm512_madd_epi16(halves, _mm512_set1_epi32(0x00010040));
}

// Sixteen pixels of a row as colours in 32-bit lanes.
VLOAD_WIDE __m512i coloursOf(__m512i pixels, int32_t bytesPerPixel) noexcept {
  return bytesPerPixel == 3 ? _mm512_permutexvar_epi8(spreadIndex(), pixels) : pixels;
}

// Squared distances from differences in 16-bit lanes: red and green, blue
// and a zero.
VLOAD_WIDE __m512i squares(__m512i dRedGreen, __m512i dBlue) noexcept {
  return _mm512_add_epi32(_mm512_madd_epi16(dRedGreen, dRedGreen), _mm512_madd_epi16(dBlue, dBlue));
}

}  // namespace

// The smallest key distance x 256 + index within a page of 256 entries is the
// first entry at the smallest distance; pages are compared in order, a later
// one winning only when strictly nearer. Differences fit 16-bit lanes (far
// entries sit at 1000) and a distance, at most 3 x 1000^2, leaves 8 bits free.
VLOAD_WIDE uint32_t nearestWide(const uint32_t* redGreen, const uint32_t* blueWords, int32_t padded,
                                int32_t r, int32_t g, int32_t b) noexcept {
  const __m512i pixelRedGreen = _mm512_set1_epi32(r | g << 16), pixelBlue = _mm512_set1_epi32(b);
  const __m512i step = _mm512_set1_epi32(kLanes);
  uint32_t bestDistance = ~0u, best = 0;
  for (int32_t page = 0; page < padded; page += kPage) {
    const int32_t end = std::min(padded, page + kPage);
    __m512i least = _mm512_set1_epi32(-1);
    __m512i index = _mm512_setr_epi32(0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15);
    for (int32_t i = page; i < end; i += kLanes, index = _mm512_add_epi32(index, step)) {
      const __m512i dRedGreen = _mm512_sub_epi16(_mm512_loadu_si512(redGreen + i), pixelRedGreen);
      const __m512i dBlue = _mm512_sub_epi16(_mm512_loadu_si512(blueWords + i), pixelBlue);
      least = _mm512_min_epu32(least, _mm512_or_si512(_mm512_slli_epi32(squares(dRedGreen, dBlue), 8), index));
    }
    const uint32_t key = _mm512_reduce_min_epu32(least);
    if (key >> 8 < bestDistance) {
      bestDistance = key >> 8;
      best = uint32_t(page) + (key & 255);
    }
  }
  return bestDistance > kFarthestDistance ? 0 : best;
}

// Sixteen entries at a time, in 16-bit lanes as the search has them (blue
// with a zero beside it, which stays zero): per channel the largest and the
// least distance to lo..lo + 31, squared and summed by multiply-adds. The
// listed lanes are packed together and stored, as many as there are.
VLOAD_WIDE int32_t listWide(const uint32_t* redGreen, const uint32_t* blueWords, int32_t padded,
                            const int32_t lo[3], uint32_t* listRedGreen, uint32_t* listBlue,
                            uint8_t* listIndex) noexcept {
  const __m512i loRedGreen = _mm512_set1_epi32(lo[0] | lo[1] << 16), loBlue = _mm512_set1_epi32(lo[2]);
  const __m512i hiRedGreen = _mm512_set1_epi32((lo[0] + 31) | (lo[1] + 31) << 16);
  const __m512i hiBlue = _mm512_set1_epi32(lo[2] + 31), zero = _mm512_setzero_si512();
  const __m512i far = _mm512_set1_epi32(int32_t(kFarWord | kFarWord << 16));
  __m512i reach = _mm512_set1_epi32(-1);
  for (int32_t i = 0; i < padded; i += kLanes) {
    const __m512i rg = _mm512_loadu_si512(redGreen + i), b = _mm512_loadu_si512(blueWords + i);
    const __m512i most = squares(_mm512_max_epi16(_mm512_sub_epi16(rg, loRedGreen), _mm512_sub_epi16(hiRedGreen, rg)),
                                 _mm512_max_epi16(_mm512_sub_epi16(b, loBlue), _mm512_sub_epi16(hiBlue, b)));
    reach = _mm512_mask_min_epu32(reach, _mm512_cmpneq_epi32_mask(rg, far), reach, most);
  }
  reach = _mm512_set1_epi32(int32_t(_mm512_reduce_min_epu32(reach)));
  int32_t n = 0;
  __m512i index = _mm512_setr_epi32(0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15);
  for (int32_t i = 0; i < padded; i += kLanes, index = _mm512_add_epi32(index, _mm512_set1_epi32(kLanes))) {
    const __m512i rg = _mm512_loadu_si512(redGreen + i), b = _mm512_loadu_si512(blueWords + i);
    const __m512i beyondRedGreen = _mm512_max_epi16(_mm512_sub_epi16(loRedGreen, rg), _mm512_sub_epi16(rg, hiRedGreen));
    const __m512i beyondBlue = _mm512_max_epi16(_mm512_sub_epi16(loBlue, b), _mm512_sub_epi16(b, hiBlue));
    const __m512i least = squares(_mm512_max_epi16(beyondRedGreen, zero), _mm512_max_epi16(beyondBlue, zero));
    const __mmask16 listed = _mm512_mask_cmple_epu32_mask(_mm512_cmpneq_epi32_mask(rg, far), least, reach);
    const __mmask16 stored = __mmask16((1u << __builtin_popcount(listed)) - 1);
    _mm512_mask_storeu_epi32(listRedGreen + n, stored, _mm512_maskz_compress_epi32(listed, rg));
    _mm512_mask_storeu_epi32(listBlue + n, stored, _mm512_maskz_compress_epi32(listed, b));
    _mm512_mask_cvtepi32_storeu_epi8(listIndex + n, stored, _mm512_maskz_compress_epi32(listed, index));
    n += __builtin_popcount(listed);
  }
  return n;
}

// Sixteen pixels (n of them at the row's end): their cells' slots by one
// gather, the resolved ones stored at once (the low byte of a slot is its
// entry), the rest looked up in lane order afterwards. With noise, the
// block's 48 offsets are one read from the table, added with unsigned
// saturation (the positive and negative parts apart), which is the plain
// code's clamp to 0..255. A noisy block with a transparent pixel goes pixel
// by pixel: that pixel takes no offsets, so the later ones shift. Returns
// the noise position after the block.
template <int kBytes, bool kNoise, bool kAlpha>
VLOAD_WIDE inline uint32_t remapBlock(const RemapRows& job, const NearestCache::Ref& lookups, const uint8_t* p,
                                      uint8_t* out, int32_t n, uint32_t position) noexcept {
  const __mmask16 lanes = __mmask16((1u << n) - 1);
  __m512i pixels = _mm512_maskz_loadu_epi8(pixelBytes(n, kBytes), p);
  const __mmask16 clear =
      kAlpha ? _mm512_mask_testn_epi32_mask(lanes, pixels, _mm512_set1_epi32(int32_t(0xFF000000))) : 0;
  if (kNoise) {
    if (clear) {
      for (int32_t k = 0; k < n; ++k) out[k] = job.pixel(p + k * kBytes, position, lookups);
      return position;
    }
    __m512i offsets = _mm512_loadu_si512(job.noise->run(position));
    if (kBytes == 4) offsets = _mm512_maskz_permutexvar_epi8(kColourBytes, spreadIndex(), offsets);
    const __m512i up = _mm512_max_epi8(offsets, _mm512_setzero_si512()), down = _mm512_sub_epi8(up, offsets);
    pixels = _mm512_subs_epu8(_mm512_adds_epu8(pixels, up), down);
    position += uint32_t(3 * n);
  }
  const __m512i colours = coloursOf(pixels, kBytes);
  const __mmask16 opaque = lanes & ~clear;
  __m512i slots = _mm512_mask_i32gather_epi32(_mm512_setzero_si512(), opaque, cellsOf(colours), lookups.slots, 2);
  __mmask16 unresolved = _mm512_mask_test_epi32_mask(opaque, slots, _mm512_set1_epi32(0x8000));
  if (kAlpha) slots = _mm512_mask_mov_epi32(slots, clear, _mm512_set1_epi32(job.transparent));
  _mm512_mask_cvtepi32_storeu_epi8(out, lanes, slots);
  if (!unresolved) [[likely]]
    return position;
  // Without noise the colours are still in the row; with noise, in the vector.
  alignas(64) uint8_t noisy[64];
  if (kNoise) _mm512_store_si512(noisy, colours);
  for (; unresolved; unresolved &= __mmask16(unresolved - 1)) {
    const int k = __builtin_ctz(unresolved);
    const uint8_t* c = kNoise ? noisy + 4 * k : p + k * kBytes;
    out[k] = lookups.lookup(c[0], c[1], c[2]);
  }
  return position;
}

template <int kBytes, bool kNoise, bool kAlpha>
VLOAD_WIDE void remapRowAs(const RemapRows& job, const uint8_t* p, uint8_t* out, uint32_t position,
                           const NearestCache::Ref& lookups) noexcept {
  int32_t x = 0;
  for (; x + kLanes <= job.width; x += kLanes)
    position = remapBlock<kBytes, kNoise, kAlpha>(job, lookups, p + ptrdiff_t(x) * kBytes, out + x, kLanes, position);
  if (x < job.width)
    remapBlock<kBytes, kNoise, kAlpha>(job, lookups, p + ptrdiff_t(x) * kBytes, out + x, job.width - x, position);
}

VLOAD_WIDE void remapRowWide(const RemapRows& job, int32_t y, uint32_t position,
                             NearestCache& cache) noexcept {
  const RemapRows local = job;  // in registers, as the cache's Ref
  const NearestCache::Ref lookups = cache.ref();
  const uint8_t* p = rowOf(local.src, y, local.srcStride);
  uint8_t* out = rowOf(local.dst, y, local.dstStride);
  const bool alpha = local.transparent >= 0;  // only with 4 bytes a pixel
  if (local.bytesPerPixel == 3)
    return local.noise ? remapRowAs<3, true, false>(local, p, out, position, lookups)
                       : remapRowAs<3, false, false>(local, p, out, position, lookups);
  if (local.noise)
    return alpha ? remapRowAs<4, true, true>(local, p, out, position, lookups)
                 : remapRowAs<4, true, false>(local, p, out, position, lookups);
  return alpha ? remapRowAs<4, false, true>(local, p, out, position, lookups)
               : remapRowAs<4, false, false>(local, p, out, position, lookups);
}

// The cells of a stretch of the row first, then the counts: counted as soon
// as each vector is made (the compiler then takes the cells straight from the
// vector), each increment's address would come late, and the processor's
// guesses that a load does not depend on an earlier store to the same cell,
// which neighbouring pixels often share, cost several times the whole work.
VLOAD_WIDE void countCellsWide(const uint8_t* row, int32_t width, int32_t bytesPerPixel,
                               uint64_t* cube) noexcept {
  constexpr int32_t kStretch = 256;
  alignas(64) uint32_t cells[kStretch];
  for (int32_t start = 0; start < width; start += kStretch) {
    const int32_t m = std::min(kStretch, width - start);
    for (int32_t x = 0; x < m; x += kLanes) {
      const __mmask64 bytes = pixelBytes(std::min(kLanes, m - x), bytesPerPixel);
      const __m512i pixels = _mm512_maskz_loadu_epi8(bytes, row + ptrdiff_t(start + x) * bytesPerPixel);
      _mm512_store_si512(cells + x, cellsOf(coloursOf(pixels, bytesPerPixel)));
    }
    for (int32_t k = 0; k < m; ++k) ++cube[cells[k]];
  }
}

#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic pop
#endif

#else
// Without x86-64 useWideColour() is false and these are never called; they
// do what the plain code does so that the library links everywhere.
uint32_t nearestWide(const uint32_t*, const uint32_t*, int32_t, int32_t, int32_t, int32_t) noexcept { return 0; }

int32_t listWide(const uint32_t*, const uint32_t*, int32_t, const int32_t*, uint32_t*, uint32_t*, uint8_t*) noexcept {
  return 0;
}

void remapRowWide(const RemapRows& job, int32_t y, uint32_t position, NearestCache& cache) noexcept {
  remapRowPlain(job, y, position, cache);
}

void countCellsWide(const uint8_t* row, int32_t width, int32_t bytesPerPixel, uint64_t* cube) noexcept {
  for (int32_t x = 0; x < width; ++x, row += bytesPerPixel) ++cube[cellOf(row[0], row[1], row[2])];
}
#endif

}  // namespace ldr::colour
