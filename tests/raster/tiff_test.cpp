// TIFF loader: every kind of picture in strips and tiles, both byte orders,
// with and without compression, in several band sizes; densities, mirror
// flag and information text; refusals; libtiff's handlers per thread.
#include <gtest/gtest.h>
#include <tiffio.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <string>
#include <thread>

#include "tests/support/harness.h"
#include "tests/support/temp_file.h"
#include "tests/support/tiff_writer.h"
#include "vload.h"

namespace {

using vtest::Bytes;
using vtest::TempFile;
using vtest::TiffPicture;

constexpr int32_t kTiff = 5;

using Pixel = std::array<uint8_t, 4>;
using Sample = std::function<uint32_t(uint32_t, uint32_t, uint32_t)>;
// The delivered pixel at (x, y) of a picture with samples `s`: the bit for
// bilevel (set: dark), the index for indexed, channels for the rest.
using Want = std::function<Pixel(const Sample& s, uint32_t x, uint32_t y)>;

struct Kind {
  const char* name;
  TiffPicture pic;
  uint8_t layout;
  Want want;
  int tolerance = 0;
};

// Red i, green 255 - i, blue 3i, in 16 bits.
std::vector<uint16_t> colourMap(int entries) {
  std::vector<uint16_t> map(3 * entries);
  for (int i = 0; i < entries; ++i) {
    map[i] = uint16_t(i * 257);
    map[entries + i] = uint16_t((255 - i) * 257);
    map[2 * entries + i] = uint16_t((3 * i % 256) * 257);
  }
  return map;
}

Want bit(bool zeroIsDark) {
  return [zeroIsDark](const Sample& s, uint32_t x, uint32_t y) { return Pixel{uint8_t((s(x, y, 0) ^ zeroIsDark) & 1)}; };
}
Want index(uint32_t mask) {
  return [mask](const Sample& s, uint32_t x, uint32_t y) { return Pixel{uint8_t(s(x, y, 0) & mask)}; };
}
// The first n samples, 16-bit ones cut to their high byte.
Want channels(int n, bool wide) {
  return [n, wide](const Sample& s, uint32_t x, uint32_t y) {
    Pixel p{};
    for (int c = 0; c < n; ++c) p[c] = uint8_t(wide ? s(x, y, c) >> 8 : s(x, y, c));
    return p;
  };
}

std::vector<Kind> kinds() {
  return {
      {"bilevel, white is zero", {.photometric = 0, .bits = 1, .samples = 1}, 0, bit(false)},
      {"bilevel, black is zero", {.photometric = 1, .bits = 1, .samples = 1}, 0, bit(true)},
      {"bilevel palette, dark first",
       {.photometric = 3, .bits = 1, .samples = 1, .colourMap = {0, 65535, 0, 65535, 0, 65535}}, 0, bit(true)},
      {"bilevel palette, light first",
       {.photometric = 3, .bits = 1, .samples = 1, .colourMap = {65535, 0, 65535, 0, 65535, 0}}, 0, bit(false)},
      {"grey 4 bits", {.photometric = 1, .bits = 4, .samples = 1}, 1, index(15)},
      {"grey 8 bits, white is zero", {.photometric = 0, .bits = 8, .samples = 1}, 1, index(255)},
      {"grey 16 bits", {.photometric = 1, .bits = 16, .samples = 1}, 1, channels(1, true)},
      {"palette 2 bits", {.photometric = 3, .bits = 2, .samples = 1, .colourMap = colourMap(4)}, 1, index(3)},
      {"palette 8 bits", {.photometric = 3, .bits = 8, .samples = 1, .colourMap = colourMap(256)}, 1, index(255)},
      {"RGB", {}, 2, channels(3, false)},
      {"RGB 16 bits", {.bits = 16}, 2, channels(3, true)},
      {"RGB in separate planes", {.separatePlanes = true}, 2, channels(3, false)},
      {"RGBA", {.samples = 4, .extraSamples = {EXTRASAMPLE_UNASSALPHA}}, 7, channels(4, false)},
      {"RGBA 16 bits and one more sample",
       {.bits = 16, .samples = 5, .extraSamples = {EXTRASAMPLE_UNASSALPHA, EXTRASAMPLE_UNSPECIFIED}}, 7, channels(4, true)},
      {"RGBA premultiplied",
       {.samples = 4,
        .extraSamples = {EXTRASAMPLE_ASSOCALPHA},
        .sample = [](uint32_t x, uint32_t y, uint32_t c) {
          const uint32_t a = (x * 37 + y * 11) % 256;
          return c == 3 ? a : std::min(a, (x * 13 + y * 7 + c * 50) % 256);
        }},
       7,
       [](const Sample& s, uint32_t x, uint32_t y) {
         const uint32_t a = s(x, y, 3);
         Pixel p{0, 0, 0, uint8_t(a)};
         for (int c = 0; c < 3 && a; ++c) p[c] = uint8_t(std::min<uint32_t>(255, s(x, y, c) * 255 / a));
         return p;
       }},
      {"grey and alpha", {.photometric = 1, .samples = 2, .extraSamples = {EXTRASAMPLE_UNASSALPHA}}, 7,
       [](const Sample& s, uint32_t x, uint32_t y) {
         const uint8_t g = uint8_t(s(x, y, 0));
         return Pixel{g, g, g, uint8_t(s(x, y, 1))};
       }},
      {"CMYK", {.photometric = 5, .samples = 4}, 2,
       [](const Sample& s, uint32_t x, uint32_t y) {
         const uint32_t nk = 255 - (s(x, y, 3) & 255);
         Pixel p{};
         for (int c = 0; c < 3; ++c) p[c] = uint8_t(nk - ((s(x, y, c) & 255) * nk + 127) / 255);
         return p;
       }},
      {"YCbCr in JPEG",
       {.photometric = 6, .compression = COMPRESSION_JPEG, .rowsPerStrip = 16,
        .sample = [](uint32_t x, uint32_t y, uint32_t c) { return x * 2 + y * 3 + c * 40; }},  // smooth
       2, channels(3, false), 12},
  };
}

Bytes expectedRows(const Kind& k, const TiffPicture& s) {
  Bytes rows;
  for (uint32_t y = 0; y < s.height; ++y) {
    if (k.layout == VLOAD_LAYOUT_BILEVEL) {
      Bytes row((s.width + 7) / 8, 0);
      for (uint32_t x = 0; x < s.width; ++x) row[x / 8] |= uint8_t(k.want(s.sample, x, y)[0] << (7 - x % 8));
      rows.insert(rows.end(), row.begin(), row.end());
      continue;
    }
    const int n = k.layout == VLOAD_LAYOUT_INDEXED ? 1 : k.layout == VLOAD_LAYOUT_RGB ? 3 : 4;
    for (uint32_t x = 0; x < s.width; ++x) {
      const Pixel p = k.want(s.sample, x, y);
      rows.insert(rows.end(), p.begin(), p.begin() + n);
    }
  }
  return rows;
}

::testing::AssertionResult near(const Bytes& got, const Bytes& want, int tolerance) {
  if (got.size() != want.size()) return ::testing::AssertionFailure() << "sizes " << got.size() << " and " << want.size();
  for (size_t i = 0; i < got.size(); ++i)
    if (std::abs(int(got[i]) - int(want[i])) > tolerance)
      return ::testing::AssertionFailure() << "byte " << i << ": " << int(got[i]) << " for " << int(want[i]);
  return ::testing::AssertionSuccess();
}

// An LZW picture whose first strip (after the 8-byte header) is garbage.
Bytes damagedLzw() {
  Bytes bytes = vtest::tiffFile({.compression = COMPRESSION_LZW});
  std::fill(bytes.begin() + 8, bytes.begin() + 60, 0xFF);
  return bytes;
}

// ---- Pixels

TEST(TiffPixels, EveryKindInStripsAndTilesBothByteOrders) {
  for (const Kind& k : kinds()) {
    for (const bool tiles : {false, true})
      for (const bool bigEndian : {false, true})
        for (const uint16_t compression : {COMPRESSION_NONE, COMPRESSION_LZW}) {
          TiffPicture s = k.pic;
          s.tileSide = tiles ? 16 : 0;
          s.bigEndian = bigEndian;
          if (s.compression == COMPRESSION_NONE) s.compression = compression;
          const TempFile f(vtest::tiffFile(s), ".tif");
          const Bytes want = expectedRows(k, s);
          for (uint32_t band : {0u, 1u, 4u}) {
            SCOPED_TRACE(std::string(k.name) + (tiles ? ", tiles" : ", strips") + (bigEndian ? ", MM" : ", II") +
                         ", compression " + std::to_string(s.compression) + ", band " + std::to_string(band));
            const vtest::Loaded l = vtest::load(f.path(), 0, band);
            ASSERT_EQ(l.status, VLOAD_OK);
            EXPECT_EQ(l.description.loader, uint32_t(kTiff));
            EXPECT_EQ(l.description.layout, k.layout);
            EXPECT_TRUE(near(l.rows, want, k.tolerance));
          }
        }
  }
}

TEST(TiffPixels, ColourMaps) {
  const TempFile p(vtest::tiffFile({.photometric = 3, .samples = 1, .colourMap = colourMap(256)}), ".tif");
  vtest::Loaded l = vtest::load(p.path(), kTiff);
  for (int i : {0, 1, 200, 255}) {
    EXPECT_EQ(l.description.colourMap[3 * i], i);
    EXPECT_EQ(l.description.colourMap[3 * i + 1], 255 - i);
    EXPECT_EQ(l.description.colourMap[3 * i + 2], 3 * i % 256);
  }
  // Maps written with 8-bit values by old writers are taken as they are.
  const TempFile o(vtest::tiffFile({.photometric = 3, .bits = 2, .samples = 1,
                                    .colourMap = {0, 10, 20, 255, 1, 11, 21, 254, 2, 12, 22, 253}}), ".tif");
  l = vtest::load(o.path(), kTiff);
  EXPECT_EQ(l.description.colourMap[3 * 3], 255);
  EXPECT_EQ(l.description.colourMap[3 * 3 + 2], 253);
  const TempFile g(vtest::tiffFile({.photometric = 0, .bits = 4, .samples = 1}), ".tif");  // white is zero
  l = vtest::load(g.path(), kTiff);
  EXPECT_EQ(l.description.colourMap[0], 255);
  EXPECT_EQ(l.description.colourMap[3 * 15], 0);
  EXPECT_EQ(l.description.colourMap[3 * 5 + 1], 255 - 5 * 17);
}

// ---- Description

TEST(TiffDescription, DensitiesMirrorAndInformation) {
  struct Case { const char* name; TiffPicture pic; uint32_t wantX, wantY; uint8_t mirror; const char* info; };
  const Case cases[] = {
      {"300 dpi", {.xResolution = 300, .yResolution = 300}, 300000, 300000, 0, "1 page, compression: None"},
      {"per centimetre",
       {.compression = COMPRESSION_LZW, .orientation = 2, .xResolution = 100, .yResolution = 50,
        .resolutionUnit = RESUNIT_CENTIMETER},
       254000, 127000, 1, "1 page, compression: LZW"},
      {"no unit: the aspect",
       {.compression = COMPRESSION_PACKBITS, .orientation = 3, .xResolution = 2, .yResolution = 1,
        .resolutionUnit = RESUNIT_NONE, .pages = 3},
       2000, 1000, 1, "3 pages, compression: PackBits"},
      {"none given", {.compression = COMPRESSION_ADOBE_DEFLATE, .orientation = 4, .pages = 2}, 0, 0, 0,
       "2 pages, compression: AdobeDeflate"},
      {"first column at the top", {.orientation = 6}, 0, 0, 0, "1 page, compression: None"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const TempFile f(vtest::tiffFile(c.pic), ".tif");
    const vtest::Loaded l = vtest::load(f.path(), kTiff);
    ASSERT_EQ(l.status, VLOAD_OK);
    EXPECT_EQ(l.description.xDensity, c.wantX);
    EXPECT_EQ(l.description.yDensity, c.wantY);
    EXPECT_EQ(l.description.mirrorX, c.mirror);
    EXPECT_STREQ(l.description.info, c.info);
    EXPECT_EQ(l.rows.size(), size_t{37} * 21 * 3);  // the first page, rows as stored
  }
}

// ---- Refusals

TEST(TiffRefusals, StatusesAndNothingLeftOpen) {
  const Bytes good = vtest::tiffFile({});
  struct Case { const char* name; Bytes bytes; uint32_t want; };
  const Case cases[] = {
      {"no signature", vtest::patched8(good, 2, 41), VLOAD_NOT_THIS_FORMAT},
      {"directory beyond the end", vtest::patched32le(good, 4, 0x7FFFFFF0), VLOAD_NOT_THIS_FORMAT},
      {"cut before the directory", vtest::truncated(good, 100), VLOAD_NOT_THIS_FORMAT},
      {"floating point", vtest::tiffFile({.photometric = 1, .bits = 32, .samples = 1, .sampleFormat = SAMPLEFORMAT_IEEEFP}),
       VLOAD_UNSUPPORTED},
      {"16-bit palette",
       vtest::tiffFile({.width = 2, .height = 2, .photometric = 3, .bits = 16, .samples = 1, .colourMap = colourMap(65536)}),
       VLOAD_UNSUPPORTED},
      {"wider than 262140",
       vtest::tiffFile({.width = 262141, .height = 1, .photometric = 0, .bits = 1, .samples = 1, .rowsPerStrip = 1}),
       VLOAD_BAD_DATA},
  };
  const int fds = vtest::openFdCount();
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const TempFile f(c.bytes, ".tif");
    EXPECT_EQ(vtest::tryLoadStatus(f.path(), kTiff), c.want);
    EXPECT_EQ(vtest::openFdCount(), fds);
  }
}

TEST(TiffRefusals, DamagedDataGivesStatusesNotMessages) {
  const TempFile f(damagedLzw(), ".tif");
  const vtest::Loaded l = vtest::load(f.path(), kTiff, 2);
  EXPECT_TRUE(l.delivering);
  EXPECT_EQ(l.status, VLOAD_BAD_DATA);

  // Warnings from libtiff reach ErrNonfatal; errors stay out of sight.
  testing::internal::CaptureStdout();
  testing::internal::CaptureStderr();
  const TempFile g(vtest::patched32le(vtest::tiffFile({.compression = COMPRESSION_LZW}), 4, 0x7FFFFFF0), ".tif");
  EXPECT_EQ(vtest::tryLoadStatus(g.path(), kTiff), VLOAD_NOT_THIS_FORMAT);
  testing::internal::GetCapturedStdout();
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

TEST(TiffDelivery, ThreadsKeepTheirOwnLoadsAndHandlers) {
  const TempFile good(vtest::tiffFile({.compression = COMPRESSION_LZW}), ".tif"), damaged(damagedLzw(), ".tif");
  const Bytes want = expectedRows({"RGB", {}, VLOAD_LAYOUT_RGB, channels(3, false)}, {});
  std::thread damagedThread([&] {
    for (int i = 0; i < 30; ++i) EXPECT_EQ(vtest::load(damaged.path(), kTiff, 1).status, VLOAD_BAD_DATA);
  });
  for (int i = 0; i < 30; ++i) {
    const vtest::Loaded l = vtest::load(good.path(), kTiff, 3);
    ASSERT_EQ(l.status, VLOAD_OK);
    ASSERT_EQ(l.rows, want);
  }
  damagedThread.join();
}

}  // namespace
