// Portable bitmaps: every kind and odd maximum values in every band size,
// comments between tokens, header refusals, broken rasters, and detection.
#include <gtest/gtest.h>

#include <string>

#include "tests/support/harness.h"
#include "tests/support/pnm_writer.h"
#include "tests/support/temp_file.h"
#include "vload.h"

namespace {

using vtest::Bytes;
using vtest::PnmBuilder;
using vtest::TempFile;

constexpr int32_t kPnm = 12;

Bytes text(const std::string& s) { return Bytes(s.begin(), s.end()); }

struct KindCase { std::string name; PnmBuilder builder; };

// Comments only at one width: they take the same paths whatever the kind.
std::vector<KindCase> everyKind() {
  std::vector<KindCase> cases;
  for (uint32_t width : {1u, 9u}) {
    const auto add = [&](std::string name, PnmBuilder b) {
      cases.push_back({name + " width " + std::to_string(width), b.size(width, 4).comments(width == 9)});
    };
    add("P1", PnmBuilder('1'));
    add("P4", PnmBuilder('4'));
    for (char kind : {'2', '3', '5', '6'})
      for (uint32_t maxval : {7u, 255u, 256u, 65535u})
        add(std::string("P") + kind + " max " + std::to_string(maxval), PnmBuilder(kind).maxval(maxval));
    add("PAM black and white", PnmBuilder('7').depth(1).maxval(1).tupleType("BLACKANDWHITE"));
    add("PAM grey, max 1", PnmBuilder('7').depth(1).maxval(1).tupleType("GRAYSCALE"));
    add("PAM grey alpha, 16 bits", PnmBuilder('7').depth(2).maxval(4095));
    add("PAM RGBA", PnmBuilder('7').depth(4).maxval(255).tupleType("RGB_ALPHA"));
    add("PAM RGBA, max 15", PnmBuilder('7').depth(4).maxval(15).tupleType("RGB_ALPHA"));
  }
  return cases;
}

TEST(PnmPixels, EveryKindAndMaximumInEveryBandSize) {
  for (const KindCase& c : everyKind()) {
    const TempFile f(c.builder.build(), ".pnm");
    for (uint32_t band : {1u, 3u, 0u}) {
      SCOPED_TRACE(c.name + " band " + std::to_string(band));
      const vtest::Loaded l = vtest::load(f.path(), 0, band);
      ASSERT_EQ(l.status, VLOAD_OK);
      EXPECT_EQ(l.description.loader, uint32_t(kPnm));
      EXPECT_EQ(l.description.layout, c.builder.expectedLayout());
      EXPECT_EQ(l.rows, c.builder.expectedRows());
      if (l.description.layout == VLOAD_LAYOUT_INDEXED) {
        EXPECT_EQ(l.description.colourMap[3 * 200], 200);  // a grey ramp
        EXPECT_EQ(l.description.colourMap[3 * 200 + 2], 200);
      }
    }
  }
}

// Comments end at CR or LF in the classic header, at LF alone in PAM's;
// several TUPLTYPE lines make one type; of several pictures the first is read.
TEST(PnmPixels, HandWrittenFiles) {
  struct Case { std::string bytes, rows, info; };
  const Case cases[] = {
      {"P5#a\r3#b\n#c\r\n2 #d\n255#e\rabcdef", "abcdef", "P5, maximum value 255"},
      {"P7\n# one\rtwo\nWIDTH 3\n#\nHEIGHT 2\nDEPTH 1\nMAXVAL 255\nENDHDR\nabcdef", "abcdef", "P7, maximum value 255"},
      {"P7\nWIDTH 1\nHEIGHT 1\nDEPTH 4\nMAXVAL 255\nTUPLTYPE RGB \nTUPLTYPE ALPHA\nENDHDR\nwxyz", "wxyz",
       "P7 RGB ALPHA, maximum value 255"},
      {"P6 1 1 255\nabcP6 1 1 255\nxyz", "abc", "P6, maximum value 255"},
      {"P4 8 1\nx", "x", "P4"},
      // Quirk: samples above the maximum count as the maximum instead of failing the picture.
      {"P5 3 1 100\n2d\xFA", "\x80\xFF\xFF", "P5, maximum value 100"},
      {"P2 3 1 100\n50 100 99999999999\n", "\x80\xFF\xFF", "P2, maximum value 100"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.bytes);
    const TempFile f(text(c.bytes), ".dat");  // found by content, as the loader reads it
    const vtest::Loaded l = vtest::load(f.path());
    ASSERT_EQ(l.status, VLOAD_OK);
    EXPECT_EQ(l.rows, text(c.rows));
    EXPECT_STREQ(l.description.info, c.info.c_str());
  }
}

// ---- Header

TEST(PnmHeader, RefusesWhatItDoesNotRead) {
  const std::string pam = "P7\nWIDTH 2\nHEIGHT 2\nDEPTH 3\nMAXVAL 255\nENDHDR\n" + std::string(12, 'x');
  const auto without = [&](const std::string& line) {
    std::string s = pam;
    s.erase(s.find(line), line.size());
    return s;
  };
  struct Case { std::string name, bytes; uint32_t want; };
  const Case cases[] = {
      {"no white space after the magic", "P61 1 255\nxxx", VLOAD_NOT_THIS_FORMAT},
      {"garbage after a number", "P6\n32 3588!\n255\n", VLOAD_NOT_THIS_FORMAT},
      {"header cut before the maximum", "P6 1 1", VLOAD_NOT_THIS_FORMAT},
      {"maximum 0", "P5 1 1 0\nx", VLOAD_NOT_THIS_FORMAT},
      {"maximum 65536", "P5 1 1 65536\nxx", VLOAD_NOT_THIS_FORMAT},
      {"a comment longer than the header may be", "P5\n#" + std::string(70000, 'c') + "\n1 1 255\nx",
       VLOAD_NOT_THIS_FORMAT},
      {"width 0", "P5 0 1 255\n", VLOAD_BAD_DATA},
      {"height 262141", "P4 1 262141\n", VLOAD_BAD_DATA},
      {"a width beyond 32 bits", "P4 99999999999999999999 1\n", VLOAD_BAD_DATA},
      {"PAM without DEPTH", without("DEPTH 3\n"), VLOAD_NOT_THIS_FORMAT},
      {"PAM without ENDHDR", without("ENDHDR\n"), VLOAD_NOT_THIS_FORMAT},
      {"PAM with an unknown keyword", "P7\nWIDTH 1\nCOLOUR 2\n", VLOAD_NOT_THIS_FORMAT},
      {"PAM with a number and more", "P7\nWIDTH 1 2\nHEIGHT 1\nDEPTH 1\nMAXVAL 1\nENDHDR\nx",
       VLOAD_NOT_THIS_FORMAT},
      {"PAM of depth 5", "P7\nWIDTH 1\nHEIGHT 1\nDEPTH 5\nMAXVAL 255\nENDHDR\nxxxxx", VLOAD_UNSUPPORTED},
  };
  const int fds = vtest::openFdCount();
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const TempFile f(text(c.bytes), ".pnm");
    EXPECT_EQ(vtest::tryLoadStatus(f.path(), kPnm), c.want);
    EXPECT_EQ(vtest::openFdCount(), fds);
  }
}

