// tests/support/bmp_writer.h: builds BMP files of every depth and header size.
//
// Pixels are given top-down as the picture shows them: for depths up to 8 one
// palette index a pixel, for 24 bits R, G, B, for 32 bits R, G, B, A. The
// writer stores them as the format does: bottom-up, B, G, R(, A), rows padded
// to four bytes, the colour table between header and rows.
#pragma once

#include <cstdint>
#include <functional>
#include <vector>

#include "tests/support/bytes.h"

namespace vtest {

struct Rgb { uint8_t r, g, b; };

class BmpBuilder {
 public:
  BmpBuilder& size(int32_t width, int32_t height) { width_ = width; height_ = height; return *this; }
  BmpBuilder& bits(uint16_t bits) { bits_ = bits; return *this; }
  BmpBuilder& headerSize(uint32_t bytes) { headerSize_ = bytes; return *this; }  // 12, 40, 108, 124, 125...
  BmpBuilder& planes(uint16_t planes) { planes_ = planes; return *this; }
  BmpBuilder& compression(uint32_t c) { compression_ = c; return *this; }
  BmpBuilder& pixelsPerMetre(uint32_t x, uint32_t y) { xPpm_ = x; yPpm_ = y; return *this; }
  BmpBuilder& palette(std::vector<Rgb> p) { palette_ = std::move(p); return *this; }
  // The colours-used field; by default the palette's length (0 when it has 2^bits entries).
  BmpBuilder& coloursUsedField(uint32_t n) { coloursUsed_ = n; coloursUsedSet_ = true; return *this; }
  // Value of channel c (0..3) of pixel (x, y); channel 0 is the index for depths up to 8.
  BmpBuilder& pixels(std::function<uint8_t(uint32_t x, uint32_t y, int c)> f) { pixel_ = std::move(f); return *this; }
  // Bytes between the colour table and the rows, counted in the data offset.
  BmpBuilder& gap(uint32_t bytes) { gap_ = bytes; return *this; }

  Bytes build() const;

  // Rows as the loader delivers them, top-down, tightly packed:
  // layout 0 (1 bit, bit 1 = palette entry 1), 1, 2 or 7.
  Bytes expectedRows(bool expandBits = false) const;

 private:
  uint8_t index(uint32_t x, uint32_t y) const { return uint8_t(pixel_(x, y, 0) & ((1u << bits_) - 1)); }

  int32_t width_ = 4, height_ = 4;
  uint16_t bits_ = 24, planes_ = 1;
  uint32_t headerSize_ = 40, compression_ = 0, xPpm_ = 0, yPpm_ = 0, gap_ = 0;
  uint32_t coloursUsed_ = 0;
  bool coloursUsedSet_ = false;
  std::vector<Rgb> palette_;
  std::function<uint8_t(uint32_t, uint32_t, int)> pixel_ = [](uint32_t x, uint32_t y, int c) {
    return uint8_t(x * 31 + y * 17 + c * 71);
  };
};

// Palettes that tests use often.
std::vector<Rgb> greyRamp(int entries);
inline std::vector<Rgb> blackWhite() { return {{0, 0, 0}, {255, 255, 255}}; }
inline std::vector<Rgb> whiteBlack() { return {{255, 255, 255}, {0, 0, 0}}; }

}  // namespace vtest
