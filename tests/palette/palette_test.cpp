// Palette loaders (JASC-PAL and GIMP, ACO, ACB, ASE): palettes of 0, 1, 256
// and 1000 colours in every format, colour spaces, UTF-16 names and the
// information text, broken files, line ends, detection and the protocol.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <string>
#include <string_view>
#include <vector>

#include "tests/support/harness.h"
#include "tests/support/palette_writer.h"
#include "tests/support/temp_file.h"
#include "vload.h"

namespace {

using vtest::AcbBook;
using vtest::AcoColour;
using vtest::AseBuilder;
using vtest::Bytes;
using vtest::Rgb;
using vtest::TempFile;

Bytes text(const std::string& s) { return Bytes(s.begin(), s.end()); }

std::vector<Rgb> colours(size_t n) {
  std::vector<Rgb> c;
  for (size_t i = 0; i < n; ++i) c.push_back({uint8_t(i * 7), uint8_t(255 - i % 256), uint8_t(i / 4)});
  return c;
}

// Every format, with RGB colours written the way it stores them.
struct Format { const char* name; const char* extension; int32_t loader; };
constexpr Format kFormats[] = {
    {"JASC-PAL", ".pal", 64}, {"GIMP", ".gpl", 64}, {"ACO", ".aco", 68}, {"ACB", ".acb", 69}, {"ASE", ".ase", 74}};

Bytes write(const Format& f, const std::vector<Rgb>& c) {
  const std::string_view extension = f.extension;
  if (extension == ".pal") return vtest::jascPalette(c);
  if (extension == ".gpl") return vtest::gimpPalette("Test", c);
  std::vector<AcoColour> aco;
  AcbBook book;
  AseBuilder ase;
  ase.groupStart(u"Group");
  for (const Rgb& x : c) {
    aco.push_back(vtest::acoRgb(x, u"n"));
    book.colours.push_back({u"n", {x.r, x.g, x.b}});
    ase.rgb(u"n", x);
  }
  return extension == ".aco" ? vtest::acoFile(aco) : extension == ".acb" ? vtest::acbFile(book) : ase.groupEnd().build();
}

TEST(PaletteSizes, NoneOneFullAndMoreThanAMap) {
  for (const Format& f : kFormats) {
    for (size_t n : {0u, 1u, 256u, 1000u}) {
      SCOPED_TRACE(std::string(f.name) + ", " + std::to_string(n) + " colours");
      const std::vector<Rgb> c = colours(n);
      const TempFile file(write(f, c), f.extension);
      const vtest::Loaded l = vtest::load(file.path());  // detected, by signature or name
      if (n == 0) {
        EXPECT_EQ(l.status, VLOAD_BAD_DATA);
        continue;
      }
      ASSERT_EQ(l.status, VLOAD_OK);
      EXPECT_EQ(l.description.loader, uint32_t(f.loader));
      EXPECT_EQ(l.description.width, n);
      EXPECT_EQ(l.description.height, 1u);
      Bytes rgb, indexes;
      for (size_t i = 0; i < n; ++i) rgb.insert(rgb.end(), {c[i].r, c[i].g, c[i].b}), indexes.push_back(uint8_t(i));
      // Up to 256 colours: indexes into the colour map; more: the colours themselves.
      EXPECT_EQ(l.description.layout, n <= 256 ? VLOAD_LAYOUT_INDEXED : VLOAD_LAYOUT_RGB);
      EXPECT_EQ(l.rows, n <= 256 ? indexes : rgb);
      if (n <= 256) {
        EXPECT_EQ(Bytes(l.description.colourMap, l.description.colourMap + rgb.size()), rgb);
      }
      const std::string info = l.description.info;
      EXPECT_NE(info.find(std::to_string(n) + (n == 1 ? " colour" : " colours")), std::string::npos) << info;
    }
  }
}

// ---- Colour spaces

struct Expected { const char* name; Rgb want; int tolerance; };

void expectColours(const Bytes& file, const char* extension, const std::vector<Expected>& want) {
  const TempFile f(file, extension);
  const vtest::Loaded l = vtest::load(f.path());
  ASSERT_EQ(l.status, VLOAD_OK);
  ASSERT_EQ(l.description.width, want.size());
  for (size_t i = 0; i < want.size(); ++i) {
    SCOPED_TRACE(want[i].name);
    const uint8_t* got = l.description.colourMap + 3 * i;
    EXPECT_NEAR(got[0], want[i].want.r, want[i].tolerance);
    EXPECT_NEAR(got[1], want[i].want.g, want[i].tolerance);
    EXPECT_NEAR(got[2], want[i].want.b, want[i].tolerance);
  }
}

TEST(PaletteColourSpaces, AcoSpaces) {
  struct Case { uint16_t space; std::array<uint16_t, 4> values; Expected want; };
  const Case cases[] = {
      {0, {0xFFFF, 0x8080, 0, 0}, {"RGB", {255, 128, 0}, 0}},
      {1, {0x5555, 0xFFFF, 0xFFFF, 0}, {"HSB green (120 degrees)", {0, 255, 0}, 0}},
      {1, {0xAAAA, 0x8000, 0xFFFF, 0}, {"HSB half-saturated blue", {128, 128, 255}, 1}},
      {2, {0, 0xFFFF, 0xFFFF, 0xFFFF}, {"CMYK cyan: 0 is full ink", {0, 255, 255}, 0}},
      {2, {0xFFFF, 0xFFFF, 0xFFFF, 0x8000}, {"CMYK half black", {128, 128, 128}, 1}},
      {7, {10000, 0, 0, 0}, {"Lab white", {255, 255, 255}, 0}},
      {7, {5429, 8081, 6989, 0}, {"Lab sRGB red", {255, 0, 0}, 2}},
      {8, {2500, 0, 0, 0}, {"grey: a quarter ink", {191, 191, 191}, 1}},
      {9, {0, 10000, 10000, 0}, {"wide CMYK red", {255, 0, 0}, 0}},
  };
  std::vector<AcoColour> aco;
  std::vector<Expected> want;
  for (const Case& c : cases) aco.push_back({c.space, c.values, u""}), want.push_back(c.want);
  expectColours(vtest::acoFile(aco), ".aco", want);
}

TEST(PaletteColourSpaces, AseModels) {
  const Bytes ase = AseBuilder{}
                        .colour(u"rgb", "RGB ", {1.0f, 0.5f, 0.0f})
                        .colour(u"cmyk", "CMYK", {0.0f, 1.0f, 0.5f, 0.5f})
                        .colour(u"lab", "LAB ", {0.5429f, 80.81f, 69.89f})
                        .colour(u"gray", "Gray", {0.25f})
                        .colour(u"GRAY", "GRAY", {1.0f})
                        .build();
  expectColours(ase, ".ase",
                {{"rgb", {255, 128, 0}, 0}, {"cmyk: every ink its own", {128, 0, 64}, 1},
                 {"lab red", {255, 0, 0}, 2}, {"gray: 0 black", {64, 64, 64}, 1},
                 {"GRAY", {255, 255, 255}, 0}});
}

TEST(PaletteColourSpaces, AcbSpaces) {
  AcbBook cmyk;
  cmyk.space = 2;
  cmyk.colours = {{u"cyan", {0, 255, 255, 255}}, {u"white", {255, 255, 255, 255}}};
  expectColours(vtest::acbFile(cmyk), ".acb", {{"cyan", {0, 255, 255}, 0}, {"white", {255, 255, 255}, 0}});
  AcbBook lab;
  lab.space = 7;
  lab.colours = {{u"white", {255, 128, 128}}, {u"red", {138, 209, 198}}};
  expectColours(vtest::acbFile(lab), ".acb", {{"white", {255, 255, 255}, 0}, {"red", {255, 0, 0}, 2}});
}

// ---- Names and the information text

std::string infoOf(const Bytes& file, const char* extension) {
  const TempFile f(file, extension);
  const vtest::Loaded l = vtest::load(f.path());
  EXPECT_EQ(l.status, VLOAD_OK);
  return l.description.info;
}

TEST(PaletteNames, Utf16NamesBecomeUtf8) {
  const std::u16string polish = u"Za\u017c\u00f3\u0142\u0107", clef = u"\U0001D11E clef";
  const std::vector<AcoColour> aco = {vtest::acoRgb({1, 2, 3}, polish), vtest::acoRgb({4, 5, 6}, clef),
                                      vtest::acoRgb({7, 8, 9}, u"\xD800 lone")};
  const std::string info = infoOf(vtest::acoFile(aco), ".aco");  // named after the file
  EXPECT_EQ(info.substr(info.find('\n')), "\nACO swatches, 3 colours\nZa\u017c\u00f3\u0142\u0107, \U0001D11E clef, \uFFFD lone");

  AcbBook book;
  book.title = u"$$$/colorbook/Test/title=Test^R Colours";
  book.prefix = u"TC ";
  book.suffix = u" C";
  book.colours = {{u"100", {1, 2, 3}}, {u"", {4, 5, 6}}};
  EXPECT_EQ(infoOf(vtest::acbFile(book), ".acb"), "Test\u00ae Colours\nACB colour book, 2 colours\nTC 100 C");

  const Bytes ase = AseBuilder{}.rgb(u"loose", {1, 1, 1}).groupStart(u"\u00c9t\u00e9").rgb(u"inner", {2, 2, 2}).groupEnd().build();
  EXPECT_EQ(infoOf(ase, ".ase"), "\u00c9t\u00e9\nASE swatch exchange, 2 colours\nloose, inner");

  EXPECT_EQ(infoOf(vtest::gimpPalette("Earth", colours(2), {"Umber", "Ochre\tdeep"}), ".gpl"),
            "Earth\nGIMP palette, 2 colours\nUmber, Ochre deep");
}

TEST(PaletteNames, InfoTextFitsAndNamesUnnamedPalettes) {
  std::vector<AcoColour> aco;
  for (int i = 0; i < 100; ++i) aco.push_back(vtest::acoRgb({1, 2, 3}, u"\u00e9\u00e9\u00e9"));
  const TempFile f(vtest::acoFile(aco), "earth tones.aco", true);
  const vtest::Loaded l = vtest::load(f.path());
  ASSERT_EQ(l.status, VLOAD_OK);
  const std::string info = l.description.info;
  EXPECT_LT(info.size(), size_t(VLOAD_INFO_TEXT_SIZE));
  EXPECT_EQ(info.rfind("earth tones\nACO swatches, 100 colours\n", 0), 0u) << info;
  EXPECT_NE(uint8_t(info.back()), 0xC3);  // never the first half of a two-byte character
}

// ---- Broken files

TEST(PaletteBroken, StatusesAndNothingLeftOpen) {
  const std::vector<AcoColour> two = {vtest::acoRgb({1, 2, 3}, u"a"), vtest::acoRgb({4, 5, 6}, u"b")};
  const Bytes v1 = vtest::acoFile(two, true, false), v2 = vtest::acoFile(two, false, true);
  AcbBook book;
  book.colours = {{u"a", {1, 2, 3}}, {u"b", {4, 5, 6}}};
  AcbBook version2 = book, hsb = book, overlong = book;
  version2.version = 2;
  hsb.space = 1;
  overlong.count = 3;
  Bytes lyingBlock = AseBuilder{}.rgb(u"a", {1, 2, 3}).build();
  lyingBlock[17] = 0x7F;  // the colour block's length
  struct Case { const char* name; Bytes bytes; const char* extension; uint32_t want; };
  const Case cases[] = {
      {"JASC count beyond the file", vtest::jascPalette(colours(3), "\n", 4), ".pal", VLOAD_BAD_DATA},
      {"JASC count missing", text("JASC-PAL\n0100\n"), ".pal", VLOAD_NOT_THIS_FORMAT},
      {"JASC value 256", text("JASC-PAL\n0100\n1\n256 0 0\n"), ".pal", VLOAD_NOT_THIS_FORMAT},
      {"GIMP line of two numbers", text("GIMP Palette\n1 2 3\n65 38\n"), ".gpl", VLOAD_NOT_THIS_FORMAT},
      {"GIMP without colours", text("GIMP Palette\nName: x\n#\n"), ".gpl", VLOAD_BAD_DATA},
      {"ACO cut in a colour", vtest::truncated(v1, v1.size() - 3), ".aco", VLOAD_BAD_DATA},
      {"ACO name longer than the file", vtest::patched8(v2, 14, 0x40), ".aco", VLOAD_BAD_DATA},
      {"ACO custom ink", vtest::acoFile({{3, {1, 2, 3, 4}, u""}}), ".aco", VLOAD_NOT_THIS_FORMAT},
      {"ACO version 3", vtest::patched8(v1, 1, 3), ".aco", VLOAD_NOT_THIS_FORMAT},
      {"ACB version 2", vtest::acbFile(version2), ".acb", VLOAD_UNSUPPORTED},
      {"ACB in HSB", vtest::acbFile(hsb), ".acb", VLOAD_NOT_THIS_FORMAT},
      {"ACB count beyond the file", vtest::acbFile(overlong), ".acb", VLOAD_BAD_DATA},
      {"ASE version 2", AseBuilder{}.version(2).rgb(u"a", {1, 2, 3}).build(), ".ase", VLOAD_UNSUPPORTED},
      {"ASE blocks beyond the file", AseBuilder{}.rgb(u"a", {1, 2, 3}).announce(2).build(), ".ase", VLOAD_BAD_DATA},
      {"ASE block longer than the file", lyingBlock, ".ase", VLOAD_BAD_DATA},
      {"ASE colour without values", AseBuilder{}.colour(u"a", "RGB ", {0.5f}).build(), ".ase", VLOAD_NOT_THIS_FORMAT},
      {"ASE only an unknown block", AseBuilder{}.block(0x0042, {1, 2}).build(), ".ase", VLOAD_BAD_DATA},
  };
  const int fds = vtest::openFdCount();
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const TempFile f(c.bytes, c.extension);
    EXPECT_EQ(vtest::load(f.path()).status, c.want);
    EXPECT_EQ(vtest::openFdCount(), fds);
  }
}

