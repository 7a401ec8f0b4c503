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
#include <cstdint>
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
// survives scaling as well. Three take turns, as two rows are dithered at
// once into the one after them. A few bytes of slack after them let a pixel
// of three bytes be read as four.
constexpr size_t kSlack = 4;
constexpr int32_t kBuffers = 3;
class WorkingRows {
 public:
  [[nodiscard]] bool init(const Request& q) noexcept {
    q_ = &q;
    bpp_ = size_t(q.bytesPerPixel);
    const size_t width = size_t(q.dstWidth) + 2;
    rowBytes_ = width * bpp_;
    rows_ = allocArray<uint8_t>(kBuffers * rowBytes_ + kSlack);
    columns_ = allocArray<size_t>(width);
    if (!rows_ || !columns_) return false;
    for (int32_t x = 0; x < q.dstWidth; ++x)
      columns_[size_t(x) + 1] = size_t(int64_t{x} * q.srcWidth / q.dstWidth) * bpp_;
    columns_[0] = columns_[1];
    columns_[width - 1] = columns_[width - 2];
    fill(0);
    return true;
  }
  // The buffer of output row y.
  uint8_t* row(int32_t y) const noexcept { return rows_.get() + size_t(y % kBuffers) * rowBytes_; }
  // Loads output row y's source pixels into its buffer, or only buffer
  // pixels from..to - 1 (0 is the spare pixel at the left end).
  void fill(int32_t y, size_t from = 0, size_t to = SIZE_MAX) noexcept {
    const Request& q = *q_;
    const uint8_t* src = rowOf(q.src, int32_t(int64_t{y} * q.srcHeight / q.dstHeight), q.srcStride);
    uint8_t* buffer = row(y);
    const size_t n = std::min(to, size_t(q.dstWidth) + 2);
    if (q.srcWidth == q.dstWidth && from == 0 && to == SIZE_MAX) {
      std::memcpy(buffer + bpp_, src, size_t(q.dstWidth) * bpp_);
      std::memcpy(buffer, src, bpp_);
      std::memcpy(buffer + rowBytes_ - bpp_, src + columns_[size_t(q.dstWidth)], bpp_);
      return;
    }
    for (size_t x = from; x < n; ++x) std::memcpy(buffer + x * bpp_, src + columns_[x], bpp_);
  }

 private:
  const Request* q_ = nullptr;
  size_t bpp_ = 3, rowBytes_ = 0;
  Array<uint8_t> rows_;
  Array<size_t> columns_;
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

  [[nodiscard]] bool init(Palette& palette, const uint8_t* map) noexcept {
    palette_ = &palette;
    map_ = map;
    empty_ = slotOf(0) ^ 1;
    slots_ = Array<Slot>(static_cast<Slot*>(std::malloc(kCells * sizeof(Slot))));
    if (slots_) std::fill_n(slots_.get(), kCells, empty_);
    return bool(slots_);
  }
  Slot* slots() const noexcept { return slots_.get(); }
  Slot empty() const noexcept { return empty_; }
  // The answer for a colour packed as R | G << 8 | B << 16.
  Slot nearest(uint32_t rgb) const noexcept {
    return slotOf(palette_->nearest(int32_t(rgb & 255), int32_t(rgb >> 8 & 255), int32_t(rgb >> 16 & 255)));
  }
  static Index indexOf(Slot slot) noexcept { return Index(slot >> kIndexShift); }

 private:
  Slot slotOf(uint32_t i) const noexcept {
    const uint8_t* e = map_ + 3 * size_t(i);
    return Slot(e[0]) | Slot(e[1]) << 8 | Slot(e[2]) << 16 | Slot(i) << kIndexShift;
  }

  Palette* palette_ = nullptr;
  const uint8_t* map_ = nullptr;
  Slot empty_ = 0;
  Array<Slot> slots_;
};

// The cell of a colour packed as R | G << 8 | B << 16; bits above are ignored.
constexpr uint32_t cellOfPacked(uint32_t rgb) noexcept {
  return (rgb & 0xFC) << 10 | (rgb & 0xFC00) >> 4 | (rgb >> 18 & 0x3F);
}

// What every pixel of a row reads: the cache and the tools' settings.
template <class Index>
struct RowSettings {
  typename DitherCache<Index>::Slot* slots;
  typename DitherCache<Index>::Slot empty;
  const NoiseTable* noise;
  int32_t transparent, width, strength;
};

