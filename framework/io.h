// framework/io.h: positioned reads that loaders use for pixel data. They work
// on the descriptor beneath a FILE, at an offset the loader keeps, so stdio's
// read-ahead never stands between the file and the caller's rows.
#pragma once

#include <sys/types.h>
#include <sys/uio.h>

#include <cstddef>

namespace ldr {

// Reads up to n bytes at `offset`, retrying short reads; returns the bytes
// read, fewer than n only at the end of the file or on an error.
size_t readAt(int fd, void* buffer, size_t n, off_t offset) noexcept;

// The same, scattering into `count` pieces (at most IOV_MAX); the pieces are
// consumed as they are filled.
size_t readAt(int fd, iovec* pieces, int count, off_t offset) noexcept;

}  // namespace ldr
