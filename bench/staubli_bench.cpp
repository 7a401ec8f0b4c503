// bench/staubli_bench.cpp: Staubli card loaders beside a plain fread of the
// same file, in MB of card data a second.
//
// Cards hold random records, written straight rather than through the
// picture writers, so that building them costs little:
//  - JC4, 12288 hooks x 20000 picks: 1536 and 3072 both divide the hooks, so
//    every band counts its bits and scores both mappings before mapping;
//  - JC5, three sections of 1341, 2050 and 4003 hooks: rows are compacted;
//  - JC3, 9408 hooks (seven 1344-hook modules) x 20000 picks.
// Delivery is in bands of 64 rows, into a warm buffer like a host that reuses
// its picture buffer, or into new pages like one that allocates per picture.
#include <cstdio>
#include <cstdlib>
#include <random>
#include <string>

#include "bench/bench.h"
#include "tests/support/harness.h"
#include "tests/support/staubli_writer.h"
#include "tests/support/temp_file.h"

namespace {

constexpr uint32_t kPicks = 20000;

vtest::Bytes randomBytes(size_t n, uint32_t seed) {
  vtest::Bytes b(n);
  std::mt19937 rng(seed);
  for (size_t i = 0; i < n; i += 4) {
    const uint32_t v = rng();
    for (size_t k = 0; k < 4 && i + k < n; ++k) b[i + k] = uint8_t(v >> (8 * k));
  }
  return b;
}

vtest::Bytes jc4() {
  const uint32_t hooks = 12288;
  vtest::Bytes card = vtest::jc4Header(hooks, hooks / 8 * kPicks, "BENCH");
  const vtest::Bytes data = randomBytes(size_t(hooks / 8) * kPicks, 1);
  card.insert(card.end(), data.begin(), data.end());
  return card;
}

vtest::Bytes jc5() {
  const std::vector<vtest::Jc5Section> sections = {{1341, "a"}, {2050, "b"}, {4003, "c"}};
  vtest::Bytes card = vtest::jc5Header(sections, kPicks, {});
  const vtest::Bytes data = randomBytes(size_t(168 + 257 + 501) * kPicks, 2);
  card.insert(card.end(), data.begin(), data.end());
  return card;
}

vtest::Bytes jc3() {
  const uint32_t hooks = 9408;  // seven modules: the header has four digits for the hooks
  vtest::Bytes card = vtest::jc3Card(vtest::BitPicture{hooks, 2, vtest::Bytes(hooks / 8 * 2)}, "BENCH");
  card.resize(512);
  const std::string picks = std::to_string(kPicks);
  std::copy(picks.begin(), picks.end(), card.begin() + 21);
  const vtest::Bytes data = randomBytes(size_t(hooks / 8) * kPicks, 3);
  card.insert(card.end(), data.begin(), data.end());
  return card;
}

struct Card {
  const char* suffix;
  int32_t loader;
  vtest::Bytes (*make)();
};
const Card kCards[] = {{".jc4", 13, jc4}, {".jc5", 15, jc5}, {".jc3", 14, jc3}};

const vtest::TempFile& cardFile(int i) {
  static vtest::TempFile* files[3] = {};
  if (!files[i]) files[i] = new vtest::TempFile(kCards[i].make(), kCards[i].suffix);
  return *files[i];
}

void BM_CardFread(benchmark::State& s, int card, bool fresh) {
  vbench::timeFread(s, cardFile(card).path(), fresh);
}

void BM_CardLoad(benchmark::State& s, int card, bool fresh) {
  const vload_tool::Description d = vbench::timeLoad(s, kCards[card].loader, cardFile(card).path(), fresh);
  vbench::megapixels(s, double(d.width) * d.height);
}

// Each loader against fread into the same kind of destination: "warm" pages
// touched before, "fresh" pages new from the kernel each time.
#define CARD_CASES(name, index)                                                                          \
  BENCHMARK_CAPTURE(BM_CardFread, name##_warm, index, false)->Unit(benchmark::kMillisecond);             \
  BENCHMARK_CAPTURE(BM_CardLoad, name##_warm, index, false)->Unit(benchmark::kMillisecond);              \
  BENCHMARK_CAPTURE(BM_CardFread, name##_fresh, index, true)->Unit(benchmark::kMillisecond);             \
  BENCHMARK_CAPTURE(BM_CardLoad, name##_fresh, index, true)->Unit(benchmark::kMillisecond);              \
  const bool paired_##name = vbench::pair("BM_CardLoad/" #name "_warm", "BM_CardFread/" #name "_warm") && \
                             vbench::pair("BM_CardLoad/" #name "_fresh", "BM_CardFread/" #name "_fresh");

CARD_CASES(staubli_jc4_12288, 0)
CARD_CASES(staubli_jc5_sections, 1)
CARD_CASES(staubli_jc3_9408, 2)

}  // namespace
