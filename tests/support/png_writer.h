// tests/support/png_writer.h: builds PNG files of every colour type and depth
// with libpng, and decodes them with libpng as a reference.
//
// Samples are given as the file stores them: sample(x, y, c) is channel c of
// pixel (x, y) at the file's bit depth (a palette index for colour type 3).
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/bytes.h"

namespace vtest {

class PngBuilder {
 public:
  PngBuilder& size(uint32_t width, uint32_t height) { width_ = width; height_ = height; return *this; }
  // Colour type 0, 2, 3, 4 or 6 and a depth the type allows.
  PngBuilder& type(int colourType, int depth) { type_ = colourType; depth_ = depth; return *this; }
  PngBuilder& interlaced(bool on = true) { interlaced_ = on; return *this; }
  PngBuilder& palette(std::vector<uint8_t> rgb) { palette_ = std::move(rgb); return *this; }  // R, G, B an entry
  PngBuilder& paletteAlpha(std::vector<uint8_t> a) { trnsAlpha_ = std::move(a); return *this; }
  PngBuilder& transparentGrey(uint16_t v) { trnsGrey_ = v; hasTrnsGrey_ = true; return *this; }
  PngBuilder& text(std::string key, std::string value) { texts_.emplace_back(std::move(key), std::move(value)); return *this; }
  PngBuilder& pixelsPerUnit(uint32_t x, uint32_t y, int unit = 1) { physX_ = x; physY_ = y; physUnit_ = unit; hasPhys_ = true; return *this; }
  PngBuilder& samples(std::function<uint16_t(uint32_t x, uint32_t y, int c)> f) { sample_ = std::move(f); return *this; }

  Bytes build() const;

 private:
  uint32_t width_ = 5, height_ = 4;
  int type_ = 2, depth_ = 8;
  bool interlaced_ = false;
  std::vector<uint8_t> palette_, trnsAlpha_;
  uint16_t trnsGrey_ = 0;
  bool hasTrnsGrey_ = false;
  std::vector<std::pair<std::string, std::string>> texts_;
  uint32_t physX_ = 0, physY_ = 0;
  int physUnit_ = 1;
  bool hasPhys_ = false;
  std::function<uint16_t(uint32_t, uint32_t, int)> sample_ = [](uint32_t x, uint32_t y, int c) {
    return uint16_t(x * 37 + y * 101 + c * 53 + (x * y) * 7);
  };
};

// A PNG as libpng decodes it without transforms: samples at the file's depth,
// one value per channel, rows top-down; empty `samples` when libpng failed.
struct PngSamples {
  uint32_t width = 0, height = 0;
  int type = 0, depth = 0, channels = 0;
  std::vector<uint16_t> samples;
  std::vector<uint8_t> palette;    // R, G, B an entry
  bool hasTrns = false;
  std::vector<uint8_t> trnsAlpha;  // palette tRNS
  uint16_t trnsGrey = 0;
};
PngSamples decodePngSamples(const char* path);

}  // namespace vtest
