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
  d.loader = vload_tool::install(kJpeg, path);
  d.layout = requested;
  *status = vload_tool::describe(path, d, readColourMap);
  return d;
}

// ---- Layouts

TEST(JpegPixels, RgbAndGreyMatchLibjpegInEveryBandSize) {
  struct Case { const char* name; JpegBuilder b; uint8_t layout; J_COLOR_SPACE space; };
  const Case cases[] = {
      {"RGB", JpegBuilder{}.size(37, 19), VLOAD_LAYOUT_RGB, JCS_RGB},
      {"grey", JpegBuilder{}.size(37, 19).components(1), VLOAD_LAYOUT_INDEXED, JCS_GRAYSCALE},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const Bytes file = c.b.build();
    const TempFile f(file, ".jpg");
    const Bytes want = bareDecode(file, c.space);
    for (uint32_t band : {1u, 4u, 0u}) {
      const vtest::Loaded l = vtest::load(f.path(), 0, band);
      ASSERT_EQ(l.status, VLOAD_OK);
      EXPECT_EQ(l.description.loader, uint32_t(kJpeg));
      EXPECT_EQ(l.description.layout, c.layout);
      if (c.layout == VLOAD_LAYOUT_RGB) {
        EXPECT_EQ(l.rows, want);
      } else {  // 256 greys through libjpeg's quantizer, which may move a grey by one
        ASSERT_EQ(l.rows.size(), want.size());
        for (int i = 0; i < 256; ++i) ASSERT_EQ(l.description.colourMap[3 * i + 2], i);
        for (size_t i = 0; i < want.size(); ++i) ASSERT_NEAR(l.description.colourMap[3 * l.rows[i]], want[i], 1) << i;
      }
    }
  }
}

TEST(JpegPixels, AskingForLayoutOneGivesA128ColourMap) {
  for (int components : {3, 1}) {
    SCOPED_TRACE(components);
    const Bytes file = JpegBuilder{}.size(40, 30).components(components).build();
    const TempFile f(file, ".jpg");
    uint32_t status = 0;
    vload_tool::Description d = describe(f.path(), VLOAD_LAYOUT_INDEXED, true, &status);
    ASSERT_EQ(status, VLOAD_OK);
    EXPECT_EQ(d.layout, VLOAD_LAYOUT_INDEXED);
    Bytes image(40 * 30);
    ASSERT_EQ(vload_tool::deliverAll(d, image.data(), 7), VLOAD_OK);
    vload_tool::endLoad();
    // Every index is one of the 128 and its colour is near the file's.
    const Bytes want = bareDecode(file, components == 3 ? JCS_RGB : JCS_GRAYSCALE);
    for (size_t i = 0; i < image.size(); ++i) {
      ASSERT_LT(image[i], 128);
      const uint8_t* rgb = d.colourMap + 3 * image[i];
      EXPECT_NEAR(rgb[0], want[i * components], 24) << i;
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
  const int32_t stride = 16 * 3 + 7;  // room for two pixels more
  Bytes image(size_t(stride) * 8, 0x77);
  ASSERT_EQ(getLoadBand()(image.data(), 8, stride, nullptr), VLOAD_OK);
  vload_tool::endLoad();
  for (int y = 0; y < 8; ++y) {
    const uint8_t* row = image.data() + y * stride;
    EXPECT_EQ(row[0], 254);
    EXPECT_EQ(row[1], 0);
    EXPECT_EQ(row[3 * 15], 254);
    EXPECT_EQ(row[3 * 16], 0);     // past the width
    EXPECT_EQ(row[3 * 17 + 2], 0);
    EXPECT_EQ(row[stride - 1], 0x77);  // stride / 3 pixels only
  }
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
      {"JFIF centimetres, no EXIF", JpegBuilder{}.jfif(2, 118, 118), 0, 0},
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
  const int fds = vtest::openFdCount();
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const TempFile f(c.bytes, ".jpg");
    for (int round = 0; round < 3; ++round) EXPECT_EQ(vtest::load(f.path(), kJpeg, 5).status, c.want);
    EXPECT_EQ(vtest::openFdCount(), fds);
  }
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

TEST(JpegCorpus, EverySampleGivesAStatusAndValidOnesLoad) {
  const std::filesystem::path dir = std::filesystem::path(VLOAD_CORPUS_DIR) / "jpeg";
  if (!std::filesystem::is_directory(dir)) GTEST_SKIP() << "no corpus at " << dir;
  std::vector<std::filesystem::path> files(std::filesystem::directory_iterator(dir), {});
  const int fds = vtest::openFdCount();
  int loaded = 0;
  for (const auto& file : files) {
    const std::string path = file.string();
    SCOPED_TRACE(path);
    const vtest::Loaded l = vtest::load(path.c_str(), kJpeg, 16);
    loaded += l.status == VLOAD_OK;
    EXPECT_TRUE(l.status == VLOAD_OK || l.status == VLOAD_NOT_THIS_FORMAT || l.status == VLOAD_BAD_REQUEST) << l.status;
    EXPECT_EQ(vtest::openFdCount(), fds);
  }
  EXPECT_GT(loaded, 100);
}

}  // namespace
