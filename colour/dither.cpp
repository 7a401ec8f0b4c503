// colour/dither.cpp: Floyd–Steinberg dithering onto a given colour map,
// scaling the picture by nearest neighbour at the same time; 8-bit and 16-bit
// index output.
//
// Every row runs left to right (no serpentine). Each pixel takes the cached
// nearest entry of its working colour, and its error, per channel, is shared
// out 7/16 right, 3/16 below left, 5/16 below and 1/16 below right, scaled by
// strength/16 (16 = full, 0 = plain nearest colour). Shares are arithmetic
// shifts, so they round toward minus infinity, and every sum is clamped to
// 0..255 (a sum lies in -1024..1023; min and max on it give what a clamping
// table over that range gives, without the load). Noise, when asked for, is
// added to each error before it is shared.
#include <algorithm>
#include <cstring>
#include <optional>

#if defined(__x86_64__)
#include <emmintrin.h>
#endif

#include "colour/colour.h"
#include "vload.h"

namespace ldr::colour {
namespace {

struct Request {
  const uint8_t* src;
  int32_t srcStride;
  uint8_t* dst;  // 8-bit or 16-bit indices; rows dstStride bytes apart
  int32_t dstStride;
  int32_t srcWidth, srcHeight, dstWidth, dstHeight;
  const uint8_t* map;
  int32_t count;
  const uint8_t* flags;
  int32_t strength, noise, bytesPerPixel;
};

// Working rows: dstWidth pixels and one more at each end that only takes
// error; each holds its source pixel, alpha included, so that transparency
// survives scaling as well. A few bytes of slack after them let a pixel of
// three bytes be read as four.
constexpr size_t kSlack = 4;
class WorkingRows {
 public:
  [[nodiscard]] bool init(const Request& q) noexcept {
    q_ = &q;
    bpp_ = size_t(q.bytesPerPixel);
    const size_t width = size_t(q.dstWidth) + 2;
    rowBytes_ = width * bpp_;
    rows_ = allocArray<uint8_t>(2 * rowBytes_ + kSlack);
    columns_ = allocArray<size_t>(width);
    if (!rows_ || !columns_) return false;
    for (int32_t x = 0; x < q.dstWidth; ++x)
      columns_[size_t(x) + 1] = size_t(int64_t{x} * q.srcWidth / q.dstWidth) * bpp_;
    columns_[0] = columns_[1];
    columns_[width - 1] = columns_[width - 2];
    current_ = rows_.get();
    next_ = current_ + rowBytes_;
    fill(current_, 0);
    return true;
  }
  uint8_t* current() const noexcept { return current_; }
  uint8_t* next() const noexcept { return next_; }
  // Loads output row y's source row into the next buffer.
  void prepareNext(int32_t y) noexcept { fill(next_, y); }
  void advance() noexcept { std::swap(current_, next_); }

 private:
  void fill(uint8_t* row, int32_t y) noexcept {
    const Request& q = *q_;
    const uint8_t* src = rowOf(q.src, int32_t(int64_t{y} * q.srcHeight / q.dstHeight), q.srcStride);
    if (q.srcWidth == q.dstWidth) {
      std::memcpy(row + bpp_, src, size_t(q.dstWidth) * bpp_);
      std::memcpy(row, src, bpp_);
      std::memcpy(row + rowBytes_ - bpp_, src + columns_[size_t(q.dstWidth)], bpp_);
      return;
    }
    for (size_t x = 0, n = size_t(q.dstWidth) + 2; x < n; ++x)
      std::memcpy(row + x * bpp_, src + columns_[x], bpp_);
  }

  const Request* q_ = nullptr;
  size_t bpp_ = 3, rowBytes_ = 0;
  Array<uint8_t> rows_;
  Array<size_t> columns_;
  uint8_t* current_ = nullptr;
  uint8_t* next_ = nullptr;
};

// The ditherer's cache holds, for each resolved cell, its entry together with
// the entry's colour: bytes R, G, B, then the index (one byte, or 16 bits
// after a zero byte). A pixel then has its entry's colour from the load that
// tells it the entry, one load fewer on the serial chain that runs through a
// row. An unresolved cell holds entry 0 with a red that differs from entry
// 0's, which no resolved slot can hold.
template <class Index>
class DitherCache {
 public:
  using Slot = std::conditional_t<sizeof(Index) == 1, uint32_t, uint64_t>;
  static constexpr int kIndexShift = sizeof(Index) == 1 ? 24 : 32;

