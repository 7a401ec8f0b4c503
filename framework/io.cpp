// framework/io.cpp
#include "framework/io.h"

#include <unistd.h>

#include <cerrno>

#include "framework/checked.h"

namespace ldr {

size_t readAt(int fd, void* buffer, size_t n, off_t offset) noexcept {
  size_t done = 0;
  while (done < n) {
    const ssize_t got = ::pread(fd, static_cast<char*>(buffer) + done, n - done, offset + off_t(done));
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) break;
    done += size_t(got);
  }
  return done;
}

size_t readAt(int fd, iovec* pieces, int count, off_t offset) noexcept {
  size_t done = 0;
  while (count > 0) {
    const ssize_t got = ::preadv(fd, pieces, count, offset + off_t(done));
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) break;
    done += size_t(got);
    size_t left = size_t(got);
    for (; count > 0 && left >= pieces->iov_len; ++pieces, --count) left -= pieces->iov_len;
    if (count > 0 && left > 0) {  // a piece filled in part: read its rest next
      pieces->iov_base = static_cast<char*>(pieces->iov_base) + left;
      pieces->iov_len -= left;
    }
  }
  return done;
}

bool MatchedChunk::reserve(size_t bytes, size_t slack) noexcept {
  // The block is only as aligned as the allocator makes it: room for a page
  // to find a page boundary in, and one for the offset within the page.
  size_t total = 0;
  if (!addOk(bytes, 2 * kPage, total) || !addOk(total, slack, total)) return false;
  block_ = allocBlock(total);
  if (!block_) return false;
  page_ = block_.get() + (kPage - reinterpret_cast<uintptr_t>(block_.get()) % kPage) % kPage;
  data_ = page_;
  capacity_ = bytes;
  return true;
}

size_t MatchedChunk::read(int fd, off_t offset, size_t n) noexcept {
  if (!block_ || offset < 0 || n > capacity_) return 0;
  data_ = page_ + size_t(offset) % kPage;
  return readAt(fd, data_, n, offset);
}

}  // namespace ldr
