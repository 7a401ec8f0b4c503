// tests/support/harness.h: loads a file the way a host does and returns the
// picture with tightly packed rows.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <string>

#include "tests/support/bytes.h"
#include "tools/drive.h"

namespace vtest {

struct Loaded {
  uint32_t status = 0;  // tryLoad's status, or the first failing loadBand's
  bool delivering = false;  // the status came from loadBand
  vload_tool::Description description;
  Bytes rows;  // height rows of `description.stride` bytes, top-down
};

// Installs `loader` (0: detect), describes with the colour map, delivers in
// bands of `band` rows (0: all at once) and ends the load.
Loaded load(const char* path, int32_t loader = 0, uint32_t band = 0);

// Only the tryLoad status, with readColorMap as given; ends a successful load.
uint32_t tryLoadStatus(const char* path, int32_t loader, bool readColourMap = true);

}  // namespace vtest
