// tests/support/psd_writer.h: builds Photoshop documents (PSD and PSB) with a
// merged picture, raw or PackBits, in any colour mode, and a PackBits coder.
//
// Samples are given as the file stores them, channel by channel: 0..255 or
// 0..65535 by depth, bits for bitmaps (1 black), CMYK as the format keeps it
// (255 for no ink).
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <utility>
#include <vector>

#include "tests/support/bytes.h"

namespace vtest {

// PackBits as writers produce it: runs of three or more equal bytes as a
// run, the rest as literals of up to 128 bytes.
Bytes packBits(const Bytes& row);

class PsdBuilder {
 public:
  using Sample = std::function<uint32_t(uint32_t x, uint32_t y, uint32_t channel)>;

  PsdBuilder& mode(uint16_t m) { mode_ = m; return *this; }  // 0 bitmap .. 9 Lab
  PsdBuilder& depth(uint16_t d) { depth_ = d; return *this; }
  PsdBuilder& channels(uint16_t c) { channels_ = c; return *this; }
  PsdBuilder& size(uint32_t width, uint32_t height) { width_ = width; height_ = height; return *this; }
  PsdBuilder& packed(bool on = true) { packBits_ = on; return *this; }
  PsdBuilder& large(bool on = true) { large_ = on; return *this; }  // PSB
  // Pixels per inch, 16.16 fixed point; 0 writes no resolution resource.
  PsdBuilder& resolution(uint32_t x, uint32_t y) { xRes_ = x; yRes_ = y; return *this; }
  // A layer section with this layer count (layers themselves are left empty); 0: none.
  PsdBuilder& layerCount(int16_t n) { layers_ = n; return *this; }
  PsdBuilder& colourTable(Bytes planar768) { table_ = std::move(planar768); return *this; }
  PsdBuilder& samples(Sample f) { sample_ = std::move(f); return *this; }
  // These bytes instead of the coded row (for broken PackBits data).
  PsdBuilder& packedRow(uint32_t channel, uint32_t y, Bytes bytes) {
    replaced_[{channel, y}] = std::move(bytes);
    return *this;
  }

  Bytes build() const;
  // One channel's rows as stored before compression.
  Bytes channelRow(uint32_t channel, uint32_t y) const;
  uint32_t sampleAt(uint32_t x, uint32_t y, uint32_t channel) const;

 private:
  uint16_t mode_ = 3, depth_ = 8, channels_ = 3;
  uint32_t width_ = 6, height_ = 4;
  bool packBits_ = false, large_ = false;
  uint32_t xRes_ = 72u << 16, yRes_ = 72u << 16;
  int16_t layers_ = 0;
  Bytes table_;
  Sample sample_;
  std::map<std::pair<uint32_t, uint32_t>, Bytes> replaced_;
};

}  // namespace vtest
