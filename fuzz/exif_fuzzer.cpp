// fuzz/exif_fuzzer.cpp: process_EXIF with the input as the whole block.
//
// The block is an exact-size heap copy, so that the sanitizers see a read one
// byte past it. Each input is parsed twice: into a zeroed record, then again
// into the same record, as a host that reuses its record does. Invariants
// that crash on purpose: texts stay terminated inside their fields and the
// counts stay inside their arrays.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "vload.h"

namespace {

void require(bool ok, const char* what) {
  if (!ok) {
    std::fprintf(stderr, "invariant broken: %s\n", what);
    std::abort();
  }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  std::freopen("/dev/null", "w", stdout);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size > UINT32_MAX) return 0;
  const auto block = std::make_unique<uint8_t[]>(size);
  if (size) std::memcpy(block.get(), data, size);
  const auto info = std::make_unique<ExifInfo>();
  for (int pass = 0; pass < 2; ++pass) {
    process_EXIF(block.get(), uint32_t(size), info.get(), 1);
    require(strnlen(info->cameraMake, sizeof info->cameraMake) < sizeof info->cameraMake, "make");
    require(strnlen(info->cameraModel, sizeof info->cameraModel) < sizeof info->cameraModel, "model");
    require(strnlen(info->dateTime, sizeof info->dateTime) < sizeof info->dateTime, "date");
    require(info->numDateTimeTags >= 0 && info->numDateTimeTags <= 10, "date count");
    require(info->commentWidecharCount >= 0 && info->commentWidecharCount * 2 <= int32_t(sizeof info->comments),
            "wide comment count");
    require(std::memcmp(block.get(), data, size) == 0, "the block was written");
  }
  return 0;
}
