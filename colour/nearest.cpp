// colour/nearest.cpp: the exhaustive nearest-colour search behind every cache.
//
// The map is held in planes of floats (every real distance, at most 3 x 255^2,
// is exact in a float) so that four entries are compared at once with SSE2,
// which every x86-64 processor has. Padding and flagged entries sit so far
// out of the cube that they lose to every real entry, and a search that finds
// nothing nearer than that answers 0. One pass finds the smallest distance, a
// second the first entry at it. The wide path keeps the map in 16-bit lanes
// instead and searches sixteen entries at a time (colour/colour_simd.cpp).
#include <climits>

#if defined(__x86_64__)
#include <emmintrin.h>
#endif

#include "colour/colour.h"

namespace ldr::colour {
namespace {

constexpr int32_t kBlock = 16;                     // a whole number of vectors on every path
constexpr float kFar = 16384;                      // far outside the cube
constexpr float kFarthestReal = float(kFarthestDistance);
// Far for the wide path's 16-bit lanes: differences stay within 16 bits and
// three squares of them within 24, as its keys need.
constexpr uint32_t kFarWord = 1000;

}  // namespace

bool Palette::assign(const uint8_t* map, int32_t count, const uint8_t* flags) noexcept {
  padded_ = (count + kBlock - 1) / kBlock * kBlock;
  wide_ = useWideColour();
  const auto farAt = [&](int32_t i) { return i >= count || (flags && flags[i]); };
  if (wide_) {
    redGreen_ = allocArray<uint32_t>(size_t(padded_));
    blueWords_ = allocArray<uint32_t>(size_t(padded_));
    if (!redGreen_ || !blueWords_) return false;
    for (int32_t i = 0; i < padded_; ++i) {
      const bool far = farAt(i);
      redGreen_[i] = far ? kFarWord | kFarWord << 16 : uint32_t(map[3 * i]) | uint32_t(map[3 * i + 1]) << 16;
      blueWords_[i] = far ? kFarWord : map[3 * i + 2];
    }
    return true;
  }
  red_ = allocArray<float>(size_t(padded_));
  green_ = allocArray<float>(size_t(padded_));
  blue_ = allocArray<float>(size_t(padded_));
  if (!red_ || !green_ || !blue_) return false;
  for (int32_t i = 0; i < padded_; ++i) {
    const bool far = farAt(i);
    red_[i] = far ? kFar : map[3 * i];
    green_[i] = far ? kFar : map[3 * i + 1];
    blue_[i] = far ? kFar : map[3 * i + 2];
  }
  return true;
}

#if defined(__x86_64__)
uint32_t Palette::nearest(int32_t r, int32_t g, int32_t b) const noexcept {
  if (wide_) return nearestWide(redGreen_.get(), blueWords_.get(), padded_, r, g, b);
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
}
#else
uint32_t Palette::nearest(int32_t r, int32_t g, int32_t b) const noexcept {
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
}
#endif

int32_t firstFlagged(const uint8_t* flags, int32_t count) noexcept {
  if (!flags) return -1;
  for (int32_t i = 0; i < count; ++i)
    if (flags[i]) return i;
  return -1;
}

}  // namespace ldr::colour
