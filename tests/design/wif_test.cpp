// WIF loader: the name and signature rules, counts, the information text,
// drawdowns against an independent plain reading of the WIF text (of drafts
// written here and of the public samples), and the memory a small draft costs.
#include <gtest/gtest.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>

#include <filesystem>
#include <string>
#include <thread>

#include "tests/support/harness.h"
#include "tests/support/temp_file.h"
#include "tests/support/weave_writer.h"
#include "tests/support/wif_writer.h"
#include "vload.h"

extern char** environ;

namespace {

using vtest::Bytes;
using vtest::TempFile;
using vtest::WifDraft;

constexpr int32_t kWif = 22;

Bytes text(const std::string& s) { return Bytes(s.begin(), s.end()); }

// A draft head with these counts; sections follow.
std::string head(const std::string& contents, int shafts, int treadles, int ends, int picks) {
  return "[WIF]\nVersion=1.1\n[CONTENTS]\nWEAVING=true\n" + contents + "[WEAVING]\nShafts=" + std::to_string(shafts) +
         "\nTreadles=" + std::to_string(treadles) + "\n[WARP]\nThreads=" + std::to_string(ends) +
         "\n[WEFT]\nThreads=" + std::to_string(picks) + "\n";
}

vtest::Loaded load(const Bytes& file, uint32_t band = 0) {
  const TempFile f(file, ".wif");
  return vtest::load(f.path(), 0, band);
}

// ---- Header

TEST(WifHeader, Refusals) {
  const Bytes good = text(head("TIEUP=yes\n", 4, 4, 8, 8));
  struct Case { const char* name; Bytes file; uint32_t want; };
  std::string nine;
  for (int i = 0; i < 9; ++i) nine += "[WIF]\n";
  const Case cases[] = {
      {"only signature lines", text("[WIF]\n[wif]\n[Wif]"), VLOAD_NOT_THIS_FORMAT},
      {"eleven signature lines first", text(nine + "[WIF]\n" + head("", 4, 4, 8, 8)), VLOAD_NOT_THIS_FORMAT},
      {"ten signature lines first", text(nine + head("", 4, 4, 8, 8)), VLOAD_OK},
      {"no [WIF] line at all", text("; written by hand\n" + head("", 4, 4, 8, 8).substr(6)), VLOAD_OK},
      {"one shaft", text(head("", 1, 4, 8, 8)), VLOAD_NOT_THIS_FORMAT},
      {"lift plan without treadles", text(head("LIFTPLAN=yes\n", 4, 0, 8, 8)), VLOAD_NOT_THIS_FORMAT},
      {"one pick", text(head("", 4, 4, 8, 1)), VLOAD_NOT_THIS_FORMAT},
      {"no counts", text("[WIF]\nVersion=1.1\n"), VLOAD_NOT_THIS_FORMAT},
      {"262141 ends", text(head("", 4, 4, 262141, 8)), VLOAD_NOT_THIS_FORMAT},
      {"262141 picks", text(head("", 4, 4, 8, 262141)), VLOAD_NOT_THIS_FORMAT},
      {"262140 ends", text(head("", 4, 4, 262140, 8)), VLOAD_OK},
  };
  const int fds = vtest::openFdCount();
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const TempFile f(c.file, ".wif");
    EXPECT_EQ(vtest::tryLoadStatus(f.path(), kWif), c.want);
    EXPECT_EQ(vtest::openFdCount(), fds);
  }
  // The name decides: ".wif" in any case, after at least one character.
  const struct { const char* name; uint32_t want; } names[] = {
      {"draft.WIF", VLOAD_OK}, {"d.wif", VLOAD_OK}, {"draft.wifx", VLOAD_NOT_THIS_FORMAT},
      {"draft.txt", VLOAD_NOT_THIS_FORMAT}};
  for (const auto& n : names) {
    const TempFile f(good, n.name, true);
    EXPECT_EQ(vtest::tryLoadStatus(f.path(), kWif), n.want) << n.name;
  }
  EXPECT_EQ(vtest::tryLoadStatus(".wif", kWif), VLOAD_NOT_THIS_FORMAT);
  EXPECT_EQ(vtest::tryLoadStatus("/no/such/draft.wif", kWif), VLOAD_CANNOT_OPEN);
}

