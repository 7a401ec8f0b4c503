// Seeds for the weave loader: both picture forms raw and compressed, every
// harness key, and a repeat table.
#include "fuzz/seeds/seeds.h"
#include "tests/support/weave_writer.h"

namespace {

using vtest::WeaveBuilder;

bool pattern(uint32_t a, uint32_t b) { return (a * 5 + b * 3) % 7 < 3; }

void weave(const vseed::Emit& emit) {
  const vtest::Bytes plan = vtest::liftPlanBlock(4, 6, pattern);
  const vtest::Bytes rows = vtest::rowsBlock(11, 6, pattern);
  emit(WeaveBuilder{}.key("DIM=11 6,4").harnends({0, 1, 2, 3, 3, 2, 1, 0, 0, 1, 2}, 4).raw("BITMAP", plan).end().build(), 11);
  emit(WeaveBuilder{}.key("XDIM=11").key("YDIM=6").key("SHAFTSNO=4").key("HARNANDS=12344321123")
           .zlib("BUTMAP", plan).end().build(), 11);
  emit(WeaveBuilder{}.key("DIM=11 6").zlib("HARNUNDS", {0, 1, 2, 3, 0, 1, 2, 3, 9, 1, 2})
           .raw("BATMAP", rows).end().build(), 11);
  emit(WeaveBuilder{}.key("DIM=11 6,4").zlib("BETMAP", vtest::truncated(rows, 8)).repeat({0, 1, 0, 2, 4, 0}, false)
           .end().build(), 11);
}

const bool added = vseed::add(weave);

}  // namespace
