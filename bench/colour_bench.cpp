// bench/colour_bench.cpp: the colour tools on a 4000 x 3000 photo-like
// picture, beside libimagequant at its fastest speed setting (10) on the
// same picture, and the remapper beside one plain pass over the same memory.
//
// Every case also reports "MSE": the mean squared error per channel of its
// result against the source (for the halved picture, against the source
// scaled the same way), so that speed is never bought with quality unnoticed.
// Cases named "plain" run the code that processors without AVX-512 get.
// libimagequant reads RGBA only: it gets the same pixels with alpha 255,
// converted once, outside the timing.
#include <libimagequant.h>

#include <cstdlib>
#include <vector>

#include "bench/bench.h"
#include "colour/colour.h"
#include "tests/support/colour_pictures.h"
#include "vload.h"

namespace {

constexpr int32_t kWidth = 4000, kHeight = 3000;
constexpr double kPixels = double(kWidth) * kHeight;

const vtest::Bytes& photo(int32_t channels) {
  static vtest::Bytes rgb = vtest::photoLike(kWidth, kHeight, 3, 1);
  static vtest::Bytes rgba;
  if (channels == 4 && rgba.empty()) {
    rgba.resize(size_t(kWidth) * kHeight * 4);
    for (size_t i = 0, n = size_t(kWidth) * kHeight; i < n; ++i) {
      for (int c = 0; c < 3; ++c) rgba[4 * i + c] = rgb[3 * i + c];
      rgba[4 * i + 3] = 255;
    }
  }
  return channels == 4 ? rgba : rgb;
}

// Mean squared error per channel of an index picture of w x h against the
// source scaled to that size by nearest neighbour.
double meanSquaredError(const std::vector<uint8_t>& indices, int32_t w, int32_t h,
                        const uint8_t* map) {
  const vtest::Bytes& src = photo(3);
  double sum = 0;
  for (int32_t y = 0; y < h; ++y)
    for (int32_t x = 0; x < w; ++x) {
      const uint8_t* p = &src[(size_t(y * int64_t(kHeight) / h) * kWidth + size_t(x * int64_t(kWidth) / w)) * 3];
      const uint8_t* e = map + 3 * indices[size_t(y) * size_t(w) + size_t(x)];
      for (int c = 0; c < 3; ++c) sum += double(p[c] - e[c]) * double(p[c] - e[c]);
    }
  return sum / (3.0 * w * h);
}

struct Palette {
  uint8_t map[768] = {};
  int32_t count = 256;
};

const Palette& palette256() {
  static Palette p = [] {
    Palette q;
    std::vector<uint8_t> indices(size_t(kWidth) * kHeight);
    colorQuantize(photo(3).data(), kWidth * 3, indices.data(), kWidth, kWidth, kHeight, q.map, &q.count);
    return q;
  }();
  return p;
}

// The code path of one case (per thread, as the tools read it).
struct Path {
  explicit Path(bool plain) {
    ldr::colour::forceColourPath(plain ? ldr::colour::ColourPath::Plain : ldr::colour::ColourPath::Auto);
  }
  ~Path() { ldr::colour::forceColourPath(ldr::colour::ColourPath::Auto); }
};

void finish(benchmark::State& s, const std::vector<uint8_t>& indices, int32_t w, int32_t h,
            const uint8_t* map) {
  vbench::megapixels(s, kPixels);
  s.counters["MSE"] = meanSquaredError(indices, w, h, map);
}

void BM_Quantize(benchmark::State& s, int32_t colours) {
  const vtest::Bytes& src = photo(3);
  std::vector<uint8_t> indices(size_t(kWidth) * kHeight);
  Palette p;
  for (auto _ : s) {
    p.count = colours;
    colorQuantize(src.data(), kWidth * 3, indices.data(), kWidth, kWidth, kHeight, p.map, &p.count);
    benchmark::ClobberMemory();
  }
  finish(s, indices, kWidth, kHeight, p.map);
  s.counters["colours"] = p.count;
}

void BM_Dither(benchmark::State& s, int32_t divisor, bool plain) {
  const vtest::Bytes& src = photo(3);
  const Palette& p = palette256();
  const Path path(plain);
  const int32_t w = kWidth / divisor, h = kHeight / divisor;
  std::vector<uint8_t> indices(size_t(w) * h);
  for (auto _ : s) {
    colorQuantizeDitherFS(src.data(), kWidth * 3, indices.data(), w, kWidth, kHeight, w, h, p.map,
                          p.count, 16, 0);
    benchmark::ClobberMemory();
  }
  finish(s, indices, w, h, p.map);
}

void BM_QuantizeDither(benchmark::State& s) {
  const vtest::Bytes& src = photo(3);
  std::vector<uint8_t> indices(size_t(kWidth) * kHeight);
  Palette p;
  for (auto _ : s) {
    p.count = 256;
    colorQuantize(src.data(), kWidth * 3, indices.data(), kWidth, kWidth, kHeight, p.map, &p.count);
    colorQuantizeDitherFS(src.data(), kWidth * 3, indices.data(), kWidth, kWidth, kHeight, kWidth,
                          kHeight, p.map, p.count, 16, 0);
    benchmark::ClobberMemory();
  }
  finish(s, indices, kWidth, kHeight, p.map);
}

void BM_Remap(benchmark::State& s, int32_t noise, bool plain) {
  const vtest::Bytes& src = photo(3);
  const Palette& p = palette256();
  const Path path(plain);
  std::vector<uint8_t> indices(size_t(kWidth) * kHeight);
  for (auto _ : s) {
    trueColorRemapToCmap(src.data(), kWidth * 3, indices.data(), kWidth, kWidth, kHeight, p.map,
                         p.count, noise);
    benchmark::ClobberMemory();
  }
  finish(s, indices, kWidth, kHeight, p.map);
}

// The least a remapper must do: read every pixel and write one byte for it.
void BM_MemoryPass(benchmark::State& s) {
  const vtest::Bytes& src = photo(3);
  std::vector<uint8_t> out(size_t(kWidth) * kHeight);
  for (auto _ : s) {
    const uint8_t* p = src.data();
    for (size_t i = 0, n = out.size(); i < n; ++i, p += 3) out[i] = uint8_t(p[0] ^ p[1] ^ p[2]);
    benchmark::ClobberMemory();
  }
  vbench::megapixels(s, kPixels);
}

void BM_Imagequant(benchmark::State& s, bool dither) {
  const vtest::Bytes& src = photo(4);
  std::vector<uint8_t> indices(size_t(kWidth) * kHeight);
  uint8_t map[768] = {};
  for (auto _ : s) {
    liq_attr* attr = liq_attr_create();
    liq_set_speed(attr, 10);
    liq_set_max_colors(attr, 256);
    liq_image* image = liq_image_create_rgba(attr, src.data(), kWidth, kHeight, 0);
    liq_result* result = nullptr;
    if (!image || liq_image_quantize(image, attr, &result) != LIQ_OK) std::abort();
    liq_set_dithering_level(result, dither ? 1.0f : 0.0f);
    if (liq_write_remapped_image(result, image, indices.data(), indices.size()) != LIQ_OK) std::abort();
    const liq_palette* pal = liq_get_palette(result);
    for (unsigned i = 0; i < pal->count; ++i) {
      map[3 * i] = pal->entries[i].r;
      map[3 * i + 1] = pal->entries[i].g;
      map[3 * i + 2] = pal->entries[i].b;
    }
    liq_result_destroy(result);
    liq_image_destroy(image);
    liq_attr_destroy(attr);
    benchmark::ClobberMemory();
  }
  finish(s, indices, kWidth, kHeight, map);
}

#define COLOUR_CASE(...) __VA_ARGS__->Unit(benchmark::kMillisecond)->UseRealTime()
COLOUR_CASE(BENCHMARK_CAPTURE(BM_Quantize, colours256, 256));
COLOUR_CASE(BENCHMARK_CAPTURE(BM_Quantize, colours16, 16));
COLOUR_CASE(BENCHMARK_CAPTURE(BM_Dither, same_size, 1, false));
COLOUR_CASE(BENCHMARK_CAPTURE(BM_Dither, same_size_plain, 1, true));
COLOUR_CASE(BENCHMARK_CAPTURE(BM_Dither, half_size, 2, false));
COLOUR_CASE(BENCHMARK(BM_QuantizeDither));
COLOUR_CASE(BENCHMARK_CAPTURE(BM_Remap, noise0, 0, false));
COLOUR_CASE(BENCHMARK_CAPTURE(BM_Remap, noise0_plain, 0, true));
COLOUR_CASE(BENCHMARK_CAPTURE(BM_Remap, noise20, 20, false));
COLOUR_CASE(BENCHMARK(BM_MemoryPass));
COLOUR_CASE(BENCHMARK_CAPTURE(BM_Imagequant, plain, false));
COLOUR_CASE(BENCHMARK_CAPTURE(BM_Imagequant, dithered, true));

const bool paired = vbench::pair("BM_Quantize/colours256/real_time", "BM_Imagequant/plain/real_time") &&
                    vbench::pair("BM_QuantizeDither/real_time", "BM_Imagequant/dithered/real_time") &&
                    vbench::pair("BM_Remap/noise0/real_time", "BM_MemoryPass/real_time") &&
                    vbench::pair("BM_Remap/noise20/real_time", "BM_MemoryPass/real_time");

}  // namespace
