// bench/drape_bench.cpp: a drape project holding a 4000 x 3000 start image
// beside loading the same image file directly with its own loader, both in
// bands of 64 rows. The project costs a copy of the embedded file into an
// anonymous file, the inner loader's reading of it, and the held picture:
// new pages (huge ones where the kernel gives them) and a copy out of it.
// The TIFF (LZW, which this pattern makes larger than the raw pixels) shows
// the copy of a big embedded file; the lossy WebP a small one. The JPEG case
// runs once the JPEG loader is available.
#include <tiffio.h>

#include <cstdlib>
#include <map>
#include <string>

#include "bench/bench.h"
#include "framework/catalogue.h"
#include "tests/support/drape_writer.h"
#include "tests/support/harness.h"
#include "tests/support/jpeg_writer.h"
#include "tests/support/temp_file.h"
#include "tests/support/tiff_writer.h"
#include "tests/support/webp_writer.h"

namespace {

constexpr uint32_t kWidth = 4000, kHeight = 3000;

uint8_t pattern(uint32_t x, uint32_t y, uint32_t c) { return uint8_t((x * 7 + y * 13 + c * 101) ^ (x >> 3)); }

vtest::Bytes startImage(int32_t loader) {
  if (loader == 4)
    return vtest::JpegBuilder{}.size(kWidth, kHeight).quality(75).samples([](uint32_t x, uint32_t y, int c) {
      return pattern(x, y, uint32_t(c));
    }).build();
  if (loader == 6) {
    vtest::WebpPicture s;
    s.width = kWidth;
    s.height = kHeight;
    s.lossless = false;
    s.pixel = [](uint32_t x, uint32_t y, int c) { return pattern(x, y, uint32_t(c)); };
    return vtest::webpFile(s);
  }
  vtest::TiffPicture s;
  s.width = kWidth;
  s.height = kHeight;
  s.rowsPerStrip = 8;
  s.compression = COMPRESSION_LZW;
  s.sample = pattern;
  return vtest::tiffFile(s);
}

// The image file alone and the project that holds it.
const std::pair<vtest::TempFile*, vtest::TempFile*>& files(int32_t loader) {
  static std::map<int32_t, std::pair<vtest::TempFile*, vtest::TempFile*>> all;
  auto& f = all[loader];
  if (!f.first) {
    const vtest::Bytes image = startImage(loader);
    f.first = new vtest::TempFile(image, ".img");
    f.second = new vtest::TempFile(vtest::DrapeBuilder{}.region(100, 50, 50).startImage(image).build(), ".drape");
  }
  return f;
}

void BM_DrapeStartImage(benchmark::State& s, int32_t loader, bool inProject) {
  if (!ldr::loaderInfo(loader)->available) {
    s.SkipWithError("the start image's loader is not available in this build");
    return;
  }
  const vtest::TempFile& f = inProject ? *files(loader).second : *files(loader).first;
  vbench::Pages picture(size_t{kWidth} * kHeight * 3, 0, true);
  vload_tool::Description d;
  for (auto _ : s) {
    d.loader = vload_tool::install(inProject ? 40 : loader, f.path());
    if (vload_tool::describe(f.path(), d, true) != VLOAD_OK) std::abort();
    if (vload_tool::deliverAll(d, picture.at, 64) != VLOAD_OK) std::abort();
    vload_tool::endLoad();
    benchmark::ClobberMemory();
  }
  vbench::megapixels(s, double(kWidth) * kHeight);
}

BENCHMARK_CAPTURE(BM_DrapeStartImage, tiff_lzw_direct, 5, false)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_DrapeStartImage, tiff_lzw_in_project, 5, true)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_DrapeStartImage, webp_lossy_direct, 6, false)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_DrapeStartImage, webp_lossy_in_project, 6, true)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_DrapeStartImage, jpeg_direct, 4, false)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_DrapeStartImage, jpeg_in_project, 4, true)->Unit(benchmark::kMillisecond);
const bool paired = vbench::pair("BM_DrapeStartImage/tiff_lzw_in_project", "BM_DrapeStartImage/tiff_lzw_direct") &&
                    vbench::pair("BM_DrapeStartImage/webp_lossy_in_project", "BM_DrapeStartImage/webp_lossy_direct") &&
                    vbench::pair("BM_DrapeStartImage/jpeg_in_project", "BM_DrapeStartImage/jpeg_direct");

}  // namespace
