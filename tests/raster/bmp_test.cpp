// BMP loader: header rules, densities, colour tables, every depth in every
// band size, truncation, protocol misuse, and two threads at once.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstring>
#include <string>
#include <thread>

#include "tests/support/bmp_writer.h"
#include "tests/support/harness.h"
#include "tests/support/temp_file.h"
#include "vload.h"

namespace {

using vtest::BmpBuilder;
using vtest::Bytes;
using vtest::TempFile;

constexpr int32_t kBmp = 24;

struct Described {
  uint32_t status = 0;
  uint8_t layout = 0xEE;
  uint32_t width = 0, height = 0, xDensity = 0, yDensity = 0, xRepeat = 0, yRepeat = 0;
  uint8_t map[768];
  char info[VLOAD_INFO_TEXT_SIZE] = {};
  uint8_t mirrorX = 0xEE, firstPart = 0xEE;
};

// tryLoad through the registry; the load is left open for the caller.
Described tryLoad(const char* path, bool readColourMap = true) {
  Described d;
  std::memset(d.map, 0xAB, sizeof d.map);
  returnLoaderFunctions(kBmp, path);
  d.status = getTryLoad()(path, &d.layout, &d.width, &d.height, &d.xDensity, &d.yDensity,
                          &d.xRepeat, &d.yRepeat, d.map, d.info, &d.mirrorX, &d.firstPart,
                          readColourMap);
  return d;
}

void endLoad() { getEndLoad()(nullptr, 0, 0, nullptr); }

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
  };
  const int fds = vtest::openFdCount();
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const TempFile f(c.bytes, ".bmp");
    EXPECT_EQ(tryLoad(f.path()).status, c.want);
    EXPECT_EQ(vtest::openFdCount(), fds);  // a failed tryLoad leaves nothing open
  }
  EXPECT_EQ(tryLoad("/no/such/picture.bmp").status, VLOAD_NOT_THIS_FORMAT);
}

TEST(BmpHeader, ReportsTheFixedOutputs) {
  const TempFile f(BmpBuilder{}.size(262140, 2).build(), ".bmp");  // the widest accepted
  const Described d = tryLoad(f.path());
  ASSERT_EQ(d.status, VLOAD_OK);
  EXPECT_EQ(d.layout, VLOAD_LAYOUT_RGB);
  EXPECT_EQ(d.width, 262140u);
  EXPECT_EQ(d.height, 2u);
  EXPECT_STREQ(d.info, " ");
  EXPECT_EQ(d.mirrorX, 0);
  EXPECT_EQ(d.firstPart, 1);
  EXPECT_EQ(d.xRepeat, 1u);
  EXPECT_EQ(d.yRepeat, 1u);
  EXPECT_EQ(d.map[0], 0xAB);  // no colour map for true colour
  endLoad();
}

// ---- Densities

TEST(BmpDensity, ConvertedAndSanityChecked) {
  struct Case { uint32_t xPpm, yPpm, wantX, wantY; };
  const Case cases[] = {
      {3780, 3780, 96012, 96012},  // 96 dpi
      {1, 50, 25, 1270},           // 1270 / 25 = 50: kept
      {51, 1, 0, 0},               // 1295 / 25 = 51, the larger one in x: dropped
      {0, 5000, 0, 127000},        // no test below 11 in x
      {4000000000u, 3780, 0, 96012},  // beyond 32 bits signed: unknown
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::to_string(c.xPpm) + " x " + std::to_string(c.yPpm));
    const TempFile f(BmpBuilder{}.pixelsPerMetre(c.xPpm, c.yPpm).build(), ".bmp");
    const Described d = tryLoad(f.path());
    EXPECT_EQ(d.xDensity, c.wantX);
    EXPECT_EQ(d.yDensity, c.wantY);
    endLoad();
  }
}

TEST(BmpDensity, DsnNamesSwapThem) {
  const Bytes bytes = BmpBuilder{}.pixelsPerMetre(3780, 7560).build();
  const TempFile dsn(bytes, "pattern.DSN", true);
  Described d = tryLoad(dsn.path());
  EXPECT_EQ(d.xDensity, 192024u);
  EXPECT_EQ(d.yDensity, 96012u);
  endLoad();

  // "a.dsn" is too short a name for the rule.
  const TempFile shortName(bytes, "a.dsn", true);
  char cwd[4096];
  ASSERT_NE(::getcwd(cwd, sizeof cwd), nullptr);
  ASSERT_EQ(::chdir(vtest::tempDir().c_str()), 0);
  d = tryLoad("a.dsn");
  EXPECT_EQ(::chdir(cwd), 0);
  EXPECT_EQ(d.xDensity, 96012u);
  endLoad();

  const TempFile core(BmpBuilder{}.headerSize(12).build(), "core.dsn", true);
  EXPECT_EQ(tryLoad(core.path()).xDensity, 0u);  // the core header has no densities
  endLoad();
}

// ---- Pixels

TEST(BmpPixels, EveryDepthInEveryBandSize) {
  for (uint32_t header : {12u, 40u, 125u})
    for (int32_t width : {1, 8, 33}) {
      const auto b = [&](uint16_t bits) { return BmpBuilder{}.headerSize(header).size(width, 5).bits(bits); };
      const std::pair<BmpBuilder, uint8_t> depths[] = {
          {b(1).palette(vtest::whiteBlack()), VLOAD_LAYOUT_BILEVEL},
          {b(4).palette(vtest::greyRamp(16)), VLOAD_LAYOUT_INDEXED},
          {b(8).palette(vtest::greyRamp(256)), VLOAD_LAYOUT_INDEXED},
          {b(24), VLOAD_LAYOUT_RGB},
          {b(32), VLOAD_LAYOUT_RGBA},
      };
      for (const auto& [builder, layout] : depths) {
        const TempFile f(builder.build(), ".bmp");
        for (uint32_t band : {1u, 2u, 0u}) {
          SCOPED_TRACE(std::string(f.path()) + " band " + std::to_string(band));
          const vtest::Loaded l = vtest::load(f.path(), 0, band);
          ASSERT_EQ(l.status, VLOAD_OK);
          EXPECT_EQ(l.description.loader, uint32_t(kBmp));
          EXPECT_EQ(l.description.layout, layout);
          EXPECT_EQ(l.rows, builder.expectedRows());
        }
      }
    }
}

