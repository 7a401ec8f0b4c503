// Drape projects: the start image described and loaded as its own loader
// does, region data skipped by its sizes, refusals, the held picture's
// delivery, the start image's file (anonymous or named, never left behind,
// never mistaken for an earlier one), and two threads at once.
#include <gtest/gtest.h>
#include <tiffio.h>

#include <cstring>
#include <filesystem>
#include <string>
#include <thread>
#include <tuple>

#include "design/drape.h"
#include "framework/catalogue.h"
#include "tests/support/bmp_writer.h"
#include "tests/support/drape_writer.h"
#include "tests/support/gif_writer.h"
#include "tests/support/harness.h"
#include "tests/support/jpeg_writer.h"
#include "tests/support/png_writer.h"
#include "tests/support/temp_file.h"
#include "tests/support/tiff_writer.h"
#include "tests/support/webp_writer.h"
#include "vload.h"

namespace {

using vtest::Bytes;
using vtest::DrapeBuilder;
using vtest::TempFile;

constexpr int32_t kDrape = 40;

Bytes tiffImage(uint32_t seed = 0) {
  vtest::TiffPicture s;
  s.compression = COMPRESSION_LZW;
  s.orientation = ORIENTATION_TOPRIGHT;  // mirrorX from the TIFF loader, not from the project
  s.xResolution = s.yResolution = 150;
  s.sample = [seed](uint32_t x, uint32_t y, uint32_t c) { return x * 5 + y * 3 + c * 70 + seed; };
  return vtest::tiffFile(s);
}

Bytes paletteTiff() {
  vtest::TiffPicture s;
  s.photometric = PHOTOMETRIC_PALETTE;
  s.samples = 1;
  for (int c = 0; c < 3; ++c)
    for (int i = 0; i < 256; ++i) s.colourMap.push_back(uint16_t((i * (c + 1)) % 256 * 257));
  return vtest::tiffFile(s);
}

Bytes webpImage() {
  vtest::WebpPicture s;
  s.alpha = true;
  return vtest::webpFile(s);
}

// A project with regions, a texture and lines of no interest before the image.
Bytes project(const Bytes& image) {
  return DrapeBuilder{}.line("#VERSION=3\r").region(3, 2, 1).region(0, 5, 0).texture(9).line("#OTHER").startImage(image).build();
}

// tryLoad through the registry with readColorMap as given; the load stays open.
vload_tool::Description describe(const char* path, bool full, uint32_t* status) {
  vload_tool::Description d;
  d.loader = vload_tool::install(kDrape, path);
  *status = vload_tool::describe(path, d, full);
  return d;
}

void expectLikeItsOwnLoader(const Bytes& image, int32_t loader) {
  const TempFile direct(image, ".img"), drape(project(image), ".drape");
  const vtest::Loaded own = vtest::load(direct.path(), loader, 0);
  ASSERT_EQ(own.status, VLOAD_OK);
  const vload_tool::Description& o = own.description;

  uint32_t status = 0;
  const vload_tool::Description probe = describe(drape.path(), false, &status);
  ASSERT_EQ(status, VLOAD_OK);
  EXPECT_EQ(getTryLoad(), (returnLoaderFunctions(kDrape, drape.path()), getTryLoad()));  // re-installed
  EXPECT_EQ(std::tie(probe.layout, probe.width, probe.height, probe.xDensity, probe.yDensity),
            std::tie(o.layout, o.width, o.height, o.xDensity, o.yDensity));
  EXPECT_STREQ(probe.info, " ");
  EXPECT_EQ(std::tie(probe.mirrorX, probe.firstPart, probe.xRepeat), std::make_tuple(0, 1, 1u));
  vload_tool::endLoad();

  const vtest::Loaded full = vtest::load(drape.path(), 0, 7);
  ASSERT_EQ(full.status, VLOAD_OK);
  EXPECT_EQ(full.description.loader, uint32_t(kDrape));
  EXPECT_STREQ(full.description.info, "");
  EXPECT_EQ(full.rows, own.rows);
  EXPECT_EQ(std::memcmp(full.description.colourMap, o.colourMap, 768), 0);
}

// JPEG, PNG and GIF run once their loaders are available.
TEST(DrapeStartImage, DescribedAndLoadedAsItsOwnLoaderDoes) {
  struct Case { const char* name; int32_t loader; Bytes image; };
  const Case cases[] = {{"TIFF", 5, tiffImage()},
                        {"TIFF with a palette", 5, paletteTiff()},
                        {"WebP with alpha", 6, webpImage()},
                        {"JPEG", 4, vtest::JpegBuilder{}.size(45, 30).build()},
                        {"PNG", 2, vtest::PngBuilder{}.size(45, 30).build()},
                        {"GIF", 1, vtest::GifBuilder{}.size(45, 30).colourBits(8).build()}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    if (ldr::loaderInfo(c.loader)->available) expectLikeItsOwnLoader(c.image, c.loader);
  }
}

// ---- Refusals

TEST(DrapeProject, Refusals) {
  const Bytes image = tiffImage();
  Bytes damaged = tiffImage();
  for (size_t i = 8; i < 60; ++i) damaged[i] = 0xFF;  // the first strip
  // The status of a description; a full load differs only on the damaged image.
  struct Case { const char* name; Bytes bytes; const char* suffix; uint32_t probe, full = VLOAD_NOT_THIS_FORMAT; };
  const auto with = [&](std::string_view line) { return DrapeBuilder{}.line(line); };
  const Case cases[] = {
      {"other extension", project(image), ".drap", VLOAD_NOT_THIS_FORMAT},
      {"first line ends in CR LF", DrapeBuilder("#NEW_REGION\r\n").startImage(image).build(), ".drape",
       VLOAD_NOT_THIS_FORMAT},
      {"other first line", DrapeBuilder("#BINDING\n").startImage(image).build(), ".drp", VLOAD_NOT_THIS_FORMAT},
      {"region size one short", with("#CPOINTS=2").bytes(Bytes(7, '#')).startImage(image).build(), ".drape",
       VLOAD_BAD_DATA, VLOAD_BAD_DATA},
      {"line without #", with("CPOINTS=0").startImage(image).build(), ".drape", VLOAD_BAD_DATA, VLOAD_BAD_DATA},
      {"negative size", with("#HVECT=-3").startImage(image).build(), ".drape", VLOAD_BAD_DATA, VLOAD_BAD_DATA},
      {"start image cut short", vtest::truncated(project(image), project(image).size() - 1), ".drape",
       VLOAD_BAD_DATA, VLOAD_BAD_DATA},
      {"BMP start image", project(vtest::BmpBuilder{}.build()), ".drape", VLOAD_NOT_THIS_FORMAT},
      {"empty start image", project({}), ".drape", VLOAD_NOT_THIS_FORMAT},
      {"damaged start image", project(damaged), ".drape", VLOAD_OK},
  };
  const int fds = vtest::openFdCount();
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const TempFile f(c.bytes, c.suffix);
    testing::internal::CaptureStdout();
    EXPECT_EQ(vtest::tryLoadStatus(f.path(), kDrape, false), c.probe);
    EXPECT_EQ(vtest::tryLoadStatus(f.path(), kDrape, true), c.full);
    const std::string said = testing::internal::GetCapturedStdout();
    EXPECT_EQ(said.find("llib drape load error 7\n") != std::string::npos, c.probe == VLOAD_OK) << said;
    EXPECT_EQ(vtest::openFdCount(), fds);
    EXPECT_EQ(getTryLoad(), (registerLoadDrape(), getTryLoad()));  // re-installed on failure too
  }
}

