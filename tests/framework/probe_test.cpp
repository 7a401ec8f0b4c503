// The header probe cache and the non-fatal warning channel.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <string>
#include <thread>

#include "framework/probe.h"
#include "tests/support/temp_file.h"
#include "vload.h"

namespace {

using vtest::Bytes;
using vtest::TempFile;

TEST(Probe, RefreshesOnNameOrSizeButNotOnSameSizeRewrite) {
  const TempFile f(Bytes(300, 'a'));
  const uint8_t* h = loadImgCheckHeader(f.path());
  ASSERT_NE(h, nullptr);
  EXPECT_EQ(h[0], 'a');
  EXPECT_EQ(loadImgLastFilesize(), 300);

  f.rewrite(Bytes(300, 'b'));  // same name, same size: the cache is kept
  EXPECT_EQ(loadImgCheckHeader(f.path())[0], 'a');
  f.rewrite(Bytes(299, 'c'));  // the size changed: refreshed
  EXPECT_EQ(loadImgCheckHeader(f.path())[0], 'c');
  EXPECT_EQ(loadImgLastFilesize(), 299);
}

TEST(Probe, ShortAndEmptyFilesKeepThePreviousTail) {
  const TempFile big(Bytes(300, 'x'));
  const TempFile small(Bytes(10, 'y'));
  const TempFile empty(Bytes{});
  ASSERT_NE(loadImgCheckHeader(big.path()), nullptr);
  const uint8_t* h = loadImgCheckHeader(small.path());
  ASSERT_NE(h, nullptr);
  EXPECT_EQ(loadImgLastFilesize(), 10);
  EXPECT_EQ(std::string(h, h + 256), std::string(10, 'y') + std::string(246, 'x'));

  h = loadImgCheckHeader(empty.path());
  ASSERT_NE(h, nullptr);
  EXPECT_EQ(loadImgLastFilesize(), 0);
  EXPECT_EQ(h[0], 'y');  // nothing read, only name and size recorded
}

TEST(Probe, UnreadableFiles) {
  EXPECT_EQ(loadImgCheckHeader(nullptr), nullptr);
  EXPECT_EQ(loadImgCheckHeader("/no/such/file"), nullptr);
  EXPECT_EQ(loadImgCheckHeader(vtest::tempDir().c_str()), nullptr);  // a directory

  // A cached file that disappears is still answered from the cache.
  std::string path;
  {
    const TempFile f(Bytes(20, 'q'));
    path = f.path();
    ASSERT_NE(loadImgCheckHeader(f.path()), nullptr);
  }
  const uint8_t* h = loadImgCheckHeader(path.c_str());
  ASSERT_NE(h, nullptr);
  EXPECT_EQ(h[0], 'q');

  // After forgetting, the same name is read again.
  ldr::forgetCachedHeader();
  EXPECT_EQ(loadImgCheckHeader(path.c_str()), nullptr);
}

TEST(Probe, NamesLongerThanWindowsPathsAreKeptWhole) {
  const std::string dir(200, 'd'), name(150, 'n');
  ::mkdir((vtest::tempDir() + "/" + dir).c_str(), 0700);
  const TempFile a(Bytes(50, '1'), dir + "/" + name + "-a", true);
  const TempFile b(Bytes(50, '2'), dir + "/" + name + "-b", true);
  EXPECT_EQ(loadImgCheckHeader(a.path())[0], '1');
  EXPECT_EQ(loadImgCheckHeader(b.path())[0], '2');  // same size, same long prefix: still refreshed
}

TEST(Probe, CachePerThread) {
  const TempFile mine(Bytes(40, 'm'));
  const TempFile theirs(Bytes(40, 't'));
  ASSERT_NE(loadImgCheckHeader(mine.path()), nullptr);
  std::thread([&] { EXPECT_EQ(loadImgCheckHeader(theirs.path())[0], 't'); }).join();
  EXPECT_EQ(loadImgCheckHeader(mine.path())[0], 'm');
  EXPECT_EQ(loadImgLastFilesize(), 40);
}

TEST(NonFatal, PrintsUnlessSuppressed) {
  testing::internal::CaptureStdout();
  ErrNonfatal("value %d of %s", 7, "x");
  SuppressNonFatalErrors = 1;
  ErrNonfatal("hidden %d", 1);
  SuppressNonFatalErrors = 0;
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "\nNonfatal Error : value 7 of x\n");
}

}  // namespace
