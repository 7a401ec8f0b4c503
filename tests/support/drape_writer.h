// tests/support/drape_writer.h: drape projects, and start images in the
// formats whose loaders the drape loader nests (JPEG and PNG written with
// libjpeg and libpng, GIF by hand).
#pragma once

#include <cstdint>
#include <string_view>

#include "tests/support/bytes.h"

namespace vtest {

// Lines and blocks in the order they are added, after a first line of
// "#NEW_REGION" and a line feed.
class DrapeBuilder {
 public:
  DrapeBuilder();
  explicit DrapeBuilder(std::string_view firstLine);  // the first line as given, with its line end
  DrapeBuilder& line(std::string_view text);          // a line, a line feed added
  // A region: its control points, horizontal and vertical vectors, 4 bytes each.
  DrapeBuilder& region(uint32_t controlPoints, uint32_t hVectors, uint32_t vVectors);
  DrapeBuilder& texture(uint32_t declared);  // "#TEXTURE_START=n" and n + 1 bytes
  DrapeBuilder& startImage(const Bytes& image);
  DrapeBuilder& bytes(const Bytes& raw);
  const Bytes& build() const { return bytes_; }

 private:
  Bytes bytes_;
};

// Pictures of the given size whose pixels follow a fixed pattern.
Bytes jpegFile(uint32_t width, uint32_t height);
Bytes pngFile(uint32_t width, uint32_t height);
Bytes gifFile(uint32_t width, uint32_t height);  // 8 bits, a grey global colour table

}  // namespace vtest