  [[nodiscard]] bool init(const Palette& palette, const uint8_t* map) noexcept {
    palette_ = &palette;
    map_ = map;
    empty_ = slotOf(0) ^ 1;
    slots_ = Array<Slot>(static_cast<Slot*>(std::malloc(kCells * sizeof(Slot))));
    if (slots_) std::fill_n(slots_.get(), kCells, empty_);
    return bool(slots_);
  }
  Slot* slots() const noexcept { return slots_.get(); }
  Slot empty() const noexcept { return empty_; }
  // Resolves the slot of a colour packed as R | G << 8 | B << 16.
  [[gnu::noinline]] Slot resolve(Slot& slot, uint32_t rgb) const noexcept {
    slot = slotOf(palette_->nearest(int32_t(rgb & 255), int32_t(rgb >> 8 & 255), int32_t(rgb >> 16 & 255)));
    return slot;
  }
  static Index indexOf(Slot slot) noexcept { return Index(slot >> kIndexShift); }

 private:
  Slot slotOf(uint32_t i) const noexcept {
    const uint8_t* e = map_ + 3 * size_t(i);
    return Slot(e[0]) | Slot(e[1]) << 8 | Slot(e[2]) << 16 | Slot(i) << kIndexShift;
  }

  const Palette* palette_ = nullptr;
  const uint8_t* map_ = nullptr;
  Slot empty_ = 0;
  Array<Slot> slots_;
};

// The cell of a colour packed as R | G << 8 | B << 16; bits above are ignored.
constexpr uint32_t cellOfPacked(uint32_t rgb) noexcept {
  return (rgb & 0xFC) << 10 | (rgb & 0xFC00) >> 4 | (rgb >> 18 & 0x3F);
}

#if defined(__x86_64__)
// One output row, with the three channels side by side in 16-bit lanes.
// (e * s * k) >> 8 is the high half of e times (s * k) << 8, which
// _mm_mulhi_epi16 gives with the same rounding toward minus infinity:
// (s * k) << 8 fits 16 bits (s <= 16, k <= 7) and its product with e 32.
// The serial chain from one pixel to the next is kept short: the sum of the
// right neighbour and its share is clamped by the byte packing that also
// yields the colour for the cell, and the cache slot brings the entry's
// colour. Lane 3 (alpha, or the next pixel's first byte) takes no share, so
// a pixel is stored as 4 bytes that put back what lane 3 read.
template <class Index, int kBytes>
void ditherRow(const Request& q, DitherCache<Index>& cache, const NoiseTable* noise,
               int32_t transparent, uint8_t* cur, uint8_t* next, Index* out) noexcept {
  using Slot = typename DitherCache<Index>::Slot;
  Slot* const slots = cache.slots();  // locals: stores of 8-bit indices may alias any field
  const Slot empty = cache.empty();
  const __m128i zero = _mm_setzero_si128(), top = _mm_set1_epi16(255);
  const auto share = [&](int32_t k) {
    const int16_t m = int16_t(q.strength * k << 8);
    return _mm_setr_epi16(m, m, m, 0, 0, 0, 0, 0);
  };
  const __m128i seven = share(7), three = share(3), five = share(5), one = share(1);
  const auto load = [&](const uint8_t* p) {
    uint32_t v;
    std::memcpy(&v, p, 4);
    return _mm_unpacklo_epi8(_mm_cvtsi32_si128(int32_t(v)), zero);
  };
  const auto store = [&](uint8_t* p, __m128i v) {  // clamped by the packing
    const uint32_t w = uint32_t(_mm_cvtsi128_si32(_mm_packus_epi16(v, v)));
    std::memcpy(p, &w, 4);
  };
  const auto clamp = [&](__m128i v) { return _mm_min_epi16(_mm_max_epi16(v, zero), top); };
  uint32_t position = noise ? nextRandom() : 0;
  __m128i sum = load(cur + kBytes), belowLeft = load(next), below = load(next + kBytes);
  for (int32_t x = 0; x < q.dstWidth; ++x) {
    const __m128i packed = _mm_packus_epi16(sum, sum);
    __m128i error = zero;
    if (transparent >= 0 && cur[(x + 1) * kBytes + 3] == 0) {  // no colour, so no error to share
      out[x] = Index(transparent);
    } else {
      __m128i value = _mm_unpacklo_epi8(packed, zero);
      if (noise) {
        value = _mm_add_epi16(value, _mm_setr_epi16(int16_t(noise->at(position)), int16_t(noise->at(position + 1)),
                                                    int16_t(noise->at(position + 2)), 0, 0, 0, 0, 0));
        position += 3;
      }
      const uint32_t rgb = uint32_t(_mm_cvtsi128_si32(packed));
      Slot& slot = slots[cellOfPacked(rgb)];
      const Slot entry = slot != empty ? slot : cache.resolve(slot, rgb);
      out[x] = DitherCache<Index>::indexOf(entry);
      error = _mm_sub_epi16(value, _mm_unpacklo_epi8(_mm_cvtsi32_si128(int32_t(uint32_t(entry))), zero));
    }
    store(next + x * kBytes, _mm_add_epi16(belowLeft, _mm_mulhi_epi16(error, three)));
    belowLeft = clamp(_mm_add_epi16(below, _mm_mulhi_epi16(error, five)));
    below = clamp(_mm_add_epi16(load(next + (x + 2) * kBytes), _mm_mulhi_epi16(error, one)));
    sum = _mm_add_epi16(load(cur + (x + 2) * kBytes), _mm_mulhi_epi16(error, seven));
  }
  store(next + q.dstWidth * kBytes, belowLeft);
  store(next + (q.dstWidth + 1) * kBytes, below);
}
#else
// One output row. The pixel being mapped, and the three pixels of the next
// row it shares error into, are kept in registers while they gather their
// shares, in the order the shares arrive (each sum clamped on its own), and
// stored once finished: the same numbers as adding every share in place.
template <class Index, int kBytes>
void ditherRow(const Request& q, DitherCache<Index>& cache, const NoiseTable* noise,
               int32_t transparent, uint8_t* cur, uint8_t* next, Index* out) noexcept {
  using Slot = typename DitherCache<Index>::Slot;
  Slot* const slots = cache.slots();
  const Slot empty = cache.empty();
  const int32_t s = q.strength;
  uint32_t position = noise ? nextRandom() : 0;
  int32_t value[3], belowLeft[3], below[3];  // this pixel; next row at x - 1 and x
  for (int c = 0; c < 3; ++c) {
    value[c] = cur[kBytes + c];
    belowLeft[c] = next[c];
    below[c] = next[kBytes + c];
  }
  for (int32_t x = 0; x < q.dstWidth; ++x) {
    const uint8_t* right = cur + (x + 2) * kBytes;
    uint8_t* finished = next + x * kBytes;  // next row at x - 1
    const uint8_t* belowRight = finished + 2 * kBytes;
    int32_t error[3] = {0, 0, 0};
    if (transparent >= 0 && cur[(x + 1) * kBytes + 3] == 0) {  // no colour, so no error to share
      out[x] = Index(transparent);
    } else {
      const uint32_t rgb = uint32_t(value[0] | value[1] << 8 | value[2] << 16);
      Slot& slot = slots[cellOfPacked(rgb)];
      const Slot entry = slot != empty ? slot : cache.resolve(slot, rgb);
      out[x] = DitherCache<Index>::indexOf(entry);
      for (int c = 0; c < 3; ++c) {
        error[c] = value[c] - int32_t(entry >> (8 * c) & 255);
        if (noise) error[c] += noise->at(position++);
      }
    }
    for (int c = 0; c < 3; ++c) {
      // error * 7 >> 4 and the rest at full strength, (error * s * 7) >> 8
      // below it: the same numbers when s is 16.
      const int32_t e = error[c] * s;
      finished[c] = uint8_t(std::clamp(belowLeft[c] + (e * 3 >> 8), 0, 255));
      belowLeft[c] = std::clamp(below[c] + (e * 5 >> 8), 0, 255);
      below[c] = std::clamp(belowRight[c] + (e >> 8), 0, 255);
      value[c] = std::clamp(right[c] + (e * 7 >> 8), 0, 255);
    }
  }
  uint8_t* last = next + q.dstWidth * kBytes;
  for (int c = 0; c < 3; ++c) {
    last[c] = uint8_t(belowLeft[c]);
    last[kBytes + c] = uint8_t(below[c]);
  }
}

#endif

template <class Index, int kBytes>
void dither(const Request& q) noexcept {
  Palette palette;
  DitherCache<Index> cache;
  WorkingRows rows;
  if (!palette.assign(q.map, q.count, q.flags) || !cache.init(palette, q.map) || !rows.init(q)) return;
  const int32_t transparent = kBytes == 4 ? firstFlagged(q.flags, q.count) : -1;
  std::optional<NoiseTable> noise;
  if (q.noise > 0) noise.emplace(q.noise);
  for (int32_t y = 0; y < q.dstHeight; ++y) {
    if (y + 1 < q.dstHeight) rows.prepareNext(y + 1);
    ditherRow<Index, kBytes>(q, cache, noise ? &*noise : nullptr, transparent, rows.current(), rows.next(),
                             reinterpret_cast<Index*>(rowOf(q.dst, y, q.dstStride)));
    rows.advance();
  }
}

// Checks the request and clamps strength and noise; false when nothing may be written.
bool prepare(Request& q, int32_t indexBytes, int32_t maxColours) noexcept {
  if (q.dstWidth < 1 || q.dstHeight < 1) return false;
  if (q.bytesPerPixel != 3 && q.bytesPerPixel != 4) return false;
  if (!pictureOk(q.src, q.srcStride, q.srcWidth, q.srcHeight, q.bytesPerPixel)) return false;
  if (!pictureOk(q.dst, q.dstStride, q.dstWidth, q.dstHeight, indexBytes)) return false;
  if (q.dstStride % indexBytes) return false;  // rows of 16-bit indices stay aligned
  if (!q.map || q.count < 1 || q.count > maxColours) return false;
  q.strength = std::clamp(q.strength, 0, kMaxStrength);
  q.noise = std::clamp(q.noise, 0, kMaxNoise);
  return true;
}

}  // namespace
}  // namespace ldr::colour

