// PCX loader: header rules and colour maps, every depth in every band size,
// runs across line ends, widths beyond the stored line, truncation, and the
// 24-bit stretch and addressing.
#include <gtest/gtest.h>

#include <cstring>

#include "tests/support/harness.h"
#include "tests/support/pcx_writer.h"
#include "tests/support/temp_file.h"
#include "vload.h"

namespace {

using vtest::Bytes;
using vtest::PcxBuilder;
using vtest::TempFile;

constexpr int32_t kPcx = 3;

// tryLoad with a colour map of 0xAB bytes; the load stays open.
uint32_t describePcx(const char* path, vload_tool::Description& d, bool readColourMap = true) {
  std::memset(d.colourMap, 0xAB, sizeof d.colourMap);
  returnLoaderFunctions(kPcx, path);
  return vload_tool::describe(path, d, readColourMap);
}

vtest::Loaded loadPcx(const Bytes& file, uint32_t band = 0) {
  const TempFile f(file, ".pcx");
  return vtest::load(f.path(), kPcx, band);
}

// The header of `b` followed by `data` instead of its own runs.
Bytes withData(const PcxBuilder& b, const Bytes& data) {
  Bytes file = vtest::truncated(b.build(), 128);
  file.insert(file.end(), data.begin(), data.end());
  return file;
}

// ---- Header

TEST(PcxHeader, RefusesWhatItDoesNotRead) {
  const Bytes good = PcxBuilder{}.build();
  struct Case { const char* name; Bytes bytes; uint32_t want; };
  const Case cases[] = {
      {"manufacturer 11", vtest::patched8(good, 0, 11), VLOAD_NOT_THIS_FORMAT},
      {"version 6", PcxBuilder{}.version(6).build(), VLOAD_NOT_THIS_FORMAT},
      {"not run-length encoded", vtest::patched8(good, 2, 0), VLOAD_NOT_THIS_FORMAT},
      {"xmax before xmin", PcxBuilder{}.origin(5, 0).size(0, 4).build(), VLOAD_NOT_THIS_FORMAT},
      {"height 0", PcxBuilder{}.origin(0, 9).size(10, 0).build(), VLOAD_NOT_THIS_FORMAT},
      {"8 bits in 2 planes", PcxBuilder{}.depth(8, 2).build(), VLOAD_NOT_THIS_FORMAT},
      {"8 bits in 4 planes", PcxBuilder{}.depth(8, 4).build(), VLOAD_NOT_THIS_FORMAT},
      {"16 bits in 1 plane", vtest::patched8(good, 3, 16), VLOAD_NOT_THIS_FORMAT},
      {"cut in the header", vtest::truncated(good, 100), VLOAD_CANNOT_OPEN},
      {"empty", Bytes{}, VLOAD_NOT_THIS_FORMAT},
  };
  const int fds = vtest::openFdCount();
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const TempFile f(c.bytes, ".pcx");
    EXPECT_EQ(vtest::tryLoadStatus(f.path(), kPcx), c.want);
    EXPECT_EQ(vtest::openFdCount(), fds);  // a failed tryLoad leaves nothing open
  }
}

// Sides from the window, not from its corner; densities in thousandths of a dpi.
TEST(PcxHeader, DescribesSizeAndDensity) {
  const TempFile f(PcxBuilder{}.origin(3, 100).size(640, 3).dpi(300, 150).build(), ".pcx");
  vload_tool::Description d;
  ASSERT_EQ(describePcx(f.path(), d), VLOAD_OK);
  vload_tool::endLoad();
  EXPECT_EQ(d.layout, VLOAD_LAYOUT_INDEXED);
  EXPECT_EQ(d.width * 10 + d.height, 6403u);
  EXPECT_EQ(d.xDensity * 10 + d.yDensity, 3150000u);
}

// ---- Colour maps

