// Staubli cards: the exported hook mapping against the wiring rule written out
// independently; round trips through the writers for every card kind, module
// size and band size; the data-driven module choice; volume sets; header and
// name rules; ZC5 unpacking without a shell or a file left behind.
#include <gtest/gtest.h>
#include <zlib.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
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
using vtest::Jc5Section;
using vtest::TempFile;

constexpr int32_t kJc4 = 13, kJc3 = 14, kJc5 = 15, kNetwork = 16, kEmail = 17, kDobby = 21, kZc5 = 43,
                  kLoom = 61;

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

struct Refusal {
  const char* name;
  Bytes file;
  const char* suffix;
  uint32_t want;
};

void expectRefusals(std::initializer_list<Refusal> cases, int32_t loader) {
  const int fds = vtest::openFdCount();
  for (const Refusal& c : cases) {
    SCOPED_TRACE(c.name);
    const TempFile f(c.file, c.suffix);
    EXPECT_EQ(vtest::tryLoadStatus(f.path(), loader), c.want);
    EXPECT_EQ(vtest::openFdCount(), fds);
  }
}

// Volume files named `stem` followed by the volume number from 1.
std::vector<std::unique_ptr<TempFile>> volumeFiles(const std::vector<Bytes>& vols, const char* stem) {
  std::vector<std::unique_ptr<TempFile>> files;
  char name[32];
  for (size_t v = 0; v < vols.size(); ++v) {
    std::snprintf(name, sizeof name, "%s%02zu", stem, v + 1);
    files.push_back(std::make_unique<TempFile>(vols[v], name, true));
  }
  return files;
}

// ---- Mapping

TEST(StaubliMapping, MatchesTheWiringRuleAndItsInverse) {
  for (int32_t size : {1344, 1536, 3072}) {
    for (int32_t modules : {1, 2, 3}) {
      for (int32_t blockwise : {0, 1}) {
        SCOPED_TRACE(std::to_string(size) + " x " + std::to_string(modules) + (blockwise ? " blockwise" : ""));
        std::vector<uint32_t> map(size_t(size) * modules, 0xDEAD), forward(map.size());
        makeStaubliMapping(map.data(), size);
        invertStaubliMapping(map.data(), size, modules, 1, blockwise);
        EXPECT_EQ(map, vtest::staubliPositions(uint32_t(size * modules), uint32_t(size), blockwise != 0));
        makeStaubliMapping(forward.data(), size);
        invertStaubliMapping(forward.data(), size, modules, 0, blockwise);
        for (uint32_t x = 0; x < map.size(); ++x) ASSERT_EQ(forward[map[x]], x);
      }
    }
  }
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
    for (uint32_t band : {0u, 4u}) {
      const vtest::Loaded got = vtest::load(f.path(), 0, band);
      EXPECT_EQ(got.description.loader, uint32_t(kJc4));
      expectPicture(got, p);
      EXPECT_STREQ(got.description.info, "\ndesign: TESTDESIGN      ");
      EXPECT_EQ(got.description.mirrorX, 1);
      EXPECT_EQ(got.description.firstPart, 1);
    }
  }
}

