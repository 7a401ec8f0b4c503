// Photoshop documents: every colour mode at 8 and 16 bits, raw and PackBits,
// PSD and PSB, in every band size; merged transparency; broken PackBits;
// header refusals; densities.
#include <gtest/gtest.h>

#include <cmath>
#include <string>

#include "tests/support/harness.h"
#include "tests/support/psd_writer.h"
#include "tests/support/temp_file.h"
#include "vload.h"

namespace {

using vtest::Bytes;
using vtest::PsdBuilder;
using vtest::TempFile;

constexpr int32_t kPsd = 76;
enum Mode : uint16_t { kBitmap = 0, kGrey = 1, kIndexed = 2, kRgb = 3, kCmyk = 4, kDuotone = 8, kLab = 9 };

// A planar colour table whose entry i is (i, 255 - i, i / 2).
Bytes colourTable() {
  Bytes t(768);
  for (int i = 0; i < 256; ++i) t[i] = uint8_t(i), t[256 + i] = uint8_t(255 - i), t[512 + i] = uint8_t(i / 2);
  return t;
}

// What the loader delivers for a document without Lab, computed from its samples.
Bytes expectedRows(const PsdBuilder& b, uint16_t mode, uint16_t depth, uint32_t w, uint32_t h, bool alpha) {
  Bytes rows;
  const auto at8 = [&](uint32_t x, uint32_t y, uint32_t c) {
    const uint32_t v = b.sampleAt(x, y, c);
    return uint8_t(depth == 16 ? std::lround(v / 257.0) : v);
  };
  const uint32_t colours = mode == kRgb ? 3 : mode == kCmyk ? 4 : 1;
  for (uint32_t y = 0; y < h; ++y) {
    if (mode == kBitmap) {
      const Bytes row = b.channelRow(0, y);
      rows.insert(rows.end(), row.begin(), row.end());
    }
    for (uint32_t x = 0; x < w && mode != kBitmap; ++x) {
      const double ink = mode == kCmyk ? at8(x, y, 3) / 255.0 : 1;  // black scales the other inks
      for (uint32_t c = 0; c < 3; ++c) rows.push_back(uint8_t(std::lround(at8(x, y, colours == 1 ? 0 : c) * ink)));
      if (alpha) rows.push_back(at8(x, y, colours));
      else if (colours == 1) rows.resize(rows.size() - 2);  // grey alone is one index a pixel
    }
  }
  return rows;
}

struct ModeCase { uint16_t mode, depth, channels; int16_t layers; uint8_t layout; };

TEST(PsdPixels, EveryColourModeRawAndPackBitsInEveryBandSize) {
  const ModeCase modes[] = {
      {kBitmap, 1, 1, 0, VLOAD_LAYOUT_BILEVEL},
      {kGrey, 8, 1, 0, VLOAD_LAYOUT_INDEXED},
      {kGrey, 16, 2, 1, VLOAD_LAYOUT_INDEXED},  // an alpha channel, no merged transparency
      {kGrey, 8, 2, -1, VLOAD_LAYOUT_RGBA},
      {kDuotone, 8, 1, 0, VLOAD_LAYOUT_INDEXED},
      {kIndexed, 8, 1, 0, VLOAD_LAYOUT_INDEXED},
      {kRgb, 8, 3, 0, VLOAD_LAYOUT_RGB},
      {kRgb, 16, 3, 2, VLOAD_LAYOUT_RGB},
      {kRgb, 8, 4, 3, VLOAD_LAYOUT_RGB},
      {kRgb, 8, 5, -2, VLOAD_LAYOUT_RGBA},
      {kRgb, 16, 4, -1, VLOAD_LAYOUT_RGBA},
      {kCmyk, 8, 4, 0, VLOAD_LAYOUT_RGB},
      {kCmyk, 16, 5, -1, VLOAD_LAYOUT_RGBA},
  };
  for (const ModeCase& m : modes)
    for (int variant = 0; variant < 8; ++variant) {
      const bool packed = variant & 1, large = variant & 2;
      const uint32_t width = variant & 4 ? 37 : 1;  // 37: two blocks of sixteen pixels and a rest
      PsdBuilder b = PsdBuilder{}.mode(m.mode).depth(m.depth).channels(m.channels).size(width, 5)
                         .packed(packed).large(large).layerCount(m.layers);
      if (m.mode == kIndexed) b.colourTable(colourTable());
      const TempFile f(b.build(), large ? ".psb" : ".psd");
      const Bytes want = expectedRows(b, m.mode, m.depth, width, 5, m.layout == VLOAD_LAYOUT_RGBA);
      for (uint32_t band : {1u, 2u, 0u}) {
        SCOPED_TRACE(::testing::Message() << "mode " << m.mode << ", " << m.depth << " bits, " << m.channels
                     << " channels, layers " << m.layers << ", packed " << packed << ", PSB " << large
                     << ", width " << width << ", band " << band);
        const vtest::Loaded l = vtest::load(f.path(), 0, band);
        ASSERT_EQ(l.status, VLOAD_OK);
        EXPECT_EQ(l.description.loader, uint32_t(kPsd));
        EXPECT_EQ(l.description.layout, m.layout);
        EXPECT_EQ(l.rows, want);
        if (m.layout == VLOAD_LAYOUT_INDEXED) {  // entry 10 of the table, or of a grey ramp
          EXPECT_EQ(Bytes(l.description.colourMap + 30, l.description.colourMap + 33),
                    (m.mode == kIndexed ? Bytes{10, 245, 5} : Bytes{10, 10, 10}));
        }
      }
    }
}

TEST(PsdPixels, LabToSrgb) {
  struct Case { const char* name; uint8_t l, a, b; int r, g, bl; };
  const Case cases[] = {
      {"white", 255, 128, 128, 255, 255, 255},
      {"black", 0, 128, 128, 0, 0, 0},
      {"mid grey, L 50", 128, 128, 128, 119, 119, 119},
      {"sRGB red (54.3, 80.8, 69.9)", 138, 209, 198, 255, 0, 0},
      {"sRGB blue (29.6, 68.3, -112.0)", 75, 196, 16, 0, 0, 255},
  };
  for (uint16_t depth : {8, 16}) {
    const PsdBuilder b = PsdBuilder{}.mode(kLab).depth(depth).size(5, 1).samples(
        [&](uint32_t x, uint32_t, uint32_t c) {
          const uint8_t v = c == 0 ? cases[x].l : c == 1 ? cases[x].a : cases[x].b;
          return depth == 16 ? v * 257u : v;
        });
    const TempFile f(b.build(), ".psd");
    const vtest::Loaded l = vtest::load(f.path());
    ASSERT_EQ(l.status, VLOAD_OK);
    ASSERT_EQ(l.rows.size(), 15u);
    for (int x = 0; x < 5; ++x) {
      SCOPED_TRACE(std::string(cases[x].name) + " at " + std::to_string(depth) + " bits");
      EXPECT_NEAR(l.rows[3 * x], cases[x].r, 2);
      EXPECT_NEAR(l.rows[3 * x + 1], cases[x].g, 2);
      EXPECT_NEAR(l.rows[3 * x + 2], cases[x].bl, 2);
    }
  }
}

TEST(PsdPixels, BrokenPackBitsRows) {
  // Rows of 6 bytes (RGB, 8 bits, width 6); the second row of the green channel is replaced.
  struct Case { const char* name; Bytes row; uint32_t want; };
  const Case cases[] = {
      {"a literal cut short", {5, 1, 2, 3}, VLOAD_BAD_DATA},
      {"a run without its byte", {1, 1, 2, 0xFD}, VLOAD_BAD_DATA},
      {"a row that ends early", {0xFE, 9}, VLOAD_BAD_DATA},
      {"no-operation bytes between runs", {0x80, 0xFE, 9, 0x80, 0xFE, 8}, VLOAD_OK},
      {"a run beyond the row, cut at its end", {0xF9, 7}, VLOAD_OK},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const PsdBuilder b = PsdBuilder{}.size(6, 3).packed().packedRow(1, 1, c.row);
    const TempFile f(b.build(), ".psd");
    for (uint32_t band : {1u, 0u}) {
      const vtest::Loaded l = vtest::load(f.path(), 0, band);
      EXPECT_EQ(l.status, c.want);
      if (c.want != VLOAD_OK) continue;
      const bool noOps = c.row[0] == 0x80;
      for (uint32_t x = 0; x < 6; ++x) EXPECT_EQ(l.rows[18 + 3 * x + 1], noOps ? (x < 3 ? 9 : 8) : 7);
    }
  }
  const Bytes whole = PsdBuilder{}.size(6, 3).packed().build();
  const TempFile cut(vtest::truncated(whole, whole.size() - 2), ".psd");
  const vtest::Loaded l = vtest::load(cut.path());
  EXPECT_TRUE(l.delivering);
  EXPECT_EQ(l.status, VLOAD_BAD_DATA);
}

// ---- Header

TEST(PsdHeader, RefusesWhatItDoesNotRead) {
  const auto rgb = [] { return PsdBuilder{}.size(4, 3); };
  const Bytes good = rgb().build();
  // Offsets: channels 12, height 14, width 18, depth 22, mode 24; compression after the sections.
  const auto patch16 = [](Bytes b, size_t at, uint32_t v) { b.at(at) = uint8_t(v >> 8); b.at(at + 1) = uint8_t(v); return b; };
  const Bytes packed = rgb().packed().build();
  // The header, empty colour mode data, the resolution resource, no layers, the compression.
  const size_t counts = 26 + 4 + (4 + 28) + 4 + 2;
  struct Case { const char* name; Bytes bytes; uint32_t want; };
  const Case cases[] = {
      {"version 3", patch16(good, 4, 3), VLOAD_NOT_THIS_FORMAT},
      {"no channels", patch16(good, 12, 0), VLOAD_NOT_THIS_FORMAT},
      {"two channels for RGB", rgb().channels(2).build(), VLOAD_NOT_THIS_FORMAT},
      {"depth 4", patch16(good, 22, 4), VLOAD_NOT_THIS_FORMAT},
      {"32 bits", rgb().depth(32).build(), VLOAD_UNSUPPORTED},
      {"multichannel", rgb().mode(7).build(), VLOAD_UNSUPPORTED},
      {"mode 5", rgb().mode(5).build(), VLOAD_NOT_THIS_FORMAT},
      {"bitmap of 8 bits", rgb().mode(kBitmap).channels(1).build(), VLOAD_NOT_THIS_FORMAT},
      {"indexed without its table", rgb().mode(kIndexed).channels(1).build(), VLOAD_NOT_THIS_FORMAT},
      {"ZIP", patch16(good, counts - 2, 2), VLOAD_UNSUPPORTED},
      {"width 0", rgb().size(0, 3).build(), VLOAD_BAD_DATA},
      {"height 30001", rgb().size(1, 30001).build(), VLOAD_BAD_DATA},
      {"PSB width 300001", rgb().large().size(300001, 1).build(), VLOAD_BAD_DATA},
      {"cut in the resources", vtest::truncated(good, 40), VLOAD_NOT_THIS_FORMAT},
      {"resources longer than the file", vtest::patched8(good, 30, 0x7F), VLOAD_NOT_THIS_FORMAT},
      {"cut in the row counts", vtest::truncated(packed, counts + 5), VLOAD_NOT_THIS_FORMAT},
      {"a row count beyond any row", patch16(packed, counts, 999), VLOAD_NOT_THIS_FORMAT},
  };
  const int fds = vtest::openFdCount();
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const TempFile f(c.bytes, ".psd");
    EXPECT_EQ(vtest::tryLoadStatus(f.path(), kPsd), c.want);
    EXPECT_EQ(vtest::openFdCount(), fds);
  }
  const TempFile wide(rgb().size(30001, 1).large().build(), ".psb");
  EXPECT_EQ(vtest::tryLoadStatus(wide.path(), kPsd), VLOAD_OK);
}