TEST(PcxColourMap, FromTheHeaderOrTheEndOfTheFile) {
  Bytes header(48), trailer(768);
  for (size_t i = 0; i < header.size(); ++i) header[i] = uint8_t(100 + i);
  for (size_t i = 0; i < trailer.size(); ++i) trailer[i] = uint8_t(i * 7);
  const PcxBuilder eight = PcxBuilder{}.headerMap(header);
  struct Case {
    const char* name;
    Bytes file;
    Bytes want;        // the map's first bytes
    size_t definedTo;  // bytes the loader writes; 0xAB after them
  };
  Bytes headerThenBlack = header;
  headerThenBlack.resize(768, 0);
  const Case cases[] = {
      {"version 5 with the marker 12", PcxBuilder{eight}.trailingMap(trailer).build(), trailer, 768},
      {"version 5 with another marker", PcxBuilder{eight}.trailingMap(trailer, 11).build(), headerThenBlack, 768},
      {"version 3 ignores the map at the end", PcxBuilder{eight}.version(3).trailingMap(trailer).build(),
       headerThenBlack, 768},
      {"version 5, shorter than a map", PcxBuilder{eight}.size(4, 2).build(), headerThenBlack, 768},
      {"two colours are black and white", PcxBuilder{eight}.depth(1, 1).build(), {0, 0, 0, 255, 255, 255}, 6},
      {"16 colours in 4 planes", PcxBuilder{eight}.depth(1, 4).build(), header, 48},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const TempFile f(c.file, ".pcx");
    vload_tool::Description d;
    ASSERT_EQ(describePcx(f.path(), d), VLOAD_OK);
    vload_tool::endLoad();
    EXPECT_EQ(Bytes(d.colourMap, d.colourMap + c.want.size()), c.want);
    EXPECT_EQ(Bytes(d.colourMap + c.definedTo, d.colourMap + 768), Bytes(768 - c.definedTo, 0xAB));
  }
}

// ---- Colour-mapped pixels

uint8_t bit(uint32_t x, uint32_t y, uint32_t) { return uint8_t((x * 3 + y) % 5 == 0); }
uint8_t nibble(uint32_t x, uint32_t y, uint32_t) { return uint8_t((x / 2 + y * 3) % 16); }
uint8_t quarter(uint32_t x, uint32_t y, uint32_t) { return uint8_t((x + y / 2) % 4); }
uint8_t byte(uint32_t x, uint32_t y, uint32_t) { return uint8_t(x / 3 * 41 + y * 7); }
uint8_t flat(uint32_t, uint32_t y, uint32_t) { return uint8_t(y < 3 ? 0xC5 : 9); }

TEST(PcxPixels, EveryDepthInEveryBandSize) {
  struct Case { const char* name; PcxBuilder b; uint32_t width, height; uint8_t (*pixel)(uint32_t, uint32_t, uint32_t); };
  const Case cases[] = {
      {"1 bit, odd width", PcxBuilder{}.depth(1, 1), 13, 5, bit},
      {"1 bit, 4 planes", PcxBuilder{}.depth(1, 4), 21, 6, nibble},
      {"1 bit, 2 planes, wide", PcxBuilder{}.depth(1, 2), 1001, 3, quarter},
      {"8 bits", PcxBuilder{}, 37, 7, byte},
      {"8 bits, runs across line ends", PcxBuilder{}.runsAcrossLines(), 50, 6, flat},
      {"8 bits, a short line padded", PcxBuilder{}.bytesPerLine(9), 5, 4, byte},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const Bytes file = PcxBuilder{c.b}.size(c.width, c.height).pixels(c.pixel).build();
    Bytes want;
    for (uint32_t y = 0; y < c.height; ++y)
      for (uint32_t x = 0; x < c.width; ++x) want.push_back(c.pixel(x, y, 0));
    for (uint32_t band : {0u, 1u, 3u}) {
      const vtest::Loaded l = loadPcx(file, band);
      ASSERT_EQ(l.status, VLOAD_OK);
      EXPECT_EQ(l.rows, want);
    }
  }
}

