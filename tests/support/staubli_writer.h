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
// of moduleSize modules.
std::vector<uint32_t> staubliPositions(uint32_t hooks, uint32_t moduleSize, bool blockwise);

// A card's records after its first headerBytes split into volumes, each
// behind the same header: `first` bytes in the first, `each` (not 0) in
// every later one, the last what is left.
std::vector<Bytes> volumes(const Bytes& card, size_t headerBytes, size_t first, size_t each);

// ---- JC4 family

struct Jc4Options {
  std::string design = "TESTDESIGN";
  uint32_t moduleSize = 1344;  // mapping the writer applies
  int64_t dataBytes = -1;      // header's count; -1: the records written
};
Bytes jc4Header(uint32_t hooks, uint32_t dataBytes, const std::string& design);
Bytes jc4Card(const BitPicture& p, const Jc4Options& o = {});
Bytes jc4NetworkCard(const BitPicture& p, uint32_t moduleSize);
Bytes jc4EmailCard(const BitPicture& p, const Jc4Options& o = {});
Bytes jc4LoomCard(const BitPicture& p);

// ---- JC3

Bytes jc3Card(const BitPicture& p, const std::string& design, uint32_t picksPerVolume = 0);

// ---- JC5

struct Jc5Section {
  uint32_t hooks;
  std::string name;
};
struct Jc5Options {
  std::string design = "JC5DESIGN";  // version 1.2
  int64_t volumeWord = -1;  // -1: no volume descriptor
  std::vector<uint32_t> extraTypes;  // further first-block descriptors, 4 data bytes each
};
Bytes jc5Header(const std::vector<Jc5Section>& sections, uint32_t picks, const Jc5Options& o);
// Records of the picture's columns split into sections, each padded to bytes.
Bytes jc5Card(const BitPicture& p, const std::vector<Jc5Section>& sections, const Jc5Options& o = {});

// ---- 1858III dobby

Bytes dobbyFile(const BitPicture& p, bool littleEndian);

}  // namespace vtest