TEST(BmpPixels, ColourMapFromTheTable) {
  std::vector<vtest::Rgb> palette;
  for (int i = 0; i < 16; ++i) palette.push_back({uint8_t(i), uint8_t(100 + i), uint8_t(200 + i)});
  for (uint32_t header : {12u, 40u}) {
    const TempFile f(BmpBuilder{}.headerSize(header).bits(4).palette(palette).build(), ".bmp");
    const Described d = tryLoad(f.path());
    ASSERT_EQ(d.status, VLOAD_OK);
    for (int i = 0; i < 16; ++i) EXPECT_EQ(Bytes(d.map + 3 * i, d.map + 3 * i + 3), (Bytes{uint8_t(i), uint8_t(100 + i), uint8_t(200 + i)}));
    EXPECT_EQ(d.map[3 * 16], 0);  // entries the file does not define are black
    endLoad();
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

TEST(BmpPixels, RowsFollowTablesOfAnyLength) {
  const BmpBuilder shortTable = BmpBuilder{}.size(6, 4).bits(8).palette(vtest::greyRamp(3)).pixels(
      [](uint32_t x, uint32_t y, int) { return uint8_t((x + y) % 3); });
  EXPECT_EQ(rowsOf(shortTable), shortTable.expectedRows());

  // More than 256 entries: the first 256 are kept, the rest skipped.
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

TEST(BmpPixels, DescriptionOnlyStillPositionsTheRows) {
  const BmpBuilder b = BmpBuilder{}.size(9, 4).bits(8).palette(vtest::greyRamp(256));
  const TempFile f(b.build(), ".bmp");
  ASSERT_EQ(tryLoad(f.path(), false).map[0], 0xAB);  // the caller's map is untouched
  Bytes rows(9 * 4);
  EXPECT_EQ(getLoadBand()(rows.data(), 4, 9, nullptr), VLOAD_OK);
  EXPECT_EQ(rows, b.expectedRows());
  endLoad();
}

// Quirk kept on purpose: the data offset is never used, so rows start where
// the colour table ends, or right after the header for true colour.
TEST(BmpPixels, RowsStartWhereTheTableEnds) {
  const Bytes gap = rowsOf(BmpBuilder{}.size(4, 2).bits(8).palette(vtest::greyRamp(256)).gap(4));
  EXPECT_EQ(Bytes(gap.begin() + 4, gap.end()), Bytes(4, 0xEE));  // bottom row = the gap
  const Bytes rgb = rowsOf(BmpBuilder{}.size(4, 1).bits(24).palette({{10, 20, 30}}));
  EXPECT_EQ(Bytes(rgb.begin(), rgb.begin() + 3), (Bytes{10, 20, 30}));
}

// ---- Truncation and misuse

TEST(BmpDelivery, TruncatedDataFailsInTheBandThatMeetsTheEnd) {
  const BmpBuilder b = BmpBuilder{}.size(5, 10).bits(24);  // 16-byte stored rows
  const Bytes full = b.build();
  const TempFile f(vtest::truncated(full, full.size() - 16 * 3 - 5), ".bmp");  // 6.x rows left
  ASSERT_EQ(tryLoad(f.path()).status, VLOAD_OK);
  Bytes image(15 * 10);
  for (int call = 0; call < 3; ++call) EXPECT_EQ(getLoadBand()(image.data(), 2, 15, nullptr), VLOAD_OK);
  EXPECT_EQ(getLoadBand()(image.data(), 2, 15, nullptr), VLOAD_BAD_DATA);
  EXPECT_EQ(getLoadBand()(image.data(), 2, 15, nullptr), VLOAD_BAD_DATA);  // and stays failed
  endLoad();
  const Bytes want = b.expectedRows();
  EXPECT_EQ(Bytes(image.begin() + 15 * 4, image.end()), Bytes(want.begin() + 15 * 4, want.end()));
}

TEST(BmpDelivery, RequestsThatDoNotFitAreRefusedAndStridesMayBeWider) {
  const BmpBuilder b = BmpBuilder{}.size(5, 4).bits(24);
  const TempFile f(b.build(), ".bmp");
  ASSERT_EQ(tryLoad(f.path()).status, VLOAD_OK);
  Bytes image(20 * 4, 0x55);
  const LoadBandFn loadBand = getLoadBand();
  EXPECT_EQ(loadBand(image.data(), 5, 20, nullptr), VLOAD_BAD_REQUEST);   // more rows than left
  EXPECT_EQ(loadBand(image.data(), 1, 14, nullptr), VLOAD_BAD_REQUEST);   // stride under a row
  EXPECT_EQ(loadBand(image.data(), -1, 20, nullptr), VLOAD_BAD_REQUEST);
  EXPECT_EQ(loadBand(nullptr, 1, 20, nullptr), VLOAD_BAD_REQUEST);
  EXPECT_EQ(loadBand(image.data(), 0, 20, nullptr), VLOAD_OK);
  EXPECT_EQ(loadBand(image.data(), 4, 20, nullptr), VLOAD_OK);
  EXPECT_EQ(loadBand(image.data(), 1, 20, nullptr), VLOAD_BAD_REQUEST);   // all delivered
  endLoad();
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
