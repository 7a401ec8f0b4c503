// tests/support/pcx_writer.cpp
#include "tests/support/pcx_writer.h"

namespace vtest {

Bytes pcxRuns(const Bytes& data) {
  Bytes out;
  for (size_t i = 0; i < data.size();) {
    size_t n = 1;
    while (i + n < data.size() && n < 63 && data[i + n] == data[i]) ++n;
    if (n > 1 || data[i] >= 0xC0) out.push_back(uint8_t(0xC0 | n));
    out.push_back(data[i]);
    i += n;
  }
  return out;
}

Bytes PcxBuilder::lines() const {
  const uint32_t perLine = bpl();
  Bytes out(size_t{height_} * planes_ * perLine, 0);
  for (uint32_t y = 0; y < height_; ++y) {
    for (uint32_t p = 0; p < planes_; ++p) {
      uint8_t* line = out.data() + (size_t{y} * planes_ + p) * perLine;
      for (uint32_t x = 0; x < width_; ++x) {
        const uint32_t v = bits_ == 1 ? pixel_(x, y, 0) >> p & 1 : pixel_(x, y, p) & ((1u << bits_) - 1);
        const uint64_t bit = uint64_t{x} * bits_;
        if (bit / 8 < perLine) line[bit / 8] |= uint8_t(v << (8 - bits_ - bit % 8));
      }
    }
  }
  return out;
}

Bytes PcxBuilder::build() const {
  Bytes b;
  const uint32_t head[] = {10, version_, 1, bits_}, window[] = {xmin_, ymin_, xmin_ + width_ - 1, ymin_ + height_ - 1};
  for (uint32_t v : head) put8(b, v);
  for (uint32_t v : window) put16le(b, v);
  put16le(b, xDpi_);
  put16le(b, yDpi_);
  for (size_t i = 0; i < 48; ++i) put8(b, i < headerMap_.size() ? headerMap_[i] : uint8_t(i * 5));
  put8(b, 0);
  put8(b, planes_);
  put16le(b, bpl());
  put16le(b, 1);
  b.resize(128, 0);
  const Bytes all = lines();
  const size_t chunk = acrossLines_ ? all.size() : size_t{planes_} * bpl();
  for (size_t at = 0; chunk && at < all.size(); at += chunk) {
    const Bytes runs = pcxRuns(Bytes(all.begin() + long(at), all.begin() + long(at + chunk)));
    b.insert(b.end(), runs.begin(), runs.end());
  }
  if (!trailingMap_.empty()) {
    put8(b, marker_);
    for (size_t i = 0; i < 768; ++i) put8(b, i < trailingMap_.size() ? trailingMap_[i] : 0);
  }
  return b;
}

}  // namespace vtest
