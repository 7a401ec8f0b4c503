// tools/drive.h: drives a loader through the whole protocol, as a host does.
// Shared by the vload tool, the tests, the fuzzers and the benchmarks.
#pragma once

#include <cstdint>
#include <functional>

#include "vload.h"

namespace vload_tool {

struct Description {
  uint32_t loader = 0;  // the installed loader number
  uint8_t layout = 0;
  uint32_t width = 0, height = 0;
  uint32_t xDensity = 0, yDensity = 0;
  uint32_t xRepeat = 0, yRepeat = 0;
  uint8_t mirrorX = 0, firstPart = 0;
  uint8_t colourMap[256 * 3] = {};
  char info[VLOAD_INFO_TEXT_SIZE] = {};
  int32_t stride = 0;  // bytes of one row of the layout, unpadded; 0 when it does not fit
};

// Installs `loader` (0: detect) for `path` in the calling thread. Returns the
// installed loader number, or the code returnLoaderFunctions answered.
uint32_t install(int32_t loader, const char* path);

// Calls the installed tryLoad and fills `d` (its loader field is kept).
uint32_t describe(const char* path, Description& d, bool readColourMap);

// Bytes a buffer of the whole picture needs; 0 when that does not fit memory sizes.
uint64_t imageBytes(const Description& d);

// Delivers every row into `image` (height x stride bytes) in calls of
// `bandRows` rows (0: the whole picture at once), pointing each call's buffer
// where the loader expects it. Stops at the first non-zero status and returns
// it. `progress`, if set, hears the rows delivered after each call.
uint32_t deliverAll(const Description& d, uint8_t* image, uint32_t bandRows,
                    const std::function<void(uint32_t)>& progress = {});

// Calls the installed endLoad.
void endLoad();

}  // namespace vload_tool
