// tests/support/colour_pictures.cpp
#include "tests/support/colour_pictures.h"

#include <cmath>

namespace vtest {
namespace {

uint32_t step(uint32_t& s) {
  s = s * 1664525u + 1013904223u;
  return s >> 8;
}

}  // namespace

Bytes photoLike(int32_t width, int32_t height, int32_t channels, uint32_t seed) {
  Bytes out(size_t(width) * size_t(height) * size_t(channels));
  struct Disc { double x, y, radius; int rgb[3]; };
  uint32_t s = seed;
  Disc discs[6];
  for (Disc& d : discs) {
    d.x = step(s) % 1000 / 1000.0 * width;
    d.y = step(s) % 1000 / 1000.0 * height;
    d.radius = (0.05 + step(s) % 200 / 1000.0) * (width + height);
    for (int& c : d.rgb) c = int(step(s) % 256);
  }
  // Low-frequency fields, one a channel, computed per row and column only.
  std::vector<double> cols(size_t(width) * 3), rows(size_t(height) * 3);
  for (int32_t x = 0; x < width; ++x)
    for (int c = 0; c < 3; ++c) cols[size_t(x) * 3 + c] = 60 * std::sin(x * (0.004 + 0.002 * c) + c);
  for (int32_t y = 0; y < height; ++y)
    for (int c = 0; c < 3; ++c) rows[size_t(y) * 3 + c] = 50 * std::cos(y * (0.003 + 0.001 * c) + 2 * c);
  uint8_t* p = out.data();
  for (int32_t y = 0; y < height; ++y)
    for (int32_t x = 0; x < width; ++x, p += channels) {
      double v[3] = {120.0 + cols[size_t(x) * 3] + rows[size_t(y) * 3],
                     110.0 + cols[size_t(x) * 3 + 1] + rows[size_t(y) * 3 + 1],
                     100.0 + cols[size_t(x) * 3 + 2] + rows[size_t(y) * 3 + 2]};
      for (const Disc& d : discs) {
        const double dx = x - d.x, dy = y - d.y, r2 = d.radius * d.radius;
        const double dist2 = dx * dx + dy * dy;
        if (dist2 >= r2) continue;
        const double w = 1 - dist2 / r2;  // soft edge
        for (int c = 0; c < 3; ++c) v[c] = v[c] * (1 - w) + d.rgb[c] * w;
      }
      for (int c = 0; c < 3; ++c) {
        const double noisy = v[c] + double(step(s) % 9) - 4;
        p[c] = uint8_t(noisy < 0 ? 0 : noisy > 255 ? 255 : noisy);
      }
      if (channels == 4) p[3] = 255;
    }
  return out;
}

Bytes randomPixels(int32_t width, int32_t height, int32_t channels, uint32_t seed) {
  Bytes out(size_t(width) * size_t(height) * size_t(channels));
  uint32_t s = seed;
  for (uint8_t& b : out) b = uint8_t(step(s));
  return out;
}

uint32_t nearestEntry(const uint8_t* map, int32_t count, int32_t r, int32_t g, int32_t b,
                      const uint8_t* flags) {
  int64_t best = -1;
  uint32_t index = 0;
  for (int32_t i = 0; i < count; ++i) {
    if (flags && flags[i]) continue;
    const int64_t dr = map[3 * i] - r, dg = map[3 * i + 1] - g, db = map[3 * i + 2] - b;
    const int64_t d = dr * dr + dg * dg + db * db;
    if (best < 0 || d < best) {
      best = d;
      index = uint32_t(i);
    }
  }
  return index;
}

uint32_t CellCache::operator()(int32_t r, int32_t g, int32_t b) {
  int32_t& a = answer_[size_t((r / 4) * 4096 + (g / 4) * 64 + b / 4)];
  if (a < 0) a = int32_t(nearestEntry(map_, count_, r, g, b, flags_));
  return uint32_t(a);
}

}  // namespace vtest
