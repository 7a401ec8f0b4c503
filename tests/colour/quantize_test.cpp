// The quantizer and the exact palette checks: exact colours in order of first
// appearance, the median cut's invariants and tie order, transparency, the
// index-picture variant, and bad arguments.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <set>
#include <vector>

#include "tests/support/colour_pictures.h"
#include "vload.h"

namespace {

using vtest::Bytes;

struct Quantized {
  Bytes indices, map;
  std::vector<uint8_t> flags;
  int32_t count;
};

Quantized quantize(const Bytes& src, int32_t w, int32_t h, int32_t channels, int32_t wanted) {
  Quantized q{Bytes(size_t(w) * h, 0xCD), Bytes(768, 0xCD), std::vector<uint8_t>(256, 0xCD), wanted};
  if (channels == 3)
    colorQuantize(src.data(), w * 3, q.indices.data(), w, w, h, q.map.data(), &q.count);
  else
    colorQuantizeRGBA(src.data(), w * 4, q.indices.data(), w, w, h, q.map.data(), &q.count, q.flags.data());
  return q;
}

// Every pixel's index is what the per-cell cache of the returned map gives.
void expectCachedNearest(const Quantized& q, const Bytes& src, int32_t channels) {
  vtest::CellCache nearest(q.map.data(), q.count, channels == 4 ? q.flags.data() : nullptr);
  for (size_t i = 0; i < q.indices.size(); ++i) {
    const uint8_t* p = &src[i * size_t(channels)];
    if (channels == 4 && p[3] == 0) continue;
    ASSERT_EQ(q.indices[i], nearest(p[0], p[1], p[2])) << "pixel " << i;
  }
}

Bytes pixelsOf(std::initializer_list<std::array<uint8_t, 3>> colours) {
  Bytes b;
  for (const auto& c : colours) b.insert(b.end(), c.begin(), c.end());
  return b;
}

TEST(Quantize, KeepsExactColoursInOrderOfFirstAppearance) {
  const Bytes src = pixelsOf({{9, 9, 9}, {200, 1, 2}, {9, 9, 9}, {0, 0, 255}, {200, 1, 2}, {7, 7, 7}});
  const Quantized q = quantize(src, 3, 2, 3, 4);
  ASSERT_EQ(q.count, 4);
  EXPECT_EQ(Bytes(q.map.begin(), q.map.begin() + 12), pixelsOf({{9, 9, 9}, {200, 1, 2}, {0, 0, 255}, {7, 7, 7}}));
  EXPECT_EQ(q.indices, (Bytes{0, 1, 0, 2, 1, 3}));
  EXPECT_EQ(q.map[12], 0xCD);  // nothing past the colours made

  // One colour fewer wanted: the median cut takes over.
  const Quantized cut = quantize(src, 3, 2, 3, 3);
  EXPECT_LE(cut.count, 3);
  expectCachedNearest(cut, src, 3);

  // 256 distinct colours still fit exactly; the checks agree.
  Bytes ramp;
  for (int i = 0; i < 256; ++i) ramp.insert(ramp.end(), {uint8_t(i), uint8_t(255 - i), uint8_t(i * 7)});
  const Quantized all = quantize(ramp, 16, 16, 3, 256);
  EXPECT_EQ(all.count, 256);
  EXPECT_EQ(all.map, ramp);
  Bytes checked(768);
  EXPECT_EQ(checkTrueColorPalette(ramp.data(), 48, 16, 16, checked.data()), 256);
  EXPECT_EQ(checked, ramp);
}

TEST(Quantize, MedianCutInvariantsOnPhotos) {
  struct Case { int32_t w, h, channels, wanted; };
  const Case cases[] = {{64, 48, 3, 256}, {64, 48, 3, 16}, {31, 7, 3, 2}, {100, 80, 3, 1}, {40, 40, 4, 12}};
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::Message() << c.w << "x" << c.h << " to " << c.wanted);
    Bytes src = vtest::photoLike(c.w, c.h, c.channels, uint32_t(c.w + c.wanted));
    const Quantized q = quantize(src, c.w, c.h, c.channels, c.wanted);
    ASSERT_GE(q.count, 1);
    ASSERT_LE(q.count, c.wanted);
    EXPECT_TRUE(std::all_of(q.indices.begin(), q.indices.end(), [&](uint8_t i) { return i < q.count; }));
    expectCachedNearest(q, src, c.channels);
    if (c.channels == 4) {  // opaque only: no transparent entry, no flag
      EXPECT_EQ(std::count(q.flags.begin(), q.flags.end(), 0), 256);
    }
  }
}

