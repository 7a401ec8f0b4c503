// Seeds for the palette loaders: JASC-PAL, GIMP, ACO in both versions and
// every colour space, an ACB colour book, and an ASE file with groups.
#include <string>

#include "fuzz/seeds/seeds.h"
#include "tests/support/palette_writer.h"

namespace {

void palettes(const vseed::Emit& emit) {
  const std::vector<vtest::Rgb> colours = {{255, 0, 0}, {0, 128, 255}, {7, 7, 7}};
  emit(vtest::jascPalette(colours), 64);
  emit(vtest::gimpPalette("Seeds", colours, {"red", "sky"}), 64);
  const std::vector<vtest::AcoColour> aco = {
      {0, {65535, 0, 0, 0}, u"RGB"},      {1, {21845, 65535, 65535, 0}, u"HSB"},
      {2, {0, 65535, 65535, 65535}, u"CMYK"}, {7, {5000, 2000, 65036, 0}, u"Lab \u00e9"},
      {8, {2500, 0, 0, 0}, u"grey"},      {9, {0, 10000, 10000, 0}, u"wide"}};
  emit(vtest::acoFile(aco), 68);
  emit(vtest::acoFile(aco, false, true), 68);
  vtest::AcbBook book;
  book.space = 7;
  book.colours = {{u"one", {200, 100, 150}}, {u"two", {20, 128, 128}}};
  emit(vtest::acbFile(book), 69);
  emit(vtest::AseBuilder{}
           .rgb(u"loose", {1, 2, 3})
           .groupStart(u"Group")
           .colour(u"cmyk", "CMYK", {0.1f, 0.2f, 0.3f, 0.4f})
           .colour(u"lab", "LAB ", {0.5f, 20.0f, -30.0f})
           .colour(u"gray", "Gray", {0.5f})
           .groupEnd()
           .build(),
       74);
}

const bool added = vseed::add(palettes);

}  // namespace