TEST(DrapeProject, WithoutStartImageLeavesEveryOutputAlone) {
  // The second ends early: its region size points past the end of the file.
  for (const Bytes& bytes : {DrapeBuilder{}.region(2, 2, 2).build(), DrapeBuilder{}.line("#CPOINTS=1000").build()}) {
    const TempFile f(bytes, ".drape");
    for (const uint8_t full : {0, 1}) {
      vload_tool::Description d;
      std::memset(static_cast<void*>(&d), 0xAB, sizeof d);
      returnLoaderFunctions(kDrape, f.path());
      EXPECT_EQ(getTryLoad()(f.path(), &d.layout, &d.width, &d.height, &d.xDensity, &d.yDensity, &d.xRepeat,
                             &d.yRepeat, d.colourMap, d.info, &d.mirrorX, &d.firstPart, full),
                VLOAD_OK);
      EXPECT_EQ(d.width, 0xABABABABu);
      EXPECT_EQ(d.layout, 0xAB);
      EXPECT_EQ(uint8_t(d.info[0]), 0xAB);
      EXPECT_EQ(getLoadBand()(d.colourMap, 1, 3, nullptr), VLOAD_BAD_REQUEST);  // nothing to deliver
      vload_tool::endLoad();
    }
  }
}

// ---- Delivery

