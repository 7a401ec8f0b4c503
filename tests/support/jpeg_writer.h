// tests/support/jpeg_writer.h: builds JPEG files with libjpeg: greyscale,
// RGB and Adobe CMYK, with or without a JFIF header, with APP1 blocks.
#pragma once

#include <cstdint>
#include <functional>
#include <utility>
#include <vector>

#include "tests/support/bytes.h"

namespace vtest {

class JpegBuilder {
 public:
  JpegBuilder& size(uint32_t width, uint32_t height) { width_ = width; height_ = height; return *this; }
  JpegBuilder& components(int n) { components_ = n; return *this; }  // 1 grey, 3 RGB, 4 CMYK
  JpegBuilder& quality(int q) { quality_ = q; return *this; }
  JpegBuilder& progressive() { progressive_ = true; return *this; }
  // A JFIF header with this density (unit 0 aspect, 1 per inch, 2 per cm); without it none.
  JpegBuilder& jfif(int unit, uint16_t x, uint16_t y) { jfif_ = true; unit_ = unit; xDensity_ = x; yDensity_ = y; return *this; }
  JpegBuilder& app1(Bytes data) { app1_.push_back(std::move(data)); return *this; }
  JpegBuilder& samples(std::function<uint8_t(uint32_t x, uint32_t y, int c)> f) { sample_ = std::move(f); return *this; }

  Bytes build() const;

 private:
  uint32_t width_ = 16, height_ = 8;
  int components_ = 3, quality_ = 95;
  bool jfif_ = false, progressive_ = false;
  int unit_ = 0;
  uint16_t xDensity_ = 1, yDensity_ = 1;
  std::vector<Bytes> app1_;
  std::function<uint8_t(uint32_t, uint32_t, int)> sample_ = [](uint32_t x, uint32_t y, int c) {
    return uint8_t(x * 8 + y * 5 + c * 60);
  };
};

}  // namespace vtest
