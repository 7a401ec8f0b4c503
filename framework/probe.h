// framework/probe.h: internal side of the header probe and the warning channel.
#pragma once

#include <cstdint>

namespace ldr {

// Drops the calling thread's cached header, so that the next probe reads the
// file whatever its name and size. For loaders that rewrite a file under a
// name the cache may already know.
void forgetCachedHeader() noexcept;

// SuppressNonFatalErrors, read and written without data races.
bool nonFatalErrorsSuppressed() noexcept;
void suppressNonFatalErrors(bool suppress) noexcept;

}  // namespace ldr
