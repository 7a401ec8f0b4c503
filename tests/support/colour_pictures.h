// tests/support/colour_pictures.h: pictures for the colour tools and an
// independent, plain nearest-colour search with the per-cell rule, against
// which tests and benchmarks check the library.
#pragma once

#include <cstdint>
#include <vector>

#include "tests/support/bytes.h"

namespace vtest {

// Photo-like pixels (3 or 4 bytes; alpha 255): smooth colour fields, soft
// discs and a little sensor noise. Tightly packed rows.
Bytes photoLike(int32_t width, int32_t height, int32_t channels = 3, uint32_t seed = 1);
// Uniformly random bytes for every channel.
Bytes randomPixels(int32_t width, int32_t height, int32_t channels, uint32_t seed);

// The first entry at the smallest squared distance, skipping flagged ones; 0
// when none is eligible. `map` holds count entries of R, G, B.
uint32_t nearestEntry(const uint8_t* map, int32_t count, int32_t r, int32_t g, int32_t b,
                      const uint8_t* flags = nullptr);

// The answer of the first colour met in each cube cell serves the whole cell.
class CellCache {
 public:
  CellCache(const uint8_t* map, int32_t count, const uint8_t* flags = nullptr)
      : map_(map), count_(count), flags_(flags), answer_(1 << 18, -1) {}
  uint32_t operator()(int32_t r, int32_t g, int32_t b);

 private:
  const uint8_t* map_;
  int32_t count_;
  const uint8_t* flags_;
  std::vector<int32_t> answer_;
};

}  // namespace vtest
