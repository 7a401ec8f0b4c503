// framework/read_ahead.h: a forward reader for loaders that parse their data
// byte by byte (GIF sub-blocks, PCX runs). It reads large pieces with pread
// at an offset of its own, so stdio's position and buffer play no part, and
// its hot loops can work on the buffered bytes in place.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>

#include "framework/file.h"

namespace ldr {

class ReadAhead {
 public:
  static constexpr size_t kPieceBytes = 64 * 1024;

  // Reads `fd` from `offset` on; false when the buffer cannot be had.
  [[nodiscard]] bool start(int fd, off_t offset) noexcept;

  // The next byte, or -1 at the end of the file or after a read error.
  int next() noexcept { return cur_ != end_ || fill() ? *cur_++ : -1; }
  // Copies up to n bytes to `dst`; fewer only at the end or on an error.
  size_t read(uint8_t* dst, size_t n) noexcept;
  // Skips up to n bytes; false when the file ends first.
  bool skip(size_t n) noexcept;

  // The bytes buffered now, for loops that consume them in place and then
  // advance() past what they used.
  const uint8_t* data() const noexcept { return cur_; }
  size_t available() const noexcept { return size_t(end_ - cur_); }
  void advance(size_t n) noexcept { cur_ += n; }
  // Buffers the next piece when nothing is left; false at the end or on an error.
  bool fill() noexcept;

  // True after a read error (the end of the file is no error).
  bool failed() const noexcept { return failed_; }
  // True when every byte has been consumed and the file has been seen to end.
  bool atEnd() noexcept { return cur_ == end_ && !fill() && !failed_; }
  // File offset of the next byte.
  off_t position() const noexcept { return offset_ - off_t(end_ - cur_); }

 private:
  Block buffer_;
  int fd_ = -1;
  off_t offset_ = 0;  // file offset just past the buffered bytes
  const uint8_t* cur_ = nullptr;
  const uint8_t* end_ = nullptr;
  bool failed_ = false;
  bool ended_ = false;  // a read found the end of the file
};

}  // namespace ldr