TEST(PaletteBroken, AcoKeepsTheFirstListWhenTheSecondIsBroken) {
  const std::vector<AcoColour> two = {vtest::acoRgb({1, 2, 3}, u"a"), vtest::acoRgb({4, 5, 6}, u"b")};
  const Bytes both = vtest::acoFile(two);
  const TempFile f(vtest::truncated(both, both.size() - 3), ".aco");
  const vtest::Loaded l = vtest::load(f.path());
  ASSERT_EQ(l.status, VLOAD_OK);
  EXPECT_EQ(l.description.width, 2u);
  EXPECT_EQ(std::string(l.description.info).find("a, b"), std::string::npos);  // no names
}

// ---- Text variants

TEST(PaletteText, LineEndsAndByteOrderMarks) {
  const std::vector<Rgb> c = colours(3);
  for (const char* end : {"\n", "\r\n", "\r"}) {
    for (bool mark : {false, true}) {
      SCOPED_TRACE(std::string(mark ? "mark, " : "") + (end[0] == '\n' ? "LF" : end[1] ? "CR LF" : "CR"));
      Bytes gimp = vtest::gimpPalette("x", c, {}, end);
      if (mark) gimp.insert(gimp.begin(), {0xEF, 0xBB, 0xBF});
      for (const Bytes& file : {vtest::jascPalette(c, end, -1, mark), gimp}) {
        const TempFile f(file, ".bin");  // found by signature alone
        const vtest::Loaded l = vtest::load(f.path());
        ASSERT_EQ(l.status, VLOAD_OK);
        EXPECT_EQ(l.description.loader, 64u);
        EXPECT_EQ(l.description.width, 3u);
        EXPECT_EQ(l.description.colourMap[3], c[1].r);
      }
    }
  }
}

