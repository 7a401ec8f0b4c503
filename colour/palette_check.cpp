// colour/palette_check.cpp: exact palettes. The table of distinct colours in
// order of first appearance that the checks return and that the quantizer
// tries before it cuts.
#include "colour/colour.h"
#include "vload.h"

namespace ldr::colour {

ExactColours::ExactColours(int32_t limit) noexcept : limit_(limit) {}

void ExactColours::reserveFirst() noexcept {
  colours_[0] = 0;
  count_ = 1;
}

int32_t ExactColours::find(uint32_t rgb) noexcept {
  if (rgb == lastColour_) return lastEntry_;
  uint32_t slot = (rgb * 2654435761u) >> 22;  // Fibonacci hashing to 10 bits
  for (; keys_[slot]; slot = (slot + 1) % kSlots) {
    if (keys_[slot] != (rgb | kUsed)) continue;
    lastColour_ = rgb;
    lastEntry_ = entries_[slot];
    return lastEntry_;
  }
  if (count_ > limit_) return -1;
  colours_[count_] = rgb;
  keys_[slot] = rgb | kUsed;
  entries_[slot] = uint16_t(count_);
  if (++count_ > limit_) return -1;
  lastColour_ = rgb;
  lastEntry_ = count_ - 1;
  return lastEntry_;
}

void ExactColours::writeMap(uint8_t* map) const noexcept {
  for (int32_t i = 0; i < count_; ++i) {
    map[3 * i] = uint8_t(colours_[i] >> 16);
    map[3 * i + 1] = uint8_t(colours_[i] >> 8);
    map[3 * i + 2] = uint8_t(colours_[i]);
  }
}

}  // namespace ldr::colour

using namespace ldr::colour;

extern "C" int32_t checkTrueColorPalette(const uint8_t* src, int32_t srcStride, int32_t width,
                                         int32_t height, uint8_t* colourMap) {
  if (!pictureOk(src, srcStride, width, height, 3) || !colourMap) return 0;
  ExactColours table(kMaxColours);
  for (int32_t y = 0; y < height; ++y) {
    const uint8_t* p = rowOf(src, y, srcStride);
    for (int32_t x = 0; x < width; ++x, p += 3)
      if (table.find(packRgb(p)) < 0) return 0;
  }
  table.writeMap(colourMap);
  return table.count();
}

extern "C" int32_t checkRGBAPalette(const uint8_t* src, int32_t srcStride, int32_t width,
                                    int32_t height, uint8_t* colourMap) {
  if (!pictureOk(src, srcStride, width, height, 4) || !colourMap) return 0;
  ExactColours table(kMaxColours);
  // Quirk: the first pixel's colour is entry 0 even when that pixel is fully
  // transparent, where a stricter check would count opaque pixels only.
  // Hosts rely on entry 0 being the top-left colour of a palette picture.
  table.find(packRgb(src));
  for (int32_t y = 0; y < height; ++y) {
    const uint8_t* p = rowOf(src, y, srcStride);
    for (int32_t x = 0; x < width; ++x, p += 4) {
      if (p[3] == 0) continue;
      if (p[3] != 255) return 0;  // partly transparent: no palette can say so
      if (table.find(packRgb(p)) < 0) return 0;
    }
  }
  table.writeMap(colourMap);
  return table.count();
}