TEST(PcxPixels, OddLayouts) {
  const PcxBuilder eightBits = PcxBuilder{}.size(4, 2);
  struct Case { const char* name; Bytes file; Bytes want; };
  const Case cases[] = {
      {"a run reaches three bytes into the next line", withData(eightBits, {0xC7, 5, 1}), {5, 5, 5, 5, 5, 5, 5, 1}},
      {"an empty run", withData(eightBits, {0xC0, 9, 0xC8, 2}), {2, 2, 2, 2, 2, 2, 2, 2}},
      // The classic overflow: a line shorter than the width. Pixels past it are 0.
      {"8 bits wider than the line", withData(PcxBuilder{}.size(6, 2).bytesPerLine(2), {1, 2, 3, 4}),
       {1, 2, 0, 0, 0, 0, 3, 4, 0, 0, 0, 0}},
      {"1 bit wider than the line", withData(PcxBuilder{}.depth(1, 1).size(12, 1).bytesPerLine(1), {0xA5}),
       {1, 0, 1, 0, 0, 1, 0, 1, 0, 0, 0, 0}},
      // Planes of 4 bits are read for their top bit, a bit a pixel.
      {"4 bits in one plane", withData(PcxBuilder{}.depth(4, 1).size(8, 1).bytesPerLine(4), {0x9F, 0x10, 0, 0}),
       {1, 0, 0, 1, 1, 1, 1, 1}},
      // Eight planes of 1 bit make 256 colours: the line's bytes are the pixels.
      {"8 planes of 1 bit", withData(PcxBuilder{}.depth(1, 8).size(3, 1).bytesPerLine(1), {7, 8, 9, 1, 2, 3, 4, 5}),
       {7, 8, 9}},
      // The data ends: lines go on as runs of 255.
      {"8 bits, cut short", withData(eightBits, {1, 2, 0xC2}), {1, 2, 255, 255, 255, 255, 255, 255}},
      {"1 bit, cut short", withData(PcxBuilder{}.depth(1, 1).size(9, 2), {0, 0}), {0, 0, 0, 0, 0, 0, 0, 0, 0, 1, 1, 1, 1, 1, 1, 1, 1, 1}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const vtest::Loaded l = loadPcx(c.file, 1);
    ASSERT_EQ(l.status, VLOAD_OK);
    EXPECT_EQ(l.rows, c.want);
  }
}

// ---- 24-bit pictures

// R, G, B of (x, y) with the brightest sample `top`.
PcxBuilder rgb(uint8_t top) {
  return PcxBuilder{}.depth(8, 3).size(7, 5).pixels([top](uint32_t x, uint32_t y, uint32_t p) {
    return uint8_t(x == 6 && y == 4 && p == 1 ? top : (x * 13 + y * 5 + p * 3) % (top / 2 + 1));
  });
}

Bytes rgbRows(const PcxBuilder& b, uint8_t top) {
  Bytes out;
  for (uint32_t y = 0; y < 5; ++y)
    for (uint32_t x = 0; x < 7; ++x)
      for (uint32_t p = 0; p < 3; ++p) out.push_back(uint8_t(b.lines()[(y * 3 + p) * b.bpl() + x] * 255 / top));
  return out;
}

TEST(Pcx24, StretchesTheBrightestByteTo255) {
  for (uint8_t top : {200, 255, 1}) {
    SCOPED_TRACE(int(top));
    const PcxBuilder b = rgb(top);
    for (uint32_t band : {0u, 2u}) {
      const vtest::Loaded l = loadPcx(b.build(), band);
      ASSERT_EQ(l.status, VLOAD_OK);
      EXPECT_EQ(l.rows, rgbRows(b, top));
    }
  }
  // 100 of 200 becomes 127; the stretch counts the line padding too.
  const PcxBuilder pair = PcxBuilder{}.depth(8, 3).size(1, 1).bytesPerLine(2);
  EXPECT_EQ(loadPcx(withData(pair, vtest::pcxRuns({100, 200, 50, 0, 0, 0}))).rows, (Bytes{127, 63, 0}));
  // A cut picture: what was read sets the stretch, the rest is black.
  EXPECT_EQ(loadPcx(withData(PcxBuilder{}.depth(8, 3).size(1, 2).bytesPerLine(1), {10, 20, 30})).rows,
            (Bytes{85, 170, 255, 0, 0, 0}));
}

TEST(Pcx24, RowsByAbsoluteNumberOnlyAtThreeBytesAPixel) {
  const PcxBuilder b = rgb(255);
  const Bytes want = rgbRows(b, 255);
  const TempFile f(b.build(), ".pcx");
  vload_tool::Description d;
  Bytes picture(21 * 5);
  ASSERT_EQ(describePcx(f.path(), d, false), VLOAD_OK);  // bands need readColorMap
  EXPECT_EQ(getLoadBand()(picture.data(), 5, 21, nullptr), VLOAD_BAD_DATA);
  vload_tool::endLoad();
  // Stride 21: the buffer is the picture; each call gets its start.
  ASSERT_EQ(describePcx(f.path(), d), VLOAD_OK);
  EXPECT_EQ(getLoadBand()(picture.data(), 2, 21, nullptr), VLOAD_OK);
  EXPECT_EQ(getLoadBand()(picture.data(), 3, 21, nullptr), VLOAD_OK);
  vload_tool::endLoad();
  EXPECT_EQ(picture, want);
  // Stride 24: rows go to the rows of each call.
  ASSERT_EQ(describePcx(f.path(), d), VLOAD_OK);
  Bytes band(24 * 3, 0xEE);
  EXPECT_EQ(getLoadBand()(band.data(), 2, 24, nullptr), VLOAD_OK);
  EXPECT_EQ(Bytes(band.begin() + 24, band.begin() + 45), Bytes(want.begin() + 21, want.begin() + 42));
  EXPECT_EQ(getLoadBand()(band.data(), 3, 24, nullptr), VLOAD_OK);
  EXPECT_EQ(Bytes(band.begin(), band.begin() + 21), Bytes(want.begin() + 42, want.begin() + 63));
  EXPECT_EQ(band[21], 0xEE);  // the padding is the caller's
  vload_tool::endLoad();
}

}  // namespace
