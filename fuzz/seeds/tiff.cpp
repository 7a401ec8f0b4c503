// Seeds for the TIFF loader: each way of reading (rows, whole strips, planes
// apart, tiles, the RGBA interface) and the common codecs, in both byte orders.
#include <tiffio.h>

#include "fuzz/seeds/seeds.h"
#include "tests/support/tiff_writer.h"

namespace {

vtest::TiffPicture small(uint16_t photometric, uint16_t bits, uint16_t samples, uint16_t compression) {
  vtest::TiffPicture s;
  s.width = 19;
  s.height = 9;
  s.photometric = photometric;
  s.bits = bits;
  s.samples = samples;
  s.compression = compression;
  return s;
}

void tiff(const vseed::Emit& emit) {
  emit(vtest::tiffFile(small(PHOTOMETRIC_RGB, 8, 3, COMPRESSION_LZW)), 5);
  vtest::TiffPicture fax = small(PHOTOMETRIC_MINISWHITE, 1, 1, COMPRESSION_CCITTFAX4);
  fax.rowsPerStrip = 9;
  emit(vtest::tiffFile(fax), 5);
  vtest::TiffPicture palette = small(PHOTOMETRIC_PALETTE, 4, 1, COMPRESSION_PACKBITS);
  palette.colourMap.assign(48, 0x7777);
  palette.tileSide = 16;
  palette.bigEndian = true;
  emit(vtest::tiffFile(palette), 5);
  vtest::TiffPicture grey = small(PHOTOMETRIC_MINISBLACK, 16, 2, COMPRESSION_ADOBE_DEFLATE);
  grey.extraSamples = {EXTRASAMPLE_ASSOCALPHA};
  grey.bigEndian = true;
  emit(vtest::tiffFile(grey), 5);
  vtest::TiffPicture planes = small(PHOTOMETRIC_SEPARATED, 8, 4, COMPRESSION_NONE);
  planes.separatePlanes = true;
  planes.xResolution = planes.yResolution = 300;
  planes.pages = 2;
  emit(vtest::tiffFile(planes), 5);
  vtest::TiffPicture ycbcr = small(PHOTOMETRIC_YCBCR, 8, 3, COMPRESSION_JPEG);
  ycbcr.rowsPerStrip = 16;
  emit(vtest::tiffFile(ycbcr), 5);
}

const bool added = vseed::add(tiff);

}  // namespace
