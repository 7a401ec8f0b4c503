// palette/swatches.h: what the palette loaders share. A palette is delivered
// as a picture one row high with one pixel a colour: up to 256 colours as
// layout 1, the pixels 0, 1, 2... and the palette as colour map; more as
// layout 2. The information text names the palette, its kind and size, and
// as many colour names as fit.
//
// Each palette format supplies a test of its first bytes and a parser of the
// whole file; the file is read into memory by describe (palettes are small;
// see kMaxPaletteFileBytes), and delivery only copies the colours out.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "framework/loader.h"
#include "framework/status.h"
#include "palette/colour_spaces.h"

namespace ldr {

inline constexpr uint32_t kMaxPaletteColours = 262140;  // the widest picture the library delivers
inline constexpr size_t kMaxPaletteFileBytes = 64u << 20;

struct Swatches {
  const char* kind = "";  // "GIMP palette", "ACO swatches"...
  std::string title;      // the palette's own name; "" when the file gives none
  std::vector<Rgb> colours;
  std::vector<std::string> names;  // UTF-8, one per colour, "" where the file has none

  void add(Rgb colour, std::string name = {}) {
    colours.push_back(colour);
    names.push_back(std::move(name));
  }
};

struct PaletteFormat {
  // True when the first bytes of the file (up to 256) may be this format.
  bool (*looksLike)(std::span<const uint8_t> head);
  // The colours of a whole file; NotThisFormat for a malformed file, BadData
  // for one that ends before the colours it announces, Unsupported for a
  // version or colour space the parser does not read.
  Status (*parse)(std::span<const uint8_t> file, Swatches& out);
};

Status describePalette(const PaletteFormat& format, const char* fileName, Picture& out,
                       uint8_t* colorMap, bool readColorMap);
Status deliverPalette(const Band& band);
void releasePalette() noexcept;

template <const PaletteFormat& format>
Status describePaletteAs(const char* fileName, Picture& out, uint8_t* colorMap,
                         bool readColorMap) {
  return describePalette(format, fileName, out, colorMap, readColorMap);
}

template <const PaletteFormat& format>
void registerPalette() noexcept {
  registerOperations<describePaletteAs<format>, deliverPalette, releasePalette>();
}

// ---- Reading the binary formats (all big-endian)

// Reads forward through a file in memory. Past the end every read gives 0
// and sets a sticky flag, checked where the status is decided.
class BigEndianReader {
 public:
  explicit BigEndianReader(std::span<const uint8_t> bytes) noexcept : bytes_(bytes) {}
  uint8_t u8() noexcept { return uint8_t(take(1)); }
  uint16_t u16() noexcept { return uint16_t(take(2)); }
  uint32_t u32() noexcept { return uint32_t(take(4)); }
  float f32() noexcept;
  // The next n bytes, or an empty span (and the flag) when fewer are left.
  std::span<const uint8_t> bytes(size_t n) noexcept;
  // `units` UTF-16 code units as UTF-8, up to the first NUL.
  std::string utf16(size_t units);
  void skip(size_t n) noexcept { (void)bytes(n); }
  size_t left() const noexcept { return bytes_.size() - at_; }
  bool truncated() const noexcept { return truncated_; }

 private:
  uint64_t take(size_t n) noexcept;
  std::span<const uint8_t> bytes_;
  size_t at_ = 0;
  bool truncated_ = false;
};

}  // namespace ldr
