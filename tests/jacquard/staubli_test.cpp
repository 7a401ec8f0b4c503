// Staubli JC4 and JC3 cards and the hook mapping: the exported mapping
// against the wiring rule written out independently, round trips through the
// writers for every module size and band size, the data-driven module choice,
// volume sets, header refusals, and strides wider than a record.
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "tests/support/harness.h"
#include "tests/support/staubli_writer.h"
#include "tests/support/temp_file.h"
#include "vload.h"

namespace {

using vtest::BitPicture;
using vtest::Bytes;
using vtest::TempFile;

constexpr int32_t kJc4 = 13, kJc3 = 14;

// Pins the default module choice for one test.
struct DefaultMapping {
  explicit DefaultMapping(int32_t v) { setDefaultMappingJC4(v); }
  ~DefaultMapping() { setDefaultMappingJC4(0); }
};

void expectPicture(const vtest::Loaded& got, const BitPicture& want) {
  ASSERT_EQ(got.status, VLOAD_OK);
  ASSERT_EQ(got.description.width, want.width);
  ASSERT_EQ(got.description.height, want.height);
  EXPECT_TRUE(got.rows == want.rows) << "pixels differ";
}

// ---- Mapping

TEST(StaubliMapping, MatchesTheWiringRule) {
  for (int32_t size : {1344, 1536, 3072}) {
    for (int32_t modules : {1, 2, 3}) {
      for (int32_t blockwise : {0, 1}) {
        SCOPED_TRACE(std::to_string(size) + " x " + std::to_string(modules) + (blockwise ? " blockwise" : ""));
        std::vector<uint32_t> map(size_t(size) * modules, 0xDEAD);
        makeStaubliMapping(map.data(), size);
        invertStaubliMapping(map.data(), size, modules, 1, blockwise);
        EXPECT_EQ(map, vtest::staubliPositions(uint32_t(size * modules), uint32_t(size), blockwise != 0));
      }
    }
  }
}

TEST(StaubliMapping, ExtensionIsTheInverseOfTheMapping) {
  std::vector<uint32_t> forward(1536 * 2), inverse(1536 * 2);
  makeStaubliMapping(forward.data(), 1536);
  invertStaubliMapping(forward.data(), 1536, 2, 0, 0);
  makeStaubliMapping(inverse.data(), 1536);
  invertStaubliMapping(inverse.data(), 1536, 2, 1, 0);
  for (uint32_t x = 0; x < inverse.size(); ++x) ASSERT_EQ(forward[inverse[x]], x);
}

TEST(StaubliMapping, OtherSizesBuildTheWideModuleAndNonsenseIsIgnored) {
  std::vector<uint32_t> wide(3072), other(3072);
  makeStaubliMapping(wide.data(), 3072);
  makeStaubliMapping(other.data(), 1000);
  EXPECT_EQ(wide, other);
  std::vector<uint32_t> map(24, 7);
  makeStaubliMapping(nullptr, 1344);
  invertStaubliMapping(nullptr, 1344, 1, 1, 0);
  invertStaubliMapping(map.data(), 0, 1, 1, 0);
  invertStaubliMapping(map.data(), 12, -1, 1, 0);
  EXPECT_EQ(map, std::vector<uint32_t>(24, 7));
  // A size that is no multiple of 12 and entries out of range stay in bounds.
  std::vector<uint32_t> odd = {5, 400, 1, 2, 3, 0, 6};
  invertStaubliMapping(odd.data(), 7, 1, 1, 0);
}

// ---- JC4

TEST(Jc4, RoundTripsEveryModuleSizeAndBand) {
  struct Case { uint32_t hooks, moduleSize; int32_t pin; };
  const Case cases[] = {
      {2688, 1344, 0},   // two interleaved 1344 modules: the only size that divides
      {4608, 1536, 0},   // 1536 only: no look at the data
      {12288, 1536, 2},  // ambiguous, pinned by the host
      {12288, 3072, 3},
      {9216, 3072, 7},   // any value from 3 on means 3072
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::to_string(c.hooks) + "/" + std::to_string(c.moduleSize));
    const DefaultMapping pin(c.pin);
    const BitPicture p = vtest::randomPicture(c.hooks, 9, c.hooks);
    vtest::Jc4Options o;
    o.moduleSize = c.moduleSize;
    const TempFile f(vtest::jc4Card(p, o), ".jc4");
    for (uint32_t band : {0u, 1u, 4u}) {
      const vtest::Loaded got = vtest::load(f.path(), kJc4, band);
      expectPicture(got, p);
      EXPECT_STREQ(got.description.info, "\ndesign: TESTDESIGN      ");
      EXPECT_EQ(got.description.mirrorX, 1);
      EXPECT_EQ(got.description.firstPart, 1);
    }
  }
}

