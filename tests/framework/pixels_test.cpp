// The pixel conversions on every path this processor runs, cached and
// streamed, against plain loops written here; and the chunk that reads a file
// at page-matched addresses.
#include <gtest/gtest.h>

#include <functional>
#include <random>
#include <string>
#include <vector>

#include "framework/io.h"
#include "framework/pixels.h"
#include "tests/support/temp_file.h"

#include <fcntl.h>
#include <unistd.h>

namespace {

using ldr::PixelPath;
using ldr::Store;
using vtest::Bytes;

Bytes randomBytes(size_t n, uint32_t seed) {
  std::mt19937 rng(seed);
  Bytes b(n);
  for (uint8_t& v : b) v = uint8_t(rng());
  return b;
}

struct Kernel {
  const char* name;
  size_t planes;     // source planes (1: one interleaved source)
  size_t inBytes;    // bytes a pixel in each source
  size_t outBytes;   // bytes a pixel written
  std::function<void(const std::vector<const uint8_t*>&, uint8_t*, size_t, Store)> run;
};

const Kernel kKernels[] = {
    {"copy", 1, 1, 1, [](auto& s, uint8_t* d, size_t n, Store st) { ldr::copyBytes(s[0], d, n, st); }},
    {"swap3", 1, 3, 3, [](auto& s, uint8_t* d, size_t n, Store st) { ldr::swapRedBlue3(s[0], d, n, st); }},
    {"swap4", 1, 4, 4, [](auto& s, uint8_t* d, size_t n, Store st) { ldr::swapRedBlue4(s[0], d, n, st); }},
    {"interleave3", 3, 1, 3,
     [](auto& s, uint8_t* d, size_t n, Store st) { ldr::interleave3(s[0], s[1], s[2], d, n, st); }},
    {"interleave4", 4, 1, 4,
     [](auto& s, uint8_t* d, size_t n, Store) { ldr::interleave4(s[0], s[1], s[2], s[3], d, n); }},
};

// What each kernel must write, pixel by pixel.
Bytes expected(const Kernel& k, const std::vector<Bytes>& src, size_t n) {
  Bytes out(n * k.outBytes);
  for (size_t x = 0; x < n; ++x)
    for (size_t c = 0; c < k.outBytes; ++c) {
      uint8_t& o = out[x * k.outBytes + c];
      if (k.planes > 1) o = src[c][x];
      else if (k.outBytes == 1 || c == 1 || c == 3) o = src[0][x * k.inBytes + c];
      else o = src[0][x * k.inBytes + 2 - c];
    }
  return out;
}

struct ForcePath {
  explicit ForcePath(PixelPath p) { ldr::forcePixelPath(p); }
  ~ForcePath() { ldr::forcePixelPath(PixelPath::Auto); }
};

TEST(PixelKernels, EveryPathAndStoreMatchesPlainLoops) {
  constexpr size_t kGuard = 80;
  const size_t counts[] = {0, 1, 15, 16, 17, 63, 64, 65, 100, 191, 192, 193, 255, 256, 257, 1001};
  const size_t skews[] = {0, 1, 3, 21, 60};  // destination bytes past a 64-byte boundary
  for (PixelPath path : {PixelPath::Plain, PixelPath::Ssse3, PixelPath::Avx512}) {
    if (!ldr::pixelPathAvailable(path)) continue;
    const ForcePath forced(path);
    for (const Kernel& k : kKernels)
      for (Store store : {Store::Cached, Store::Streamed})
        for (size_t n : counts)
          for (size_t skew : skews) {
            SCOPED_TRACE(std::string(k.name) + " path " + std::to_string(int(path)) + " streamed " +
                         std::to_string(store == Store::Streamed) + " n " + std::to_string(n) + " skew " +
                         std::to_string(skew));
            // Sources of exactly their size, so that a sanitizer sees a read past them.
            std::vector<Bytes> src;
            std::vector<const uint8_t*> from;
            for (size_t p = 0; p < k.planes; ++p) src.push_back(randomBytes(n * k.inBytes, uint32_t(n * 7 + p)));
            for (const Bytes& s : src) from.push_back(s.data());
            Bytes buffer(2 * kGuard + 64 + n * k.outBytes, 0xA5);
            uint8_t* base = buffer.data() + kGuard;
            uint8_t* dst = base + (64 - reinterpret_cast<uintptr_t>(base) % 64) % 64 + skew;
            k.run(from, dst, n, store);
            ldr::fenceStreamed();
            const Bytes want = expected(k, src, n);
            ASSERT_EQ(Bytes(dst, dst + want.size()), want);
            for (const uint8_t* p = buffer.data(); p < buffer.data() + buffer.size(); ++p) {
              if (p < dst || p >= dst + want.size()) {
                ASSERT_EQ(*p, 0xA5) << "wrote outside the pixels";
              }
            }
          }
  }
}

TEST(MatchedChunk, PiecesSitAtTheirFileOffsetModuloThePage) {
  const Bytes file = randomBytes(20000, 5);
  const vtest::TempFile f(file);
  const int fd = ::open(f.path(), O_RDONLY);
  ASSERT_GE(fd, 0);
  ldr::MatchedChunk chunk;
  ASSERT_TRUE(chunk.reserve(9000));
  struct Case { off_t offset; size_t want, got; };
  const Case cases[] = {{0, 9000, 9000}, {54, 100, 100}, {4095, 9000, 9000}, {4097, 1, 1},
                        {15000, 9000, 5000},  // the file ends first
                        {0, 9001, 0}};        // more than the chunk holds
  for (const Case& c : cases) {
    SCOPED_TRACE(std::to_string(c.offset) + " + " + std::to_string(c.want));
    ASSERT_EQ(chunk.read(fd, c.offset, c.want), c.got);
    if (c.got == 0) continue;
    EXPECT_EQ(reinterpret_cast<uintptr_t>(chunk.data()) % 4096, size_t(c.offset) % 4096);
    EXPECT_EQ(Bytes(chunk.data(), chunk.data() + c.got), Bytes(&file[size_t(c.offset)], &file[size_t(c.offset)] + c.got));
  }
  ::close(fd);
}

}  // namespace
