// framework/utf16.cpp
#include "framework/utf16.h"

namespace ldr {

std::string utf8FromUtf16(std::span<const uint8_t> utf16, bool bigEndian) {
  std::string out;
  const auto unit = [&](size_t i) {
    const uint32_t first = utf16[2 * i], second = utf16[2 * i + 1];
    return bigEndian ? first << 8 | second : second << 8 | first;
  };
  const size_t units = utf16.size() / 2;
  for (size_t i = 0; i < units; ++i) {
    uint32_t c = unit(i);
    if (c == 0) break;
    if (c >= 0xD800 && c <= 0xDBFF && i + 1 < units && unit(i + 1) >= 0xDC00 &&
        unit(i + 1) <= 0xDFFF) {
      c = 0x10000 + ((c - 0xD800) << 10) + (unit(++i) - 0xDC00);
    } else if (c >= 0xD800 && c <= 0xDFFF) {
      c = 0xFFFD;
    }
    if (c < 0x80) {
      out += char(c);
    } else if (c < 0x800) {
      out += char(0xC0 | c >> 6);
      out += char(0x80 | (c & 0x3F));
    } else if (c < 0x10000) {
      out += char(0xE0 | c >> 12);
      out += char(0x80 | (c >> 6 & 0x3F));
      out += char(0x80 | (c & 0x3F));
    } else {
      out += char(0xF0 | c >> 18);
      out += char(0x80 | (c >> 12 & 0x3F));
      out += char(0x80 | (c >> 6 & 0x3F));
      out += char(0x80 | (c & 0x3F));
    }
  }
  return out;
}

}  // namespace ldr
