// bench/psd_bench.cpp: the Photoshop document loader on 4000 x 3000 RGB
// documents, uncompressed and PackBits, each beside fread of the same file
// into a destination of the same kind (pages touched before, "warm", or new,
// "fresh"). The pixels vary like a photograph's, so PackBits gains nothing
// and the decoder works on literal runs throughout.
#include <cstdio>
#include <cstdlib>

#include "bench/bench.h"
#include "tests/support/harness.h"
#include "tests/support/psd_writer.h"
#include "tests/support/temp_file.h"

namespace {

constexpr uint32_t kWidth = 4000, kHeight = 3000;

vtest::Bytes photoLike(bool packBits) {
  return vtest::PsdBuilder{}.size(kWidth, kHeight).packed(packBits).samples(
      [](uint32_t x, uint32_t y, uint32_t c) { return uint32_t(uint8_t((x * 7 + y * 13 + c * 101) ^ (x >> 3))); })
      .build();
}

const vtest::TempFile& psdFile(bool packBits) {
  static const vtest::TempFile raw(photoLike(false), ".psd"), packed(photoLike(true), ".psd");
  return packBits ? packed : raw;
}

void BM_PsdFread(benchmark::State& s, bool packBits, bool fresh) {
  vbench::timeFread(s, psdFile(packBits).path(), fresh);
  vbench::megapixels(s, double(kWidth) * kHeight);
}

void BM_PsdLoad(benchmark::State& s, bool packBits, bool fresh) {
  vbench::timeLoad(s, 76, psdFile(packBits).path(), fresh);
  vbench::megapixels(s, double(kWidth) * kHeight);
}

#define PSD_CASES(name, packBits)                                                                      \
  BENCHMARK_CAPTURE(BM_PsdFread, name##_warm, packBits, false)->Unit(benchmark::kMillisecond);         \
  BENCHMARK_CAPTURE(BM_PsdFread, name##_fresh, packBits, true)->Unit(benchmark::kMillisecond);         \
  BENCHMARK_CAPTURE(BM_PsdLoad, name##_warm, packBits, false)->Unit(benchmark::kMillisecond);          \
  BENCHMARK_CAPTURE(BM_PsdLoad, name##_fresh, packBits, true)->Unit(benchmark::kMillisecond);          \
  const bool paired_##name = vbench::pair("BM_PsdLoad/" #name "_warm", "BM_PsdFread/" #name "_warm") && \
                             vbench::pair("BM_PsdLoad/" #name "_fresh", "BM_PsdFread/" #name "_fresh");

PSD_CASES(psd_raw, false)
PSD_CASES(psd_packbits, true)

}  // namespace
