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

size_t fileSize(const char* path) { return vtest::readFile(path).size(); }

void BM_PcxFread(benchmark::State& s, const char* name) {
  const vtest::TempFile& f = pcxFile(name);
  const size_t size = fileSize(f.path());
  vbench::Pages warm(size, 0, true);
  for (auto _ : s) {
    std::FILE* in = std::fopen(f.path(), "rb");
    benchmark::DoNotOptimize(std::fread(warm.at, 1, size, in));
    std::fclose(in);
    benchmark::ClobberMemory();
  }
  s.SetBytesProcessed(int64_t(s.iterations() * size));
  vbench::megapixels(s, double(kWidth) * kHeight);
}

void BM_PcxLoad(benchmark::State& s, const char* name) {
  const vtest::TempFile& f = pcxFile(name);
  vload_tool::Description d;
  d.loader = vload_tool::install(3, f.path());
  if (vload_tool::describe(f.path(), d, true) != VLOAD_OK) std::abort();
  vload_tool::endLoad();
  vbench::Pages warm(vload_tool::imageBytes(d), 0, true);
  for (auto _ : s) {
    vload_tool::install(3, f.path());
    if (vload_tool::describe(f.path(), d, true) != VLOAD_OK) std::abort();
    if (vload_tool::deliverAll(d, warm.at, 64) != VLOAD_OK) std::abort();
    vload_tool::endLoad();
    benchmark::ClobberMemory();
  }
  s.SetBytesProcessed(int64_t(s.iterations() * fileSize(f.path())));
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
