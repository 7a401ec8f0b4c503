// tests/support/gif_writer.cpp
#include "tests/support/gif_writer.h"

#include <algorithm>

namespace vtest {
namespace {

constexpr uint32_t kMaxCodes = 4096;

}  // namespace

std::vector<uint16_t> lzwCodes(std::span<const uint8_t> pixels, uint32_t minCodeSize,
                               const LzwOptions& options) {
  const uint32_t clear = 1u << minCodeSize;
  std::vector<uint16_t> codes;
  // child[prefix * 256 + byte]: (generation << 12) | code; a new generation
  // after each clear empties the table without wiping it.
  std::vector<uint32_t> child(kMaxCodes * 256, 0);
  uint32_t generation = 1, next = clear + 2, sinceClear = 0;
  const auto restart = [&] {
    codes.push_back(uint16_t(clear));
    ++generation;
    next = clear + 2;
    sinceClear = 0;
  };
  if (options.leadingClear) codes.push_back(uint16_t(clear));
  if (!pixels.empty()) {
    uint32_t prefix = pixels[0];
    for (size_t i = 1; i < pixels.size(); ++i) {
      uint32_t& slot = child[prefix * 256 + pixels[i]];
      if (slot >> 12 == generation) {
        prefix = slot & 0xFFF;
        continue;
      }
      codes.push_back(uint16_t(prefix));
      ++sinceClear;
      if (next < kMaxCodes) slot = generation << 12 | next++;
      else if (options.clearWhenFull) restart();
      if (options.clearEvery && sinceClear >= options.clearEvery) restart();
      prefix = pixels[i];
    }
    codes.push_back(uint16_t(prefix));
  }
  codes.push_back(uint16_t(clear + 1));
  return codes;
}

Bytes packCodes(const std::vector<uint16_t>& codes, uint32_t minCodeSize, uint32_t padBytes) {
  const uint32_t clear = 1u << minCodeSize;
  Bytes out;
  uint64_t bits = 0;
  uint32_t held = 0, size = minCodeSize + 1, next = clear + 2;
  bool tableStart = true;  // the first code, and the code after a clear, enter nothing
  for (size_t i = 0; i < codes.size(); ++i) {
    bits |= uint64_t(codes[i]) << held;
    for (held += size; held >= 8; held -= 8, bits >>= 8) out.push_back(uint8_t(bits));
    if (codes[i] == clear && (i == 0 || !tableStart)) {
      size = minCodeSize + 1;
      next = clear + 2;
      tableStart = true;
    } else if (tableStart) {
      tableStart = false;
    } else if (next < kMaxCodes && ++next == 1u << size && size < 12) {
      ++size;
    }
  }
  if (held) out.push_back(uint8_t(bits));
  out.insert(out.end(), padBytes, 0);
  return out;
}

Bytes gifExtension(uint8_t label, const std::vector<Bytes>& blocks) {
  Bytes out{0x21, label};
  for (const Bytes& b : blocks) {
    out.push_back(uint8_t(b.size()));
    out.insert(out.end(), b.begin(), b.end());
  }
  out.push_back(0);
  return out;
}

Bytes GifBuilder::indices() const {
  Bytes px(size_t{width_} * height_);
  for (uint32_t y = 0; y < height_; ++y)
    for (uint32_t x = 0; x < width_; ++x)
      px[size_t{y} * width_ + x] = pixel_ ? pixel_(x, y) : uint8_t((x / 3 + y * 5) % (1u << bits_));
  return px;
}

Bytes GifBuilder::build() const {
  Bytes b;
  putText(b, signature_);
  put16le(b, width_);
  put16le(b, height_);
  put8(b, (globalTable_ ? 0x80 : 0) | 0x70 | (bits_ - 1));
  put16le(b, uint32_t(aspect_) << 8);  // background 0, aspect
  if (globalTable_)
    for (uint32_t i = 0; i < 3u << bits_; ++i) put8(b, i / 3 * 255 / ((1u << bits_) - 1));
  b.insert(b.end(), before_.begin(), before_.end());
  put8(b, 0x2C);
  put32le(b, 0);  // left, top
  put16le(b, width_);
  put16le(b, height_);
  put8(b, imageFlags_);
  if (imageFlags_ & 0x80) b.insert(b.end(), 3u << ((imageFlags_ & 7) + 1), 0);
  const uint32_t codeSize = minCodeSize_ ? minCodeSize_ : std::max(2u, bits_);
  put8(b, codeSize);
  const Bytes data = dataSet_ ? data_ : packCodes(lzwCodes(indices(), codeSize, lzw_), codeSize, lzw_.padBytes);
  for (size_t at = 0; at < data.size(); at += blockBytes_) {
    const size_t n = std::min<size_t>(blockBytes_, data.size() - at);
    put8(b, uint32_t(n));
    b.insert(b.end(), data.begin() + long(at), data.begin() + long(at + n));
  }
  put8(b, 0);
  put8(b, 0x3B);
  return b;
}

}  // namespace vtest
