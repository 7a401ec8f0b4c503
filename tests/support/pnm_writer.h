// tests/support/pnm_writer.h: builds portable bitmaps (P1 to P6) and PAM
// files (P7), and the rows the loader delivers for them.
//
// Samples are given as the file stores them: 0..maxval, bitmaps 1 for black.
// The expected rows scale every sample to 0..255, rounding halves up; a PAM
// black-and-white sample 0 is black; grey with alpha becomes R, G, B, A.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include "tests/support/bytes.h"

namespace vtest {

class PnmBuilder {
 public:
  using Sample = std::function<uint32_t(uint32_t x, uint32_t y, uint32_t channel)>;

  explicit PnmBuilder(char kind = '6') : kind_(kind) {}
  PnmBuilder& size(uint32_t width, uint32_t height) { width_ = width; height_ = height; return *this; }
  PnmBuilder& maxval(uint32_t m) { maxval_ = m; return *this; }
  PnmBuilder& depth(uint32_t d) { depth_ = d; return *this; }  // PAM only
  PnmBuilder& tupleType(std::string t) { tupleType_ = std::move(t); return *this; }
  // A comment line before every header token, and in plain rasters between rows.
  PnmBuilder& comments(bool on = true) { comments_ = on; return *this; }
  PnmBuilder& samples(Sample f) { sample_ = std::move(f); return *this; }

  Bytes build() const;
  Bytes expectedRows() const;
  uint8_t expectedLayout() const;

 private:
  uint32_t channels() const;
  bool bitmap() const { return kind_ == '1' || kind_ == '4'; }
  uint32_t sampleAt(uint32_t x, uint32_t y, uint32_t c) const;

  char kind_;
  uint32_t width_ = 5, height_ = 3, maxval_ = 255, depth_ = 3;
  std::string tupleType_;
  bool comments_ = false;
  Sample sample_;
};

}  // namespace vtest
