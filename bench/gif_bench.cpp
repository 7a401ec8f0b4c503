// bench/gif_bench.cpp: the GIF loader beside giflib's line-by-line decoding
// (DGifGetLine) of the same file, both into a warm picture buffer.
//  - weave: 8000 x 6000, 16 colours in twill blocks: long strings;
//  - noise: 4000 x 3000, 256 colours at random: strings of one to three
//    pixels, the table cleared every few thousand codes.
// "unwinding" is the loader with its fallback decoder alone.
#include <cstdlib>
#include <map>

#include "bench/bench.h"
#include "raster/gif_lzw.h"
#include "tests/support/gif_writer.h"
#include "tests/support/giflib_reader.h"
#include "tests/support/harness.h"
#include "tests/support/temp_file.h"

namespace {

struct Picture {
  uint32_t width, height, bits;
  uint8_t (*pixel)(uint32_t x, uint32_t y);
};

uint8_t weave(uint32_t x, uint32_t y) {
  const bool warpUp = (x / 6 + y / 6) % 4 < 2;  // a 2/2 twill in 6-pixel cells
  return uint8_t(warpUp ? x / 48 % 8 : 8 + y / 36 % 8);
}

uint8_t noise(uint32_t x, uint32_t y) {
  uint32_t h = x * 0x9E3779B1u ^ (y + 0x7F4A7C15u) * 0x85EBCA6Bu;
  h ^= h >> 15;
  return uint8_t(h * 0x2C1B3C6Du >> 24);
}

const Picture kWeave{8000, 6000, 4, weave}, kNoise{4000, 3000, 8, noise};

const vtest::TempFile& gifFile(const Picture& p) {
  static std::map<const Picture*, vtest::TempFile*> files;
  vtest::TempFile*& f = files[&p];
  if (!f)
    f = new vtest::TempFile(vtest::GifBuilder{}.size(p.width, p.height).colourBits(p.bits).pixels(p.pixel).build(),
                            ".gif");
  return *f;
}

void BM_Giflib(benchmark::State& s, const Picture* p) {
  const vtest::TempFile& f = gifFile(*p);
  const uint64_t pixels = uint64_t{p->width} * p->height;
  vbench::Pages warm(pixels, 0, true);
  for (auto _ : s) {
    if (!vtest::giflibDecodeInto(f.path(), warm.at, pixels)) std::abort();
    benchmark::ClobberMemory();
  }
  s.SetBytesProcessed(int64_t(s.iterations() * vtest::readFile(f.path()).size()));
  vbench::megapixels(s, double(pixels));
}

void BM_GifLoad(benchmark::State& s, const Picture* p, bool unwinding) {
  const vtest::TempFile& f = gifFile(*p);
  const uint64_t pixels = uint64_t{p->width} * p->height;
  vbench::Pages warm(pixels, 0, true);
  ldr::setGifUnwindingOnly(unwinding);
  for (auto _ : s) {
    vload_tool::Description d;
    d.loader = vload_tool::install(1, f.path());
    if (vload_tool::describe(f.path(), d, true) != VLOAD_OK) std::abort();
    if (vload_tool::deliverAll(d, warm.at, 64) != VLOAD_OK) std::abort();
    vload_tool::endLoad();
    benchmark::ClobberMemory();
  }
  ldr::setGifUnwindingOnly(false);
  s.SetBytesProcessed(int64_t(s.iterations() * vtest::readFile(f.path()).size()));
  vbench::megapixels(s, double(pixels));
}

#define GIF_CASES(name, picture)                                                                         \
  BENCHMARK_CAPTURE(BM_Giflib, name, &picture)->Unit(benchmark::kMillisecond);                            \
  BENCHMARK_CAPTURE(BM_GifLoad, name, &picture, false)->Unit(benchmark::kMillisecond);                    \
  BENCHMARK_CAPTURE(BM_GifLoad, name##_unwinding, &picture, true)->Unit(benchmark::kMillisecond);         \
  const bool paired_##name = vbench::pair("BM_GifLoad/" #name, "BM_Giflib/" #name) &&                    \
                             vbench::pair("BM_GifLoad/" #name "_unwinding", "BM_Giflib/" #name);

GIF_CASES(gif_weave, kWeave)
GIF_CASES(gif_noise, kNoise)

}  // namespace