// ---- Delivery

TEST(PnmPixels, BrokenRastersGiveDataErrors) {
  const Bytes raw = PnmBuilder('6').size(4, 4).build();
  struct Case { const char* name; Bytes bytes; };
  const Case cases[] = {
      {"raw cut in the last row", vtest::truncated(raw, raw.size() - 1)},
      {"raw 16-bit cut", vtest::truncated(PnmBuilder('5').maxval(4000).build(), 30)},
      {"plain with a letter", text("P2 2 2 255\n1 2 x 4\n")},
      {"plain cut", text("P3 2 1 255\n1 2 3 4 5\n")},
      {"plain bits with a 2", text("P1 3 1\n012\n")},
  };
  for (const Case& c : cases) {
    for (uint32_t band : {1u, 0u}) {
      SCOPED_TRACE(std::string(c.name) + " band " + std::to_string(band));
      const TempFile f(c.bytes, ".pnm");
      const vtest::Loaded l = vtest::load(f.path(), 0, band);
      EXPECT_TRUE(l.delivering);
      EXPECT_EQ(l.status, VLOAD_BAD_DATA);
    }
  }
}

// Raw rows go straight to the caller's buffer: row by row when its stride
// is wider than a row, and never into the stride's slack.
TEST(PnmPixels, StrideWiderThanTheRow) {
  const PnmBuilder b = PnmBuilder('6').size(5, 3);
  const TempFile f(b.build(), ".ppm");
  returnLoaderFunctions(kPnm, f.path());
  ASSERT_EQ(getTryLoad()(f.path(), nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
                         nullptr, nullptr, nullptr, nullptr, 1), VLOAD_OK);
  Bytes buffer(3 * 20, 0xEE);
  EXPECT_EQ(getLoadBand()(buffer.data(), 3, 20, nullptr), VLOAD_OK);
  getEndLoad()(nullptr, 0, 0, nullptr);
  Bytes want = b.expectedRows();
  for (size_t y = 0; y < 3; ++y) want.insert(want.begin() + long(20 * y + 15), 5, 0xEE);
  EXPECT_EQ(buffer, want);
}

TEST(PnmDetect, MagicAndWhiteSpace) {
  struct Case { std::string bytes; uint32_t want; };
  const Case cases[] = {
      {"P1\n1 1\n1", 12}, {"P4 8 1\nx", 12}, {"P6\t1 1 255\nxyz", 12}, {"P7\nWIDTH 1\n", 12},
      {"P6x 1 1", VLOAD_NOT_RECOGNISED}, {"P9 1 1", VLOAD_NOT_RECOGNISED},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.bytes);
    const TempFile f(text(c.bytes), ".unknown");
    EXPECT_EQ(returnLoaderFunctions(0, f.path()), c.want);
  }
}

}  // namespace
