// framework/io.cpp
#include "framework/io.h"

#include <unistd.h>

#include <cerrno>

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

}  // namespace ldr
