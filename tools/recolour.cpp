// tools/recolour.cpp
#include "tools/recolour.h"

#include <algorithm>
#include <charconv>
#include <cstring>
#include <new>

namespace vload_tool {
namespace {

constexpr uint32_t kMaxSide = 1u << 20;

// The picture as tightly packed R, G, B (or R, G, B, A for the RGBA layout):
// a bilevel set bit is black, a clear one white.
std::vector<uint8_t> trueColour(const Description& d, const uint8_t* image, int& channels) {
  channels = d.layout == VLOAD_LAYOUT_RGBA ? 4 : 3;
  std::vector<uint8_t> out(size_t(d.width) * d.height * size_t(channels));
  uint8_t* o = out.data();
  for (uint32_t y = 0; y < d.height; ++y) {
    const uint8_t* row = image + size_t(y) * size_t(d.stride);
    if (d.layout == VLOAD_LAYOUT_RGB || d.layout == VLOAD_LAYOUT_RGBA) {
      std::memcpy(o, row, size_t(d.width) * size_t(channels));
      o += size_t(d.width) * size_t(channels);
      continue;
    }
    for (uint32_t x = 0; x < d.width; ++x, o += 3) {
      if (d.layout == VLOAD_LAYOUT_BILEVEL) {
        std::memset(o, (row[x / 8] >> (7 - x % 8) & 1) ? 0 : 255, 3);
      } else {
        std::memcpy(o, d.colourMap + 3 * row[x], 3);
      }
    }
  }
  return out;
}

}  // namespace

bool parseSize(const std::string& text, uint32_t& width, uint32_t& height) {
  const char* end = text.data() + text.size();
  const auto w = std::from_chars(text.data(), end, width);
  if (w.ec != std::errc() || w.ptr == end || (*w.ptr != 'x' && *w.ptr != 'X')) return false;
  const auto h = std::from_chars(w.ptr + 1, end, height);
  return h.ec == std::errc() && h.ptr == end && width >= 1 && height >= 1 && width <= kMaxSide &&
         height <= kMaxSide;
}

std::string paletteOf(const Description& d, const uint8_t* image, uint8_t* map, int& count) try {
  if (d.layout == VLOAD_LAYOUT_INDEXED) {
    int highest = 0;
    for (uint32_t y = 0; y < d.height; ++y)
      for (uint32_t x = 0; x < d.width; ++x) highest = std::max<int>(highest, image[size_t(y) * size_t(d.stride) + x]);
    count = highest + 1;
    std::memcpy(map, d.colourMap, size_t(count) * 3);
    return {};
  }
  int channels = 3;
  const std::vector<uint8_t> pixels = trueColour(d, image, channels);
  const int32_t w = int32_t(d.width), h = int32_t(d.height), stride = w * channels;
  count = channels == 4 ? checkRGBAPalette(pixels.data(), stride, w, h, map)
                        : checkTrueColorPalette(pixels.data(), stride, w, h, map);
  return count ? std::string() : "has more than 256 colours (or partly transparent ones): not a palette";
} catch (const std::bad_alloc&) {
  return "out of memory";
}

std::string recolour(const Description& d, const uint8_t* image, const RecolourOptions& o,
                     const uint8_t* paletteMap, int paletteCount, Indexed& out) try {
  int channels = 3;
  const std::vector<uint8_t> pixels = trueColour(d, image, channels);
  const int32_t w = int32_t(d.width), h = int32_t(d.height), stride = w * channels;
  out.width = o.width ? o.width : d.width;
  out.height = o.height ? o.height : d.height;
  const bool scaled = out.width != d.width || out.height != d.height;
  uint8_t flags[256] = {};
  std::vector<uint8_t> quantized;
  if (o.palette) {
    std::memcpy(out.map, paletteMap, size_t(paletteCount) * 3);
    out.colours = paletteCount;
  } else {
    quantized.resize(size_t(w) * size_t(h));
    int32_t count = o.colours;
    if (channels == 4)
      colorQuantizeRGBA(pixels.data(), stride, quantized.data(), w, w, h, out.map, &count, flags);
    else
      colorQuantize(pixels.data(), stride, quantized.data(), w, w, h, out.map, &count);
    out.colours = count;
    for (int i = 0; i < count && out.transparent < 0; ++i)
      if (flags[i]) out.transparent = i;
  }
  const int32_t ow = int32_t(out.width), oh = int32_t(out.height);
  if (!o.palette && o.dither < 0 && !o.noise && !scaled) {
    out.pixels = std::move(quantized);  // the quantizer's own indices
    return {};
  }
  out.pixels.resize(size_t(ow) * size_t(oh));
  if (o.dither >= 0 || scaled) {
    colorQuantizeDitherFS_Internal(pixels.data(), stride, out.pixels.data(), ow, w, h, ow, oh, out.map,
                                   out.colours, flags, o.dither < 0 ? 0 : o.dither, o.noise, channels);
    return {};
  }
  const int32_t done = channels == 4 ? RGBARemapToCmap(pixels.data(), stride, out.pixels.data(), w, w,
                                                       h, out.map, out.colours, flags, o.noise)
                                     : trueColorRemapToCmap(pixels.data(), stride, out.pixels.data(),
                                                            w, w, h, out.map, out.colours, o.noise);
  return done ? std::string() : "out of memory";
} catch (const std::bad_alloc&) {
  return "out of memory";
}

}  // namespace vload_tool
