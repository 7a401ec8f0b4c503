// tests/support/big_endian.h: big-endian writers for the fixtures of the
// formats that store their numbers most significant byte first.
#pragma once

#include <string_view>

#include "tests/support/bytes.h"

namespace vtest {

inline void put16be(Bytes& b, uint32_t v) {
  b.push_back(uint8_t(v >> 8));
  b.push_back(uint8_t(v));
}
inline void put32be(Bytes& b, uint32_t v) {
  put16be(b, v >> 16);
  put16be(b, v & 0xFFFF);
}
inline void putFloatBe(Bytes& b, float f) {
  uint32_t bits;
  static_assert(sizeof bits == sizeof f);
  __builtin_memcpy(&bits, &f, sizeof f);
  put32be(b, bits);
}
// UTF-16 code units, big-endian, without a terminator.
inline void putUtf16(Bytes& b, std::u16string_view s) {
  for (char16_t c : s) put16be(b, c);
}

}  // namespace vtest
