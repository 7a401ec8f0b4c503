// bench/jpeg_bench.cpp: the JPEG loader beside libjpeg's own scanline decode
// of the same 4000 x 3000 RGB file into the same kind of buffer.
#include <algorithm>
#include <cstdio>
#include <cstdlib>

#include <jpeglib.h>

#include "bench/bench.h"
#include "tests/support/harness.h"
#include "tests/support/jpeg_writer.h"
#include "tests/support/temp_file.h"

namespace {

constexpr uint32_t kWidth = 4000, kHeight = 3000;
constexpr int32_t kJpeg = 4;

const vtest::TempFile& jpegFile() {
  static const vtest::TempFile* f = new vtest::TempFile(
      vtest::JpegBuilder{}.size(kWidth, kHeight).quality(90).samples([](uint32_t x, uint32_t y, int c) {
        return uint8_t((x * (3 + c) + y * 5) / 7 ^ (x * y >> 9));
      }).build(), ".jpg");
  return *f;
}

// libjpeg alone: stdio source, RGB out, rows straight into the buffer.
void bareDecode(const char* path, uint8_t* out) {
  std::FILE* in = std::fopen(path, "rb");
  jpeg_decompress_struct c{};
  jpeg_error_mgr err{};
  c.err = jpeg_std_error(&err);
  jpeg_create_decompress(&c);
  jpeg_stdio_src(&c, in);
  jpeg_read_header(&c, TRUE);
  c.out_color_space = JCS_RGB;
  jpeg_start_decompress(&c);
  const size_t stride = size_t(c.output_width) * 3;
  while (c.output_scanline < c.output_height) {
    JSAMPROW rows[16];
    for (int i = 0; i < 16; ++i) rows[i] = out + (c.output_scanline + i) * stride;
    jpeg_read_scanlines(&c, rows, std::min<JDIMENSION>(16, c.output_height - c.output_scanline));
  }
  jpeg_finish_decompress(&c);
  jpeg_destroy_decompress(&c);
  std::fclose(in);
}

void BM_JpegBare(benchmark::State& s) {
  const vtest::TempFile& f = jpegFile();
  vbench::Pages out(size_t(kWidth) * 3 * kHeight, 0, true);
  for (auto _ : s) {
    bareDecode(f.path(), out.at);
    benchmark::ClobberMemory();
  }
  vbench::megapixels(s, double(kWidth) * kHeight);
}

void BM_JpegLoad(benchmark::State& s) {
  const vtest::TempFile& f = jpegFile();
  vbench::Pages out(size_t(kWidth) * 3 * kHeight, 0, true);
  vload_tool::Description d;
  for (auto _ : s) {
    d.loader = vload_tool::install(kJpeg, f.path());
    if (vload_tool::describe(f.path(), d, true) != VLOAD_OK) std::abort();
    if (vload_tool::deliverAll(d, out.at, 64) != VLOAD_OK) std::abort();
    vload_tool::endLoad();
    benchmark::ClobberMemory();
  }
  vbench::megapixels(s, double(kWidth) * kHeight);
}

BENCHMARK(BM_JpegBare)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_JpegLoad)->Unit(benchmark::kMillisecond);
const bool paired = vbench::pair("BM_JpegLoad", "BM_JpegBare");

}  // namespace
