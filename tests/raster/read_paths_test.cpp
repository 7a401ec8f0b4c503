// The loaders that read their rows through a page-matched chunk (BMP,
// portable bitmaps, Photoshop documents) give the same picture on every pixel
// path and with cached or streamed stores, for pictures that take several
// chunks, and widths that leave vector tails and start rows off a cache line.
#include <gtest/gtest.h>

#include <optional>
#include <string>

#include "framework/pixels.h"
#include "tests/support/bmp_writer.h"
#include "tests/support/harness.h"
#include "tests/support/pnm_writer.h"
#include "tests/support/psd_writer.h"
#include "tests/support/temp_file.h"

namespace {

using ldr::PixelPath;
using ldr::Store;
using vtest::Bytes;

constexpr uint32_t kWidth = 1001, kHeight = 400;  // every kind takes more than one chunk

uint8_t sample(uint32_t x, uint32_t y, uint32_t c) { return uint8_t((x * 7 + y * 13 + c * 101) ^ (x >> 3)); }

struct Kind {
  const char* name;
  int32_t loader;
  Bytes file;
};

std::vector<Kind> kinds() {
  const auto bmp = [](uint16_t bits) {
    vtest::BmpBuilder b = vtest::BmpBuilder{}.size(kWidth, kHeight).bits(bits).pixels(
        [bits](uint32_t x, uint32_t y, int c) { return uint8_t(sample(x, y, uint32_t(c)) % (1u << std::min<uint16_t>(bits, 8))); });
    if (bits <= 8) b.palette(vtest::greyRamp(1u << bits));
    return b.build();
  };
  const auto pnm = [](char kind, uint32_t maxval) {
    return vtest::PnmBuilder(kind).size(kWidth, kHeight).maxval(maxval).samples(
        [maxval](uint32_t x, uint32_t y, uint32_t c) { return sample(x, y, c) * maxval / 255; }).build();
  };
  const auto psd = [](bool packBits, uint16_t channels, int16_t layers, uint16_t depth) {
    return vtest::PsdBuilder{}.size(kWidth, kHeight).packed(packBits).channels(channels).layerCount(layers)
        .depth(depth).samples([depth](uint32_t x, uint32_t y, uint32_t c) {
          return depth == 16 ? sample(x, y, c) * 257u + x % 7 : sample(x, y, c);
        }).build();
  };
  return {{"BMP 24 bits", 24, bmp(24)},     {"BMP 32 bits", 24, bmp(32)},
          {"BMP 8 bits", 24, bmp(8)},       {"BMP 1 bit", 24, bmp(1)},
          {"P6", 12, pnm('6', 255)},        {"P5, maximum 1000", 12, pnm('5', 1000)},
          {"PSD raw", 76, psd(false, 3, 0, 8)}, {"PSD PackBits", 76, psd(true, 3, 0, 8)},
          {"PSD raw with transparency", 76, psd(false, 4, -1, 8)},
          {"PSD PackBits, 16 bits", 76, psd(true, 3, 0, 16)}};
}

struct Forced {
  Forced(PixelPath p, std::optional<Store> s) {
    ldr::forcePixelPath(p);
    ldr::forceStore(s);
  }
  ~Forced() {
    ldr::forcePixelPath(PixelPath::Auto);
    ldr::forceStore(std::nullopt);
  }
};

TEST(ReadPaths, EveryPathAndStoreGiveThePlainPicture) {
  for (const Kind& k : kinds()) {
    SCOPED_TRACE(k.name);
    const vtest::TempFile f(k.file);
    vtest::Loaded plain;
    {
      const Forced forced(PixelPath::Plain, Store::Cached);
      plain = vtest::load(f.path(), k.loader, 64);
    }
    ASSERT_EQ(plain.status, 0u);
    int round = 0;
    for (PixelPath path : {PixelPath::Plain, PixelPath::Ssse3, PixelPath::Avx512}) {
      if (!ldr::pixelPathAvailable(path)) continue;
      for (Store store : {Store::Cached, Store::Streamed}) {
        SCOPED_TRACE("path " + std::to_string(int(path)) + (store == Store::Streamed ? " streamed" : " cached"));
        const Forced forced(path, store);
        const vtest::Loaded l = vtest::load(f.path(), k.loader, ++round % 2 ? 7 : 0);
        ASSERT_EQ(l.status, 0u);
        EXPECT_TRUE(l.rows == plain.rows);
      }
    }
  }
}

}  // namespace
