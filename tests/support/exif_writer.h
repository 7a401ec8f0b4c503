// tests/support/exif_writer.h: builds EXIF blocks in either byte order.
//
// Directories are chained in the order they are started; values longer than
// four bytes go after the last directory. raw() writes an entry's fields as
// given, for blocks that lie.
#pragma once

#include <cstdint>
#include <optional>
#include <string_view>
#include <vector>

#include "tests/support/bytes.h"

namespace vtest {

class ExifBuilder {
 public:
  explicit ExifBuilder(bool bigEndian = false) : big_(bigEndian) { dirs_.emplace_back(); }

  ExifBuilder& directory() { dirs_.emplace_back(); return *this; }  // the next in the chain
  ExifBuilder& ascii(uint16_t tag, std::string_view text);          // count includes the zero
  ExifBuilder& bytes(uint16_t tag, uint16_t format, const Bytes& value);  // count = size / component
  ExifBuilder& shortValue(uint16_t tag, uint16_t v) { Bytes b; put16(b, v); return bytes(tag, 3, b); }
  ExifBuilder& longValue(uint16_t tag, uint32_t v) { Bytes b; put32(b, v); return bytes(tag, 4, b); }
  ExifBuilder& rational(uint16_t tag, uint32_t numerator, uint32_t denominator) {
    Bytes b;
    put32(b, numerator);
    put32(b, denominator);
    return bytes(tag, 5, b);
  }
  // An entry whose count and value field are written as given.
  ExifBuilder& raw(uint16_t tag, uint16_t format, uint32_t count, uint32_t valueField) {
    dirs_.back().push_back({tag, format, count, {}, valueField});
    return *this;
  }
  ExifBuilder& firstOffset(uint32_t offset) { first_ = offset; return *this; }  // default 8
  // The last directory links back to directory `index` instead of ending the chain.
  ExifBuilder& loopTo(size_t index) { loop_ = index; return *this; }
  // The last directory has no link field (it ends the block).
  ExifBuilder& withoutLastLink() { lastLink_ = false; return *this; }

  Bytes app1() const;   // "Exif\0\0" and the TIFF structure: an APP1 marker's data
  Bytes block() const;  // two length bytes in front of app1(): what process_EXIF takes

  // Numbers in the builder's byte order.
  void put16(Bytes& b, uint32_t v) const { put8(b, big_ ? v >> 8 : v); put8(b, big_ ? v : v >> 8); }
  void put32(Bytes& b, uint32_t v) const { put16(b, big_ ? v >> 16 : v); put16(b, big_ ? v : v >> 16); }

 private:
  struct Entry {
    uint16_t tag, format;
    uint32_t count;
    Bytes value;                    // laid out by the builder
    std::optional<uint32_t> field;  // or this value field as it stands
  };
  bool big_;
  uint32_t first_ = 8;
  std::optional<size_t> loop_;
  bool lastLink_ = true;
  std::vector<std::vector<Entry>> dirs_;
};

}  // namespace vtest