using namespace ldr::colour;

extern "C" void colorQuantizeDitherFS_Internal(const uint8_t* src, int32_t srcStride, uint8_t* dst,
                                               int32_t dstStride, int32_t srcWidth, int32_t srcHeight,
                                               int32_t dstWidth, int32_t dstHeight,
                                               const uint8_t* colourMap, int32_t colourCount,
                                               const uint8_t* transparentFlags, int32_t strength,
                                               int32_t noise, int32_t bytesPerPixel) {
  Request q{src, srcStride, dst, dstStride, srcWidth, srcHeight, dstWidth, dstHeight,
            colourMap, colourCount, transparentFlags, strength, noise, bytesPerPixel};
  if (!prepare(q, 1, kMaxColours)) return;
  if (bytesPerPixel == 4)
    dither<uint8_t, 4>(q);
  else
    dither<uint8_t, 3>(q);
}

extern "C" void colorQuantizeDitherFS(const uint8_t* src, int32_t srcStride, uint8_t* dst,
                                      int32_t dstStride, int32_t srcWidth, int32_t srcHeight,
                                      int32_t dstWidth, int32_t dstHeight, const uint8_t* colourMap,
                                      int32_t colourCount, int32_t strength, int32_t noise) {
  colorQuantizeDitherFS_Internal(src, srcStride, dst, dstStride, srcWidth, srcHeight, dstWidth,
                                 dstHeight, colourMap, colourCount, nullptr, strength, noise, 3);
}

