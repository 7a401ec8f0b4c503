// tests/support/gif_writer.h: builds GIF files, with an LZW encoder whose
// table fills to 12 bits and is then cleared (or kept: a deferred clear), and
// a packer for hand-made code streams.
#pragma once

#include <cstdint>
#include <functional>
#include <span>
#include <vector>

#include "tests/support/bytes.h"

namespace vtest {

struct LzwOptions {
  bool leadingClear = true;
  bool clearWhenFull = true;  // false: keep decoding with the full table (deferred clear)
  uint32_t clearEvery = 0;    // also clear after this many codes (0: never)
  // Zero bytes after the codes, as some encoders' flush leaves. Two of them
  // keep every code out of the last two bytes, which the loader's decoder
  // reads only in part.
  uint32_t padBytes = 0;
};

// The codes an LZW encoder writes for `pixels`, the end code last.
std::vector<uint16_t> lzwCodes(std::span<const uint8_t> pixels, uint32_t minCodeSize,
                               const LzwOptions& options = {});

// Packs codes least significant bit first, each as wide as a decoder reading
// them at that point expects: the table grows by one entry a code, except
// for the first code and the code after a clear, and a clear starts again.
// `padBytes` zero bytes follow.
Bytes packCodes(const std::vector<uint16_t>& codes, uint32_t minCodeSize, uint32_t padBytes = 0);

// An extension: introducer, label, then `blocks` as sub-blocks and the terminator.
Bytes gifExtension(uint8_t label, const std::vector<Bytes>& blocks);

class GifBuilder {
 public:
  GifBuilder& size(uint32_t width, uint32_t height) { width_ = width; height_ = height; return *this; }
  // A global table of 2^bits greys.
  GifBuilder& colourBits(uint32_t bits) { bits_ = bits; return *this; }
  GifBuilder& noGlobalTable() { globalTable_ = false; return *this; }
  GifBuilder& signature(const char* six) { signature_ = six; return *this; }
  GifBuilder& aspect(uint8_t a) { aspect_ = a; return *this; }
  // Bytes between the colour table and the image descriptor (extensions).
  GifBuilder& before(const Bytes& bytes) { before_.insert(before_.end(), bytes.begin(), bytes.end()); return *this; }
  GifBuilder& imageFlags(uint8_t flags) { imageFlags_ = flags; return *this; }
  GifBuilder& minCodeSize(uint32_t m) { minCodeSize_ = m; return *this; }
  GifBuilder& lzw(const LzwOptions& o) { lzw_ = o; return *this; }
  GifBuilder& blockBytes(uint32_t n) { blockBytes_ = n; return *this; }
  // The index of pixel (x, y); by default a pattern using every colour.
  GifBuilder& pixels(std::function<uint8_t(uint32_t x, uint32_t y)> f) { pixel_ = std::move(f); return *this; }
  // Packed image data to use instead of the encoder's (cut into sub-blocks).
  GifBuilder& data(Bytes packed) { data_ = std::move(packed); dataSet_ = true; return *this; }

  Bytes build() const;
  Bytes indices() const;  // the pixels, width x height index bytes

 private:
  uint32_t width_ = 8, height_ = 8, bits_ = 2, minCodeSize_ = 0, blockBytes_ = 255;
  bool globalTable_ = true, dataSet_ = false;
  const char* signature_ = "GIF89a";
  uint8_t aspect_ = 0, imageFlags_ = 0;
  Bytes before_, data_;
  LzwOptions lzw_;
  std::function<uint8_t(uint32_t, uint32_t)> pixel_;
};

}  // namespace vtest
