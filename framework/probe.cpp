// framework/probe.cpp: the per-thread cache of the first 256 bytes of the last
// file probed, and ErrNonfatal.
//
// Quirk: the cache is keyed on name and size only. A file rewritten with other
// bytes of the same size keeps its old cached bytes, and for a file shorter
// than 256 bytes the rest of the cache still holds the previous file's bytes;
// callers compare loadImgLastFilesize() with the length they rely on.
#include "framework/probe.h"

#include <sys/stat.h>

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <string>

#include "framework/file.h"
#include "vload.h"

extern "C" {
uint8_t SuppressNonFatalErrors = 0;
}

namespace ldr {
namespace {

constexpr size_t kHeaderBytes = 256;

struct HeaderCache {
  uint8_t bytes[kHeaderBytes] = {};
  std::string name;  // the whole name: paths here may be longer than 260 characters
  bool valid = false;
  int64_t size = 0;
};
thread_local HeaderCache t_cache;

bool sizeOf(const char* fileName, int64_t& size) noexcept {
  struct stat st;
  if (::stat(fileName, &st) != 0) return false;
  size = int64_t(st.st_size);
  return true;
}

}  // namespace

void forgetCachedHeader() noexcept {
  t_cache.valid = false;
}

bool nonFatalErrorsSuppressed() noexcept {
  return __atomic_load_n(&SuppressNonFatalErrors, __ATOMIC_RELAXED) != 0;
}

void suppressNonFatalErrors(bool suppress) noexcept {
  __atomic_store_n(&SuppressNonFatalErrors, uint8_t(suppress), __ATOMIC_RELAXED);
}

}  // namespace ldr

extern "C" {

const uint8_t* loadImgCheckHeader(const char* fileName) {
  using ldr::t_cache;
  if (!fileName) return nullptr;
  int64_t size = 0;
  if (t_cache.valid && t_cache.name == fileName) {
    // Same name: a file whose status cannot be read keeps its cached bytes.
    if (!ldr::sizeOf(fileName, size) || size == t_cache.size) return t_cache.bytes;
  } else if (!ldr::sizeOf(fileName, size)) {
    return nullptr;
  }
  if (size != 0) {
    // Read aside first, so that a failed read leaves the cache as it was.
    uint8_t fresh[ldr::kHeaderBytes];
    const size_t want = size < int64_t(sizeof fresh) ? size_t(size) : sizeof fresh;
    const ldr::File f = ldr::openForReading(fileName);
    if (!f || !ldr::readExact(f.get(), fresh, want)) return nullptr;
    std::memcpy(t_cache.bytes, fresh, want);
  }
  try {
    t_cache.name = fileName;
  } catch (...) {
    t_cache.valid = false;
    return nullptr;
  }
  t_cache.size = size;
  t_cache.valid = true;
  return t_cache.bytes;
}

int64_t loadImgLastFilesize(void) { return ldr::t_cache.size; }

void ErrNonfatal(const char* format, ...) {
  if (ldr::nonFatalErrorsSuppressed() || !format) return;
  std::fputs("\nNonfatal Error : ", stdout);
  va_list args;
  va_start(args, format);
  std::vfprintf(stdout, format, args);
  va_end(args);
  std::fputs("\n", stdout);
}

}  // extern "C"
