// The colour tools' wide vector path against the plain one: the nearest-entry
// search on maps with ties, flags and more than 256 entries, and whole
// remaps, quantizations and ditherings of odd widths, strides, transparency
// and noise, which must agree byte for byte (noise from the same seed).
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

TEST(ColourWide, NearestEntryMatchesThePlainSearch) {
  SKIP_WITHOUT_WIDE_UNITS();
  Bytes map = vtest::randomPixels(700, 1, 3, 8);
  for (int i = 0; i < 60; ++i) map[3 * size_t(300 + i)] ^= 1;  // near twins across the page border
  std::copy_n(map.begin() + 30, 3, map.begin() + 3 * 420);      // an exact twin in a later page
  std::vector<uint8_t> flags(700, 0);
  for (size_t i = 0; i < flags.size(); i += 7) flags[i] = 1;
  struct Case { const char* name; int32_t count; const uint8_t* flags; };
  const std::vector<uint8_t> allFlagged(700, 1);
  const Case cases[] = {{"one entry", 1, nullptr},       {"17 entries", 17, nullptr},
                        {"256 flagged", 256, flags.data()}, {"700 entries", 700, nullptr},
                        {"700 flagged", 700, flags.data()}, {"all flagged", 40, allFlagged.data()}};
  const Bytes colours = vtest::randomPixels(4000, 1, 3, 9);
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    ldr::colour::Palette palettes[2];
    for (int i = 0; i < 2; ++i) {
      const ForcePath path(i ? ColourPath::Wide : ColourPath::Plain);
      ASSERT_TRUE(palettes[i].assign(map.data(), c.count, c.flags));
    }
    for (size_t k = 0; k < colours.size(); k += 3) {
      const int32_t r = colours[k], g = colours[k + 1], b = colours[k + 2];
      ASSERT_EQ(palettes[1].nearest(r, g, b), palettes[0].nearest(r, g, b)) << r << "," << g << "," << b;
    }
    // Ties: an entry's own colour finds the first entry of that colour.
    for (int32_t e = 0; e < c.count; e += 5)
      ASSERT_EQ(palettes[1].nearest(map[3 * e], map[3 * e + 1], map[3 * e + 2]),
                palettes[0].nearest(map[3 * e], map[3 * e + 1], map[3 * e + 2]));
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
