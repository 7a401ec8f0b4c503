// The colour tools' code paths: the nearest-entry search of each against an
// exhaustive one, on maps with ties, flags, crowding and more than 256
// entries; and whole remaps, quantizations and ditherings of odd widths,
// strides, transparency and noise, on the wide path against the plain one,
// byte for byte (noise from the same seed).
#include <gtest/gtest.h>

#include <functional>
#include <vector>

#include "colour/colour.h"
#include "tests/support/colour_pictures.h"
#include "vload.h"

namespace {

using ldr::colour::ColourPath;
using vtest::Bytes;

struct ForcePath {
  explicit ForcePath(ColourPath p) { ldr::colour::forceColourPath(p); }
  ~ForcePath() { ldr::colour::forceColourPath(ColourPath::Auto); }
};

#define SKIP_WITHOUT_WIDE_UNITS()                                     \
  if (!ldr::colour::colourPathAvailable(ColourPath::Wide)) GTEST_SKIP() << "no AVX-512 VBMI here"

// Runs `tool` on each path, reseeding the noise first, and expects the same bytes.
void expectPathsAgree(const std::function<Bytes()>& tool) {
  Bytes got[2];
  for (int i = 0; i < 2; ++i) {
    const ForcePath path(i ? ColourPath::Wide : ColourPath::Plain);
    ldr::colour::seedRandom(41);
    got[i] = tool();
  }
  EXPECT_EQ(got[1], got[0]);
}

TEST(ColourNearest, EveryPathGivesTheExhaustiveSearchsEntry) {
  // Random entries with near twins across the 256-entry border and an exact
  // twin; a map crowded into one corner, where the candidate lists of the
  // far regions hold nearly every entry; twins that sit exactly either side
  // of region borders, so that colours on a border tie.
  Bytes map = vtest::randomPixels(700, 1, 3, 8);
  for (int i = 0; i < 60; ++i) map[3 * size_t(230 + i)] ^= 1;
  std::copy_n(map.begin() + 30, 3, map.begin() + 3 * 420);
  Bytes corner = vtest::randomPixels(200, 1, 3, 10);
  for (uint8_t& v : corner) v = uint8_t(200 + v % 56);
  Bytes borders;
  for (int v = 31; v < 255; v += 32)
    for (const int d : {-1, 1, 0}) borders.insert(borders.end(), {uint8_t(v + d), uint8_t(255 - v), uint8_t(v + d)});
  // (31, 31, 31) is as far from the second entry as any colour of its
  // region can be, and as near the first as any can be: the first must stay
  // listed.
  const Bytes reachTie = {47, 47, 47, 15, 15, 15};
  std::vector<uint8_t> flags(700, 0), allFlagged(700, 1);
  for (size_t i = 0; i < flags.size(); i += 7) flags[i] = 1;
  struct Case { const char* name; const Bytes* map; int32_t count; const uint8_t* flags; };
  const Case cases[] = {{"one entry", &map, 1, nullptr},          {"17 entries", &map, 17, nullptr},
                        {"256 flagged", &map, 256, flags.data()},  {"700 entries", &map, 700, nullptr},
                        {"700 flagged", &map, 700, flags.data()},  {"all flagged", &map, 40, allFlagged.data()},
                        {"crowded corner", &corner, 200, nullptr}, {"border twins", &borders, 21, nullptr},
                        {"tie at the reach", &reachTie, 2, nullptr}};
  Bytes colours = vtest::randomPixels(3000, 1, 3, 9);
  const int grid[] = {0, 1, 30, 31, 32, 33, 95, 96, 127, 128, 159, 223, 224, 254, 255};
  for (const int r : grid)
    for (const int g : grid)
      for (const int b : grid) colours.insert(colours.end(), {uint8_t(r), uint8_t(g), uint8_t(b)});
  for (const ColourPath p : {ColourPath::Plain, ColourPath::Wide}) {
    if (!ldr::colour::colourPathAvailable(p)) continue;
    const ForcePath path(p);
    for (const Case& c : cases) {
      SCOPED_TRACE(testing::Message() << c.name << (p == ColourPath::Wide ? ", wide" : ", plain"));
      ldr::colour::Palette palette;
      ASSERT_TRUE(palette.assign(c.map->data(), c.count, c.flags));
      for (size_t k = 0; k < colours.size(); k += 3) {
        const int32_t r = colours[k], g = colours[k + 1], b = colours[k + 2];
        ASSERT_EQ(palette.nearest(r, g, b), vtest::nearestEntry(c.map->data(), c.count, r, g, b, c.flags))
            << r << "," << g << "," << b;
      }
    }
  }
}

TEST(ColourWide, RemapQuantizeAndDitherMatchThePlainPath) {
  SKIP_WITHOUT_WIDE_UNITS();
  const Bytes map = vtest::randomPixels(200, 1, 3, 4);
  std::vector<uint8_t> flags(256, 0);
  flags[3] = flags[9] = 1;
  // Widths below, at and past one vector of 16 pixels, and a long row.
  for (const int32_t w : {1, 15, 16, 17, 50, 333}) {
    SCOPED_TRACE(w);
    const int32_t h = 7;
    for (const int32_t channels : {3, 4}) {
      Bytes src = vtest::photoLike(w, h, channels, uint32_t(w));
      if (channels == 4)  // transparent pixels scattered over the top half only
        for (size_t i = 3; i < src.size() / 2; i += 4 * 5) src[i] = 0;
      const int32_t srcStride = w * channels + 3, dstStride = w + 2;
      Bytes in(size_t(srcStride) * h, 0x5A);
      for (int32_t y = 0; y < h; ++y)
        std::copy_n(src.begin() + ptrdiff_t(y) * w * channels, w * channels, in.begin() + ptrdiff_t(y) * srcStride);
      for (const int32_t noise : {0, 30}) {
        expectPathsAgree([&] {
          Bytes out(size_t(dstStride) * h, 0xEE);
          if (channels == 3)
            trueColorRemapToCmap(in.data(), srcStride, out.data(), dstStride, w, h, map.data(), 200, noise);
          else
            RGBARemapToCmap(in.data(), srcStride, out.data(), dstStride, w, h, map.data(), 200, flags.data(), noise);
          return out;
        });
        expectPathsAgree([&] {
          Bytes out(size_t(w) * h);
          colorQuantizeDitherFS_Internal(in.data(), srcStride, out.data(), w, w, h, w, h, map.data(), 200,
                                         channels == 4 ? flags.data() : nullptr, 16, noise, channels);
          return out;
        });
      }
      expectPathsAgree([&] {
        Bytes out(size_t(dstStride) * h + 768 + 256, 0xEE);
        int32_t count = 40;
        uint8_t* cmap = out.data() + size_t(dstStride) * h;
        if (channels == 3)
          colorQuantize(in.data(), srcStride, out.data(), dstStride, w, h, cmap, &count);
        else
          colorQuantizeRGBA(in.data(), srcStride, out.data(), dstStride, w, h, cmap, &count, cmap + 768);
        out.push_back(uint8_t(count));
        return out;
      });
    }
  }
}

}  // namespace
