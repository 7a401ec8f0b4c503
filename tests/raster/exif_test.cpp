// EXIF reader: tag rules in both byte orders, the header and directory checks
// with their messages, and blocks that lie about offsets and lengths (read
// from exact-size heap copies, so the sanitizer build sees any stray read).
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <memory>
#include <string>

#include "tests/support/exif_writer.h"
#include "vload.h"

namespace {

using vtest::Bytes;
using vtest::ExifBuilder;

struct Parsed {
  std::unique_ptr<ExifInfo> info = std::make_unique<ExifInfo>();
  std::string messages;
};

// process_EXIF on a heap copy of exactly `block`, messages captured.
Parsed parse(const Bytes& block) {
  Parsed p;
  auto copy = std::make_unique<uint8_t[]>(block.size());
  std::memcpy(copy.get(), block.data(), block.size());
  testing::internal::CaptureStdout();
  process_EXIF(copy.get(), uint32_t(block.size()), p.info.get(), 0);
  p.messages = testing::internal::GetCapturedStdout();
  return p;
}

Bytes ascii(std::string_view s) { return Bytes(s.begin(), s.end()); }

TEST(ExifTags, ReadInBothByteOrders) {
  for (bool big : {false, true}) {
    SCOPED_TRACE(big ? "Motorola" : "Intel");
    ExifBuilder b(big);
    Bytes eight;
    b.put32(eight, uint32_t(-1));
    b.put32(eight, 3);
    b.ascii(0x010F, "Maker of cameras with a long name here")
        .ascii(0x0110, "Model")
        .shortValue(0x0112, 6)
        .rational(0x011A, 300, 1)
        .rational(0x011B, 150, 1)
        .shortValue(0x0128, 2)
        .ascii(0x9003, "2024:01:02 03:04:05")
        .rational(0x829A, 1, 250)
        .rational(0x829D, 28, 10)
        .shortValue(0x8827, 400)
        .bytes(0x9204, 10, eight)
        .shortValue(0x9209, 16)
        .rational(0x920A, 50, 1)
        .bytes(0x9286, 7, ascii(std::string_view("ASCII\0\0\0Woven twill   ", 22)))
        .shortValue(0xA215, 800)
        .rational(0xA404, 0, 0)
        .longValue(0xA002, 4000)
        .rational(0xA20E, 4000, 1)
        .shortValue(0xA210, 2);
    const Parsed p = parse(b.block());
    const ExifInfo& r = *p.info;
    EXPECT_EQ(p.messages, "");
    EXPECT_STREQ(r.cameraMake, "Maker of cameras with a long na");  // 31 bytes
    EXPECT_STREQ(r.cameraModel, "Model");
    EXPECT_STREQ(r.dateTime, "2024:01:02 03:04:05");
    EXPECT_EQ(r.orientation, 6);
    EXPECT_FLOAT_EQ(r.xResolution, 300);
    EXPECT_FLOAT_EQ(r.yResolution, 150);
    EXPECT_EQ(r.resolutionUnit, 2);
    EXPECT_FLOAT_EQ(r.exposureTime, 0.004f);
    EXPECT_FLOAT_EQ(r.apertureFNumber, 2.8f);
    EXPECT_EQ(r.isoEquivalent, 400);  // 0xA215 only when still 0
    EXPECT_FLOAT_EQ(r.exposureBias, -1.0f / 3);
    EXPECT_EQ(r.flash, 16);
    EXPECT_FLOAT_EQ(r.focalLength, 50);
    EXPECT_STREQ(r.comments, "Woven twill");
    EXPECT_FLOAT_EQ(r.digitalZoomRatio, 0);  // zero denominator
    EXPECT_FLOAT_EQ(r.ccdWidth, 25.4f);      // 4000 pixels at 4000 per inch
    EXPECT_EQ(r.focalLength35mmEquiv, 71);   // 50 / 25.4 * 36 + 0.5
    EXPECT_EQ(r.numDateTimeTags, 1);
  }
}

TEST(ExifTags, DerivedAndConditionalValues) {
  ExifBuilder b;  // APEX 5: 1/32 s and f/5.66
  Bytes apex;
  b.put32(apex, 5);
  b.put32(apex, 1);
  b.bytes(0x9201, 10, apex).bytes(0x9202, 5, apex).shortValue(0xA405, 28).rational(0x920A, 50, 1)
      .longValue(0xA002, 4000).rational(0xA20E, 4000, 1).shortValue(0xA210, 2).rational(0x011A, 300, 1)
      .directory().rational(0x011B, 72, 1).shortValue(0x0128, 3);
  const Parsed p = parse(b.block());
  const ExifInfo& r = *p.info;
  EXPECT_FLOAT_EQ(r.exposureTime, 1.0f / 32);
  EXPECT_NEAR(r.apertureFNumber, std::sqrt(32.0), 1e-4);
  EXPECT_EQ(r.focalLength35mmEquiv, 28);  // the block's own equivalent wins
  // The resolution comes from the first directory alone, Y from X there;
  // each fills the other only while it is unset.
  EXPECT_FLOAT_EQ(r.yResolution, 300);
  EXPECT_EQ(r.resolutionUnit, 0);
  const Parsed yThenX = parse(ExifBuilder().rational(0x011B, 150, 1).rational(0x011A, 300, 1).block());
  EXPECT_FLOAT_EQ(yThenX.info->xResolution, 300);
  EXPECT_FLOAT_EQ(yThenX.info->yResolution, 150);

  // A wide-character comment keeps its bytes and counts its units.
  const Bytes wide = {'H', 0, 'i', 0, 0, 0};
  const Parsed w = parse(ExifBuilder().bytes(0x9C9C, 1, wide).block());
  EXPECT_EQ(w.info->commentWidecharCount, 3);
  EXPECT_EQ(0, std::memcmp(w.info->comments, wide.data(), wide.size()));
}

TEST(ExifTags, PositionsOfDatesAndThumbnail) {
  ExifBuilder b;
  b.ascii(0x0132, "2001:01:01 00:00:00").directory().longValue(0x0201, 100).longValue(0x0202, 5000)
      .ascii(0x9004, "2002:02:02 00:00:00");
  const Bytes block = b.block();
  const Parsed p = parse(block);
  const ExifInfo& r = *p.info;
  EXPECT_STREQ(r.dateTime, "2001:01:01 00:00:00");  // a date already there is kept
  ASSERT_EQ(r.numDateTimeTags, 2);
  EXPECT_EQ(std::memcmp(block.data() + 8 + r.dateTimeOffsets[0], "2001", 4), 0);
  EXPECT_EQ(std::memcmp(block.data() + 8 + r.dateTimeOffsets[1], "2002", 4), 0);
  EXPECT_EQ(r.thumbnailOffset, 100);
  EXPECT_EQ(r.thumbnailSize, int32_t(block.size()) - 8 - 100);  // limited to the block
  EXPECT_EQ(r.thumbnailSizeOffset, 26 + 2 + 12 + 8);  // the second directory starts at 26
  EXPECT_TRUE(r.thumbnailAtEnd);                      // no value lies beyond it
}

// ---- Messages

TEST(ExifChecks, ReportEachProblemAndGoOnOrStop) {
  ExifBuilder dates;
  for (int i = 0; i < 11; ++i) dates.ascii(0x9004, "2000:01:01 00:00:00");
  Bytes good = ExifBuilder().rational(0x011A, 72, 1).block();
  Bytes padded = ExifBuilder().firstOffset(20).rational(0x011A, 72, 1).block();
  padded.resize(100, 0);
  struct Case { const char* name; Bytes block; const char* message; float xResolution; };
  const Case cases[] = {
      {"byte order", vtest::patched8(good, 8, 'X'), "Invalid Exif alignment marker.", 0},
      {"0x2A", vtest::patched8(good, 10, 0x2B), "Invalid Exif start (1)", 0},
      {"first offset 4", vtest::patched8(good, 12, 4), "invalid offset for first Exif IFD value", 0},
      {"first offset 20 of 100", padded, "Suspicious offset of first Exif IFD value", 72},
      {"a loop", ExifBuilder().rational(0x011A, 72, 1).directory().loopTo(0).block(),
       "Maximum Exif directory nesting exceeded (corrupt Exif header)", 72},
      {"ASCII for a number", ExifBuilder().ascii(0x011A, "72").block(), "Illegal format code 2 in Exif header", 0},
      {"format 13", ExifBuilder().raw(0x011A, 13, 1, 0).block(), "Illegal number format 13 for tag 011a in Exif", 0},
      {"70000 components", ExifBuilder().raw(0x011A, 5, 70000, 8).block(), "Too many components 70000 for tag 011a in Exif", 0},
      {"value past the end", ExifBuilder().raw(0x011A, 5, 1, 4000).block(), "Illegal value pointer for tag 011a in Exif", 0},
      {"negative value pointer", ExifBuilder().raw(0x011A, 5, 1, 0xFFFFFFF0).block(), "Illegal value pointer for tag 011a in Exif", 0},
      {"directory too long", vtest::patched8(good, 16, 9), "Illegally sized Exif subdirectory (9 entries)", 0},
      {"rotation 9", ExifBuilder().shortValue(0x0112, 9).block(), "Undefined rotation value 9 in Exif", 0},
      {"three rotations", ExifBuilder().shortValue(0x0112, 1).shortValue(0x0112, 1).shortValue(0x0112, 1).block(),
       "More than two orientation in Exif", 0},
      {"eleven dates", dates.block(), "More than 10 date fields in Exif.  This is nuts", 0},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const Parsed p = parse(c.block);
    EXPECT_EQ(p.messages, std::string("\nNonfatal Error : ") + c.message + "\n");
    EXPECT_FLOAT_EQ(p.info->xResolution, c.xResolution);
  }
}

TEST(ExifChecks, SuppressFlagAndNullRecord) {
  testing::internal::CaptureStdout();
  uint8_t bad[16] = {};
  ExifInfo info{};
  process_EXIF(bad, sizeof bad, &info, 1);
  EXPECT_EQ(SuppressNonFatalErrors, 1);
  process_EXIF(bad, sizeof bad, nullptr, 0);  // does nothing, the flag included
  EXPECT_EQ(SuppressNonFatalErrors, 1);
  process_EXIF(bad, sizeof bad, &info, 0);
  EXPECT_EQ(SuppressNonFatalErrors, 0);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "\nNonfatal Error : Invalid Exif alignment marker.\n");
}

