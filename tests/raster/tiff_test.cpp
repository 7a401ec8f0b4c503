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

struct Kind {
  const char* name;
  TiffPicture pic;
  uint8_t layout;
  // The delivered pixel at (x, y): the bit for bilevel, the index for
  // indexed, channels for the rest. `s` is the picture's sample function.
  std::function<Pixel(const Sample& s, uint32_t x, uint32_t y)> want;
  int tolerance = 0;
};

TiffPicture pic(uint16_t photometric, uint16_t bits, uint16_t samples) {
  TiffPicture s;
  s.photometric = photometric;
  s.bits = bits;
  s.samples = samples;
  return s;
}

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

uint8_t hi(uint32_t v) { return uint8_t(v >> 8); }

std::vector<Kind> kinds() {
  std::vector<Kind> k;
  const auto bit = [](uint32_t v) { return Pixel{uint8_t(v & 1)}; };
  k.push_back({"bilevel, white is zero", pic(0, 1, 1), 0, [&](const Sample& s, uint32_t x, uint32_t y) { return bit(s(x, y, 0)); }});
  k.push_back({"bilevel, black is zero", pic(1, 1, 1), 0, [&](const Sample& s, uint32_t x, uint32_t y) { return bit(~s(x, y, 0)); }});
  TiffPicture darkFirst = pic(3, 1, 1);
  darkFirst.colourMap = {0, 65535, 0, 65535, 0, 65535};
  k.push_back({"bilevel palette, dark first", darkFirst, 0, [&](const Sample& s, uint32_t x, uint32_t y) { return bit(~s(x, y, 0)); }});
  TiffPicture lightFirst = pic(3, 1, 1);
  lightFirst.colourMap = {65535, 0, 65535, 0, 65535, 0};
  k.push_back({"bilevel palette, light first", lightFirst, 0, [&](const Sample& s, uint32_t x, uint32_t y) { return bit(s(x, y, 0)); }});
  const auto index = [](uint32_t mask) {
    return [mask](const Sample& s, uint32_t x, uint32_t y) { return Pixel{uint8_t(s(x, y, 0) & mask)}; };
  };
  k.push_back({"grey 4 bits", pic(1, 4, 1), 1, index(15)});
  k.push_back({"grey 8 bits, white is zero", pic(0, 8, 1), 1, index(255)});
  k.push_back({"grey 16 bits", pic(1, 16, 1), 1, [](const Sample& s, uint32_t x, uint32_t y) { return Pixel{hi(s(x, y, 0))}; }});
  for (uint16_t bits : {2, 8}) {
    TiffPicture p = pic(3, bits, 1);
    p.colourMap = colourMap(1 << bits);
    k.push_back({bits == 2 ? "palette 2 bits" : "palette 8 bits", p, 1, index((1u << bits) - 1)});
  }
  const auto channels = [](int n, bool wide) {
    return [n, wide](const Sample& s, uint32_t x, uint32_t y) {
      Pixel p{};
      for (int c = 0; c < n; ++c) p[c] = wide ? hi(s(x, y, c)) : uint8_t(s(x, y, c));
      return p;
    };
  };
  k.push_back({"RGB", pic(2, 8, 3), 2, channels(3, false)});
  k.push_back({"RGB 16 bits", pic(2, 16, 3), 2, channels(3, true)});
  TiffPicture rgba = pic(2, 8, 4);
  rgba.extraSamples = {EXTRASAMPLE_UNASSALPHA};
  k.push_back({"RGBA", rgba, 7, channels(4, false)});
  TiffPicture rgbaExtra = pic(2, 16, 5);
  rgbaExtra.extraSamples = {EXTRASAMPLE_UNASSALPHA, EXTRASAMPLE_UNSPECIFIED};
  k.push_back({"RGBA 16 bits and one more sample", rgbaExtra, 7, channels(4, true)});
  TiffPicture premultiplied = pic(2, 8, 4);
  premultiplied.extraSamples = {EXTRASAMPLE_ASSOCALPHA};
  premultiplied.sample = [](uint32_t x, uint32_t y, uint32_t c) {
    const uint32_t a = (x * 37 + y * 11) % 256;
    return c == 3 ? a : std::min(a, (x * 13 + y * 7 + c * 50) % 256);
  };
  k.push_back({"RGBA premultiplied", premultiplied, 7, [](const Sample& s, uint32_t x, uint32_t y) {
                 const uint32_t a = s(x, y, 3);
                 Pixel p{0, 0, 0, uint8_t(a)};
                 for (int c = 0; c < 3 && a; ++c) p[c] = uint8_t(std::min<uint32_t>(255, s(x, y, c) * 255 / a));
                 return p;
               }});
  TiffPicture greyAlpha = pic(1, 8, 2);
  greyAlpha.extraSamples = {EXTRASAMPLE_UNASSALPHA};
  k.push_back({"grey and alpha", greyAlpha, 7, [](const Sample& s, uint32_t x, uint32_t y) {
                 const uint8_t g = uint8_t(s(x, y, 0));
                 return Pixel{g, g, g, uint8_t(s(x, y, 1))};
               }});
  k.push_back({"CMYK", pic(5, 8, 4), 2, [](const Sample& s, uint32_t x, uint32_t y) {
                 const uint32_t nk = 255 - (s(x, y, 3) & 255);
                 Pixel p{};
                 for (int c = 0; c < 3; ++c) p[c] = uint8_t(nk - ((s(x, y, c) & 255) * nk + 127) / 255);
                 return p;
               }});
  TiffPicture planes = pic(2, 8, 3);
  planes.separatePlanes = true;
  k.push_back({"RGB in separate planes", planes, 2, channels(3, false)});
  TiffPicture ycbcr = pic(6, 8, 3);
  ycbcr.compression = COMPRESSION_JPEG;
  ycbcr.rowsPerStrip = 16;
  ycbcr.sample = [](uint32_t x, uint32_t y, uint32_t c) { return x * 2 + y * 3 + c * 40; };  // smooth
  k.push_back({"YCbCr in JPEG", ycbcr, 2, channels(3, false), 12});
  return k;
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
  TiffPicture palette = pic(3, 8, 1);
  palette.colourMap = colourMap(256);
  const TempFile p(vtest::tiffFile(palette), ".tif");
  vtest::Loaded l = vtest::load(p.path(), kTiff);
  for (int i : {0, 1, 200, 255}) {
    EXPECT_EQ(l.description.colourMap[3 * i], i);
    EXPECT_EQ(l.description.colourMap[3 * i + 1], 255 - i);
    EXPECT_EQ(l.description.colourMap[3 * i + 2], 3 * i % 256);
  }
  // Maps written with 8-bit values by old writers are taken as they are.
  TiffPicture old = pic(3, 2, 1);
  old.colourMap = {0, 10, 20, 255, 1, 11, 21, 254, 2, 12, 22, 253};
  const TempFile o(vtest::tiffFile(old), ".tif");
  l = vtest::load(o.path(), kTiff);
  EXPECT_EQ(l.description.colourMap[3 * 3], 255);
  EXPECT_EQ(l.description.colourMap[3 * 3 + 2], 253);
  const TempFile g(vtest::tiffFile(pic(0, 4, 1)), ".tif");  // grey, white is zero
  l = vtest::load(g.path(), kTiff);
  EXPECT_EQ(l.description.colourMap[0], 255);
  EXPECT_EQ(l.description.colourMap[3 * 15], 0);
  EXPECT_EQ(l.description.colourMap[3 * 5 + 1], 255 - 5 * 17);
}

