// tests/support/bytes.h: byte buffers and little-endian writers for fixtures.
#pragma once

#include <cstdint>
#include <string_view>
#include <vector>

namespace vtest {

using Bytes = std::vector<uint8_t>;

inline void put8(Bytes& b, uint32_t v) { b.push_back(uint8_t(v)); }
inline void put16le(Bytes& b, uint32_t v) {
  b.push_back(uint8_t(v));
  b.push_back(uint8_t(v >> 8));
}
inline void put32le(Bytes& b, uint32_t v) {
  put16le(b, v & 0xFFFF);
  put16le(b, v >> 16);
}
inline void putText(Bytes& b, std::string_view s) {
  for (char c : s) b.push_back(uint8_t(c));
}

// The first n bytes of b.
inline Bytes truncated(Bytes b, size_t n) {
  b.resize(n < b.size() ? n : b.size());
  return b;
}
inline Bytes patched8(Bytes b, size_t at, uint8_t v) {
  b.at(at) = v;
  return b;
}
inline Bytes patched32le(Bytes b, size_t at, uint32_t v) {
  for (int i = 0; i < 4; ++i) b.at(at + i) = uint8_t(v >> (8 * i));
  return b;
}

}  // namespace vtest
