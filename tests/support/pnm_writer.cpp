// tests/support/pnm_writer.cpp
#include "tests/support/pnm_writer.h"

#include <cmath>

#include "vload.h"

namespace vtest {

uint32_t PnmBuilder::channels() const {
  if (kind_ == '7') return depth_;
  return kind_ == '3' || kind_ == '6' ? 3 : 1;
}

uint32_t PnmBuilder::sampleAt(uint32_t x, uint32_t y, uint32_t c) const {
  if (sample_) return sample_(x, y, c);
  return (x * 37 + y * 101 + c * 59) % ((bitmap() ? 1 : maxval_) + 1);
}

Bytes PnmBuilder::build() const {
  Bytes b;
  const auto comment = [&](const char* text) {
    if (comments_) putText(b, std::string("# ") + text + "\n");
  };
  putText(b, std::string("P") + kind_ + "\n");
  // One field a line; PAM names them, the classic headers have no depth
  // and bitmaps no maximum.
  const bool pam = kind_ == '7';
  const std::pair<std::string, uint32_t> fields[] = {
      {"WIDTH ", width_}, {"HEIGHT ", height_}, {"DEPTH ", depth_}, {"MAXVAL ", maxval_}};
  for (const auto& [keyword, value] : fields) {
    if (!pam && (keyword == "DEPTH " || (keyword == "MAXVAL " && bitmap()))) continue;
    comment("a header field");
    putText(b, (pam ? keyword : "") + std::to_string(value) + "\n");
  }
  if (pam && !tupleType_.empty()) putText(b, "TUPLTYPE " + tupleType_ + "\n");
  if (pam) putText(b, "ENDHDR\n");
  const bool plain = kind_ <= '3';
  const bool wide = maxval_ > 255;
  for (uint32_t y = 0; y < height_; ++y) {
    if (plain && y > 0) comment("next row");
    if (kind_ == '4') {
      for (uint32_t x = 0; x < width_; x += 8) {
        uint8_t byte = 0;
        for (uint32_t k = 0; k < 8 && x + k < width_; ++k) byte |= uint8_t((sampleAt(x + k, y, 0) & 1) << (7 - k));
        put8(b, byte);
      }
      continue;
    }
    for (uint32_t x = 0; x < width_; ++x)
      for (uint32_t c = 0; c < channels(); ++c) {
        const uint32_t v = sampleAt(x, y, c);
        if (kind_ == '1') putText(b, v ? "1" : "0");  // no separators: allowed for plain bits
        else if (plain) putText(b, std::to_string(v) + (x % 4 == 3 ? "\n" : " "));
        else if (wide) put8(b, v >> 8), put8(b, v & 0xFF);
        else put8(b, v);
      }
    if (plain) putText(b, "\n");
  }
  return b;
}

uint8_t PnmBuilder::expectedLayout() const {
  if (bitmap() || (kind_ == '7' && depth_ == 1 && maxval_ == 1 && tupleType_ == "BLACKANDWHITE"))
    return VLOAD_LAYOUT_BILEVEL;
  switch (channels()) {
    case 1: return VLOAD_LAYOUT_INDEXED;
    case 3: return VLOAD_LAYOUT_RGB;
    default: return VLOAD_LAYOUT_RGBA;
  }
}

Bytes PnmBuilder::expectedRows() const {
  Bytes rows;
  const uint8_t layout = expectedLayout();
  const auto scaled = [&](uint32_t v) {
    return uint8_t(std::floor(std::min(v, maxval_) * 255.0 / maxval_ + 0.5));
  };
  for (uint32_t y = 0; y < height_; ++y) {
    if (layout == VLOAD_LAYOUT_BILEVEL) {
      Bytes row((width_ + 7) / 8, 0);
      for (uint32_t x = 0; x < width_; ++x) {
        const bool black = bitmap() ? sampleAt(x, y, 0) != 0 : sampleAt(x, y, 0) == 0;
        if (black) row[x / 8] |= uint8_t(0x80 >> (x % 8));
      }
      rows.insert(rows.end(), row.begin(), row.end());
      continue;
    }
    for (uint32_t x = 0; x < width_; ++x) {
      if (channels() == 2) {
        const uint8_t grey = scaled(sampleAt(x, y, 0));
        rows.insert(rows.end(), {grey, grey, grey, scaled(sampleAt(x, y, 1))});
      } else {
        for (uint32_t c = 0; c < channels(); ++c) rows.push_back(scaled(sampleAt(x, y, c)));
      }
    }
  }
  return rows;
}

}  // namespace vtest
