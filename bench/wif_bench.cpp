// bench/wif_bench.cpp: the WIF loader on a 20000-end, 20000-pick draft with
// 32 shafts and 40 treadles, beside reading the file and filling a picture
// of the same size.
//
// The reference is what any reader of the draft pays at least: the file read
// once and the 50 MB picture written once. The loader reads the file twice
// (header, then draft) and composes each row from the draft.
//  - "treadles": tie-up and treadling; 40 distinct rows, each composed once;
//  - "liftplan": the same weave as a lift plan, one line a pick;
//  - "liftplan_random": a lift plan whose picks differ, so that every row is
//    composed from the shafts' end masks.
// Each case reports the peak resident memory of the process so far; run one
// filter at a time to read it per case.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>

#include "bench/bench.h"
#include "tests/support/harness.h"
#include "tests/support/temp_file.h"
#include "tests/support/wif_writer.h"

namespace {

constexpr uint32_t kEnds = 20000, kPicks = 20000, kShafts = 32, kTreadles = 40;

const vtest::TempFile& draftFile(const std::string& form) {
  static std::map<std::string, vtest::TempFile*> files;
  vtest::TempFile*& f = files[form];
  if (!f) {
    vtest::WifDraft d = vtest::randomDraft(11, kEnds, kPicks, kShafts, kTreadles, false, false);
    if (form == "liftplan") {
      for (uint32_t p = 0; p < kPicks; ++p) d.liftPlan[p] = d.tieUp[d.treadling[p][0] - 1];
      d.liftPlanFlag = true;
    } else if (form == "liftplan_random") {
      d.liftPlanFlag = true;
    }
    f = new vtest::TempFile(vtest::wifText(d), ".wif");
  }
  return *f;
}

size_t fileSize(const char* path) { return vtest::readFile(path).size(); }

void BM_ReadAndFill(benchmark::State& s, std::string form) {
  const vtest::TempFile& f = draftFile(form);
  const size_t size = fileSize(f.path()), picture = size_t{kEnds} / 8 * kPicks;
  std::vector<uint8_t> text(size);
  vbench::Pages out(picture, 0, true);
  for (auto _ : s) {
    std::FILE* in = std::fopen(f.path(), "rb");
    benchmark::DoNotOptimize(std::fread(text.data(), 1, size, in));
    std::fclose(in);
    std::memset(out.at, 0x55, picture);
    benchmark::ClobberMemory();
  }
  vbench::megapixels(s, double(kEnds) * kPicks);
  s.counters["peak MB"] = vbench::peakResidentMegabytes();
}

void BM_WifLoad(benchmark::State& s, std::string form) {
  const vtest::TempFile& f = draftFile(form);
  const size_t picture = size_t{kEnds} / 8 * kPicks;
  vbench::Pages out(picture, 0, true);
  for (auto _ : s) {
    vload_tool::Description d;
    d.loader = vload_tool::install(22, f.path());
    if (vload_tool::describe(f.path(), d, true) != VLOAD_OK) std::abort();
    if (vload_tool::deliverAll(d, out.at, 64) != VLOAD_OK) std::abort();
    vload_tool::endLoad();
    benchmark::ClobberMemory();
  }
  vbench::megapixels(s, double(kEnds) * kPicks);
  s.counters["peak MB"] = vbench::peakResidentMegabytes();
}

#define WIF_CASE(form)                                                                        \
  BENCHMARK_CAPTURE(BM_ReadAndFill, wif_##form, #form)->Unit(benchmark::kMillisecond);        \
  BENCHMARK_CAPTURE(BM_WifLoad, wif_##form, #form)->Unit(benchmark::kMillisecond);            \
  const bool paired_##form = vbench::pair("BM_WifLoad/wif_" #form, "BM_ReadAndFill/wif_" #form);

WIF_CASE(treadles)
WIF_CASE(liftplan)
WIF_CASE(liftplan_random)

}  // namespace