#if defined(__x86_64__)
// The walk along one output row, one pixel a step, with the three channels
// side by side in 16-bit lanes. (e * s * k) >> 8 is the high half of e times
// (s * k) << 8, which _mm_mulhi_epi16 gives with the same rounding toward
// minus infinity: (s * k) << 8 fits 16 bits (s <= 16, k <= 7) and its
// product with e 32. The serial chain from one pixel to the next is kept
// short: the sum of the right neighbour and its share is clamped by the byte
// packing that also yields the colour for the cell, and the cache slot
// brings the entry's colour. Lane 3 (alpha, or the next pixel's first byte)
// takes no share, so a pixel is stored as 4 bytes that put back what lane 3
// read.
template <class Index, int kBytes>
struct Walk {
  using Slot = typename DitherCache<Index>::Slot;
  const uint8_t* cur;  // this row's buffer at this pixel's left neighbour, final
  uint8_t* next;       // the next row's, at the same place, taking shares
  Index* out;          // this pixel's index
  __m128i sum;         // this pixel before clamping
  __m128i belowLeft, below;  // the next row's two pixels gathering shares
  uint32_t position;   // in the noise table

  static __m128i load(const uint8_t* p) noexcept {
    uint32_t v;
    std::memcpy(&v, p, 4);
    return _mm_unpacklo_epi8(_mm_cvtsi32_si128(int32_t(v)), _mm_setzero_si128());
  }
  static void store(uint8_t* p, __m128i v) noexcept {  // clamped by the packing
    const uint32_t w = uint32_t(_mm_cvtsi128_si32(_mm_packus_epi16(v, v)));
    std::memcpy(p, &w, 4);
  }
  static __m128i clamp(__m128i v) noexcept {
    return _mm_min_epi16(_mm_max_epi16(v, _mm_setzero_si128()), _mm_set1_epi16(255));
  }
  static __m128i share(const RowSettings<Index>& k, int32_t weight) noexcept {
    const int16_t m = int16_t(k.strength * weight << 8);
    return _mm_setr_epi16(m, m, m, 0, 0, 0, 0, 0);
  }

  void start(uint8_t* row, uint8_t* nextRow, Index* indices, const RowSettings<Index>& k) noexcept {
    cur = row;
    next = nextRow;
    out = indices;
    position = k.noise ? nextRandom() : 0;
    sum = load(cur + kBytes);
    belowLeft = load(next);
    below = load(next + kBytes);
  }
  // One pixel. resolve(slot, rgb, walk) answers an open cell; it sees the
  // walk as it stood before this pixel.
  template <class Resolve>
  void step(const RowSettings<Index>& k, Resolve&& resolve) noexcept {
    const __m128i packed = _mm_packus_epi16(sum, sum);
    __m128i error = _mm_setzero_si128();
    if (k.transparent >= 0 && cur[kBytes + 3] == 0) {  // no colour, so no error to share
      *out = Index(k.transparent);
    } else {
      __m128i value = _mm_unpacklo_epi8(packed, _mm_setzero_si128());
      if (k.noise)
        value = _mm_add_epi16(value, _mm_setr_epi16(int16_t(k.noise->at(position)), int16_t(k.noise->at(position + 1)),
                                                     int16_t(k.noise->at(position + 2)), 0, 0, 0, 0, 0));
      const uint32_t rgb = uint32_t(_mm_cvtsi128_si32(packed));
      Slot& slot = k.slots[cellOfPacked(rgb)];
      const Slot entry = slot != k.empty ? slot : resolve(slot, rgb, *this);
      if (k.noise) position += 3;
      *out = DitherCache<Index>::indexOf(entry);
      error = _mm_sub_epi16(value, _mm_unpacklo_epi8(_mm_cvtsi32_si128(int32_t(uint32_t(entry))), _mm_setzero_si128()));
    }
    store(next, _mm_add_epi16(belowLeft, _mm_mulhi_epi16(error, share(k, 3))));
    belowLeft = clamp(_mm_add_epi16(below, _mm_mulhi_epi16(error, share(k, 5))));
    below = clamp(_mm_add_epi16(load(next + 2 * kBytes), _mm_mulhi_epi16(error, share(k, 1))));
    sum = _mm_add_epi16(load(cur + 2 * kBytes), _mm_mulhi_epi16(error, share(k, 7)));
    cur += kBytes;
    next += kBytes;
    ++out;
  }
  void finish() noexcept {
    store(next, belowLeft);
    store(next + kBytes, below);
  }
};
#else
// The walk along one output row, one pixel a step. The pixel being mapped,
// and the three pixels of the next row it shares error into, are kept while
// they gather their shares, in the order the shares arrive (each sum clamped
// on its own), and stored once finished: the same numbers as adding every
// share in place.
template <class Index, int kBytes>
struct Walk {
  using Slot = typename DitherCache<Index>::Slot;
  const uint8_t* cur;  // this row's buffer at this pixel's left neighbour
  uint8_t* next;       // the next row's, at the same place
  Index* out;
  int32_t value[3], belowLeft[3], below[3];  // this pixel; the next row's two pixels
  uint32_t position;

