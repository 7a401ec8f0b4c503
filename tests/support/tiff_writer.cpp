// tests/support/tiff_writer.cpp
#include "tests/support/tiff_writer.h"

#include <tiffio.h>

#include <algorithm>
#include <stdexcept>
#include <string>

#include "tests/support/temp_file.h"

namespace vtest {

namespace {

// Rows [y0, y0 + rows) of columns [x0, x0 + columns); all samples, or the
// one plane given. Samples are packed MSB first, rows starting on a byte;
// 16-bit ones in the machine's order, which libtiff turns into the file's.
// Pixels outside the picture repeat its edge, as encoders pad (JPEG rings at
// an edge to zero).
Bytes pack(const TiffPicture& s, uint32_t x0, uint32_t columns, uint32_t y0, uint32_t rows, int plane) {
  Bytes out;
  const uint32_t mask = s.bits == 32 ? UINT32_MAX : (1u << s.bits) - 1;
  for (uint32_t y = y0; y < y0 + rows; ++y) {
    uint32_t used = 0;
    for (uint32_t x = x0; x < x0 + columns; ++x)
      for (uint32_t c = 0; c < s.samples; ++c) {
        if (plane >= 0 && c != uint32_t(plane)) continue;
        const uint32_t v = s.sample(std::min(x, s.width - 1), std::min(y, s.height - 1), c) & mask;
        if (s.bits == 16) {
          const uint16_t v16 = uint16_t(v);
          const auto* p = reinterpret_cast<const uint8_t*>(&v16);
          out.insert(out.end(), p, p + 2);
          continue;
        }
        for (int b = s.bits - 1; b >= 0; --b, ++used) {
          if (used % 8 == 0) out.push_back(0);
          out.back() |= uint8_t(((v >> b) & 1) << (7 - used % 8));
        }
      }
  }
  return out;
}

void check(bool ok, const char* what) {
  if (!ok) throw std::runtime_error(std::string("tiffFile: ") + what);
}

void writePage(TIFF* tif, const TiffPicture& s) {
  TIFFSetField(tif, TIFFTAG_IMAGEWIDTH, s.width);
  TIFFSetField(tif, TIFFTAG_IMAGELENGTH, s.height);
  TIFFSetField(tif, TIFFTAG_BITSPERSAMPLE, s.bits);
  TIFFSetField(tif, TIFFTAG_SAMPLESPERPIXEL, s.samples);
  TIFFSetField(tif, TIFFTAG_SAMPLEFORMAT, s.sampleFormat);
  TIFFSetField(tif, TIFFTAG_PHOTOMETRIC, s.photometric);
  TIFFSetField(tif, TIFFTAG_PLANARCONFIG, s.separatePlanes ? PLANARCONFIG_SEPARATE : PLANARCONFIG_CONTIG);
  TIFFSetField(tif, TIFFTAG_COMPRESSION, s.compression);
  TIFFSetField(tif, TIFFTAG_ORIENTATION, s.orientation);
  if (s.compression == COMPRESSION_JPEG && s.photometric == PHOTOMETRIC_YCBCR)
    TIFFSetField(tif, TIFFTAG_JPEGCOLORMODE, JPEGCOLORMODE_RGB);  // we hand over RGB
  if (!s.extraSamples.empty())
    TIFFSetField(tif, TIFFTAG_EXTRASAMPLES, uint16_t(s.extraSamples.size()), s.extraSamples.data());
  if (!s.colourMap.empty()) {
    const size_t n = s.colourMap.size() / 3;
    TIFFSetField(tif, TIFFTAG_COLORMAP, s.colourMap.data(), s.colourMap.data() + n, s.colourMap.data() + 2 * n);
  }
  if (s.xResolution > 0) {
    TIFFSetField(tif, TIFFTAG_XRESOLUTION, s.xResolution);
    TIFFSetField(tif, TIFFTAG_YRESOLUTION, s.yResolution);
    TIFFSetField(tif, TIFFTAG_RESOLUTIONUNIT, s.resolutionUnit);
  }
  const int planes = s.separatePlanes ? s.samples : 1;
  const auto planeOf = [&](int p) { return s.separatePlanes ? p : -1; };
  if (s.tileSide) {
    TIFFSetField(tif, TIFFTAG_TILEWIDTH, s.tileSide);
    TIFFSetField(tif, TIFFTAG_TILELENGTH, s.tileSide);
    for (int p = 0; p < planes; ++p)
      for (uint32_t y = 0; y < s.height; y += s.tileSide)
        for (uint32_t x = 0; x < s.width; x += s.tileSide) {
          Bytes tile = pack(s, x, s.tileSide, y, s.tileSide, planeOf(p));
          check(TIFFWriteEncodedTile(tif, TIFFComputeTile(tif, x, y, 0, uint16_t(p)), tile.data(),
                                     tmsize_t(tile.size())) >= 0, "tile");
        }
  } else {
    TIFFSetField(tif, TIFFTAG_ROWSPERSTRIP, s.rowsPerStrip);
    for (int p = 0; p < planes; ++p)
      for (uint32_t y = 0; y < s.height; y += s.rowsPerStrip) {
        const uint32_t rows = std::min(s.rowsPerStrip, s.height - y);
        Bytes strip = pack(s, 0, s.width, y, rows, planeOf(p));
        check(TIFFWriteEncodedStrip(tif, TIFFComputeStrip(tif, y, uint16_t(p)), strip.data(),
                                    tmsize_t(strip.size())) >= 0, "strip");
      }
  }
  check(TIFFWriteDirectory(tif), "directory");
}

}  // namespace

Bytes tiffFile(const TiffPicture& pic) {
  const TempFile file(Bytes{}, ".tif");
  TIFF* tif = TIFFOpen(file.path(), pic.bigEndian ? "wb" : "wl");
  check(tif != nullptr, "open");
  for (int page = 0; page < pic.pages; ++page) writePage(tif, pic);
  TIFFClose(tif);
  return readFile(file.path());
}

}  // namespace vtest