TEST(Jc4, DataDecideAmbiguousModuleSizes) {
  // A ramp is smooth only in design order, so the right size wins.
  for (uint32_t size : {1536u, 3072u}) {
    const BitPicture p = vtest::rampPicture(9216, 100);
    vtest::Jc4Options o;
    o.moduleSize = size;
    const TempFile f(vtest::jc4Card(p, o), ".jc4");
    expectPicture(vtest::load(f.path(), kJc4, 0), p);
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
  const BitPicture p = vtest::randomPicture(1344, 8650, 5);
  auto files = volumeFiles(vtest::volumes(vtest::jc4Card(p), 64, 1450000 - 64, 300), "set.jc4.");
  ASSERT_GE(files.size(), 11u);
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

// Records are read ahead of the band, but never from the next volume: a
// missing volume fails the first band that needs it, not one before.
TEST(Jc4, ReadingAheadStaysInItsVolume) {
  const BitPicture p = vtest::randomPicture(1344, 9000, 8);
  // 8630 records and a part in the first volume; the second is never written.
  const TempFile first(vtest::truncated(vtest::jc4Card(p), 1450000), "ahead.jc4.01", true);
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

TEST(Jc4, HeaderRefusals) {
  const BitPicture p = vtest::randomPicture(1344, 4, 9);
  const Bytes good = vtest::jc4Card(p);
  vtest::Jc4Options claimsMore;
  claimsMore.dataBytes = 168 * 5;
  expectRefusals(
      {
          {"valid", good, ".jc4", VLOAD_OK},
          {"name byte 0x80", vtest::patched8(good, 9, 0x80), ".jc4", VLOAD_NOT_THIS_FORMAT},
          {"byte 34 over 80", vtest::patched8(good, 34, 81), ".jc4", VLOAD_NOT_THIS_FORMAT},
          {"byte 35 over 2", vtest::patched8(good, 35, 3), ".jc4", VLOAD_NOT_THIS_FORMAT},
          {"byte 36 over 18", vtest::patched8(good, 36, 19), ".jc4", VLOAD_NOT_THIS_FORMAT},
          {"1000 hooks", vtest::patched8(vtest::patched8(good, 0, 0x03), 1, 0xE8), ".jc4", VLOAD_NOT_THIS_FORMAT},
          {"no hooks", vtest::patched8(vtest::patched8(good, 0, 0), 1, 0), ".jc4", VLOAD_NOT_THIS_FORMAT},
          {"no data", vtest::jc4Header(1344, 0, "EMPTY"), ".jc4", VLOAD_NOT_THIS_FORMAT},
          {"more records than a small file holds", vtest::jc4Card(p, claimsMore), ".jc4", VLOAD_NOT_THIS_FORMAT},
          {"more picks than any card", vtest::jc4Header(1344, 168u * 262141, "LONG"), ".jc4", VLOAD_BAD_DATA},
          {"header cut short", vtest::truncated(good, 63), ".jc4", VLOAD_CANNOT_OPEN},
      },
      kJc4);
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
  const auto files = volumeFiles(vtest::volumes(vtest::jc3Card(p, "VOLUMES", 4), 512, 4 * 168, 4 * 168), "c.jc3.");
  const vtest::Loaded got = vtest::load(files[1]->path(), 0, 3);
  expectPicture(got, p);
  EXPECT_EQ(got.description.firstPart, 0);

  const Bytes good = vtest::jc3Card(p, "X");
  expectRefusals(
      {
          {"1536 hooks", vtest::jc3Card(vtest::randomPicture(1536, 3, 1), "X"), ".jc3", VLOAD_NOT_THIS_FORMAT},
          {"first letter", vtest::patched8(good, 0, 'C'), ".jc3", VLOAD_NOT_THIS_FORMAT},
          {"one pick", vtest::patched8(vtest::patched8(good, 21, '1'), 22, ' '), ".jc3", VLOAD_NOT_THIS_FORMAT},
          {"header cut short", vtest::truncated(good, 500), ".jc3", VLOAD_CANNOT_OPEN},
      },
      kJc3);
}

// ---- JC4 network, e-mail and loom cards, 1858III dobby files

TEST(Jc4Network, HooksFromTheName) {
  const BitPicture p = vtest::randomPicture(2688, 100, 1);
  const TempFile f(vtest::jc4NetworkCard(p, 1344), ".2688");
  const vtest::Loaded detected = vtest::load(f.path(), 0, 16);
  EXPECT_EQ(detected.description.loader, uint32_t(kNetwork));
  expectPicture(detected, p);
  const TempFile plus(vtest::jc4NetworkCard(p, 1344), "+2688");
  expectPicture(vtest::load(plus.path(), kNetwork, 0), p);

  // Quirk: 1348 hooks are sized in records of 168 bytes but read in 169.
  const TempFile odd(Bytes(168 * 10, 0xFF), ".1348");
  const vtest::Loaded got = vtest::load(odd.path(), kNetwork, 0);
  ASSERT_EQ(got.status, VLOAD_OK);
  EXPECT_EQ(got.description.width, 1348u);
  EXPECT_EQ(got.description.height, 10u);
  expectRefusals({{"letter", Bytes(336 * 4, 0), ".26a8", VLOAD_NOT_THIS_FORMAT},
                  {"5 hooks", Bytes(10, 0), ".5", VLOAD_NOT_THIS_FORMAT},
                  {"a byte over", Bytes(336 * 4 + 1, 0), ".2688", VLOAD_NOT_THIS_FORMAT},
                  {"one record", Bytes(336, 0), ".2688", VLOAD_NOT_THIS_FORMAT},
                  {"39 hooks", Bytes(20, 0), ".39", VLOAD_NOT_THIS_FORMAT},
                  {"no dot", Bytes(336 * 4, 0), "2688", VLOAD_NOT_THIS_FORMAT}},
                 kNetwork);
}

TEST(Jc4Email, RoundTripAndPreamble) {
  const BitPicture p = vtest::randomPicture(1536, 5, 3);
  const Bytes card = vtest::jc4EmailCard(p, {"MAILED", 1536, -1});
  for (const char* suffix : {".DAT", ".jc4"}) {
    const TempFile f(card, suffix);
    const vtest::Loaded got = vtest::load(f.path(), 0, 2);
    EXPECT_EQ(got.description.loader, uint32_t(kEmail)) << suffix;
    expectPicture(got, p);
    EXPECT_STREQ(got.description.info, "\ndesign: MAILED          ");
  }
  expectRefusals(
      {
          {"byte 33 is 2", vtest::patched8(card, 33, 2), ".jc4", VLOAD_NOT_THIS_FORMAT},
          {"byte 34 is 26", vtest::patched8(card, 34, 26), ".jc4", VLOAD_NOT_THIS_FORMAT},
          {"first letter", vtest::patched8(card, 0, 'B'), ".jc4", VLOAD_NOT_THIS_FORMAT},
          {"embedded header limit", vtest::patched8(card, 512 + 36, 19), ".jc4", VLOAD_NOT_THIS_FORMAT},
          {"other extension", card, ".jc5", VLOAD_NOT_THIS_FORMAT},
          {"preamble cut short", vtest::truncated(card, 300), ".dat", VLOAD_CANNOT_OPEN},
      },
      kEmail);
}

TEST(Jc4Email, LaterFilesByLetterOrByNumber) {
  const BitPicture p = vtest::randomPicture(1536, 6, 4);
  const Bytes card = vtest::jc4EmailCard(p, {"M", 1536, -1});
  const size_t firstPart = 9216 + 192 * 2 + 100;  // a record straddles the two files
  Bytes head = vtest::truncated(card, firstPart);
  Bytes tail = card;
  tail.erase(tail.begin() + 9216, tail.begin() + long(firstPart));

  const TempFile a(head, "mail1.dat", true), letter(tail, "mail1a.dat", true);
  expectPicture(vtest::load(a.path(), kEmail, 4), p);
  const TempFile b(head, "post1.dat", true), number(tail, "post2.dat", true);
  expectPicture(vtest::load(b.path(), kEmail, 0), p);
  const TempFile c(head, "lost1.dat", true);
  EXPECT_EQ(vtest::load(c.path(), kEmail, 0).status, VLOAD_CANNOT_OPEN);
}

TEST(Jc4Loom, FileOrderWithoutMapping) {
  const BitPicture p = vtest::randomPicture(80, 7, 5);
  const Bytes card = vtest::jc4LoomCard(p);
  const TempFile f(card, ".crd");
  for (uint32_t band : {0u, 3u}) {
    const vtest::Loaded got = vtest::load(f.path(), 0, band);
    EXPECT_EQ(got.description.loader, uint32_t(kLoom));
    expectPicture(got, p);
  }
  Bytes longer = card;
  longer.push_back(0);
  expectRefusals({{"a byte over", longer, ".card", VLOAD_NOT_THIS_FORMAT},
                  {"81 hooks", vtest::patched8(card, 1, 81), ".card", VLOAD_NOT_THIS_FORMAT}},
                 kLoom);
}

TEST(Dobby1858III, BothByteOrders) {
  const BitPicture p = vtest::randomPicture(40, 100, 6);
  for (bool little : {false, true}) {
    const Bytes file = vtest::dobbyFile(p, little);
    ASSERT_EQ(file.size(), 510u);
    const TempFile f(file, ".DB1");
    const vtest::Loaded got = vtest::load(f.path(), 0, 7);
    EXPECT_EQ(got.description.loader, uint32_t(kDobby));
    expectPicture(got, p);
    EXPECT_STREQ(got.description.info, little ? "Changsu 1858III dobby" : "Staubli 1858III dobby");
    expectRefusals({{"trailer", vtest::patched8(file, 506, 1), ".db1", VLOAD_NOT_THIS_FORMAT},
                    {"other extension", file, ".db2", VLOAD_NOT_THIS_FORMAT}},
                   kDobby);
  }
}

// ---- JC5

TEST(Jc5, SectionsSideBySide) {
  struct Case { const char* name; std::vector<Jc5Section> sections; const char* info; };
  std::vector<Jc5Section> many;
  for (uint32_t i = 0; i < 25; ++i) many.push_back({9 + i, "s"});  // more than any fixed table
  const Case cases[] = {
      {"padded sections", {{1340, "left"}, {1348, "right"}},
       "\nStaubli JC5 v1.2\nJC5DESIGN\n1340(left) 1348(right) "},
      {"whole bytes, copied as they are", {{64, "a"}, {16, "b"}}, "\nStaubli JC5 v1.2\nJC5DESIGN\n64(a) 16(b) "},
      {"one section", {{13, "only"}}, "\nStaubli JC5 v1.2\nJC5DESIGN"},
      {"twenty-five sections", many, nullptr},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    uint32_t width = 0;
    for (const Jc5Section& s : c.sections) width += s.hooks;
    const BitPicture p = vtest::randomPicture(width, 6, width);
    const TempFile f(vtest::jc5Card(p, c.sections), ".jc5");
    for (uint32_t band : {0u, 4u}) {
      const vtest::Loaded got = vtest::load(f.path(), 0, band);
      EXPECT_EQ(got.description.loader, uint32_t(kJc5));
      expectPicture(got, p);
      if (c.info) {
        EXPECT_STREQ(got.description.info, c.info);
      }
    }
  }
}

TEST(Jc5, DescriptorRules) {
  const BitPicture p = vtest::randomPicture(20, 3, 2);
  const std::vector<Jc5Section> one = {{20, "x"}};
  vtest::Jc5Options longName;
  longName.design = std::string(200, 'n');
  vtest::Jc5Options unknown;
  unknown.extraTypes = {4, 17, 99};
  const Bytes good = vtest::jc5Card(p, one);
  const size_t secondCount = vtest::jc5Header({}, 3, {}).size() - 4;
  Bytes manyFirst = good;
  manyFirst[7] = 1, manyFirst[6] = 1;  // 257 descriptors
  Bytes longSection = vtest::jc5Header(one, 3, {});
  longSection[secondCount + 10] = 0x27, longSection[secondCount + 11] = 0x10;  // length 10000
  const TempFile named(vtest::jc5Card(p, one, longName), ".jc5"), skipped(vtest::jc5Card(p, one, unknown), ".jc5");
  const vtest::Loaded got = vtest::load(named.path(), kJc5, 0);
  expectPicture(got, p);
  EXPECT_STREQ(got.description.info, "\nStaubli JC5 v1.2\n");  // a 200-byte name is dropped
  expectPicture(vtest::load(skipped.path(), kJc5, 0), p);  // unknown descriptors are skipped
  expectRefusals(
      {
          {"257 first-block descriptors", manyFirst, ".jc5", VLOAD_NOT_THIS_FORMAT},
          {"section data over 9999 bytes", longSection, ".jc5", VLOAD_NOT_THIS_FORMAT},
          {"one hook", vtest::jc5Card(vtest::randomPicture(1, 3, 1), {{1, "x"}}), ".jc5", VLOAD_NOT_THIS_FORMAT},
          {"wrong magic", vtest::patched8(good, 1, 0xFF), ".jc5", VLOAD_NOT_THIS_FORMAT},
          {"descriptors cut short", vtest::truncated(good, 30), ".jc5", VLOAD_CANNOT_OPEN},
      },
      kJc5);
}

TEST(Jc5, VolumeSets) {
  const std::vector<Jc5Section> sections = {{30, "a"}, {21, "b"}};
  const BitPicture p = vtest::randomPicture(51, 11, 8);
  vtest::Jc5Options o;
  o.volumeWord = 0x10003;
  const size_t header = vtest::jc5Header(sections, p.height, o).size(), four = 4 * 7;
  const auto files = volumeFiles(vtest::volumes(vtest::jc5Card(p, sections, o), header, four, four), "vol.J");
  const vtest::Loaded got = vtest::load(files[2]->path(), kJc5, 3);
  expectPicture(got, p);
  EXPECT_EQ(got.description.firstPart, 0);

  // Volume names need a volume word whose upper half is 1.
  const TempFile plain(vtest::jc5Card(p, sections), "plain.j01", true);
  EXPECT_EQ(vtest::tryLoadStatus(plain.path(), kJc5), VLOAD_NOT_THIS_FORMAT);
  // A following volume without the magic ends the load.
  files[1]->rewrite(vtest::patched8(vtest::readFile(files[1]->path()), 0, 0));
  EXPECT_EQ(vtest::load(files[0]->path(), kJc5, 3).status, VLOAD_CANNOT_OPEN);
}

// ---- ZC5

Bytes gzipped(const Bytes& data) {
  const TempFile f(Bytes{}, ".gz");
  gzFile g = gzopen(f.path(), "wb");
  gzwrite(g, data.data(), unsigned(data.size()));
  gzclose(g);
  return vtest::readFile(f.path());
}

// Files whose names begin with "zc5-" in a directory.
int unpackedFiles(const std::string& dir) {
  int n = 0;
  for (const auto& e : std::filesystem::directory_iterator(dir))
    n += e.path().filename().string().rfind("zc5-", 0) == 0;
  return n;
}

class Zc5 : public ::testing::Test {
 protected:
  void SetUp() override {
    dir_ = vtest::tempDir() + "/unpack";
    std::filesystem::create_directories(dir_);
    llibSetTmpDir(dir_.c_str());
    llibSetGzipCommand("gzip");
  }
  void TearDown() override {
    llibSetTmpDir(nullptr);
    llibSetGzipCommand(nullptr);
  }
  std::string dir_;
  const BitPicture picture_ = vtest::randomPicture(70, 9, 77);
  const Bytes card_ = gzipped(vtest::jc5Card(picture_, {{33, "a"}, {37, "b"}}));
};

TEST_F(Zc5, UnpacksForDeliveryAndLeavesNothingBehind) {
  const TempFile f(card_, ".ZC5");
  const vtest::Loaded got = vtest::load(f.path(), 0, 4);
  EXPECT_EQ(got.description.loader, uint32_t(kZc5));
  expectPicture(got, picture_);
  EXPECT_EQ(unpackedFiles(dir_), 0);
  // A description alone removes the unpacked card at once.
  EXPECT_EQ(vtest::tryLoadStatus(f.path(), kZc5, false), VLOAD_OK);
  EXPECT_EQ(unpackedFiles(dir_), 0);
  // While a load is open, the unpacked card exists.
  returnLoaderFunctions(kZc5, f.path());
  vload_tool::Description d;
  ASSERT_EQ(vload_tool::describe(f.path(), d, true), VLOAD_OK);
  EXPECT_EQ(unpackedFiles(dir_), 1);
  vload_tool::endLoad();
  EXPECT_EQ(unpackedFiles(dir_), 0);
}

TEST_F(Zc5, NamesReachNoShell) {
  // Relative names in the unpack folder, where a shell would run the commands.
  const std::filesystem::path home = std::filesystem::current_path();
  std::filesystem::current_path(dir_);
  for (const char* name : {"a'b\".zc5", "$(touch canary).zc5", "`touch canary`.zc5",
                           "x; touch canary;.zc5", "x\" && touch canary && \".zc5", "-dash.zc5"}) {
    SCOPED_TRACE(name);
    vtest::writeFile(name, card_);
    expectPicture(vtest::load(name, kZc5, 0), picture_);
    std::filesystem::remove(name);
    EXPECT_FALSE(std::filesystem::exists("canary"));
  }
  std::filesystem::current_path(home);
  EXPECT_EQ(unpackedFiles(dir_), 0);
}

TEST_F(Zc5, Refusals) {
  const TempFile good(card_, ".zc5");
  expectRefusals({{"plain JC5", vtest::jc5Card(picture_, {{70, "a"}}), ".zc5", VLOAD_NOT_THIS_FORMAT},
                  {"other extension", card_, ".zc6", VLOAD_NOT_THIS_FORMAT},
                  {"no card inside", gzipped(Bytes(100, 'x')), ".zc5", VLOAD_NOT_THIS_FORMAT}},
                 kZc5);
  llibSetGzipCommand("/no/such/gzip --quiet");
  EXPECT_EQ(vtest::tryLoadStatus(good.path(), kZc5), VLOAD_NOT_THIS_FORMAT);
  llibSetGzipCommand(nullptr);
  EXPECT_EQ(vtest::tryLoadStatus(good.path(), kZc5), VLOAD_NOT_THIS_FORMAT);
  llibSetGzipCommand("gzip");
  llibSetTmpDir((dir_ + "/missing").c_str());
  EXPECT_EQ(vtest::tryLoadStatus(good.path(), kZc5), VLOAD_CANNOT_OPEN);
  llibSetTmpDir(nullptr);
  EXPECT_EQ(vtest::tryLoadStatus(good.path(), kZc5), VLOAD_NOT_THIS_FORMAT);
  EXPECT_EQ(unpackedFiles(dir_), 0);
}

}  // namespace
