// jacquard/staubli_simd.cpp: the card loaders' hot loops for processors with
// 512-bit vectors (AVX-512 F/BW/VL/VBMI/VBMI2, GFNI, BMI2), each beside the
// plain code that every other processor runs, and the planner that compiles a
// hook mapping into vector steps.
//
// Why a mapping has the shape the kernel needs: a module wires its hooks in
// rows of 12, and the pixels of one output byte are 8 hooks of one wiring
// column, eight wiring rows apart. Those hooks sit in the same bit of 8
// record bytes a fixed distance apart. So every output byte is "bit t of
// these 8 bytes" (a column and a bit), and an 8 x 8 bit transpose of a
// column's 8 bytes gives the 8 output bytes of its 8 bits at once. The
// planner checks that shape for the mapping at hand instead of assuming it;
// a mapping without it is left to ColumnPlan.
#include <algorithm>
#include <array>
#include <cstring>
#include <iterator>
#include <map>

#include "framework/cpu.h"
#include "jacquard/staubli.h"

#if defined(__x86_64__)
#include <immintrin.h>
#define VLOAD_WIDE __attribute__((target("avx512f,avx512bw,avx512vl,avx512vbmi,avx512vbmi2,gfni,bmi2")))
#endif

namespace ldr::staubli {
namespace {

thread_local CardPath t_path = CardPath::Auto;

bool hasWideUnits() noexcept { return cpuHasAvx512Gfni(); }

uint64_t loadLE64(const uint8_t* p) noexcept {
  uint64_t v;
  std::memcpy(&v, p, 8);
#if __BYTE_ORDER__ == __ORDER_BIG_ENDIAN__
  v = __builtin_bswap64(v);
#endif
  return v;
}

constexpr auto kReversed = [] {
  std::array<uint8_t, 256> t{};
  for (int v = 0; v < 256; ++v) {
    int r = 0;
    for (int b = 0; b < 8; ++b) r |= (v >> b & 1) << (7 - b);
    t[size_t(v)] = uint8_t(r);
  }
  return t;
}();

// Where the transpose of a tile leaves column n (0..63) of the tile: the
// unpack network below interleaves within 128-bit lanes, so register i ends
// up with columns 16L + 2i and 16L + 2i + 1 of every lane L. Columns are fed
// in at this position so that they come out in plan order.
constexpr uint32_t tileInputColumn(uint32_t n) noexcept {
  const uint32_t reg = n / 8, slot = n % 8;
  return 16 * (slot / 2) + 2 * reg + slot % 2;
}

constexpr uint32_t kTileBytes = 512;  // 8 rows of 64 columns
// gf2p8affineqb with this as the byte operand picks bit b into output byte b,
// and takes the 8 data bytes as matrix rows: byte k lands in bit 7 - k, the
// leftmost pixel in the top bit. So it is the 8 x 8 transpose we need.
constexpr uint64_t kPickBits = 0x8040201008040201ull;
// As a matrix, the same constant reverses the bits of every byte.
constexpr uint64_t kReverseMatrix = 0x8040201008040201ull;
// Picks bit 7 - b into byte b: counts of the pixels of a row byte in pixel order.
constexpr uint64_t kPickBitsReversed = 0x0102040810204080ull;

// closeRuns' last step: byte i of the result is byte 7 - i % 7 of qword i / 7.
alignas(64) constexpr auto kCloseOrder = [] {
  std::array<uint8_t, 64> t{};
  for (int i = 0; i < 56; ++i) t[size_t(i)] = uint8_t(i / 7 * 8 + 7 - i % 7);
  return t;
}();

#if defined(__x86_64__)

// GCC 12's unpack and shift intrinsics start from a self-initialised
// "undefined" vector, which its own warnings then flag once inlined here.
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wuninitialized"
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#endif

VLOAD_WIDE void runProgram(const RowKernel::Program& p, const uint8_t* src, uint8_t* dst) noexcept {
  const RowKernel::Program::Step* s = p.steps.data();
  const uint8_t* ix = p.index.data();
  const uint32_t full = p.outBytes / 64, rest = p.outBytes % 64;
  for (uint32_t v = 0; v < full + (rest != 0); ++v) {
    __m512i acc = _mm512_setzero_si512();
    for (unsigned n = p.perVector[v]; n; --n, ++s, ix += 64)
      acc = _mm512_or_si512(acc, _mm512_maskz_permutex2var_epi8(s->mask, _mm512_loadu_si512(src + s->a),
                                                                 _mm512_loadu_si512(ix),
                                                                 _mm512_loadu_si512(src + s->b)));
    if (v < full)
      _mm512_storeu_si512(dst + 64 * size_t{v}, acc);
    else
      _mm512_mask_storeu_epi8(dst + 64 * size_t{v}, (uint64_t{1} << rest) - 1, acc);
  }
}

// Eight rows of 64 bytes into 64 qwords, qword c holding byte c of row k in
// byte k; lane-local unpacks, so the column order is tileInputColumn's.
struct Octet {
  __m512i r[8];
};

VLOAD_WIDE inline Octet interleave(const Octet& in) noexcept {
  Octet a, b, c;
  for (int i = 0; i < 4; ++i) {
    a.r[2 * i] = _mm512_unpacklo_epi8(in.r[2 * i], in.r[2 * i + 1]);
    a.r[2 * i + 1] = _mm512_unpackhi_epi8(in.r[2 * i], in.r[2 * i + 1]);
  }
  for (int i = 0; i < 2; ++i)
    for (int h = 0; h < 2; ++h) {
      b.r[4 * i + 2 * h] = _mm512_unpacklo_epi16(a.r[4 * i + h], a.r[4 * i + 2 + h]);
      b.r[4 * i + 2 * h + 1] = _mm512_unpackhi_epi16(a.r[4 * i + h], a.r[4 * i + 2 + h]);
    }
  for (int i = 0; i < 4; ++i) {
    c.r[2 * i] = _mm512_unpacklo_epi32(b.r[i], b.r[4 + i]);
    c.r[2 * i + 1] = _mm512_unpackhi_epi32(b.r[i], b.r[4 + i]);
  }
  return c;
}

template <int Flip>
VLOAD_WIDE void transposeTiles(const uint8_t* in, uint8_t* out, uint32_t tiles) noexcept {
  const __m512i pick = _mm512_set1_epi64(int64_t(kPickBits));
  for (uint32_t t = 0; t < tiles; ++t, in += kTileBytes, out += kTileBytes) {
    Octet rows;
    for (int k = 0; k < 8; ++k) rows.r[k] = _mm512_loadu_si512(in + 64 * k);
    const Octet q = interleave(rows);
    for (int i = 0; i < 8; ++i)
      _mm512_storeu_si512(out + 64 * i, _mm512_gf2p8affine_epi64_epi8(pick, q.r[i], Flip));
  }
}

// Closes up runs of 14 pixels built as 16: of every 16-bit unit, first
// pixel in the top bit, the top 14 bits are kept; 8 bytes in, 7 out. The
// staged bytes come byte-reversed within each qword (the planners arrange
// them so), so the units read as one big-endian number V whose runs sit at
// bits 63..50, 47..34, 31..18 and 15..2. Shifting them up by 0, 2, 4 and 6
// closes the gaps, leaving 56 bits at the top; a byte permute then takes the
// top 7 bytes of each qword, highest first, into bytes 0..55.
VLOAD_WIDE inline __m512i closeRuns(__m512i v) noexcept {
  constexpr uint64_t kRun = 0x3FFF;
  const __m512i keep2 = _mm512_set1_epi64(int64_t(kRun << 36)), keep4 = _mm512_set1_epi64(int64_t(kRun << 22));
  const __m512i keep6 = _mm512_set1_epi64(int64_t(kRun << 8));
  __m512i r = _mm512_and_si512(v, _mm512_set1_epi64(int64_t(kRun << 50)));
  r = _mm512_ternarylogic_epi64(r, _mm512_slli_epi64(v, 2), keep2, 0xF8);  // r | (b & c)
  r = _mm512_ternarylogic_epi64(r, _mm512_slli_epi64(v, 4), keep4, 0xF8);
  r = _mm512_ternarylogic_epi64(r, _mm512_slli_epi64(v, 6), keep6, 0xF8);
  return _mm512_permutexvar_epi8(_mm512_load_si512(kCloseOrder.data()), r);
}

// Stores the closed form of `staged` padded bytes: 7 of every 8.
VLOAD_WIDE inline void storeClosed(uint8_t* out, __m512i v, uint32_t staged) noexcept {
  const uint32_t bytes = staged / 8 * 7;
  _mm512_mask_storeu_epi8(out, ~uint64_t{0} >> (64 - bytes), closeRuns(v));
}

VLOAD_WIDE void closeRunsTiled(const uint8_t* in, uint8_t* out, uint32_t padded) noexcept {
  for (uint32_t at = 0; at < padded; at += 64, in += 64, out += 56)
    storeClosed(out, _mm512_loadu_si512(in), std::min<uint32_t>(64, padded - at));
}

// One 64-byte vector from its program's steps: each a byte permute of two
// source windows, the bytes it provides kept by its mask.
VLOAD_WIDE inline __m512i gather(const RowKernel::Program::Step*& s, const uint8_t*& ix, unsigned steps,
                                 const uint8_t* src) noexcept {
  __m512i acc = _mm512_setzero_si512();
  for (; steps; --steps, ++s, ix += 64)
    acc = _mm512_or_si512(acc, _mm512_maskz_permutex2var_epi8(s->mask, _mm512_loadu_si512(src + s->a),
                                                              _mm512_loadu_si512(ix), _mm512_loadu_si512(src + s->b)));
  return acc;
}

// Network rows that repeat row 0's steps a fixed distance further on: the
// permute indices and masks are loaded once for all of them.
template <int Steps>
VLOAD_WIDE inline void repeatRows(Octet& rows, const RowKernel::Block& b, const RowKernel::Program::Step* s,
                                  const uint8_t* ix, const uint8_t* src) noexcept {
  __m512i idx[Steps];
  __mmask64 mask[Steps];
#pragma GCC unroll 4
  for (int j = 0; j < Steps; ++j) idx[j] = _mm512_loadu_si512(ix + 64 * j), mask[j] = s[j].mask;
#pragma GCC unroll 8
  for (int k = 0; k < 8; ++k) {
    if (k >= b.repeats) break;
    const uint8_t* at = src + ptrdiff_t{k} * b.delta;
    __m512i acc = _mm512_maskz_permutex2var_epi8(mask[0], _mm512_loadu_si512(at + s[0].a), idx[0],
                                                 _mm512_loadu_si512(at + s[0].b));
#pragma GCC unroll 4
    for (int j = 1; j < Steps; ++j)
      acc = _mm512_or_si512(acc, _mm512_maskz_permutex2var_epi8(mask[j], _mm512_loadu_si512(at + s[j].a), idx[j],
                                                                _mm512_loadu_si512(at + s[j].b)));
    rows.r[k] = acc;
  }
}

template <int Flip, bool Close>
VLOAD_WIDE void runGrouped(const RowKernel::Program& assembly, const std::vector<RowKernel::Block>& blocks,
                           const std::vector<RowKernel::Output>& outputs, const RowKernel::Indices* outputIndex,
                           uint32_t paddedBytes, const uint8_t* record, uint8_t* out) noexcept {
  const __m512i pick = _mm512_set1_epi64(int64_t(kPickBits));
  const RowKernel::Program::Step* s = assembly.steps.data();
  const uint8_t* ix = assembly.index.data();
  const uint8_t* per = assembly.perVector.data();
  const RowKernel::Output* o = outputs.data();
  for (const RowKernel::Block& b : blocks) {
    __m512i t[8];
    if (b.network) {
      Octet rows;
      const uint8_t* perRow = per;
      switch (b.repeats ? perRow[0] : 0) {
        case 1: repeatRows<1>(rows, b, s, ix, record); break;
        case 2: repeatRows<2>(rows, b, s, ix, record); break;
        case 3: repeatRows<3>(rows, b, s, ix, record); break;
        default: break;
      }
      const unsigned repeated = b.repeats && perRow[0] <= 3 ? b.repeats : 0;
#pragma GCC unroll 8
      for (unsigned k = 0; k < 8; ++k) {
        if (k < repeated) {
          s += perRow[k], ix += 64 * size_t{perRow[k]}, ++per;
          continue;
        }
        rows.r[k] = gather(s, ix, *per++, record);
      }
      const Octet q = interleave(rows);
#pragma GCC unroll 8
      for (int i = 0; i < 8; ++i) t[i] = _mm512_gf2p8affine_epi64_epi8(pick, q.r[i], Flip);
    } else {
#pragma GCC unroll 8
      for (int i = 0; i < 8; ++i)
        t[i] = i < b.registers ? _mm512_gf2p8affine_epi64_epi8(pick, gather(s, ix, *per++, record), Flip)
                               : _mm512_setzero_si512();
    }
    for (uint32_t n = b.outputs; n; --n, ++o) {
      __m512i acc = _mm512_setzero_si512();
#pragma GCC unroll 4
      for (int p = 0; p < 4; ++p)
        if (o->mask[p])
          acc = _mm512_or_si512(acc, _mm512_maskz_permutex2var_epi8(
                                         o->mask[p], t[2 * p], _mm512_load_si512(outputIndex[o->index[p]].at), t[2 * p + 1]));
      const uint32_t left = paddedBytes - o->at;
      if (Close)
        storeClosed(out + o->at / 64 * 56, acc, std::min<uint32_t>(64, left));
      else if (left >= 64)
        _mm512_storeu_si512(out + o->at, acc);
      else
        _mm512_mask_storeu_epi8(out + o->at, ~uint64_t{0} >> (64 - left), acc);
    }
  }
}

// Harley-Seal carry-save adders: three bit vectors in, their sum as a
// "twos" and a "ones" vector.
VLOAD_WIDE inline void csa(__m512i& high, __m512i& low, __m512i a, __m512i b, __m512i c) noexcept {
  high = _mm512_ternarylogic_epi64(a, b, c, 0xE8);  // majority
  low = _mm512_ternarylogic_epi64(a, b, c, 0x96);   // parity
}

VLOAD_WIDE inline void rippleAdd(__m512i* planes, int first, __m512i carry) noexcept {
  for (int w = first; w < 8; ++w) {
    const __m512i next = _mm512_and_si512(planes[w], carry);
    planes[w] = _mm512_xor_si512(planes[w], carry);
    carry = next;
  }
}

// Adds 8 rows of 64 bytes, `stride` apart, into the ones, twos and fours of
// p; returns the eights they carry out.
VLOAD_WIDE inline __m512i addEightRows(__m512i* p, const uint8_t* at, size_t stride) noexcept {
#define row(k) _mm512_loadu_si512(at + (k) * stride)
  __m512i twosA, twosB, foursA, foursB, eights;
  csa(twosA, p[0], p[0], row(0), row(1));
  csa(twosB, p[0], p[0], row(2), row(3));
  csa(foursA, p[1], p[1], twosA, twosB);
  csa(twosA, p[0], p[0], row(4), row(5));
  csa(twosB, p[0], p[0], row(6), row(7));
  csa(foursB, p[1], p[1], twosA, twosB);
  csa(eights, p[2], p[2], foursA, foursB);
#undef row
  return eights;
}

VLOAD_WIDE void countPlanesWide(const uint8_t* records, uint32_t rows, uint32_t recordBytes,
                                uint8_t* planes) noexcept {
  // The last chunk overlaps the one before when the record is no multiple of
  // 64 bytes: it recounts those bytes to the same values.
  for (uint32_t off = 0;; off += 64) {
    off = std::min(off, recordBytes - 64);
    const uint8_t* col = records + off;
    __m512i p[8];
    for (__m512i& v : p) v = _mm512_setzero_si512();
    // p[0..3] are the ones, twos, fours and eights of Harley-Seal; each 16
    // rows carry a sixteens vector into p[4..7], a binary counter.
    uint32_t r = 0;
    for (; r + 16 <= rows; r += 16) {
      const __m512i eightsA = addEightRows(p, col + size_t{r} * recordBytes, recordBytes);
      const __m512i eightsB = addEightRows(p, col + size_t{r + 8} * recordBytes, recordBytes);
      __m512i sixteens;
      csa(sixteens, p[3], p[3], eightsA, eightsB);
      rippleAdd(p, 4, sixteens);
    }
    for (; r < rows; ++r) rippleAdd(p, 0, _mm512_loadu_si512(col + size_t{r} * recordBytes));
    for (int w = 0; w < 8; ++w) _mm512_storeu_si512(planes + size_t(w) * recordBytes + off, p[w]);
    if (off + 64 >= recordBytes) break;
  }
}

// Turns 8 planes of rowBytes bytes (pixel order, top bit first) into one
// count byte a pixel.
VLOAD_WIDE void unslicePlanes(const uint8_t* planes, uint32_t rowBytes, uint8_t* counts) noexcept {
  const __m512i pick = _mm512_set1_epi64(int64_t(kPickBitsReversed));
  for (uint32_t off = 0;; off += 64) {
    off = std::min(off, rowBytes - 64);
    // Plane w goes in as row 7 - w so that it lands in bit w of the count.
    Octet in;
    for (int w = 0; w < 8; ++w) in.r[7 - w] = _mm512_loadu_si512(planes + size_t(w) * rowBytes + off);
    const Octet q = interleave(in);
    for (int i = 0; i < 8; ++i) {
      const __m512i c = _mm512_gf2p8affine_epi64_epi8(pick, q.r[i], 0);
      // Lane L of register i holds the counts of row bytes 16L + 2i, 16L + 2i + 1.
      uint8_t* at = counts + (size_t{off} + 2 * i) * 8;
      _mm_storeu_si128(reinterpret_cast<__m128i*>(at), _mm512_castsi512_si128(c));
      _mm_storeu_si128(reinterpret_cast<__m128i*>(at + 128), _mm512_extracti32x4_epi32(c, 1));
      _mm_storeu_si128(reinterpret_cast<__m128i*>(at + 256), _mm512_extracti32x4_epi32(c, 2));
      _mm_storeu_si128(reinterpret_cast<__m128i*>(at + 384), _mm512_extracti32x4_epi32(c, 3));
    }
    if (off + 64 >= rowBytes) break;
  }
}

// Bit x of breaks[x / 64]: column x starts a new stretch (its count differs
// from its left neighbour's by more than the tolerance, or x is 0).
VLOAD_WIDE void findBreaks(const uint8_t* counts, uint32_t width, uint8_t tolerance, uint64_t* breaks) noexcept {
  const __m512i tol = _mm512_set1_epi8(char(tolerance));
  for (uint32_t x = 0; x < width; x += 64) {
    const __m512i here = _mm512_loadu_si512(counts + x);
    // counts[-1] is readable: the buffer keeps 64 bytes ahead of the counts.
    const __m512i left = _mm512_loadu_si512(counts + x - 1);
    const __m512i d = _mm512_sub_epi8(_mm512_max_epu8(here, left), _mm512_min_epu8(here, left));
    breaks[x / 64] = _mm512_cmpgt_epu8_mask(d, tol);
  }
  breaks[0] |= 1;
  if (width % 64) breaks[width / 64] |= ~uint64_t{0} << (width % 64);
}

// Lane i of a piece is the qword at offset + 8i funnel-shifted with the next
// one: vpshrdvq does that in one step.
VLOAD_WIDE inline __m512i cutPiece(const uint8_t* at, uint32_t shift) noexcept {
  return _mm512_shrdv_epi64(_mm512_loadu_si512(at), _mm512_loadu_si512(at + 8), _mm512_set1_epi64(shift));
}

VLOAD_WIDE inline void storeRowVector(uint8_t* row, uint32_t at, uint32_t rowBytes, __m512i bits) noexcept {
  const __m512i out = _mm512_gf2p8affine_epi64_epi8(bits, _mm512_set1_epi64(int64_t(kReverseMatrix)), 0);
  if (rowBytes - at >= 64)
    _mm512_storeu_si512(row + at, out);
  else
    _mm512_mask_storeu_epi8(row + at, ~uint64_t{0} >> (64 - (rowBytes - at)), out);
}

// Raw pointers and counts: the stores into the row may alias anything, and
// would make the compiler reload a vector's insides after each one.
VLOAD_WIDE void joinWide(const SectionJoin::Span* span, const SectionJoin::Span* end,
                         const SectionJoin::Piece* meeting, const uint8_t* record, uint8_t* row,
                         uint32_t rowBytes) noexcept {
  for (; span != end; ++span) {
    const uint32_t at = 64 * span->vector;
    if (span->run) {
      const uint8_t* from = record + span->offset;
      for (uint32_t v = 0; v < span->run; ++v, from += 64)
        storeRowVector(row, at + 64 * v, rowBytes, cutPiece(from, span->shift));
      continue;
    }
    __m512i acc = _mm512_setzero_si512();
    for (uint32_t n = span->pieces; n; --n, ++meeting)
      acc = _mm512_ternarylogic_epi64(acc, cutPiece(record + meeting->offset, meeting->shift),
                                      _mm512_loadu_si512(meeting->lanes), 0xF8);  // acc | (b & c)
    storeRowVector(row, at, rowBytes, acc);
  }
}

template <int Negate>
VLOAD_WIDE void reverseWide(uint8_t* dst, const uint8_t* src, size_t n) noexcept {
  const __m512i m = _mm512_set1_epi64(int64_t(kReverseMatrix));
  size_t i = 0;
  for (; i + 64 <= n; i += 64)
    _mm512_storeu_si512(dst + i, _mm512_gf2p8affine_epi64_epi8(_mm512_loadu_si512(src + i), m, Negate));
  if (i < n) {
    const __mmask64 k = (uint64_t{1} << (n - i)) - 1;
    _mm512_mask_storeu_epi8(dst + i, k, _mm512_gf2p8affine_epi64_epi8(_mm512_maskz_loadu_epi8(k, src + i), m, Negate));
  }
}

#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic pop
#endif
#endif  // __x86_64__

// True when x holds a run of at least n set bits (1 <= n <= 64). With E_k the
// bits that start a run of k, E_2k = E_k & E_k >> k, and E_(k+j) =
// E_k & E_k >> j for j <= k: a handful of steps for any n.
bool hasRun(uint64_t x, uint32_t n) noexcept {
  uint32_t have = 1;
  for (; 2 * have <= n; have *= 2) x &= x >> have;
  if (have < n) x &= x >> (n - have);
  return x != 0;
}

// Longest stretch of 0 bits in breaks (words bits of which `width` count),
// plus one: the chooser's smoothness. A stretch runs on from one word into
// the next; inside a word only a run longer than the best so far matters, so
// each word is asked whether it beats it, which it rarely does.
uint32_t longestStretch(const uint64_t* breaks, uint32_t width) noexcept {
  uint32_t current = 0, best = 0;
  for (uint32_t i = 0; i < (width + 63) / 64; ++i) {
    const uint64_t b = breaks[i];
    if (b == 0) {
      current += 64;
      continue;
    }
    const int low = __builtin_ctzll(b), high = __builtin_clzll(b);
    best = std::max(best, current + uint32_t(low));
    const uint64_t inner = ~b & (~uint64_t{0} >> high) & (~uint64_t{0} << low);
    while (best < 62 && hasRun(inner, best + 1)) ++best;
    current = uint32_t(high);
  }
  return std::max(best, current) + 1;
}

}  // namespace

void forceCardPath(CardPath path) noexcept { t_path = path; }

bool cardPathAvailable(CardPath path) noexcept { return path != CardPath::Wide || hasWideUnits(); }

bool useWidePath() noexcept { return t_path != CardPath::Plain && hasWideUnits(); }

// ---- Programs

// Greedy cover: the window starts at the lowest source byte not yet covered,
// which takes the fewest 64-byte windows for the bytes of one output vector.
// Windows are clamped to the source, which is at least 64 bytes long. A
// source that was just stored 64 bytes at a time is read in those same
// aligned blocks: a load that straddles two stores still in flight cannot
// take its data from them and waits until they reach the cache.
void RowKernel::Program::compile(const std::vector<uint32_t>& source, uint32_t sourceBytes, bool aligned) {
  steps.clear();
  index.clear();
  perVector.clear();
  outBytes = uint32_t(source.size());
  for (uint32_t v = 0; v < outBytes; v += 64) {
    const uint32_t end = std::min(outBytes, v + 64);
    std::vector<uint32_t> wanted;
    for (uint32_t i = v; i < end; ++i)
      if (source[i] != kNone) wanted.push_back(source[i]);
    std::sort(wanted.begin(), wanted.end());
    std::vector<uint32_t> windows;
    for (uint32_t s : wanted)
      if (windows.empty() || s >= windows.back() + 64)
        windows.push_back(aligned ? s / 64 * 64 : std::min(s, sourceBytes - 64));
    uint8_t count = 0;
    for (size_t w = 0; w < windows.size(); w += 2, ++count) {
      Step step;
      step.a = windows[w];
      step.b = w + 1 < windows.size() ? windows[w + 1] : windows[w];
      uint8_t idx[64] = {};
      for (uint32_t i = v; i < end; ++i) {
        const uint32_t s = source[i];
        if (s == kNone) continue;
        // A byte goes to the first window that holds it; earlier steps took
        // the bytes of earlier windows.
        const bool earlier = std::any_of(windows.begin(), windows.begin() + ptrdiff_t(w),
                                         [s](uint32_t at) { return s >= at && s < at + 64; });
        if (earlier) continue;
        if (s >= step.a && s < step.a + 64) {
          idx[i - v] = uint8_t(s - step.a);
        } else if (s >= step.b && s < step.b + 64) {
          idx[i - v] = uint8_t(64 + s - step.b);
        } else {
          continue;
        }
        step.mask |= uint64_t{1} << (i - v);
      }
      steps.push_back(step);
      index.insert(index.end(), idx, idx + 64);
    }
    perVector.push_back(count);
  }
}

// ---- Kernel planning

namespace {

constexpr uint32_t kNone = RowKernel::Program::kNone;
using Column = std::array<uint32_t, 8>;  // record byte of each pixel of an output byte, or kNone

// The columns of a mapping: output byte i shows bit byteSource[i] % 8 of
// column byteSource[i] / 8. False when some output byte's pixels are not one
// bit position of their bytes.
bool findColumns(const std::vector<uint32_t>& pixels, std::vector<Column>& columns, std::vector<uint32_t>& byteSource) {
  std::map<Column, uint32_t> ids;
  const size_t outBytes = pixels.size() / 8;
  byteSource.assign(outBytes, 0);
  for (size_t i = 0; i < outBytes; ++i) {
    Column c;
    int bit = -1;
    for (uint32_t k = 0; k < 8; ++k) {
      const uint32_t p = pixels[8 * i + k];
      c[k] = p == kNone ? kNone : p / 8;
      if (p == kNone) continue;
      if (bit >= 0 && int(p % 8) != bit) return false;
      bit = int(p % 8);
    }
    if (bit < 0) return false;
    const auto [at, added] = ids.try_emplace(c, uint32_t(columns.size()));
    if (added) columns.push_back(c);
    byteSource[i] = at->second * 8 + uint32_t(bit);
  }
  return true;
}

// Runs of 14 come out of the permutes byte-reversed within each qword, the
// order closeRuns takes them in.
std::vector<uint32_t> stagedForClosing(const std::vector<uint32_t>& byteSource) {
  std::vector<uint32_t> staged(byteSource.size());
  for (size_t p = 0; p < staged.size(); ++p) staged[p] = byteSource[(p & ~size_t{7}) | (7 - p % 8)];
  return staged;
}

// Straight assembly pays when a register's columns lie within a few windows.
constexpr unsigned kMaxStraightSteps = 3;
constexpr uint32_t kMaxGroupColumns = 32;  // four registers

}  // namespace

bool RowKernel::build(std::span<const uint32_t> map, uint32_t recordBytes, Layout layout) {
  tried_ = true;
  ready_ = false;
  const size_t width = map.size();
  if (!useWidePath() || width == 0 || width % 8 != 0 || recordBytes < 64) return false;
  const uint64_t bits = uint64_t{recordBytes} * 8;
  if (std::any_of(map.begin(), map.end(), [bits](uint32_t p) { return p >= bits; })) return false;
  recordBytes_ = recordBytes;
  // Runs of 14 pixels whose bytes are 8 + 6 rows: each run padded to 16.
  std::vector<uint32_t> pixels(map.begin(), map.end()), padded;
  if (width % 56 == 0) {
    padded.assign(width / 14 * 16, kNone);
    for (size_t x = 0; x < width; ++x) padded[x / 14 * 16 + x % 14] = map[x];
  }
  // The grouped layout first, in either form, then the tiled one.
  for (const bool grouped : {true, false}) {
    if (layout == (grouped ? Layout::Tiled : Layout::Grouped)) continue;
    for (const std::vector<uint32_t>* form : {&pixels, &padded}) {
      if (form->empty()) continue;
      runsOf14_ = form == &padded;
      grouped_ = grouped;
      if (grouped ? planGrouped(*form, recordBytes) : planTiled(*form, recordBytes)) return ready_ = true;
    }
  }
  return false;
}

// Groups: each output vector joins the group before it when they share a
// column, as long as the group stays within four registers. Within a group
// the columns go in record order, so that neighbouring register slots read
// neighbouring bytes.
bool RowKernel::planGrouped(const std::vector<uint32_t>& pixels, uint32_t recordBytes) {
  std::vector<Column> columns;
  std::vector<uint32_t> byteSource;
  if (!findColumns(pixels, columns, byteSource)) return false;
  const uint32_t outBytes = uint32_t(byteSource.size());
  if (runsOf14_) byteSource = stagedForClosing(byteSource);
  struct Group {
    std::vector<uint32_t> columns;
    uint32_t first = 0, vectors = 0, registers = 0;
  };
  std::vector<Group> groups;
  for (uint32_t v = 0; v * 64 < outBytes; ++v) {
    std::vector<uint32_t> used;
    for (uint32_t i = 64 * v; i < std::min(outBytes, 64 * v + 64); ++i) used.push_back(byteSource[i] / 8);
    std::sort(used.begin(), used.end());
    used.erase(std::unique(used.begin(), used.end()), used.end());
    std::vector<uint32_t> joined;
    if (!groups.empty()) {
      const std::vector<uint32_t>& last = groups.back().columns;
      std::set_union(last.begin(), last.end(), used.begin(), used.end(), std::back_inserter(joined));
    }
    if (!groups.empty() && joined.size() < groups.back().columns.size() + used.size()) {
      groups.back().columns.swap(joined);
      ++groups.back().vectors;
    } else {
      groups.push_back({used, v, 1, 0});
    }
    if (groups.back().columns.size() > kMaxGroupColumns) return false;
  }
  const auto firstByte = [&](uint32_t id) { return std::min(columns[id][0], kNone - 1); };
  for (Group& g : groups) {
    std::stable_sort(g.columns.begin(), g.columns.end(),
                     [&](uint32_t a, uint32_t b) { return firstByte(a) < firstByte(b); });
    g.registers = uint32_t(g.columns.size() + 7) / 8;
  }
  // Where each column lands: register (within its block) and qword.
  std::vector<uint8_t> slotOf(columns.size());
  std::vector<uint32_t> source;
  blocks_.clear();
  // Straight: register r of a group holds its columns 8r .. 8r + 7.
  for (const Group& g : groups) {
    Block b;
    b.registers = uint8_t(g.registers);
    b.outputs = g.vectors;
    blocks_.push_back(b);
    for (uint32_t r = 0; r < g.registers; ++r)
      for (uint32_t q = 0; q < 8; ++q) {
        const uint32_t slot = 8 * r + q;
        for (uint32_t k = 0; k < 8; ++k)
          source.push_back(slot < g.columns.size() ? columns[g.columns[slot]][k] : kNone);
        if (slot < g.columns.size()) slotOf[g.columns[slot]] = uint8_t(slot);
      }
  }
  assembly_.compile(source, recordBytes, false);
  if (std::any_of(assembly_.perVector.begin(), assembly_.perVector.end(),
                  [](uint8_t steps) { return steps > kMaxStraightSteps; })) {
    // Through the network: a tile takes groups of two registers at an even
    // register and of four at register 0 or 4. Row k of a tile holds byte k
    // of its columns; lane L of the network feeds qwords 2L and 2L + 1 of
    // every register, so a group's columns fill its lanes one after another
    // and each lane reads from one stretch of the record.
    blocks_.clear();
    source.clear();
    uint32_t used = 8;
    std::vector<uint32_t> tile;
    const auto closeTile = [&] {
      if (!tile.empty()) source.insert(source.end(), tile.begin(), tile.end());
      tile.assign(kTileBytes, kNone);
      used = 0;
    };
    for (const Group& g : groups) {
      const uint32_t span = g.registers <= 2 ? 2 : 4;
      used = (used + span - 1) / span * span;
      if (used + span > 8) {
        closeTile();
        blocks_.push_back({true, 0, 0});
      }
      blocks_.back().outputs += g.vectors;
      for (uint32_t slot = 0; slot < g.columns.size(); ++slot) {
        const uint32_t lane = slot / (2 * span), within = slot % (2 * span);
        const uint32_t reg = used + within / 2, qword = 2 * lane + within % 2;
        for (uint32_t k = 0; k < 8; ++k) tile[64 * k + tileInputColumn(8 * reg + qword)] = columns[g.columns[slot]][k];
        slotOf[g.columns[slot]] = uint8_t(8 * reg + qword);
      }
      used += span;
    }
    closeTile();
    assembly_.compile(source, recordBytes, false);
    findRepeats();
  }
  // Each output vector from the registers of its block: pair p gives the
  // bytes of its columns, bit b of column slot s being byte 8 (s % 8) + b of
  // register s / 8.
  outputs_.clear();
  outputIndex_.clear();
  for (const Group& g : groups)
    for (uint32_t v = g.first; v < g.first + g.vectors; ++v) {
      Output o;
      o.at = 64 * v;
      Indices idx[4] = {};
      for (uint32_t i = 64 * v; i < std::min(outBytes, 64 * v + 64); ++i) {
        const uint32_t slot = slotOf[byteSource[i] / 8], reg = slot / 8, pair = reg / 2;
        o.mask[pair] |= uint64_t{1} << (i - 64 * v);
        idx[pair].at[i - 64 * v] = uint8_t((reg % 2) * 64 + (slot % 8) * 8 + byteSource[i] % 8);
      }
      for (uint32_t p = 0; p < 4; ++p)
        if (o.mask[p]) {
          o.index[p] = uint32_t(outputIndex_.size());
          outputIndex_.push_back(idx[p]);
        }
      outputs_.push_back(o);
    }
  paddedBytes_ = outBytes;
  rowBytes_ = runsOf14_ ? outBytes / 8 * 7 : outBytes;
  return true;
}

// Marks the network rows that take row 0's steps, each a fixed distance
// further into the record (the columns of a tile usually step through the
// record alike); windows clamped at the record's end break the pattern.
void RowKernel::findRepeats() {
  const Program& p = assembly_;
  size_t step = 0, row = 0;
  for (Block& b : blocks_) {
    const uint8_t* per = &p.perVector[row];
    const size_t first = step;
    b.repeats = 1;
    b.delta = 0;
    for (size_t k = 1, at = first + per[0]; k < 8; at += per[k], ++k) {
      if (per[k] != per[0]) break;
      const int32_t delta = int32_t(p.steps[at].a) - int32_t(p.steps[first].a);
      if (k == 1) b.delta = delta;
      bool same = delta == int32_t(k) * b.delta;
      for (size_t j = 0; same && j < per[0]; ++j) {
        const Program::Step &x = p.steps[first + j], &y = p.steps[at + j];
        same = x.mask == y.mask && int32_t(y.a - x.a) == delta && int32_t(y.b - x.b) == delta &&
               std::equal(&p.index[64 * (first + j)], &p.index[64 * (first + j) + 64], &p.index[64 * (at + j)]);
      }
      if (!same) break;
      b.repeats = uint8_t(k + 1);
    }
    for (size_t k = 0; k < 8; ++k) step += per[k];
    row += 8;
  }
}

bool RowKernel::planTiled(const std::vector<uint32_t>& pixels, uint32_t recordBytes) {
  std::vector<Column> columns;
  std::vector<uint32_t> byteSource;
  if (!findColumns(pixels, columns, byteSource)) return false;
  const uint32_t outBytes = uint32_t(byteSource.size());
  // Column order decides how many source windows each step needs. The
  // columns of one region of the record (eight rows of its stride) go
  // together, so that a tile row gathers from few windows; within a region
  // they go in the order output bytes first need them, so that the bytes of
  // one output vector come from few transposed vectors.
  const auto region = [](const Column& c) {
    const uint32_t stride = c[0] != kNone && c[1] != kNone && c[1] > c[0] ? c[1] - c[0] : 1;
    return c[0] == kNone ? kNone : c[0] / stride / 8;
  };
  std::vector<uint32_t> order(columns.size()), renumbered(columns.size());
  for (uint32_t id = 0; id < order.size(); ++id) order[id] = id;
  std::stable_sort(order.begin(), order.end(),
                   [&](uint32_t a, uint32_t b) { return region(columns[a]) < region(columns[b]); });
  std::vector<Column> sorted(columns.size());
  for (uint32_t id = 0; id < order.size(); ++id) {
    renumbered[order[id]] = id;
    sorted[id] = columns[order[id]];
  }
  columns.swap(sorted);
  for (uint32_t& b : byteSource) b = renumbered[b / 8] * 8 + b % 8;
  tiles_ = uint32_t((columns.size() + 63) / 64);
  std::vector<uint32_t> tileSource(size_t{tiles_} * kTileBytes, kNone);
  for (uint32_t id = 0; id < columns.size(); ++id)
    for (uint32_t k = 0; k < 8; ++k)
      tileSource[size_t{id / 64} * kTileBytes + 64 * k + tileInputColumn(id % 64)] = columns[id][k];
  columns_.compile(tileSource, recordBytes, false);
  if (runsOf14_) byteSource = stagedForClosing(byteSource);
  bytes_.compile(byteSource, tiles_ * kTileBytes, true);
  paddedBytes_ = outBytes;
  rowBytes_ = runsOf14_ ? outBytes / 8 * 7 : outBytes;
  // Tiles, transposed tiles and staged bytes, each on a cache line.
  scratch_.assign(size_t{tiles_} * kTileBytes * 2 + outBytes + 128, 0);
  return true;
}

// ---- Running

void RowKernel::runInto(const uint8_t* record, uint8_t* out, bool setWhenZero) noexcept {
#if defined(__x86_64__)
  if (grouped_) {
    const Indices* ix = outputIndex_.data();
    if (runsOf14_)
      return setWhenZero ? runGrouped<0xFF, true>(assembly_, blocks_, outputs_, ix, paddedBytes_, record, out)
                         : runGrouped<0, true>(assembly_, blocks_, outputs_, ix, paddedBytes_, record, out);
    return setWhenZero ? runGrouped<0xFF, false>(assembly_, blocks_, outputs_, ix, paddedBytes_, record, out)
                       : runGrouped<0, false>(assembly_, blocks_, outputs_, ix, paddedBytes_, record, out);
  }
  uint8_t* tiled = scratch_.data() + (-reinterpret_cast<uintptr_t>(scratch_.data()) % 64);
  uint8_t* transposed = tiled + size_t{tiles_} * kTileBytes;
  uint8_t* staged = transposed + size_t{tiles_} * kTileBytes;
  runProgram(columns_, record, tiled);
  if (setWhenZero)
    transposeTiles<0xFF>(tiled, transposed, tiles_);
  else
    transposeTiles<0>(tiled, transposed, tiles_);
  if (!runsOf14_) return runProgram(bytes_, transposed, out);
  runProgram(bytes_, transposed, staged);
  closeRunsTiled(staged, out, paddedBytes_);
#else
  (void)record, (void)out, (void)setWhenZero;
#endif
}

void RowKernel::run(const uint8_t* record, uint8_t* row, bool setWhenZero) noexcept {
  runInto(record, row, setWhenZero);
}

uint32_t RowKernel::smoothness(const uint8_t* planes, uint32_t tolerance) noexcept {
#if defined(__x86_64__)
  const uint32_t width = rowBytes_ * 8;
  planeRows_.resize(size_t{rowBytes_} * 8);
  for (uint32_t w = 0; w < 8; ++w)
    runInto(planes + size_t{w} * recordBytes_, planeRows_.data() + size_t{w} * rowBytes_, false);
  // 64 bytes ahead of the counts for the left neighbour of column 0, 64
  // behind for the last partial vector: what they hold counts as breaks.
  counts_.resize(size_t{width} + 128);
  unslicePlanes(planeRows_.data(), rowBytes_, counts_.data() + 64);
  std::vector<uint64_t> breaks((width + 63) / 64);
  findBreaks(counts_.data() + 64, width, uint8_t(std::min<uint32_t>(tolerance, 255)), breaks.data());
  return longestStretch(breaks.data(), width);
#else
  (void)planes, (void)tolerance;
  return 1;
#endif
}

// ---- Counting and sections

void countPlanes(const uint8_t* records, uint32_t rows, uint32_t recordBytes, uint8_t* planes) noexcept {
#if defined(__x86_64__)
  countPlanesWide(records, rows, recordBytes, planes);
#else
  (void)records, (void)rows, (void)recordBytes, (void)planes;
#endif
}

// Piece of section s in row vector v (rows bits B = 512v on): row bit
// B + 64i + b is section bit d + 64i + b with d = B - at, which is bit
// r + b of the qword at byte o + 8i for o = floor(d / 8), r = d mod 8, or
// bit r + b - 64 of the next qword. So lane i is lo >> r | hi << (64 - r)
// with lo, hi the qwords at o + 8i and o + 8i + 8. d > -512 keeps o >= -64.
void SectionJoin::build(std::span<const uint32_t> sectionHooks) {
  hooks_.assign(sectionHooks.begin(), sectionHooks.end());
  std::vector<Piece> pieces;
  uint64_t at = 0, start = 0;
  for (uint32_t hooks : hooks_) {
    for (uint64_t v = at / 512; hooks && v * 512 < at + hooks; ++v) {
      const int64_t d = int64_t(v * 512) - int64_t(at);
      Piece p;
      p.offset = int32_t(int64_t(start) + (d >> 3));
      p.shift = uint32_t(d & 7);
      p.vector = uint32_t(v);
      const uint64_t first = std::max(at, v * 512) - v * 512, last = std::min(at + hooks, v * 512 + 512) - v * 512;
      for (uint64_t b = first; b < last; ++b) p.lanes[b / 64] |= uint64_t{1} << (b % 64);
      pieces.push_back(p);
    }
    at += hooks;
    start += (uint64_t{hooks} + 7) / 8;
  }
  std::stable_sort(pieces.begin(), pieces.end(), [](const Piece& a, const Piece& b) { return a.vector < b.vector; });
  rowBytes_ = uint32_t((at + 7) / 8);
  spans_.clear();
  meetings_.clear();
  const auto full = [](uint64_t lane) { return lane == ~uint64_t{0}; };
  for (size_t i = 0; i < pieces.size();) {
    const Piece& p = pieces[i];
    size_t n = 1;
    while (i + n < pieces.size() && pieces[i + n].vector == p.vector) ++n;
    if (n == 1 && std::all_of(p.lanes, p.lanes + 8, full)) {
      Span* last = spans_.empty() ? nullptr : &spans_.back();
      if (last && last->run && last->vector + last->run == p.vector && last->shift == p.shift &&
          int64_t(last->offset) + 64 * int64_t(last->run) == p.offset)
        ++last->run;
      else
        spans_.push_back({p.vector, 1, 0, p.offset, p.shift});
    } else {
      spans_.push_back({p.vector, 0, uint32_t(n), 0, 0});
      meetings_.insert(meetings_.end(), pieces.begin() + ptrdiff_t(i), pieces.begin() + ptrdiff_t(i + n));
    }
    i += n;
  }
  words_.assign(size_t(at / 64) + 2, 0);
}

void SectionJoin::run(const uint8_t* record, uint8_t* row) noexcept {
#if defined(__x86_64__)
  if (useWidePath())
    return joinWide(spans_.data(), spans_.data() + spans_.size(), meetings_.data(), record, row, rowBytes_);
#endif
  // Plain: one 64-bit word at a time, each section's words moved up by its
  // start within the word and ORed onto what the sections before left.
  uint64_t* words = words_.data();
  uint64_t at = 0;
  const uint8_t* src = record;
  for (uint32_t hooks : hooks_) {
    if (hooks == 0) continue;
    const size_t w = size_t(at / 64);
    const unsigned s = unsigned(at % 64);
    const size_t n = size_t((at + hooks - 1) / 64) - w + 1;  // words the section touches
    const uint64_t below = s ? words[w] & ((uint64_t{1} << s) - 1) : 0;
    words[w] = below | loadLE64(src) << s;
    for (size_t i = 1; i < n; ++i)
      words[w + i] = loadLE64(src + 8 * i) << s | (s ? loadLE64(src + 8 * i - 8) >> (64 - s) : 0);
    at += hooks;
    src += (size_t{hooks} + 7) / 8;
  }
  if (at % 64) words[at / 64] &= (uint64_t{1} << (at % 64)) - 1;
  for (size_t i = 0; i < rowBytes_; ++i) row[i] = kReversed[uint8_t(words[i / 8] >> (8 * (i % 8)))];
}

void reverseBytes(uint8_t* dst, const uint8_t* src, size_t n, bool negate) noexcept {
#if defined(__x86_64__)
  if (useWidePath()) return negate ? reverseWide<0xFF>(dst, src, n) : reverseWide<0>(dst, src, n);
#endif
  const uint8_t flip = negate ? 0xFF : 0x00;
  for (size_t i = 0; i < n; ++i) dst[i] = kReversed[src[i]] ^ flip;
}

}  // namespace ldr::staubli
