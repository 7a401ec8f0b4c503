// JPEG loader: layouts and colour maps, CMYK arithmetic, densities from JFIF
// and EXIF, the started flag, failures that leave nothing open, public
// samples, and two threads loading files with EXIF blocks at once.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <thread>

#include <jpeglib.h>

#include "tests/support/exif_writer.h"
#include "tests/support/harness.h"
#include "tests/support/jpeg_writer.h"
#include "tests/support/temp_file.h"
#include "vload.h"

namespace {

using vtest::Bytes;
using vtest::ExifBuilder;
using vtest::JpegBuilder;
using vtest::TempFile;

constexpr int32_t kJpeg = 4;

// libjpeg's own decode of a valid file, as `space` (3 bytes a pixel for RGB).
Bytes bareDecode(const Bytes& file, J_COLOR_SPACE space) {
  jpeg_decompress_struct c{};
  jpeg_error_mgr err{};
  c.err = jpeg_std_error(&err);
  jpeg_create_decompress(&c);
  jpeg_mem_src(&c, file.data(), file.size());
  jpeg_read_header(&c, TRUE);
  c.out_color_space = space;
  jpeg_start_decompress(&c);
  Bytes out(size_t(c.output_width) * c.output_components * c.output_height);
  while (c.output_scanline < c.output_height) {
    JSAMPROW row = out.data() + size_t(c.output_scanline) * c.output_width * c.output_components;
    jpeg_read_scanlines(&c, &row, 1);
  }
  jpeg_finish_decompress(&c);
  jpeg_destroy_decompress(&c);
  return out;
}

// Describes with the requested layout in *pixelFormat; the load stays open.
vload_tool::Description describe(const char* path, uint8_t requested, bool readColourMap, uint32_t* status) {
  vload_tool::Description d;
  d.loader = vload_tool::install(0, path);
  d.layout = requested;
  *status = vload_tool::describe(path, d, readColourMap);
  return d;
}

// ---- Layouts

// RGB comes as libjpeg decodes it. Grey comes through a map of 256 greys and
// libjpeg's quantizer, which may move a grey by one; a host asking for
// layout 1 gets 128 colours from the two-pass quantizer, each near the file's.
TEST(JpegPixels, MatchLibjpegInEveryBandSize) {
  struct Case { const char* name; int components; uint8_t requested, layout; int tolerance; };
  const Case cases[] = {
      {"RGB", 3, 0, VLOAD_LAYOUT_RGB, 0},
      {"grey", 1, 0, VLOAD_LAYOUT_INDEXED, 1},
      {"RGB, layout 1 asked for", 3, VLOAD_LAYOUT_INDEXED, VLOAD_LAYOUT_INDEXED, 24},
      {"grey, layout 1 asked for", 1, VLOAD_LAYOUT_INDEXED, VLOAD_LAYOUT_INDEXED, 24},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const Bytes file = JpegBuilder{}.size(37, 19).components(c.components).build();
    const TempFile f(file, ".jpg");
    const Bytes want = bareDecode(file, c.components == 3 ? JCS_RGB : JCS_GRAYSCALE);
    for (uint32_t band : {1u, 4u, 0u}) {
      uint32_t status = 0;
      vload_tool::Description d = describe(f.path(), c.requested, true, &status);
      ASSERT_EQ(status, VLOAD_OK);
      EXPECT_EQ(d.loader, uint32_t(kJpeg));
      ASSERT_EQ(d.layout, c.layout);
      Bytes image(vload_tool::imageBytes(d));
      ASSERT_EQ(vload_tool::deliverAll(d, image.data(), band), VLOAD_OK);
      vload_tool::endLoad();
      if (c.layout == VLOAD_LAYOUT_RGB) {
        EXPECT_EQ(image, want);
        continue;
      }
      ASSERT_EQ(image.size() * c.components, want.size());
      for (int i = 0; i < 256 && !c.requested; ++i) ASSERT_EQ(d.colourMap[3 * i + 2], i);
      for (size_t i = 0; i < image.size(); ++i) {
        ASSERT_LT(image[i], c.requested ? 128 : 256);
        ASSERT_NEAR(d.colourMap[3 * image[i]], want[i * c.components], c.tolerance) << i;
      }
    }
  }
}

// Quirk kept: K x C / 256, so full ink gives 254; pixels are counted from the
// stride, so a wider stride gets black pixels past the width.
TEST(JpegPixels, CmykIsConvertedByTheLoader) {
  const JpegBuilder b = JpegBuilder{}.size(16, 8).components(4).quality(100).samples(
      [](uint32_t, uint32_t, int c) { return uint8_t(c == 0 || c == 3 ? 255 : 0); });
  const TempFile f(b.build(), ".jpg");
  uint32_t status = 0;
  const vload_tool::Description d = describe(f.path(), 0, true, &status);
  ASSERT_EQ(status, VLOAD_OK);
  EXPECT_EQ(d.layout, VLOAD_LAYOUT_RGB);
  const int32_t stride = 16 * 3 + 7;  // room for two pixels more, and a byte
  Bytes image(size_t(stride) * 8, 0x77);
  ASSERT_EQ(getLoadBand()(image.data(), 8, stride, nullptr), VLOAD_OK);
  vload_tool::endLoad();
  Bytes row(stride, 0);
  for (int x = 0; x < 16; ++x) row[3 * x] = 254;
  row[stride - 1] = 0x77;  // stride / 3 pixels only
  for (int y = 0; y < 8; ++y) EXPECT_EQ(Bytes(image.begin() + y * stride, image.begin() + (y + 1) * stride), row);
}

// ---- Densities

TEST(JpegDensity, FromJfifInchesElseFromExif) {
  const Bytes exif72 = ExifBuilder().rational(0x011A, 72, 1).rational(0x011B, 72, 1).shortValue(0x0128, 2).app1();
  const Bytes exifCm = ExifBuilder(true).rational(0x011A, 2835, 100).rational(0x011B, 2835, 100).shortValue(0x0128, 3).app1();
  // The reader is handed the marker less its last two bytes (its offsets
  // count from the length field), so values there are out of reach.
  Bytes exif150 = ExifBuilder(true).rational(0x011A, 150, 1).app1();
  const Bytes exif150AtTheEnd = exif150;
  exif150.insert(exif150.end(), {0, 0});
  struct Case { const char* name; JpegBuilder b; uint32_t x, y; };
  const Case cases[] = {
      {"JFIF inches wins over EXIF", JpegBuilder{}.jfif(1, 300, 200).app1(exif72), 300000, 200000},
      {"JFIF centimetres, EXIF inches", JpegBuilder{}.jfif(2, 118, 118).app1(exif72), 72000, 72000},
      {"aspect only, EXIF centimetres", JpegBuilder{}.jfif(0, 1, 1).app1(exifCm), 72009, 72009},
      {"no JFIF, X only", JpegBuilder{}.app1(exif150), 150000, 150000},
      {"the last EXIF block counts", JpegBuilder{}.app1(exif72).app1(exif150), 150000, 150000},
      {"a value in the marker's last two bytes", JpegBuilder{}.app1(exif150AtTheEnd), 0, 0},
      {"not an EXIF block", JpegBuilder{}.app1(Bytes{'X', 'M', 'P', 0, 1, 2}), 0, 0},
      {"a broken EXIF block", JpegBuilder{}.app1(vtest::truncated(exif72, 9)), 0, 0},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const TempFile f(c.b.build(), ".jpg");
    uint32_t status = 0;
    testing::internal::CaptureStdout();
    const vload_tool::Description d = describe(f.path(), 0, false, &status);
    testing::internal::GetCapturedStdout();
    ASSERT_EQ(status, VLOAD_OK);
    vload_tool::endLoad();
    EXPECT_EQ(d.xDensity, c.x);
    EXPECT_EQ(d.yDensity, c.y);
    EXPECT_EQ(d.xRepeat, 1u);
    EXPECT_STREQ(d.info, " ");
  }
}

// ---- Protocol and failures

TEST(JpegProtocol, EndLoadFinishesOnlyWhatWasStarted) {
  const TempFile f(JpegBuilder{}.size(20, 20).build(), ".jpg");
  const int fds = vtest::openFdCount();
  uint32_t status = 0;
  describe(f.path(), 0, false, &status);  // header only
  ASSERT_EQ(status, VLOAD_OK);
  Bytes image(60 * 20);
  EXPECT_EQ(getLoadBand()(image.data(), 1, 60, nullptr), VLOAD_BAD_REQUEST);
  vload_tool::endLoad();
  EXPECT_EQ(vtest::openFdCount(), fds);

  describe(f.path(), 0, true, &status);  // started, then abandoned half way
  ASSERT_EQ(status, VLOAD_OK);
  EXPECT_EQ(getLoadBand()(image.data(), 10, 60, nullptr), VLOAD_OK);
  vload_tool::endLoad();
  vload_tool::endLoad();
  EXPECT_EQ(vtest::openFdCount(), fds);
  EXPECT_EQ(vtest::load(f.path(), kJpeg).status, VLOAD_OK);  // the thread is clean for the next
}

// A progressive frame whose sides say 30000 x 30000: libjpeg would want 5 GB.
Bytes hugeProgressive() {
  Bytes b = JpegBuilder{}.size(16, 16).progressive().build();
  for (size_t i = 0; i + 9 < b.size(); ++i) {
    if (b[i] == 0xFF && b[i + 1] == 0xC2) {
      b[i + 5] = b[i + 7] = 30000 >> 8;
      b[i + 6] = b[i + 8] = 30000 & 0xFF;
      break;
    }
  }
  return b;
}

TEST(JpegProtocol, FailuresLeaveNothingOpen) {
  const Bytes good = JpegBuilder{}.size(64, 48).build();
  struct Case { const char* name; Bytes bytes; uint32_t want; };
  const Case cases[] = {
      {"not a JPEG", Bytes{'G', 'I', 'F', '8', '9', 'a'}, VLOAD_NOT_THIS_FORMAT},
      {"only the start marker", Bytes{0xFF, 0xD8}, VLOAD_NOT_THIS_FORMAT},
      {"cut in the header", vtest::truncated(good, 100), VLOAD_NOT_THIS_FORMAT},
      {"a frame of no pixels", Bytes{0xFF, 0xD8, 0xFF, 0xC0, 0, 11, 8, 0, 0, 0, 0, 1, 1, 0x11, 0}, VLOAD_NOT_THIS_FORMAT},
      {"progressive, beyond the working memory", hugeProgressive(), VLOAD_NOT_THIS_FORMAT},
      {"cut in the scan: libjpeg pads it", vtest::truncated(good, good.size() - 200), VLOAD_OK},
  };
  // libjpeg's messages never reach stderr: its warnings go to the warning
  // channel, its errors only to the status.
  testing::internal::CaptureStdout();
  testing::internal::CaptureStderr();
  const int fds = vtest::openFdCount();
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const TempFile f(c.bytes, ".jpg");
    for (int round = 0; round < 3; ++round) EXPECT_EQ(vtest::load(f.path(), kJpeg, 5).status, c.want);
    EXPECT_EQ(vtest::openFdCount(), fds);
  }
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
  const std::string warnings = testing::internal::GetCapturedStdout();
  EXPECT_NE(warnings.find("\nNonfatal Error : JPEG: Premature end"), std::string::npos) << warnings;
  EXPECT_EQ(vtest::tryLoadStatus("/no/such/file.jpg", kJpeg), VLOAD_NOT_THIS_FORMAT);
}

