// make_examples: writes the example files of this folder.
//
//   make_examples DIR
//
// Each picture shows what the weaving and jacquard files this library reads
// look like once delivered: a bilevel weave, an indexed design with a few
// yarn colours, and true-colour fabric renderings; then the same kinds of
// work in other formats: a WIF draft, a binding file, a PCX design and a
// palette of the design's yarns.
#include <cmath>
#include <cstdio>
#include <string>

#include "tests/support/bmp_writer.h"
#include "tests/support/palette_writer.h"
#include "tests/support/pcx_writer.h"
#include "tests/support/temp_file.h"
#include "tests/support/weave_writer.h"
#include "tests/support/wif_writer.h"

namespace {

using vtest::BmpBuilder;
using vtest::Rgb;

constexpr uint32_t kDpm300 = 11811;  // 300 dots per inch in pixels per metre

// A 2/2 twill: every pick shifts the lifted ends by one.
uint8_t twill(uint32_t x, uint32_t y, int) { return ((x + y) / 2) % 2; }

// A jacquard-like motif in six yarn colours: diamonds on a striped ground.
uint8_t diamonds(uint32_t x, uint32_t y, int) {
  const int dx = int(x % 48) - 24, dy = int(y % 48) - 24;
  const int d = std::abs(dx) + std::abs(dy);
  if (d < 8) return 5;
  if (d < 14) return 4;
  if (d < 20) return (x + y) % 4 < 2 ? 3 : 2;
  return (x / 6) % 2;
}

// A tartan sett in RGB: warp and weft stripes mixed through a 2/2 twill.
uint8_t tartan(uint32_t x, uint32_t y, int c) {
  static const Rgb sett[] = {{16, 40, 96}, {16, 40, 96}, {0, 80, 40}, {0, 80, 40}, {0, 80, 40},
                             {200, 20, 30}, {16, 40, 96}, {230, 200, 60}};
  const Rgb warp = sett[(x / 8) % 8], weft = sett[(y / 8) % 8];
  const Rgb& shown = ((x + y) / 2) % 2 ? warp : weft;
  return c == 0 ? shown.r : c == 1 ? shown.g : shown.b;
}

// A woven ribbon with a soft edge in its alpha channel.
uint8_t ribbon(uint32_t x, uint32_t y, int c) {
  if (c == 3) {
    const double edge = std::abs(double(y) - 31.5) / 32.0;
    return uint8_t(255 * (edge < 0.75 ? 1.0 : (1.0 - edge) * 4));
  }
  return tartan(x, y, c);
}

void write(const std::string& dir, const char* name, const vtest::Bytes& bytes) {
  vtest::writeFile(dir + "/" + name, bytes);
  std::printf("wrote %s/%s\n", dir.c_str(), name);
}

void write(const std::string& dir, const char* name, const BmpBuilder& b) { write(dir, name, b.build()); }

// A point twill on four shafts: the threading runs 1-2-3-4-3-2, the tie-up is
// a 2/2 twill and the treadling follows the threading, so diamonds appear.
vtest::Bytes pointTwillDraft() {
  vtest::WifDraft d;
  d.ends = d.picks = 24;
  const auto point = [](uint32_t i) { const uint32_t k = i % 6; return k < 4 ? k + 1 : 7 - k; };
  for (uint32_t i = 0; i < 24; ++i) d.threading.push_back({point(i)});
  for (uint32_t t = 1; t <= 4; ++t) d.tieUp.push_back({t, t % 4 + 1});
  for (uint32_t i = 0; i < 24; ++i) d.treadling.push_back({point(i)});
  return vtest::wifText(d);
}

// A 3/1 twill that turns every four picks, a zigzag, as a binding file: the
// ends drawn straight over eight shafts, the lift plan zlib-compressed.
vtest::Bytes zigzagTwillBinding() {
  std::vector<int64_t> harness;
  for (uint32_t x = 0; x < 64; ++x) harness.push_back(x % 8);
  const auto lifted = [](uint32_t s, uint32_t p) { return (s + (p / 4 % 2 ? 8 - p % 8 : p % 8)) % 4 != 0; };
  return vtest::WeaveBuilder{}.key("DIM=64 16,8").harnends(harness, 16)
      .zlib("BUTMAP", vtest::liftPlanBlock(8, 16, lifted)).end().build();
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: make_examples DIR\n");
    return 2;
  }
  const std::string dir = argv[1];
  const std::vector<Rgb> yarns = {{245, 240, 225}, {220, 210, 190}, {150, 30, 40},
                                  {190, 150, 60},  {30, 60, 110},   {20, 20, 25}};
  write(dir, "twill-weave.bmp",
        BmpBuilder{}.size(96, 64).bits(1).palette(vtest::blackWhite()).pixels(twill)
            .pixelsPerMetre(kDpm300, kDpm300));
  write(dir, "jacquard-design.bmp",
        BmpBuilder{}.size(144, 96).bits(8).palette(yarns).pixels(diamonds).pixelsPerMetre(kDpm300, kDpm300));
  write(dir, "yarn-motif-4bit.bmp",
        BmpBuilder{}.size(96, 96).bits(4).palette(yarns).pixels(diamonds));
  write(dir, "tartan.bmp", BmpBuilder{}.size(128, 128).bits(24).pixels(tartan).pixelsPerMetre(3780, 3780));
  write(dir, "ribbon-alpha.bmp", BmpBuilder{}.size(128, 64).bits(32).pixels(ribbon));
  write(dir, "card-os2.bmp", BmpBuilder{}.headerSize(12).size(64, 40).bits(1).palette(vtest::whiteBlack())
                                 .pixels([](uint32_t x, uint32_t y, int) { return uint8_t((x * 7 + y * 3) % 5 < 2); }));
  write(dir, "point-twill.wif", pointTwillDraft());
  write(dir, "zigzag-twill.weave", zigzagTwillBinding());
  vtest::Bytes map(768);
  for (size_t i = 0; i < yarns.size(); ++i) std::copy_n(&yarns[i].r, 3, &map[3 * i]);
  write(dir, "jacquard-design.pcx", vtest::PcxBuilder{}.size(144, 96).depth(8, 1).dpi(300, 300).trailingMap(map)
                                        .pixels([](uint32_t x, uint32_t y, uint32_t) { return diamonds(x, y, 0); }).build());
  write(dir, "yarns.gpl", vtest::gimpPalette("Yarns", yarns, {"ecru", "linen", "madder", "ochre", "indigo", "black"}));
  return 0;
}
