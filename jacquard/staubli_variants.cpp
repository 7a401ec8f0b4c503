// jacquard/staubli_variants.cpp: JC4 cards in other wrappings — network
// (loader 16), e-mail (17) and loom (61) — and the 40-shaft dobby files of
// the 1858III (21).
//
// Network reads: headerless JC4 records; the name's last part after a full
// stop or "+" gives the hooks ("design.2688"). Refuses (6): no such part, one
// that is not all digits or is shorter than two, hooks outside 40..262140, a
// size that is no whole number of hooks / 8-byte records, picks outside
// 2..262140.
// E-mail reads: a 512-byte preamble ("C", byte 33 = 1, byte 34 in 1..25), a
// JC4 header, JC4 records from offset 9216; names "*.jc4" or "*.dat". Further
// files of a card carry a volume letter before the extension. Refuses (6):
// anything else in those bytes, and JC4 headers JC4 refuses.
// Loom reads: a JC4 header (hooks, data bytes) and records of hooks / 8 bytes
// in file order, no mapping. Refuses (6): hooks no multiple of 8 or above
// 262140, picks outside 1..262140, a size other than data bytes + 64. Short
// data gives 7.
// 1858III reads: 5 bytes a pick (40 shafts, bit 0 of the first byte is shaft
// 1) and a 10-byte trailer whose last two bytes count the picks, big-endian,
// or little-endian in the files of a compatible dobby. Refuses (6): names not
// ending in ".db1", non-zero trailer bytes 5..7, a size other than picks × 5
// + 10. Short data gives 7.
// Delivery: band addressing.
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <string>

#include "framework/checked.h"
#include "jacquard/staubli.h"
#include "vload.h"

