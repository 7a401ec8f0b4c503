// Seeds for the Staubli card loaders: a JC4 card of each mapping (one module
// size, and an ambiguous 9216-hook card), JC3, JC5 with padded and whole-byte
// sections, network, e-mail and loom cards, and both 1858III byte orders.
// Each is named as its loader by number expects.

#include "fuzz/seeds/seeds.h"
#include "tests/support/staubli_writer.h"

namespace {

void staubli(const vseed::Emit& emit) {
  using vtest::randomPicture;
  vtest::Jc4Options wide;
  wide.moduleSize = 3072;
  emit(vtest::jc4Card(randomPicture(1344, 3, 1)), 13);
  emit(vtest::jc4Card(randomPicture(9216, 2, 2), wide), 13);
  emit(vtest::jc3Card(randomPicture(1344, 3, 3), "SEED"), 14);
  emit(vtest::jc5Card(randomPicture(27, 4, 4), {{13, "a"}, {14, "b"}}), 15);
  emit(vtest::jc5Card(randomPicture(24, 3, 5), {{16, "a"}, {8, "b"}}), 15);
  emit(vtest::jc4NetworkCard(randomPicture(1348, 3, 6), 1536), 16);
  emit(vtest::jc4EmailCard(randomPicture(1536, 2, 7), {"SEED", 1536, -1}), 17);
  emit(vtest::jc4LoomCard(randomPicture(48, 5, 8)), 61);
  emit(vtest::dobbyFile(randomPicture(40, 6, 9), false), 21);
  emit(vtest::dobbyFile(randomPicture(40, 6, 10), true), 21);
}

const bool added = vseed::add(staubli);

}  // namespace
