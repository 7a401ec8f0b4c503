// raster/tiff.cpp: TIFF loader (loader 5), on libtiff.
// Reads: the first page of classic and BigTIFF files, in strips or tiles,
// with any compression libtiff decodes: bilevel pictures (layout 0, a set bit
// dark whatever the photometric interpretation), grey of 2, 4, 8 and 16 bits
// and palette pictures of 2, 4 and 8 bits (layout 1: grey through a grey map,
// palette through the file's map cut to 8 bits), RGB (2), RGB or grey with
// associated or unassociated alpha (7, straight alpha), CMYK (2, converted);
// 16-bit samples are cut to their high byte; samples stored in separate
// planes are interleaved here. YCbCr, CIE L*a*b* and the other kinds
// libtiff's RGBA interface knows go through that interface (2, or 7 with
// alpha).
// Refuses: files without a TIFF signature or whose directory libtiff cannot
// read (6); sides outside 1..262140 (7); floating-point and signed samples,
// 16-bit palettes, tiles narrower than a byte boundary, buffers above 256 MiB
// and what the RGBA interface does not read (5).
// Delivery: band addressing; rows come in stored order whatever the
// orientation. Densities from the resolution tags in thousandths of a dpi
// (centimetres converted; without a unit, two numbers in the pixel aspect).
// mirrorX is set for orientations 2 and 3, whose first column lies on the
// right. The information text gives the page count and the compression.
// libtiff's warnings go through ErrNonfatal; its errors, reported to handlers
// of this load alone, become statuses.
#include <fcntl.h>
#include <tiffio.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <memory>

#include "framework/checked.h"
#include "framework/file.h"
#include "framework/loader.h"
#include "vload.h"

