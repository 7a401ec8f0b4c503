// bench/bmp_bench.cpp: the BMP loader beside fread of the same file.
//
// fread is the limit any reader of a file meets. Two things move that limit
// on these machines, so the names say which case is timed:
//  - "aligned": the destination address equals the file offset modulo 4096,
//    so the kernel copies page onto page; "skewed": they differ by a few
//    bytes (the 54-byte header), which can make the copy several times slower;
//  - "warm": the destination was touched before; "fresh": new pages each
//    time, paying for the page faults.
// The loader writes into a warm destination, like a host that reuses its
// picture buffer, or a fresh one, like a host that allocates per picture.
#include <cstdio>
#include <cstdlib>
#include <map>

#include "bench/bench.h"
#include "tests/support/bmp_writer.h"
#include "tests/support/harness.h"
#include "tests/support/temp_file.h"

namespace {

constexpr uint32_t kWidth = 4000, kHeight = 3000;

const vtest::TempFile& bmpFile(uint16_t bits) {
  static std::map<uint16_t, vtest::TempFile*> files;
  vtest::TempFile*& f = files[bits];
  if (!f) {
    vtest::BmpBuilder b = vtest::BmpBuilder{}.size(kWidth, kHeight).bits(bits).pixels(
        [](uint32_t x, uint32_t y, int c) { return uint8_t((x * 7 + y * 13 + c * 101) ^ (x >> 3)); });
    if (bits == 8) b.palette(vtest::greyRamp(256));
    f = new vtest::TempFile(b.build(), ".bmp");
  }
  return *f;
}

void BM_Fread(benchmark::State& s, uint16_t bits, bool aligned, bool fresh) {
  vbench::timeFread(s, bmpFile(bits).path(), fresh, aligned ? 0 : 54);
  vbench::megapixels(s, double(kWidth) * kHeight);
}

void BM_BmpLoad(benchmark::State& s, uint16_t bits, bool fresh) {
  vbench::timeLoad(s, 24, bmpFile(bits).path(), fresh);
  vbench::megapixels(s, double(kWidth) * kHeight);
}

#define BMP_CASES(bits)                                                                          \
  BENCHMARK_CAPTURE(BM_Fread, bmp##bits##_aligned_warm, bits, true, false)->Unit(benchmark::kMillisecond); \
  BENCHMARK_CAPTURE(BM_Fread, bmp##bits##_skewed_warm, bits, false, false)->Unit(benchmark::kMillisecond); \
  BENCHMARK_CAPTURE(BM_Fread, bmp##bits##_aligned_fresh, bits, true, true)->Unit(benchmark::kMillisecond); \
  BENCHMARK_CAPTURE(BM_BmpLoad, bmp##bits##_warm, bits, false)->Unit(benchmark::kMillisecond);     \
  BENCHMARK_CAPTURE(BM_BmpLoad, bmp##bits##_fresh, bits, true)->Unit(benchmark::kMillisecond);     \
  const bool paired##bits = vbench::pair("BM_BmpLoad/bmp" #bits "_warm", "BM_Fread/bmp" #bits "_aligned_warm") && \
                            vbench::pair("BM_BmpLoad/bmp" #bits "_fresh", "BM_Fread/bmp" #bits "_aligned_fresh");

BMP_CASES(24)
BMP_CASES(8)

}  // namespace
