// PNG loader: every colour type and depth, interlaced or not, in every band
// size, against libpng's plain decode under the loader's layout rules; text
// keys, densities, transparency, failures, and the PngSuite.
#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <string>
#include <thread>

#include "framework/checked.h"
#include "tests/support/harness.h"
#include "tests/support/png_writer.h"
#include "tests/support/temp_file.h"
#include "vload.h"

namespace {

using vtest::Bytes;
using vtest::PngBuilder;
using vtest::TempFile;

constexpr int32_t kPng = 2;

// ---- What the loader must deliver, from libpng's plain decode

struct Expected {
  uint8_t layout = 0;
  Bytes rows;  // tightly packed
};

// The loader's layout rules: grey inverted (with a map that inverts it back),
// 1-bit grey bilevel, 16 bits cut to the high byte, tRNS grey and palette
// widened to R, G, B, A through an alpha table whose entry 255 is 0.
Expected expectedFor(const vtest::PngSamples& p) {
  const int top = (1 << std::min(p.depth, 8)) - 1;
  const auto v8 = [&](uint16_t v) { return uint8_t(p.depth == 16 ? v >> 8 : v * (255 / top)); };
  const bool trns = p.hasTrns && (p.type == 0 || p.type == 3);
  uint8_t alpha[256];
  std::memset(alpha, 255, sizeof alpha);
  alpha[255] = 0;
  if (trns && p.type == 0) alpha[p.trnsGrey & 0xFF] = 0;
  if (trns && p.type == 3) std::copy(p.trnsAlpha.begin(), p.trnsAlpha.end(), alpha);

  Expected e;
  e.layout = p.type == 2 ? VLOAD_LAYOUT_RGB
             : p.type == 4 || p.type == 6 || trns ? VLOAD_LAYOUT_RGBA
             : p.type == 0 && p.depth == 1 ? VLOAD_LAYOUT_BILEVEL
                                           : VLOAD_LAYOUT_INDEXED;
  const uint32_t stride = *ldr::layoutRowBytes(e.layout, p.width);
  e.rows.assign(size_t(stride) * p.height, 0);
  for (uint32_t y = 0; y < p.height; ++y) {
    uint8_t* row = e.rows.data() + size_t(y) * stride;
    for (uint32_t x = 0; x < p.width; ++x) {
      const uint16_t* s = &p.samples[(size_t(y) * p.width + x) * p.channels];
      if (e.layout == VLOAD_LAYOUT_BILEVEL) {
        row[x / 8] |= uint8_t((1 - s[0]) << (7 - x % 8));
      } else if (e.layout == VLOAD_LAYOUT_INDEXED) {
        row[x] = uint8_t(p.type == 3 ? s[0] : p.depth == 16 ? 255 - v8(s[0]) : top - s[0]);
      } else if (e.layout == VLOAD_LAYOUT_RGB) {
        for (int c = 0; c < 3; ++c) row[3 * x + c] = v8(s[c]);
      } else if (p.type == 3) {
        const bool known = 3u * s[0] + 2 < p.palette.size();
        for (int c = 0; c < 4; ++c) row[4 * x + c] = c == 3 ? alpha[s[0]] : known ? p.palette[3 * s[0] + c] : 0;
      } else {
        const bool grey = p.type == 0 || p.type == 4;
        for (int c = 0; c < 3; ++c) row[4 * x + c] = v8(s[grey ? 0 : c]);
        row[4 * x + 3] = p.type == 0 ? alpha[v8(s[0])] : v8(s[grey ? 1 : 3]);
      }
    }
  }
  return e;
}

// Bilevel padding bits are whatever the file had, inverted: not compared.
Bytes withoutPadding(Bytes rows, uint8_t layout, uint32_t width) {
  if (layout != VLOAD_LAYOUT_BILEVEL || width % 8 == 0) return rows;
  const uint32_t stride = (width + 7) / 8;
  for (size_t i = stride - 1; i < rows.size(); i += stride) rows[i] &= uint8_t(0xFF << (8 - width % 8));
  return rows;
}

void expectLikeLibpng(const char* path, std::initializer_list<uint32_t> bands) {
  const vtest::PngSamples raw = vtest::decodePngSamples(path);
  ASSERT_FALSE(raw.samples.empty()) << "libpng refuses " << path;
  const Expected want = expectedFor(raw);
  for (uint32_t band : bands) {
    SCOPED_TRACE("band " + std::to_string(band));
    const vtest::Loaded l = vtest::load(path, kPng, band);
    ASSERT_EQ(l.status, VLOAD_OK);
    ASSERT_EQ(l.description.layout, want.layout);
    EXPECT_EQ(withoutPadding(l.rows, want.layout, raw.width), want.rows);
    if (want.layout == VLOAD_LAYOUT_INDEXED && raw.type == 3) {
      EXPECT_EQ(0, std::memcmp(l.description.colourMap, raw.palette.data(), raw.palette.size()));
    }
  }
}

// ---- Pixels

TEST(PngPixels, EveryTypeAndDepthInEveryBandSize) {
  struct Case { int type, depth; bool trns; };
  const Case cases[] = {
      {0, 1, false}, {0, 2, false}, {0, 4, false}, {0, 8, false}, {0, 16, false},
      {0, 1, true},  {0, 2, true},  {0, 4, true},  {0, 8, true},  {0, 16, true},
      {2, 8, false}, {2, 16, false}, {2, 8, true},
      {3, 1, false}, {3, 2, false}, {3, 4, false}, {3, 8, false},
      {3, 1, true},  {3, 4, true},  {3, 8, true},
      {4, 8, false}, {4, 16, false}, {6, 8, false}, {6, 16, false},
  };
  for (const Case& c : cases) {
    for (bool interlaced : {false, true}) {
      PngBuilder b = PngBuilder{}.size(13, 11).type(c.type, c.depth).interlaced(interlaced);
      if (c.type == 3) {
        std::vector<uint8_t> plte;
        for (int i = 0; i < (1 << c.depth); ++i) plte.insert(plte.end(), {uint8_t(i * 3), uint8_t(255 - i), uint8_t(i * 7)});
        b.palette(plte);
        if (c.trns) b.paletteAlpha({0, 128, 7});
      } else if (c.trns) {
        b.transparentGrey(c.type == 2 ? 3 : 1);
      }
      const TempFile f(b.build(), ".png");
      SCOPED_TRACE("type " + std::to_string(c.type) + " depth " + std::to_string(c.depth) +
                   (c.trns ? " tRNS" : "") + (interlaced ? " interlaced" : ""));
      expectLikeLibpng(f.path(), {1, 3, 0});
    }
  }
}

// Greys arrive inverted (1 is dark in a bilevel picture), with a map that
// inverts them back: the map shows the file's greys.
TEST(PngPixels, GreyMapsShowTheFilesGreys) {
  struct Case { int depth; std::vector<uint8_t> first; };
  for (const Case& c : {Case{2, {255, 170, 85, 0}}, Case{4, {255, 238, 221}}, Case{8, {255, 254}}, Case{16, {255, 254}}}) {
    SCOPED_TRACE(c.depth);
    const TempFile f(PngBuilder{}.type(0, c.depth).build(), ".png");
    const vtest::Loaded l = vtest::load(f.path(), 0);
    ASSERT_EQ(l.status, VLOAD_OK);
    EXPECT_EQ(l.description.loader, uint32_t(kPng));
    for (size_t i = 0; i < c.first.size(); ++i) EXPECT_EQ(l.description.colourMap[3 * i + 1], c.first[i]);
  }
}

// Quirk kept: the alpha table's entry 255 is never set, so index 255 is
// transparent unless tRNS covers it, in every thread, the first included.
TEST(PngPixels, PaletteIndex255UncoveredByTrnsIsTransparentInAFreshThread) {
  std::vector<uint8_t> plte(256 * 3, 90);
  const PngBuilder b = PngBuilder{}.size(2, 1).type(3, 8).palette(plte).paletteAlpha({10}).samples(
      [](uint32_t x, uint32_t, int) { return uint16_t(x ? 255 : 0); });
  const TempFile f(b.build(), ".png");
  vtest::Loaded l;
  std::thread([&] { l = vtest::load(f.path(), kPng); }).join();
  ASSERT_EQ(l.status, VLOAD_OK);
  EXPECT_EQ(l.description.layout, VLOAD_LAYOUT_RGBA);
  EXPECT_EQ(l.rows, (Bytes{90, 90, 90, 10, 90, 90, 90, 0}));
}

// ---- Header values

TEST(PngHeader, RepeatsFromTextKeysAndDensitiesFromPhys) {
  const char* ten[] = {"Author", "Description", "Copyright", "Creation time", "Software",
                       "Disclaimer", "Warning", "Source", "Comment", "Title"};
  const auto withEmptyKeywords = [&](int n) {
    PngBuilder b = PngBuilder{}.pixelsPerUnit(11811, 3780);
    for (int i = 0; i < n; ++i) b.text(ten[i], "");
    return b;
  };
  struct Case { const char* name; PngBuilder b; uint32_t xRepeat, yRepeat, xDensity, yDensity; };
  const Case cases[] = {
      {"no keys, no pHYs", PngBuilder{}, 1, 1, 0, 0},
      {"MulX 4", PngBuilder{}.text("MulX", "4"), 4, 1, 0, 0},
      {"MulY 3 and a longer key", PngBuilder{}.text("MulYrepeat", "3 times"), 1, 3, 0, 0},
      {"per metre", withEmptyKeywords(0), 1, 1, 299999, 96012},
      {"ten empty keywords: per centimetre", withEmptyKeywords(10), 1, 1, 761998, 243870},
      {"ten keywords, one with text", withEmptyKeywords(9).text("Title", "x"), 1, 1, 299999, 96012},
      {"unit ignored", PngBuilder{}.pixelsPerUnit(100, 100, 0), 1, 1, 2540, 2540},
      {"density beyond 32 bits", PngBuilder{}.pixelsPerUnit(0x7FFFFFFF, 1), 1, 1, 0, 25},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const TempFile f(c.b.build(), ".png");
    const vtest::Loaded l = vtest::load(f.path(), kPng);
    ASSERT_EQ(l.status, VLOAD_OK);
    const vload_tool::Description& d = l.description;
    EXPECT_EQ(d.xRepeat, c.xRepeat);
    EXPECT_EQ(d.yRepeat, c.yRepeat);
    EXPECT_EQ(d.xDensity, c.xDensity);
    EXPECT_EQ(d.yDensity, c.yDensity);
    EXPECT_STREQ(d.info, " ");
    EXPECT_EQ(d.mirrorX, 0);
    EXPECT_EQ(d.firstPart, 1);
  }
}

// ---- Failures

TEST(PngFailures, StatusesAndNothingLeftOpen) {
  const Bytes good = PngBuilder{}.size(40, 30).build();
  struct Case { const char* name; Bytes bytes; uint32_t describe, deliver; };
  const Case cases[] = {
      {"signature", vtest::patched8(good, 1, 'Q'), VLOAD_NOT_THIS_FORMAT, 0},
      {"shorter than the signature", vtest::truncated(good, 5), VLOAD_NOT_THIS_FORMAT, 0},
      {"cut in the header", vtest::truncated(good, 20), VLOAD_CANNOT_OPEN, 0},
      {"cut in the pixels", vtest::truncated(good, good.size() - 60), VLOAD_OK, VLOAD_CANNOT_OPEN},
      {"no IEND", vtest::truncated(good, good.size() - 12), VLOAD_OK, VLOAD_CANNOT_OPEN},
  };
  testing::internal::CaptureStderr();  // libpng's messages never reach it
  const int fds = vtest::openFdCount();
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const TempFile f(c.bytes, ".png");
    for (uint32_t band : {1u, 0u}) {
      const vtest::Loaded l = vtest::load(f.path(), kPng, band);
      EXPECT_EQ(l.status, c.deliver ? c.deliver : c.describe);
      EXPECT_EQ(l.delivering, c.deliver != 0);
      EXPECT_EQ(vtest::openFdCount(), fds);
    }
  }
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
  EXPECT_EQ(vtest::tryLoadStatus("/no/such/file.png", kPng), VLOAD_CANNOT_OPEN);
  registerLoadPNG();
  Bytes row(200);
  EXPECT_EQ(getLoadBand()(row.data(), 1, 200, nullptr), VLOAD_CANNOT_OPEN);  // nothing open
}

// ---- Public samples

TEST(PngCorpus, PngSuiteMatchesLibpngAndBrokenFilesFail) {
  const std::filesystem::path dir = std::filesystem::path(VLOAD_CORPUS_DIR) / "png";
  if (!std::filesystem::is_directory(dir)) GTEST_SKIP() << "no corpus at " << dir;
  int valid = 0, broken = 0;
  for (const auto& e : std::filesystem::directory_iterator(dir)) {
    const std::string name = e.path().filename().string(), path = e.path().string();
    SCOPED_TRACE(name);
    if (name.rfind("pngsuite_x", 0) == 0) {
      for (uint32_t band : {0u, 1u}) EXPECT_NE(vtest::load(path.c_str(), kPng, band).status, VLOAD_OK);
      ++broken;
    } else {
      expectLikeLibpng(path.c_str(), {0, 7});
      ++valid;
    }
  }
  EXPECT_GT(valid, 100);
  EXPECT_GT(broken, 10);
}

}  // namespace
