// bench/png_bench.cpp: the PNG loader beside libpng's png_read_rows of the
// same 4000 x 3000 files (RGB, palette, grey) into the same kind of buffer.
#include <png.h>

#include <csetjmp>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <vector>

#include "bench/bench.h"
#include "tests/support/harness.h"
#include "tests/support/png_writer.h"
#include "tests/support/temp_file.h"

namespace {

constexpr uint32_t kWidth = 4000, kHeight = 3000;
constexpr int32_t kPng = 2;

const vtest::TempFile& pngFile(int type) {
  static std::map<int, vtest::TempFile*> files;
  vtest::TempFile*& f = files[type];
  if (!f) {
    vtest::PngBuilder b = vtest::PngBuilder{}.size(kWidth, kHeight).type(type, 8).samples(
        [](uint32_t x, uint32_t y, int c) { return uint16_t((x * (3 + c) + y * 5) / 7 ^ (x * y >> 9)); });
    if (type == 3) {
      std::vector<uint8_t> plte;
      for (int i = 0; i < 256; ++i) plte.insert(plte.end(), {uint8_t(i), uint8_t(255 - i), uint8_t(i * 3)});
      b.palette(plte);
    }
    f = new vtest::TempFile(b.build(), ".png");
  }
  return *f;
}

// libpng alone, no transforms: rows straight into the buffer; C data only
// in this frame, as libpng may jump back into it.
bool bareRead(std::FILE* in, png_structp png, png_infop info, uint8_t* out, png_bytep* rows) {
  if (setjmp(png_jmpbuf(png))) return false;
  png_init_io(png, in);
  png_read_info(png, info);
  const size_t stride = png_get_rowbytes(png, info);
  const uint32_t height = png_get_image_height(png, info);
  for (uint32_t y = 0; y < height; ++y) rows[y] = out + y * stride;
  png_read_rows(png, rows, nullptr, height);
  png_read_end(png, nullptr);
  return true;
}

void BM_PngBare(benchmark::State& s, int type) {
  const vtest::TempFile& f = pngFile(type);
  vbench::Pages out(size_t(kWidth) * 3 * kHeight, 0, true);
  std::vector<png_bytep> rows(kHeight);
  for (auto _ : s) {
    std::FILE* in = std::fopen(f.path(), "rb");
    png_structp png = png_create_read_struct(PNG_LIBPNG_VER_STRING, nullptr, nullptr, nullptr);
    png_infop info = png_create_info_struct(png);
    if (!bareRead(in, png, info, out.at, rows.data())) std::abort();
    png_destroy_read_struct(&png, &info, nullptr);
    std::fclose(in);
    benchmark::ClobberMemory();
  }
  vbench::megapixels(s, double(kWidth) * kHeight);
}

void BM_PngLoad(benchmark::State& s, int type) {
  const vtest::TempFile& f = pngFile(type);
  vbench::Pages out(size_t(kWidth) * 3 * kHeight, 0, true);
  vload_tool::Description d;
  for (auto _ : s) {
    d.loader = vload_tool::install(kPng, f.path());
    if (vload_tool::describe(f.path(), d, true) != VLOAD_OK) std::abort();
    if (vload_tool::deliverAll(d, out.at, 64) != VLOAD_OK) std::abort();
    vload_tool::endLoad();
    benchmark::ClobberMemory();
  }
  vbench::megapixels(s, double(kWidth) * kHeight);
}

#define PNG_CASES(name, type)                                                                  \
  BENCHMARK_CAPTURE(BM_PngBare, name, type)->Unit(benchmark::kMillisecond);                    \
  BENCHMARK_CAPTURE(BM_PngLoad, name, type)->Unit(benchmark::kMillisecond);                    \
  const bool paired_##name = vbench::pair("BM_PngLoad/" #name, "BM_PngBare/" #name);

PNG_CASES(png_rgb, 2)
PNG_CASES(png_palette, 3)
PNG_CASES(png_grey, 0)

}  // namespace