// ---- Description

TEST(TiffDescription, DensitiesMirrorAndInformation) {
  struct Case { const char* name; float xRes, yRes; uint16_t unit, orientation; int pages; uint16_t compression;
                uint32_t wantX, wantY; uint8_t mirror; const char* info; };
  const Case cases[] = {
      {"300 dpi", 300, 300, RESUNIT_INCH, 1, 1, COMPRESSION_NONE, 300000, 300000, 0, "1 page, compression: None"},
      {"per centimetre", 100, 50, RESUNIT_CENTIMETER, 2, 1, COMPRESSION_LZW, 254000, 127000, 1, "1 page, compression: LZW"},
      {"no unit: the aspect", 2, 1, RESUNIT_NONE, 3, 3, COMPRESSION_PACKBITS, 2000, 1000, 1, "3 pages, compression: PackBits"},
      {"none given", 0, 0, RESUNIT_INCH, 4, 2, COMPRESSION_ADOBE_DEFLATE, 0, 0, 0, "2 pages, compression: AdobeDeflate"},
      {"first column at the top", 72, 72, RESUNIT_INCH, 6, 1, COMPRESSION_NONE, 72000, 72000, 0, "1 page, compression: None"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    TiffPicture s;
    s.xResolution = c.xRes;
    s.yResolution = c.yRes;
    s.resolutionUnit = c.unit;
    s.orientation = c.orientation;
    s.pages = c.pages;
    s.compression = c.compression;
    const TempFile f(vtest::tiffFile(s), ".tif");
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
  const Bytes good = vtest::tiffFile(TiffPicture{});
  TiffPicture floats = pic(1, 32, 1);
  floats.sampleFormat = SAMPLEFORMAT_IEEEFP;
  TiffPicture palette16 = pic(3, 16, 1);
  palette16.width = palette16.height = 2;
  palette16.colourMap = colourMap(65536);
  TiffPicture wide = pic(0, 1, 1);
  wide.width = 262141;
  wide.height = 1;
  wide.rowsPerStrip = 1;
  struct Case { const char* name; Bytes bytes; uint32_t want; };
  const Case cases[] = {
      {"no signature", vtest::patched8(good, 2, 41), VLOAD_NOT_THIS_FORMAT},
      {"directory beyond the end", vtest::patched32le(good, 4, 0x7FFFFFF0), VLOAD_NOT_THIS_FORMAT},
      {"cut before the directory", vtest::truncated(good, 100), VLOAD_NOT_THIS_FORMAT},
      {"header only", vtest::truncated(good, 8), VLOAD_NOT_THIS_FORMAT},
      {"floating point", vtest::tiffFile(floats), VLOAD_UNSUPPORTED},
      {"16-bit palette", vtest::tiffFile(palette16), VLOAD_UNSUPPORTED},
      {"wider than 262140", vtest::tiffFile(wide), VLOAD_BAD_DATA},
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
  TiffPicture s;
  s.compression = COMPRESSION_LZW;
  Bytes bytes = vtest::tiffFile(s);
  for (size_t i = 8; i < 60; ++i) bytes[i] = 0xFF;  // the first strip follows the 8-byte header
  const TempFile f(bytes, ".tif");
  const vtest::Loaded l = vtest::load(f.path(), kTiff, 2);
  EXPECT_TRUE(l.delivering);
  EXPECT_EQ(l.status, VLOAD_BAD_DATA);

  // Warnings from libtiff reach ErrNonfatal; errors stay out of sight.
  testing::internal::CaptureStdout();
  testing::internal::CaptureStderr();
  const TempFile g(vtest::patched32le(vtest::tiffFile(s), 4, 0x7FFFFFF0), ".tif");
  EXPECT_EQ(vtest::tryLoadStatus(g.path(), kTiff), VLOAD_NOT_THIS_FORMAT);
  testing::internal::GetCapturedStdout();
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

TEST(TiffDelivery, ThreadsKeepTheirOwnLoadsAndHandlers) {
  TiffPicture s;
  s.compression = COMPRESSION_LZW;
  const Bytes good = vtest::tiffFile(s);
  Bytes damaged = good;
  for (size_t i = 8; i < 60; ++i) damaged[i] = 0xFF;
  const TempFile fg(good, ".tif"), fd(damaged, ".tif");
  const std::vector<Kind> all = kinds();
  const Kind& rgb = *std::find_if(all.begin(), all.end(), [](const Kind& k) { return std::string(k.name) == "RGB"; });
  const Bytes want = expectedRows(rgb, s);
  std::thread damagedThread([&] {
    for (int i = 0; i < 30; ++i) EXPECT_EQ(vtest::load(fd.path(), kTiff, 1).status, VLOAD_BAD_DATA);
  });
  for (int i = 0; i < 30; ++i) {
    const vtest::Loaded l = vtest::load(fg.path(), kTiff, 3);
    ASSERT_EQ(l.status, VLOAD_OK);
    ASSERT_EQ(l.rows, want);
  }
  damagedThread.join();
}

}  // namespace
