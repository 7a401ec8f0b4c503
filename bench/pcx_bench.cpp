// bench/pcx_bench.cpp: the PCX loader beside fread of the same file, 4000 x
// 3000, into a warm picture buffer.
//  - pcx8_blocks: 8 bits, runs of 8 pixels (flat design areas);
//  - pcx8_noise: 8 bits, every byte different: literals, and two-byte runs of
//    one for the quarter of the values whose top bits are both set;
//  - pcx24_blocks: 8 bits in three planes; the load scans the data once to
//    find the brightest byte, then decodes it again band by band.
#include <cstdio>
#include <cstdlib>
#include <map>
#include <string>

#include "bench/bench.h"
#include "tests/support/harness.h"
#include "tests/support/pcx_writer.h"
#include "tests/support/temp_file.h"

namespace {

constexpr uint32_t kWidth = 4000, kHeight = 3000;

uint8_t blocks(uint32_t x, uint32_t y, uint32_t p) { return uint8_t(((x / 8) ^ (y / 8)) * 37 + p * 50); }
uint8_t noise(uint32_t x, uint32_t y, uint32_t p) {
  uint32_t h = x * 0x9E3779B1u ^ (y + 0x7F4A7C15u) * 0x85EBCA6Bu ^ p;
  h ^= h >> 15;
  return uint8_t(h * 0x2C1B3C6Du >> 24);
}

const vtest::TempFile& pcxFile(const std::string& name) {
  static std::map<std::string, vtest::TempFile*> files;
  vtest::TempFile*& f = files[name];
  if (!f) {
    vtest::PcxBuilder b = vtest::PcxBuilder{}.size(kWidth, kHeight).pixels(name == "pcx8_noise" ? noise : blocks);
    if (name == "pcx24_blocks") b.depth(8, 3);
    f = new vtest::TempFile(b.build(), ".pcx");
  }
  return *f;
}

void BM_PcxFread(benchmark::State& s, const char* name) {
  vbench::timeFread(s, pcxFile(name).path(), false);
  vbench::megapixels(s, double(kWidth) * kHeight);
}

void BM_PcxLoad(benchmark::State& s, const char* name) {
  vbench::timeLoad(s, 3, pcxFile(name).path(), false);
  vbench::megapixels(s, double(kWidth) * kHeight);
}

#define PCX_CASES(name)                                                                      \
  BENCHMARK_CAPTURE(BM_PcxFread, name, #name)->Unit(benchmark::kMillisecond);                \
  BENCHMARK_CAPTURE(BM_PcxLoad, name, #name)->Unit(benchmark::kMillisecond);                 \
  const bool paired_##name = vbench::pair("BM_PcxLoad/" #name, "BM_PcxFread/" #name);

PCX_CASES(pcx8_blocks)
PCX_CASES(pcx8_noise)
PCX_CASES(pcx24_blocks)

}  // namespace
