// BMP loader: header rules, densities, colour tables, every depth in every
// band size, truncation, protocol misuse, and two threads at once.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstring>
#include <string>
#include <thread>
#include <tuple>

#include "tests/support/bmp_writer.h"
#include "tests/support/harness.h"
#include "tests/support/temp_file.h"
#include "vload.h"

namespace {

using vtest::BmpBuilder;
using vtest::Bytes;
using vtest::TempFile;

constexpr int32_t kBmp = 24;

// Describes through the registry (the map prefilled with 0xAB) and leaves
// the load open for band-by-band calls; the caller ends it.
vload_tool::Description open(const char* path, bool readColourMap = true) {
  vload_tool::Description d;
  std::memset(d.colourMap, 0xAB, sizeof d.colourMap);
  vload_tool::install(kBmp, path);
  EXPECT_EQ(vload_tool::describe(path, d, readColourMap), VLOAD_OK);
  return d;
}

vload_tool::Description described(const Bytes& bytes, const char* name = ".bmp") {
  const TempFile f(bytes, name, name[0] != '.');
  const vload_tool::Description d = open(f.path());
  vload_tool::endLoad();
  return d;
}

Bytes rowsOf(const BmpBuilder& b) { return vtest::load(TempFile(b.build(), ".bmp").path(), kBmp).rows; }

// ---- Header

TEST(BmpHeader, RefusesWhatItDoesNotRead) {
  const Bytes good = BmpBuilder{}.size(5, 3).bits(8).palette(vtest::greyRamp(256)).build();
  struct Case { const char* name; Bytes bytes; uint32_t want; };
  const Case cases[] = {
      {"no BM", vtest::patched8(good, 0, 'X'), VLOAD_NOT_THIS_FORMAT},
      {"header size above 255", vtest::patched8(good, 15, 1), VLOAD_NOT_THIS_FORMAT},
      {"V4 header", BmpBuilder{}.headerSize(108).build(), VLOAD_NOT_THIS_FORMAT},
      {"two planes", BmpBuilder{}.planes(2).build(), VLOAD_NOT_THIS_FORMAT},
      {"two planes, core header", BmpBuilder{}.headerSize(12).planes(2).build(), VLOAD_NOT_THIS_FORMAT},
      {"run-length", BmpBuilder{}.bits(8).compression(1).build(), VLOAD_NOT_THIS_FORMAT},
      {"2 bits", BmpBuilder{}.bits(2).palette(vtest::greyRamp(4)).build(), VLOAD_NOT_THIS_FORMAT},
      {"cut in the header", vtest::truncated(good, 40), VLOAD_NOT_THIS_FORMAT},
      {"cut in the file header", vtest::truncated(good, 10), VLOAD_NOT_THIS_FORMAT},
      {"width 0", BmpBuilder{}.size(0, 3).build(), VLOAD_BAD_DATA},
      {"top-down", BmpBuilder{}.size(3, -3).build(), VLOAD_BAD_DATA},
      {"width 262141", BmpBuilder{}.size(262141, 1).build(), VLOAD_BAD_DATA},
      {"height 262141", vtest::patched32le(BmpBuilder{}.size(1, 1).build(), 22, 262141), VLOAD_BAD_DATA},
      {"width 262140, the widest", BmpBuilder{}.size(262140, 1).build(), VLOAD_OK},
  };
  const int fds = vtest::openFdCount();
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const TempFile f(c.bytes, ".bmp");
    EXPECT_EQ(vtest::tryLoadStatus(f.path(), kBmp), c.want);
    EXPECT_EQ(vtest::openFdCount(), fds);  // a failed tryLoad leaves nothing open
  }
  EXPECT_EQ(vtest::tryLoadStatus("/no/such/picture.bmp", kBmp), VLOAD_NOT_THIS_FORMAT);
}

// ---- Densities

// Quirk: ".dsn" names longer than five characters swap the densities.
TEST(BmpDensity, ConvertedSanityCheckedAndSwappedForDsnNames) {
  const auto ppm = [](uint32_t x, uint32_t y) { return BmpBuilder{}.pixelsPerMetre(x, y).build(); };
  struct Case { const char* name; Bytes bytes; uint32_t wantX, wantY; };
  const Case cases[] = {
      {".bmp", ppm(3780, 3780), 96012, 96012},                // 96 dpi
      {".bmp", ppm(1, 50), 25, 1270},                         // 1270 / 25 = 50: kept
      {".bmp", ppm(51, 1), 0, 0},                             // 1295 / 25 = 51, the larger in x: dropped
      {".bmp", ppm(0, 5000), 0, 127000},                      // no test below 11 in x
      {".bmp", ppm(4000000000u, 3780), 0, 96012},             // beyond 32 bits signed: unknown
      {"pattern.DSN", ppm(3780, 7560), 192024, 96012},
      {"core.dsn", BmpBuilder{}.headerSize(12).build(), 0, 0},  // the core header has no densities
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::to_string(&c - cases));
    const vload_tool::Description d = described(c.bytes, c.name);
    EXPECT_EQ(d.xDensity, c.wantX);
    EXPECT_EQ(d.yDensity, c.wantY);
  }

  // "a.dsn" is too short a name for the rule.
  const TempFile shortName(ppm(3780, 7560), "a.dsn", true);
  char cwd[4096];
  ASSERT_NE(::getcwd(cwd, sizeof cwd), nullptr);
  ASSERT_EQ(::chdir(vtest::tempDir().c_str()), 0);
  const vtest::Loaded l = vtest::load("a.dsn", kBmp);
  EXPECT_EQ(::chdir(cwd), 0);
  EXPECT_EQ(l.description.xDensity, 96012u);
}

