// framework/loader.cpp: shared pieces of the loader adapters.
#include "framework/loader.h"

#include <cstdio>

namespace ldr {

void Picture::setInfo(const char* format, ...) noexcept {
  va_list args;
  va_start(args, format);
  std::vsnprintf(info, sizeof info, format, args);
  va_end(args);
}

}  // namespace ldr