TEST(Jc4, DataDecideAmbiguousModuleSizes) {
  // A ramp is smooth only in design order, so the right size wins.
  for (uint32_t hooks : {9216u, 12288u}) {
    for (uint32_t size : {1536u, 3072u}) {
      SCOPED_TRACE(std::to_string(hooks) + "/" + std::to_string(size));
      const BitPicture p = vtest::rampPicture(hooks, 100);
      vtest::Jc4Options o;
      o.moduleSize = size;
      const TempFile f(vtest::jc4Card(p, o), ".jc4");
      expectPicture(vtest::load(f.path(), kJc4, 0), p);
    }
  }
  // Every column set equally often: all sizes score alike and 1344 wins the tie.
  BitPicture even = vtest::randomPicture(10752, 50, 3);
  even.rows.assign(even.rows.size(), 0);
  for (uint32_t x = 0; x < even.width; ++x) even.set(x, (x * 7) % 50);
  const TempFile f(vtest::jc4Card(even, {}), ".jc4");
  expectPicture(vtest::load(f.path(), kJc4, 0), even);
}

TEST(Jc4, VolumeSetsContinueRecordsAcrossFiles) {
  // A first volume large enough to escape the size check, then volumes of
  // 300 bytes (records are 168): records straddle, and 09 is followed by 10.
  const BitPicture p = vtest::randomPicture(1344, 8660, 5);
  std::vector<size_t> sizes(11, 300);
  sizes[0] = 1450000 - 64;
  const std::vector<Bytes> vols = vtest::jc4Volumes(p, sizes);
  ASSERT_EQ(vols.size(), 12u);
  std::vector<std::unique_ptr<TempFile>> files;
  char name[32];
  for (size_t v = 0; v < vols.size(); ++v) {
    std::snprintf(name, sizeof name, "set.jc4.%02zu", v + 1);
    files.push_back(std::make_unique<TempFile>(vols[v], name, true));
  }
  const std::string third = vtest::tempDir() + "/set.jc4.03";
  const vtest::Loaded got = vtest::load(third.c_str(), kJc4, 1000);
  expectPicture(got, p);
  EXPECT_EQ(got.description.firstPart, 0);
  EXPECT_EQ(vtest::load(files[1]->path(), 0, 0).description.loader, uint32_t(kJc4));  // by name

  files.pop_back();  // the last volume is missing
  const vtest::Loaded cut = vtest::load(third.c_str(), kJc4, 1000);
  EXPECT_TRUE(cut.delivering);
  EXPECT_EQ(cut.status, VLOAD_CANNOT_OPEN);
}

TEST(Jc4, HeaderRefusals) {
  const BitPicture p = vtest::randomPicture(1344, 4, 9);
  const Bytes good = vtest::jc4Card(p);
  vtest::Jc4Options claimsMore;
  claimsMore.dataBytes = 168 * 5;
  struct Case { const char* name; Bytes file; uint32_t want; };
  const Case cases[] = {
      {"valid", good, VLOAD_OK},
      {"name byte 0x80", vtest::patched8(good, 9, 0x80), VLOAD_NOT_THIS_FORMAT},
      {"byte 34 over 80", vtest::patched8(good, 34, 81), VLOAD_NOT_THIS_FORMAT},
      {"byte 35 over 2", vtest::patched8(good, 35, 3), VLOAD_NOT_THIS_FORMAT},
      {"byte 36 over 18", vtest::patched8(good, 36, 19), VLOAD_NOT_THIS_FORMAT},
      {"1000 hooks", vtest::patched8(vtest::patched8(good, 0, 0x03), 1, 0xE8), VLOAD_NOT_THIS_FORMAT},
      {"no hooks", vtest::patched8(vtest::patched8(good, 0, 0), 1, 0), VLOAD_NOT_THIS_FORMAT},
      {"no data", vtest::jc4Header(1344, 0, "EMPTY"), VLOAD_NOT_THIS_FORMAT},
      {"more records than a small file holds", vtest::jc4Card(p, claimsMore), VLOAD_NOT_THIS_FORMAT},
      {"more picks than any card", vtest::jc4Header(1344, 168u * 262141, "LONG"), VLOAD_BAD_DATA},
      {"header cut short", vtest::truncated(good, 63), VLOAD_CANNOT_OPEN},
  };
  const int fds = vtest::openFdCount();
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const TempFile f(c.file, ".jc4");
    EXPECT_EQ(vtest::tryLoadStatus(f.path(), kJc4), c.want);
    EXPECT_EQ(vtest::openFdCount(), fds);
  }
  // A large file is not checked: the missing records end in a missing volume.
  Bytes large = vtest::jc4Header(1344, 168u * 9000, "LARGE");
  large.resize(1450000, 0xFF);
  const TempFile f(large, ".jc4");
  const vtest::Loaded got = vtest::load(f.path(), kJc4, 0);
  EXPECT_TRUE(got.delivering);
  EXPECT_EQ(got.status, VLOAD_CANNOT_OPEN);
}

