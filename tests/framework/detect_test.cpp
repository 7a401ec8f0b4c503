// Detection for loader number 0: name rules, signatures, extensions, and
// nothing installed when nothing is recognised.
#include <gtest/gtest.h>
#include <unistd.h>

#include <string>

#include "framework/loader.h"
#include "tests/support/bmp_writer.h"
#include "tests/support/temp_file.h"
#include "vload.h"

namespace {

using vtest::Bytes;
using vtest::TempFile;

Bytes text(const std::string& s) { return Bytes(s.begin(), s.end()); }

TEST(Detect, NameRulesComeFirstAndInstallNothing) {
  registerLoadBMP();
  const TryLoadFn before = getTryLoad();
  const TempFile bmp(vtest::BmpBuilder{}.build(), ".zip");  // a bitmap under an archive's name
  struct Case { const char* name; uint32_t want; };
  const Case cases[] = {
      {"a", VLOAD_NAME_TOO_SHORT},           {nullptr, VLOAD_NAME_TOO_SHORT},
      {bmp.path(), VLOAD_NOT_A_PICTURE},     {"notes.DOCX", VLOAD_NOT_A_PICTURE},
      {"lib.so", VLOAD_NOT_A_PICTURE},       {"card.eatpc", VLOAD_NOT_A_PICTURE},
      {"/no/such/file.xyz", VLOAD_NOT_RECOGNISED},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name ? c.name : "(null)");
    EXPECT_EQ(returnLoaderFunctions(0, c.name), c.want);
    EXPECT_EQ(getTryLoad(), before);
  }
}

TEST(Detect, SignaturesPickTheirLoaders) {
  struct Case { std::string bytes; uint32_t loader; };
  // The palette signatures are the palette tests' business.
  const Case cases[] = {
      {"GIF87a......", 1},           {"#BINDING\nVERSION=1", 11},   {"#NEW_REGION\n#START_IMAGE=4", 40},
      {"# Fabric file", 41},         {"UWFCR2......", 39},          {"CGSII1......", 51},
      {"8BPS\x01\x02....", 76},      {"wjl&sb......", 71},          {"@(#)CARDIM..FILE", 7},
      {"/*DESIGN..FILE*/", 8},       {"@(#)BWEAVE..FILE", 33},      {"patfil......", 27},
      {"0010........", 9},           {"AA Computerized Pattern Maker Data File Ver 1.0\r\n", 73},
      {"<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<HarnessInfo version=\"2.0\">\n", 77},
      {"<?xml version=\"1.0\"?><design/>", 45},
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
  for (const auto& [extension, loader] : {std::pair{".DRAPE", 40u}, {".cpmld", 73u}, {".JPEG", 4u}}) {
    const TempFile f(text("something"), extension);
    EXPECT_EQ(returnLoaderFunctions(0, f.path()), loader) << extension;
  }
}

TEST(Detect, DrapeProjects) {
  const struct { const char* name; const char* text; int32_t want; } cases[] = {
      {"project.Drape", "#NEW_REGION\n#CPOINTS=0\n", 1}, {"crlf.drp", "#NEW_REGION\r\n", 0},
      {"project.txt", "#NEW_REGION\n", 0}, {"ab.drp", "#NEW_REGION\n", 0}, {"abc.drp", "#NEW_REGION\n", 1}};
  // Relative names, so that the length rule sees the name alone.
  char cwd[4096];
  ASSERT_NE(::getcwd(cwd, sizeof cwd), nullptr);
  ASSERT_EQ(::chdir(vtest::tempDir().c_str()), 0);
  for (const auto& c : cases) {
    const TempFile f(text(c.text), c.name, true);
    EXPECT_EQ(isDrapeProject(c.name), c.want) << c.name;
  }
  EXPECT_EQ(::chdir(cwd), 0);
  EXPECT_EQ(isDrapeProject(nullptr), 0);
}

}  // namespace
