// bench/psd_bench.cpp: the Photoshop document loader on 4000 x 3000 RGB
// documents, uncompressed and PackBits, each beside fread of the same file
// into a warm destination. The pixels vary like a photograph's, so PackBits
// gains nothing and the decoder works on literal runs throughout.
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

void BM_PsdFread(benchmark::State& s, bool packBits) {
  vbench::timeFread(s, psdFile(packBits).path(), false);
  vbench::megapixels(s, double(kWidth) * kHeight);
}

void BM_PsdLoad(benchmark::State& s, bool packBits) {
  vbench::timeLoad(s, 76, psdFile(packBits).path(), false);
  vbench::megapixels(s, double(kWidth) * kHeight);
}

BENCHMARK_CAPTURE(BM_PsdFread, psd_raw, false)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_PsdFread, psd_packbits, true)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_PsdLoad, psd_raw, false)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_PsdLoad, psd_packbits, true)->Unit(benchmark::kMillisecond);
const bool paired = vbench::pair("BM_PsdLoad/psd_raw", "BM_PsdFread/psd_raw") &&
                    vbench::pair("BM_PsdLoad/psd_packbits", "BM_PsdFread/psd_packbits");

}  // namespace
