// framework/pixels.cpp
//
// Three paths, the widest the processor has unless a test forces one:
//  - AVX-512 (F, BW, VBMI): 64 pixels a step. vpermt2b picks every output
//    byte from two input vectors, so 192 bytes of three-byte pixels take three
//    permutes, and 64 pixels of three planes six. Only this path streams.
//  - SSSE3: byte shuffles on sixteen three-byte pixels (three vectors) or
//    four four-byte pixels (one vector), and on sixteen pixels of three
//    planes; SSE2 unpacking interleaves four planes (on this path and the
//    AVX-512 one).
//  - plain loops: everywhere else, and for rows too short for a vector step.
// Every step loads what it needs before it stores: a load that straddles a
// store still in flight would stall the processor.
#include "framework/pixels.h"

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstring>

#include "framework/cpu.h"

#if defined(__x86_64__)
#include <immintrin.h>
#define VLOAD_WIDE __attribute__((target("avx512f,avx512bw,avx512vbmi")))
#endif

namespace ldr {
namespace {

thread_local PixelPath t_forced = PixelPath::Auto;
thread_local std::optional<Store> t_forcedStore;

void swapPlain(const uint8_t* s, uint8_t* d, size_t count, size_t step) {
  for (size_t i = 0; i < count; ++i, s += step, d += step) {
    const uint8_t blue = s[0];
    d[0] = s[2];
    d[1] = s[1];
    d[2] = blue;
    if (step == 4) d[3] = s[3];
  }
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

PixelPath widestPath() {
  return cpuHasAvx512Vbmi() ? PixelPath::Avx512 : cpuHasSsse3() ? PixelPath::Ssse3 : PixelPath::Plain;
}

PixelPath currentPath() {
  const PixelPath widest = widestPath();
  return t_forced == PixelPath::Auto || t_forced > widest ? widest : t_forced;
}

#if defined(__x86_64__)
// ---- SSSE3

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

__attribute__((target("ssse3"))) void swap3Ssse3(const uint8_t* src, uint8_t* dst, size_t count) {
  const auto mask = [](int out, int in) {
    return _mm_loadu_si128(reinterpret_cast<const __m128i*>(kMask3[out][in].data()));
  };
  const __m128i a0 = mask(0, 0), a1 = mask(0, 1);
  const __m128i b0 = mask(1, 0), b1 = mask(1, 1), b2 = mask(1, 2);
  const __m128i c1 = mask(2, 1), c2 = mask(2, 2);
  size_t i = 0;
  for (; i + 16 <= count; i += 16) {
    const __m128i* from = reinterpret_cast<const __m128i*>(src + 3 * i);
    __m128i* to = reinterpret_cast<__m128i*>(dst + 3 * i);
    const __m128i x = _mm_loadu_si128(from), y = _mm_loadu_si128(from + 1), z = _mm_loadu_si128(from + 2);
    _mm_storeu_si128(to, _mm_or_si128(_mm_shuffle_epi8(x, a0), _mm_shuffle_epi8(y, a1)));
    _mm_storeu_si128(to + 1, _mm_or_si128(_mm_or_si128(_mm_shuffle_epi8(x, b0), _mm_shuffle_epi8(y, b1)),
                                          _mm_shuffle_epi8(z, b2)));
    _mm_storeu_si128(to + 2, _mm_or_si128(_mm_shuffle_epi8(y, c1), _mm_shuffle_epi8(z, c2)));
  }
  swapPlain(src + 3 * i, dst + 3 * i, count - i, 3);
}

__attribute__((target("ssse3"))) void swap4Ssse3(const uint8_t* src, uint8_t* dst, size_t count) {
  const __m128i order = _mm_setr_epi8(2, 1, 0, 3, 6, 5, 4, 7, 10, 9, 8, 11, 14, 13, 12, 15);
  size_t i = 0;
  for (; i + 4 <= count; i += 4)
    _mm_storeu_si128(reinterpret_cast<__m128i*>(dst + 4 * i),
                     _mm_shuffle_epi8(_mm_loadu_si128(reinterpret_cast<const __m128i*>(src + 4 * i)), order));
  swapPlain(src + 4 * i, dst + 4 * i, count - i, 4);
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

// ---- AVX-512

VLOAD_WIDE inline __m512i load(const uint8_t* from) { return _mm512_loadu_si512(from); }

// Where a step's vectors go: put(k, v) stores vector k of the step.
struct StreamTo {
  uint8_t* at;
  VLOAD_WIDE void operator()(size_t k, __m512i v) const {
    _mm512_stream_si512(reinterpret_cast<__m512i*>(at + 64 * k), v);
  }
};
struct StoreTo {
  uint8_t* at;
  VLOAD_WIDE void operator()(size_t k, __m512i v) const { _mm512_storeu_si512(at + 64 * k, v); }
};
// Only the bytes [from, to) of the step's output, with cached stores.
struct StorePartTo {
  uint8_t* at;
  size_t from, to;
  VLOAD_WIDE void operator()(size_t k, __m512i v) const {
    const size_t lo = std::max(from, 64 * k), hi = std::min(to, 64 * k + 64);
    if (lo < hi) _mm512_mask_storeu_epi8(at + 64 * k, (~uint64_t{0} >> (64 - (hi - lo))) << (lo - 64 * k), v);
  }
};

// Writes bytes [from, to) of a step's output, kept in `out`, to `at` (where
// the step's output belongs): every whole line streamed, the bytes of lines
// cut at either end with masked cached stores.
VLOAD_WIDE inline void streamPart(const uint8_t* out, uint8_t* at, size_t from, size_t to) {
  while (from < to) {
    uint8_t* line = at + from;
    const size_t n = std::min(64 - reinterpret_cast<uintptr_t>(line) % 64, to - from);
    const __mmask64 lanes = ~uint64_t{0} >> (64 - n);
    const __m512i v = _mm512_maskz_loadu_epi8(lanes, out + from);
    if (n == 64) _mm512_stream_si512(reinterpret_cast<__m512i*>(line), v);
    else _mm512_mask_storeu_epi8(line, lanes, v);
    from += n;
  }
}

// Runs `step` over `count` >= kStep pixels written to `dst`: step(i, put)
// converts pixels i .. i + kStep - 1, kPixelBytes × kStep bytes, and hands
// each of its vectors to `put`. Cached, the last step ends at `count` and
// stores only what the steps before left.
// Streamed stores need 64-byte aligned addresses, and every line must be
// streamed whole: a line that takes a cached store is read from memory first,
// the very cost streaming saves. So the steps stream from the first pixel
// whose bytes start a line, and the first and last steps convert into `out`,
// from where streamPart writes what the middle steps leave.
template <size_t kPixelBytes, size_t kStep, class Step>
VLOAD_WIDE inline void runOver(const Step& step, uint8_t* dst, size_t count, bool stream) {
  constexpr size_t kBytes = kPixelBytes * kStep;
  size_t i = 0;  // pixels stored so far
  if (stream) {
    const size_t gap = (64 - reinterpret_cast<uintptr_t>(dst) % 64) % 64;  // bytes to a line start
    if constexpr (kPixelBytes == 3) i = gap * 43 % 64;  // 3 × 43 = 129 = 1 (mod 64): pixel i starts a line
    else if (gap % kPixelBytes == 0) i = gap / kPixelBytes;
    else stream = false;  // no pixel starts a line: store everything cached
  }
  if (!stream) {
    for (; i + kStep <= count; i += kStep) step(i, StoreTo{dst + kPixelBytes * i});
    if (i < count) {
      const size_t last = count - kStep;
      step(last, StorePartTo{dst + kPixelBytes * last, kPixelBytes * (i - last), kBytes});
    }
    return;
  }
  alignas(64) uint8_t out[kBytes];
  if (i > 0) {
    step(0, StoreTo{out});
    streamPart(out, dst, 0, kPixelBytes * i);
  }
  for (; i + kStep <= count; i += kStep) step(i, StreamTo{dst + kPixelBytes * i});
  if (i < count) {
    const size_t last = count - kStep;
    step(last, StoreTo{out});
    streamPart(out, dst + kPixelBytes * last, kPixelBytes * (i - last), kBytes);
  }
}

// Output vector k of 192 bytes of swapped three-byte pixels is picked from
// the 128 source bytes starting at kPairAt[k]; kSwap3[k] says where from.
constexpr size_t kPairAt[3] = {0, 32, 64};
constexpr auto kSwap3 = [] {
  std::array<std::array<uint8_t, 64>, 3> m{};
  for (size_t p = 0; p < 192; ++p) m[p / 64][p % 64] = uint8_t(p / 3 * 3 + 2 - p % 3 - kPairAt[p / 64]);
  return m;
}();

struct Swap3Step {
  const uint8_t* src;
  template <class Put>
  VLOAD_WIDE void operator()(size_t i, const Put& put) const {
    const uint8_t* s = src + 3 * i;
    for (size_t k = 0; k < 3; ++k)
      put(k, _mm512_permutex2var_epi8(load(s + kPairAt[k]), load(kSwap3[k].data()), load(s + kPairAt[k] + 64)));
  }
};

// Byte order of sixteen swapped four-byte pixels, for a shuffle that works
// within each 16-byte lane.
constexpr auto kSwap4 = [] {
  std::array<uint8_t, 64> m{};
  for (size_t p = 0; p < 64; ++p) m[p] = uint8_t(p % 16 / 4 * 4 + (p % 4 == 3 ? 3 : 2 - p % 4));
  return m;
}();

struct Swap4Step {
  const uint8_t* src;
  template <class Put>
  VLOAD_WIDE void operator()(size_t i, const Put& put) const {
    put(0, _mm512_shuffle_epi8(load(src + 4 * i), load(kSwap4.data())));
  }
};

struct CopyStep {
  const uint8_t* src;
  template <class Put>
  VLOAD_WIDE void operator()(size_t i, const Put& put) const {
    for (size_t k = 0; k < 4; ++k) put(k, load(src + i + 64 * k));
  }
};

// For output vector k of 64 interleaved pixels: where each red or green byte
// comes from in the two planes (green from 64 on), and where each blue byte
// comes from in its plane, with the mask of the blue lanes.
struct Spread3 {
  std::array<std::array<uint8_t, 64>, 3> redGreen{}, blue{};
  std::array<uint64_t, 3> blueLanes{};
};
constexpr Spread3 kSpread3 = [] {
  Spread3 s;
  for (size_t p = 0; p < 192; ++p) {
    const size_t k = p / 64, lane = p % 64, x = p / 3, c = p % 3;
    if (c < 2) {
      s.redGreen[k][lane] = uint8_t(x + 64 * c);
    } else {
      s.blue[k][lane] = uint8_t(x);
      s.blueLanes[k] |= uint64_t{1} << lane;
    }
  }
  return s;
}();

struct Interleave3Step {
  const uint8_t *r, *g, *b;
  template <class Put>
  VLOAD_WIDE void operator()(size_t x, const Put& put) const {
    const __m512i vr = load(r + x), vg = load(g + x), vb = load(b + x);
    for (size_t k = 0; k < 3; ++k) {
      const __m512i rg = _mm512_permutex2var_epi8(vr, load(kSpread3.redGreen[k].data()), vg);
      put(k, _mm512_mask_permutexvar_epi8(rg, kSpread3.blueLanes[k], load(kSpread3.blue[k].data()), vb));
    }
  }
};

VLOAD_WIDE void copyWide(const uint8_t* src, uint8_t* dst, size_t n) {
  runOver<1, 256>(CopyStep{src}, dst, n, true);
}

VLOAD_WIDE void swap3Wide(const uint8_t* src, uint8_t* dst, size_t count, bool stream) {
  runOver<3, 64>(Swap3Step{src}, dst, count, stream);
}

VLOAD_WIDE void swap4Wide(const uint8_t* src, uint8_t* dst, size_t count, bool stream) {
  runOver<4, 16>(Swap4Step{src}, dst, count, stream);
}

VLOAD_WIDE void interleave3Wide(const uint8_t* r, const uint8_t* g, const uint8_t* b, uint8_t* out,
                                size_t count, bool stream) {
  runOver<3, 64>(Interleave3Step{r, g, b}, out, count, stream);
}
#endif

}  // namespace

void copyBytes(const uint8_t* src, uint8_t* dst, size_t n, Store store) noexcept {
#if defined(__x86_64__)
  // A cached copy is memcpy's job; only streaming needs code of our own.
  if (store == Store::Streamed && n >= 256 && currentPath() == PixelPath::Avx512) return copyWide(src, dst, n);
#endif
  // memcpy wants valid pointers even for no bytes; an empty row may have none.
  if (n > 0) std::memcpy(dst, src, n);
}

void swapRedBlue3(const uint8_t* src, uint8_t* dst, size_t count, Store store) noexcept {
#if defined(__x86_64__)
  const PixelPath path = currentPath();
  if (path == PixelPath::Avx512 && count >= 64) return swap3Wide(src, dst, count, store == Store::Streamed);
  if (path >= PixelPath::Ssse3) return swap3Ssse3(src, dst, count);
#endif
  (void)store;
  swapPlain(src, dst, count, 3);
}

void swapRedBlue4(const uint8_t* src, uint8_t* dst, size_t count, Store store) noexcept {
#if defined(__x86_64__)
  const PixelPath path = currentPath();
  if (path == PixelPath::Avx512 && count >= 16) return swap4Wide(src, dst, count, store == Store::Streamed);
  if (path >= PixelPath::Ssse3) return swap4Ssse3(src, dst, count);
#endif
  (void)store;
  swapPlain(src, dst, count, 4);
}

void interleave3(const uint8_t* r, const uint8_t* g, const uint8_t* b, uint8_t* out, size_t count,
                 Store store) noexcept {
#if defined(__x86_64__)
  const PixelPath path = currentPath();
  if (path == PixelPath::Avx512 && count >= 64)
    return interleave3Wide(r, g, b, out, count, store == Store::Streamed);
  if (path >= PixelPath::Ssse3) return interleave3Ssse3(r, g, b, out, count);
#endif
  (void)store;
  interleave3Plain(r, g, b, out, count);
}

void interleave4(const uint8_t* r, const uint8_t* g, const uint8_t* b, const uint8_t* a,
                 uint8_t* out, size_t count) noexcept {
#if defined(__x86_64__)
  if (currentPath() != PixelPath::Plain) return interleave4Sse2(r, g, b, a, out, count);
#endif
  interleave4Plain(r, g, b, a, out, count);
}

void fenceStreamed() noexcept {
#if defined(__x86_64__)
  _mm_sfence();
#endif
}

Store prepareRows(uint8_t* low, uint8_t* high, size_t rowBytes, uint64_t pictureBytes) noexcept {
  if (t_forcedStore) return *t_forcedStore;
  if (pictureBytes < kStreamedPictureBytes || rowBytes == 0) return Store::Cached;
  static const uintptr_t page = uintptr_t(::sysconf(_SC_PAGESIZE));
  const uintptr_t from = reinterpret_cast<uintptr_t>(low) / page * page;
  const uintptr_t to = (reinterpret_cast<uintptr_t>(high) + rowBytes + page - 1) / page * page;
  // Whether the first page is backed stands for the band: hosts touch a
  // buffer whole or not at all. Populating backed pages is no free check
  // (it takes hold of every page), so it is done only when needed.
  unsigned char backed = 0;
  if (::mincore(reinterpret_cast<void*>(from), 1, &backed) != 0) return Store::Cached;
  if (backed & 1) return Store::Streamed;
#if defined(MADV_POPULATE_WRITE)
  if (::madvise(reinterpret_cast<void*>(from), to - from, MADV_POPULATE_WRITE) == 0) return Store::Streamed;
#endif
  return Store::Cached;
}

Store StoreChoice::forBand(uint8_t* buffer, int32_t rows, int32_t stride, uint32_t rowBytes,
                           uint32_t pictureRows) noexcept {
  const uintptr_t at = reinterpret_cast<uintptr_t>(buffer);
  const bool filling = at == next_;
  next_ = at + uintptr_t(int64_t{rows} * stride);
  if ((!filling && !t_forcedStore) || rows <= 0) return Store::Cached;
  return prepareRows(buffer, buffer + int64_t{rows - 1} * stride, rowBytes,
                     uint64_t{pictureRows} * uint64_t(uint32_t(stride)));
}

void forceStore(std::optional<Store> store) noexcept { t_forcedStore = store; }

void forcePixelPath(PixelPath path) noexcept { t_forced = path; }

bool pixelPathAvailable(PixelPath path) noexcept { return path <= widestPath(); }

PixelPath activePixelPath() noexcept { return currentPath(); }

}  // namespace ldr
