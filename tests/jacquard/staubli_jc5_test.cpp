// Staubli JC5 and ZC5 cards: sections side by side, the information text,
// descriptor limits, volume sets, and the unpacking of ZC5 cards: no shell,
// no temporary file left behind.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <zlib.h>

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

constexpr int32_t kJc5 = 15, kZc5 = 43;

void expectPicture(const vtest::Loaded& got, const BitPicture& want) {
  ASSERT_EQ(got.status, VLOAD_OK);
  ASSERT_EQ(got.description.width, want.width);
  ASSERT_EQ(got.description.height, want.height);
  EXPECT_TRUE(got.rows == want.rows) << "pixels differ";
}

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
  struct Case { const char* name; Bytes file; uint32_t want; const char* info; };
  const Case cases[] = {
      {"a 200-byte name is dropped", vtest::jc5Card(p, one, longName), VLOAD_OK, "\nStaubli JC5 v1.2\n"},
      {"unknown descriptors are skipped", vtest::jc5Card(p, one, unknown), VLOAD_OK, nullptr},
      {"257 first-block descriptors", manyFirst, VLOAD_NOT_THIS_FORMAT, nullptr},
      {"section data over 9999 bytes", longSection, VLOAD_NOT_THIS_FORMAT, nullptr},
      {"one hook", vtest::jc5Card(vtest::randomPicture(1, 3, 1), {{1, "x"}}), VLOAD_NOT_THIS_FORMAT, nullptr},
      {"wrong magic", vtest::patched8(good, 1, 0xFF), VLOAD_NOT_THIS_FORMAT, nullptr},
      {"descriptors cut short", vtest::truncated(good, 30), VLOAD_CANNOT_OPEN, nullptr},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const TempFile f(c.file, ".jc5");
    const vtest::Loaded got = vtest::load(f.path(), kJc5, 0);
    EXPECT_EQ(got.status, c.want);
    if (c.info) {
        EXPECT_STREQ(got.description.info, c.info);
      }
  }
}

TEST(Jc5, VolumeSets) {
  const std::vector<Jc5Section> sections = {{30, "a"}, {21, "b"}};
  const BitPicture p = vtest::randomPicture(51, 11, 8);
  vtest::Jc5Options o;
  o.volumeWord = 0x10003;
  const Bytes head = vtest::jc5Header(sections, p.height, o);
  const Bytes records = vtest::jc5Records(p, sections);
  const size_t recordBytes = records.size() / p.height;
  std::vector<std::unique_ptr<TempFile>> files;
  for (size_t v = 0, at = 0; at < records.size(); ++v, at += 4 * recordBytes) {
    Bytes vol = head;
    vol.insert(vol.end(), records.begin() + long(at), records.begin() + long(std::min(records.size(), at + 4 * recordBytes)));
    files.push_back(std::make_unique<TempFile>(vol, "vol.J0" + std::to_string(v + 1), true));
  }
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
  expectPicture(vtest::load(f.path(), 0, 4), picture_);
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
  const TempFile plain(vtest::jc5Card(picture_, {{70, "a"}}), ".zc5");
  const TempFile misnamed(card_, ".zc6");
  const TempFile notACard(gzipped(Bytes(100, 'x')), ".zc5");
  EXPECT_EQ(vtest::tryLoadStatus(plain.path(), kZc5), VLOAD_NOT_THIS_FORMAT);
  EXPECT_EQ(vtest::tryLoadStatus(misnamed.path(), kZc5), VLOAD_NOT_THIS_FORMAT);
  EXPECT_EQ(vtest::tryLoadStatus(notACard.path(), kZc5), VLOAD_NOT_THIS_FORMAT);
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