namespace ldr::staubli {
namespace {

// ---- Limits and constants

constexpr uint32_t kMinNetworkHooks = 40;
constexpr size_t kEmailPreambleBytes = 512;
constexpr uint64_t kEmailDataStart = 9216;
constexpr uint8_t kMaxEmailByte34 = 25;
constexpr char kVolumeLetters[] = {'B', 'b', 'A', 'a', '2', '1'};
constexpr uint32_t kDobbyShafts = 40;
constexpr uint32_t kDobbyRecordBytes = kDobbyShafts / 8;
constexpr int64_t kDobbyTrailerBytes = 10;
constexpr int64_t kMinDobbyFile = 21;

bool isDigit(char c) noexcept { return c >= '0' && c <= '9'; }

// True when the name ends in a full stop and these letters, in either case.
bool endsInExtension(const char* name, const char* ext) {
  const size_t n = std::strlen(name), e = std::strlen(ext);
  if (n < e + 1 || name[n - e - 1] != '.') return false;
  for (size_t i = 0; i < e; ++i)
    if (tolowerAZ(uint8_t(name[n - e + i])) != ext[i]) return false;
  return true;
}

// ---- JC4 network

Status describeNetwork(const char* fileName, Picture& out, uint8_t* colorMap, bool) {
  t_card = {};
  CardState& st = t_card;
  if (!fileName) return Status::NotThisFormat;
  const std::string name = fileName;
  const size_t mark = name.find_last_of(".+");
  if (mark == std::string::npos || mark == 0) return Status::NotThisFormat;
  const std::string digits = name.substr(mark + 1);
  if (digits.size() < 2 || !std::all_of(digits.begin(), digits.end(), isDigit))
    return Status::NotThisFormat;
  uint64_t hooks = 0;
  for (char c : digits) hooks = std::min<uint64_t>(hooks * 10 + uint64_t(c - '0'), uint64_t{kMaxHooks} + 1);
  if (hooks < kMinNetworkHooks || hooks > kMaxHooks) return Status::NotThisFormat;

  if (!loadImgCheckHeader(fileName)) return Status::NotThisFormat;
  const int64_t size = loadImgLastFilesize();
  // Quirk: the size is counted in records of hooks / 8 bytes, rounded down,
  // while reading takes ceil(hooks / 8) bytes a record, as the controller's
  // own reader does.
  const uint64_t sizedRecord = hooks / 8;
  if (size < 0 || uint64_t(size) % sizedRecord != 0) return Status::NotThisFormat;
  const uint64_t picks = uint64_t(size) / sizedRecord;
  if (picks < 2 || picks > kMaxPicks) return Status::NotThisFormat;

  st.file = openForReading(fileName);
  if (!st.file) return Status::CannotOpen;
  st.name = name;
  st.hooks = uint32_t(hooks);
  st.recordBytes = (st.hooks + 7) / 8;
  st.moduleSize = preliminaryModuleSize(st.hooks, true);
  st.modules = modulesFor(st.hooks, st.moduleSize);
  st.volumeBytes = UINT64_MAX;  // one file: reading past its end gives zeros
  st.height = uint32_t(picks);
  st.card = Card::Jc4Network;
  describeCard(out, colorMap, st.hooks, st.height);
  return Status::Ok;
}

Status noNextVolume(CardState&) { return Status::CannotOpen; }

Status deliverNetwork(const Band& band) { return deliverJc4Family(band, noNextVolume); }

// ---- JC4 e-mail

Status describeEmail(const char* fileName, Picture& out, uint8_t* colorMap, bool) {
  t_card = {};
  CardState& st = t_card;
  if (!fileName || std::strlen(fileName) < 5 ||
      !(endsInExtension(fileName, "jc4") || endsInExtension(fileName, "dat")))
    return Status::NotThisFormat;
  st.name = fileName;
  st.file = openForReading(fileName);
  if (!st.file) return Status::CannotOpen;
  uint8_t pre[kEmailPreambleBytes];
  if (!readExact(st.file.get(), pre, sizeof pre)) return Status::CannotOpen;
  // Quirk: byte 33 is 1 in every file of a card; any other value is refused
  // rather than read as a later part.
  if (pre[0] != 'C' || pre[33] != 1 || pre[34] < 1 || pre[34] > kMaxEmailByte34)
    return Status::NotThisFormat;
  uint8_t h[kJc4HeaderBytes];
  if (!readExact(st.file.get(), h, sizeof h)) return Status::CannotOpen;
  Jc4Header hdr;
  if (const Status s = parseJc4Header(h, hdr); s != Status::Ok) return s;

  st.hooks = hdr.hooks;
  st.recordBytes = (hdr.hooks + 7) / 8;
  // Quirk: unlike a plain JC4 card, 9216 hooks start out as 1536-hook modules.
  st.moduleSize = preliminaryModuleSize(hdr.hooks, false);
  st.modules = modulesFor(hdr.hooks, st.moduleSize);
  const int64_t size = fileSize(st.file.get());
  if (fseeko(st.file.get(), off_t(kEmailDataStart), SEEK_SET) != 0) return Status::CannotOpen;
  st.volumeBytes = size > int64_t(kEmailDataStart) ? uint64_t(size) - kEmailDataStart : 0;
  st.consumed = 0;
  st.height = hdr.picks;
  st.card = Card::Jc4Email;
  describeCard(out, colorMap, hdr.hooks, hdr.picks);
  out.setInfo("\ndesign: %s", hdr.design);
  return Status::Ok;
}

// The next file of an e-mailed card. The first time, a volume letter goes
// before the extension ("cardB.dat"), the first of B, b, A, a, 2, 1 whose
// file can be read; with none, the character before the extension counts up
// instead ("card1.dat" to "card2.dat").
// Quirk: once a letter was inserted, every later change reopens that same
// lengthened name, as the mail client's own reader does.
Status nextEmailVolume(CardState& st) {
  st.file.reset();
  if (!st.lengthened) {
    const size_t at = st.name.size() - 4;  // tryLoad saw at least five characters
    std::string candidate = st.name;
    candidate.insert(at, 1, kVolumeLetters[0]);
    bool found = false;
    for (char letter : kVolumeLetters) {
      candidate[at] = letter;
      if (::access(candidate.c_str(), R_OK) == 0) {
        found = true;
        break;
      }
    }
    if (found) {
      st.name = candidate;
      st.lengthened = true;
    } else {
      char& before = st.name[at - 1];
      if (uint8_t(before) == 0xFF) return Status::CannotOpen;
      ++before;
    }
  }
  st.file = openForReading(st.name.c_str());
  if (!st.file) return Status::CannotOpen;
  const int64_t size = fileSize(st.file.get());
  if (fseeko(st.file.get(), off_t(kEmailDataStart), SEEK_SET) != 0) return Status::CannotOpen;
  st.volumeBytes = size > int64_t(kEmailDataStart) ? uint64_t(size) - kEmailDataStart : 0;
  st.consumed = 0;
  return Status::Ok;
}

Status deliverEmail(const Band& band) { return deliverJc4Family(band, nextEmailVolume); }

// ---- JC4 loom

Status describeLoom(const char* fileName, Picture& out, uint8_t* colorMap, bool) {
  t_card = {};
  CardState& st = t_card;
  const uint8_t* h = loadImgCheckHeader(fileName);
  if (!h) return Status::NotThisFormat;
  const int64_t size = loadImgLastFilesize();
  const uint32_t hooks = be16(h), dataBytes = be32(h + 20);
  if (size < int64_t(kJc4HeaderBytes) || hooks % 8 != 0 || hooks < 1 || hooks > kMaxHooks)
    return Status::NotThisFormat;
  const uint32_t recordBytes = hooks / 8;
  const uint32_t picks = dataBytes / recordBytes;
  if (picks < 1 || picks > kMaxPicks || uint64_t(size) != uint64_t{dataBytes} + kJc4HeaderBytes)
    return Status::NotThisFormat;
  st.file = openForReading(fileName);
  if (!st.file) return Status::CannotOpen;
  if (std::fseek(st.file.get(), long(kJc4HeaderBytes), SEEK_SET) != 0) return Status::CannotOpen;
  st.hooks = hooks;
  st.recordBytes = recordBytes;
  st.height = picks;
  st.card = Card::Jc4;
  describeCard(out, colorMap, hooks, picks);
  return Status::Ok;
}

// Rows of `recordBytes` bytes straight from the file into the caller's rows,
// in one read when the rows follow one another; BadData when the file ends
// first. The rest of a wider row is cleared.
Status readRowsInPlace(std::FILE* f, const Band& band, uint32_t recordBytes) {
  const uint32_t rows = uint32_t(band.rowCount);
  if (uint32_t(band.rowStride) == recordBytes)
    return std::fread(band.buffer, recordBytes, rows, f) == rows ? Status::Ok : Status::BadData;
  for (uint32_t r = 0; r < rows; ++r) {
    uint8_t* row = rowAt(band.buffer, r, band.rowStride);
    std::memset(row + recordBytes, 0, size_t(band.rowStride) - recordBytes);
    if (std::fread(row, 1, recordBytes, f) != recordBytes) return Status::BadData;
  }
  return Status::Ok;
}

Status deliverRowsInFileOrder(CardState& st, const Band& band, bool negate) {
  if (const Status s = checkBand(st, band); s != Status::Ok) return s;
  if (const Status s = readRowsInPlace(st.file.get(), band, st.recordBytes); s != Status::Ok)
    return st.failed = s;
  for (int32_t r = 0; r < band.rowCount; ++r)
    reverseNegateBytes(rowAt(band.buffer, r, band.rowStride), st.recordBytes, negate);
  st.delivered += uint32_t(band.rowCount);
  return Status::Ok;
}

Status deliverLoom(const Band& band) { return deliverRowsInFileOrder(t_card, band, true); }

// ---- 1858III dobby

// Its own state: the dobby files share nothing with the cards but the reader.
thread_local CardState t_dobby;

void releaseDobby() noexcept { t_dobby = {}; }

Status describeDobby(const char* fileName, Picture& out, uint8_t* colorMap, bool) {
  t_dobby = {};
  CardState& st = t_dobby;
  if (!fileName || std::strlen(fileName) < 5 || !endsInExtension(fileName, "db1"))
    return Status::NotThisFormat;
  if (!loadImgCheckHeader(fileName)) return Status::NotThisFormat;
  const int64_t size = loadImgLastFilesize();
  if (size < kMinDobbyFile) return Status::NotThisFormat;
  st.file = openForReading(fileName);
  if (!st.file) return Status::CannotOpen;
  uint8_t t[kDobbyTrailerBytes];
  if (fseeko(st.file.get(), off_t(size - kDobbyTrailerBytes), SEEK_SET) != 0 ||
      !readExact(st.file.get(), t, sizeof t))
    return Status::NotThisFormat;
  const uint32_t zeros = uint32_t(t[5]) + t[6] + t[7];
  uint32_t picks = be16(t + 8);
  bool littleEndian = false;
  if (int64_t{picks} * kDobbyRecordBytes + kDobbyTrailerBytes != size) {
    picks = uint32_t(t[8]) | uint32_t(t[9]) << 8;
    littleEndian = true;
  }
  if (zeros != 0 || int64_t{picks} * kDobbyRecordBytes + kDobbyTrailerBytes != size)
    return Status::NotThisFormat;
  std::rewind(st.file.get());
  st.hooks = kDobbyShafts;
  st.recordBytes = kDobbyRecordBytes;
  st.height = picks;
  st.card = Card::Jc4;
  describeCard(out, colorMap, kDobbyShafts, picks);
  out.setInfo(littleEndian ? "Changsu 1858III dobby" : "Staubli 1858III dobby");
  return Status::Ok;
}

Status deliverDobby(const Band& band) { return deliverRowsInFileOrder(t_dobby, band, false); }

}  // namespace
}  // namespace ldr::staubli

extern "C" {

void registerLoadStaubliJC4network(void) {
  ldr::registerOperations<ldr::staubli::describeNetwork, ldr::staubli::deliverNetwork, ldr::staubli::release>();
}

void registerLoadStaubliJC4email(void) {
  ldr::registerOperations<ldr::staubli::describeEmail, ldr::staubli::deliverEmail, ldr::staubli::release>();
}

void registerLoadStaubliJC4loom(void) {
  ldr::registerOperations<ldr::staubli::describeLoom, ldr::staubli::deliverLoom, ldr::staubli::release>();
}

void registerLoad1858III(void) {
  ldr::registerOperations<ldr::staubli::describeDobby, ldr::staubli::deliverDobby, ldr::staubli::releaseDobby>();
}

}  // extern "C"
