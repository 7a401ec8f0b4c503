// tools/recolour.h: turns a delivered picture into an indexed one with the
// library's colour tools (vload convert --colors, --palette, --dither,
// --noise, --size).
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "tools/drive.h"

namespace vload_tool {

struct RecolourOptions {
  int32_t colours = 0;   // reduce to at most this many by median cut (0: not asked)
  bool palette = false;  // map onto a palette file's colours instead
  int32_t dither = -1;   // Floyd–Steinberg strength 0..16 (-1: not asked)
  int32_t noise = 0;     // 0..100
  uint32_t width = 0, height = 0;  // output size (0: the picture's)

  bool asked() const { return colours || palette || dither >= 0 || noise || width; }
};

struct Indexed {
  std::vector<uint8_t> pixels;  // width x height indices
  uint32_t width = 0, height = 0;
  uint8_t map[256 * 3] = {};
  int colours = 0;
  int transparent = -1;  // the transparent entry, or -1
};

// Reads "WxH" (each 1..2^20); false when it is something else.
bool parseSize(const std::string& text, uint32_t& width, uint32_t& height);

// The colours of a palette picture: an indexed picture gives its map up to
// the highest index it uses, any other its distinct colours (at most 256).
// Returns what went wrong, or an empty text.
std::string paletteOf(const Description& d, const uint8_t* image, uint8_t* map, int& count);

// The picture reduced per the options onto `map` (count entries, for
// --palette) or onto the colours the quantizer finds. Returns what went
// wrong, or an empty text.
std::string recolour(const Description& d, const uint8_t* image, const RecolourOptions& o,
                     const uint8_t* map, int count, Indexed& out);

}  // namespace vload_tool
