// bench/webp_bench.cpp: the WebP loader on a 4000 x 3000 picture, lossy and
// lossless, beside libwebp decoding the whole file in one call into a buffer
// of the same layout (WebPDecodeRGBInto). Both write into a destination
// touched before; the loader also reads the file, libwebp gets it in memory.
// The loader is asked for the whole picture in one call ("whole"), which it
// decodes straight into the destination, or in bands of 64 rows ("bands"),
// which it copies out of a window of a few MiB that the decoder's rows pass
// through: that copy is most of the difference. The lossless picture is
// small (47 KB) and fast to decode, so any pass over its 36 MB of pixels
// weighs most there.
#include <webp/decode.h>

#include <cstdlib>
#include <map>

#include "bench/bench.h"
#include "tests/support/harness.h"
#include "tests/support/temp_file.h"
#include "tests/support/webp_writer.h"

namespace {

constexpr uint32_t kWidth = 4000, kHeight = 3000;

const vtest::TempFile& webpFile(bool lossless) {
  static std::map<bool, vtest::TempFile*> files;
  vtest::TempFile*& f = files[lossless];
  if (!f) {
    vtest::WebpPicture s;
    s.width = kWidth;
    s.height = kHeight;
    s.lossless = lossless;
    s.pixel = [](uint32_t x, uint32_t y, int c) { return uint8_t((x * 7 + y * 13 + c * 101) ^ (x >> 3)); };
    f = new vtest::TempFile(vtest::webpFile(s), ".webp");
  }
  return *f;
}

void BM_Libwebp(benchmark::State& s, bool lossless) {
  const vtest::Bytes file = vtest::readFile(webpFile(lossless).path());
  const size_t bytes = size_t{kWidth} * kHeight * 3;
  vbench::Pages picture(bytes, 0, true);
  for (auto _ : s) {
    if (!WebPDecodeRGBInto(file.data(), file.size(), picture.at, bytes, int(kWidth) * 3)) std::abort();
    benchmark::ClobberMemory();
  }
  vbench::megapixels(s, double(kWidth) * kHeight);
}

void BM_WebpLoad(benchmark::State& s, bool lossless, uint32_t band) {
  const vtest::TempFile& f = webpFile(lossless);
  vbench::Pages picture(size_t{kWidth} * kHeight * 3, 0, true);
  vload_tool::Description d;
  for (auto _ : s) {
    d.loader = vload_tool::install(6, f.path());
    if (vload_tool::describe(f.path(), d, true) != VLOAD_OK) std::abort();
    if (vload_tool::deliverAll(d, picture.at, band) != VLOAD_OK) std::abort();
    vload_tool::endLoad();
    benchmark::ClobberMemory();
  }
  vbench::megapixels(s, double(kWidth) * kHeight);
}

#define WEBP_CASES(name, lossless)                                                                      \
  BENCHMARK_CAPTURE(BM_Libwebp, name, lossless)->Unit(benchmark::kMillisecond);                         \
  BENCHMARK_CAPTURE(BM_WebpLoad, name##_whole, lossless, 0)->Unit(benchmark::kMillisecond);             \
  BENCHMARK_CAPTURE(BM_WebpLoad, name##_bands, lossless, 64)->Unit(benchmark::kMillisecond);            \
  const bool paired_##name = vbench::pair("BM_WebpLoad/" #name "_whole", "BM_Libwebp/" #name) &&        \
                             vbench::pair("BM_WebpLoad/" #name "_bands", "BM_Libwebp/" #name);

WEBP_CASES(webp_lossy, false)
WEBP_CASES(webp_lossless, true)

}  // namespace
