// colour/remap.cpp: every pixel to the nearest entry of a given colour map,
// through the per-cell cache, optionally with random noise added to each
// channel first (which breaks up flat areas into a mix of nearby entries).
#include <algorithm>
#include <optional>

#include "colour/colour.h"
#include "vload.h"

namespace ldr::colour {
namespace {

int32_t remap(const uint8_t* src, int32_t srcStride, uint8_t* dst, int32_t dstStride,
              int32_t width, int32_t height, const uint8_t* map, int32_t count,
              const uint8_t* flags, int32_t noiseLevel, int32_t bytesPerPixel) noexcept {
  if (!pictureOk(src, srcStride, width, height, bytesPerPixel) ||
      !pictureOk(dst, dstStride, width, height, 1) || !map || count < 1 || count > kMaxColours)
    return 0;
  Palette palette;
  NearestCache<uint8_t> cache;
  if (!palette.assign(map, count, flags) || !cache.init(palette)) return 0;
  const int32_t transparent = bytesPerPixel == 4 ? firstFlagged(flags, count) : -1;
  noiseLevel = std::clamp(noiseLevel, 0, kMaxNoise);
  std::optional<NoiseTable> noise;
  if (noiseLevel > 0) noise.emplace(noiseLevel);

  for (int32_t y = 0; y < height; ++y) {
    const uint8_t* p = rowOf(src, y, srcStride);
    uint8_t* out = rowOf(dst, y, dstStride);
    if (!noise) {
      for (int32_t x = 0; x < width; ++x, p += bytesPerPixel)
        out[x] = transparent >= 0 && p[3] == 0 ? uint8_t(transparent)
                                               : cache.lookup(p[0], p[1], p[2]);
      continue;
    }
    uint32_t position = nextRandom();
    for (int32_t x = 0; x < width; ++x, p += bytesPerPixel) {
      if (transparent >= 0 && p[3] == 0) {
        out[x] = uint8_t(transparent);
        continue;
      }
      const int32_t r = std::clamp(p[0] + noise->at(position), 0, 255);
      const int32_t g = std::clamp(p[1] + noise->at(position + 1), 0, 255);
      const int32_t b = std::clamp(p[2] + noise->at(position + 2), 0, 255);
      position += 3;
      out[x] = cache.lookup(uint32_t(r), uint32_t(g), uint32_t(b));
    }
  }
  return 1;
}

}  // namespace
}  // namespace ldr::colour

extern "C" int32_t trueColorRemapToCmap(const uint8_t* src, int32_t srcStride, uint8_t* dst,
                                        int32_t dstStride, int32_t width, int32_t height,
                                        const uint8_t* colourMap, int32_t colourCount,
                                        int32_t noise) {
  return ldr::colour::remap(src, srcStride, dst, dstStride, width, height, colourMap, colourCount,
                            nullptr, noise, 3);
}

extern "C" int32_t RGBARemapToCmap(const uint8_t* src, int32_t srcStride, uint8_t* dst,
                                   int32_t dstStride, int32_t width, int32_t height,
                                   const uint8_t* colourMap, int32_t colourCount,
                                   const uint8_t* transparentFlags, int32_t noise) {
  return ldr::colour::remap(src, srcStride, dst, dstStride, width, height, colourMap, colourCount,
                            transparentFlags, noise, 4);
}
