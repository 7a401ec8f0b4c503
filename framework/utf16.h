// framework/utf16.h: text that files keep as UTF-16, for info texts and the tool.
#pragma once

#include <cstdint>
#include <span>
#include <string>

namespace ldr {

// UTF-16 in either byte order to UTF-8, up to the first NUL or the last whole
// code unit; unpaired surrogates become U+FFFD.
std::string utf8FromUtf16(std::span<const uint8_t> utf16, bool bigEndian);

}  // namespace ldr
