// bench/weave_bench.cpp: the weave loader on a 20000 x 20000 weave, beside
// reading the file and filling a picture of the same size.
//  - "liftplan": 32 shafts, the lift plan zlib-compressed (BUTMAP);
//  - "rows_repeat": the weave as rows (BETMAP) of which 40 are stored and the
//    rest named by a LINES_REPEAT table.
// Both weave the same cloth: a random threading on 32 shafts and 40 distinct
// picks. Each case reports the peak resident memory of the process so far;
// run one filter at a time to read it per case.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <random>
#include <string>

#include "bench/bench.h"
#include "tests/support/harness.h"
#include "tests/support/temp_file.h"
#include "tests/support/weave_writer.h"

namespace {

constexpr uint32_t kWidth = 20000, kHeight = 20000, kShafts = 32, kPatterns = 40;

struct Cloth {
  std::vector<uint32_t> shaftOfEnd, patternOfPick;
  std::vector<uint32_t> lifts;  // per pattern: bit s set when shaft s rises
  bool lifted(uint32_t s, uint32_t p) const { return lifts[patternOfPick[p]] >> s & 1; }
};

const Cloth& cloth() {
  static const Cloth c = [] {
    std::mt19937 rng(5);
    Cloth k;
    for (uint32_t x = 0; x < kWidth; ++x) k.shaftOfEnd.push_back(rng() % kShafts);
    for (uint32_t p = 0; p < kHeight; ++p) k.patternOfPick.push_back(rng() % kPatterns);
    for (uint32_t t = 0; t < kPatterns; ++t) k.lifts.push_back(uint32_t(rng()));
    return k;
  }();
  return c;
}

vtest::Bytes weaveFile(const std::string& form) {
  const Cloth& c = cloth();
  vtest::WeaveBuilder b;
  b.key("DIM=" + std::to_string(kWidth) + " " + std::to_string(kHeight) + "," + std::to_string(kShafts));
  b.zlib("HARNUNDS", vtest::Bytes(c.shaftOfEnd.begin(), c.shaftOfEnd.end()));
  const auto lifted = [&](uint32_t s, uint32_t p) { return c.lifted(s, p); };
  if (form == "liftplan") return b.zlib("BUTMAP", vtest::liftPlanBlock(kShafts, kHeight, lifted)).end().build();

  // Rows: the first pick of each pattern is stored, the others repeat it.
  std::vector<uint32_t> table(kHeight), firstPick(kPatterns, UINT32_MAX), storedPicks;
  for (uint32_t p = 0; p < kHeight; ++p) {
    uint32_t& first = firstPick[c.patternOfPick[p]];
    if (first == UINT32_MAX) first = p, storedPicks.push_back(p);
    table[p] = first == p ? 0 : first + 1;
  }
  const vtest::Bytes stored = vtest::rowsBlock(kWidth, uint32_t(storedPicks.size()), [&](uint32_t x, uint32_t i) {
    return c.lifted(c.shaftOfEnd[x], storedPicks[i]);
  });
  return b.zlib("BETMAP", stored).repeat(table, false).end().build();
}

const vtest::TempFile& file(const std::string& form) {
  static std::map<std::string, vtest::TempFile*> files;
  vtest::TempFile*& f = files[form];
  if (!f) f = new vtest::TempFile(weaveFile(form), ".wv");
  return *f;
}

void BM_ReadAndFill(benchmark::State& s, std::string form) {
  const vtest::TempFile& f = file(form);
  const size_t size = vtest::readFile(f.path()).size(), picture = size_t{kWidth} / 8 * kHeight;
  std::vector<uint8_t> data(size);
  vbench::Pages out(picture, 0, true);
  for (auto _ : s) {
    std::FILE* in = std::fopen(f.path(), "rb");
    benchmark::DoNotOptimize(std::fread(data.data(), 1, size, in));
    std::fclose(in);
    std::memset(out.at, 0x55, picture);
    benchmark::ClobberMemory();
  }
  vbench::megapixels(s, double(kWidth) * kHeight);
  s.counters["peak MB"] = vbench::peakResidentMegabytes();
}

void BM_WeaveLoad(benchmark::State& s, std::string form) {
  const vtest::TempFile& f = file(form);
  const size_t picture = size_t{kWidth} / 8 * kHeight;
  vbench::Pages out(picture, 0, true);
  for (auto _ : s) {
    vload_tool::Description d;
    d.loader = vload_tool::install(11, f.path());
    if (vload_tool::describe(f.path(), d, true) != VLOAD_OK) std::abort();
    if (vload_tool::deliverAll(d, out.at, 64) != VLOAD_OK) std::abort();
    vload_tool::endLoad();
    benchmark::ClobberMemory();
  }
  vbench::megapixels(s, double(kWidth) * kHeight);
  s.counters["peak MB"] = vbench::peakResidentMegabytes();
}

#define WEAVE_CASE(form)                                                                      \
  BENCHMARK_CAPTURE(BM_ReadAndFill, weave_##form, #form)->Unit(benchmark::kMillisecond);      \
  BENCHMARK_CAPTURE(BM_WeaveLoad, weave_##form, #form)->Unit(benchmark::kMillisecond);        \
  const bool paired_##form = vbench::pair("BM_WeaveLoad/weave_" #form, "BM_ReadAndFill/weave_" #form);

WEAVE_CASE(liftplan)
WEAVE_CASE(rows_repeat)

}  // namespace
