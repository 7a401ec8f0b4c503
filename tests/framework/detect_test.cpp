// Detection for loader number 0: name rules, signatures, extensions, and
// nothing installed when nothing is recognised.
#include <gtest/gtest.h>

#include <string>

#include "framework/detect.h"
#include "framework/loader.h"
#include "tests/support/bmp_writer.h"
#include "tests/support/temp_file.h"
#include "vload.h"

namespace {

using vtest::Bytes;
using vtest::TempFile;

Bytes text(const std::string& s) { return Bytes(s.begin(), s.end()); }

TEST(Detect, PacksTheNameEnding) {
  EXPECT_EQ(ldr::packedNameEnding("a.BMP"), 0x626D70u);     // "bmp", folded
  EXPECT_EQ(ldr::packedNameEnding("x.JpeG"), 0x6A706567u);  // fifth from the end is '.': four letters
  EXPECT_EQ(ldr::packedNameEnding("ab"), 0x6162u);
  EXPECT_EQ(ldr::packedNameEnding("pic.\xC4Z"), 0x2EC47Au);  // bytes above 127 are not folded
  EXPECT_EQ(ldr::packedNameEnding("a"), VLOAD_NAME_TOO_SHORT);
  EXPECT_EQ(ldr::packedNameEnding(""), VLOAD_NAME_TOO_SHORT);
  EXPECT_EQ(ldr::packedNameEnding(nullptr), VLOAD_NAME_TOO_SHORT);
}

TEST(Detect, NameRulesComeFirstAndInstallNothing) {
  registerLoadBMP();
  const TryLoadFn before = getTryLoad();
  const TempFile bmp(vtest::BmpBuilder{}.build(), ".zip");  // a bitmap under an archive's name
  struct Case { const char* name; uint32_t want; };
  const Case cases[] = {
      {"a", VLOAD_NAME_TOO_SHORT},           {nullptr, VLOAD_NAME_TOO_SHORT},
      {bmp.path(), VLOAD_NOT_A_PICTURE},     {"notes.DOCX", VLOAD_NOT_A_PICTURE},
      {"tool.exe", VLOAD_NOT_A_PICTURE},     {"card.eatpc", VLOAD_NOT_A_PICTURE},
      {"lib.so", VLOAD_NOT_A_PICTURE},       {"/no/such/file.xyz", VLOAD_NOT_RECOGNISED},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name ? c.name : "(null)");
    EXPECT_EQ(returnLoaderFunctions(0, c.name), c.want);
    EXPECT_EQ(getTryLoad(), before);
  }
}

TEST(Detect, SignaturesPickTheirLoaders) {
  struct Case { std::string bytes; uint32_t loader; };
  const Case cases[] = {
      {"GIF87a......", 1},
      {"GIF89a......", 1},
      {"#BINDING\nVERSION=1", 11},
      {"#NEW_REGION\n#START_IMAGE=4", 40},
      {"# Fabric file", 41},
      {"UWFCR2......", 39},
      {"CGSII1......", 51},
      {"JASC-PAL\r\n0100\r\n", 64},
      {"GIMP Palette\nName: x\n", 64},
      {"8BCB\x01\x02....", 69},
      {"8BPS\x01\x02....", 76},
      {"wjl&sb......", 71},
      {"AA Computerized Pattern Maker Data File Ver 1.0\r\n", 73},
      {"<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<HarnessInfo version=\"2.0\">\n", 77},
      {"<?xml version=\"1.0\"?><design/>", 45},
      {"@(#)CARDIM..FILE", 7},
      {"/*DESIGN..FILE*/", 8},
      {"@(#)BWEAVE..FILE", 33},
      {"patfil......", 27},
      {"0010........", 9},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.bytes);
    const TempFile f(text(c.bytes), ".unknown");
    EXPECT_EQ(returnLoaderFunctions(0, f.path()), c.loader);
  }
}

TEST(Detect, RecognisesBitmapsByContentAndByName) {
  const TempFile content(vtest::BmpBuilder{}.build(), ".data");
  EXPECT_EQ(returnLoaderFunctions(0, content.path()), 24u);
  EXPECT_NE(getTryLoad(), nullptr);
  for (uint32_t size : {12u, 40u, 108u, 124u, 125u}) {  // the loader refuses some; detection does not
    const TempFile f(vtest::BmpBuilder{}.headerSize(size).build(), ".data");
    EXPECT_EQ(returnLoaderFunctions(0, f.path()), 24u) << size;
  }
  const TempFile named(text("not a bitmap at all"), ".Bmp");
  EXPECT_EQ(returnLoaderFunctions(0, named.path()), 24u);
  const TempFile bare(text("BM but nothing else"), ".data");
  EXPECT_EQ(returnLoaderFunctions(0, bare.path()), VLOAD_NOT_RECOGNISED);
}

TEST(Detect, SignatureMustFitInsideTheFile) {
  // The probe cache keeps the previous file's bytes behind a short file.
  const TempFile longer(text("GIF89a and then a good deal more"), ".unknown");
  EXPECT_EQ(returnLoaderFunctions(0, longer.path()), 1u);
  const TempFile shorter(text("GIF"), ".unknown");
  EXPECT_EQ(returnLoaderFunctions(0, shorter.path()), VLOAD_NOT_RECOGNISED);
  const TempFile empty(Bytes{}, ".unknown");
  EXPECT_EQ(returnLoaderFunctions(0, empty.path()), VLOAD_NOT_RECOGNISED);
}

TEST(Detect, ExtensionsOfFiveLettersAndLonger) {
  const TempFile drape(text("something"), ".DRAPE");
  EXPECT_EQ(returnLoaderFunctions(0, drape.path()), 40u);
  const TempFile cpmld(text("something"), ".cpmld");
  EXPECT_EQ(returnLoaderFunctions(0, cpmld.path()), 73u);
  const TempFile jpeg(text("something"), ".JPEG");
  EXPECT_EQ(returnLoaderFunctions(0, jpeg.path()), 4u);
}

TEST(Detect, DrapeProjects) {
  const TempFile good(text("#NEW_REGION\n#CPOINTS=0\n"), "project.Drape", true);
  EXPECT_EQ(isDrapeProject(good.path()), 1);
  const TempFile crlf(text("#NEW_REGION\r\n"), "crlf.drp", true);
  EXPECT_EQ(isDrapeProject(crlf.path()), 0);
  const TempFile named(text("#NEW_REGION\n"), "a.drp", true);  // 5 characters as a bare name
  EXPECT_EQ(isDrapeProject("a.drp"), 0);
  EXPECT_EQ(isDrapeProject(nullptr), 0);
  const TempFile other(text("#NEW_REGION\n"), "project.txt", true);
  EXPECT_EQ(isDrapeProject(other.path()), 0);
}

}  // namespace
