// tests/support/weave_writer.h: builds weave (binding) files key by key, with
// raw and zlib blocks, and the pictures they stand for.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "tests/support/bytes.h"

namespace vtest {

Bytes zlibCompress(const Bytes& data);

using BitAt = std::function<bool(uint32_t a, uint32_t b)>;

// A lift plan: bit s * picks + p, least significant bit first, set when shaft
// s rises on pick p; floor(shafts * picks / 8) + 1 bytes, as the format sizes it.
Bytes liftPlanBlock(uint32_t shafts, uint32_t picks, const BitAt& lifted);
// Rows of (width + 7) / 8 bytes, leftmost end in the top bit; set(x, y).
Bytes rowsBlock(uint32_t width, uint32_t height, const BitAt& set);
// The picture of a lift plan: end x rises on pick p when its shaft does.
Bytes weaveFromLiftPlan(uint32_t width, uint32_t picks, const std::vector<uint32_t>& shaftOfEnd,
                        const BitAt& lifted);

class WeaveBuilder {
 public:
  WeaveBuilder() : bytes_{'#', 'B', 'I', 'N', 'D', 'I', 'N', 'G', '\n'} {}
  // "#" + text + line feed.
  WeaveBuilder& key(std::string_view text);
  // Bytes as they are, for broken files.
  WeaveBuilder& bytes(const Bytes& b);
  // "#KEY=" and the block raw, or "#KEY=<compressed size>" and the zlib stream.
  WeaveBuilder& raw(std::string_view name, const Bytes& block);
  WeaveBuilder& zlib(std::string_view name, const Bytes& block);
  // HARNENDS with its numbers, `perLine` a line (all on one line when 0).
  WeaveBuilder& harnends(const std::vector<int64_t>& shafts, size_t perLine = 0);
  // LINES_REPEAT with 16- or 32-bit little-endian entries.
  WeaveBuilder& repeat(const std::vector<uint32_t>& entries, bool wide);
  WeaveBuilder& end() { return key("END"); }
  const Bytes& build() const { return bytes_; }

 private:
  Bytes bytes_;
};

}  // namespace vtest
