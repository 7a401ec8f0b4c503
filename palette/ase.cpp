// palette/ase.cpp: swatch exchange files (.ase, "ASEF"), loader 74.
// Reads: version 1 files, their colours in file order whether inside groups
// or not, with UTF-16 names; the first group's name names the palette.
// Colour models RGB, CMYK, LAB and Gray (floats); blocks of other kinds are
// skipped by their length.
// Refuses: other major versions (5); a colour block too short for its model,
// unknown colour models (6); fewer blocks than the file announces, no colours
// (7).
// Delivery: one row, see palette/swatches.h.
#include <string_view>

#include "palette/swatches.h"

namespace ldr {
namespace {

constexpr std::string_view kMagic = "ASEF";
constexpr uint16_t kGroupStart = 0xC001;
constexpr uint16_t kColourBlock = 0x0001;

bool looksLikeAse(std::span<const uint8_t> head) {
  return head.size() >= kMagic.size() &&
         std::string_view(reinterpret_cast<const char*>(head.data()), kMagic.size()) == kMagic;
}

bool sameModel(std::span<const uint8_t> model, std::string_view name) {
  for (size_t i = 0; i < name.size(); ++i)
    if (tolowerAZ(model[i]) != tolowerAZ(uint8_t(name[i]))) return false;
  return true;
}

// A colour block's body: name, model, values (RGB 0..1; CMYK ink 0..1; LAB
// with L 0..1 and a, b as they are; Gray 0..1, 1 white) and a colour type.
Status readColour(std::span<const uint8_t> body, Swatches& out) {
  BigEndianReader in(body);
  std::string name = in.utf16(in.u16());
  const std::span<const uint8_t> model = in.bytes(4);
  if (in.truncated()) return Status::NotThisFormat;
  float v[4] = {};
  const auto values = [&](int n) {
    for (int i = 0; i < n; ++i) v[i] = in.f32();
    return !in.truncated();
  };
  Rgb colour;
  if (sameModel(model, "RGB ") && values(3)) {
    colour = {unitToByte(v[0]), unitToByte(v[1]), unitToByte(v[2])};
  } else if (sameModel(model, "CMYK") && values(4)) {
    colour = rgbFromCmyk(v[0], v[1], v[2], v[3]);
  } else if (sameModel(model, "LAB ") && values(3)) {
    colour = rgbFromLab(v[0] * 100.0, v[1], v[2]);
  } else if (sameModel(model, "Gray") && values(1)) {
    colour = rgbFromGrey(v[0]);
  } else {
    return Status::NotThisFormat;
  }
  out.add(colour, std::move(name));
  return Status::Ok;
}

Status parseAse(std::span<const uint8_t> file, Swatches& out) {
  out.kind = "ASE swatch exchange";
  BigEndianReader in(file);
  in.skip(kMagic.size());
  const uint16_t major = in.u16();
  in.skip(2);  // the minor version
  const uint32_t blocks = in.u32();
  if (in.truncated()) return Status::NotThisFormat;
  if (major != 1) return Status::Unsupported;
  for (uint32_t i = 0; i < blocks; ++i) {
    const uint16_t type = in.u16();
    const std::span<const uint8_t> body = in.bytes(in.u32());
    if (in.truncated()) return Status::BadData;
    if (type == kColourBlock) {
      if (out.colours.size() == kMaxPaletteColours) return Status::BadData;
      if (const Status s = readColour(body, out); s != Status::Ok) return s;
    } else if (type == kGroupStart && out.title.empty()) {
      BigEndianReader group(body);
      out.title = group.utf16(group.u16());
    }
  }
  return Status::Ok;
}

constexpr PaletteFormat kAse{looksLikeAse, parseAse};

}  // namespace
}  // namespace ldr

extern "C" void registerLoadPhotoshopASE(void) { ldr::registerPalette<ldr::kAse>(); }
