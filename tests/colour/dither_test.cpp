// The ditherers and remappers against plain references written from their
// rules, on random pictures: scaling by column and row maps, the per-cell
// cache, shares by arithmetic shift and clamping, transparency and noise.
#include <gtest/gtest.h>

#include <algorithm>
#include <thread>
#include <vector>

#include "colour/colour.h"
#include "tests/support/colour_pictures.h"
#include "vload.h"

namespace {

using vtest::Bytes;

// A padded copy of tightly packed rows, so that strides differ from widths.
Bytes padded(const Bytes& tight, int32_t rowBytes, int32_t height, int32_t stride) {
  Bytes out(size_t(stride) * size_t(height), 0xEE);
  for (int32_t y = 0; y < height; ++y)
    std::copy_n(tight.begin() + ptrdiff_t(y) * rowBytes, rowBytes, out.begin() + ptrdiff_t(y) * stride);
  return out;
}

// Floyd–Steinberg at full strength without noise, written the obvious way:
// integer rows with a spare pixel at each end, std::clamp, e * k >> 4.
Bytes referenceDither(const Bytes& src, int32_t sw, int32_t sh, int32_t dw, int32_t dh,
                      const Bytes& map, int32_t count) {
  std::vector<int32_t> cur(size_t(dw + 2) * 3), nxt(cur.size());
  const auto load = [&](std::vector<int32_t>& row, int32_t y) {
    const int32_t sy = y * sh / dh;
    for (int32_t x = -1; x <= dw; ++x) {
      const int32_t sx = std::clamp(x, 0, dw - 1) * sw / dw;
      for (int c = 0; c < 3; ++c) row[size_t(x + 1) * 3 + c] = src[(size_t(sy) * sw + sx) * 3 + c];
    }
  };
  const auto add = [](int32_t& v, int32_t share) { v = std::clamp(v + share, 0, 255); };
  vtest::CellCache nearest(map.data(), count);
  Bytes out(size_t(dw) * dh);
  load(cur, 0);
  for (int32_t y = 0; y < dh; ++y) {
    if (y + 1 < dh) load(nxt, y + 1);
    for (int32_t x = 0; x < dw; ++x) {
      int32_t* p = &cur[size_t(x + 1) * 3];
      const uint32_t i = nearest(p[0], p[1], p[2]);
      out[size_t(y) * dw + x] = uint8_t(i);
      for (int c = 0; c < 3; ++c) {
        const int32_t e = p[c] - map[3 * i + c];
        add(p[3 + c], e * 7 >> 4);
        add(nxt[size_t(x) * 3 + c], e * 3 >> 4);
        add(nxt[size_t(x + 1) * 3 + c], e * 5 >> 4);
        add(nxt[size_t(x + 2) * 3 + c], e >> 4);
      }
    }
    std::swap(cur, nxt);
  }
  return out;
}

// Rows of an index picture with stride `stride`, without the padding.
Bytes unpadded(const Bytes& rows, int32_t width, int32_t height, int32_t stride) {
  Bytes out;
  for (int32_t y = 0; y < height; ++y)
    out.insert(out.end(), rows.begin() + ptrdiff_t(y) * stride, rows.begin() + ptrdiff_t(y) * stride + width);
  return out;
}

struct Size { int32_t sw, sh, dw, dh; };
const Size kSizes[] = {{1, 1, 1, 1},   {7, 5, 7, 5},    {64, 48, 64, 48}, {64, 48, 32, 24},
                       {33, 17, 100, 9}, {50, 50, 13, 77}, {3, 200, 41, 2}};

TEST(Dither, MatchesThePlainReferenceAtFullStrength) {
  const Bytes map = vtest::randomPixels(37, 1, 3, 99);
  for (const Size& s : kSizes) {
    SCOPED_TRACE(testing::Message() << s.sw << "x" << s.sh << " to " << s.dw << "x" << s.dh);
    const Bytes src = vtest::randomPixels(s.sw, s.sh, 3, uint32_t(s.sw * 31 + s.dh));
    const int32_t srcStride = s.sw * 3 + 5, dstStride = s.dw + 3;
    const Bytes in = padded(src, s.sw * 3, s.sh, srcStride);
    Bytes out(size_t(dstStride) * s.dh);
    colorQuantizeDitherFS(in.data(), srcStride, out.data(), dstStride, s.sw, s.sh, s.dw, s.dh,
                          map.data(), 37, 16, 0);
    EXPECT_EQ(unpadded(out, s.dw, s.dh, dstStride), referenceDither(src, s.sw, s.sh, s.dw, s.dh, map, 37));

    // The same with 16-bit indices and a map of 300 entries: the first 37 as
    // before, the rest copies of entry 0, which never beat it.
    Bytes big = map;
    for (int i = 37; i < 300; ++i) big.insert(big.end(), map.begin(), map.begin() + 3);
    std::vector<uint16_t> wide(size_t(s.dw) * s.dh);
    colorQuantizeDitherFS16(in.data(), srcStride, wide.data(), s.dw * 2, s.sw, s.sh, s.dw, s.dh,
                            big.data(), 300, 16, 0);
    Bytes narrowed(wide.size());
    std::transform(wide.begin(), wide.end(), narrowed.begin(), [](uint16_t v) { return uint8_t(v); });
    EXPECT_EQ(narrowed, referenceDither(src, s.sw, s.sh, s.dw, s.dh, map, 37));
  }
}

TEST(Dither, StrengthZeroIsTheScaledRemap) {
  const Bytes map = vtest::randomPixels(16, 1, 3, 5);
  for (const Size& s : kSizes) {
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

TEST(Dither, TransparentPixelsTakeTheFlaggedEntryAndShareNoError) {
  // Entry 1 is flagged: opaque pixels never get it, alpha-0 pixels always do,
  // scaled or not.
  const Bytes map = {0, 0, 0, 255, 255, 255, 250, 250, 250, 128, 128, 128};
  const uint8_t flags[4] = {0, 1, 0, 0};
  Bytes src = vtest::randomPixels(20, 10, 4, 3);
  for (size_t i = 3; i < src.size(); i += 4) src[i] = i % 3 ? 255 : 0;
  for (const int32_t dw : {20, 9, 31}) {
    SCOPED_TRACE(dw);
    Bytes out(size_t(dw) * 10);
    RGBAcolorQuantizeDitherFS(src.data(), 80, out.data(), dw, 20, 10, dw, 10, map.data(), 4, flags, 16, 0);
    for (int32_t y = 0; y < 10; ++y)
      for (int32_t x = 0; x < dw; ++x)
        EXPECT_EQ(out[size_t(y * dw + x)] == 1, src[(size_t(y) * 20 + size_t(x * 20 / dw)) * 4 + 3] == 0);
  }
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
