// Shared helpers: byte order, case folding, key lines, line reading,
// compressed blocks, and per-thread settings.
#include <gtest/gtest.h>
#include <zlib.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "framework/helpers.h"
#include "tests/support/temp_file.h"
#include "vload.h"

namespace {

using vtest::Bytes;

TEST(Helpers, ByteOrderReadersFollowTheThreadFlag) {
  const uint8_t b[4] = {0x81, 0x02, 0x03, 0x04};
  ldr::setBigEndian(false);
  EXPECT_EQ(Get16u(b), 0x0281);
  EXPECT_EQ(Get32u(b), 0x04030281u);
  EXPECT_EQ(Get32s(b), 0x04030281);
  ldr::setBigEndian(true);
  EXPECT_EQ(Get16u(b), 0x8102);
  EXPECT_EQ(Get32u(b), 0x81020304u);
  EXPECT_EQ(Get32s(b), int32_t(0x81020304u));  // the top byte carries the sign
  EXPECT_LT(Get32s(b), 0);
  std::thread([&] { EXPECT_EQ(Get16u(b), 0x0281); }).join();  // other threads start little-endian
  ldr::setBigEndian(false);
}

TEST(Helpers, CaseFoldingTouchesOnlyAsciiCapitals) {
  EXPECT_EQ(tolowerAZ('A'), 'a');
  EXPECT_EQ(tolowerAZ('Z'), 'z');
  EXPECT_EQ(tolowerAZ('['), '[');
  EXPECT_EQ(tolowerAZ('@'), '@');
  EXPECT_EQ(tolowerAZ(0xC4), 0xC4);  // 'Ä' in Latin-1 stays
  char s[] = "MiXeD \xC4[Z]";
  stringToLower(s);
  EXPECT_STREQ(s, "mixed \xC4[z]");
}

TEST(Helpers, KeyLines) {
  char line[] = "KEY=value=more";
  EXPECT_STREQ(removeHead(line), "value=more");
  char bare[] = "abc\0tail";  // no '=': one past the terminator
  EXPECT_EQ(removeHead(bare), bare + 4);

  char crlf[] = "X\r\n";
  EXPECT_STREQ(removeLast(crlf), "X");
  char lf[] = "\n";
  EXPECT_STREQ(removeLast(lf), "");
  char crOnly[] = "\r";
  EXPECT_STREQ(removeLast(crOnly), "");
  char plain[] = "ab";
  EXPECT_STREQ(removeLast(plain), "a");
  char empty[] = "";
  EXPECT_STREQ(removeLast(empty), "");
}

// Reads every line of `bytes` with a buffer of `size` bytes.
std::vector<std::string> lines(const std::string& bytes, int size) {
  const vtest::TempFile f(Bytes(bytes.begin(), bytes.end()));
  std::FILE* s = std::fopen(f.path(), "rb");
  std::vector<std::string> out;
  std::vector<char> buffer(size_t(size) + 1);
  for (int i = 0; i < 100 && fgetsDosMac(buffer.data(), size, s); ++i) out.emplace_back(buffer.data());
  std::fclose(s);
  return out;
}

TEST(Helpers, LinesEndInCrLfOrBoth) {
  using L = std::vector<std::string>;
  EXPECT_EQ(lines("A\r\nB\r\n", 100), (L{"A", "B"}));
  EXPECT_EQ(lines("A\rB\nC", 100), (L{"A", "B", "C"}));
  EXPECT_EQ(lines("", 100), L{});
  // One empty line end is skipped; the second one ends the reading.
  EXPECT_EQ(lines("A\n\n\nB\n", 100), (L{"A"}));
  // A long line is split: the terminator takes the last place, and the byte
  // that stopped the loop is gone.
  EXPECT_EQ(lines("abcdefgh\n", 4), (L{"abc", "fgh"}));
  char buffer[4] = "zz";
  EXPECT_EQ(fgetsDosMac(buffer, 0, stdin), nullptr);
  EXPECT_EQ(fgetsDosMac(buffer, 4, nullptr), nullptr);
}

Bytes deflated(const std::string& text) {
  uLongf size = compressBound(uLong(text.size()));
  Bytes out(size);
  EXPECT_EQ(compress(out.data(), &size, reinterpret_cast<const Bytef*>(text.data()), uLong(text.size())), Z_OK);
  out.resize(size);
  return out;
}

struct Stream {
  explicit Stream(const Bytes& b) : file(b), f(std::fopen(file.path(), "rb")) {}
  ~Stream() { std::fclose(f); }
  vtest::TempFile file;
  std::FILE* f;
};

TEST(Helpers, CompressedBlocks) {
  const std::string text = "weave rows, many of them alike, alike, alike";
  Bytes block = deflated(text);
  const std::string size = std::to_string(block.size());
  block.push_back('#');  // what follows the block stays unread
  {
    Stream s(block);
    char out[100] = {};
    EXPECT_EQ(readCompressedData((size + " bytes").c_str(), out, sizeof out, s.f), text.size());
    EXPECT_EQ(std::string(out, text.size()), text);
    EXPECT_EQ(std::fgetc(s.f), '#');
  }
  {  // an empty result reads as 1
    const Bytes empty = deflated("");
    Stream s(empty);
    char out[4];
    EXPECT_EQ(readCompressedData(std::to_string(empty.size()).c_str(), out, sizeof out, s.f), 1u);
  }
  for (const char* bad : {"2", "1000000000", "-50", "none"}) {  // refused before reading
    Stream s(block);
    char out[100];
    EXPECT_EQ(readCompressedData(bad, out, sizeof out, s.f), 0u) << bad;
    EXPECT_EQ(std::ftell(s.f), 0) << bad;
  }
  {  // the block is shorter than its size says
    Stream s(block);
    char out[100];
    EXPECT_EQ(readCompressedData("999999", out, sizeof out, s.f), 0u);
  }
  {  // the destination is too small: zlib refuses and says so
    Stream s(block);
    char out[5];
    testing::internal::CaptureStdout();
    EXPECT_EQ(readCompressedData(size.c_str(), out, sizeof out, s.f), 0u);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "zlib uncompress failed\n");
  }
}

