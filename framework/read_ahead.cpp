// framework/read_ahead.cpp
#include "framework/read_ahead.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace ldr {

bool ReadAhead::start(int fd, off_t offset) noexcept {
  if (!buffer_) buffer_ = allocBlock(kPieceBytes);
  if (!buffer_) return false;
  fd_ = fd;
  offset_ = offset;
  cur_ = end_ = buffer_.get();
  failed_ = ended_ = false;
  return true;
}

bool ReadAhead::fill() noexcept {
  if (cur_ != end_) return true;
  if (fd_ < 0 || failed_ || ended_) return false;
  for (;;) {
    const ssize_t got = ::pread(fd_, buffer_.get(), kPieceBytes, offset_);
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) failed_ = true;
    if (got == 0) ended_ = true;
    if (got <= 0) return false;
    offset_ += off_t(got);
    cur_ = buffer_.get();
    end_ = cur_ + got;
    return true;
  }
}

size_t ReadAhead::read(uint8_t* dst, size_t n) noexcept {
  size_t done = 0;
  while (done < n && fill()) {
    const size_t piece = available() < n - done ? available() : n - done;
    std::memcpy(dst + done, cur_, piece);
    cur_ += piece;
    done += piece;
  }
  return done;
}

bool ReadAhead::skip(size_t n) noexcept {
  while (n > 0 && fill()) {
    const size_t piece = available() < n ? available() : n;
    cur_ += piece;
    n -= piece;
  }
  return n == 0;
}

}  // namespace ldr
