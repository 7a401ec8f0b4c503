// raster/webp.h: the WebP loader's switch for tests.
#pragma once

#include <cstddef>

namespace ldr {

// For the calling thread: hand the decoder pieces of at most `bytes` bytes of
// the file (0: pieces as large as the loader chooses), so that small pictures
// go through the paths large ones take (many pieces, the band window moving,
// the read block growing).
void webpLimitPieces(size_t bytes) noexcept;

}  // namespace ldr
