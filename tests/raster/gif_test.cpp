// GIF loader: header rules and densities, pixels against giflib in every band
// size, the decoder's quirks and guards, the fast decoder against the
// unwinding one on arbitrary streams, and the public samples.
#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <map>
#include <random>
#include <string>
#include <thread>

#include "raster/gif_lzw.h"
#include "tests/support/gif_writer.h"
#include "tests/support/giflib_reader.h"
#include "tests/support/harness.h"
#include "tests/support/temp_file.h"
#include "vload.h"

namespace {

using vtest::Bytes;
using vtest::GifBuilder;
using vtest::TempFile;

constexpr int32_t kGif = 1;

vtest::Loaded loadGif(const Bytes& file, uint32_t band = 0) {
  const TempFile f(file, ".gif");
  return vtest::load(f.path(), kGif, band);
}

uint8_t noise(uint32_t x, uint32_t y, uint32_t colours) {
  uint32_t h = x * 0x9E3779B1u ^ (y + 0x7F4A7C15u) * 0x85EBCA6Bu;
  h ^= h >> 15;
  return uint8_t(h * 0x2C1B3C6Du >> 24) % colours;
}

// ---- Header

TEST(GifHeader, RefusesWhatItDoesNotRead) {
  const Bytes good = GifBuilder{}.build();
  struct Case { const char* name; Bytes bytes; uint32_t want; };
  const Case cases[] = {
      {"GIF88a", GifBuilder{}.signature("GIF88a").build(), VLOAD_NOT_THIS_FORMAT},
      {"empty", Bytes{}, VLOAD_NOT_THIS_FORMAT},
      {"signature only", vtest::truncated(good, 6), VLOAD_CANNOT_OPEN},
      {"cut in the colour table", vtest::truncated(good, 20), VLOAD_CANNOT_OPEN},
      {"no global colour table", GifBuilder{}.noGlobalTable().build(), VLOAD_UNSUPPORTED},
      {"local colour table", GifBuilder{}.imageFlags(0x81).build(), VLOAD_UNSUPPORTED},
      {"interlaced", GifBuilder{}.imageFlags(0x40).build(), VLOAD_UNSUPPORTED},
      {"width 0", GifBuilder{}.size(0, 3).build(), VLOAD_UNSUPPORTED},
      {"height 0", GifBuilder{}.size(3, 0).build(), VLOAD_UNSUPPORTED},
      {"ends after the colour table", vtest::truncated(good, 25), VLOAD_UNSUPPORTED},
      {"cut in the image descriptor", vtest::truncated(good, 30), VLOAD_CANNOT_OPEN},
      {"ends before the image flags", vtest::truncated(good, 34), VLOAD_CANNOT_OPEN},
      {"extension label 0x02", GifBuilder{}.before(vtest::gifExtension(0x02, {{1}})).build(), VLOAD_BAD_DATA},
      {"cut in a comment", vtest::truncated(GifBuilder{}.before(vtest::gifExtension(0xFE, {{1, 2, 3}})).build(), 29),
       VLOAD_CANNOT_OPEN},
  };
  const int fds = vtest::openFdCount();
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const TempFile f(c.bytes, ".gif");
    EXPECT_EQ(vtest::tryLoadStatus(f.path(), kGif), c.want);
    EXPECT_EQ(vtest::openFdCount(), fds);  // a failed tryLoad leaves nothing open
  }
}

// Every kind of extension is skipped; the colour table is read without
// readColorMap too, and entries past it are left alone. Quirk: densities
// from the aspect byte alone, in steps of 64 (see densities() in gif.cpp).
TEST(GifHeader, DescribesAfterExtensionsWithDensitiesFromTheAspectByte) {
  struct Case { uint8_t aspect; uint32_t x, y; };
  for (const Case& c : {Case{0, 0, 0}, Case{48, 0, 100000}, Case{49, 100000, 100000}, Case{113, 200000, 100000},
                        Case{255, 400000, 100000}}) {
    SCOPED_TRACE(int(c.aspect));
    const TempFile f(GifBuilder{}
                         .size(9, 4)
                         .colourBits(3)
                         .aspect(c.aspect)
                         .before(vtest::gifExtension(0xFE, {{'a', 'b'}, {'c'}, Bytes(255, 'd')}))
                         .before(vtest::gifExtension(0xF9, {{1, 0, 0, 7}}))
                         .before(vtest::gifExtension(0xFF, {Bytes(11, 'N'), {1, 0, 0}}))
                         .before(vtest::gifExtension(0x01, {Bytes(12, 0), {'t'}}))
                         .build(),
                     ".gif");
    returnLoaderFunctions(kGif, f.path());
    vload_tool::Description d;
    std::memset(d.colourMap, 0xAB, sizeof d.colourMap);
    ASSERT_EQ(vload_tool::describe(f.path(), d, false), VLOAD_OK);
    vload_tool::endLoad();
    EXPECT_EQ(d.layout, VLOAD_LAYOUT_INDEXED);
    EXPECT_EQ(d.width * 10 + d.height, 94u);
    EXPECT_STREQ(d.info, " ");
    EXPECT_EQ(d.colourMap[3 * 7], 255);
    EXPECT_EQ(d.colourMap[3 * 8], 0xAB);
    EXPECT_EQ(d.xDensity, c.x);
    EXPECT_EQ(d.yDensity, c.y);
  }
}