TEST(WifHeader, Description) {
  const TempFile f(text(head("Treadling=On\nTIEUP=false\n", 6, 9, 21, 5)), ".wif");
  EXPECT_EQ(returnLoaderFunctions(0, f.path()), uint32_t(kWif));
  vload_tool::Description d;
  ASSERT_EQ(vload_tool::describe(f.path(), d, false), VLOAD_OK);
  EXPECT_EQ(d.layout, VLOAD_LAYOUT_BILEVEL);
  EXPECT_EQ(d.width, 21u);
  EXPECT_EQ(d.height, 5u);
  EXPECT_EQ(d.mirrorX, 1);
  EXPECT_STREQ(d.info, "\nshafts 6 treadles 9 treading 1 tieup 0");
  // Described only: there is nothing to deliver.
  Bytes rows(3 * 5);
  EXPECT_EQ(getLoadBand()(rows.data(), 5, 3, nullptr), VLOAD_BAD_REQUEST);
  vload_tool::endLoad();
}

// ---- Drawdowns

TEST(WifDrawdown, WrittenDrafts) {
  struct Case { const char* name; WifDraft draft; };
  std::vector<Case> cases = {
      {"tie-up and treadling", vtest::randomDraft(1, 37, 29, 8, 10, false, false)},
      {"lift plan", vtest::randomDraft(2, 40, 33, 12, 4, true, false)},
      {"ends on two shafts", vtest::randomDraft(3, 64, 20, 6, 6, false, true)},
      {"lift plan, two shafts", vtest::randomDraft(4, 17, 50, 5, 3, true, true)},
      {"100 shafts (no masks)", vtest::randomDraft(5, 300, 40, 100, 120, false, true)},
      {"100 shafts lift plan", vtest::randomDraft(6, 260, 40, 100, 2, true, false)},
  };
  cases.push_back({"CR LF, lower case", cases[0].draft});
  cases.back().draft.lineEnd = "\r\n", cases.back().draft.upperCase = false;
  cases.push_back({"CR alone", cases[1].draft});
  cases.back().draft.lineEnd = "\r";
  cases.push_back({"no tie-up: treadle k lifts shaft k", cases[0].draft});
  cases.back().draft.tieUp.clear(), cases.back().draft.tieUpFlag = false;
  cases.push_back({"no tie-up flag, tie-up lines too", cases[0].draft});
  cases.back().draft.tieUpFlag = false;
  cases.push_back({"picks without treadles use their own number", cases[0].draft});
  for (size_t p = 0; p < 29; p += 3) cases.back().draft.treadling[p].clear();
  cases.push_back({"every flag no: empty", cases[0].draft});
  cases.back().draft.tieUpFlag = cases.back().draft.threadingFlag = cases.back().draft.treadlingFlag = false;
  for (const Case& c : cases) {
    const Bytes file = vtest::wifText(c.draft);
    const Bytes want = vtest::readWifPlainly(file).rows;
    for (uint32_t band : {1u, 6u, 0u}) {
      SCOPED_TRACE(std::string(c.name) + " band " + std::to_string(band));
      const vtest::Loaded l = load(file, band);
      ASSERT_EQ(l.status, VLOAD_OK);
      EXPECT_EQ(l.rows, want);
    }
  }
}

