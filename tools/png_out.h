// tools/png_out.h: writes a delivered picture as a PNG file.
#pragma once

#include <cstdint>

namespace vload_tool {

struct PngPicture {
  const uint8_t* pixels = nullptr;  // first row
  uint32_t width = 0, height = 0;
  int32_t stride = 0;
  uint8_t layout = 0;                  // VLOAD_LAYOUT_*
  const uint8_t* colourMap = nullptr;  // 256 x R, G, B for the indexed layout
  int colours = 256;                   // palette entries to write for the indexed layout
  int transparent = -1;                // indexed layout: the fully transparent entry, or -1
  uint32_t xDensity = 0, yDensity = 0;  // thousandths of a dpi; written when both are known
};

// nullptr on success, otherwise what went wrong, in words.
const char* writePng(const char* path, const PngPicture& picture) noexcept;

}  // namespace vload_tool
