// bench/pnm_bench.cpp: the portable bitmap loader on a 4000 x 3000 P6 file,
// beside fread of the same file into a destination of the same kind (pages
// touched before, "warm", or new, "fresh").
#include <cstdio>
#include <cstdlib>

#include "bench/bench.h"
#include "tests/support/harness.h"
#include "tests/support/pnm_writer.h"
#include "tests/support/temp_file.h"

namespace {

constexpr uint32_t kWidth = 4000, kHeight = 3000;

const vtest::TempFile& ppmFile() {
  static const vtest::TempFile f(
      vtest::PnmBuilder('6').size(kWidth, kHeight).samples([](uint32_t x, uint32_t y, uint32_t c) {
        return uint32_t(uint8_t((x * 7 + y * 13 + c * 101) ^ (x >> 3)));
      }).build(),
      ".ppm");
  return f;
}

void BM_PnmFread(benchmark::State& s, bool fresh) {
  vbench::timeFread(s, ppmFile().path(), fresh);
  vbench::megapixels(s, double(kWidth) * kHeight);
}

void BM_PnmLoad(benchmark::State& s, bool fresh) {
  vbench::timeLoad(s, 12, ppmFile().path(), fresh);
  vbench::megapixels(s, double(kWidth) * kHeight);
}

BENCHMARK_CAPTURE(BM_PnmFread, ppm_warm, false)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_PnmFread, ppm_fresh, true)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_PnmLoad, ppm_warm, false)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_PnmLoad, ppm_fresh, true)->Unit(benchmark::kMillisecond);
const bool paired = vbench::pair("BM_PnmLoad/ppm_warm", "BM_PnmFread/ppm_warm") &&
                    vbench::pair("BM_PnmLoad/ppm_fresh", "BM_PnmFread/ppm_fresh");

}  // namespace
