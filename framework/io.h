// framework/io.h: positioned reads that loaders use for pixel data. They work
// on the descriptor beneath a FILE, at an offset the loader keeps, so stdio's
// read-ahead never stands between the file and the caller's rows.
#pragma once

#include <sys/types.h>
#include <sys/uio.h>

#include <cstddef>
#include <cstdint>

#include "framework/file.h"

namespace ldr {

// Reads up to n bytes at `offset`, retrying short reads; returns the bytes
// read, fewer than n only at the end of the file or on an error.
size_t readAt(int fd, void* buffer, size_t n, off_t offset) noexcept;

// The same, scattering into `count` pieces (at most IOV_MAX); the pieces are
// consumed as they are filled.
size_t readAt(int fd, iovec* pieces, int count, off_t offset) noexcept;

// A buffer that takes pieces of a file at an address matching their file
// offset modulo the page size. The kernel copies the file's cached pages onto
// such a piece at full speed, while a destination a few bytes off (by a
// header's length, say) can make the same copy several times slower. Loaders
// read rows here and convert or copy them to the host's buffer while they
// are still in the cache.
class MatchedChunk {
 public:
  static constexpr size_t kPage = 4096;

  // Room for pieces of up to `bytes` bytes, followed by `slack` bytes that
  // may be read and written; false when the memory cannot be had.
  [[nodiscard]] bool reserve(size_t bytes, size_t slack = 0) noexcept;
  // Reads up to `n` bytes (at most the reserved size) at `offset`; returns
  // the bytes read, which data() then holds.
  size_t read(int fd, off_t offset, size_t n) noexcept;
  uint8_t* data() const noexcept { return data_; }
  size_t capacity() const noexcept { return capacity_; }

 private:
  Block block_;
  uint8_t* page_ = nullptr;  // the first page boundary in block_
  uint8_t* data_ = nullptr;
  size_t capacity_ = 0;
};

}  // namespace ldr
