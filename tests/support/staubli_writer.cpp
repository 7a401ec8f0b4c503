// tests/support/staubli_writer.cpp
#include "tests/support/staubli_writer.h"

#include <algorithm>
#include <random>

namespace vtest {

namespace {

void put16be(Bytes& b, uint32_t v) {
  b.push_back(uint8_t(v >> 8));
  b.push_back(uint8_t(v));
}
void put32be(Bytes& b, uint32_t v) {
  put16be(b, v >> 16);
  put16be(b, v & 0xFFFF);
}

uint8_t reversed(uint8_t v) {
  uint8_t r = 0;
  for (int b = 0; b < 8; ++b) r = uint8_t(r | ((v >> b & 1) << (7 - b)));
  return r;
}

// Records of a picture: bit p % 8 of byte p / 8 of a record is the pixel of
// the column at position p, complemented when `setIsZero`; positions no
// column uses hold `setIsZero`, columns beyond the record are dropped.
Bytes cardRecords(const BitPicture& p, const std::vector<uint32_t>& positions, uint32_t recordBytes,
                  bool setIsZero) {
  Bytes out(size_t(recordBytes) * p.height, setIsZero ? 0xFF : 0x00);
  for (uint32_t y = 0; y < p.height; ++y) {
    uint8_t* rec = out.data() + size_t(y) * recordBytes;
    for (uint32_t x = 0; x < p.width; ++x) {
      const uint32_t q = positions[x];
      if (q >= recordBytes * 8) continue;  // a module size the hooks do not fill
      if (p.at(x, y) != setIsZero) rec[q / 8] = uint8_t(rec[q / 8] | 1u << (q % 8));
      else rec[q / 8] = uint8_t(rec[q / 8] & ~(1u << (q % 8)));
    }
  }
  return out;
}

Bytes jc4Records(const BitPicture& p, uint32_t moduleSize) {
  return cardRecords(p, staubliPositions(p.width, moduleSize, false), p.stride(), true);
}

}  // namespace

BitPicture randomPicture(uint32_t width, uint32_t height, uint32_t seed) {
  BitPicture p{width, height, {}};
  p.rows.assign(size_t(p.stride()) * height, 0);
  std::mt19937 rng(seed);
  for (uint32_t y = 0; y < height; ++y)
    for (uint32_t x = 0; x < width; ++x)
      if (rng() & 1) p.set(x, y);
  return p;
}

BitPicture rampPicture(uint32_t width, uint32_t height) {
  BitPicture p{width, height, {}};
  p.rows.assign(size_t(p.stride()) * height, 0);
  for (uint32_t x = 0; x < width; ++x)
    for (uint32_t y = 0; y < uint64_t{x} * height / width; ++y) p.set(x, y);
  return p;
}

// Design column c of a module of S hooks sits in wiring row j = c / B and at
// s = c % B = a × G + t along it; the module's 12-hook group r = 8t + a holds
// it as its hook j, so it is hook 12r + j of the module. A 3072-hook module
// then interleaves its halves in blocks of 96; modules either follow one
// another or take turns group by group.
std::vector<uint32_t> staubliPositions(uint32_t hooks, uint32_t moduleSize, bool blockwise) {
  std::vector<uint32_t> pos(hooks);
  const uint32_t S = moduleSize, B = S / 12, G = B / 8, M = (hooks + S - 1) / S;
  for (uint32_t x = 0; x < hooks; ++x) {
    const uint32_t m = x / S, c = x % S, j = c / B, s = c % B, a = s / G, t = s % G;
    uint32_t k = 12 * (8 * t + a) + j;
    if (S == 3072) k = k < 1536 ? k / 96 * 192 + k % 96 : (k - 1536) / 96 * 192 + 96 + (k - 1536) % 96;
    pos[x] = blockwise ? m * S + k : (k / 12 * M + m) * 12 + k % 12;
  }
  return pos;
}

std::vector<Bytes> volumes(const Bytes& card, size_t headerBytes, size_t first, size_t each) {
  std::vector<Bytes> out;
  for (size_t at = headerBytes, n = first; at < card.size(); at += n, n = each) {
    n = std::min(n, card.size() - at);
    Bytes vol(card.begin(), card.begin() + long(headerBytes));
    vol.insert(vol.end(), card.begin() + long(at), card.begin() + long(at + n));
    out.push_back(vol);
  }
  return out;
}

// ---- JC4 family

Bytes jc4Header(uint32_t hooks, uint32_t dataBytes, const std::string& design) {
  Bytes h;
  put16be(h, hooks);
  std::string name = design.substr(0, 16);
  name.resize(16, ' ');
  putText(h, name);
  put16be(h, 0);
  put32be(h, dataBytes);
  h.resize(64, 0);
  h[34] = 80;
  h[35] = 2;
  h[36] = 18;
  return h;
}

Bytes jc4Card(const BitPicture& p, const Jc4Options& o) {
  const Bytes records = jc4Records(p, o.moduleSize);
  Bytes card = jc4Header(p.width, uint32_t(o.dataBytes < 0 ? records.size() : size_t(o.dataBytes)), o.design);
  card.insert(card.end(), records.begin(), records.end());
  return card;
}

Bytes jc4NetworkCard(const BitPicture& p, uint32_t moduleSize) { return jc4Records(p, moduleSize); }

Bytes jc4EmailCard(const BitPicture& p, const Jc4Options& o) {
  Bytes card(512, 0);
  card[0] = 'C';
  card[33] = 1;
  card[34] = 3;
  const Bytes records = jc4Records(p, o.moduleSize);
  const Bytes h = jc4Header(p.width, uint32_t(records.size()), o.design);
  card.insert(card.end(), h.begin(), h.end());
  card.resize(9216, 0);
  card.insert(card.end(), records.begin(), records.end());
  return card;
}

Bytes jc4LoomCard(const BitPicture& p) {
  Bytes card = jc4Header(p.width, uint32_t(p.rows.size()), "LOOM");
  for (uint8_t v : p.rows) card.push_back(uint8_t(~reversed(v)));
  return card;
}

// ---- JC3

Bytes jc3Card(const BitPicture& p, const std::string& design, uint32_t picksPerVolume) {
  Bytes card(512, ' ');
  const auto field = [&](size_t at, size_t width, const std::string& text) {
    for (size_t i = 0; i < width && i < text.size(); ++i) card[at + i] = uint8_t(text[i]);
  };
  card[0] = 'B';
  field(1, 4, std::to_string(p.width));
  field(5, 16, design);
  field(21, 6, std::to_string(p.height));
  field(66, 4, std::to_string(picksPerVolume));
  const Bytes records = cardRecords(p, staubliPositions(p.width, 1344, true), p.stride(), true);
  card.insert(card.end(), records.begin(), records.end());
  return card;
}

// ---- JC5

Bytes jc5Header(const std::vector<Jc5Section>& sections, uint32_t picks, const Jc5Options& o) {
  Bytes h{0x81, 0xFE, 1, 2};
  const auto descriptor = [](Bytes& b, uint32_t type, const Bytes& data) {
    put32be(b, type);
    put32be(b, uint32_t(data.size()));
    b.insert(b.end(), data.begin(), data.end());
  };
  const auto number = [](uint32_t v) {
    Bytes d;
    put32be(d, v);
    return d;
  };
  Bytes first;
  uint32_t count = 0;
  descriptor(first, 1, Bytes(o.design.begin(), o.design.end())), ++count;
  descriptor(first, 2, number(picks)), ++count;
  if (o.volumeWord >= 0) descriptor(first, 3, number(uint32_t(o.volumeWord))), ++count;
  for (uint32_t type : o.extraTypes) descriptor(first, type, number(0)), ++count;
  put32be(h, count);
  h.insert(h.end(), first.begin(), first.end());
  put32be(h, uint32_t(sections.size()));
  for (const Jc5Section& s : sections) {
    Bytes d = number(s.hooks);
    put32be(d, 0);
    putText(d, s.name);
    d.push_back(0);
    descriptor(h, 100, d);
  }
  return h;
}

Bytes jc5Card(const BitPicture& p, const std::vector<Jc5Section>& sections, const Jc5Options& o) {
  std::vector<uint32_t> pos;
  uint32_t byte = 0;
  for (const Jc5Section& s : sections) {
    for (uint32_t i = 0; i < s.hooks; ++i) pos.push_back(byte * 8 + i);
    byte += (s.hooks + 7) / 8;
  }
  Bytes card = jc5Header(sections, p.height, o);
  const Bytes records = cardRecords(p, pos, byte, false);
  card.insert(card.end(), records.begin(), records.end());
  return card;
}

// ---- 1858III

Bytes dobbyFile(const BitPicture& p, bool littleEndian) {
  Bytes f;
  for (uint32_t y = 0; y < p.height; ++y)
    for (uint32_t i = 0; i < 5; ++i) f.push_back(reversed(p.rows[size_t(y) * p.stride() + i]));
  putText(f, "TRAIL");
  f.insert(f.end(), {0, 0, 0});
  if (littleEndian) put16le(f, p.height);
  else put16be(f, p.height);
  return f;
}

}  // namespace vtest
