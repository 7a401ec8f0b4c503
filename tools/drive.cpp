// tools/drive.cpp: the protocol as a host drives it.
#include "tools/drive.h"

#include "framework/catalogue.h"
#include "framework/checked.h"

namespace vload_tool {

uint32_t install(int32_t loader, const char* path) { return returnLoaderFunctions(loader, path); }

uint32_t describe(const char* path, Description& d, bool readColourMap) {
  const TryLoadFn tryLoad = getTryLoad();
  if (!tryLoad) return VLOAD_BAD_REQUEST;
  const uint32_t status =
      tryLoad(path, &d.layout, &d.width, &d.height, &d.xDensity, &d.yDensity, &d.xRepeat,
              &d.yRepeat, d.colourMap, d.info, &d.mirrorX, &d.firstPart, readColourMap ? 1 : 0);
  const auto row = ldr::layoutRowBytes(d.layout, d.width);
  d.stride = status == VLOAD_OK && row ? int32_t(*row) : 0;
  return status;
}

uint64_t imageBytes(const Description& d) {
  uint64_t bytes = 0;
  if (d.stride <= 0 || !ldr::mulOk(uint64_t(d.stride), uint64_t{d.height}, bytes)) return 0;
  return bytes <= uint64_t(SIZE_MAX) ? bytes : 0;
}

uint32_t deliverAll(const Description& d, uint8_t* image, uint32_t bandRows,
                    const std::function<void(uint32_t)>& progress) {
  const ldr::LoaderInfo* info = ldr::loaderInfo(int32_t(d.loader));
  const LoadBandFn loadBand = getLoadBand();
  if (!info || !loadBand || d.stride <= 0) return VLOAD_BAD_REQUEST;
  const uint32_t band = ldr::bandRows(*info, bandRows, d.height);
  for (uint32_t done = 0; done < d.height;) {
    const uint32_t rows = band < d.height - done ? band : d.height - done;
    uint8_t* at = ldr::bandBuffer(*info, d.layout, d.width, image, done, d.stride);
    if (const uint32_t status = loadBand(at, int32_t(rows), d.stride, nullptr)) return status;
    done += rows;
    if (progress) progress(done);
  }
  return VLOAD_OK;
}

void endLoad() {
  if (const EndLoadFn end = getEndLoad()) end(nullptr, 0, 0, nullptr);
}

}  // namespace vload_tool
