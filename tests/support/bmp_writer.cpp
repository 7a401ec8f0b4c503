// tests/support/bmp_writer.cpp
#include "tests/support/bmp_writer.h"

namespace vtest {

std::vector<Rgb> greyRamp(int entries) {
  std::vector<Rgb> p;
  for (int i = 0; i < entries; ++i) {
    const uint8_t v = uint8_t(entries > 1 ? i * 255 / (entries - 1) : 0);
    p.push_back({v, v, v});
  }
  return p;
}

Bytes BmpBuilder::build() const {
  const bool core = headerSize_ == 12;
  const uint32_t w = uint32_t(width_ < 0 ? -width_ : width_);
  const uint32_t h = uint32_t(height_ < 0 ? -height_ : height_);
  const uint32_t rowBytes = (w * bits_ + 31) / 32 * 4;
  const uint32_t entry = core ? 3 : 4;
  const uint32_t dataOffset = 14 + headerSize_ + uint32_t(palette_.size()) * entry + gap_;

  Bytes b;
  putText(b, "BM");
  put32le(b, dataOffset + rowBytes * h);
  put32le(b, 0);
  put32le(b, dataOffset);
  put32le(b, headerSize_);
  const auto putSide = [&](int32_t v) { core ? put16le(b, uint32_t(v)) : put32le(b, uint32_t(v)); };
  putSide(width_);
  putSide(height_);
  put16le(b, planes_);
  put16le(b, bits_);
  if (!core) {
    put32le(b, compression_);
    put32le(b, rowBytes * h);
    put32le(b, xPpm_);
    put32le(b, yPpm_);
    const bool fullTable = bits_ <= 8 && palette_.size() == (size_t{1} << bits_);
    put32le(b, coloursUsedSet_ ? coloursUsed_ : fullTable ? 0 : uint32_t(palette_.size()));
    put32le(b, 0);  // important colours
    while (b.size() < 14 + headerSize_) put8(b, 0);
  }
  for (const Rgb& c : palette_) {
    put8(b, c.b);
    put8(b, c.g);
    put8(b, c.r);
    if (!core) put8(b, 0);
  }
  for (uint32_t i = 0; i < gap_; ++i) put8(b, 0xEE);

  for (uint32_t k = 0; k < h; ++k) {
    const uint32_t y = h - 1 - k;  // bottom-up
    Bytes row(rowBytes, 0);
    for (uint32_t x = 0; x < w; ++x) {
      switch (bits_) {
        case 1: case 2: case 4: case 8: {
          const uint32_t bit = x * bits_;
          row[bit / 8] |= uint8_t(index(x, y) << (8 - bits_ - bit % 8));
          break;
        }
        case 24: case 32: {
          const uint32_t n = bits_ / 8u;
          for (int c = 0; c < 3; ++c) row[n * x + 2 - c] = pixel_(x, y, c);
          if (n == 4) row[4 * x + 3] = pixel_(x, y, 3);
          break;
        }
        default:  // 16 bits and others: any bytes; the loader refuses them
          break;
      }
    }
    b.insert(b.end(), row.begin(), row.end());
  }
  return b;
}

Bytes BmpBuilder::expectedRows(bool expandBits) const {
  const bool packed = bits_ == 1 && !expandBits;
  Bytes out;
  for (uint32_t y = 0; y < uint32_t(height_); ++y) {
    Bytes row(packed ? (uint32_t(width_) + 7) / 8 : 0, 0);
    for (uint32_t x = 0; x < uint32_t(width_); ++x) {
      if (packed) row[x / 8] |= uint8_t(index(x, y) << (7 - x % 8));
      else if (bits_ <= 8) row.push_back(index(x, y));
      else for (int c = 0; c < (bits_ == 32 ? 4 : 3); ++c) row.push_back(pixel_(x, y, c));
    }
    out.insert(out.end(), row.begin(), row.end());
  }
  return out;
}

}  // namespace vtest
