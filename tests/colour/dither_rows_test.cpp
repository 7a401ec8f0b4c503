// The ditherer, which works on two rows at once, against a reference that
// takes one row after another with every option: strength, noise, scaling,
// transparency and 16-bit indices. Random pictures on maps of many entries
// make the lower row meet open cells first and, now and then, answer them
// otherwise than the row above later does; small widths and heights cover
// the rows the ditherer takes alone.
#include <gtest/gtest.h>

#include <algorithm>
#include <optional>
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

std::vector<uint32_t> library(const Options& o, const Bytes& src, const Bytes& map, const uint8_t* flags) {
  std::vector<uint32_t> out;
  if (o.wide) {
    std::vector<uint16_t> dst(size_t(o.dw) * o.dh);
    colorQuantizeDitherFS16(src.data(), o.sw * 3, dst.data(), o.dw * 2, o.sw, o.sh, o.dw, o.dh, map.data(), o.count,
                            o.strength, o.noise);
    out.assign(dst.begin(), dst.end());
  } else {
    Bytes dst(size_t(o.dw) * o.dh);
    colorQuantizeDitherFS_Internal(src.data(), o.sw * o.bpp, dst.data(), o.dw, o.sw, o.sh, o.dw, o.dh, map.data(),
                                   o.count, flags, o.strength, o.noise, o.bpp);
    out.assign(dst.begin(), dst.end());
  }
  return out;
}

TEST(DitherRows, MatchTheRowByRowReferenceWithEveryOption) {
  const Options cases[] = {
      // bpp  sw   sh   dw   dh  count strength noise flagged wide
      {3, 240, 40, 240, 40, 200, 16, 0, false, false},  {3, 240, 40, 240, 40, 200, 9, 25, false, false},
      {4, 150, 31, 97, 45, 120, 16, 12, true, false},   {4, 60, 20, 60, 20, 64, 16, 0, false, false},
      {3, 200, 30, 133, 30, 900, 16, 8, false, true},   {3, 9, 9, 4, 7, 50, 16, 40, false, false},
      {3, 9, 9, 3, 5, 50, 16, 40, false, false},        {3, 50, 1, 50, 1, 50, 16, 0, false, false},
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

}  // namespace