TEST(WifDrawdown, LineRules) {
  struct Case { const char* name; std::string body; std::vector<uint8_t> want; };
  // 4 ends on shafts 1..4 unless threaded otherwise; 2 picks; tie-up flag yes.
  const std::string base = head("TIEUP=yes\nTREADLING=yes\n", 4, 4, 4, 2) + "[TIEUP]\n1=1\n2=2\n3=3\n4=4,1\n";
  const Case cases[] = {
      {"first treadle of a pick", "[TREADLING]\n1=2,3\n2=4\n", {0x40, 0x90}},
      {"end on two shafts", "[THREADING]\n3=2,1\n[TREADLING]\n1=1\n2=2\n", {0xA0, 0x60}},
      {"numbers out of range skipped", "[THREADING]\n1=0\n2=9000\n5=1\n[TREADLING]\n1=1\n2=9000\n", {0x80, 0x40}},
      {"a blank before = spoils a treadling line", "[TREADLING]\n 1 = 4\n2=3\n", {0x80, 0x20}},
      {"a 120000-byte line comes in pieces", "[TREADLING]\n1=" + std::string(120000, '7') + "\n2=3\n", {0x80, 0x20}},
      // Quirk kept: a section line right after another is taken as a key line.
      {"section right after a section", "[THREADING]\n[TREADLING]\n1=3\n", {0x00, 0x40}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const vtest::Loaded l = load(text(base + c.body));
    ASSERT_EQ(l.status, VLOAD_OK);
    EXPECT_EQ(l.rows, Bytes(c.want));
  }
}

TEST(WifDrawdown, PublicSamples) {
  const std::filesystem::path dir = std::filesystem::path(VLOAD_CORPUS_DIR) / "wif";
  if (!std::filesystem::is_directory(dir)) GTEST_SKIP() << "no samples at " << dir;
  int files = 0, loaded = 0;
  for (const auto& e : std::filesystem::directory_iterator(dir)) {
    const std::string path = e.path().string();
    SCOPED_TRACE(path);
    const Bytes file = vtest::readFile(path);
    const vtest::WifReading plain = vtest::readWifPlainly(file);
    const vtest::Loaded l = vtest::load(path.c_str(), 0, 7);
    ++files;
    EXPECT_EQ(l.status, plain.status);
    if (l.status != VLOAD_OK) continue;  // a lift-plan draft without treadles
    ++loaded;
    EXPECT_EQ(l.description.width, plain.width);
    EXPECT_EQ(l.description.height, plain.height);
    EXPECT_EQ(l.rows, plain.rows);
  }
  EXPECT_GT(files, 0);
  EXPECT_GE(loaded, files - 1);
}

// ---- Threads and memory

TEST(WifDelivery, TwoThreadsAndTwoLoaders) {
  const Bytes draft = vtest::wifText(vtest::randomDraft(7, 70, 90, 9, 9, false, true));
  const TempFile wif(draft, ".wif");
  const Bytes rows = vtest::rowsBlock(33, 40, [](uint32_t x, uint32_t y) { return (x ^ y) % 3 == 0; });
  const TempFile weave(vtest::WeaveBuilder{}.key("DIM=33 40").zlib("BETMAP", rows).end().build(), ".wv");
  for (int round = 0; round < 10; ++round) {
    vtest::Loaded a, b;
    std::thread ta([&] { a = vtest::load(wif.path(), 0, 3); });
    std::thread tb([&] { b = vtest::load(weave.path(), 0, 5); });
    ta.join();
    tb.join();
    ASSERT_EQ(a.rows, vtest::readWifPlainly(draft).rows);
    ASSERT_EQ(b.rows, rows);
  }
}

// The tables are sized from the draft: converting a 200-end, 400-pick,
// 8-shaft draft stays far below the hundreds of megabytes that tables sized
// for the largest draft would take.
TEST(WifDelivery, SmallDraftSmallMemory) {
  const TempFile wif(vtest::wifText(vtest::randomDraft(8, 200, 400, 8, 8, false, false)), ".wif");
  const TempFile png(Bytes{}, ".png");
  std::string tool = VLOAD_CLI, convert = "convert", in = wif.path(), out = png.path(), quiet = "--quiet";
  char* argv[] = {tool.data(), convert.data(), in.data(), out.data(), quiet.data(), nullptr};
  pid_t pid = 0;
  ASSERT_EQ(posix_spawn(&pid, argv[0], nullptr, nullptr, argv, environ), 0);
  int status = 0;
  rusage usage{};
  ASSERT_EQ(wait4(pid, &status, 0, &usage), pid);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  EXPECT_LT(usage.ru_maxrss, 100 * 1024) << "kilobytes";
}

}  // namespace
