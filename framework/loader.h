// framework/loader.h: what a loader is made of inside the library.
//
// A loader supplies three plain functions:
//   Status describe(const char* fileName, Picture& out, uint8_t* colorMap, bool readColorMap)
//   Status deliver(const Band& band)
//   void   release()
// and registers the adapters below, which give them the C signatures, catch
// allocation failures, keep NULL output pointers harmless, and make sure a
// failed describe leaves nothing open.
#pragma once

#include <cstdarg>
#include <cstdint>
#include <new>

#include "framework/status.h"
#include "vload.h"

namespace ldr {

inline constexpr int kColourMapEntries = 256;
inline constexpr int kColourMapBytes = kColourMapEntries * 3;

// The description tryLoad reports.
struct Picture {
  uint8_t requestedLayout = VLOAD_LAYOUT_BILEVEL;  // *pixelFormat on entry: what the host asks for
  uint8_t layout = VLOAD_LAYOUT_BILEVEL;
  uint32_t width = 0, height = 0;
  uint32_t xDensity = 0, yDensity = 0;  // thousandths of a dpi, 0 = unknown
  uint32_t xRepeat = 1, yRepeat = 1;
  uint8_t mirrorX = 0;
  uint8_t firstPart = 1;
  char info[VLOAD_INFO_TEXT_SIZE] = " ";

  // Formats the information text, cut to the buffer the host guarantees.
  void setInfo(const char* format, ...) noexcept __attribute__((format(printf, 2, 3)));
};

struct Band {
  uint8_t* buffer;
  int32_t rowCount;
  int32_t rowStride;
  void* context;
};

using Describe = Status (*)(const char* fileName, Picture& out, uint8_t* colorMap,
                            bool readColorMap);
using Deliver = Status (*)(const Band& band);
using Release = void (*)() noexcept;

template <Describe describe, Release release>
uint32_t tryLoadWith(const char* fileName, uint8_t* pixelFormat, uint32_t* width,
                     uint32_t* height, uint32_t* xDensity, uint32_t* yDensity, uint32_t* xRepeat,
                     uint32_t* yRepeat, uint8_t* colorMap, char* infoText, uint8_t* mirrorX,
                     uint8_t* firstPart, uint8_t readColorMap) noexcept {
  Picture pic;
  if (pixelFormat) pic.requestedLayout = *pixelFormat;
  uint8_t discardedMap[kColourMapBytes];
  Status s = Status::Ok;
  try {
    s = describe(fileName, pic, colorMap ? colorMap : discardedMap, readColorMap != 0);
  } catch (const std::bad_alloc&) {
    s = Status::NoMemory;
  }
  if (s != Status::Ok) {
    release();  // a failed tryLoad leaves nothing open
    return code(s);
  }
  if (pixelFormat) *pixelFormat = pic.layout;
  if (width) *width = pic.width;
  if (height) *height = pic.height;
  if (xDensity) *xDensity = pic.xDensity;
  if (yDensity) *yDensity = pic.yDensity;
  if (xRepeat) *xRepeat = pic.xRepeat;
  if (yRepeat) *yRepeat = pic.yRepeat;
  if (mirrorX) *mirrorX = pic.mirrorX;
  if (firstPart) *firstPart = pic.firstPart;
  if (infoText) {
    for (int i = 0; i < VLOAD_INFO_TEXT_SIZE; ++i) {
      infoText[i] = pic.info[i];
      if (!pic.info[i]) break;
    }
  }
  return code(s);
}

template <Deliver deliver>
uint32_t loadBandWith(uint8_t* buffer, int32_t rowCount, int32_t rowStride,
                      void* bandContext) noexcept {
  try {
    return code(deliver(Band{buffer, rowCount, rowStride, bandContext}));
  } catch (const std::bad_alloc&) {
    return code(Status::NoMemory);
  }
}

template <Release release>
uint32_t endLoadWith(uint8_t*, int32_t, int32_t, void*) noexcept {
  release();
  return 0;
}

template <Describe describe, Deliver deliver, Release release>
void registerOperations() noexcept {
  registerLoader(&tryLoadWith<describe, release>, &loadBandWith<deliver>, &endLoadWith<release>);
}

// The operations of a loader this build cannot read: tryLoad answers
// NotThisFormat, loadBand refuses, endLoad does nothing.
uint32_t unavailableTryLoad(const char*, uint8_t*, uint32_t*, uint32_t*, uint32_t*, uint32_t*,
                            uint32_t*, uint32_t*, uint8_t*, char*, uint8_t*, uint8_t*,
                            uint8_t) noexcept;
void registerUnavailable() noexcept;

}  // namespace ldr
