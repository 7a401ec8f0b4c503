// tests/support/staubli_writer.h: writes Staubli card files from a picture in
// design order, applying the hook mapping forward, so that loading a card
// must give the picture back bit for bit. The mapping here is the wiring rule
// in closed form, written apart from the library's procedural one.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "tests/support/bytes.h"

namespace vtest {

// Rows of ceil(width / 8) bytes, leftmost pixel in the top bit.
struct BitPicture {
  uint32_t width = 0, height = 0;
  Bytes rows;
  uint32_t stride() const { return (width + 7) / 8; }
  bool at(uint32_t x, uint32_t y) const { return rows[size_t(y) * stride() + x / 8] >> (7 - x % 8) & 1; }
  void set(uint32_t x, uint32_t y) { rows[size_t(y) * stride() + x / 8] |= uint8_t(0x80 >> (x % 8)); }
};

BitPicture randomPicture(uint32_t width, uint32_t height, uint32_t seed);
// Column x set in the first x × height / width rows: neighbouring columns
// differ little, so the right mapping is the smoothest one.
BitPicture rampPicture(uint32_t width, uint32_t height);

// File hook position of every design column of a card of `hooks` hooks built
// of moduleSize modules (0: no mapping, column x is position x).
std::vector<uint32_t> staubliPositions(uint32_t hooks, uint32_t moduleSize, bool blockwise);

// Records of a picture: bit p % 8 of byte p / 8 of a record is the pixel of
// the column at position p, complemented when `setIsZero`; positions no
// column uses hold `setIsZero`, columns beyond the record are dropped.
Bytes cardRecords(const BitPicture& p, const std::vector<uint32_t>& positions, uint32_t recordBytes,
                  bool setIsZero);

// ---- JC4 family

struct Jc4Options {
  std::string design = "TESTDESIGN";
  uint32_t moduleSize = 1344;  // mapping the writer applies
  int64_t dataBytes = -1;      // header's count; -1: the records written
};
Bytes jc4Header(uint32_t hooks, uint32_t dataBytes, const std::string& design);
Bytes jc4Card(const BitPicture& p, const Jc4Options& o = {});
// The card split into volumes, volume v holding volumeData[v] bytes of
// records (the last takes the rest), each behind its own header.
std::vector<Bytes> jc4Volumes(const BitPicture& p, const std::vector<size_t>& volumeData,
                              const Jc4Options& o = {});
Bytes jc4NetworkCard(const BitPicture& p, uint32_t moduleSize);
Bytes jc4EmailCard(const BitPicture& p, const Jc4Options& o = {});
Bytes jc4LoomCard(const BitPicture& p);

// ---- JC3

Bytes jc3Card(const BitPicture& p, const std::string& design, uint32_t picksPerVolume = 0);
// Volumes of picksPerVolume records, each behind the same header.
std::vector<Bytes> jc3Volumes(const BitPicture& p, uint32_t picksPerVolume);

// ---- JC5

struct Jc5Section {
  uint32_t hooks;
  std::string name;
};
struct Jc5Options {
  std::string design = "JC5DESIGN";
  uint8_t major = 1, minor = 2;
  int64_t volumeWord = -1;  // -1: no volume descriptor
  std::vector<uint32_t> extraTypes;  // further first-block descriptors, 4 data bytes each
};
Bytes jc5Header(const std::vector<Jc5Section>& sections, uint32_t picks, const Jc5Options& o);
// Records of the picture's columns split into sections, each padded to bytes.
Bytes jc5Records(const BitPicture& p, const std::vector<Jc5Section>& sections);
Bytes jc5Card(const BitPicture& p, const std::vector<Jc5Section>& sections, const Jc5Options& o = {});

// ---- 1858III dobby

Bytes dobbyFile(const BitPicture& p, bool littleEndian);

}  // namespace vtest
