// Shared helpers: byte order, case folding, key lines, line reading,
// compressed blocks, and per-thread settings.
#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <thread>
#include <vector>

#include "framework/helpers.h"
#include "tests/support/temp_file.h"
#include "tests/support/weave_writer.h"
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
  std::thread([&] { EXPECT_EQ(Get16u(b), 0x0281); }).join();  // other threads start little-endian
  ldr::setBigEndian(false);
}

TEST(Helpers, CaseFoldingAndKeyLines) {
  EXPECT_EQ(tolowerAZ('@'), '@');
  EXPECT_EQ(tolowerAZ('A'), 'a');
  EXPECT_EQ(tolowerAZ(0xC4), 0xC4);  // 'Ä' in Latin-1 stays
  char s[] = "@MiXeD \xC4[Z]";
  stringToLower(s);
  EXPECT_STREQ(s, "@mixed \xC4[z]");

  char line[] = "KEY=value=more";
  EXPECT_STREQ(removeHead(line), "value=more");
  char bare[] = "abc\0tail";  // no '=': one past the terminator
  EXPECT_EQ(removeHead(bare), bare + 4);
  for (const auto& [in, out] : {std::pair{"X\r\n", "X"}, {"\n", ""}, {"\r", ""}, {"ab", "a"}, {"", ""}}) {
    std::string text = in;
    EXPECT_STREQ(removeLast(text.data()), out) << in;
  }
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

struct Stream {
  explicit Stream(const Bytes& b) : file(b), f(std::fopen(file.path(), "rb")) {}
  ~Stream() { std::fclose(f); }
  vtest::TempFile file;
  std::FILE* f;
};

TEST(Helpers, CompressedBlocks) {
  const std::string text = "weave rows, many of them alike, alike, alike";
  Bytes block = vtest::zlibCompress(Bytes(text.begin(), text.end()));
  const std::string size = std::to_string(block.size());
  block.push_back('#');  // what follows the block stays unread
  char out[100] = {};
  {
    Stream s(block);
    EXPECT_EQ(readCompressedData((size + " bytes").c_str(), out, sizeof out, s.f), text.size());
    EXPECT_EQ(std::string(out, text.size()), text);
    EXPECT_EQ(std::fgetc(s.f), '#');
  }
  const Bytes empty = vtest::zlibCompress({});
  EXPECT_EQ(readCompressedData(std::to_string(empty.size()).c_str(), out, 4, Stream(empty).f), 1u);  // not 0
  for (const char* bad : {"2", "1000000000", "-50", "none"}) {  // refused before reading
    Stream s(block);
    EXPECT_EQ(readCompressedData(bad, out, sizeof out, s.f), 0u) << bad;
    EXPECT_EQ(std::ftell(s.f), 0) << bad;
  }
  EXPECT_EQ(readCompressedData("999999", out, sizeof out, Stream(block).f), 0u);  // the block is shorter
  testing::internal::CaptureStdout();  // the destination is too small: zlib refuses and says so
  EXPECT_EQ(readCompressedData(size.c_str(), out, 5, Stream(block).f), 0u);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "zlib uncompress failed\n");
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
  struct Pair { void (*set)(const char*); const char* (*get)(); };
  for (const Pair& p : {Pair{llibSetTmpDir, llibGetTmpDir}, Pair{llibSetGzipCommand, llibGetGzipCommand},
                        Pair{llibSetUnzipCommand, llibGetUnzipCommand},
                        Pair{llibSetMsExpandCommand, llibGetMsExpandCommand},
                        Pair{llibSetVectorPreviewCommand, llibGetVectorPreviewCommand}}) {
    EXPECT_EQ(p.get(), nullptr);
    std::string text = "cmd -x";
    p.set(text.c_str());
    text[0] = 'X';  // the library keeps its own copy
    EXPECT_STREQ(p.get(), "cmd -x");
    std::thread([&] { EXPECT_EQ(p.get(), nullptr); }).join();
    p.set(nullptr);
    EXPECT_EQ(p.get(), nullptr);
  }
}

}  // namespace
