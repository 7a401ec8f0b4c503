// colour/nearest.cpp: the exhaustive nearest-colour search behind every cache.
//
// The map is held in planes of 32-bit values so that a block of entries is
// compared at once; padding and flagged entries sit so far out of the cube
// that they lose to every real entry, and a search that finds nothing nearer
// than that answers 0.
#include <algorithm>
#include <climits>

#include "colour/colour.h"

namespace ldr::colour {
namespace {

constexpr int32_t kBlock = 16;
constexpr int32_t kFar = 1 << 14;                  // (kFar - 255)^2 x 3 still fits 31 bits
constexpr int32_t kFarthestReal = 3 * 255 * 255;  // the largest distance inside the cube

}  // namespace

bool Palette::assign(const uint8_t* map, int32_t count, const uint8_t* flags) noexcept {
  padded_ = (count + kBlock - 1) / kBlock * kBlock;
  red_ = allocArray<int32_t>(size_t(padded_));
  green_ = allocArray<int32_t>(size_t(padded_));
  blue_ = allocArray<int32_t>(size_t(padded_));
  if (!red_ || !green_ || !blue_) return false;
  for (int32_t i = 0; i < padded_; ++i) {
    const bool far = i >= count || (flags && flags[i]);
    red_[i] = far ? kFar : map[3 * i];
    green_[i] = far ? kFar : map[3 * i + 1];
    blue_[i] = far ? kFar : map[3 * i + 2];
  }
  return true;
}

uint32_t Palette::nearest(int32_t r, int32_t g, int32_t b) const noexcept {
  int32_t best = INT_MAX;
  uint32_t bestIndex = 0;
  for (int32_t base = 0; base < padded_; base += kBlock) {
    int32_t d[kBlock];
    int32_t least = INT_MAX;
    for (int32_t k = 0; k < kBlock; ++k) {
      const int32_t dr = red_[base + k] - r, dg = green_[base + k] - g, db = blue_[base + k] - b;
      d[k] = dr * dr + dg * dg + db * db;
      least = std::min(least, d[k]);
    }
    if (least >= best) continue;  // strictly smaller only: the first of equals stays
    best = least;
    for (int32_t k = 0; k < kBlock; ++k)
      if (d[k] == least) {
        bestIndex = uint32_t(base + k);
        break;
      }
  }
  return best > kFarthestReal ? 0 : bestIndex;
}

int32_t firstFlagged(const uint8_t* flags, int32_t count) noexcept {
  if (!flags) return -1;
  for (int32_t i = 0; i < count; ++i)
    if (flags[i]) return i;
  return -1;
}

}  // namespace ldr::colour