namespace ldr {
namespace {

// ---- Limits and constants

constexpr uint32_t kMaxDimension = 262140;
// The largest buffer this loader takes for one file (a row, a row of tiles,
// a band of the RGBA interface) and the largest single allocation libtiff may
// make for it. Headers that need more are refused rather than trusted.
constexpr uint64_t kMaxBufferBytes = uint64_t{256} << 20;
constexpr size_t kMessageBytes = 256;
constexpr uint32_t kRgbaChunkRows = 64;  // RGBA interface bands when strips are too big to take whole

// ---- State

struct CloseTiff {
  void operator()(TIFF* t) const noexcept { TIFFClose(t); }
};
using Tiff = std::unique_ptr<TIFF, CloseTiff>;

// libtiff's RGBA reader; ended before the file it reads is closed.
struct RgbaReader {
  TIFFRGBAImage image{};
  bool begun = false;
  RgbaReader() = default;
  RgbaReader(const RgbaReader&) = delete;
  RgbaReader& operator=(const RgbaReader&) = delete;
  ~RgbaReader() {
    if (begun) TIFFRGBAImageEnd(&image);
  }
};

enum class Path : uint8_t {
  Strips,       // samples together: rows, or whole strips, straight into the caller's rows
  PlaneStrips,  // planes apart: a strip of each plane, interleaved into held rows
  Tiles,        // a row of tiles (of each plane), laid side by side into held rows
  Rgba,         // libtiff's RGBA interface into held rows
};

// How a decoded row becomes a delivered row.
enum class Conversion : uint8_t {
  Copy,        // the decoded row is the delivered row
  InvertBits,  // bilevel whose set bit is light
  Unpack,      // 2 or 4 bits a pixel to one index byte
  Pixels,      // 8- or 16-bit samples through a colour model
};

enum class Model : uint8_t { Grey, GreyAlpha, Rgb, Rgba, RgbaAssociated, Cmyk };

struct Plan {
  Path path = Path::Strips;
  Conversion conversion = Conversion::Copy;
  Model model = Model::Grey;
  uint8_t layout = VLOAD_LAYOUT_RGB;
  uint32_t bits = 8;     // bits a sample
  uint32_t samples = 1;  // samples a pixel in a decoded row
  bool separate = false;  // the file stores each sample in a plane of its own
};

struct TiffState {
  std::unique_ptr<RgbaReader> rgba;  // before `tif`: ended before the file closes
  Tiff tif;
  bool libraryError = false;  // libtiff reported an error during this load
  Plan plan;
  uint32_t width = 0, height = 0;
  uint32_t outRowBytes = 0;
  uint64_t scanline = 0;       // bytes of one decoded row, samples together
  uint64_t planeRowBytes = 0;  // bytes of one row as the file stores it (of one plane)
  uint32_t rowsPerStrip = 0;   // rows of a strip, or of a row of tiles
  uint32_t tileWidth = 0;
  uint64_t tileBytes = 0, tileRowBytes = 0;
  Block scratch;  // one decoded row, a strip of one plane, one tile, or nothing
  Block rows;     // held rows: samples together, or RGBA pixels
  uint32_t rowsFirst = 0, rowsHeld = 0;  // picture rows that `rows` holds
  uint32_t chunkRows = 0;                // RGBA interface rows per call
  uint32_t delivered = 0;
  Status failed = Status::Ok;
};
thread_local TiffState t_tiff;

void release() noexcept { t_tiff = {}; }

// ---- libtiff's messages

int onError(TIFF*, void* user, const char*, const char*, va_list) {
  static_cast<TiffState*>(user)->libraryError = true;
  return 1;  // handled: libtiff's process-wide handlers stay silent
}

int onWarning(TIFF*, void*, const char* module, const char* format, va_list args) {
  char text[kMessageBytes];
  std::vsnprintf(text, sizeof text, format, args);
  ErrNonfatal("TIFF %s: %s", module ? module : "", text);
  return 1;
}

struct FreeOptions {
  void operator()(TIFFOpenOptions* o) const noexcept { TIFFOpenOptionsFree(o); }
};

// Opens with handlers and an allocation limit that belong to this load
// alone, so that threads never share libtiff's process-wide handlers.
Status openTiff(const char* fileName, TiffState& st) {
  const std::unique_ptr<TIFFOpenOptions, FreeOptions> options(TIFFOpenOptionsAlloc());
  if (!options) return Status::NoMemory;
  TIFFOpenOptionsSetErrorHandlerExtR(options.get(), onError, &st);
  TIFFOpenOptionsSetWarningHandlerExtR(options.get(), onWarning, &st);
  TIFFOpenOptionsSetMaxSingleMemAlloc(options.get(), tmsize_t(kMaxBufferBytes));
  const int fd = ::open(fileName, O_RDONLY | O_CLOEXEC);
  if (fd < 0) return Status::CannotOpen;
  // "m": no memory mapping, so a file cut short under us is a read error
  // rather than a bus error.
  st.tif.reset(TIFFFdOpenExt(fd, fileName, "rm", options.get()));
  if (!st.tif) {
    ::close(fd);
    return Status::NotThisFormat;
  }
  return Status::Ok;
}

// ---- Header

bool looksLikeTiff(const uint8_t* b, int64_t size) {
  if (size < 8) return false;
  const bool little = b[0] == 'I' && b[1] == 'I' && b[3] == 0 && (b[2] == 42 || b[2] == 43);
  const bool big = b[0] == 'M' && b[1] == 'M' && b[2] == 0 && (b[3] == 42 || b[3] == 43);
  return little || big;
}

// The tags of the first page that decide how it is read.
struct Tags {
  uint32_t width = 0, height = 0;
  uint16_t bits = 1, samples = 1, photometric = 0, planar = PLANARCONFIG_CONTIG;
  uint16_t sampleFormat = SAMPLEFORMAT_UINT, inkSet = INKSET_CMYK;
  uint16_t firstExtra = EXTRASAMPLE_UNSPECIFIED;  // the kind of the first extra sample
  uint16_t extras = 0;
  uint16_t* red = nullptr;  // the colour map, 1 << bits entries a channel
  uint16_t* green = nullptr;
  uint16_t* blue = nullptr;
};

Tags readTags(TIFF* tif) {
  Tags t;
  TIFFGetField(tif, TIFFTAG_IMAGEWIDTH, &t.width);
  TIFFGetField(tif, TIFFTAG_IMAGELENGTH, &t.height);
  TIFFGetFieldDefaulted(tif, TIFFTAG_BITSPERSAMPLE, &t.bits);
  TIFFGetFieldDefaulted(tif, TIFFTAG_SAMPLESPERPIXEL, &t.samples);
  TIFFGetField(tif, TIFFTAG_PHOTOMETRIC, &t.photometric);
  TIFFGetFieldDefaulted(tif, TIFFTAG_PLANARCONFIG, &t.planar);
  TIFFGetFieldDefaulted(tif, TIFFTAG_SAMPLEFORMAT, &t.sampleFormat);
  TIFFGetFieldDefaulted(tif, TIFFTAG_INKSET, &t.inkSet);
  uint16_t* types = nullptr;
  if (TIFFGetField(tif, TIFFTAG_EXTRASAMPLES, &t.extras, &types) && t.extras && types)
    t.firstExtra = types[0];
  if (t.photometric == PHOTOMETRIC_PALETTE)
    TIFFGetField(tif, TIFFTAG_COLORMAP, &t.red, &t.green, &t.blue);
  return t;
}

bool hasAlpha(const Tags& t) {
  return t.extras && (t.firstExtra == EXTRASAMPLE_ASSOCALPHA || t.firstExtra == EXTRASAMPLE_UNASSALPHA);
}

// A bilevel palette whose first colour is the darker comes out complemented,
// so that the set bit is the dark one.
bool firstColourDarker(const Tags& t) {
  return uint32_t{t.red[0]} + t.green[0] + t.blue[0] < uint32_t{t.red[1]} + t.green[1] + t.blue[1];
}

// Chooses how the page is read and delivered; Path::Rgba when this loader's
// own conversions do not cover it.
Plan choosePlan(const Tags& t, bool tiled) {
  Plan p;
  p.path = tiled ? Path::Tiles : Path::Strips;
  p.bits = t.bits;
  p.samples = t.samples;
  const bool grey = t.photometric == PHOTOMETRIC_MINISWHITE || t.photometric == PHOTOMETRIC_MINISBLACK;
  const bool wide = t.bits == 8 || t.bits == 16;
  const bool alpha = hasAlpha(t);
  const auto pixels = [&](Model m, uint8_t layout) {
    p.conversion = Conversion::Pixels;
    p.model = m;
    p.layout = layout;
    return p;
  };
  const auto direct = [&](uint8_t layout) {
    p.layout = layout;
    return p;
  };
  // Planes apart are interleaved here for 8- and 16-bit samples.
  p.separate = t.planar == PLANARCONFIG_SEPARATE && t.samples > 1;
  if (p.separate && !tiled) p.path = Path::PlaneStrips;
  if (p.separate && !wide) {
    p.path = Path::Rgba;
    return p;
  }
  if (t.bits == 1 && t.samples == 1 && (grey || t.photometric == PHOTOMETRIC_PALETTE)) {
    const bool lightSet = t.photometric == PHOTOMETRIC_PALETTE ? firstColourDarker(t)
                                                               : t.photometric == PHOTOMETRIC_MINISBLACK;
    p.conversion = lightSet ? Conversion::InvertBits : Conversion::Copy;
    return direct(VLOAD_LAYOUT_BILEVEL);
  }
  if ((grey || t.photometric == PHOTOMETRIC_PALETTE) && t.samples == 1 &&
      (t.bits == 2 || t.bits == 4 || t.bits == 8)) {
    p.conversion = t.bits == 8 ? Conversion::Copy : Conversion::Unpack;
    return direct(VLOAD_LAYOUT_INDEXED);
  }
  if (grey && wide) return alpha && t.samples >= 2 ? pixels(Model::GreyAlpha, VLOAD_LAYOUT_RGBA)
                                                   : pixels(Model::Grey, VLOAD_LAYOUT_INDEXED);
  if (t.photometric == PHOTOMETRIC_RGB && wide && t.samples >= 3) {
    if (!alpha || t.samples < 4) {
      if (t.bits == 8 && t.samples == 3) return direct(VLOAD_LAYOUT_RGB);
      return pixels(Model::Rgb, VLOAD_LAYOUT_RGB);
    }
    if (t.firstExtra == EXTRASAMPLE_ASSOCALPHA) return pixels(Model::RgbaAssociated, VLOAD_LAYOUT_RGBA);
    if (t.bits == 8 && t.samples == 4) return direct(VLOAD_LAYOUT_RGBA);
    return pixels(Model::Rgba, VLOAD_LAYOUT_RGBA);
  }
  if (t.photometric == PHOTOMETRIC_SEPARATED && t.inkSet == INKSET_CMYK && wide && t.samples >= 4)
    return pixels(Model::Cmyk, VLOAD_LAYOUT_RGB);
  p.path = Path::Rgba;
  return p;
}

// Thousandths of a dot per inch from a resolution tag; 0 when the value is
// no density (absent, not finite, not positive, beyond 32 bits).
uint32_t density(float resolution, uint16_t unit) {
  const double perInch = unit == RESUNIT_CENTIMETER ? resolution * 2.54 : resolution;
  const double v = std::round(perInch * 1000.0);
  return std::isfinite(v) && v >= 1.0 && v < 4294967296.0 ? uint32_t(v) : 0;
}

void readDensities(TIFF* tif, Picture& out) {
  float x = 0, y = 0;
  uint16_t unit = RESUNIT_INCH;
  TIFFGetFieldDefaulted(tif, TIFFTAG_RESOLUTIONUNIT, &unit);
  if (TIFFGetField(tif, TIFFTAG_XRESOLUTION, &x)) out.xDensity = density(x, unit);
  if (TIFFGetField(tif, TIFFTAG_YRESOLUTION, &y)) out.yDensity = density(y, unit);
}

void describeFile(TIFF* tif, Picture& out) {
  uint16_t compression = COMPRESSION_NONE;
  TIFFGetFieldDefaulted(tif, TIFFTAG_COMPRESSION, &compression);
  const TIFFCodec* codec = TIFFFindCODEC(compression);
  const unsigned pages = TIFFNumberOfDirectories(tif);
  char name[16];
  std::snprintf(name, sizeof name, "%u", compression);
  out.setInfo("%u page%s, compression: %s", pages, pages == 1 ? "" : "s", codec ? codec->name : name);
}

// ---- Colour maps

// Quirk: a map whose every entry is below 256 was written with 8-bit values
// by an old writer; libtiff's RGBA interface reads such maps as 8-bit, and so
// does this loader, rather than cutting them to black.
void paletteMap(const Tags& t, uint8_t* map) {
  const uint32_t entries = 1u << t.bits;
  bool eightBit = true;
  for (uint32_t i = 0; i < entries; ++i) eightBit &= t.red[i] < 256 && t.green[i] < 256 && t.blue[i] < 256;
  const int shift = eightBit ? 0 : 8;
  for (uint32_t i = 0; i < entries; ++i) {
    map[3 * i] = uint8_t(t.red[i] >> shift);
    map[3 * i + 1] = uint8_t(t.green[i] >> shift);
    map[3 * i + 2] = uint8_t(t.blue[i] >> shift);
  }
}

void greyMap(const Tags& t, uint8_t* map) {
  const uint32_t levels = t.bits >= 8 ? 256 : 1u << t.bits;
  for (uint32_t i = 0; i < levels; ++i) {
    uint8_t v = uint8_t(i * 255 / (levels - 1));
    if (t.photometric == PHOTOMETRIC_MINISWHITE) v = uint8_t(255 - v);
    map[3 * i] = map[3 * i + 1] = map[3 * i + 2] = v;
  }
}

// ---- Preparing delivery

// Rows whose decoded form has the delivered size are decoded straight into
// the caller's buffer and, for bilevel, complemented there.
bool readsInPlace(const Plan& p) {
  return p.conversion == Conversion::Copy || p.conversion == Conversion::InvertBits;
}

Status prepareStrips(TiffState& st) {
  uint32_t rows = 0;
  TIFFGetFieldDefaulted(st.tif.get(), TIFFTAG_ROWSPERSTRIP, &rows);
  st.rowsPerStrip = std::clamp<uint32_t>(rows, 1, st.height);
  if (st.plan.path == Path::Strips && !readsInPlace(st.plan)) {
    st.scratch = allocBlock(size_t(st.scanline));
    if (!st.scratch) return Status::NoMemory;
  }
  return Status::Ok;
}

// Held rows for a strip or a row of tiles, and scratch for what one read
// decodes: a strip of one plane, or one tile.
Status prepareHeldRows(TiffState& st) {
  TIFF* tif = st.tif.get();
  uint64_t scratchBytes = 0, rowsBytes = 0;
  if (st.plan.path == Path::Tiles) {
    uint32_t tileLength = 0;
    TIFFGetField(tif, TIFFTAG_TILEWIDTH, &st.tileWidth);
    TIFFGetField(tif, TIFFTAG_TILELENGTH, &tileLength);
    st.tileBytes = scratchBytes = TIFFTileSize64(tif);
    st.tileRowBytes = TIFFTileRowSize64(tif);
    // Tiles are laid side by side at whole bytes.
    const uint64_t bitsPerPixel = uint64_t{st.plan.bits} * (st.plan.separate ? 1 : st.plan.samples);
    if (st.tileWidth == 0 || tileLength == 0 || st.tileBytes == 0 || st.tileWidth * bitsPerPixel % 8)
      return Status::Unsupported;
    st.rowsPerStrip = std::min(tileLength, st.height);
  } else if (const Status s = prepareStrips(st); s != Status::Ok) {
    return s;
  } else if (!mulOk(uint64_t{st.rowsPerStrip}, st.planeRowBytes, scratchBytes)) {
    return Status::Unsupported;
  }
  if (!mulOk(uint64_t{st.rowsPerStrip}, st.scanline, rowsBytes) || rowsBytes > kMaxBufferBytes ||
      scratchBytes > kMaxBufferBytes)
    return Status::Unsupported;
  st.scratch = allocBlock(size_t(scratchBytes));
  st.rows = allocBlock(size_t(rowsBytes));
  return st.scratch && st.rows ? Status::Ok : Status::NoMemory;
}

Status prepareRgba(TiffState& st, Picture& out) {
  TIFF* tif = st.tif.get();
  char message[1024] = "";
  if (!TIFFRGBAImageOK(tif, message)) return Status::Unsupported;
  st.rgba = std::make_unique<RgbaReader>();
  TIFFRGBAImage& img = st.rgba->image;
  if (!TIFFRGBAImageBegin(&img, tif, 1, message)) return Status::Unsupported;
  st.rgba->begun = true;
  img.req_orientation = img.orientation;  // rows in stored order, as the other paths give them
  out.layout = st.plan.layout = img.alpha ? VLOAD_LAYOUT_RGBA : VLOAD_LAYOUT_RGB;
  // Whole strips or rows of tiles at a time, so that none is decoded twice,
  // unless that takes more than the buffer limit.
  uint32_t unit = 0;
  if (TIFFIsTiled(tif)) TIFFGetField(tif, TIFFTAG_TILELENGTH, &unit);
  else TIFFGetFieldDefaulted(tif, TIFFTAG_ROWSPERSTRIP, &unit);
  const uint64_t rowBytes = uint64_t{st.width} * 4;
  uint64_t rows = std::clamp<uint64_t>(unit, 1, st.height);
  if (rows * rowBytes > kMaxBufferBytes) rows = std::min<uint64_t>(kRgbaChunkRows, st.height);
  if (rows * rowBytes > kMaxBufferBytes) return Status::Unsupported;
  st.chunkRows = uint32_t(rows);
  st.rows = allocBlock(size_t(rows * rowBytes));
  return st.rows ? Status::Ok : Status::NoMemory;
}

// ---- Loader operations

Status describe(const char* fileName, Picture& out, uint8_t* colorMap, bool readColorMap) {
  release();
  const uint8_t* probe = loadImgCheckHeader(fileName);
  if (!probe || !looksLikeTiff(probe, loadImgLastFilesize())) return Status::NotThisFormat;
  TiffState& st = t_tiff;
  if (const Status s = openTiff(fileName, st); s != Status::Ok) return s;
  TIFF* tif = st.tif.get();

  const Tags tags = readTags(tif);
  if (tags.width < 1 || tags.width > kMaxDimension || tags.height < 1 || tags.height > kMaxDimension)
    return Status::BadData;
  st.width = tags.width;
  st.height = tags.height;
  if (tags.sampleFormat != SAMPLEFORMAT_UINT && tags.sampleFormat != SAMPLEFORMAT_VOID)
    return Status::Unsupported;
  if (tags.photometric == PHOTOMETRIC_PALETTE && !tags.red && tags.bits <= 8) return Status::NotThisFormat;
  st.plan = choosePlan(tags, TIFFIsTiled(tif));
  st.planeRowBytes = TIFFScanlineSize64(tif);
  st.scanline = st.plan.separate ? uint64_t{st.width} * st.plan.samples * (st.plan.bits / 8) : st.planeRowBytes;
  if (st.planeRowBytes == 0) return Status::NotThisFormat;
  // Up to 65535 samples a pixel make rows of gigabytes within the side limit.
  if (st.scanline > kMaxBufferBytes) return Status::Unsupported;

  out.width = st.width;
  out.height = st.height;
  out.layout = st.plan.layout;
  readDensities(tif, out);
  uint16_t orientation = ORIENTATION_TOPLEFT;
  TIFFGetFieldDefaulted(tif, TIFFTAG_ORIENTATION, &orientation);
  out.mirrorX = orientation == ORIENTATION_TOPRIGHT || orientation == ORIENTATION_BOTRIGHT;

  Status s = Status::Ok;
  switch (st.plan.path) {
    case Path::Strips: s = prepareStrips(st); break;
    case Path::PlaneStrips:
    case Path::Tiles: s = prepareHeldRows(st); break;
    case Path::Rgba: s = prepareRgba(st, out); break;
  }
  if (s != Status::Ok) return s;
  if (st.plan.layout == VLOAD_LAYOUT_INDEXED && readColorMap) {
    std::memset(colorMap, 0, kColourMapBytes);
    if (tags.photometric == PHOTOMETRIC_PALETTE) paletteMap(tags, colorMap);
    else greyMap(tags, colorMap);
  }
  st.outRowBytes = *layoutRowBytes(st.plan.layout, st.width);  // sides are within the limits
  describeFile(tif, out);
  st.libraryError = false;  // what libtiff recovered from while opening does not fail delivery
  return Status::Ok;
}

// ---- Rows

uint8_t mul255(uint32_t a, uint32_t b) {
  const uint32_t t = a * b + 128;
  return uint8_t(((t >> 8) + t) >> 8);
}

// Straight alpha from premultiplied: a transparent pixel has no colour.
void unpremultiply(uint8_t* px) {
  const uint32_t a = px[3];
  if (a == 255) return;
  for (int c = 0; c < 3; ++c) px[c] = a ? uint8_t(std::min<uint32_t>(255, px[c] * 255u / a)) : 0;
}

template <int SampleBytes>
uint8_t sampleAt(const uint8_t* row, size_t i) {
  if constexpr (SampleBytes == 1) {
    return row[i];
  } else {
    uint16_t v;
    std::memcpy(&v, row + 2 * i, 2);
    return uint8_t(v >> 8);
  }
}

template <int SampleBytes>
void convertPixels(const Plan& p, uint32_t width, const uint8_t* src, uint8_t* dst) {
  const size_t n = p.samples;
  const auto s = [&](uint32_t x, size_t c) { return sampleAt<SampleBytes>(src, x * n + c); };
  for (uint32_t x = 0; x < width; ++x) {
    switch (p.model) {
      case Model::Grey: dst[x] = s(x, 0); break;
      case Model::GreyAlpha:
        dst[4 * x] = dst[4 * x + 1] = dst[4 * x + 2] = s(x, 0);
        dst[4 * x + 3] = s(x, 1);
        break;
      case Model::Rgb:
        for (int c = 0; c < 3; ++c) dst[3 * x + c] = s(x, c);
        break;
      case Model::Rgba:
      case Model::RgbaAssociated:
        for (int c = 0; c < 4; ++c) dst[4 * x + c] = s(x, c);
        if (p.model == Model::RgbaAssociated) unpremultiply(dst + 4 * x);
        break;
      case Model::Cmyk: {
        const uint32_t nk = 255u - s(x, 3);
        for (int c = 0; c < 3; ++c) dst[3 * x + c] = uint8_t(nk - mul255(s(x, c), nk));
        break;
      }
    }
  }
}

void convertRow(const TiffState& st, const uint8_t* src, uint8_t* dst) {
  const Plan& p = st.plan;
  switch (p.conversion) {
    case Conversion::Copy:
      if (src != dst) std::memcpy(dst, src, st.outRowBytes);
      break;
    case Conversion::InvertBits:
      for (uint32_t k = 0; k < st.outRowBytes; ++k) dst[k] = uint8_t(~src[k]);
      break;
    case Conversion::Unpack: {
      const uint32_t mask = (1u << p.bits) - 1;
      for (uint32_t x = 0; x < st.width; ++x) {
        const uint32_t bit = x * p.bits;
        dst[x] = uint8_t(src[bit / 8] >> (8 - p.bits - bit % 8) & mask);
      }
      break;
    }
    case Conversion::Pixels:
      if (p.bits == 16) convertPixels<2>(p, st.width, src, dst);
      else convertPixels<1>(p, st.width, src, dst);
      break;
  }
  // Bits past the last pixel read as clear, whatever the file held there.
  if (p.layout == VLOAD_LAYOUT_BILEVEL && st.width % 8) dst[st.outRowBytes - 1] &= uint8_t(0xFF00 >> st.width % 8);
}

// Strips: a whole strip goes straight into the caller's rows when it fits
// the band and the rows are packed; otherwise rows are decoded one at a time,
// into the caller's row when no conversion needs a copy.
Status deliverStrips(TiffState& st, const Band& band) {
  TIFF* tif = st.tif.get();
  const uint32_t rows = uint32_t(band.rowCount);
  for (uint32_t i = 0; i < rows;) {
    const uint32_t row = st.delivered + i;
    uint8_t* dst = rowAt(band.buffer, i, band.rowStride);
    const uint32_t inStrip = std::min(st.rowsPerStrip, st.height - row);
    if (readsInPlace(st.plan) && row % st.rowsPerStrip == 0 && inStrip <= rows - i &&
        uint64_t(band.rowStride) == st.scanline) {
      const tmsize_t want = tmsize_t(inStrip * st.scanline);
      if (TIFFReadEncodedStrip(tif, TIFFComputeStrip(tif, row, 0), dst, want) != want) return Status::BadData;
      for (uint32_t k = 0; k < inStrip; ++k) convertRow(st, rowAt(dst, k, band.rowStride), rowAt(dst, k, band.rowStride));
      i += inStrip;
      continue;
    }
    uint8_t* decoded = readsInPlace(st.plan) ? dst : st.scratch.get();
    if (TIFFReadScanline(tif, decoded, row, 0) < 0) return Status::BadData;
    convertRow(st, decoded, dst);
    ++i;
  }
  return Status::Ok;
}

// Copies `rows` rows of `pixels` pixels from `src` (rows `srcRowBytes`
// apart) into the held rows from pixel `x`: whole pixels when the file keeps
// the samples together, sample `plane` of each pixel when it keeps them apart.
void place(TiffState& st, const uint8_t* src, uint64_t srcRowBytes, uint32_t rows, uint32_t x,
           uint32_t pixels, uint32_t plane) {
  const Plan& p = st.plan;
  if (!p.separate) {
    const uint64_t at = uint64_t{x} * p.bits * p.samples / 8;
    const size_t bytes = size_t(std::min(srcRowBytes, st.scanline - at));
    for (uint32_t k = 0; k < rows; ++k) std::memcpy(st.rows.get() + k * st.scanline + at, src + k * srcRowBytes, bytes);
    return;
  }
  const size_t sampleBytes = p.bits / 8, pixelBytes = sampleBytes * p.samples;
  for (uint32_t k = 0; k < rows; ++k) {
    const uint8_t* from = src + k * srcRowBytes;
    uint8_t* to = st.rows.get() + k * st.scanline + x * pixelBytes + plane * sampleBytes;
    for (uint32_t i = 0; i < pixels; ++i, from += sampleBytes, to += pixelBytes) std::memcpy(to, from, sampleBytes);
  }
}

// The strip or row of tiles that holds `row`, decoded into the held rows.
Status fillHeldRows(TiffState& st, uint32_t row) {
  TIFF* tif = st.tif.get();
  const uint32_t first = row - row % st.rowsPerStrip;
  const uint32_t count = std::min(st.rowsPerStrip, st.height - first);
  const uint32_t planes = st.plan.separate ? st.plan.samples : 1;
  for (uint32_t plane = 0; plane < planes; ++plane) {
    if (st.plan.path == Path::PlaneStrips) {
      const tmsize_t want = tmsize_t(count * st.planeRowBytes);
      if (TIFFReadEncodedStrip(tif, TIFFComputeStrip(tif, first, uint16_t(plane)), st.scratch.get(), want) != want)
        return Status::BadData;
      place(st, st.scratch.get(), st.planeRowBytes, count, 0, st.width, plane);
      continue;
    }
    for (uint32_t x = 0; x < st.width; x += st.tileWidth) {
      if (TIFFReadEncodedTile(tif, TIFFComputeTile(tif, x, first, 0, uint16_t(plane)), st.scratch.get(),
                              tmsize_t(st.tileBytes)) < 0)
        return Status::BadData;
      place(st, st.scratch.get(), st.tileRowBytes, count, x, std::min(st.tileWidth, st.width - x), plane);
    }
  }
  st.rowsFirst = first;
  st.rowsHeld = count;
  return Status::Ok;
}

// The RGBA interface: a band of rows at a time into 32-bit pixels, which are
// R, G, B, A in memory order on a little-endian machine.
Status fillRgbaRows(TiffState& st, uint32_t row) {
  TIFFRGBAImage& img = st.rgba->image;
  const uint32_t count = std::min(st.chunkRows, st.height - row);
  img.row_offset = int(row);
  img.col_offset = 0;
  if (!TIFFRGBAImageGet(&img, reinterpret_cast<uint32_t*>(st.rows.get()), st.width, count))
    return Status::BadData;
  st.rowsFirst = row;
  st.rowsHeld = count;
  return Status::Ok;
}

void convertRgbaRow(const TiffState& st, const uint8_t* src, uint8_t* dst) {
  const auto* px = reinterpret_cast<const uint32_t*>(src);
  const bool alpha = st.plan.layout == VLOAD_LAYOUT_RGBA;
  for (uint32_t x = 0; x < st.width; ++x) {
    const uint32_t v = px[x];
    uint8_t* out = dst + x * (alpha ? 4 : 3);
    out[0] = uint8_t(TIFFGetR(v));
    out[1] = uint8_t(TIFFGetG(v));
    out[2] = uint8_t(TIFFGetB(v));
    if (alpha) {
      out[3] = uint8_t(TIFFGetA(v));
      unpremultiply(out);  // the RGBA interface premultiplies
    }
  }
}

Status deliverHeldRows(TiffState& st, const Band& band) {
  const bool rgba = st.plan.path == Path::Rgba;
  const uint64_t heldRowBytes = rgba ? uint64_t{st.width} * 4 : st.scanline;
  for (uint32_t i = 0; i < uint32_t(band.rowCount); ++i) {
    const uint32_t row = st.delivered + i;
    if (row >= st.rowsFirst + st.rowsHeld || st.rowsHeld == 0) {
      const Status s = rgba ? fillRgbaRows(st, row) : fillHeldRows(st, row);
      if (s != Status::Ok) return s;
    }
    const uint8_t* src = st.rows.get() + (row - st.rowsFirst) * heldRowBytes;
    uint8_t* dst = rowAt(band.buffer, i, band.rowStride);
    if (rgba) convertRgbaRow(st, src, dst);
    else convertRow(st, src, dst);
  }
  return Status::Ok;
}

Status deliver(const Band& band) {
  TiffState& st = t_tiff;
  if (st.failed != Status::Ok) return st.failed;
  if (!st.tif || !band.buffer || band.rowCount < 0 || band.rowStride < 0 ||
      uint32_t(band.rowStride) < st.outRowBytes || uint32_t(band.rowCount) > st.height - st.delivered)
    return Status::BadRequest;
  Status s = st.plan.path == Path::Strips ? deliverStrips(st, band) : deliverHeldRows(st, band);
  if (s == Status::Ok && st.libraryError) s = Status::BadData;
  if (s != Status::Ok) return st.failed = s;
  st.delivered += uint32_t(band.rowCount);
  return Status::Ok;
}

}  // namespace
}  // namespace ldr

extern "C" void registerLoadTIFF(void) {
  ldr::registerOperations<ldr::describe, ldr::deliver, ldr::release>();
}