// ---- Pixels

// The colour map a palette gives: R, G, B, the rest black.
Bytes mapOf(const std::vector<vtest::Rgb>& palette) {
  Bytes map(768, 0);
  for (size_t i = 0; i < palette.size(); ++i)
    map[3 * i] = palette[i].r, map[3 * i + 1] = palette[i].g, map[3 * i + 2] = palette[i].b;
  return map;
}

TEST(BmpPixels, EveryDepthInEveryBandSize) {
  std::vector<vtest::Rgb> tinted;  // tells R, G and B apart
  for (int i = 0; i < 16; ++i) tinted.push_back({uint8_t(i), uint8_t(100 + i), uint8_t(200 + i)});
  for (uint32_t header : {12u, 40u, 125u})
    for (int32_t width : {1, 8, 33}) {
      struct Depth { uint16_t bits; std::vector<vtest::Rgb> palette; uint8_t layout; };
      const Depth depths[] = {
          {1, vtest::whiteBlack(), VLOAD_LAYOUT_BILEVEL}, {4, tinted, VLOAD_LAYOUT_INDEXED},
          {8, vtest::greyRamp(header == 12 ? 256 : 7), VLOAD_LAYOUT_INDEXED},  // short where the header says so
          {24, {}, VLOAD_LAYOUT_RGB}, {32, {}, VLOAD_LAYOUT_RGBA},
      };
      for (const Depth& d : depths) {
        const BmpBuilder builder = BmpBuilder{}.headerSize(header).size(width, 5).bits(d.bits).palette(d.palette);
        const TempFile f(builder.build(), ".bmp");
        for (uint32_t band : {1u, 2u, 0u}) {
          SCOPED_TRACE(std::string(f.path()) + " band " + std::to_string(band));
          const vtest::Loaded l = vtest::load(f.path(), 0, band);
          ASSERT_EQ(l.status, VLOAD_OK);
          EXPECT_EQ(l.description.loader, uint32_t(kBmp));
          EXPECT_EQ(l.description.layout, d.layout);
          EXPECT_EQ(l.rows, builder.expectedRows());
          EXPECT_EQ(Bytes(std::begin(l.description.colourMap), std::end(l.description.colourMap)), mapOf(d.palette));
          EXPECT_STREQ(l.description.info, " ");
          EXPECT_EQ(std::tuple(l.description.mirrorX, l.description.firstPart, l.description.xRepeat,
                               l.description.yRepeat), std::tuple(0, 1, 1u, 1u));
        }
      }
    }
}

// A dark first colour inverts the bits, unless they are expanded to indexes.
TEST(BmpPixels, OneBitInversion) {
  const BmpBuilder bw = BmpBuilder{}.size(13, 3).bits(1).palette(vtest::blackWhite());
  Bytes inverted = bw.expectedRows();
  for (uint8_t& v : inverted) v = uint8_t(~v);  // whole bytes, padding bits included
  EXPECT_EQ(rowsOf(bw), inverted);
  const BmpBuilder wb = BmpBuilder{}.size(13, 3).bits(1).palette(vtest::whiteBlack());
  EXPECT_EQ(rowsOf(wb), wb.expectedRows());

  const TempFile f(bw.build(), ".bmp");
  llibUpscale1BitToCmapBMP(1);
  const vtest::Loaded l = vtest::load(f.path(), kBmp, 2);
  llibUpscale1BitToCmapBMP(0);
  ASSERT_EQ(l.status, VLOAD_OK);
  EXPECT_EQ(l.description.layout, VLOAD_LAYOUT_INDEXED);
  EXPECT_EQ(l.rows, bw.expectedRows(true));
  EXPECT_EQ(l.description.colourMap[3], 255);  // entry 1 white
}

