// colour/remap.cpp: every pixel to the nearest entry of a given colour map,
// through the per-cell cache, optionally with random noise added to each
// channel first (which breaks up flat areas into a mix of nearby entries).
#include <algorithm>
#include <optional>

#include "colour/colour.h"
#include "vload.h"

namespace ldr::colour {

void remapRowPlain(const RemapRows& job, int32_t y, uint32_t position, NearestCache& cache) noexcept {
  const RemapRows local = job;  // in registers, as the cache's Ref
  const NearestCache::Ref lookups = cache.ref();
  const uint8_t* p = rowOf(local.src, y, local.srcStride);
  uint8_t* out = rowOf(local.dst, y, local.dstStride);
  if (!local.noise && local.transparent < 0) {  // the common case, without its tests per pixel
    for (int32_t x = 0; x < local.width; ++x, p += local.bytesPerPixel) out[x] = lookups.lookup(p[0], p[1], p[2]);
    return;
  }
  for (int32_t x = 0; x < local.width; ++x, p += local.bytesPerPixel) out[x] = local.pixel(p, position, lookups);
}

void remapRows(const RemapRows& job, NearestCache& cache) noexcept {
  const auto row = useWideColour() ? remapRowWide : remapRowPlain;
  for (int32_t y = 0; y < job.height; ++y) row(job, y, job.noise ? nextRandom() : 0, cache);
}

namespace {

int32_t remap(const uint8_t* src, int32_t srcStride, uint8_t* dst, int32_t dstStride,
              int32_t width, int32_t height, const uint8_t* map, int32_t count,
              const uint8_t* flags, int32_t noiseLevel, int32_t bytesPerPixel) noexcept {
  if (!pictureOk(src, srcStride, width, height, bytesPerPixel) ||
      !pictureOk(dst, dstStride, width, height, 1) || !map || count < 1 || count > kMaxColours)
    return 0;
  Palette palette;
  NearestCache cache;
  if (!palette.assign(map, count, flags) || !cache.init(palette)) return 0;
  noiseLevel = std::clamp(noiseLevel, 0, kMaxNoise);
  std::optional<NoiseTable> noise;
  if (noiseLevel > 0) noise.emplace(noiseLevel);
  remapRows({src, srcStride, dst, dstStride, width, height, bytesPerPixel,
             bytesPerPixel == 4 ? firstFlagged(flags, count) : -1, noise ? &*noise : nullptr},
            cache);
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
