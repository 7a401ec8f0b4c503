// palette/aco.cpp: Photoshop swatches (.aco), loader 68.
// Reads: a version 1 list (colours only), a version 2 list (colours with
// UTF-16 names), or both, one after the other, as writers usually store them;
// the names of the version 2 list are used when it is complete. Colour spaces
// RGB, HSB, CMYK, Lab, grey and wide CMYK.
// Refuses: versions other than 1 and 2, custom colour spaces (inks of colour
// catalogues, which the file does not define) and unknown ones (6); a list
// shorter than its count, no colours (7).
// Delivery: one row, see palette/swatches.h.
#include "palette/swatches.h"

namespace ldr {
namespace {

constexpr size_t kHeadBytes = 4;  // version and count

enum Space : uint16_t { kRgb = 0, kHsb = 1, kCmyk = 2, kLab = 7, kGrey = 8, kWideCmyk = 9 };

bool looksLikeAco(std::span<const uint8_t> head) {
  return head.size() >= kHeadBytes && head[0] == 0 && (head[1] == 1 || head[1] == 2);
}

// One colour of four 16-bit values in its colour space: RGB and HSB use the
// whole 16-bit range, CMYK too but with 0 for full ink, Lab gives L in
// hundredths and a, b as signed hundredths, grey is ink in hundredths of a
// percent (0 white), wide CMYK ink likewise.
bool toRgb(uint16_t space, const uint16_t v[4], Rgb& out) {
  constexpr double kFull = 65535, kPercent = 10000;
  switch (space) {
    case kRgb:
      out = {unitToByte(v[0] / kFull), unitToByte(v[1] / kFull), unitToByte(v[2] / kFull)};
      return true;
    case kHsb: out = rgbFromHsb(v[0] / kFull * 360, v[1] / kFull, v[2] / kFull); return true;
    case kCmyk:
      out = rgbFromCmyk(1 - v[0] / kFull, 1 - v[1] / kFull, 1 - v[2] / kFull, 1 - v[3] / kFull);
      return true;
    case kLab: out = rgbFromLab(v[0] / 100.0, int16_t(v[1]) / 100.0, int16_t(v[2]) / 100.0); return true;
    case kGrey: out = rgbFromGrey(1 - v[0] / kPercent); return true;
    case kWideCmyk:
      out = rgbFromCmyk(v[0] / kPercent, v[1] / kPercent, v[2] / kPercent, v[3] / kPercent);
      return true;
    default: return false;
  }
}

// One list from its version word on; `withNames` for version 2.
Status readList(BigEndianReader& in, bool withNames, Swatches& out) {
  in.skip(2);
  const uint16_t count = in.u16();
  for (uint32_t i = 0; i < count; ++i) {
    const uint16_t space = in.u16();
    uint16_t v[4];
    for (uint16_t& x : v) x = in.u16();
    std::string name;
    if (withNames) name = in.utf16(in.u32());
    if (in.truncated()) return Status::BadData;
    Rgb colour;
    if (!toRgb(space, v, colour)) return Status::NotThisFormat;
    out.add(colour, std::move(name));
  }
  return Status::Ok;
}

Status parseAco(std::span<const uint8_t> file, Swatches& out) {
  out.kind = "ACO swatches";
  BigEndianReader in(file);
  if (file.size() < kHeadBytes) return Status::NotThisFormat;
  if (file[1] == 2) return readList(in, true, out);
  if (const Status s = readList(in, false, out); s != Status::Ok) return s;
  if (in.left() < kHeadBytes) return Status::Ok;
  const size_t v2 = file.size() - in.left();
  if (file[v2] != 0 || file[v2 + 1] != 2) return Status::Ok;
  // A broken second list leaves the first, which is whole.
  Swatches named;
  named.kind = out.kind;
  if (readList(in, true, named) == Status::Ok && named.colours.size() == out.colours.size())
    out = std::move(named);
  return Status::Ok;
}

constexpr PaletteFormat kAco{looksLikeAco, parseAco};

}  // namespace
}  // namespace ldr

extern "C" void registerLoadPhotoshopACO(void) { ldr::registerPalette<ldr::kAco>(); }