// Densities from the resolution resource (16.16 pixels per inch), and the info text.
TEST(PsdHeader, Description) {
  struct Case { PsdBuilder builder; uint32_t xDensity, yDensity; const char* info; };
  const Case cases[] = {
      {PsdBuilder{}.resolution(300u << 16, 300u << 16), 300000, 300000, "RGB, 8 bits, 3 channels, uncompressed"},
      {PsdBuilder{}.resolution(72u << 16 | 0x8000, 96u << 16).mode(kBitmap).depth(1).channels(1), 72500, 96000,
       "bitmap, 1 bit, 1 channel, uncompressed"},
      {PsdBuilder{}.resolution(1, 1).depth(16).channels(4).layerCount(-1).packed().large(), 0, 0,  // 1/65536 dpi
       "PSB RGB, 16 bits, 4 channels (merged transparency), PackBits"},
      {PsdBuilder{}.resolution(0, 0), 0, 0, "RGB, 8 bits, 3 channels, uncompressed"},  // no resource
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.info);
    const TempFile f(c.builder.build(), ".psd");
    const vtest::Loaded l = vtest::load(f.path());
    EXPECT_EQ(l.description.xDensity, c.xDensity);
    EXPECT_EQ(l.description.yDensity, c.yDensity);
    EXPECT_STREQ(l.description.info, c.info);
  }
}

}  // namespace
