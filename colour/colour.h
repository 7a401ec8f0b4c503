// colour/colour.h: what the colour tools share: the colour cube cell, the
// exhaustive nearest-colour search and the per-cell cache in front of it, the
// random numbers and noise offsets, and the argument checks of the C entry
// points.
//
// Nearest colour: squared Euclidean distance in 8-bit RGB; entries flagged
// transparent are never chosen; the first entry with the strictly smallest
// distance wins; with no eligible entry the answer is 0.
//
// Cache: the first colour met in a cube cell (6 bits a channel) is searched
// exhaustively and its answer serves every later colour of that cell, even
// where that colour's own nearest entry differs. The approximation is
// deliberate: it bounds the searches to one per used cell. The cache is
// allocated per call (512 KB for 8-bit indices, 1 MB for 16-bit).
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <type_traits>

namespace ldr::colour {

// ---- Limits and constants
inline constexpr int32_t kMaxColours = 256;       // 8-bit indices
inline constexpr int32_t kMaxColours16 = 65536;   // 16-bit indices
inline constexpr uint32_t kCells = 1u << 18;      // 64 x 64 x 64 cube cells
inline constexpr int32_t kMaxNoise = 100;
inline constexpr int32_t kMaxStrength = 16;

// Cube cell of a colour: 6 bits a channel, red most significant.
constexpr uint32_t cellOf(uint32_t r, uint32_t g, uint32_t b) noexcept {
  return (r >> 2) << 12 | (g >> 2) << 6 | b >> 2;
}

// ---- Memory: zeroed heap arrays, empty when memory runs out; the tools
// report that as a result, never as an exception.
struct FreeArray {
  void operator()(void* p) const noexcept { std::free(p); }
};
template <class T>
using Array = std::unique_ptr<T[], FreeArray>;
template <class T>
Array<T> allocArray(size_t n) noexcept {
  return Array<T>(static_cast<T*>(std::calloc(n ? n : 1, sizeof(T))));
}

// ---- Arguments
// A picture of width x height pixels of bytesPerPixel bytes whose rows are
// stride bytes apart: everything positive, rows not overlapping, pointer set.
inline bool pictureOk(const void* p, int32_t stride, int32_t width, int32_t height,
                      int32_t bytesPerPixel) noexcept {
  return p && width > 0 && height > 0 && int64_t{stride} >= int64_t{width} * bytesPerPixel;
}
inline const uint8_t* rowOf(const uint8_t* base, int32_t y, int32_t stride) noexcept {
  return base + static_cast<ptrdiff_t>(y) * stride;
}
inline uint8_t* rowOf(uint8_t* base, int32_t y, int32_t stride) noexcept {
  return base + static_cast<ptrdiff_t>(y) * stride;
}

// ---- Exact colours
constexpr uint32_t packRgb(const uint8_t* p) noexcept {
  return uint32_t(p[0]) << 16 | uint32_t(p[1]) << 8 | p[2];
}

// Distinct colours in order of first appearance, up to `limit` entries and
// the one that goes past it. Linear search from the start would give the same
// entries; a small hash table gives them without the quadratic cost.
class ExactColours {
 public:
  explicit ExactColours(int32_t limit) noexcept;
  // Takes entry 0 for a colour no pixel can match (the transparent entry).
  void reserveFirst() noexcept;
  // The entry of a packed colour, appended when new; -1 once the colour is
  // the one past the limit, after which the table must not be asked again.
  int32_t find(uint32_t rgb) noexcept;
  int32_t count() const noexcept { return count_; }
  // Entries as R, G, B bytes; a reserved entry reads 0, 0, 0.
  void writeMap(uint8_t* map) const noexcept;

 private:
  static constexpr uint32_t kSlots = 1024;  // a quarter full at most
  static constexpr uint32_t kUsed = 1u << 31;
  uint32_t colours_[kMaxColours + 1];
  uint32_t keys_[kSlots] = {};  // colour | kUsed, or 0 for a free slot
  uint16_t entries_[kSlots];
  int32_t limit_, count_ = 0;
  uint32_t lastColour_ = ~0u;  // no packed colour has the top bits set
  int32_t lastEntry_ = -1;
};

// ---- Nearest colour
class Palette {
 public:
  // Copies count entries of R, G, B; flags (may be null) marks entries that
  // are never chosen. False when memory runs out.
  [[nodiscard]] bool assign(const uint8_t* map, int32_t count, const uint8_t* flags) noexcept;
  // The nearest entry to (r, g, b), searched exhaustively.
  uint32_t nearest(int32_t r, int32_t g, int32_t b) const noexcept;

 private:
  // Entries in planes, padded to whole blocks with entries too far away to
  // win; a flagged entry is moved out there too.
  Array<float> red_, green_, blue_;
  int32_t padded_ = 0;
};

// Each cell holds its entry, or all ones while it is unresolved: one load
// answers both questions (resolved? which entry?), which matters on the
// ditherer's critical path. Entries are one size wider than Index for that.
template <class Index>
class NearestCache {
  using Slot = std::conditional_t<sizeof(Index) == 1, uint16_t, uint32_t>;

 public:
  [[nodiscard]] bool init(const Palette& palette) noexcept {
    palette_ = &palette;
    slots_ = Array<Slot>(static_cast<Slot*>(std::malloc(kCells * sizeof(Slot))));
    if (slots_) std::memset(slots_.get(), 0xFF, kCells * sizeof(Slot));
    return bool(slots_);
  }
  Index lookup(uint32_t r, uint32_t g, uint32_t b) noexcept {
    Slot& slot = slots_[cellOf(r, g, b)];
    if (slot == Slot(~Slot(0))) slot = Slot(palette_->nearest(int32_t(r), int32_t(g), int32_t(b)));
    return Index(slot);
  }

 private:
  const Palette* palette_ = nullptr;
  Array<Slot> slots_;
};

// The first entry whose transparent flag is set, or -1.
int32_t firstFlagged(const uint8_t* flags, int32_t count) noexcept;

// ---- Random numbers and noise
// The tools' generator: a PCG-XSH-RR 32-bit permuted congruential generator
// per thread, of which nextRandom() hands out the top 31 bits (0..kRandomMax).
// Every thread starts from the same seed, so a run repeats itself.
inline constexpr uint32_t kRandomMax = 0x7FFFFFFF;
uint32_t nextRandom() noexcept;
// Restarts the calling thread's sequence (tests use it to repeat a run).
void seedRandom(uint64_t seed) noexcept;

// 32768 offsets in -noise..noise, read from a position drawn per row.
class NoiseTable {
 public:
  static constexpr uint32_t kMask = 32767;
  // noise in 1..kMaxNoise
  explicit NoiseTable(int32_t noise) noexcept;
  int32_t at(uint32_t position) const noexcept { return offsets_[position & kMask]; }

 private:
  int8_t offsets_[kMask + 1];
};

}  // namespace ldr::colour
