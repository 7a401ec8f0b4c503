// tests/support/weave_writer.cpp
#include "tests/support/weave_writer.h"

#include <zlib.h>

#include <stdexcept>

namespace vtest {

Bytes zlibCompress(const Bytes& data) {
  uLongf size = compressBound(uLong(data.size()));
  Bytes out(size);
  if (compress2(out.data(), &size, data.data(), uLong(data.size()), Z_DEFAULT_COMPRESSION) != Z_OK)
    throw std::runtime_error("compress2 failed");
  out.resize(size);
  return out;
}

Bytes liftPlanBlock(uint32_t shafts, uint32_t picks, const BitAt& lifted) {
  const uint64_t bits = uint64_t{shafts} * picks;
  Bytes b(bits / 8 + 1, 0);
  for (uint32_t s = 0; s < shafts; ++s)
    for (uint32_t p = 0; p < picks; ++p) {
      const uint64_t k = uint64_t{s} * picks + p;
      if (lifted(s, p)) b[k / 8] |= uint8_t(1 << (k % 8));
    }
  return b;
}

Bytes rowsBlock(uint32_t width, uint32_t height, const BitAt& set) {
  const uint32_t row = (width + 7) / 8;
  Bytes b(size_t{row} * height, 0);
  for (uint32_t y = 0; y < height; ++y)
    for (uint32_t x = 0; x < width; ++x)
      if (set(x, y)) b[size_t{y} * row + x / 8] |= uint8_t(0x80 >> (x % 8));
  return b;
}

Bytes weaveFromLiftPlan(uint32_t width, uint32_t picks, const std::vector<uint32_t>& shaftOfEnd,
                        const BitAt& lifted) {
  return rowsBlock(width, picks, [&](uint32_t x, uint32_t p) { return lifted(shaftOfEnd[x], p); });
}

WeaveBuilder& WeaveBuilder::key(std::string_view text) {
  put8(bytes_, '#');
  putText(bytes_, text);
  put8(bytes_, '\n');
  return *this;
}

WeaveBuilder& WeaveBuilder::bytes(const Bytes& b) {
  bytes_.insert(bytes_.end(), b.begin(), b.end());
  return *this;
}

WeaveBuilder& WeaveBuilder::raw(std::string_view name, const Bytes& block) {
  key(std::string(name) + "=");
  return bytes(block);
}

WeaveBuilder& WeaveBuilder::zlib(std::string_view name, const Bytes& block) {
  const Bytes packed = zlibCompress(block);
  key(std::string(name) + "=" + std::to_string(packed.size()));
  return bytes(packed);
}

WeaveBuilder& WeaveBuilder::harnends(const std::vector<int64_t>& shafts, size_t perLine) {
  key("HARNENDS=");
  std::string text;
  for (size_t i = 0; i < shafts.size(); ++i) {
    text += std::to_string(shafts[i]);
    text += perLine && (i + 1) % perLine == 0 ? "\n" : " ";
  }
  putText(bytes_, text + "\n");
  return *this;
}

WeaveBuilder& WeaveBuilder::repeat(const std::vector<uint32_t>& entries, bool wide) {
  Bytes table;
  for (uint32_t e : entries) wide ? put32le(table, e) : put16le(table, e);
  return zlib("LINES_REPEAT", table);
}

}  // namespace vtest
