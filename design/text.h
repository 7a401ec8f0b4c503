// design/text.h: number scanning for the text headers of the design formats.
//
// The headers are read the way scanf's %d and atoi read them, but a number
// too long for 32 bits saturates instead of being undefined, so that it fails
// whatever range test follows.
#pragma once

#include <cstdint>

namespace ldr {

// White space as isspace sees it in the C locale.
constexpr bool isBlank(char c) noexcept { return c == ' ' || (c >= '\t' && c <= '\r'); }

// scanf's %d: white space, an optional sign, at least one digit. On success
// `p` is moved past the number.
inline bool scanInt(const char*& p, int32_t& value) noexcept {
  const char* q = p;
  while (isBlank(*q)) ++q;
  const bool negative = *q == '-';
  if (*q == '-' || *q == '+') ++q;
  if (*q < '0' || *q > '9') return false;
  int64_t v = 0;
  for (; *q >= '0' && *q <= '9'; ++q)
    if (v <= INT32_MAX) v = v * 10 + (*q - '0');
  if (v > INT32_MAX) v = int64_t{INT32_MAX} + 1;
  v = negative ? -v : v;
  value = v > INT32_MAX ? INT32_MAX : v < INT32_MIN ? INT32_MIN : int32_t(v);
  p = q;
  return true;
}

// atoi: the number that leads the text, 0 when there is none.
inline int32_t leadingInt(const char* p) noexcept {
  int32_t v = 0;
  return scanInt(p, v) ? v : 0;
}

// scanf's literal character: matches only that character, no white space before it.
inline bool scanChar(const char*& p, char c) noexcept {
  if (*p != c) return false;
  ++p;
  return true;
}

}  // namespace ldr
