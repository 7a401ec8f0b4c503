// tests/support/webp_writer.h: WebP files written with libwebp (lossy or
// lossless, with or without alpha), and animations assembled around them.
#pragma once

#include <cstdint>
#include <functional>

#include "tests/support/bytes.h"

namespace vtest {

struct WebpPicture {
  uint32_t width = 29, height = 17;
  bool alpha = false;
  bool lossless = true;  // lossless keeps every value, also under transparent pixels
  // Channel c (R, G, B, A) of pixel (x, y).
  std::function<uint8_t(uint32_t x, uint32_t y, int c)> pixel = [](uint32_t x, uint32_t y, int c) {
    return uint8_t(x * 9 + y * 5 + c * 60 + (x ^ y) * 3);
  };
};

Bytes webpFile(const WebpPicture& pic);

// An animation on a canvas of the given size whose first frame is the
// picture of `frame` (a file webpFile wrote) at (x, y), both even, followed
// by the same frame at the origin.
Bytes webpAnimation(uint32_t canvasWidth, uint32_t canvasHeight, const Bytes& frame,
                    uint32_t frameWidth, uint32_t frameHeight, uint32_t x, uint32_t y);

}  // namespace vtest
