// framework/status.h: the status codes every loader speaks, by name.
#pragma once

#include <cstdint>

namespace ldr {

// The numbers are the public contract (see include/vload.h); inside the
// library the names are used, and code() converts at the C boundary.
enum class [[nodiscard]] Status : uint32_t {
  Ok = 0,
  NoMemory = 2,
  CannotOpen = 3,
  BadRequest = 4,
  Unsupported = 5,
  NotThisFormat = 6,
  BadData = 7,
};

constexpr uint32_t code(Status s) noexcept { return static_cast<uint32_t>(s); }

}  // namespace ldr
