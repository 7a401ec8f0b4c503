// bench/tiff_bench.cpp: the TIFF loader on a 4000 x 3000 RGB picture in
// strips of 8 rows, uncompressed and LZW, beside libtiff alone reading the
// same file strip by strip into one buffer (TIFFReadEncodedStrip, the
// library's fastest plain use). Both write into a destination touched before.
#include <tiffio.h>

#include <cstdlib>
#include <map>

#include "bench/bench.h"
#include "tests/support/harness.h"
#include "tests/support/temp_file.h"
#include "tests/support/tiff_writer.h"

namespace {

constexpr uint32_t kWidth = 4000, kHeight = 3000;

const vtest::TempFile& tiffFile(uint16_t compression) {
  static std::map<uint16_t, vtest::TempFile*> files;
  vtest::TempFile*& f = files[compression];
  if (!f) {
    vtest::TiffPicture s;
    s.width = kWidth;
    s.height = kHeight;
    s.rowsPerStrip = 8;
    s.compression = compression;
    s.sample = [](uint32_t x, uint32_t y, uint32_t c) { return (x * 7 + y * 13 + c * 101) ^ (x >> 3); };
    f = new vtest::TempFile(vtest::tiffFile(s), ".tif");
  }
  return *f;
}

void BM_Libtiff(benchmark::State& s, uint16_t compression, const char* mode) {
  const vtest::TempFile& f = tiffFile(compression);
  vbench::Pages picture(size_t{kWidth} * kHeight * 3, 0, true);
  for (auto _ : s) {
    TIFF* tif = TIFFOpen(f.path(), mode);
    uint8_t* at = picture.at;
    for (uint32_t strip = 0; strip < TIFFNumberOfStrips(tif); ++strip) {
      const tmsize_t got = TIFFReadEncodedStrip(tif, strip, at, -1);
      if (got < 0) std::abort();
      at += got;
    }
    TIFFClose(tif);
    benchmark::ClobberMemory();
  }
  vbench::megapixels(s, double(kWidth) * kHeight);
}

void BM_TiffLoad(benchmark::State& s, uint16_t compression) {
  const vtest::TempFile& f = tiffFile(compression);
  vbench::Pages picture(size_t{kWidth} * kHeight * 3, 0, true);
  vload_tool::Description d;
  for (auto _ : s) {
    d.loader = vload_tool::install(5, f.path());
    if (vload_tool::describe(f.path(), d, true) != VLOAD_OK) std::abort();
    if (vload_tool::deliverAll(d, picture.at, 64) != VLOAD_OK) std::abort();
    vload_tool::endLoad();
    benchmark::ClobberMemory();
  }
  vbench::megapixels(s, double(kWidth) * kHeight);
}

#define TIFF_CASES(name, compression)                                                                  \
  BENCHMARK_CAPTURE(BM_Libtiff, name##_mapped, compression, "r")->Unit(benchmark::kMillisecond);       \
  BENCHMARK_CAPTURE(BM_Libtiff, name##_read, compression, "rm")->Unit(benchmark::kMillisecond);        \
  BENCHMARK_CAPTURE(BM_TiffLoad, name, compression)->Unit(benchmark::kMillisecond);                    \
  const bool paired_##name = vbench::pair("BM_TiffLoad/" #name, "BM_Libtiff/" #name "_mapped") &&       \
                             vbench::pair("BM_TiffLoad/" #name, "BM_Libtiff/" #name "_read");

TIFF_CASES(tiff_rgb, COMPRESSION_NONE)
TIFF_CASES(tiff_rgb_lzw, COMPRESSION_LZW)

}  // namespace