TEST(Helpers, SkippingCompressedBlocks) {
  Stream s(Bytes(100, 'x'));
  EXPECT_EQ(skipCompressedData("10", s.f), 1);
  EXPECT_EQ(std::ftell(s.f), 10);
  EXPECT_EQ(skipCompressedData(" 5 and more", s.f), 1);
  EXPECT_EQ(std::ftell(s.f), 15);
  EXPECT_EQ(skipCompressedData("none", s.f), 0);
  EXPECT_EQ(std::ftell(s.f), 15);
  EXPECT_EQ(skipCompressedData("-5", s.f), 1);  // never backwards
  EXPECT_GE(std::ftell(s.f), 15);
}

TEST(Settings, PerThreadCopiesThatNullClears) {
  EXPECT_EQ(llibGetTmpDir(), nullptr);
  std::string dir = "/tmp/here";
  llibSetTmpDir(dir.c_str());
  dir[1] = 'X';  // the library keeps its own copy
  EXPECT_STREQ(llibGetTmpDir(), "/tmp/here");
  std::thread([] {
    EXPECT_EQ(llibGetTmpDir(), nullptr);
    llibSetGzipCommand("gzip");
  }).join();
  EXPECT_EQ(llibGetGzipCommand(), nullptr);
  llibSetTmpDir(nullptr);
  EXPECT_EQ(llibGetTmpDir(), nullptr);

  struct Pair { void (*set)(const char*); const char* (*get)(); };
  for (const Pair& p : {Pair{llibSetGzipCommand, llibGetGzipCommand}, Pair{llibSetUnzipCommand, llibGetUnzipCommand},
                        Pair{llibSetMsExpandCommand, llibGetMsExpandCommand},
                        Pair{llibSetVectorPreviewCommand, llibGetVectorPreviewCommand}}) {
    p.set("cmd -x");
    EXPECT_STREQ(p.get(), "cmd -x");
    p.set(nullptr);
    EXPECT_EQ(p.get(), nullptr);
  }
}

}  // namespace
