// palette/swatches.cpp: describe, deliver and release for every palette
// loader, and the readers they share.
#include "palette/swatches.h"

#include <sys/stat.h>

#include <algorithm>
#include <cstring>

#include "framework/checked.h"
#include "framework/file.h"
#include "framework/utf16.h"
#include "vload.h"

namespace ldr {
namespace {

constexpr size_t kProbeBytes = 256;

struct PaletteState {
  bool open = false;
  uint8_t layout = VLOAD_LAYOUT_INDEXED;
  std::vector<Rgb> colours;
  bool delivered = false;
};
thread_local PaletteState t_palette;

// ---- Information text

// Control characters would break the host's lines; they become blanks.
std::string printable(std::string_view s) {
  std::string out(s);
  for (char& c : out)
    if (uint8_t(c) < 0x20 || c == 0x7F) c = ' ';
  return out;
}

// The last part of the path without its extension: a name for palettes
// whose files carry none.
std::string_view baseName(std::string_view path) {
  const size_t slash = path.find_last_of('/');
  if (slash != std::string_view::npos) path.remove_prefix(slash + 1);
  const size_t dot = path.find_last_of('.');
  if (dot != std::string_view::npos && dot > 0) path = path.substr(0, dot);
  return path;
}

// Cuts `text` to `limit` bytes without splitting a UTF-8 sequence.
void cutUtf8(std::string& text, size_t limit) {
  if (text.size() <= limit) return;
  size_t n = limit;
  while (n > 0 && (uint8_t(text[n]) & 0xC0) == 0x80) --n;
  text.resize(n);
}

std::string infoText(const Swatches& s, const char* fileName) {
  std::string text = printable(s.title.empty() ? baseName(fileName) : std::string_view(s.title));
  text += '\n';
  text += s.kind;
  text += ", " + std::to_string(s.colours.size()) + (s.colours.size() == 1 ? " colour" : " colours");
  const char* separator = "\n";
  for (const std::string& name : s.names) {
    if (name.empty()) continue;
    text += separator + printable(name);
    separator = ", ";
    if (text.size() >= VLOAD_INFO_TEXT_SIZE) break;
  }
  cutUtf8(text, VLOAD_INFO_TEXT_SIZE - 1);
  return text;
}

// ---- File

Status readWhole(const char* fileName, std::vector<uint8_t>& bytes) {
  const File file = openForReading(fileName);
  if (!file) return Status::CannotOpen;
  struct stat st;
  if (::fstat(::fileno(file.get()), &st) != 0) return Status::CannotOpen;
  if (st.st_size < 0 || uint64_t(st.st_size) > kMaxPaletteFileBytes) return Status::BadData;
  bytes.resize(size_t(st.st_size));
  if (!readExact(file.get(), bytes.data(), bytes.size())) return Status::CannotOpen;
  return Status::Ok;
}

}  // namespace

Status describePalette(const PaletteFormat& format, const char* fileName, Picture& out,
                       uint8_t* colorMap, bool readColorMap) {
  t_palette = {};
  const uint8_t* probe = loadImgCheckHeader(fileName);
  if (!probe) return Status::NotThisFormat;
  const size_t probed = size_t(std::clamp<int64_t>(loadImgLastFilesize(), 0, kProbeBytes));
  if (!format.looksLike({probe, probed})) return Status::NotThisFormat;

  std::vector<uint8_t> bytes;
  if (const Status s = readWhole(fileName, bytes); s != Status::Ok) return s;
  // The file may have changed since it was probed.
  if (!format.looksLike(std::span(bytes).first(std::min(bytes.size(), kProbeBytes))))
    return Status::NotThisFormat;
  Swatches swatches;
  if (const Status s = format.parse(bytes, swatches); s != Status::Ok) return s;
  const size_t count = swatches.colours.size();
  if (count == 0 || count > kMaxPaletteColours) return Status::BadData;

  out.width = uint32_t(count);
  out.height = 1;
  out.layout = count <= kColourMapEntries ? VLOAD_LAYOUT_INDEXED : VLOAD_LAYOUT_RGB;
  if (out.layout == VLOAD_LAYOUT_INDEXED && readColorMap) {
    std::memset(colorMap, 0, kColourMapBytes);
    for (size_t i = 0; i < count; ++i) {
      colorMap[3 * i] = swatches.colours[i].r;
      colorMap[3 * i + 1] = swatches.colours[i].g;
      colorMap[3 * i + 2] = swatches.colours[i].b;
    }
  }
  const std::string info = infoText(swatches, fileName);
  out.setInfo("%s", info.c_str());

  t_palette.layout = out.layout;
  t_palette.colours = std::move(swatches.colours);
  t_palette.open = true;
  return Status::Ok;
}

Status deliverPalette(const Band& band) {
  PaletteState& st = t_palette;
  if (!st.open || !band.buffer || band.rowCount < 0 || band.rowStride < 0 ||
      band.rowCount > (st.delivered ? 0 : 1))
    return Status::BadRequest;
  const uint32_t width = uint32_t(st.colours.size());
  if (uint32_t(band.rowStride) < *layoutRowBytes(st.layout, width)) return Status::BadRequest;
  if (band.rowCount == 0) return Status::Ok;
  uint8_t* row = band.buffer;
  for (uint32_t i = 0; i < width; ++i) {
    if (st.layout == VLOAD_LAYOUT_INDEXED) {
      row[i] = uint8_t(i);
    } else {
      row[3 * i] = st.colours[i].r;
      row[3 * i + 1] = st.colours[i].g;
      row[3 * i + 2] = st.colours[i].b;
    }
  }
  st.delivered = true;
  return Status::Ok;
}

void releasePalette() noexcept { t_palette = {}; }

// ---- Readers

uint64_t BigEndianReader::take(size_t n) noexcept {
  uint64_t v = 0;
  for (uint8_t b : bytes(n)) v = v << 8 | b;
  return v;
}

std::span<const uint8_t> BigEndianReader::bytes(size_t n) noexcept {
  if (n > left()) {
    truncated_ = true;
    at_ = bytes_.size();
    return {};
  }
  const std::span<const uint8_t> out = bytes_.subspan(at_, n);
  at_ += n;
  return out;
}

float BigEndianReader::f32() noexcept {
  const uint32_t bits = u32();
  float v;
  std::memcpy(&v, &bits, sizeof v);
  return v;
}

std::string BigEndianReader::utf16(size_t units) {
  size_t n = 0;
  if (!mulOk(units, size_t{2}, n)) n = SIZE_MAX;
  return utf8FromUtf16(bytes(n), true);
}

}  // namespace ldr
