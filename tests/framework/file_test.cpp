// Blocks for whole pictures: zeroed and usable end to end whichever way they
// are taken, large ones aligned for huge pages.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>

#include "framework/file.h"

namespace {

TEST(LargeBlock, ZeroedWritableAndAlignedWhenLarge) {
  constexpr size_t kHugePage = size_t{2} << 20;
  for (const size_t n : {size_t{0}, size_t{1}, ldr::kLargeBlock - 1, ldr::kLargeBlock, 3 * kHugePage + 12345}) {
    SCOPED_TRACE(n);
    ldr::LargeBlock b = ldr::allocLargeBlock(n);
    ASSERT_TRUE(b);
    for (size_t i = 0; i < n; i += 4093) ASSERT_EQ(b[i], 0) << i;
    if (n == 0) continue;
    EXPECT_EQ(b[n - 1], 0);
    std::memset(b.get(), 0xA5, n);  // every byte is ours
    EXPECT_EQ(b[n - 1], 0xA5);
    if (n >= ldr::kLargeBlock && !ldr::kLargeBlocksOnHeap) {
      EXPECT_EQ(reinterpret_cast<uintptr_t>(b.get()) % kHugePage, 0u);
    }
  }
}

}  // namespace
