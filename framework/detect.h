// framework/detect.h: picks a loader number from a file's name and first bytes.
#pragma once

#include <cstdint>

namespace ldr {

// The last three characters of a name, folded to lower case, packed with the
// first of them in the high byte; when the fifth character from the end is a
// full stop the fourth-from-last joins above them, so that four-letter
// extensions pack whole. 0xFFFFFFFF for a name of fewer than 2 characters.
uint32_t packedNameEnding(const char* fileName) noexcept;

// A loader number 1..77, or VLOAD_NOT_RECOGNISED, VLOAD_NOT_A_PICTURE or
// VLOAD_NAME_TOO_SHORT. Installs nothing.
uint32_t detectLoader(const char* fileName) noexcept;

}  // namespace ldr
