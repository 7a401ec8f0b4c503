// The card loaders' wide vector path against the plain one: the compiled
// kernels of each layout against the column plans on random records of every
// module size, the chooser's scores against counts taken one bit at a time,
// and whole loads of every card kind, band sizes and odd widths on both paths.
#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

#include "jacquard/staubli.h"
#include "tests/support/harness.h"
#include "tests/support/staubli_writer.h"
#include "tests/support/temp_file.h"
#include "vload.h"

namespace {

using ldr::staubli::CardPath;
using vtest::BitPicture;
using vtest::Bytes;
using vtest::TempFile;

struct ForcePath {
  explicit ForcePath(CardPath p) { ldr::staubli::forceCardPath(p); }
  ~ForcePath() { ldr::staubli::forceCardPath(CardPath::Auto); }
};

#define SKIP_WITHOUT_WIDE_UNITS()                                       \
  if (!ldr::staubli::cardPathAvailable(CardPath::Wide)) GTEST_SKIP() << "no AVX-512 VBMI, GFNI and BMI2 here"

Bytes randomBytes(size_t n, uint32_t seed) {
  std::mt19937 rng(seed);
  Bytes b(n);
  for (uint8_t& v : b) v = uint8_t(rng());
  return b;
}

// The smoothness of one mapping, the slow way.
uint32_t referenceSmoothness(const std::vector<uint32_t>& map, const std::vector<uint32_t>& counts,
                             uint32_t tolerance) {
  uint32_t run = 1, best = 1;
  for (size_t x = 1; x < map.size(); ++x) {
    const uint32_t a = counts[map[x - 1]], b = counts[map[x]];
    run = (a > b ? a - b : b - a) > tolerance ? 1 : run + 1;
    best = std::max(best, run);
  }
  return best;
}

TEST(StaubliWide, ChooserScoresMatchBitCounts) {
  SKIP_WITHOUT_WIDE_UNITS();
  const ForcePath wide(CardPath::Wide);
  const uint32_t hooks = 6144;  // 1536 and 3072 both divide
  const uint32_t recordBytes = hooks / 8;
  for (uint32_t rows : {1u, 7u, 16u, 64u, 255u}) {
    // Random bits give short stretches; sparse bits long ones, across words.
    for (int sparse : {0, 1}) {
      SCOPED_TRACE(std::to_string(rows) + (sparse ? " sparse" : " random"));
      Bytes records = randomBytes(size_t{rows} * recordBytes, rows);
      if (sparse)
        for (size_t i = 0; i < records.size(); ++i) records[i] = i % 97 == 0 ? records[i] : 0;
      std::vector<uint32_t> counts(size_t{recordBytes} * 8);
      ldr::staubli::countSetBits(records.data(), rows, recordBytes, counts);
      std::vector<uint8_t> planes(size_t{recordBytes} * 8);
      ldr::staubli::countPlanes(records.data(), rows, recordBytes, planes.data());
      for (uint32_t size : {1536u, 3072u}) {
        const std::vector<uint32_t> map = ldr::staubli::cardMapping(size, hooks / size, false);
        ldr::staubli::RowKernel kernel;
        ASSERT_TRUE(kernel.build(map, recordBytes));
        for (uint32_t tolerance : {0u, rows / 50, 3u})
          EXPECT_EQ(kernel.smoothness(planes.data(), tolerance), referenceSmoothness(map, counts, tolerance))
              << size << " tolerance " << tolerance;
      }
    }
  }
}

// Loads `path` on both paths in several band sizes: the pictures must agree
// band size for band size (the module choice is made per band), and the
// plain one is what the other tests check.
void expectSamePictures(const char* path, int32_t loader) {
  for (uint32_t band : {0u, 7u, 300u}) {
    vtest::Loaded plain;
    {
      const ForcePath p(CardPath::Plain);
      plain = vtest::load(path, loader, band);
    }
    const ForcePath w(CardPath::Wide);
    const vtest::Loaded wide = vtest::load(path, loader, band);
    ASSERT_EQ(plain.status, VLOAD_OK) << "band " << band;
    ASSERT_EQ(wide.status, VLOAD_OK) << "band " << band;
    EXPECT_TRUE(wide.rows == plain.rows) << "band " << band;
  }
}

TEST(StaubliWide, LoadsMatchThePlainPath) {
  SKIP_WITHOUT_WIDE_UNITS();
  struct Jc4Case {
    uint32_t hooks, moduleSize, picks;
    bool ramp;
  };
  // Ambiguous sizes make the chooser work on both paths; ramps make the
  // right size win, random bits make the scores close.
  const Jc4Case jc4[] = {{6144, 3072, 400, true}, {6144, 1536, 300, false}, {10752, 1344, 130, true}};
  for (const Jc4Case& c : jc4) {
    SCOPED_TRACE("jc4 " + std::to_string(c.hooks) + "/" + std::to_string(c.moduleSize));
    const BitPicture p = c.ramp ? vtest::rampPicture(c.hooks, c.picks) : vtest::randomPicture(c.hooks, c.picks, c.hooks);
    vtest::Jc4Options o;
    o.moduleSize = c.moduleSize;
    const TempFile f(vtest::jc4Card(p, o), ".jc4");
    expectSamePictures(f.path(), 13);
  }
  {
    SCOPED_TRACE("jc3");
    const TempFile f(vtest::jc3Card(vtest::randomPicture(4032, 90, 7), "PATHS"), ".jc3");
    expectSamePictures(f.path(), 14);
  }
  // Odd widths: JC5 sections that end inside bytes, one packed card; a
  // network card whose hooks fill no module.
  const std::vector<std::vector<vtest::Jc5Section>> jc5 = {
      {{1341, "a"}, {2050, "b"}, {4003, "c"}}, {{3, "x"}, {61, "y"}, {700, "z"}, {9, "w"}}, {{512, "p"}, {1024, "q"}}};
  for (const auto& sections : jc5) {
    uint32_t hooks = 0;
    for (const auto& s : sections) hooks += s.hooks;
    SCOPED_TRACE("jc5 " + std::to_string(hooks));
    const TempFile f(vtest::jc5Card(vtest::randomPicture(hooks, 70, hooks), sections), ".jc5");
    expectSamePictures(f.path(), 15);
  }
  {
    SCOPED_TRACE("network");
    const TempFile f(vtest::jc4NetworkCard(vtest::randomPicture(1696, 40, 11), 1536), ".1696");
    expectSamePictures(f.path(), 16);
  }
}

// Each layout of the wide kernel against the column plans, on every module
// size and count, both pixel senses; and the shapes the loaders use most
// must get the grouped layout, or the loaders silently fall back to the
// slower one.
TEST(StaubliWide, EveryLayoutMatchesTheColumnPlans) {
  SKIP_WITHOUT_WIDE_UNITS();
  const ForcePath wide(CardPath::Wide);
  using Layout = ldr::staubli::RowKernel::Layout;
  for (uint32_t size : {1344u, 1536u, 3072u})
    for (uint32_t modules : {1u, 2u, 3u, 4u, 5u, 7u, 8u})
      for (bool blockwise : {false, true}) {
        const std::vector<uint32_t> map = ldr::staubli::cardMapping(size, modules, blockwise);
        const uint32_t recordBytes = size * modules / 8;
        ldr::staubli::ColumnPlan plan;
        plan.build(map, recordBytes);
        const Bytes records = randomBytes(size_t{recordBytes} * 2, size * modules);
        for (Layout layout : {Layout::Grouped, Layout::Tiled}) {
          SCOPED_TRACE(std::to_string(size) + " x " + std::to_string(modules) + (blockwise ? " blockwise" : "") +
                       (layout == Layout::Grouped ? " grouped" : " tiled"));
          ldr::staubli::RowKernel kernel;
          if (!kernel.build(map, recordBytes, layout)) continue;
          ASSERT_EQ(kernel.layout(), layout);
          ASSERT_EQ(kernel.rowBytes(), recordBytes);
          for (uint32_t r = 0; r < 2; ++r)
            for (bool setWhenZero : {true, false}) {
              Bytes want(recordBytes, 0), got(recordBytes + 1, 0xA5);
              plan.gather(records.data() + r * recordBytes, want.data(), setWhenZero);
              kernel.run(records.data() + r * recordBytes, got.data(), setWhenZero);
              EXPECT_EQ(got[recordBytes], 0xA5) << "wrote past the row";
              got.pop_back();
              ASSERT_EQ(got, want) << "record " << r;
            }
        }
      }
  struct Shape {
    uint32_t size, modules;
    bool blockwise;
  };
  for (const Shape& s : {Shape{1536, 8, false}, Shape{3072, 4, false}, Shape{1344, 8, false}, Shape{1344, 7, true}}) {
    ldr::staubli::RowKernel kernel;
    ASSERT_TRUE(kernel.build(ldr::staubli::cardMapping(s.size, s.modules, s.blockwise), s.size * s.modules / 8));
    EXPECT_EQ(kernel.layout(), Layout::Grouped) << s.size << " x " << s.modules;
  }
  // Shapes the kernel does not take are refused, not mapped wrongly: a width
  // that ends inside a byte, a record too short for its window, no mapping.
  ldr::staubli::RowKernel kernel;
  std::vector<uint32_t> map = ldr::staubli::cardMapping(1536, 2, false);
  map.resize(3000 + 4);
  EXPECT_FALSE(kernel.build(map, 384));
  std::vector<uint32_t> identity(1024);
  for (uint32_t x = 0; x < identity.size(); ++x) identity[x] = x;
  EXPECT_FALSE(kernel.build(identity, 128));
  EXPECT_FALSE(kernel.build(std::vector<uint32_t>(256, 0), 40));
  const ForcePath plain(CardPath::Plain);
  EXPECT_FALSE(kernel.build(ldr::staubli::cardMapping(1536, 1, false), 192));
}

}  // namespace
