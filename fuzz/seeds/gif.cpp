// Seeds for the GIF loader: 2 to 256 colours, extensions, a table filled and
// cleared or kept full, no leading clear code, small sub-blocks, a code size
// above the colour depth.

#include "fuzz/seeds/seeds.h"
#include "tests/support/gif_writer.h"

namespace {

using vtest::GifBuilder;

uint8_t speckle(uint32_t x, uint32_t y) { return uint8_t((x * 2654435761u ^ y * 40503u) >> 7); }

void gif(const vseed::Emit& emit) {
  emit(GifBuilder{}.size(13, 5).colourBits(1).build(), 1);
  emit(GifBuilder{}.size(20, 9).colourBits(4).aspect(49)
           .before(vtest::gifExtension(0xF9, {{1, 0, 0, 3}}))
           .before(vtest::gifExtension(0xFE, {{'s', 'e', 'e', 'd'}}))
           .build(), 1);
  emit(GifBuilder{}.size(70, 70).colourBits(8).pixels(speckle).lzw({.clearWhenFull = false}).build(), 1);
  emit(GifBuilder{}.size(40, 30).colourBits(8).pixels(speckle).lzw({.clearEvery = 40}).build(), 1);
  emit(GifBuilder{}.size(9, 9).colourBits(3).lzw({.leadingClear = false}).blockBytes(1).build(), 1);
  emit(GifBuilder{}.size(12, 4).colourBits(2).minCodeSize(8).signature("GIF87a").build(), 1);
}

const bool added = vseed::add(gif);

}  // namespace
