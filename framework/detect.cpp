// framework/detect.cpp: detection for loader number 0.
//
// Order: names too short; names that mark files that are no pictures; strong
// signatures at the start of the file, longest and most specific first; then
// the extensions the catalogue lists. A signature counts only when the file is
// at least as long as the signature, because the probe cache keeps the bytes
// of an earlier, longer file behind a short one.
#include "framework/detect.h"

#include <cstring>
#include <span>
#include <string_view>

#include "framework/catalogue.h"
#include "vload.h"

namespace ldr {
namespace {

constexpr uint32_t pack(std::string_view ending) noexcept {
  uint32_t v = 0;
  for (char c : ending) v = v << 8 | uint8_t(c);
  return v;
}

// Extensions of files that are no pictures: archives, documents, executables,
// media, source and system files. Packed like a name ending, so two-letter
// extensions carry their full stop.
constexpr uint32_t kNotPictures[] = {
    pack("zip"), pack("rar"), pack(".7z"), pack(".gz"), pack("tgz"), pack("tar"), pack("bz2"),
    pack(".xz"), pack("arj"), pack("lzh"), pack("cab"), pack("doc"), pack("docx"), pack("xls"),
    pack("xlsx"), pack("ppt"), pack("pptx"), pack("pdf"), pack("rtf"), pack("odt"), pack("ods"),
    pack("exe"), pack("dll"), pack("com"), pack("msi"), pack("sys"), pack("bat"), pack("cmd"),
    pack(".so"), pack("mp3"), pack("wav"), pack("avi"), pack("mp4"), pack("mov"), pack("mpg"),
    pack("mpeg"), pack("wmv"), pack("mkv"), pack("flac"), pack("ogg"), pack("wma"), pack("cpp"),
    pack("hpp"), pack("java"), pack(".py"), pack(".js"), pack("html"), pack("htm"), pack("css"),
    pack("php"), pack("ini"), pack("inf"), pack("lnk"), pack("log"), pack("tmp"), pack("bak"),
};

struct Signature {
  int32_t loader;
  std::string_view magic;
  bool (*confirm)(std::span<const uint8_t> header);  // optional further test
};

// "BM", then a bitmap header size that some writer uses. The loader itself
// refuses the sizes it does not read, which tells a user more than silence.
bool bmpHeaderSize(std::span<const uint8_t> h) {
  if (h.size() < 18 || h[15] || h[16] || h[17]) return false;
  switch (h[14]) {
    case 12: case 16: case 40: case 52: case 56: case 64: case 108: case 124: case 125:
      return true;
    default:
      return false;
  }
}

// Portable bitmaps: "P1" to "P7" and white space or a comment. Weak, so tested last.
bool pnmMagic(std::span<const uint8_t> h) {
  if (h.size() < 3 || h[1] < '1' || h[1] > '7') return false;
  const uint8_t c = h[2];
  return c == ' ' || (c >= '\t' && c <= '\r') || c == '#';  // a comment may follow at once
}

// Photoshop swatches have no magic: a version word (1 or 2, the prefix), a
// colour count that the file's size can hold, and a known colour space first.
bool acoList(std::span<const uint8_t> h) {
  if (h.size() < 6 || h[4] != 0) return false;
  const uint32_t count = uint32_t(h[2] << 8 | h[3]);
  const uint32_t entryBytes = h[1] == 1 ? 10 : 14;  // a version 2 entry has at least a name length
  switch (h[5]) {
    case 0: case 1: case 2: case 7: case 8: case 9:
      return count > 0 && loadImgLastFilesize() >= int64_t{4} + int64_t{count} * entryBytes;
    default:
      return false;
  }
}

// PCX: manufacturer 10 (the signature), a version below 6, run-length
// encoding and a depth that writers use. Weak, so it is tried last.
bool pcxHeader(std::span<const uint8_t> h) {
  if (h.size() < 4 || h[1] >= 6 || h[2] != 1) return false;
  return h[3] == 1 || h[3] == 2 || h[3] == 4 || h[3] == 8;
}

// "RIFF", a size, then the form type of a WebP file.
bool webpForm(std::span<const uint8_t> h) {
  return h.size() >= 12 && std::memcmp(h.data() + 8, "WEBP", 4) == 0;
}

using namespace std::string_view_literals;

constexpr Signature kSignatures[] = {
    {77, "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<HarnessInfo version=\"2.0\">"sv, nullptr},
    {73, "AA Computerized Pattern Maker Data File Ver 1.0"sv, nullptr},
    {7, "@(#)CARDIM..FILE"sv, nullptr},
    {8, "/*DESIGN..FILE*/"sv, nullptr},
    {33, "@(#)BWEAVE..FILE"sv, nullptr},
    {64, "GIMP Palette"sv, nullptr},
    {40, "#NEW_REGION"sv, nullptr},
    {11, "#BINDING\n"sv, nullptr},
    {41, "# Fabric"sv, nullptr},
    {64, "JASC-PAL"sv, nullptr},
    {64, "\xEF\xBB\xBFJASC-PAL"sv, nullptr},
    {64, "\xEF\xBB\xBFGIMP Palette"sv, nullptr},
    {74, "ASEF"sv, nullptr},
    {2, "\x89PNG\r\n\x1a\n"sv, nullptr},
    {1, "GIF87a"sv, nullptr},
    {1, "GIF89a"sv, nullptr},
    {39, "UWFCR2"sv, nullptr},
    {51, "CGSII1"sv, nullptr},
    {27, "patfil"sv, nullptr},
    {71, "wjl&sb"sv, nullptr},
    {45, "<?xml version="sv, nullptr},
    {69, "8BCB"sv, nullptr},
    {76, "8BPS"sv, nullptr},
    {6, "RIFF"sv, webpForm},
    {5, "II*\0"sv, nullptr},
    {5, "MM\0*"sv, nullptr},
    {5, "II+\0"sv, nullptr},  // BigTIFF
    {5, "MM\0+"sv, nullptr},
    {24, "BM"sv, bmpHeaderSize},
    {4, "\xFF\xD8\xFF"sv, nullptr},
    {9, "0010"sv, nullptr},
    {15, "\x81\xFE"sv, nullptr},
    {12, "P"sv, pnmMagic},
    {68, "\0\1"sv, acoList},
    {68, "\0\2"sv, acoList},
    {3, "\x0A"sv, pcxHeader},
};

uint8_t fold(char c) noexcept { return uint8_t(tolowerAZ(uint8_t(c))); }

bool endsWith(std::string_view name, std::string_view ext) noexcept {
  if (name.size() <= ext.size()) return false;
  if (name[name.size() - ext.size() - 1] != '.') return false;
  for (size_t i = 0; i < ext.size(); ++i)
    if (fold(name[name.size() - ext.size() + i]) != uint8_t(ext[i])) return false;
  return true;
}

// True when one of the blank-separated extensions names the file: up to four
// letters through the packed ending, longer ones as a folded suffix.
bool extensionMatches(std::string_view list, std::string_view name, uint32_t packed) noexcept {
  while (!list.empty()) {
    const size_t blank = list.find(' ');
    const std::string_view ext = list.substr(0, blank);
    list = blank == std::string_view::npos ? std::string_view() : list.substr(blank + 1);
    if (ext.size() <= 4 ? packed == pack(ext) : endsWith(name, ext)) return true;
  }
  return false;
}

// ---- Cards known by their names

bool isDigit(char c) noexcept { return c >= '0' && c <= '9'; }

// "NAME.jc4.01": the volumes of a numbered set, lower case as written.
bool isVolumeOf(std::string_view name, std::string_view ext) noexcept {
  const size_t n = name.size();
  return n > ext.size() + 3 && name.substr(n - ext.size() - 3, ext.size()) == ext &&
         name[n - 3] == '.' && isDigit(name[n - 2]) && isDigit(name[n - 1]);
}

uint32_t be32(const uint8_t* p) noexcept {
  return uint32_t(p[0]) << 24 | uint32_t(p[1]) << 16 | uint32_t(p[2]) << 8 | p[3];
}

// Staubli cards whose first bytes say too little on their own: mailed cards
// ("C" and their volume bytes, under ".jc4" or ".dat") and volumes of JC4
// and JC3 sets.
uint32_t byCardName(std::string_view name, std::span<const uint8_t> h) noexcept {
  if ((endsWith(name, "jc4") || endsWith(name, "dat")) && h.size() > 34 && h[0] == 'C' &&
      h[33] == 1 && h[34] >= 1 && h[34] <= 25)
    return 17;
  if (isVolumeOf(name, ".jc4")) return 13;
  if (isVolumeOf(name, ".jc3")) return 14;
  return VLOAD_NOT_RECOGNISED;
}

// Last resorts, by the rules the loaders apply: a network card, whose name
// ends in its hook count and whose size is a whole number of records, and a
// loom card, whose header announces exactly the data that follows it.
uint32_t byCardShape(std::string_view name, std::span<const uint8_t> h, int64_t size) noexcept {
  const size_t mark = name.find_last_of(".+");
  if (mark != std::string_view::npos && mark > 0 && name.size() - mark > 2 &&
      name.size() - mark <= 7) {
    uint32_t hooks = 0;
    bool digits = true;
    for (char c : name.substr(mark + 1)) {
      digits = digits && isDigit(c);
      hooks = hooks * 10 + uint32_t(c - '0');
    }
    const uint32_t record = hooks / 8;
    if (digits && hooks >= 40 && hooks <= 262140 && size % record == 0 && size / record >= 2 &&
        size / record <= 262140)
      return 16;
  }
  if (size >= 64 && h.size() >= 64) {
    const uint32_t hooks = uint32_t(h[0]) << 8 | h[1], data = be32(&h[20]);
    if (hooks % 8 == 0 && hooks > 0 && data / (hooks / 8) >= 1 &&
        data / (hooks / 8) <= 262140 && uint64_t(size) == uint64_t{data} + 64)
      return 61;
  }
  return VLOAD_NOT_RECOGNISED;
}

uint32_t bySignature(const char* fileName) noexcept {
  const uint8_t* header = loadImgCheckHeader(fileName);
  if (!header) return VLOAD_NOT_RECOGNISED;
  const int64_t size = loadImgLastFilesize();
  const std::span<const uint8_t> bytes(header, size_t(size < 256 ? size : 256));
  for (const Signature& s : kSignatures) {
    if (bytes.size() < s.magic.size()) continue;
    if (std::memcmp(bytes.data(), s.magic.data(), s.magic.size()) != 0) continue;
    if (s.confirm && !s.confirm(bytes)) continue;
    return uint32_t(s.loader);
  }
  return VLOAD_NOT_RECOGNISED;
}

}  // namespace

uint32_t packedNameEnding(const char* fileName) noexcept {
  const size_t len = fileName ? std::strlen(fileName) : 0;
  if (len < 2) return VLOAD_NAME_TOO_SHORT;
  uint32_t packed = 0;
  for (size_t i = len < 3 ? 0 : len - 3; i < len; ++i) packed = packed << 8 | fold(fileName[i]);
  if (len >= 5 && fileName[len - 5] == '.') packed |= uint32_t(fold(fileName[len - 4])) << 24;
  return packed;
}

uint32_t detectLoader(const char* fileName) noexcept {
  const uint32_t packed = packedNameEnding(fileName);
  if (packed == VLOAD_NAME_TOO_SHORT) return VLOAD_NAME_TOO_SHORT;
  const std::string_view name(fileName);
  if (endsWith(name, "eatpc")) return VLOAD_NOT_A_PICTURE;
  for (uint32_t p : kNotPictures)
    if (packed == p) return VLOAD_NOT_A_PICTURE;

  if (const uint32_t n = bySignature(fileName); n != VLOAD_NOT_RECOGNISED) return n;
  const uint8_t* header = loadImgCheckHeader(fileName);
  const int64_t size = header ? loadImgLastFilesize() : -1;
  const std::span<const uint8_t> bytes(header, header ? size_t(size < 256 ? size : 256) : 0);
  if (const uint32_t n = byCardName(name, bytes); n != VLOAD_NOT_RECOGNISED) return n;

  for (const LoaderInfo& l : loaders())
    if (extensionMatches(l.extensions, name, packed)) return uint32_t(l.number);
  if (header) return byCardShape(name, bytes, size);
  return VLOAD_NOT_RECOGNISED;
}

}  // namespace ldr

// A drape project by the tests its loader makes first: a name of at least
// seven characters ending in ".drape" or ".drp", and a first line that starts
// with "#NEW_REGION" and does not end right after it in a carriage return.
extern "C" int32_t isDrapeProject(const char* fileName) {
  constexpr size_t kMinName = 7;
  constexpr std::string_view kMagic = "#NEW_REGION";
  if (!fileName) return 0;
  const std::string_view name(fileName);
  if (name.size() < kMinName || !(ldr::endsWith(name, "drape") || ldr::endsWith(name, "drp")))
    return 0;
  const uint8_t* header = loadImgCheckHeader(fileName);
  if (!header || loadImgLastFilesize() < int64_t(kMagic.size()) + 1) return 0;
  return std::memcmp(header, kMagic.data(), kMagic.size()) == 0 && header[kMagic.size()] != '\r';
}
