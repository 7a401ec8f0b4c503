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
// allocated per call (512 KB here; the ditherer keeps its own, with colours).
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
inline constexpr uint32_t kFarthestDistance = 3 * 255 * 255;  // squared, inside the cube

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

// ---- Code paths
// Which code the tools run: the widest this processor has (Auto), or one
// chosen by tests and benchmarks. Plain is what every processor runs (SSE2 on
// x86-64); Wide needs AVX-512 F/BW/VL/VBMI (colour/colour_simd.cpp). Per
// thread, and read when a tool starts.
enum class ColourPath : uint8_t { Auto, Plain, Wide };
void forceColourPath(ColourPath path) noexcept;
// True when the processor has what `path` needs (Auto and Plain always).
bool colourPathAvailable(ColourPath path) noexcept;
// True when the next tool is to run the wide path.
bool useWideColour() noexcept;

// ---- Nearest colour
class Palette {
 public:
  // Copies count entries of R, G, B; flags (may be null) marks entries that
  // are never chosen. False when memory runs out.
  [[nodiscard]] bool assign(const uint8_t* map, int32_t count, const uint8_t* flags) noexcept;
  // The nearest entry to (r, g, b): the same answer as an exhaustive search.
  uint32_t nearest(int32_t r, int32_t g, int32_t b) noexcept;

 private:
  static constexpr int32_t kRegions = 512;  // 8 x 8 x 8 regions of the cube, 32 values a side
  void list(int32_t region) noexcept;

  // Red and green as the two 16-bit halves of one word, blue in the low half
  // of another; for the plain search of maps above 256 entries, planes of
  // floats. Both padded to whole blocks with entries too far away to win; a
  // flagged entry is moved out there too.
  Array<uint32_t> redGreen_, blueWords_;
  Array<float> red_, green_, blue_;
  // Maps of up to 256 entries: per region, the entries that can be nearest
  // to some colour inside it, in map order (padded_ places a region).
  Array<uint32_t> listRedGreen_, listBlue_;
  Array<uint8_t> listIndex_;
  int16_t listSize_[kRegions] = {};  // -1 until the region's list is made
  int32_t padded_ = 0;
  bool wide_ = false, listed_ = false;
};

// Each cell holds its entry, or all ones while it is unresolved: one load
// answers both questions (resolved? which entry?). Slots are 16 bits wide for
// that, and one more slot than there are cells lets a vector gather read every
// slot as the low half of a 32-bit word.
class NearestCache {
 public:
  static constexpr uint16_t kUnresolved = 0xFFFF;
  [[nodiscard]] bool init(Palette& palette) noexcept {
    palette_ = &palette;
    slots_ = Array<uint16_t>(static_cast<uint16_t*>(std::malloc((kCells + 1) * sizeof(uint16_t))));
    if (slots_) std::memset(slots_.get(), 0xFF, (kCells + 1) * sizeof(uint16_t));
    return bool(slots_);
  }
  // What a lookup needs, as a copy that stays in registers: a byte stored
  // through any pointer could be the cache's own fields, never a local's.
  struct Ref {
    uint16_t* slots;
    Palette* palette;
    uint8_t lookup(uint32_t r, uint32_t g, uint32_t b) const noexcept {
      uint16_t& slot = slots[cellOf(r, g, b)];
      if (slot == kUnresolved) slot = uint16_t(palette->nearest(int32_t(r), int32_t(g), int32_t(b)));
      return uint8_t(slot);
    }
  };
  Ref ref() const noexcept { return {slots_.get(), palette_}; }

 private:
  Palette* palette_ = nullptr;
  Array<uint16_t> slots_;
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

// 32768 offsets in -noise..noise, read from a position drawn per row and
// wrapping at the end. The first kRunBytes offsets are repeated after the
// last, so that a run of that many from any position is one plain read.
class NoiseTable {
 public:
  static constexpr uint32_t kMask = 32767;
  static constexpr uint32_t kRunBytes = 64;
  // noise in 1..kMaxNoise
  explicit NoiseTable(int32_t noise) noexcept;
  int32_t at(uint32_t position) const noexcept { return offsets_[position & kMask]; }
  // The offsets at position, position + 1, ... (kRunBytes of them).
  const int8_t* run(uint32_t position) const noexcept { return &offsets_[position & kMask]; }

 private:
  int8_t offsets_[kMask + 1 + kRunBytes];
};

// ---- Remapping rows
// Pixels mapped through the cache, optionally with noise: the remapper's
// work, and the quantizer's last step.
struct RemapRows {
  const uint8_t* src;
  int32_t srcStride;
  uint8_t* dst;
  int32_t dstStride;
  int32_t width, height, bytesPerPixel;
  int32_t transparent;      // the index of pixels of alpha 0, or -1: alpha is ignored
  const NoiseTable* noise;  // or null

  // One pixel's index. Each opaque pixel takes the next three offsets of a
  // noisy row, from `position`.
  uint8_t pixel(const uint8_t* p, uint32_t& position, NearestCache::Ref cache) const noexcept {
    if (transparent >= 0 && p[3] == 0) return uint8_t(transparent);
    if (!noise) return cache.lookup(p[0], p[1], p[2]);
    const int32_t r = clampByte(p[0] + noise->at(position));
    const int32_t g = clampByte(p[1] + noise->at(position + 1));
    const int32_t b = clampByte(p[2] + noise->at(position + 2));
    position += 3;
    return cache.lookup(uint32_t(r), uint32_t(g), uint32_t(b));
  }
  static constexpr int32_t clampByte(int32_t v) noexcept { return v < 0 ? 0 : v > 255 ? 255 : v; }
};
// Every row; a noisy row draws its start position first.
void remapRows(const RemapRows& job, NearestCache& cache) noexcept;
// One row of job, pixel by pixel, with noise from `position` on.
void remapRowPlain(const RemapRows& job, int32_t y, uint32_t position, NearestCache& cache) noexcept;

// ---- Wide path (colour/colour_simd.cpp; only when useWideColour())
// Entries as Palette keeps them: red | green << 16 and blue words, entries
// that must never win at kFarWord in every channel.
inline constexpr uint32_t kFarWord = 1000;
uint32_t nearestWide(const uint32_t* redGreen, const uint32_t* blueWords, int32_t padded, int32_t r,
                     int32_t g, int32_t b) noexcept;
// Copies into the lists the entries whose least squared distance to the
// colours lo[c]..lo[c] + 31 is at most the smallest of all entries' largest;
// returns how many.
int32_t listWide(const uint32_t* redGreen, const uint32_t* blueWords, int32_t padded, const int32_t lo[3],
                 uint32_t* listRedGreen, uint32_t* listBlue, uint8_t* listIndex) noexcept;
// The same as remapRowPlain, sixteen pixels at a time.
void remapRowWide(const RemapRows& job, int32_t y, uint32_t position, NearestCache& cache) noexcept;
// Adds one row of pixels to the cube histogram.
void countCellsWide(const uint8_t* row, int32_t width, int32_t bytesPerPixel, uint64_t* cube) noexcept;

}  // namespace ldr::colour