TEST(Quantize, MedianCutOrderAndRefusal) {
  // Four colours of equal weight, symmetric in the channels: every channel
  // scores the same, and red is cut first.
  const Bytes four = pixelsOf({{0, 0, 0}, {252, 0, 0}, {0, 252, 0}, {0, 0, 252}});
  const Quantized q = quantize(four, 4, 1, 3, 2);
  ASSERT_EQ(q.count, 2);
  EXPECT_EQ(Bytes(q.map.begin(), q.map.begin() + 6), pixelsOf({{0, 85, 85}, {255, 0, 0}}));
  EXPECT_EQ(q.indices, (Bytes{0, 1, 0, 0}));

  // Three colours in one cube cell: the first box spreads nothing, so its
  // split is refused and one colour comes back.
  const Bytes cell = pixelsOf({{0, 0, 0}, {1, 2, 3}, {3, 3, 3}});
  const Quantized one = quantize(cell, 3, 1, 3, 2);
  EXPECT_EQ(one.count, 1);
  EXPECT_EQ(one.indices, (Bytes{0, 0, 0}));
}

TEST(Quantize, TransparentPixelsGetTheirOwnFlaggedEntry) {
  Bytes src = vtest::photoLike(32, 16, 4, 3);
  for (size_t i = 0; i < src.size(); i += 4 * 5) src[i + 3] = 0;
  // Exact: entry 0 is the transparent one.
  Bytes few = src;
  for (size_t i = 0; i < few.size(); i += 4) few[i] = few[i + 1] = few[i + 2] = uint8_t(i % 3 * 100);
  const Quantized exact = quantize(few, 32, 16, 4, 8);
  ASSERT_EQ(exact.count, 4);
  EXPECT_EQ(exact.flags[0], 1);
  EXPECT_EQ(std::count(exact.flags.begin(), exact.flags.end(), 0), 255);
  // Cut: the entry after the boxes is the transparent one.
  const Quantized cut = quantize(src, 32, 16, 4, 8);
  ASSERT_GE(cut.count, 2);
  ASSERT_LE(cut.count, 8);
  EXPECT_EQ(cut.flags[size_t(cut.count - 1)], 1);
  EXPECT_EQ(std::count(cut.flags.begin(), cut.flags.end(), 0), 255);
  for (const Quantized* q : {&exact, &cut}) {
    const uint8_t transparent = q == &exact ? 0 : uint8_t(cut.count - 1);
    for (size_t i = 0; i < q->indices.size(); ++i)
      ASSERT_EQ(q->indices[i] == transparent, src[4 * i + 3] == 0) << i;
    expectCachedNearest(*q, q == &exact ? few : src, 4);
  }
}

TEST(Quantize, IndexPictureIsReducedThroughItsMap) {
  // 64 grey entries, the picture using each; reduced to 4 colours.
  Bytes map(768, 0), indices(16 * 8);
  for (int i = 0; i < 64; ++i) map[3 * i] = map[3 * i + 1] = map[3 * i + 2] = uint8_t(i * 4);
  for (size_t i = 0; i < indices.size(); ++i) indices[i] = uint8_t(i % 64);
  const Bytes oldMap = map, oldIndices = indices;
  int32_t count = 4;
  colorQuantize(nullptr, 0, indices.data(), 16, 16, 8, map.data(), &count);
  ASSERT_GE(count, 2);
  ASSERT_LE(count, 4);
  // Each old entry went to one new entry; the new entry reached from old
  // entry i < count shows old entry i's colour (the last such i).
  std::vector<int> to(64, -1);
  for (size_t i = 0; i < indices.size(); ++i) {
    ASSERT_LT(indices[i], count);
    const int old = oldIndices[i];
    ASSERT_TRUE(to[size_t(old)] < 0 || to[size_t(old)] == indices[i]);
    to[size_t(old)] = indices[i];
  }
  for (int i = 0; i < count; ++i) {
    const bool later = std::any_of(to.begin() + i + 1, to.begin() + count, [&](int t) { return t == to[size_t(i)]; });
    if (!later) {
      EXPECT_EQ(map[size_t(3 * to[size_t(i)])], oldMap[size_t(3 * i)]) << i;
    }
  }
}