// ---- Pixels against giflib

TEST(GifPixels, MatchGiflibInEveryBandSize) {
  struct Case {
    const char* name;
    uint32_t width, height, bits;
    int content;  // 0 noise, 1 blocks, 2 one colour
    vtest::LzwOptions lzw;
    uint32_t minCodeSize = 0, blockBytes = 255;
  };
  // Two spare bytes where the last codes would be small: the decoder reads
  // codes in the last two bytes only in part (GifDecoder.Quirks).
  const Case cases[] = {
      {"2 colours, code size 2", 61, 17, 1, 0, {}},
      {"4 colours", 40, 40, 2, 0, {}},
      {"16 colours, blocks", 300, 200, 4, 1, {}},
      {"16 colours, noise, table cleared when full", 257, 129, 4, 0, {}},
      {"256 colours, noise", 200, 150, 8, 0, {}},
      {"256 colours, full table kept", 200, 150, 8, 0, {.clearWhenFull = false}},
      {"16 colours, full table kept", 300, 300, 4, 0, {.clearWhenFull = false}},
      {"clear codes every 50 codes", 90, 70, 3, 0, {.clearEvery = 50, .padBytes = 2}},
      {"one colour: strings longer than a row", 7, 300, 2, 2, {}},
      {"one column", 1, 500, 4, 0, {}},
      {"wide", 4000, 3, 8, 0, {}},
      {"no leading clear code", 50, 20, 4, 0, {.leadingClear = false}},
      {"code size above the depth", 64, 33, 2, 0, {}, 8},
      {"sub-blocks of 3 bytes", 40, 40, 5, 0, {}, 0, 3},
  };
  for (const Case& c : cases) {
    const auto pixel = [&](uint32_t x, uint32_t y) -> uint8_t {
      if (c.content == 2) return 1;
      if (c.content == 1) return uint8_t((x / 23 + y / 11 * 3) % (1u << c.bits));
      return noise(x, y, 1u << c.bits);
    };
    const GifBuilder b = GifBuilder{}.size(c.width, c.height).colourBits(c.bits).minCodeSize(c.minCodeSize)
                             .blockBytes(c.blockBytes).lzw(c.lzw).pixels(pixel);
    const TempFile f(b.build(), ".gif");
    const vtest::GiflibImage ref = vtest::giflibFirstImage(f.path());
    SCOPED_TRACE(c.name);
    ASSERT_TRUE(ref.ok);
    ASSERT_EQ(ref.pixels, b.indices());  // the writer wrote what it meant to
    for (uint32_t band : {0u, 1u, 7u}) {
      SCOPED_TRACE("band " + std::to_string(band));
      const vtest::Loaded l = vtest::load(f.path(), kGif, band);
      ASSERT_EQ(l.status, VLOAD_OK);
      EXPECT_TRUE(l.rows == ref.pixels);
    }
  }
}

// Samples that load and that giflib reads, but where a quirk of this decoder
// gives other pixels.
const std::map<std::string, const char*> kDiffersFromGiflib = {
    {"pygif_double-clears.gif", "a clear code right after a clear is a pixel"},
    {"pygif_many-clears.gif", "a clear code right after a clear is a pixel"},
    {"pygif_transparent.gif", "codes in the last two bytes of the data are not read"},
    {"pygif_invalid-transparent.gif", "codes in the last two bytes of the data are not read"},
    {"pygif_disabled-transparent.gif", "codes in the last two bytes of the data are not read"},
    {"pygif_image-outside-bg.gif", "codes in the last two bytes of the data are not read"},
    {"pygif_image-overlap-bg.gif", "codes in the last two bytes of the data are not read"},
    {"pygif_invalid-colors.gif", "a pixel value above the colour mask is two pixels of colour 0"},
};

