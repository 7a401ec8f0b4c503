// tests/support/psd_writer.cpp
#include "tests/support/psd_writer.h"

#include "tests/support/big_endian.h"

namespace vtest {

Bytes packBits(const Bytes& row) {
  Bytes out;
  size_t i = 0;
  while (i < row.size()) {
    size_t run = 1;
    while (i + run < row.size() && run < 128 && row[i + run] == row[i]) ++run;
    if (run >= 3) {
      out.push_back(uint8_t(257 - run));
      out.push_back(row[i]);
      i += run;
      continue;
    }
    size_t n = 0;  // a literal up to the next run of three
    while (i + n < row.size() && n < 128 &&
           !(i + n + 2 < row.size() && row[i + n] == row[i + n + 1] && row[i + n] == row[i + n + 2]))
      ++n;
    out.push_back(uint8_t(n - 1));
    out.insert(out.end(), row.begin() + long(i), row.begin() + long(i + n));
    i += n;
  }
  return out;
}

uint32_t PsdBuilder::sampleAt(uint32_t x, uint32_t y, uint32_t c) const {
  if (sample_) return sample_(x, y, c);
  if (depth_ == 1) return (x + y) % 3 == 0;
  const uint32_t v = (x / 3 * 40 + y * 23 + c * 71) % 256;  // runs of three for PackBits
  return depth_ == 16 ? v * 257 + (v < 255 ? x % 2 * 200 : 0) : v;  // odd pixels round up
}

Bytes PsdBuilder::channelRow(uint32_t c, uint32_t y) const {
  Bytes row;
  if (depth_ == 1) {
    row.assign((width_ + 7) / 8, 0);
    for (uint32_t x = 0; x < width_; ++x)
      if (sampleAt(x, y, c)) row[x / 8] |= uint8_t(0x80 >> (x % 8));
    return row;
  }
  for (uint32_t x = 0; x < width_; ++x) {
    const uint32_t v = sampleAt(x, y, c);
    if (depth_ == 16) put16be(row, v);
    else put8(row, v);
  }
  return row;
}

Bytes PsdBuilder::build() const {
  Bytes b;
  putText(b, "8BPS");
  put16be(b, large_ ? 2 : 1);
  b.insert(b.end(), 6, 0);
  put16be(b, channels_);
  put32be(b, height_);
  put32be(b, width_);
  put16be(b, depth_);
  put16be(b, mode_);

  put32be(b, uint32_t(table_.size()));
  b.insert(b.end(), table_.begin(), table_.end());

  Bytes resources;
  if (xRes_ || yRes_) {
    putText(resources, "8BIM");
    put16be(resources, 1005);
    put16be(resources, 0);  // empty name, padded
    put32be(resources, 16);
    put32be(resources, xRes_);
    put32be(resources, 0x00010001);  // shown as pixels per inch, width in inches
    put32be(resources, yRes_);
    put32be(resources, 0x00010001);
  }
  put32be(b, uint32_t(resources.size()));
  b.insert(b.end(), resources.begin(), resources.end());

  const auto putLength = [&](Bytes& to, uint64_t n) {
    if (large_) put32be(to, uint32_t(n >> 32));
    put32be(to, uint32_t(n));
  };
  Bytes layers;
  if (layers_ != 0) {
    Bytes info;
    put16be(info, uint16_t(layers_));
    putLength(layers, info.size());
    layers.insert(layers.end(), info.begin(), info.end());
    put32be(layers, 0);  // no global layer mask
  }
  putLength(b, layers.size());
  b.insert(b.end(), layers.begin(), layers.end());

  put16be(b, packBits_ ? 1 : 0);
  std::vector<Bytes> rows;
  for (uint32_t c = 0; c < channels_; ++c)
    for (uint32_t y = 0; y < height_; ++y) {
      const auto r = replaced_.find({c, y});
      rows.push_back(!packBits_ ? channelRow(c, y) : r != replaced_.end() ? r->second : packBits(channelRow(c, y)));
    }
  if (packBits_)  // the byte counts of the rows
    for (const Bytes& r : rows) large_ ? put32be(b, uint32_t(r.size())) : put16be(b, uint32_t(r.size()));
  for (const Bytes& r : rows) b.insert(b.end(), r.begin(), r.end());
  return b;
}

}  // namespace vtest