// More than 256 entries: the first 256 are kept, the rest skipped.
TEST(BmpPixels, RowsFollowLongTables) {
  std::vector<vtest::Rgb> palette = vtest::greyRamp(256);
  palette.resize(300, {1, 2, 3});
  const BmpBuilder b = BmpBuilder{}.size(6, 4).bits(8).palette(palette).coloursUsedField(300);
  const TempFile f(b.build(), ".bmp");
  const vtest::Loaded l = vtest::load(f.path(), kBmp);
  ASSERT_EQ(l.status, VLOAD_OK);
  EXPECT_EQ(l.rows, b.expectedRows());
  EXPECT_EQ(l.description.colourMap[3 * 255], 255);

  // A count far beyond the file: the rows are missing, not read from elsewhere.
  const TempFile huge(vtest::patched32le(b.build(), 46, 0x7FFFFFFF), ".bmp");
  EXPECT_EQ(vtest::load(huge.path(), kBmp).status, VLOAD_BAD_DATA);
}

// Quirk kept on purpose: the data offset is never used, so rows start where
// the colour table ends, or right after the header for true colour.
TEST(BmpPixels, RowsStartWhereTheTableEnds) {
  const Bytes gap = rowsOf(BmpBuilder{}.size(4, 2).bits(8).palette(vtest::greyRamp(256)).gap(4));
  ASSERT_EQ(gap.size(), 8u);
  EXPECT_EQ(Bytes(gap.begin() + 4, gap.end()), Bytes(4, 0xEE));  // bottom row = the gap
  const Bytes rgb = rowsOf(BmpBuilder{}.size(4, 1).bits(24).palette({{10, 20, 30}}));
  ASSERT_EQ(rgb.size(), 12u);
  EXPECT_EQ(Bytes(rgb.begin(), rgb.begin() + 3), (Bytes{10, 20, 30}));
}

// ---- Truncation and misuse

TEST(BmpDelivery, TruncatedDataFailsInTheBandThatMeetsTheEnd) {
  const BmpBuilder b = BmpBuilder{}.size(5, 10).bits(24);  // 16-byte stored rows
  const Bytes full = b.build();
  const TempFile f(vtest::truncated(full, full.size() - 16 * 3 - 5), ".bmp");  // 6.x rows left
  open(f.path());
  Bytes image(15 * 10);
  for (int call = 0; call < 3; ++call) EXPECT_EQ(getLoadBand()(image.data(), 2, 15, nullptr), VLOAD_OK);
  EXPECT_EQ(getLoadBand()(image.data(), 2, 15, nullptr), VLOAD_BAD_DATA);
  EXPECT_EQ(getLoadBand()(image.data(), 2, 15, nullptr), VLOAD_BAD_DATA);  // and stays failed
  vload_tool::endLoad();
  const Bytes want = b.expectedRows();
  EXPECT_EQ(Bytes(image.begin() + 15 * 4, image.end()), Bytes(want.begin() + 15 * 4, want.end()));
}

// Without the colour map the table is still read past, so the rows come right.
TEST(BmpDelivery, NothingAfterTheLastRowAndStridesMayBeWider) {
  const BmpBuilder b = BmpBuilder{}.size(15, 4).bits(8).palette(vtest::greyRamp(256));
  const TempFile f(b.build(), ".bmp");
  EXPECT_EQ(open(f.path(), false).colourMap[0], 0xAB);  // the caller's map is untouched
  Bytes image(20 * 4, 0x55);
  const LoadBandFn loadBand = getLoadBand();
  EXPECT_EQ(loadBand(image.data(), 4, 20, nullptr), VLOAD_OK);
  EXPECT_EQ(loadBand(image.data(), 1, 20, nullptr), VLOAD_BAD_REQUEST);   // all delivered
  vload_tool::endLoad();
  EXPECT_EQ(loadBand(image.data(), 1, 20, nullptr), VLOAD_BAD_REQUEST);   // after endLoad
  EXPECT_EQ(getEndLoad()(nullptr, 0, 0, nullptr), 0u);                    // twice is harmless
  Bytes want = b.expectedRows();
  for (size_t y = 0; y < 4; ++y) want.insert(want.begin() + long(20 * y + 15), 5, 0x55);  // padding untouched
  EXPECT_EQ(image, want);
}

TEST(BmpDelivery, TwoThreadsLoadTwoFilesAtOnce) {
  const BmpBuilder a = BmpBuilder{}.size(31, 40).bits(24);
  const BmpBuilder b = BmpBuilder{}.size(17, 50).bits(8).palette(vtest::greyRamp(256));
  const TempFile fa(a.build(), ".bmp"), fb(b.build(), ".bmp");
  for (int round = 0; round < 20; ++round) {
    vtest::Loaded la, lb;
    std::thread ta([&] { la = vtest::load(fa.path(), 0, 1); });
    std::thread tb([&] { lb = vtest::load(fb.path(), 0, 3); });
    ta.join();
    tb.join();
    ASSERT_EQ(la.rows, a.expectedRows());
    ASSERT_EQ(lb.rows, b.expectedRows());
  }
}

}  // namespace
