// tests/support/palette_writer.h: builds the palette files: JASC-PAL and GIMP
// text, Photoshop swatches (.aco), colour books (.acb) and swatch exchange
// files (.ase), colour by colour, with UTF-16 names where the format has them.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "tests/support/bmp_writer.h"
#include "tests/support/bytes.h"

namespace vtest {

// `count` is the number the header announces; by default the colours' count.
Bytes jascPalette(const std::vector<Rgb>& colours, std::string_view lineEnd = "\r\n",
                  long count = -1, bool byteOrderMark = false);
// names[i] follows colour i when given.
Bytes gimpPalette(std::string_view name, const std::vector<Rgb>& colours,
                  const std::vector<std::string>& names = {}, std::string_view lineEnd = "\n");

struct AcoColour {
  uint16_t space;  // 0 RGB, 1 HSB, 2 CMYK, 7 Lab, 8 grey, 9 wide CMYK
  std::array<uint16_t, 4> values;
  std::u16string name;
};
inline AcoColour acoRgb(Rgb c, std::u16string name = {}) {
  return {0, {uint16_t(c.r * 257), uint16_t(c.g * 257), uint16_t(c.b * 257), 0}, std::move(name)};
}
// A version 1 list, a version 2 list (with names), or both in that order.
Bytes acoFile(const std::vector<AcoColour>& colours, bool version1 = true, bool version2 = true);

struct AcbColour {
  std::u16string name;
  Bytes components;  // 3 bytes, 4 for CMYK
};
struct AcbBook {
  uint16_t version = 1, space = 0;  // 0 RGB, 2 CMYK, 7 Lab
  std::u16string title = u"Test book", prefix, suffix, description = u"made by the tests";
  std::vector<AcbColour> colours;
  long count = -1;  // announced; by default the colours'
};
Bytes acbFile(const AcbBook& book);

class AseBuilder {
 public:
  AseBuilder& version(uint16_t major) { major_ = major; return *this; }
  AseBuilder& groupStart(std::u16string_view name);
  AseBuilder& groupEnd();
  // model: "RGB ", "CMYK", "LAB ", "Gray"; as many values as it takes.
  AseBuilder& colour(std::u16string_view name, std::string_view model, std::vector<float> values);
  AseBuilder& rgb(std::u16string_view name, Rgb c) {
    return colour(name, "RGB ", {c.r / 255.0f, c.g / 255.0f, c.b / 255.0f});
  }
  AseBuilder& block(uint16_t type, const Bytes& body);
  // The block count the header announces; by default the blocks written.
  AseBuilder& announce(uint32_t blocks) { announced_ = blocks; return *this; }
  Bytes build() const;

 private:
  uint16_t major_ = 1;
  uint32_t blocks_ = 0;
  long announced_ = -1;
  Bytes body_;
};

}  // namespace vtest
