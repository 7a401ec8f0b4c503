// The ditherers and remappers against plain references written from their
// rules: the ditherer, which works on two rows at once, against one that takes
// one row after another with every option (strength, noise, scaling by column
// and row maps, transparency, 16-bit indices, strides); strength 0 against the
// scaled remap; noise, threads and bad arguments.
#include <gtest/gtest.h>

#include <algorithm>
#include <optional>
#include <thread>
#include <vector>

#include "colour/colour.h"
#include "tests/support/colour_pictures.h"
#include "vload.h"

namespace {

using vtest::Bytes;

struct Options {
  int32_t bpp, sw, sh, dw, dh, count, strength, noise;
  bool flagged, wide;  // flags on (RGBA only); 16-bit indices
};

// Shares added in place and clamped, the cache filled in row order; noise
// drawn as the ditherer draws it (the table, then one start per row).
std::vector<uint32_t> reference(const Options& o, const Bytes& src, const Bytes& map, const uint8_t* flags) {
  std::optional<ldr::colour::NoiseTable> table;
  if (o.noise > 0) table.emplace(o.noise);
  const int32_t transparent = flags ? int32_t(std::find(flags, flags + o.count, 1) - flags) : -1;
  std::vector<int32_t> cur(size_t(o.dw + 2) * 4), nxt(cur.size());
  const auto load = [&](std::vector<int32_t>& row, int32_t y) {
    const int32_t sy = y * o.sh / o.dh;
    for (int32_t x = -1; x <= o.dw; ++x) {
      const uint8_t* p = &src[(size_t(sy) * o.sw + size_t(std::clamp(x, 0, o.dw - 1) * o.sw / o.dw)) * o.bpp];
      for (int c = 0; c < 4; ++c) row[size_t(x + 1) * 4 + c] = c < o.bpp ? p[c] : 255;
    }
  };
  const auto add = [](int32_t& v, int32_t share) { v = std::clamp(v + share, 0, 255); };
  vtest::CellCache nearest(map.data(), o.count, flags);
  std::vector<uint32_t> out;
  load(cur, 0);
  for (int32_t y = 0; y < o.dh; ++y) {
    if (y + 1 < o.dh) load(nxt, y + 1);
    uint32_t position = table ? ldr::colour::nextRandom() : 0;
    for (int32_t x = 0; x < o.dw; ++x) {
      int32_t* p = &cur[size_t(x + 1) * 4];
      if (transparent >= 0 && p[3] == 0) {
        out.push_back(uint32_t(transparent));
        continue;
      }
      const uint32_t i = nearest(p[0], p[1], p[2]);
      out.push_back(i);
      for (int c = 0; c < 3; ++c) {
        const int32_t e = (p[c] - map[3 * i + c] + (table ? table->at(position++) : 0)) * o.strength;
        add(p[4 + c], e * 7 >> 8);
        add(nxt[size_t(x) * 4 + c], e * 3 >> 8);
        add(nxt[size_t(x + 1) * 4 + c], e * 5 >> 8);
        add(nxt[size_t(x + 2) * 4 + c], e >> 8);
      }
    }
    std::swap(cur, nxt);
  }
  return out;
}

// The picture copied into rows of a wider stride, dithered into rows of a
// wider stride, and read back without the padding.
std::vector<uint32_t> library(const Options& o, const Bytes& tight, const Bytes& map, const uint8_t* flags) {
  const int32_t rowBytes = o.sw * o.bpp, srcStride = rowBytes + 5, dstStride = o.dw + 3;
  Bytes src(size_t(srcStride) * size_t(o.sh), 0xEE);
  for (int32_t y = 0; y < o.sh; ++y)
    std::copy_n(tight.begin() + ptrdiff_t(y) * rowBytes, rowBytes, src.begin() + ptrdiff_t(y) * srcStride);
  std::vector<uint16_t> wide(size_t(dstStride) * o.dh);
  Bytes narrow(wide.size());
  const uint8_t* s = src.data();
  if (o.wide)
    colorQuantizeDitherFS16(s, srcStride, wide.data(), dstStride * 2, o.sw, o.sh, o.dw, o.dh, map.data(), o.count,
                            o.strength, o.noise);
  else if (o.bpp == 3)
    colorQuantizeDitherFS(s, srcStride, narrow.data(), dstStride, o.sw, o.sh, o.dw, o.dh, map.data(), o.count,
                          o.strength, o.noise);
  else
    RGBAcolorQuantizeDitherFS(s, srcStride, narrow.data(), dstStride, o.sw, o.sh, o.dw, o.dh, map.data(), o.count,
                              flags, o.strength, o.noise);
  std::vector<uint32_t> out;
  for (int32_t y = 0; y < o.dh; ++y)
    for (int32_t x = 0; x < o.dw; ++x) {
      const size_t at = size_t(y) * dstStride + x;
      out.push_back(o.wide ? wide[at] : narrow[at]);
    }
  return out;
}

TEST(Dither, MatchesTheRowByRowReferenceWithEveryOption) {
  const Options cases[] = {
      // bpp  sw   sh   dw   dh  count strength noise flagged wide
      {3, 240, 40, 240, 40, 200, 16, 0, false, false},  {3, 240, 40, 240, 40, 200, 9, 25, false, false},
      {4, 150, 31, 97, 45, 120, 16, 12, true, false},   {4, 60, 20, 60, 20, 64, 16, 0, false, false},
      {3, 200, 30, 133, 31, 900, 16, 8, false, true},   {3, 9, 9, 4, 7, 50, 16, 40, false, false},
      {3, 9, 9, 3, 5, 50, 16, 40, false, false},        {3, 50, 1, 50, 1, 50, 16, 0, false, false},
      {3, 1, 1, 1, 1, 37, 16, 0, false, false},         {3, 33, 17, 100, 9, 37, 16, 0, false, false},
      {3, 3, 200, 41, 2, 37, 16, 0, false, false},      {4, 50, 50, 13, 77, 37, 16, 0, true, false},
  };
  for (const Options& o : cases) {
    SCOPED_TRACE(testing::Message() << o.bpp << " bytes, " << o.sw << "x" << o.sh << " to " << o.dw << "x" << o.dh
                                    << ", " << o.count << " colours, strength " << o.strength << ", noise "
                                    << o.noise);
    // Colours in a narrow band that moves down the picture, on a map dense
    // in it: each pair of rows meets cells that are new, and several entries
    // compete within a cell.
    Bytes src = vtest::randomPixels(o.sw, o.sh, o.bpp, uint32_t(o.sw + o.count));
    for (size_t i = 0; i < src.size(); ++i) {
      const size_t row = i / (size_t(o.sw) * size_t(o.bpp));
      src[i] = i % size_t(o.bpp) == 3 ? (src[i] < 40 ? 0 : 255) : uint8_t(30 + 4 * row + src[i] % 24);
    }
    Bytes map = vtest::randomPixels(o.count, 1, 3, uint32_t(o.dh));
    for (uint8_t& v : map) v = uint8_t(20 + v % 200);
    std::vector<uint8_t> flags(size_t(o.count), 0);
    flags[5] = 1;
    const uint8_t* f = o.flagged ? flags.data() : nullptr;
    ldr::colour::seedRandom(17);
    const std::vector<uint32_t> got = library(o, src, map, f);
    ldr::colour::seedRandom(17);
    EXPECT_EQ(got, reference(o, src, map, f));
  }
}


TEST(Dither, StrengthZeroIsTheScaledRemap) {
  const Bytes map = vtest::randomPixels(16, 1, 3, 5);
  struct Size { int32_t sw, sh, dw, dh; };
  for (const Size& s : {Size{1, 1, 1, 1}, Size{64, 48, 32, 24}, Size{33, 17, 100, 9}, Size{3, 200, 41, 2}}) {
    SCOPED_TRACE(testing::Message() << s.sw << "x" << s.sh << " to " << s.dw << "x" << s.dh);
    const Bytes src = vtest::randomPixels(s.sw, s.sh, 3, uint32_t(s.sh));
    Bytes scaled;
    for (int32_t y = 0; y < s.dh; ++y)
      for (int32_t x = 0; x < s.dw; ++x) {
        const size_t at = (size_t(y * s.sh / s.dh) * s.sw + size_t(x * s.sw / s.dw)) * 3;
        scaled.insert(scaled.end(), src.begin() + ptrdiff_t(at), src.begin() + ptrdiff_t(at) + 3);
      }
    Bytes remapped(size_t(s.dw) * s.dh), dithered(remapped.size());
    ASSERT_EQ(trueColorRemapToCmap(scaled.data(), s.dw * 3, remapped.data(), s.dw, s.dw, s.dh,
                                   map.data(), 16, 0), 1);
    colorQuantizeDitherFS(src.data(), s.sw * 3, dithered.data(), s.dw, s.sw, s.sh, s.dw, s.dh,
                          map.data(), 16, 0, 0);
    EXPECT_EQ(dithered, remapped);
    // The remap itself is the per-cell cache of the exhaustive search.
    vtest::CellCache nearest(map.data(), 16);
    for (size_t i = 0; i < remapped.size(); ++i)
      ASSERT_EQ(remapped[i], nearest(scaled[3 * i], scaled[3 * i + 1], scaled[3 * i + 2])) << i;
  }
}

TEST(Remap, TransparentPixelsTakeTheFlaggedEntry) {
  // Entry 1 is flagged: opaque pixels never get it, alpha-0 pixels always do.
  const Bytes map = {0, 0, 0, 255, 255, 255, 250, 250, 250, 128, 128, 128};
  const uint8_t flags[4] = {0, 1, 0, 0};
  Bytes src = vtest::randomPixels(20, 10, 4, 3);
  for (size_t i = 3; i < src.size(); i += 4) src[i] = i % 3 ? 255 : 0;
  Bytes remapped(200);
  ASSERT_EQ(RGBARemapToCmap(src.data(), 80, remapped.data(), 20, 20, 10, map.data(), 4, flags, 0), 1);
  for (size_t i = 0; i < remapped.size(); ++i) EXPECT_EQ(remapped[i] == 1, src[4 * i + 3] == 0) << i;
}

TEST(Remap, NoiseIsSeededBoundedAndStaysOnEligibleEntries) {
  // Mid grey between black and white: without noise all one entry, with
  // noise a mix, the same mix for the same seed.
  const Bytes map = {0, 0, 0, 255, 255, 255};
  const Bytes grey(64 * 64 * 3, 127);
  Bytes plain(64 * 64), a(64 * 64), b(64 * 64);
  ASSERT_EQ(trueColorRemapToCmap(grey.data(), 192, plain.data(), 64, 64, 64, map.data(), 2, 0), 1);
  EXPECT_EQ(std::count(plain.begin(), plain.end(), 0), 64 * 64);
  ldr::colour::seedRandom(7);
  ASSERT_EQ(trueColorRemapToCmap(grey.data(), 192, a.data(), 64, 64, 64, map.data(), 2, 40), 1);
  ldr::colour::seedRandom(7);
  ASSERT_EQ(trueColorRemapToCmap(grey.data(), 192, b.data(), 64, 64, 64, map.data(), 2, 40), 1);
  EXPECT_EQ(a, b);
  const auto whites = std::count(a.begin(), a.end(), 1);
  EXPECT_GT(whites, 64 * 64 / 10);
  EXPECT_LT(whites, 64 * 64 * 9 / 10);
  // Noise is clamped to 100: a colour 128 steps away never crosses over.
  const Bytes dark(64 * 64 * 3, 0);
  const Bytes far = {0, 0, 0, 255, 255, 255};
  ASSERT_EQ(trueColorRemapToCmap(dark.data(), 192, a.data(), 64, 64, 64, far.data(), 2, 5000), 1);
  EXPECT_EQ(std::count(a.begin(), a.end(), 0), 64 * 64);

  // Offsets of the noise table stay within -noise..noise.
  for (const int32_t n : {1, 7, 100}) {
    const ldr::colour::NoiseTable t(n);
    int32_t lo = 0, hi = 0;
    for (uint32_t i = 0; i <= ldr::colour::NoiseTable::kMask; ++i) {
      lo = std::min(lo, t.at(i));
      hi = std::max(hi, t.at(i));
    }
    EXPECT_EQ(lo, -n);
    EXPECT_EQ(hi, n);
  }
}

TEST(ColourTools, ThreadsShareNothing) {
  // Each thread has its own random sequence: the same seed gives the same
  // noisy dithering in every thread, whatever the others do meanwhile.
  const Bytes src = vtest::photoLike(48, 32, 3, 11), map = vtest::randomPixels(24, 1, 3, 12);
  const auto run = [&](Bytes& out) {
    ldr::colour::seedRandom(3);
    out.assign(48 * 32, 0);
    colorQuantizeDitherFS(src.data(), 144, out.data(), 48, 48, 32, 48, 32, map.data(), 24, 12, 30);
  };
  Bytes alone, a, b;
  run(alone);
  std::thread first([&] { run(a); }), second([&] { run(b); });
  first.join();
  second.join();
  EXPECT_EQ(a, alone);
  EXPECT_EQ(b, alone);
}

TEST(ColourTools, BadArgumentsWriteNothing) {
  const Bytes src = vtest::randomPixels(8, 4, 4, 1), map = vtest::randomPixels(300, 1, 3, 2);
  const uint8_t* s = src.data();
  const uint8_t* m = map.data();
  struct Case { const char* name; int32_t srcStride, dstStride, w, h, count; bool nullSrc, nullMap; };
  const Case cases[] = {
      {"zero width", 24, 8, 0, 4, 4, false, false},     {"negative height", 24, 8, 8, -1, 4, false, false},
      {"short source stride", 23, 8, 8, 4, 4, false, false}, {"short index stride", 24, 7, 8, 4, 4, false, false},
      {"negative stride", -24, 8, 8, 4, 4, false, false}, {"no colours", 24, 8, 8, 4, 0, false, false},
      {"too many colours", 24, 8, 8, 4, 257, false, false}, {"no source", 24, 8, 8, 4, 4, true, false},
      {"no map", 24, 8, 8, 4, 4, false, true},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const uint8_t* in = c.nullSrc ? nullptr : s;
    const uint8_t* cm = c.nullMap ? nullptr : m;
    Bytes dst(32, 0xAB);
    std::vector<uint16_t> wide(32, 0xABAB);
    EXPECT_EQ(trueColorRemapToCmap(in, c.srcStride, dst.data(), c.dstStride, c.w, c.h, cm, c.count, 0), 0);
    EXPECT_EQ(RGBARemapToCmap(in, c.srcStride, dst.data(), c.dstStride, c.w, c.h, cm, c.count, nullptr, 9), 0);
    colorQuantizeDitherFS(in, c.srcStride, dst.data(), c.dstStride, c.w, c.h, c.w, c.h, cm, c.count, 16, 0);
    colorQuantizeDitherFS(in, c.srcStride, dst.data(), c.dstStride, 8, 4, c.w, c.h, cm, c.count, 16, 0);
    colorQuantizeDitherFS_Internal(in, c.srcStride, dst.data(), c.dstStride, c.w, c.h, c.w, c.h, cm,
                                   c.count, nullptr, 16, 0, 4);
    colorQuantizeDitherFS16(in, c.srcStride, wide.data(), c.dstStride * 2, c.w, c.h, c.w, c.h, cm,
                            c.count == 257 ? 65537 : c.count, 16, 0);
    EXPECT_EQ(std::count(dst.begin(), dst.end(), 0xAB), 32);
    EXPECT_EQ(std::count(wide.begin(), wide.end(), 0xABAB), 32);
  }
  // 16-bit rows need an even byte stride; other bytes per pixel are refused.
  Bytes dst(32, 0xAB);
  std::vector<uint16_t> wide(40, 0xABAB);
  colorQuantizeDitherFS16(s, 32, wide.data(), 17, 8, 4, 8, 4, m, 300, 16, 0);
  colorQuantizeDitherFS_Internal(s, 32, dst.data(), 8, 8, 4, 8, 4, m, 4, nullptr, 16, 0, 2);
  EXPECT_EQ(std::count(wide.begin(), wide.end(), 0xABAB), 40);
  EXPECT_EQ(std::count(dst.begin(), dst.end(), 0xAB), 32);
}

}  // namespace