TEST(JpegProtocol, TwoThreadsWithExifAtOnce) {
  const auto exif = [](bool big, uint32_t dpi) {
    return ExifBuilder(big).rational(0x011A, dpi, 1).rational(0x011B, dpi, 1).shortValue(0x0128, 2).app1();
  };
  const TempFile a(JpegBuilder{}.size(33, 40).app1(exif(false, 72)).build(), ".jpg");
  const TempFile b(JpegBuilder{}.size(20, 50).components(1).app1(exif(true, 96)).build(), ".jpg");
  vtest::Loaded la, lb;
  testing::internal::CaptureStdout();
  for (int round = 0; round < 10; ++round) {
    std::thread ta([&] { la = vtest::load(a.path(), 0, 1); });
    std::thread tb([&] { lb = vtest::load(b.path(), 0, 3); });
    ta.join();
    tb.join();
    ASSERT_EQ(la.status, VLOAD_OK);
    ASSERT_EQ(lb.status, VLOAD_OK);
    EXPECT_EQ(la.description.xDensity, 72000u);
    EXPECT_EQ(lb.description.xDensity, 96000u);
  }
  testing::internal::GetCapturedStdout();
}

// Statuses and descriptors of every sample are the corpus test's; here, most
// samples are valid pictures and must load.
TEST(JpegCorpus, ValidSamplesLoad) {
  const std::filesystem::path dir = std::filesystem::path(VLOAD_CORPUS_DIR) / "jpeg";
  if (!std::filesystem::is_directory(dir)) GTEST_SKIP() << "no corpus at " << dir;
  int loaded = 0;
  for (const auto& e : std::filesystem::directory_iterator(dir))
    loaded += vtest::load(e.path().c_str(), kJpeg, 16).status == VLOAD_OK;
  EXPECT_GT(loaded, 100);
}

}  // namespace