// ---- Detection and protocol

TEST(PaletteDetect, SignaturesOfTheBinaryFormats) {
  const std::vector<AcoColour> one = {vtest::acoRgb({1, 2, 3})};
  struct Case { const char* name; Bytes bytes; uint32_t want; };
  const Case cases[] = {
      {"ASE", AseBuilder{}.rgb(u"a", {1, 2, 3}).build(), 74},
      {"ACB", vtest::acbFile(AcbBook{}), 69},
      {"ACO version 1", vtest::acoFile(one, true, false), 68},
      {"ACO version 2", vtest::acoFile(one, false, true), 68},
      {"ACO whose count the file cannot hold", vtest::patched8(vtest::acoFile(one, true, false), 3, 9), VLOAD_NOT_RECOGNISED},
      {"ACO with a custom space first", vtest::acoFile({{4, {0, 0, 0, 0}, u""}}, true, false), VLOAD_NOT_RECOGNISED},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const TempFile f(c.bytes, ".unknown");
    EXPECT_EQ(returnLoaderFunctions(0, f.path()), c.want);
  }
}

TEST(PaletteProtocol, OneRowInOneCall) {
  const TempFile f(vtest::jascPalette(colours(4)), ".pal");
  returnLoaderFunctions(64, f.path());
  vload_tool::Description d;
  std::fill(std::begin(d.colourMap), std::end(d.colourMap), 0xAB);
  ASSERT_EQ(vload_tool::describe(f.path(), d, false), VLOAD_OK);
  EXPECT_EQ(d.colourMap[0], 0xAB);  // readColorMap 0: the map is left alone
  uint8_t row[8] = {};
  EXPECT_EQ(getLoadBand()(row, 2, 8, nullptr), VLOAD_BAD_REQUEST);
  EXPECT_EQ(getLoadBand()(row, 1, 3, nullptr), VLOAD_BAD_REQUEST);  // stride under one row
  EXPECT_EQ(getLoadBand()(row, 1, 8, nullptr), VLOAD_OK);
  EXPECT_EQ(getLoadBand()(row, 1, 8, nullptr), VLOAD_BAD_REQUEST);
  EXPECT_EQ(Bytes(row, row + 4), (Bytes{0, 1, 2, 3}));
  getEndLoad()(nullptr, 0, 0, nullptr);
  EXPECT_EQ(getLoadBand()(row, 1, 8, nullptr), VLOAD_BAD_REQUEST);
}

}  // namespace
