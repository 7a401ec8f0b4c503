// colour/nearest.cpp: the nearest-colour search behind every cache.
//
// The answer is always the exhaustive search's: squared distance in 8-bit
// RGB, exact in every representation below; flagged entries and the padding
// of a block sit so far out of the cube that they lose to every real entry,
// and a search that finds nothing nearer than that answers 0.
//
// Maps of up to 256 entries are searched through candidate lists. The cube
// is cut into 8 x 8 x 8 regions; for a region, T is the smallest, over the
// entries, of the farthest an entry can be from a colour of the region. The
// nearest entry of any colour inside is no farther than T, so it is among
// the entries that come within T of the region at all, and so is every entry
// as near as it: the list holds those, in map order, so the first of equals
// still wins. A list is made when a colour first falls into its region; on
// a photo's map it holds about a tenth of the entries.
//
// Larger maps (16-bit indices) are searched whole: the plain code four
// entries at a time with SSE2 (every x86-64 processor has it), in planes of
// floats, one pass for the smallest distance and a second for the first
// entry at it; the wide path sixteen at a time (colour/colour_simd.cpp).
#include <algorithm>

#if defined(__x86_64__)
#include <emmintrin.h>
#endif

#include "colour/colour.h"

namespace ldr::colour {
namespace {

constexpr int32_t kBlock = 16;  // a whole number of vectors on every path
constexpr float kFar = 16384;   // far outside the cube
constexpr float kFarthestReal = float(kFarthestDistance);
// kFarWord: differences stay within 16 bits and three squares of them
// within 24, as the wide search's keys need.
constexpr uint32_t kFarRedGreen = kFarWord | kFarWord << 16;
constexpr int32_t kRegionShift = 5;  // 32 values a side

constexpr int32_t padToBlock(int32_t n) noexcept { return (n + kBlock - 1) / kBlock * kBlock; }

int32_t regionOf(int32_t r, int32_t g, int32_t b) noexcept {
  return (r >> kRegionShift) << 6 | (g >> kRegionShift) << 3 | b >> kRegionShift;
}

// Squared distances from a value to the values lo..lo + 31: the least and
// the most.
uint32_t leastSquared(int32_t v, int32_t lo) noexcept {
  const int32_t d = v < lo ? lo - v : std::max(0, v - (lo + 31));
  return uint32_t(d * d);
}
uint32_t mostSquared(int32_t v, int32_t lo) noexcept {
  const int32_t d = std::max(v - lo, lo + 31 - v);
  return uint32_t(d * d);
}

// listWide one entry at a time.
int32_t listPlain(const uint32_t* redGreen, const uint32_t* blueWords, int32_t padded, const int32_t lo[3],
                  uint32_t* listRedGreen, uint32_t* listBlue, uint8_t* listIndex) noexcept {
  const auto colourOf = [&](int32_t i, int c) {
    return int32_t(c == 0 ? redGreen[i] & 0xFFFF : c == 1 ? redGreen[i] >> 16 : blueWords[i]);
  };
  uint32_t reach = ~0u;
  for (int32_t i = 0; i < padded; ++i) {
    if (redGreen[i] == kFarRedGreen) continue;
    uint32_t most = 0;
    for (int c = 0; c < 3; ++c) most += mostSquared(colourOf(i, c), lo[c]);
    reach = std::min(reach, most);
  }
  int32_t n = 0;
  for (int32_t i = 0; i < padded; ++i) {
    if (redGreen[i] == kFarRedGreen) continue;
    uint32_t least = 0;
    for (int c = 0; c < 3; ++c) least += leastSquared(colourOf(i, c), lo[c]);
    if (least > reach) continue;
    listRedGreen[n] = redGreen[i];
    listBlue[n] = blueWords[i];
    listIndex[n] = uint8_t(i);
    ++n;
  }
  return n;
}

}  // namespace

bool Palette::assign(const uint8_t* map, int32_t count, const uint8_t* flags) noexcept {
  padded_ = padToBlock(count);
  wide_ = useWideColour();
  listed_ = count <= kMaxColours;
  redGreen_ = allocArray<uint32_t>(size_t(padded_));
  blueWords_ = allocArray<uint32_t>(size_t(padded_));
  if (!redGreen_ || !blueWords_) return false;
  for (int32_t i = 0; i < padded_; ++i) {
    const bool far = i >= count || (flags && flags[i]);
    redGreen_[i] = far ? kFarRedGreen : uint32_t(map[3 * i]) | uint32_t(map[3 * i + 1]) << 16;
    blueWords_[i] = far ? kFarWord : map[3 * i + 2];
  }
  if (listed_) {
    // Untouched pages of these cost nothing: only the lists made are written.
    const size_t places = size_t(kRegions) * size_t(padded_);
    listRedGreen_ = allocArray<uint32_t>(places);
    listBlue_ = allocArray<uint32_t>(places);
    listIndex_ = allocArray<uint8_t>(places);
    std::fill_n(listSize_, kRegions, int16_t(-1));
    return listRedGreen_ && listBlue_ && listIndex_;
  }
  if (wide_) return true;
  red_ = allocArray<float>(size_t(padded_));
  green_ = allocArray<float>(size_t(padded_));
  blue_ = allocArray<float>(size_t(padded_));
  if (!red_ || !green_ || !blue_) return false;
  for (int32_t i = 0; i < padded_; ++i) {
    const bool far = redGreen_[i] == kFarRedGreen;
    red_[i] = far ? kFar : float(redGreen_[i] & 0xFFFF);
    green_[i] = far ? kFar : float(redGreen_[i] >> 16);
    blue_[i] = far ? kFar : float(blueWords_[i]);
  }
  return true;
}

void Palette::list(int32_t region) noexcept {
  const int32_t lo[3] = {(region >> 6) << kRegionShift, (region >> 3 & 7) << kRegionShift,
                         (region & 7) << kRegionShift};
  const size_t at = size_t(region) * size_t(padded_);
  const int32_t n = (wide_ ? listWide : listPlain)(redGreen_.get(), blueWords_.get(), padded_, lo,
                                                   &listRedGreen_[at], &listBlue_[at], &listIndex_[at]);
  for (int32_t i = n; i < padToBlock(n); ++i) {
    listRedGreen_[at + size_t(i)] = kFarRedGreen;
    listBlue_[at + size_t(i)] = kFarWord;
  }
  listSize_[region] = int16_t(n);
}

uint32_t Palette::nearest(int32_t r, int32_t g, int32_t b) noexcept {
  if (listed_) {
    const int32_t region = regionOf(r, g, b);
    if (listSize_[region] < 0) list(region);
    const int32_t n = listSize_[region];
    if (n == 0) return 0;  // every entry flagged
    const size_t at = size_t(region) * size_t(padded_);
    const uint32_t* redGreen = &listRedGreen_[at];
    const uint32_t* blue = &listBlue_[at];
    if (wide_) return listIndex_[at + nearestWide(redGreen, blue, padToBlock(n), r, g, b)];
    uint32_t best = ~0u, bestAt = 0;
    for (int32_t i = 0; i < n; ++i) {
      const int32_t dr = int32_t(redGreen[i] & 0xFFFF) - r, dg = int32_t(redGreen[i] >> 16) - g;
      const int32_t db = int32_t(blue[i]) - b;
      const uint32_t d = uint32_t(dr * dr + dg * dg + db * db);
      if (d < best) {  // strictly smaller only: the first of equals stays
        best = d;
        bestAt = uint32_t(i);
      }
    }
    return listIndex_[at + bestAt];
  }
  if (wide_) return nearestWide(redGreen_.get(), blueWords_.get(), padded_, r, g, b);
#if defined(__x86_64__)
  const __m128 vr = _mm_set1_ps(float(r)), vg = _mm_set1_ps(float(g)), vb = _mm_set1_ps(float(b));
  const auto distance = [&](int32_t i) {
    const __m128 dr = _mm_sub_ps(_mm_loadu_ps(&red_[i]), vr);
    const __m128 dg = _mm_sub_ps(_mm_loadu_ps(&green_[i]), vg);
    const __m128 db = _mm_sub_ps(_mm_loadu_ps(&blue_[i]), vb);
    return _mm_add_ps(_mm_add_ps(_mm_mul_ps(dr, dr), _mm_mul_ps(dg, dg)), _mm_mul_ps(db, db));
  };
  __m128 least = distance(0);
  for (int32_t i = 4; i < padded_; i += 4) least = _mm_min_ps(least, distance(i));
  least = _mm_min_ps(least, _mm_shuffle_ps(least, least, _MM_SHUFFLE(1, 0, 3, 2)));
  least = _mm_min_ps(least, _mm_shuffle_ps(least, least, _MM_SHUFFLE(2, 3, 0, 1)));
  if (_mm_cvtss_f32(least) > kFarthestReal) return 0;
  for (int32_t i = 0;; i += 4)
    if (const int mask = _mm_movemask_ps(_mm_cmpeq_ps(distance(i), least)))
      return uint32_t(i + __builtin_ctz(unsigned(mask)));
#else
  float best = kFarthestReal + 1;
  uint32_t bestIndex = 0;
  for (int32_t i = 0; i < padded_; ++i) {
    const float dr = red_[i] - float(r), dg = green_[i] - float(g), db = blue_[i] - float(b);
    const float d = dr * dr + dg * dg + db * db;
    if (d < best) {  // strictly smaller only: the first of equals stays
      best = d;
      bestIndex = uint32_t(i);
    }
  }
  return bestIndex;
#endif
}

int32_t firstFlagged(const uint8_t* flags, int32_t count) noexcept {
  if (!flags) return -1;
  for (int32_t i = 0; i < count; ++i)
    if (flags[i]) return i;
  return -1;
}

}  // namespace ldr::colour
