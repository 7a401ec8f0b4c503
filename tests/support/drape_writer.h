// tests/support/drape_writer.h: drape projects; their start images come from
// the writers of the formats the drape loader nests.
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

}  // namespace vtest
