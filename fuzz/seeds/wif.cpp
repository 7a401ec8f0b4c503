// Seeds for the WIF loader: tie-up and treadling, lift plan, ends on two
// shafts, CR LF lines; named ".wif", which the loader requires.

#include "fuzz/seeds/seeds.h"
#include "tests/support/wif_writer.h"

namespace {

void wif(const vseed::Emit& emit) {
  vtest::WifDraft crlf = vtest::randomDraft(3, 12, 9, 5, 6, false, true);
  crlf.lineEnd = "\r\n";
  crlf.upperCase = false;
  emit(vtest::wifText(vtest::randomDraft(1, 10, 8, 4, 4, false, false)), 22);
  emit(vtest::wifText(vtest::randomDraft(2, 9, 12, 6, 2, true, false)), 22);
  emit(vtest::wifText(crlf), 22);
}

const bool added = vseed::add(wif);

}  // namespace
