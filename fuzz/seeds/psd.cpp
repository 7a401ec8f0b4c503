// Seeds for the Photoshop document loader: each colour mode raw and
// PackBits, 16 bits, PSB, and a merged transparency.

#include "fuzz/seeds/seeds.h"
#include "tests/support/psd_writer.h"

namespace {

using vtest::PsdBuilder;

void psd(const vseed::Emit& emit) {
  vtest::Bytes table(768);
  for (size_t i = 0; i < table.size(); ++i) table[i] = uint8_t(i * 7);
  const auto b = [] { return PsdBuilder{}.size(7, 4); };
  emit(b().mode(0).depth(1).channels(1).packed().build(), 76);
  emit(b().mode(1).channels(1).build(), 76);
  emit(b().mode(2).channels(1).colourTable(table).packed().build(), 76);
  emit(b().mode(3).packed().build(), 76);
  emit(b().mode(3).channels(4).layerCount(-1).depth(16).build(), 76);
  emit(b().mode(4).channels(4).packed().large().build(), 76);
  emit(b().mode(8).channels(1).depth(16).packed().build(), 76);
  emit(b().mode(9).channels(3).build(), 76);
}

const bool added = vseed::add(psd);

}  // namespace