TEST(GifPixels, PublicSamplesMatchGiflib) {
  const std::filesystem::path dir = std::filesystem::path(VLOAD_CORPUS_DIR) / "gif";
  if (!std::filesystem::is_directory(dir)) GTEST_SKIP() << "no corpus at " << dir;
  int compared = 0;
  for (const auto& e : std::filesystem::directory_iterator(dir)) {
    if (e.path().extension() != ".gif") continue;
    const std::string path = e.path().string(), name = e.path().filename().string();
    SCOPED_TRACE(name);
    const vtest::Loaded l = vtest::load(path.c_str(), kGif, 3);
    const vtest::GiflibImage ref = vtest::giflibFirstImage(path.c_str());
    // Refused: variants it does not read (5), unknown extensions (7), cut files.
    if (!l.delivering) {
      EXPECT_TRUE(l.status == VLOAD_UNSUPPORTED || l.status == VLOAD_BAD_DATA || !ref.ok) << l.status;
    }
    if (l.status != VLOAD_OK || !ref.ok) continue;
    ++compared;
    EXPECT_EQ(l.rows == ref.pixels, !kDiffersFromGiflib.count(name));
  }
  EXPECT_GT(compared, 50);
}

// ---- Decoder

// A picture whose image data is `codes`, packed as the decoder reads them,
// with two spare bytes unless said otherwise.
Bytes codedGif(uint32_t width, uint32_t height, uint32_t colourBits, std::vector<uint16_t> codes,
               uint32_t padBytes = 2) {
  return GifBuilder{}.size(width, height).colourBits(colourBits).minCodeSize(2)
      .data(vtest::packCodes(codes, 2, padBytes)).build();
}

constexpr uint16_t C = 4, E = 5;  // clear and end codes for a minimum code size of 2

