// Seeds for the portable bitmap loader: every kind, plain and raw, odd and
// 16-bit maximum values, comments, and each PAM depth.

#include "fuzz/seeds/seeds.h"
#include "tests/support/pnm_writer.h"

namespace {

using vtest::PnmBuilder;

void pnm(const vseed::Emit& emit) {
  for (char kind : {'1', '2', '3', '4', '5', '6'}) {
    emit(PnmBuilder(kind).size(9, 4).build(), 12);
    if (kind != '1' && kind != '4') emit(PnmBuilder(kind).size(5, 3).maxval(1000).comments().build(), 12);
  }
  emit(PnmBuilder('7').size(9, 3).depth(1).maxval(1).tupleType("BLACKANDWHITE").build(), 12);
  emit(PnmBuilder('7').size(4, 3).depth(2).maxval(255).tupleType("GRAYSCALE_ALPHA").comments().build(), 12);
  emit(PnmBuilder('7').size(4, 3).depth(4).maxval(65535).tupleType("RGB_ALPHA").build(), 12);
}

const bool added = vseed::add(pnm);

}  // namespace
