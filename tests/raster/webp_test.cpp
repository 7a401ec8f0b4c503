// WebP loader: lossless pixels exact, lossy pixels as libwebp decodes them in
// one call, the first frame of an animation on its canvas, and the statuses
// for data the decoder refuses or that ends early.
#include <gtest/gtest.h>
#include <webp/decode.h>

#include <string>

#include "raster/webp.h"
#include "tests/support/harness.h"
#include "tests/support/temp_file.h"
#include "tests/support/webp_writer.h"
#include "vload.h"

namespace {

using vtest::Bytes;
using vtest::TempFile;
using vtest::WebpPicture;

constexpr int32_t kWebp = 6;

Bytes expectedRows(const WebpPicture& s) {
  Bytes rows;
  for (uint32_t y = 0; y < s.height; ++y)
    for (uint32_t x = 0; x < s.width; ++x)
      for (int c = 0; c < (s.alpha ? 4 : 3); ++c) rows.push_back(s.pixel(x, y, c));
  return rows;
}

// What libwebp gives for the whole file in one call.
Bytes decodedAtOnce(const Bytes& file, bool alpha) {
  int w = 0, h = 0;
  uint8_t* p = alpha ? WebPDecodeRGBA(file.data(), file.size(), &w, &h) : WebPDecodeRGB(file.data(), file.size(), &w, &h);
  Bytes out(p, p + size_t(w) * size_t(h) * (alpha ? 4 : 3));
  WebPFree(p);
  return out;
}

// Pieces of a few bytes make a small picture take the paths of a large one:
// many calls of the decoder, the band window moving under it, the read block
// growing and moving. The pixels and statuses must not change.
struct PieceLimit {
  explicit PieceLimit(size_t bytes) { ldr::webpLimitPieces(bytes); }
  ~PieceLimit() { ldr::webpLimitPieces(0); }
};

TEST(WebpPixels, LosslessAndLossyInEveryBandAndPieceSize) {
  for (const bool alpha : {false, true})
    for (const bool lossless : {true, false}) {
      const WebpPicture s{.width = 61, .height = 45, .alpha = alpha, .lossless = lossless};
      const Bytes file = vtest::webpFile(s);
      const Bytes want = lossless ? expectedRows(s) : decodedAtOnce(file, alpha);
      const TempFile f(file, ".webp"), cut(vtest::truncated(file, file.size() * 2 / 3), ".webp");
      const std::string kind = std::string(lossless ? "lossless" : "lossy") + (alpha ? ", alpha" : "");
      for (const size_t piece : {size_t{0}, size_t{1}, size_t{97}})
        for (uint32_t band : {0u, 1u, 7u, 16u}) {
          SCOPED_TRACE(kind + ", pieces of " + std::to_string(piece) + ", band " + std::to_string(band));
          const PieceLimit limit(piece);
          const vtest::Loaded l = vtest::load(f.path(), 0, band);
          ASSERT_EQ(l.status, VLOAD_OK);
          EXPECT_EQ(l.description.loader, uint32_t(kWebp));
          EXPECT_EQ(l.description.layout, alpha ? VLOAD_LAYOUT_RGBA : VLOAD_LAYOUT_RGB);
          EXPECT_STREQ(l.description.info, kind.c_str());
          EXPECT_EQ(l.rows, want);
          const vtest::Loaded c = vtest::load(cut.path(), kWebp, band);
          EXPECT_TRUE(c.delivering);
          EXPECT_EQ(c.status, VLOAD_BAD_DATA);
        }
    }
}

TEST(WebpPixels, AnimationShowsItsFirstFrameOnTheCanvas) {
  const WebpPicture frame{.width = 8, .height = 6};
  const TempFile f(vtest::webpAnimation(20, 11, vtest::webpFile(frame), 8, 6, 4, 2), ".webp");
  for (const size_t piece : {size_t{0}, size_t{5}}) {
    const PieceLimit limit(piece);
    const vtest::Loaded l = vtest::load(f.path(), 0, 3);
    ASSERT_EQ(l.status, VLOAD_OK);
    EXPECT_EQ(l.description.layout, VLOAD_LAYOUT_RGBA);
    EXPECT_EQ(l.description.width, 20u);
    EXPECT_EQ(l.description.height, 11u);
    EXPECT_STREQ(l.description.info, "animation of 2 frames, the first shown");
    for (uint32_t y = 0; y < 11; ++y)
      for (uint32_t x = 0; x < 20; ++x) {
        const bool inside = x >= 4 && x < 12 && y >= 2 && y < 8;
        for (int c = 0; c < 4; ++c) {
          const uint8_t want = !inside ? 0 : c == 3 ? 255 : frame.pixel(x - 4, y - 2, c);
          ASSERT_EQ(l.rows[(y * 20 + x) * 4 + c], want) << x << "," << y << " channel " << c << ", pieces " << piece;
        }
      }
  }
}

// The headers of an animation on a canvas of this size: VP8X with the
// animation flag, sides less one in 24 bits, then ANIM.
Bytes animationCanvas(uint32_t width, uint32_t height) {
  Bytes b = {'R', 'I', 'F', 'F', 36, 0, 0, 0, 'W', 'E', 'B', 'P', 'V', 'P', '8', 'X', 10, 0, 0, 0, 0x02, 0, 0, 0};
  for (const uint32_t side : {width - 1, height - 1})
    for (int i = 0; i < 3; ++i) b.push_back(uint8_t(side >> (8 * i)));
  const Bytes anim = {'A', 'N', 'I', 'M', 6, 0, 0, 0, 0, 0, 0, 0, 0, 0};
  b.insert(b.end(), anim.begin(), anim.end());
  return b;
}

// Data cut short is in the band test above.
TEST(WebpRefusals, Statuses) {
  const Bytes lossless = vtest::webpFile({.width = 200, .height = 150});
  Bytes garbled = lossless;
  for (size_t i = 25; i < garbled.size(); ++i) garbled[i] = uint8_t(i * 77);
  struct Case { const char* name; Bytes bytes; uint32_t tryLoad, loadBand; };
  const Case cases[] = {
      {"no WEBP form", vtest::patched8(lossless, 8, 'X'), VLOAD_NOT_THIS_FORMAT, 0},
      {"headers cut short", vtest::truncated(lossless, 20), VLOAD_CANNOT_OPEN, 0},
      {"unknown chunk where the picture should be", vtest::patched8(lossless, 12, 'X'), VLOAD_BAD_REQUEST, 0},
      {"garbled lossless data", garbled, VLOAD_OK, VLOAD_BAD_REQUEST},
      {"animation canvas wider than 262140", animationCanvas(262141, 2), VLOAD_BAD_DATA, 0},
  };
  const int fds = vtest::openFdCount();
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const TempFile f(c.bytes, ".webp");
    const vtest::Loaded l = vtest::load(f.path(), kWebp, 16);
    EXPECT_EQ(l.delivering ? VLOAD_OK : l.status, c.tryLoad);
    EXPECT_EQ(l.delivering ? l.status : 0, c.loadBand);
    EXPECT_EQ(vtest::openFdCount(), fds);
  }
}

}  // namespace
