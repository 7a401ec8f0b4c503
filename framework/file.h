// framework/file.h: owners for the C resources loaders hold between tryLoad
// and endLoad. Resetting the owner (state = {}) closes or frees at once.
#pragma once

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>

namespace ldr {

struct CloseFile {
  void operator()(std::FILE* f) const noexcept { std::fclose(f); }
};
using File = std::unique_ptr<std::FILE, CloseFile>;

struct FreeBlock {
  void operator()(uint8_t* p) const noexcept { std::free(p); }
};
using Block = std::unique_ptr<uint8_t[], FreeBlock>;

// Zeroed heap block of n bytes; empty on failure (reported as NoMemory).
inline Block allocBlock(size_t n) noexcept {
  return Block(static_cast<uint8_t*>(std::calloc(n ? n : 1, 1)));
}

// Zeroed block for a whole picture held between calls; empty on failure
// (reported as NoMemory). From kLargeBlock bytes up it is a mapping of its
// own in huge pages where the kernel gives them (framework/file.cpp says why).
constexpr size_t kLargeBlock = size_t{4} << 20;
#if defined(__SANITIZE_ADDRESS__)
constexpr bool kLargeBlocksOnHeap = true;  // so that AddressSanitizer guards their ends
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
constexpr bool kLargeBlocksOnHeap = true;
#else
constexpr bool kLargeBlocksOnHeap = false;
#endif
#else
constexpr bool kLargeBlocksOnHeap = false;
#endif
struct ReleaseLargeBlock {
  size_t mapped = 0;  // length of the block's own mapping; 0: from the heap
  void operator()(uint8_t* p) const noexcept;
};
using LargeBlock = std::unique_ptr<uint8_t[], ReleaseLargeBlock>;
LargeBlock allocLargeBlock(size_t n) noexcept;

// Opens for binary reading; empty on failure.
inline File openForReading(const char* fileName) noexcept {
  return File(fileName ? std::fopen(fileName, "rb") : nullptr);
}

// True when exactly n bytes were read.
[[nodiscard]] inline bool readExact(std::FILE* f, void* dst, size_t n) noexcept {
  return std::fread(dst, 1, n, f) == n;
}

}  // namespace ldr
