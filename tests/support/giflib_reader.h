// tests/support/giflib_reader.h: giflib as the reference decoder of the GIF
// tests and benchmarks (giflib never enters the library).
#pragma once

#include <cstdint>

#include "tests/support/bytes.h"

namespace vtest {

struct GiflibImage {
  bool ok = false;  // giflib read the first image to its last row
  Bytes pixels;     // width x height index bytes
};

// The first image of a GIF file as giflib decodes it, line by line with
// DGifGetLine. Interlaced images are not read (ok stays false).
GiflibImage giflibFirstImage(const char* path);

// The same into caller memory of `capacity` bytes; false when giflib fails
// or the image does not fit.
bool giflibDecodeInto(const char* path, uint8_t* pixels, uint64_t capacity);

}  // namespace vtest
