// palette/acb.cpp: Photoshop colour books (.acb, "8BCB"), loader 69.
// Reads: version 1 books in RGB, CMYK and Lab: the title, the colour names
// with the book's prefix and suffix, one colour after another. Texts are
// UTF-16; a "$$$/key=" localisation prefix is dropped, and "^C" and "^R"
// become the copyright and registered signs.
// Refuses: other versions (5), other colour spaces (6), a book shorter than
// its colour count, no colours (7).
// Delivery: one row, see palette/swatches.h.
#include <string>
#include <string_view>

#include "palette/swatches.h"

namespace ldr {
namespace {

constexpr std::string_view kMagic = "8BCB";
constexpr size_t kCodeBytes = 6;  // the catalogue code of each colour, ASCII

enum Space : uint16_t { kRgb = 0, kCmyk = 2, kLab = 7 };

bool looksLikeAcb(std::span<const uint8_t> head) {
  return head.size() >= kMagic.size() &&
         std::string_view(reinterpret_cast<const char*>(head.data()), kMagic.size()) == kMagic;
}

// A book's text as a person reads it.
std::string readable(std::string text) {
  if (text.starts_with("$$$/")) {
    const size_t equals = text.find('=');
    text.erase(0, equals == std::string::npos ? text.size() : equals + 1);
  }
  for (size_t at = 0; (at = text.find('^', at)) != std::string::npos;) {
    const char* sign = at + 1 >= text.size() ? nullptr
                       : text[at + 1] == 'C'  ? "\xC2\xA9"
                       : text[at + 1] == 'R'  ? "\xC2\xAE"
                                              : nullptr;
    if (sign) text.replace(at, 2, sign);
    at += sign ? 2 : 1;
  }
  return text;
}

std::string readText(BigEndianReader& in) { return readable(in.utf16(in.u32())); }

// Components are bytes: RGB as they are; CMYK with 255 for no ink; Lab with
// L scaled to 0..255 and a, b offset by 128.
Rgb toRgb(uint16_t space, std::span<const uint8_t> c) {
  switch (space) {
    case kRgb: return {c[0], c[1], c[2]};
    case kCmyk:
      return rgbFromCmyk(1 - c[0] / 255.0, 1 - c[1] / 255.0, 1 - c[2] / 255.0, 1 - c[3] / 255.0);
    default: return rgbFromLab(c[0] * 100 / 255.0, c[1] - 128.0, c[2] - 128.0);
  }
}

Status parseAcb(std::span<const uint8_t> file, Swatches& out) {
  out.kind = "ACB colour book";
  BigEndianReader in(file);
  in.skip(kMagic.size());
  const uint16_t version = in.u16();
  in.skip(2);  // the book's identifier
  out.title = readText(in);
  const std::string prefix = readText(in), suffix = readText(in);
  (void)readText(in);  // the description
  const uint16_t count = in.u16();
  in.skip(4);  // colours a page, and the page of the key colour
  const uint16_t space = in.u16();
  if (in.truncated()) return Status::NotThisFormat;
  if (version != 1) return Status::Unsupported;
  if (space != kRgb && space != kCmyk && space != kLab) return Status::NotThisFormat;
  const size_t components = space == kCmyk ? 4 : 3;
  for (uint32_t i = 0; i < count; ++i) {
    std::string name = readText(in);
    in.skip(kCodeBytes);
    const std::span<const uint8_t> c = in.bytes(components);
    if (in.truncated()) return Status::BadData;
    out.add(toRgb(space, c), name.empty() ? name : prefix + name + suffix);
  }
  return Status::Ok;
}

constexpr PaletteFormat kAcb{looksLikeAcb, parseAcb};

}  // namespace
}  // namespace ldr

extern "C" void registerLoadPhotoshopACB(void) { ldr::registerPalette<ldr::kAcb>(); }
