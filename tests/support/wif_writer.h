// tests/support/wif_writer.h: writes WIF drafts, and computes the woven
// picture of any WIF text, the public samples included, by a plain reading of
// the format's rules that shares nothing with the loader: no table sizing, no
// row reuse, pixel by pixel.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "tests/support/bytes.h"

namespace vtest {

// Numbers are 1-based, as the file writes them.
struct WifDraft {
  uint32_t shafts = 4, treadles = 4, ends = 8, picks = 8;
  std::vector<std::vector<uint32_t>> threading;  // per end: one or two shafts; empty = no line
  std::vector<std::vector<uint32_t>> tieUp;      // per treadle: shafts
  std::vector<std::vector<uint32_t>> treadling;  // per pick: treadles; empty = no line
  std::vector<std::vector<uint32_t>> liftPlan;   // per pick: shafts
  bool tieUpFlag = true, threadingFlag = true, treadlingFlag = true, liftPlanFlag = false;
  std::string lineEnd = "\n";
  bool upperCase = true;  // section names and keys as writers usually spell them
};

// A random draft of this size; `liftPlan` picks the lift plan form, `twoShafts`
// threads some ends on two shafts.
WifDraft randomDraft(uint32_t seed, uint32_t ends, uint32_t picks, uint32_t shafts,
                     uint32_t treadles, bool liftPlan, bool twoShafts);

Bytes wifText(const WifDraft& d);

struct WifReading {
  uint32_t status = 0;  // 0, or 6 for a draft the loader refuses
  uint32_t width = 0, height = 0;
  Bytes rows;  // rows of (width + 7) / 8 bytes, top pick first
};
WifReading readWifPlainly(const Bytes& file);

}  // namespace vtest