TEST(DrapeDelivery, EveryCallCopiesFromTheTop) {
  const TempFile direct(tiffImage(), ".tif"), f(project(tiffImage()), ".drape");
  const Bytes want = vtest::load(direct.path(), 5).rows;
  uint32_t status = 0;
  describe(f.path(), false, &status);
  Bytes rows(37 * 3 * 21);
  EXPECT_EQ(getLoadBand()(rows.data(), 1, 111, nullptr), VLOAD_BAD_REQUEST);  // only described
  const vload_tool::Description d = describe(f.path(), true, &status);
  ASSERT_EQ(status, VLOAD_OK);
  const LoadBandFn loadBand = getLoadBand();
  EXPECT_EQ(loadBand(rows.data(), 2, 111, nullptr), VLOAD_OK);
  EXPECT_EQ(loadBand(rows.data() + 222, 2, 111, nullptr), VLOAD_OK);
  EXPECT_TRUE(std::equal(rows.begin() + 222, rows.begin() + 444, want.begin()));  // rows 0 and 1 again
  EXPECT_EQ(loadBand(rows.data(), 22, 111, nullptr), VLOAD_BAD_REQUEST);
  EXPECT_EQ(loadBand(rows.data(), 1, 110, nullptr), VLOAD_BAD_REQUEST);
  Bytes wide(200 * 21, 0x55);
  EXPECT_EQ(loadBand(wide.data(), 21, 200, nullptr), VLOAD_OK);
  for (int y = 0; y < 21; ++y) {
    EXPECT_TRUE(std::equal(wide.begin() + 200 * y, wide.begin() + 200 * y + 111, want.begin() + 111 * y));
    EXPECT_EQ(wide[200 * y + 111], 0x55);
  }
  vload_tool::endLoad();
  EXPECT_EQ(loadBand(rows.data(), 1, 111, nullptr), VLOAD_BAD_REQUEST);
  EXPECT_EQ(d.width, 37u);
}

// ---- The start image's file

// Two projects whose start images (a TIFF and a WebP) have the same size,
// one after the other: a reused descriptor number or file name must not bring
// back the first one's header.
void expectEachItsOwnPicture() {
  Bytes a = tiffImage(), b = webpImage();
  a.resize(std::max(a.size(), b.size()));  // both readers ignore what follows their data
  b.resize(a.size());
  const TempFile da(a, ".tif"), db(b, ".webp"), pa(project(a), ".drape"), pb(project(b), ".drape");
  const Bytes wantA = vtest::load(da.path(), 5).rows, wantB = vtest::load(db.path(), 6).rows;
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(vtest::load(pa.path(), kDrape).rows, wantA);
    EXPECT_EQ(vtest::load(pb.path(), kDrape).rows, wantB);
  }
}

TEST(DrapeFiles, ConsecutiveProjectsGetTheirOwnImages) { expectEachItsOwnPicture(); }

TEST(DrapeFiles, NamedFilesAreRemovedWhateverHappens) {
  namespace fs = std::filesystem;
  const std::string dir = vtest::tempDir() + "/drape-tmp";
  fs::create_directory(dir);
  llibSetTmpDir(dir.c_str());
  ldr::drapeUseNamedFiles(true);
  expectEachItsOwnPicture();
  const TempFile bad(project(vtest::BmpBuilder{}.build()), ".drape");
  EXPECT_EQ(vtest::tryLoadStatus(bad.path(), kDrape), VLOAD_NOT_THIS_FORMAT);
  EXPECT_TRUE(fs::is_empty(dir));

  llibSetTmpDir((dir + "/missing").c_str());
  testing::internal::CaptureStderr();
  EXPECT_EQ(vtest::tryLoadStatus(bad.path(), kDrape), VLOAD_CANNOT_OPEN);
  EXPECT_EQ(testing::internal::GetCapturedStderr().rfind("iolib drape loader: failed to get temp path", 0), 0u);
  ldr::drapeUseNamedFiles(false);
  llibSetTmpDir(nullptr);
}

// Detected by extensions in any case.
TEST(DrapeFiles, TwoThreadsLoadTwoProjectsAtOnce) {
  const TempFile dt(tiffImage(), ".tif"), dw(webpImage(), ".webp");
  const TempFile pt(project(tiffImage()), ".DRAPE"), pw(project(webpImage()), ".dRp");
  const Bytes wantT = vtest::load(dt.path(), 5).rows, wantW = vtest::load(dw.path(), 6).rows;
  std::thread other([&] {
    for (int i = 0; i < 25; ++i) ASSERT_EQ(vtest::load(pw.path(), 0).rows, wantW);
  });
  for (int i = 0; i < 25; ++i) ASSERT_EQ(vtest::load(pt.path(), 0).rows, wantT);
  other.join();
}

}  // namespace