TEST(GifDecoder, Quirks) {
  struct Case { const char* name; Bytes file; Bytes want; };
  const Case cases[] = {
      {"a clear right after a clear is a pixel", codedGif(4, 1, 2, {C, C, 1, 2, 6, E}), {0, 1, 2, 0}},
      {"an end code right after a clear is a pixel", codedGif(2, 1, 2, {C, E, 3, E}), {1, 3}},
      {"no leading clear code", codedGif(4, 1, 2, {1, 2, 6, E}), {1, 2, 1, 2}},
      {"a pixel above the colour mask is colour 0 twice", codedGif(3, 1, 1, {C, 1, 2, E}), {1, 0, 0}},
      {"codes in the last two bytes are read but for the first", codedGif(4, 1, 2, {C, 1, 2, 3, 1, E}, 0),
       {1, 2, 3, 0}},
      {"the data ends without an end code: colour 0", codedGif(5, 1, 2, {C, 3, 2, 6}), {3, 2, 3, 2, 0}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const vtest::Loaded l = loadGif(c.file);
    ASSERT_EQ(l.status, VLOAD_OK);
    EXPECT_EQ(l.rows, c.want);
  }
}

TEST(GifDecoder, Statuses) {
  const Bytes good = codedGif(4, 1, 2, {C, 1, 2, 6, E});
  const Bytes open = codedGif(9, 1, 2, {C, 1, 2, 6});  // needs codes after its data
  const size_t codeSizeAt = good.size() - 8;  // then: length 4, 2 bytes and 2 spare, 0, trailer
  struct Case { const char* name; Bytes file; uint32_t want; };
  const Case cases[] = {
      {"minimum code size 1", vtest::patched8(good, codeSizeAt, 1), VLOAD_BAD_DATA},
      {"minimum code size 12", vtest::patched8(good, codeSizeAt, 12), VLOAD_BAD_DATA},
      {"ends at the minimum code size", vtest::truncated(good, codeSizeAt), VLOAD_CANNOT_OPEN},
      {"ends in a sub-block", vtest::truncated(good, codeSizeAt + 3), VLOAD_CANNOT_OPEN},
      {"ends after a sub-block", vtest::truncated(open, open.size() - 2), VLOAD_CANNOT_OPEN},
      // 7 comes before the table has it (a code beyond the table); entering
      // 6 afterwards makes 7 its own prefix, and 7 then never ends.
      {"a string longer than the pixel stack", codedGif(20, 1, 2, {C, 0, 7, 6, 7, E}), VLOAD_BAD_DATA},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    for (uint32_t band : {0u, 1u}) {
      const vtest::Loaded l = loadGif(c.file, band);
      EXPECT_TRUE(l.delivering);
      EXPECT_EQ(l.status, c.want);
    }
  }
}

// The fast decoder hands over to the unwinding one for streams it cannot
// follow; on every stream, damaged or not, the two give the same rows and
// statuses, whatever the band size.
TEST(GifDecoder, FastAndUnwindingDecodersAgree) {
  std::mt19937 rng(20240611);
  const auto pick = [&](uint32_t n) { return uint32_t(rng() % n); };
  for (int round = 0; round < 250; ++round) {
    const uint32_t bits = 1 + pick(8), width = 1 + pick(40), height = 1 + pick(30);
    const uint32_t minCodeSize = std::max(2u, bits) + (pick(4) == 0 ? pick(3) : 0);
    Bytes px(size_t{width} * height);
    const uint32_t run = 1 + pick(20);
    for (size_t i = 0; i < px.size(); ++i) px[i] = uint8_t(i / run % 3 == 0 ? pick(1u << bits) : px[i ? i - 1 : 0]);
    vtest::LzwOptions o;
    o.clearWhenFull = pick(2);
    o.clearEvery = pick(3) ? 0 : 1 + pick(300);
    Bytes data = vtest::packCodes(vtest::lzwCodes(px, minCodeSize, o), minCodeSize);
    for (uint32_t k = pick(4); k > 0 && !data.empty(); --k) data[pick(uint32_t(data.size()))] = uint8_t(rng());
    if (pick(5) == 0) data = vtest::truncated(data, pick(uint32_t(data.size()) + 1));
    const TempFile f(GifBuilder{}.size(width, height).colourBits(bits).minCodeSize(minCodeSize)
                         .blockBytes(1 + pick(255)).data(data).build(), ".gif");
    for (uint32_t band : {0u, 1u, 3u}) {
      SCOPED_TRACE("round " + std::to_string(round) + ", band " + std::to_string(band));
      const vtest::Loaded fast = vtest::load(f.path(), kGif, band);
      ldr::setGifUnwindingOnly(true);
      const vtest::Loaded unwound = vtest::load(f.path(), kGif, band);
      ldr::setGifUnwindingOnly(false);
      ASSERT_EQ(fast.status, unwound.status);
      ASSERT_TRUE(fast.rows == unwound.rows);
    }
  }
}

// ---- Protocol

TEST(GifProtocol, BandsAfterTheEndCodeKeepTheCallersBytes) {
  const TempFile f(codedGif(4, 3, 2, {C, 1, 2, 6, 3, E}), ".gif");  // 5 of 12 pixels
  ASSERT_EQ(returnLoaderFunctions(kGif, f.path()), uint32_t(kGif));
  vload_tool::Description d;
  ASSERT_EQ(vload_tool::describe(f.path(), d, true), VLOAD_OK);
  Bytes buffer(3 * 6, 0xEE);  // stride 6
  EXPECT_EQ(getLoadBand()(buffer.data(), 1, 6, nullptr), VLOAD_OK);
  EXPECT_EQ(getLoadBand()(buffer.data() + 6, 2, 6, nullptr), VLOAD_OK);
  const Bytes want = {1, 2, 1, 2, 0xEE, 0xEE, 3, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE};
  EXPECT_EQ(buffer, want);
  vload_tool::endLoad();
}

TEST(GifProtocol, ANewTryLoadEndsTheLastAndErrorsRepeat) {
  const Bytes file = GifBuilder{}.size(6, 4).build();
  const TempFile f(file, ".gif"), cut(vtest::truncated(file, file.size() - 6), ".gif");
  Bytes buffer(64);
  const auto band = [&](int32_t rows, int32_t stride) { return getLoadBand()(buffer.data(), rows, stride, nullptr); };
  const int fds = vtest::openFdCount();
  returnLoaderFunctions(kGif, f.path());
  vload_tool::Description d;
  ASSERT_EQ(vload_tool::describe(f.path(), d, true), VLOAD_OK);
  EXPECT_EQ(band(4, 6), VLOAD_OK);
  ASSERT_EQ(vload_tool::describe(cut.path(), d, true), VLOAD_OK);  // a new tryLoad ends the last load
  EXPECT_EQ(band(4, 6), VLOAD_CANNOT_OPEN);
  EXPECT_EQ(band(1, 6), VLOAD_CANNOT_OPEN);  // the first error stays
  vload_tool::endLoad();
  EXPECT_EQ(vtest::openFdCount(), fds);
}

// Decoder state is per thread.
TEST(GifProtocol, ThreadsLoadAtOnce) {
  const GifBuilder a = GifBuilder{}.size(300, 40).colourBits(8).pixels([](uint32_t x, uint32_t y) { return noise(x, y, 256); });
  const GifBuilder b = GifBuilder{}.size(90, 70).colourBits(4);
  const TempFile fa(a.build(), ".gif"), fb(b.build(), ".gif");
  bool okA = true, okB = true;
  const auto work = [](const TempFile* f, const Bytes want, bool* ok) {
    for (uint32_t i = 0; i < 20; ++i) *ok = *ok && vtest::load(f->path(), kGif, 1 + i % 5).rows == want;
  };
  std::thread ta(work, &fa, a.indices(), &okA), tb(work, &fb, b.indices(), &okB);
  ta.join();
  tb.join();
  EXPECT_TRUE(okA && okB);
}

}  // namespace
