// Seeds for the PNG loader: every colour type, tRNS, interlacing, text keys
// and pHYs.
#include "fuzz/seeds/seeds.h"
#include "tests/support/png_writer.h"

namespace {

using vtest::PngBuilder;

void png(const vseed::Emit& emit) {
  const auto b = [](int type, int depth) { return PngBuilder{}.size(7, 5).type(type, depth); };
  emit(b(0, 1).build(), 2);
  emit(b(0, 4).transparentGrey(3).interlaced().build(), 2);
  emit(b(0, 16).pixelsPerUnit(3780, 3780).build(), 2);
  emit(b(2, 8).text("MulX", "3").text("MulY", "2").build(), 2);
  emit(b(3, 2).palette({0, 0, 0, 90, 90, 90, 180, 180, 180, 255, 255, 255}).paletteAlpha({0, 128}).build(), 2);
  emit(b(4, 8).interlaced().build(), 2);
  emit(b(6, 16).build(), 2);
}

const bool added = vseed::add(png);

}  // namespace