  void start(uint8_t* row, uint8_t* nextRow, Index* indices, const RowSettings<Index>& k) noexcept {
    cur = row;
    next = nextRow;
    out = indices;
    position = k.noise ? nextRandom() : 0;
    for (int c = 0; c < 3; ++c) {
      value[c] = cur[kBytes + c];
      belowLeft[c] = next[c];
      below[c] = next[kBytes + c];
    }
  }
  template <class Resolve>
  void step(const RowSettings<Index>& k, Resolve&& resolve) noexcept {
    int32_t error[3] = {0, 0, 0};
    if (k.transparent >= 0 && cur[kBytes + 3] == 0) {  // no colour, so no error to share
      *out = Index(k.transparent);
    } else {
      const uint32_t rgb = uint32_t(value[0] | value[1] << 8 | value[2] << 16);
      Slot& slot = k.slots[cellOfPacked(rgb)];
      const Slot entry = slot != k.empty ? slot : resolve(slot, rgb, *this);
      *out = DitherCache<Index>::indexOf(entry);
      for (int c = 0; c < 3; ++c) {
        error[c] = value[c] - int32_t(entry >> (8 * c) & 255);
        if (k.noise) error[c] += k.noise->at(position++);
      }
    }
    for (int c = 0; c < 3; ++c) {
      // error * 7 >> 4 and the rest at full strength, (error * s * 7) >> 8
      // below it: the same numbers when s is 16.
      const int32_t e = error[c] * k.strength;
      next[c] = uint8_t(std::clamp(belowLeft[c] + (e * 3 >> 8), 0, 255));
      belowLeft[c] = std::clamp(below[c] + (e * 5 >> 8), 0, 255);
      below[c] = std::clamp(next[2 * kBytes + c] + (e >> 8), 0, 255);
      value[c] = std::clamp(cur[2 * kBytes + c] + (e * 7 >> 8), 0, 255);
    }
    cur += kBytes;
    next += kBytes;
    ++out;
  }
  void finish() noexcept {
    for (int c = 0; c < 3; ++c) {
      next[c] = uint8_t(belowLeft[c]);
      next[kBytes + c] = uint8_t(below[c]);
    }
  }
};
#endif

// ---- Two rows at a time
// A pixel needs of the row above it only the pixels up to one to its right,
// finished, so a row can follow the one above three pixels behind and their
// two serial chains overlap. What could differ is the cache: a cell answers
// for the first colour that meets it in row order, and the following row may
// meet a cell before the row above does. So the following row's answers for
// cells still open are tentative: kept in a second table, each with the walk
// as it stood before the pixel that made it. When the row above meets such a
// cell and its own colour gets another answer, the following row goes back
// to that pixel (its next row's buffer is refilled from there on); when the
// row above ends, the tentative answers become final, as no earlier pixel
// met those cells.
// The upper walk takes this many pixels alone, then each walk one in turn.
// A step at x reads its row's pixel x + 1, which the walk above stores when
// it steps at x + 2 (it stores the next row one pixel behind itself); so the
// upper walk is three pixels ahead whenever the lower one steps.
constexpr int32_t kLead = 2;

template <class Index, int kBytes>
class Pairs {
  using Slot = typename DitherCache<Index>::Slot;
  using RowWalk = Walk<Index, kBytes>;
  struct Tentative {
    uint32_t cell;
    RowWalk before;
  };

 public:
  [[nodiscard]] bool init(const DitherCache<Index>& cache, int32_t width) noexcept {
    cache_ = &cache;
    empty_ = cache.empty();
    tentative_ = Array<Slot>(static_cast<Slot*>(std::malloc(kCells * sizeof(Slot))));
    made_ = allocArray<Tentative>(size_t(width));
    if (!tentative_ || !made_) return false;
    std::fill_n(tentative_.get(), kCells, empty_);
    return true;
  }

