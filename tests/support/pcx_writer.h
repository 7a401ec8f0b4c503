// tests/support/pcx_writer.h: builds run-length encoded PCX files of one or
// more planes of 1 to 8 bits, encoded line by line or as one stream whose
// runs cross line ends, with a header map and an optional map at the end.
#pragma once

#include <cstdint>
#include <functional>

#include "tests/support/bytes.h"

namespace vtest {

class PcxBuilder {
 public:
  PcxBuilder& size(uint32_t width, uint32_t height) { width_ = width; height_ = height; return *this; }
  PcxBuilder& origin(uint16_t xmin, uint16_t ymin) { xmin_ = xmin; ymin_ = ymin; return *this; }
  PcxBuilder& depth(uint8_t bitsPerPlane, uint8_t planes) { bits_ = bitsPerPlane; planes_ = planes; return *this; }
  PcxBuilder& version(uint8_t v) { version_ = v; return *this; }
  // Bytes of one plane's line; by default enough for the width, rounded up to even.
  PcxBuilder& bytesPerLine(uint32_t n) { bytesPerLine_ = n; return *this; }
  PcxBuilder& dpi(uint16_t x, uint16_t y) { xDpi_ = x; yDpi_ = y; return *this; }
  PcxBuilder& headerMap(Bytes rgb) { headerMap_ = std::move(rgb); return *this; }
  // 768 bytes after `marker` at the end of the file.
  PcxBuilder& trailingMap(Bytes rgb, uint8_t marker = 12) { trailingMap_ = std::move(rgb); marker_ = marker; return *this; }
  PcxBuilder& runsAcrossLines() { acrossLines_ = true; return *this; }
  // Value of pixel (x, y) in `plane`: an index for planes of 1 bit (spread
  // over the planes, bit p in plane p; pass plane 0), else the plane's own
  // sample of `bits` bits.
  PcxBuilder& pixels(std::function<uint8_t(uint32_t x, uint32_t y, uint32_t plane)> f) { pixel_ = std::move(f); return *this; }

  Bytes build() const;
  // The decoded lines as stored: height x planes x bpl() bytes.
  Bytes lines() const;
  uint32_t bpl() const { return bytesPerLine_ ? bytesPerLine_ : ((width_ * bits_ + 7) / 8 + 1) & ~1u; }

 private:
  uint32_t width_ = 10, height_ = 4, bytesPerLine_ = 0;
  uint16_t xmin_ = 0, ymin_ = 0, xDpi_ = 0, yDpi_ = 0;
  uint8_t bits_ = 8, planes_ = 1, version_ = 5, marker_ = 12;
  bool acrossLines_ = false;
  Bytes headerMap_, trailingMap_;
  std::function<uint8_t(uint32_t, uint32_t, uint32_t)> pixel_ = [](uint32_t x, uint32_t y, uint32_t p) {
    return uint8_t(x * 7 + y * 29 + p * 85);
  };
};

// Run-length encodes `data` as PCX does: runs of up to 63 bytes, and bytes
// with both top bits set as runs of one.
Bytes pcxRuns(const Bytes& data);

}  // namespace vtest
