// Seeds for the BMP loader: every depth and header size.
#include "fuzz/seeds/seeds.h"
#include "tests/support/bmp_writer.h"

namespace {

using vtest::BmpBuilder;

void bmp(const vseed::Emit& emit) {
  for (uint32_t header : {12u, 40u, 125u}) {
    const auto b = [&](uint16_t bits) { return BmpBuilder{}.headerSize(header).size(9, 5).bits(bits); };
    emit(b(1).palette(vtest::blackWhite()).build(), 24);
    emit(b(4).palette(vtest::greyRamp(16)).build(), 24);
    emit(b(8).palette(vtest::greyRamp(7)).build(), 24);
    emit(b(24).pixelsPerMetre(3780, 3780).build(), 24);
    if (header != 12) emit(b(32).build(), 24);
  }
}

const bool added = vseed::add(bmp);

}  // namespace