  // Output rows y and y + 1 (both in the picture; `last` says whether y + 1
  // is the last one).
  void run(const RowSettings<Index>& k, WorkingRows& rows, Index* upperOut, Index* lowerOut, int32_t y,
           bool last) noexcept {
    count_ = 0;
    const auto alone = [&](Slot& slot, uint32_t rgb, const RowWalk&) { return slot = cache_->nearest(rgb); };
    int32_t backTo = -1;  // a tentative answer the upper row contradicted
    const auto upperResolve = [&](Slot& slot, uint32_t rgb, const RowWalk&) {
      slot = cache_->nearest(rgb);
      const uint32_t cell = cellOfPacked(rgb);
      if (tentative_[cell] != empty_ && tentative_[cell] != slot) backTo = find(cell);
      return slot;
    };
    const auto lowerResolve = [&](Slot&, uint32_t rgb, const RowWalk& before) {
      const uint32_t cell = cellOfPacked(rgb);
      Slot& answer = tentative_[cell];
      if (answer == empty_) {
        answer = cache_->nearest(rgb);
        made_[count_++] = {cell, before};
      }
      return answer;
    };
    RowWalk upper, lower;
    upper.start(rows.row(y), rows.row(y + 1), upperOut, k);
    for (int32_t i = 0; i < kLead; ++i) upper.step(k, alone);
    lower.start(rows.row(y + 1), rows.row(y + 2), lowerOut, k);
    const Index* const upperEnd = upperOut + k.width;
    while (upper.out != upperEnd) {
      upper.step(k, upperResolve);
      if (backTo >= 0) {
        // The walk stored buffer pixels up to where it had reached; from
        // x + 2 on it reads them again, so they take their source back.
        const ptrdiff_t reached = lower.out - lowerOut;
        lower = made_[backTo].before;
        forget(backTo);
        if (!last) rows.fill(y + 2, size_t(lower.out - lowerOut) + 2, size_t(reached));
        backTo = -1;
      }
      lower.step(k, lowerResolve);
    }
    upper.finish();
    for (int32_t i = 0; i < count_; ++i) {
      Slot& slot = k.slots[made_[i].cell];
      if (slot == empty_) slot = tentative_[made_[i].cell];
    }
    forget(0);
    while (lower.out != lowerOut + k.width) lower.step(k, alone);
    lower.finish();
  }

 private:
  int32_t find(uint32_t cell) const noexcept {
    int32_t i = 0;
    while (made_[i].cell != cell) ++i;
    return i;
  }
  // Drops the tentative answers from `from` on.
  void forget(int32_t from) noexcept {
    for (int32_t i = from; i < count_; ++i) tentative_[made_[i].cell] = empty_;
    count_ = from;
  }

  const DitherCache<Index>* cache_ = nullptr;
  Slot empty_ = 0;
  Array<Slot> tentative_;
  Array<Tentative> made_;
  int32_t count_ = 0;
};

template <class Index, int kBytes>
void dither(const Request& q) noexcept {
  Palette palette;
  DitherCache<Index> cache;
  WorkingRows rows;
  Pairs<Index, kBytes> pairs;
  if (!palette.assign(q.map, q.count, q.flags) || !cache.init(palette, q.map) || !rows.init(q) ||
      !pairs.init(cache, q.dstWidth))
    return;
  std::optional<NoiseTable> noise;
  if (q.noise > 0) noise.emplace(q.noise);
  const RowSettings<Index> k{cache.slots(), cache.empty(), noise ? &*noise : nullptr,
                             kBytes == 4 ? firstFlagged(q.flags, q.count) : -1, q.dstWidth, q.strength};
  const auto out = [&](int32_t y) { return reinterpret_cast<Index*>(rowOf(q.dst, y, q.dstStride)); };
  const auto alone = [&](typename DitherCache<Index>::Slot& slot, uint32_t rgb, const Walk<Index, kBytes>&) {
    return slot = cache.nearest(rgb);
  };
  for (int32_t y = 0; y < q.dstHeight;) {
    if (y + 1 < q.dstHeight) rows.fill(y + 1);
    if (y + 1 < q.dstHeight && q.dstWidth > kLead) {
      if (y + 2 < q.dstHeight) rows.fill(y + 2);
      pairs.run(k, rows, out(y), out(y + 1), y, y + 2 == q.dstHeight);
      y += 2;
      continue;
    }
    Walk<Index, kBytes> walk;
    walk.start(rows.row(y), rows.row(y + 1), out(y), k);
    for (int32_t x = 0; x < q.dstWidth; ++x) walk.step(k, alone);
    walk.finish();
    ++y;
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
