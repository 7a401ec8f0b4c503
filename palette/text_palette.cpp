// palette/text_palette.cpp: JASC-PAL and GIMP palettes, loader 64, told apart
// by their first line.
// Reads: "JASC-PAL", a version line, the colour count and that many "R G B"
// lines (a fourth number is ignored); "GIMP Palette", then "Name:" (the
// palette's name), "Columns:", "#" comments, blank lines and "R G B name"
// lines. Either may start with a UTF-8 byte order mark and use LF, CR LF or
// CR line ends.
// Refuses: other first lines, colour lines that are not three numbers 0..255
// (6); a JASC palette with fewer colour lines than its count, no colours at
// all, or more than 262140 (7).
// Delivery: one row, see palette/swatches.h.
#include <algorithm>
#include <string>
#include <string_view>

#include "design/text.h"
#include "palette/swatches.h"

namespace ldr {
namespace {

constexpr std::string_view kByteOrderMark = "\xEF\xBB\xBF";
constexpr std::string_view kJasc = "JASC-PAL";
constexpr std::string_view kGimp = "GIMP Palette";

std::string_view asText(std::span<const uint8_t> bytes) {
  std::string_view text(reinterpret_cast<const char*>(bytes.data()), bytes.size());
  if (text.starts_with(kByteOrderMark)) text.remove_prefix(kByteOrderMark.size());
  return text;
}

bool looksLikeTextPalette(std::span<const uint8_t> head) {
  const std::string_view text = asText(head);
  return text.starts_with(kJasc) || text.starts_with(kGimp);
}

// Lines ending in LF, CR LF or CR; the last may have no end.
class Lines {
 public:
  explicit Lines(std::string_view text) : rest_(text) {}
  bool next(std::string& line) {
    if (rest_.empty()) return false;
    const size_t end = std::min(rest_.find_first_of("\r\n"), rest_.size());
    line.assign(rest_.substr(0, end));
    size_t skip = end;
    if (skip < rest_.size()) skip += rest_.compare(end, 2, "\r\n") == 0 ? 2 : 1;
    rest_.remove_prefix(skip);
    return true;
  }

 private:
  std::string_view rest_;
};

std::string_view trimmed(std::string_view s) {
  while (!s.empty() && isBlank(s.front())) s.remove_prefix(1);
  while (!s.empty() && isBlank(s.back())) s.remove_suffix(1);
  return s;
}

// Three numbers 0..255 at the start of the line; `p` ends after the third.
bool scanColour(const char*& p, Rgb& colour) {
  int32_t v[3];
  for (int32_t& x : v)
    if (!scanInt(p, x) || x < 0 || x > 255) return false;
  colour = {uint8_t(v[0]), uint8_t(v[1]), uint8_t(v[2])};
  return true;
}

Status parseJasc(Lines& lines, Swatches& out) {
  out.kind = "JASC-PAL palette";
  std::string line;
  int32_t count = 0;
  if (!lines.next(line)) return Status::NotThisFormat;  // the version, whatever it says
  if (!lines.next(line)) return Status::NotThisFormat;
  const char* p = line.c_str();
  if (!scanInt(p, count) || count < 0 || !trimmed(p).empty()) return Status::NotThisFormat;
  if (uint32_t(count) > kMaxPaletteColours) return Status::BadData;
  while (out.colours.size() < uint32_t(count)) {
    if (!lines.next(line)) return Status::BadData;
    if (trimmed(line).empty()) continue;
    p = line.c_str();
    Rgb colour;
    if (!scanColour(p, colour)) return Status::NotThisFormat;
    out.add(colour);
  }
  return Status::Ok;
}

Status parseGimp(Lines& lines, Swatches& out) {
  out.kind = "GIMP palette";
  std::string line;
  while (lines.next(line)) {
    const std::string_view text = trimmed(line);
    if (text.empty() || text.front() == '#') continue;
    if (text.starts_with("Name:")) {
      out.title = trimmed(text.substr(5));
      continue;
    }
    if (text.starts_with("Columns:")) continue;
    const char* p = line.c_str();
    Rgb colour;
    if (!scanColour(p, colour)) return Status::NotThisFormat;
    if (out.colours.size() == kMaxPaletteColours) return Status::BadData;
    out.add(colour, std::string(trimmed(p)));
  }
  return Status::Ok;
}

Status parseTextPalette(std::span<const uint8_t> file, Swatches& out) {
  Lines lines(asText(file));
  std::string first;
  if (!lines.next(first)) return Status::NotThisFormat;
  const std::string_view head = trimmed(first);
  if (head == kJasc) return parseJasc(lines, out);
  if (head.starts_with(kGimp)) return parseGimp(lines, out);
  return Status::NotThisFormat;
}

constexpr PaletteFormat kTextPalette{looksLikeTextPalette, parseTextPalette};

}  // namespace
}  // namespace ldr

extern "C" void registerLoadPAL(void) { ldr::registerPalette<ldr::kTextPalette>(); }
