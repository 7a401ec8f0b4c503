// colour/dither.cpp: Floyd–Steinberg dithering onto a given colour map,
// scaling the picture by nearest neighbour at the same time; 8-bit and 16-bit
// index output.
//
// Every row runs left to right (no serpentine). Each pixel takes the cached
// nearest entry of its working colour, and its error, per channel, is shared
// out 7/16 right, 3/16 below left, 5/16 below and 1/16 below right, scaled by
// strength/16 (16 = full, 0 = plain nearest colour). Shares are arithmetic
// shifts, so they round toward minus infinity, and every sum is clamped to
// 0..255. Noise, when asked for, is added to each error before it is shared.
#include <algorithm>
#include <array>
#include <cstring>
#include <optional>

#include "colour/colour.h"
#include "vload.h"

namespace ldr::colour {
namespace {

// A channel plus an error share lies in -1024..1023 (a share is at most
// 7/16 of 255 + kMaxNoise); the table brings it back to 0..255.
constexpr int32_t kClampBias = 1024;
constexpr auto kClamp = [] {
  std::array<uint8_t, 2 * kClampBias> t{};
  for (int32_t i = 0; i < 2 * kClampBias; ++i) t[size_t(i)] = uint8_t(std::clamp(i - kClampBias, 0, 255));
  return t;
}();
inline uint8_t clampSum(int32_t v) noexcept { return kClamp[size_t(v + kClampBias)]; }

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
// survives scaling as well.
class WorkingRows {
 public:
  [[nodiscard]] bool init(const Request& q) noexcept {
    q_ = &q;
    bpp_ = size_t(q.bytesPerPixel);
    const size_t width = size_t(q.dstWidth) + 2;
    rowBytes_ = width * bpp_;
    rows_ = allocArray<uint8_t>(2 * rowBytes_);
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

template <class Index>
void dither(const Request& q) noexcept {
  Palette palette;
  NearestCache<Index> cache;
  WorkingRows rows;
  if (!palette.assign(q.map, q.count, q.flags) || !cache.init(palette) || !rows.init(q)) return;
  const int32_t transparent = q.bytesPerPixel == 4 ? firstFlagged(q.flags, q.count) : -1;
  std::optional<NoiseTable> noise;
  if (q.noise > 0) noise.emplace(q.noise);
  const int32_t s = q.strength;
  const ptrdiff_t bpp = q.bytesPerPixel;

  for (int32_t y = 0; y < q.dstHeight; ++y) {
    if (y + 1 < q.dstHeight) rows.prepareNext(y + 1);
    uint32_t position = noise ? nextRandom() : 0;
    Index* out = reinterpret_cast<Index*>(rowOf(q.dst, y, q.dstStride));
    uint8_t* p = rows.current() + bpp;
    uint8_t* below = rows.next() + bpp;
    for (int32_t x = 0; x < q.dstWidth; ++x, p += bpp, below += bpp) {
      if (transparent >= 0 && p[3] == 0) {  // no colour, so no error to share
        out[x] = Index(transparent);
        continue;
      }
      const Index index = cache.lookup(p[0], p[1], p[2]);
      out[x] = index;
      const uint8_t* entry = q.map + 3 * size_t(index);
      for (int c = 0; c < 3; ++c) {
        int32_t error = p[c] - entry[c];
        if (noise) error += noise->at(position++);
        // error * 7 >> 4 and the rest at full strength, (error * s * 7) >> 8
        // below it: the same numbers when s is 16.
        p[bpp + c] = clampSum(p[bpp + c] + (error * s * 7 >> 8));
        below[c - bpp] = clampSum(below[c - bpp] + (error * s * 3 >> 8));
        below[c] = clampSum(below[c] + (error * s * 5 >> 8));
        below[c + bpp] = clampSum(below[c + bpp] + (error * s >> 8));
      }
    }
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
  if (prepare(q, 1, kMaxColours)) dither<uint8_t>(q);
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
  if (prepare(q, 2, kMaxColours16)) dither<uint16_t>(q);
}