TEST(PaletteCheck, CountsDistinctColoursUpTo256) {
  Bytes map(768, 0xCD);
  Bytes many = vtest::randomPixels(300, 1, 3, 4);
  EXPECT_EQ(checkTrueColorPalette(many.data(), 900, 300, 1, map.data()), 0);
  EXPECT_EQ(std::count(map.begin(), map.end(), 0xCD), 768);
  // RGBA: alpha 0 skipped, any alpha between 1 and 254 refuses, and entry 0
  // is the first pixel's colour even when that pixel is transparent.
  Bytes rgba = {50, 50, 50, 0, 1, 2, 3, 255, 50, 50, 50, 0, 1, 2, 3, 255, 9, 9, 9, 255, 8, 8, 8, 0};
  EXPECT_EQ(checkRGBAPalette(rgba.data(), 12, 3, 2, map.data()), 3);
  EXPECT_EQ(Bytes(map.begin(), map.begin() + 9), pixelsOf({{50, 50, 50}, {1, 2, 3}, {9, 9, 9}}));
  EXPECT_EQ(checkRGBAPalette(rgba.data(), 11, 3, 2, map.data()), 0);  // stride under a row
  EXPECT_EQ(checkTrueColorPalette(rgba.data(), 12, 0, 2, map.data()), 0);
  EXPECT_EQ(checkTrueColorPalette(rgba.data(), 12, 3, 2, nullptr), 0);
  for (const uint8_t alpha : {1, 128, 254}) {
    Bytes partly = rgba;
    partly[23] = alpha;
    EXPECT_EQ(checkRGBAPalette(partly.data(), 12, 3, 2, map.data()), 0) << int(alpha);
  }
}

TEST(Quantize, BadArgumentsWriteNothing) {
  const Bytes src = vtest::photoLike(8, 4, 4);
  struct Case { const char* name; int32_t srcStride, dstStride, w, h, count; bool nullDst, nullMap; };
  const Case cases[] = {
      {"zero height", 32, 8, 8, 0, 4, false, false},    {"negative width", 32, 8, -8, 4, 4, false, false},
      {"short source stride", 23, 8, 8, 4, 4, false, false}, {"short index stride", 32, 7, 8, 4, 4, false, false},
      {"no colours", 32, 8, 8, 4, 0, false, false},      {"too many colours", 32, 8, 8, 4, 257, false, false},
      {"no index picture", 32, 8, 8, 4, 4, true, false}, {"no map", 32, 8, 8, 4, 4, false, true},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    Bytes dst(32, 0xAB), map(768, 0xAB), flags(256, 0xAB);
    int32_t count = c.count;
    uint8_t* d = c.nullDst ? nullptr : dst.data();
    uint8_t* m = c.nullMap ? nullptr : map.data();
    EXPECT_EQ(colorQuantize(src.data(), c.srcStride, d, c.dstStride, c.w, c.h, m, &count), 0);
    EXPECT_EQ(colorQuantizeRGBA(src.data(), c.srcStride, d, c.dstStride, c.w, c.h, m, &count, flags.data()), 0);
    EXPECT_EQ(count, c.count);
    for (const Bytes* b : {&dst, &map, &flags}) EXPECT_EQ(size_t(std::count(b->begin(), b->end(), 0xAB)), b->size());
  }
  EXPECT_EQ(colorQuantize(src.data(), 24, Bytes(32).data(), 8, 8, 4, Bytes(768).data(), nullptr), 0);
}

}  // namespace