// ---- Blocks that lie

// Every prefix of a block full of out-of-line values, strings and a chain,
// parsed as if it were the whole block: nothing is read past it.
TEST(ExifSafety, EveryTruncationStaysInsideTheBlock) {
  for (bool big : {false, true}) {
    ExifBuilder b(big);
    b.ascii(0x010F, "Make").ascii(0x0110, "A model name longer than four")
        .bytes(0x9286, 7, ascii("ASCII\0\0\0A comment   "))
        .bytes(0x9C9C, 1, ascii("W\0i\0d\0e\0"))
        .rational(0x011A, 300, 1).ascii(0x9003, "2024:01:02 03:04:05").bytes(0x920A, 12, Bytes(8, 0x40))
        .directory().longValue(0x0201, 60).longValue(0x0202, 99).rational(0x011B, 1, 0);
    const Bytes full = b.block();
    for (size_t n = 0; n <= full.size(); ++n) {
      SCOPED_TRACE(n);
      (void)parse(vtest::truncated(full, n));
    }
    // A text without its zero in the last bytes of the block.
    const Parsed text = parse(ExifBuilder(big).raw(0x010F, 2, 4, 0x41414141).withoutLastLink().block());
    EXPECT_STREQ(text.info->cameraMake, "AAAA");
    // A first directory at 16, accepted without a check, at or a byte before the end.
    for (size_t size : {24u, 25u}) {
      const Bytes head = vtest::patched8(vtest::truncated(full, size), big ? 15 : 12, 16);
      EXPECT_EQ(parse(head).messages, "\nNonfatal Error : Illegally sized Exif subdirectory (0 entries)\n");
    }
  }
}

TEST(ExifConvert, EveryFormatCode) {
  Clear_EXIF();  // Intel order
  const uint8_t bytes[8] = {0xFE, 0xFF, 0xFF, 0xFF, 2, 0, 0, 0}, zeroDen[8] = {5};
  const float f = 1.5f;
  const double d = -2.25;
  struct Case { const void* at; int32_t format; double want; };
  for (const Case& c : {Case{bytes, 1, 254}, Case{bytes, 3, 65534}, Case{bytes, 4, 4294967294.0},
                        Case{bytes, 5, 4294967294.0 / 2}, Case{bytes, 6, -2}, Case{bytes, 8, -2}, Case{bytes, 9, -2},
                        Case{bytes, 10, -1}, Case{zeroDen, 5, 0}, Case{zeroDen, 10, 0}, Case{&f, 11, 1.5},
                        Case{&d, 12, -2.25}})
    EXPECT_EQ(ConvertAnyFormat(c.at, c.format), c.want) << c.format;
  testing::internal::CaptureStdout();
  EXPECT_EQ(ConvertAnyFormat(bytes, 7), 0);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "\nNonfatal Error : Illegal format code 7 in Exif header\n");
}

}  // namespace