TEST(Jc4, WideStrideReadsOnlyTheRecord) {
  const BitPicture p = vtest::randomPicture(1344, 6, 11);
  const TempFile f(vtest::jc4Card(p), ".jc4");
  returnLoaderFunctions(kJc4, f.path());
  vload_tool::Description d;
  ASSERT_EQ(vload_tool::describe(f.path(), d, true), VLOAD_OK);
  const int32_t stride = d.stride + 13;
  Bytes image(size_t(stride) * p.height, 0xAA);
  for (uint32_t y = 0; y < p.height; y += 3)
    ASSERT_EQ(getLoadBand()(image.data() + size_t(y) * stride, 3, stride, nullptr), VLOAD_OK);
  EXPECT_EQ(getLoadBand()(image.data(), 1, stride, nullptr), VLOAD_BAD_REQUEST);  // no rows left
  vload_tool::endLoad();
  for (uint32_t y = 0; y < p.height; ++y) {
    const uint8_t* row = image.data() + size_t(y) * stride;
    EXPECT_TRUE(std::equal(row, row + d.stride, p.rows.begin() + long(y) * d.stride));
    EXPECT_EQ(std::count(row + d.stride, row + stride, 0), 13);
  }
}

// ---- JC3

TEST(Jc3, RoundTripsModuleAfterModule) {
  const BitPicture p = vtest::randomPicture(2688, 7, 21);
  const TempFile f(vtest::jc3Card(p, "JC3 DESIGN"), ".jc3");
  for (uint32_t band : {0u, 2u}) {
    const vtest::Loaded got = vtest::load(f.path(), 0, band);
    EXPECT_EQ(got.description.loader, uint32_t(kJc3));
    expectPicture(got, p);
    EXPECT_STREQ(got.description.info, "\ndesign: JC3 DESIGN      \n head type: 1344");
  }
}

TEST(Jc3, VolumeSetsAndRefusals) {
  const BitPicture p = vtest::randomPicture(1344, 10, 4);
  const std::vector<Bytes> vols = vtest::jc3Volumes(p, 4);
  std::vector<std::unique_ptr<TempFile>> files;
  for (size_t v = 0; v < vols.size(); ++v)
    files.push_back(std::make_unique<TempFile>(vols[v], "c.jc3.0" + std::to_string(v + 1), true));
  const vtest::Loaded got = vtest::load(files[1]->path(), 0, 3);
  expectPicture(got, p);
  EXPECT_EQ(got.description.firstPart, 0);

  const Bytes good = vtest::jc3Card(p, "X");
  struct Case { const char* name; Bytes file; uint32_t want; };
  const BitPicture narrow = vtest::randomPicture(1536, 3, 1);
  const Case cases[] = {
      {"1536 hooks", vtest::jc3Card(narrow, "X"), VLOAD_NOT_THIS_FORMAT},
      {"first letter", vtest::patched8(good, 0, 'C'), VLOAD_NOT_THIS_FORMAT},
      {"one pick", vtest::patched8(vtest::patched8(good, 21, '1'), 22, ' '), VLOAD_NOT_THIS_FORMAT},
      {"header cut short", vtest::truncated(good, 500), VLOAD_CANNOT_OPEN},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const TempFile f(c.file, ".jc3");
    EXPECT_EQ(vtest::tryLoadStatus(f.path(), kJc3), c.want);
  }
}

// Records are read ahead of the band, but never from the next volume: a
// missing volume fails the first band that needs it, not one before.
TEST(Jc4, ReadingAheadStaysInItsVolume) {
  const BitPicture p = vtest::randomPicture(1344, 9000, 8);
  const std::vector<Bytes> vols = vtest::jc4Volumes(p, {1450000 - 64});  // 8630 records and a part
  const TempFile first(vols[0], "ahead.jc4.01", true);
  returnLoaderFunctions(kJc4, first.path());
  vload_tool::Description d;
  ASSERT_EQ(vload_tool::describe(first.path(), d, true), VLOAD_OK);
  Bytes image(size_t(d.stride) * p.height, 0);
  for (uint32_t y = 0; y < 8000; y += 1000)
    ASSERT_EQ(getLoadBand()(image.data() + size_t(y) * d.stride, 1000, d.stride, nullptr), VLOAD_OK) << y;
  EXPECT_EQ(getLoadBand()(image.data() + size_t(8000) * d.stride, 1000, d.stride, nullptr), VLOAD_CANNOT_OPEN);
  vload_tool::endLoad();
  EXPECT_TRUE(std::equal(image.begin(), image.begin() + long(8000) * d.stride, p.rows.begin()));
}

}  // namespace