extern "C" void RGBAcolorQuantizeDitherFS(const uint8_t* src, int32_t srcStride, uint8_t* dst,
                                          int32_t dstStride, int32_t srcWidth, int32_t srcHeight,
                                          int32_t dstWidth, int32_t dstHeight,
                                          const uint8_t* colourMap, int32_t colourCount,
                                          const uint8_t* transparentFlags, int32_t strength,
                                          int32_t noise) {
  colorQuantizeDitherFS_Internal(src, srcStride, dst, dstStride, srcWidth, srcHeight, dstWidth,
                                 dstHeight, colourMap, colourCount, transparentFlags, strength,
                                 noise, 4);
}

extern "C" void colorQuantizeDitherFS16(const uint8_t* src, int32_t srcStride, uint16_t* dst,
                                        int32_t dstStride, int32_t srcWidth, int32_t srcHeight,
                                        int32_t dstWidth, int32_t dstHeight,
                                        const uint8_t* colourMap, int32_t colourCount,
                                        int32_t strength, int32_t noise) {
  Request q{src, srcStride, reinterpret_cast<uint8_t*>(dst), dstStride, srcWidth, srcHeight,
            dstWidth, dstHeight, colourMap, colourCount, nullptr, strength, noise, 3};
  if (prepare(q, 2, kMaxColours16)) dither<uint16_t, 3>(q);
}
