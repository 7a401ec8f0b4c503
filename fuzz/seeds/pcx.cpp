// Seeds for the PCX loader: 1 bit, planar, 8 bits with the map at the end,
// runs across line ends, a line shorter than the width, and 24 bits.

#include "fuzz/seeds/seeds.h"
#include "tests/support/pcx_writer.h"

namespace {

using vtest::PcxBuilder;

void pcx(const vseed::Emit& emit) {
  emit(PcxBuilder{}.depth(1, 1).size(19, 5).build(), 3);
  emit(PcxBuilder{}.depth(1, 4).size(11, 6).version(2).build(), 3);
  emit(PcxBuilder{}.size(9, 7).trailingMap(vtest::Bytes(768, 90)).runsAcrossLines().build(), 3);
  emit(PcxBuilder{}.size(12, 3).bytesPerLine(4).version(3).build(), 3);
  emit(PcxBuilder{}.depth(8, 3).size(7, 6).build(), 3);
}

const bool added = vseed::add(pcx);

}  // namespace
