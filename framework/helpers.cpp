// framework/helpers.cpp: byte-order readers, line helpers and compressed
// blocks that loaders and hosts share.
#include "framework/helpers.h"

#include <zlib.h>

#include <algorithm>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <vector>

#include "vload.h"

namespace ldr {
namespace {

thread_local bool t_bigEndian = false;

// Compressed blocks are read in pieces of this size, so that a size field
// that lies costs no more memory than the file really holds.
constexpr size_t kReadPiece = size_t{1} << 20;
constexpr long kMinCompressed = 3;
constexpr long kMaxCompressed = 999999999;

}  // namespace

void setBigEndian(bool big) noexcept { t_bigEndian = big; }
bool bigEndian() noexcept { return t_bigEndian; }

}  // namespace ldr

extern "C" {

uint16_t Get16u(const void* p) {
  const auto* b = static_cast<const uint8_t*>(p);
  return ldr::t_bigEndian ? uint16_t(b[0] << 8 | b[1]) : uint16_t(b[1] << 8 | b[0]);
}

int32_t Get32s(const void* p) {
  const auto* b = static_cast<const uint8_t*>(p);
  const uint32_t u = ldr::t_bigEndian
                         ? uint32_t(b[0]) << 24 | uint32_t(b[1]) << 16 | uint32_t(b[2]) << 8 | b[3]
                         : uint32_t(b[3]) << 24 | uint32_t(b[2]) << 16 | uint32_t(b[1]) << 8 | b[0];
  return int32_t(u);  // the most significant byte carries the sign
}

uint32_t Get32u(const void* p) { return uint32_t(Get32s(p)); }

int tolowerAZ(int c) { return c >= 'A' && c <= 'Z' ? c + 32 : c; }

void stringToLower(char* s) {
  if (!s) return;
  for (; *s; ++s)
    if (*s >= 'A' && *s <= 'Z') *s = char(*s + 32);  // tolowerAZ, inlined for long lines
}

// Quirk: without '=' the result points one past the terminator. Callers use
// it only on lines already known to hold a key and an equals sign.
char* removeHead(char* line) {
  if (!line) return nullptr;
  char* equals = std::strchr(line, '=');
  return equals ? equals + 1 : line + std::strlen(line) + 1;
}

char* removeLast(char* line) {
  if (!line) return line;
  const size_t len = std::strlen(line);
  if (len == 0) return line;
  line[len - 1] = 0;
  if (len >= 2 && line[len - 2] == '\r') line[len - 2] = 0;
  return line;
}

// Lines may end in CR, LF or CR LF. The end left over from the previous line
// is skipped by looking one byte further when a line starts with CR or LF.
// Quirk: a line of `size` bytes or more loses the byte at size - 1 (the
// terminator goes there) and the byte that stopped the loop.
char* fgetsDosMac(char* buffer, int size, FILE* stream) {
  if (!buffer || !stream || size < 1) return nullptr;
  int c = getc_unlocked(stream);
  if ((c == '\r' || c == '\n') && !feof_unlocked(stream)) c = getc_unlocked(stream);
  int count = 0;
  while (!feof_unlocked(stream) && count < size && c != '\r' && c != '\n') {
    buffer[count++] = char(c);
    c = getc_unlocked(stream);
  }
  buffer[count < size - 1 ? count : size - 1] = 0;
  return count > 0 ? buffer : nullptr;
}

size_t readCompressedData(const char* sizeText, void* destination, size_t destinationCapacity,
                          FILE* stream) {
  if (!sizeText || !destination || !stream) return 0;
  const long compressed = std::strtol(sizeText, nullptr, 10);
  if (compressed < ldr::kMinCompressed || compressed > ldr::kMaxCompressed) return 0;
  std::vector<uint8_t> data;
  try {
    while (data.size() < size_t(compressed)) {
      const size_t piece = std::min(ldr::kReadPiece, size_t(compressed) - data.size());
      const size_t had = data.size();
      data.resize(had + piece);
      if (std::fread(data.data() + had, 1, piece, stream) != piece) return 0;
    }
  } catch (const std::bad_alloc&) {
    return 0;
  }
  uLongf produced = uLongf(destinationCapacity);
  if (uncompress(static_cast<Bytef*>(destination), &produced, data.data(), uLong(data.size())) !=
      Z_OK) {
    std::fputs("zlib uncompress failed\n", stdout);
    return 0;
  }
  return produced ? size_t(produced) : 1;
}

// Never moves backwards: "%lu" takes "-5" as a huge number, which is clamped
// so that a parser can not be sent round in a loop by a negative size.
int skipCompressedData(const char* sizeText, FILE* stream) {
  unsigned long skip = 0;
  if (!sizeText || !stream || std::sscanf(sizeText, "%lu", &skip) != 1) return 0;
  std::fseek(stream, skip > LONG_MAX ? LONG_MAX : long(skip), SEEK_CUR);
  return 1;
}

}  // extern "C"
