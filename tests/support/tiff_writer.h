// tests/support/tiff_writer.h: TIFF files written with libtiff from a
// description: any photometric interpretation, depth and sample count, strips
// or tiles, planes together or apart, either byte order, any compression
// libtiff writes, resolution, orientation and several pages.
#pragma once

#include <cstdint>
#include <functional>
#include <vector>

#include "tests/support/bytes.h"

namespace vtest {

struct TiffPicture {
  uint32_t width = 37, height = 21;
  uint16_t photometric = 2;  // PHOTOMETRIC_RGB
  uint16_t bits = 8, samples = 3;
  std::vector<uint16_t> extraSamples = {};  // EXTRASAMPLE_* of the samples beyond the colour ones
  uint16_t sampleFormat = 1;           // SAMPLEFORMAT_UINT
  bool separatePlanes = false;
  uint16_t compression = 1;  // COMPRESSION_NONE
  bool bigEndian = false;
  uint32_t rowsPerStrip = 3;
  uint32_t tileSide = 0;  // square tiles of this side instead of strips (a multiple of 16)
  uint16_t orientation = 1;
  std::vector<uint16_t> colourMap = {};  // red, then green, then blue entries
  float xResolution = 0, yResolution = 0;  // written when non-zero
  uint16_t resolutionUnit = 2;
  int pages = 1;
  // Sample c of pixel (x, y); only its low `bits` bits are written.
  std::function<uint32_t(uint32_t x, uint32_t y, uint32_t c)> sample = [](uint32_t x, uint32_t y, uint32_t c) {
    return x * 2971 + y * 4111 + c * 7919 + x * y * 13;
  };
};

Bytes tiffFile(const TiffPicture& pic);

}  // namespace vtest
