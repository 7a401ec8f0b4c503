// raster/pcx.cpp: PCX loader (loader 3).
// Reads: run-length encoded PCX up to version 5: one bit in one plane (indices
// 0 and 1, black and white), one bit a plane in several planes (planar, up to
// 256 colours), 8 bits in one plane, all as one index byte a pixel; and 8 bits
// in three planes as R, G, B. The colour map comes from the header, or for
// version 5 from the 256-colour map at the end of the file when one is there.
// Refuses: a first byte other than 10, a version of 6 or more, an encoding
// other than 1, sides outside 1..262140, more than 256 colours other than 8
// bits in 3 planes (6); a file shorter than its header (3). A read error
// while decoding gives 7.
// Delivery: colour-mapped pictures line by line, with band addressing.
// 24-bit pictures need readColorMap (else loadBand gives 7); rows go to the
// caller's buffer by absolute row number when the stride is exactly three
// bytes a pixel, by row of the call otherwise (see deliverRgb()).
// Quirk: runs cross line ends, and a colour-mapped line that runs out of data
// reads on as runs of 255, so a truncated file ends in rows of index 255.
// Quirk: any colour count other than 2 and 256 is read as one bit a plane,
// also where a plane holds more bits a pixel (only its top bit counts).
// Quirk: a 24-bit picture whose brightest byte lies between 1 and 254 is
// stretched so that this byte becomes 255 (see scanRgb()).
#include <sys/types.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <span>

#include "framework/checked.h"
#include "framework/file.h"
#include "framework/io.h"
#include "framework/loader.h"
#include "framework/pixels.h"
#include "framework/read_ahead.h"
#include "vload.h"

namespace ldr {
namespace {

// ---- Limits and constants

constexpr size_t kHeaderBytes = 128;
constexpr uint8_t kManufacturer = 10;
constexpr uint8_t kFirstUnknownVersion = 6;
constexpr uint8_t kRunLength = 1;
constexpr uint8_t kTrailingMapVersion = 5;
constexpr int32_t kDimensionLimit = 262141;  // sides must stay below this
constexpr size_t kHeaderMapAt = 16;
constexpr uint32_t kHeaderMapEntries = 16;
constexpr off_t kTrailerBytes = 1 + 768;  // the marker byte 12 and 256 colours
constexpr uint8_t kTrailerMarker = 12;
constexpr uint8_t kRunMark = 0xC0;  // a byte with both top bits set starts a run
constexpr uint32_t kRunCount = 0x3F;
constexpr uint32_t kMaxIndexedBits = 8;

// ---- Header

struct PcxHeader {
  uint8_t version = 0;
  uint32_t bitsPerPlane = 0, planes = 0;
  int32_t width = 0, height = 0;
  uint32_t xDpi = 0, yDpi = 0;
  uint32_t bytesPerLine = 0;
};

uint32_t le16(const uint8_t* p) { return uint32_t(p[0]) | uint32_t(p[1]) << 8; }

bool looksLikePcx(std::span<const uint8_t> bytes) {
  return bytes.size() >= 3 && bytes[0] == kManufacturer && bytes[1] < kFirstUnknownVersion &&
         bytes[2] == kRunLength;
}

PcxHeader parseHeader(const uint8_t* h) {
  PcxHeader p;
  p.version = h[1];
  p.bitsPerPlane = h[3];
  p.width = int32_t(le16(h + 8)) - int32_t(le16(h + 4)) + 1;
  p.height = int32_t(le16(h + 10)) - int32_t(le16(h + 6)) + 1;
  p.xDpi = le16(h + 12);
  p.yDpi = le16(h + 14);
  p.planes = h[65];
  p.bytesPerLine = le16(h + 66);
  return p;
}

// ---- Runs

struct Runs {
  uint32_t count = 0;  // bytes of `value` still to come
  uint8_t value = 0;
};

// Reads one run; false at the end of the data. With `endReads255`, the end
// of the data reads as bytes of 255, that is a run of 63 bytes of 255.
template <bool kEndReads255>
bool readRun(ReadAhead& in, Runs& run) {
  int b = in.next();
  if (b < 0) {
    if (!kEndReads255) return false;
    b = 255;
  }
  if ((b & kRunMark) != kRunMark) {
    run = {1, uint8_t(b)};
    return true;
  }
  int v = in.next();
  if (v < 0) {
    if (!kEndReads255) return false;
    v = 255;
  }
  run = {uint32_t(b) & kRunCount, uint8_t(v)};
  return true;
}

// `count` bytes of `value` at `at`, where `room` bytes are free: short runs,
// the usual ones, as one word when it fits (the line's zero tail must stay).
inline void fillRun(uint8_t* at, uint8_t value, uint32_t count, uint32_t room) {
  if (count == 1) {
    *at = value;
  } else if (count <= 8 && room >= 8) {
    const uint64_t word = value * uint64_t{0x0101010101010101};
    std::memcpy(at, &word, 8);
  } else {
    std::memset(at, value, count);
  }
}

// Fills `line` with `length` decoded bytes, going on from `run`, and leaves
// what is left of the last run in it. Returns the bytes stored.
//   Colour-mapped lines (kMapped): the end of the data reads as 255, so the
//   line always fills; a line that a run ends exactly reads the next run
//   before it returns. Only a read error fails (0 bytes stored is reported).
//   24-bit lines: the end of the data stops decoding; fewer bytes come back.
template <bool kMapped>
uint32_t decodeLine(ReadAhead& in, Runs& run, uint8_t* line, uint32_t length) {
  uint32_t stored = 0;
  for (;;) {
    const uint32_t n = std::min(run.count, length - stored);
    std::memset(line + stored, run.value, n);
    stored += n;
    run.count -= n;
    if (run.count) return stored;  // the run goes on in the next line

    // Literal bytes and whole runs straight from the buffer.
    const uint8_t* p = in.data();
    const uint8_t* const end = p + in.available();
    while (stored < length && end - p >= 2) {
      const uint8_t b = *p;
      if ((b & kRunMark) != kRunMark) {
        line[stored++] = b;
        ++p;
        continue;
      }
      const uint32_t count = b & kRunCount;
      const uint8_t value = p[1];
      p += 2;
      const uint32_t k = std::min(count, length - stored);
      fillRun(line + stored, value, k, length - stored);
      stored += k;
      if (count > k) {
        in.advance(size_t(p - in.data()));
        run = {count - k, value};
        return stored;
      }
    }
    in.advance(size_t(p - in.data()));

    if (stored == length) {
      if constexpr (kMapped) {
        readRun<true>(in, run);
        return in.failed() ? 0 : stored;
      }
      return stored;
    }
    if (!readRun<kMapped>(in, run)) return stored;
  }
}

// ---- State

struct PcxState {
  File file;
  ReadAhead in;  // at the first byte after the header
  Runs runs;
  Block line;  // one decoded line, zero-filled beyond it up to the widest read
  uint32_t width = 0, height = 0;
  uint32_t planes = 0, bytesPerLine = 0, lineBytes = 0;
  uint32_t colours = 0;  // 2 to 256, or 0 for 24 bits
  uint32_t delivered = 0;
  // Once the data has ended every further line is the same, all 255 for
  // colour-mapped pictures and all 0 for 24 bits; it is made once, however
  // long the lines and many the rows a header declares.
  bool ended = false;
  bool endLineReady = false;
  bool rgbReady = false;  // describe scanned the 24-bit data
  bool stretching = false;
  uint8_t stretch[256] = {};   // 24-bit byte values as delivered, when stretching
  Status failed = Status::Ok;  // sticky: a load that failed keeps failing
};
thread_local PcxState t_pcx;

void release() noexcept { t_pcx = {}; }

// The line buffer: the decoded line, and zeros beyond it as far as a width
// larger than the line makes the pixel rules read (the widest: width bytes
// after the last plane's start).
bool allocLine(PcxState& st) {
  st.line = allocBlock(size_t{st.lineBytes} + st.width + 8);
  return bool(st.line);
}

// ---- Colour map

// Header map entries copied as the colour count asks; only the first 16 are
// in the file, the rest come out black.
void headerMap(const uint8_t* header, uint32_t colours, uint8_t* colorMap) {
  const uint32_t copied = std::min(colours, kHeaderMapEntries);
  std::memcpy(colorMap, header + kHeaderMapAt, size_t{copied} * 3);
  std::memset(colorMap + size_t{copied} * 3, 0, size_t{colours - copied} * 3);
}

// The 256-colour map after a marker byte 12 at 769 bytes from the end of a
// version-5 file; false when there is none.
bool trailingMap(int fd, int64_t fileSize, uint8_t* colorMap) {
  if (fileSize < kTrailerBytes) return false;
  uint8_t trailer[kTrailerBytes] = {};
  if (readAt(fd, trailer, kTrailerBytes, off_t(fileSize - kTrailerBytes)) == 0 ||
      trailer[0] != kTrailerMarker)
    return false;
  std::memcpy(colorMap, trailer + 1, kTrailerBytes - 1);
  return true;
}

// ---- 24-bit pictures

// The first pass over the 24-bit data: finds the brightest byte the picture
// decodes to (line padding included) and sets up the stretch.
// Quirk: a brightest byte b between 1 and 254 stretches every byte v to
// v * 255 div b, so that b becomes 255. Pictures that are dark on purpose
// come out brighter; other readers deliver the bytes as stored.
void scanRgb(PcxState& st) {
  uint8_t brightest = 0;
  for (uint32_t y = 0; y < st.height; ++y) {
    const uint32_t got = decodeLine<false>(st.in, st.runs, st.line.get(), st.lineBytes);
    for (uint32_t i = 0; i < got; ++i) brightest = std::max(brightest, st.line[i]);
    if (got < st.lineBytes) break;
  }
  st.stretching = brightest >= 1 && brightest <= 254;
  for (uint32_t v = 0; st.stretching && v < 256; ++v)
    st.stretch[v] = uint8_t(std::min(v, uint32_t{brightest}) * 255 / brightest);
}

// One row of the second pass: three planes into R, G, B pixels; columns past
// the width are dropped, and pixels the line does not reach are black.
void decodeRgbRow(PcxState& st, uint8_t* dst) {
  if (!st.ended) {
    const uint32_t got = decodeLine<false>(st.in, st.runs, st.line.get(), st.lineBytes);
    std::memset(st.line.get() + got, 0, st.lineBytes - got);
    st.ended = got < st.lineBytes;
  } else if (!st.endLineReady) {
    std::memset(st.line.get(), 0, st.lineBytes);
    st.endLineReady = true;
  }
  const uint8_t* r = st.line.get();
  const uint8_t* g = r + st.bytesPerLine;
  const uint8_t* b = g + st.bytesPerLine;
  const uint32_t covered = std::min(st.width, st.bytesPerLine);
  if (st.stretching) {
    const uint8_t* t = st.stretch;
    for (uint32_t x = 0; x < covered; ++x) {
      dst[3 * x] = t[r[x]];
      dst[3 * x + 1] = t[g[x]];
      dst[3 * x + 2] = t[b[x]];
    }
  } else {
    interleave3(r, g, b, dst, covered);
  }
  std::memset(dst + size_t{covered} * 3, 0, size_t{st.width - covered} * 3);
}

// ---- Colour-mapped rows

// Each byte b as eight bytes, its bits from the most significant on.
constexpr auto kSpread = [] {
  std::array<uint64_t, 256> t{};
  for (uint32_t b = 0; b < 256; ++b)
    for (uint32_t k = 0; k < 8; ++k) t[b] |= uint64_t((b >> (7 - k)) & 1) << (8 * k);
  return t;
}();

// Pixels from one bit a plane: bit p of pixel x's index is bit 7 - x mod 8 of
// byte x div 8 of plane p (planes past the eighth fall outside an index byte).
void planarRow(const PcxState& st, uint8_t* dst) {
  const uint32_t planes = std::min(st.planes, kMaxIndexedBits);
  const uint8_t* line = st.line.get();
  for (uint32_t x = 0; x < st.width; x += 8) {
    uint64_t eight = 0;
    for (uint32_t p = 0; p < planes; ++p) eight |= kSpread[line[p * st.bytesPerLine + x / 8]] << p;
    std::memcpy(dst + x, &eight, std::min<uint32_t>(8, st.width - x));
  }
}

void mappedRow(const PcxState& st, uint8_t* dst) {
  if (st.colours == 256) std::memcpy(dst, st.line.get(), st.width);
  else planarRow(st, dst);  // two colours are one plane of one bit
}

// ---- Loader operations

Status describe(const char* fileName, Picture& out, uint8_t* colorMap, bool readColorMap) {
  t_pcx = {};
  const uint8_t* probe = loadImgCheckHeader(fileName);
  if (!probe) return Status::NotThisFormat;
  const int64_t fileSize = loadImgLastFilesize();
  if (!looksLikePcx({probe, size_t(std::clamp<int64_t>(fileSize, 0, 256))})) return Status::NotThisFormat;

  PcxState& st = t_pcx;
  st.file = openForReading(fileName);
  if (!st.file) return Status::CannotOpen;
  const int fd = ::fileno(st.file.get());
  if (!st.in.start(fd, 0)) return Status::NoMemory;
  uint8_t header[kHeaderBytes];
  if (st.in.read(header, kHeaderBytes) != kHeaderBytes || st.in.failed()) return Status::CannotOpen;
  if (header[0] != kManufacturer || header[1] >= kFirstUnknownVersion) return Status::NotThisFormat;
  const PcxHeader h = parseHeader(header);
  if (h.width <= 0 || h.width >= kDimensionLimit || h.height <= 0 || h.height >= kDimensionLimit)
    return Status::NotThisFormat;

  const uint32_t bits = h.bitsPerPlane * h.planes;
  st.colours = bits <= kMaxIndexedBits ? 1u << bits : 0;
  if (st.colours == 2) {
    std::memset(header + kHeaderMapAt, 0, 3);
    std::memset(header + kHeaderMapAt + 3, 255, 3);
  }
  if (h.version != kTrailingMapVersion || !trailingMap(fd, fileSize, colorMap))
    if (st.colours) headerMap(header, st.colours, colorMap);
  if (!st.colours && (h.bitsPerPlane != 8 || h.planes != 3)) return Status::NotThisFormat;

  st.width = uint32_t(h.width);
  st.height = uint32_t(h.height);
  st.planes = h.planes;
  st.bytesPerLine = h.bytesPerLine;
  st.lineBytes = h.bytesPerLine * h.planes;
  out.layout = st.colours ? VLOAD_LAYOUT_INDEXED : VLOAD_LAYOUT_RGB;
  out.width = st.width;
  out.height = st.height;
  out.xDensity = h.xDpi * 1000;
  out.yDensity = h.yDpi * 1000;
  if (st.colours || !readColorMap) return Status::Ok;

  // The whole 24-bit picture is read now, to find its brightest byte; rows
  // are decoded again as loadBand asks for them.
  if (!allocLine(st)) return Status::NoMemory;
  const off_t data = st.in.position();
  scanRgb(st);
  st.runs = {};
  if (!st.in.start(fd, data)) return Status::NoMemory;
  st.rgbReady = true;
  return Status::Ok;
}

// Quirk: with a stride of exactly three bytes a pixel the buffer is the whole
// picture and rows go to their absolute row number; with any other stride
// they go to the rows of the call. Hosts that pad their rows hand over each
// band's own buffer.
Status deliverRgb(PcxState& st, const Band& band) {
  if (!st.rgbReady) return Status::BadData;
  const bool absolute = uint64_t(band.rowStride) == uint64_t{st.width} * 3;
  for (int32_t i = 0; i < band.rowCount; ++i) {
    const int64_t at = absolute ? int64_t{st.delivered} + i : i;
    decodeRgbRow(st, rowAt(band.buffer, at, band.rowStride));
  }
  st.delivered += uint32_t(band.rowCount);
  return Status::Ok;
}

Status deliver(const Band& band) {
  PcxState& st = t_pcx;
  if (st.failed != Status::Ok) return st.failed;
  const auto rowBytes = layoutRowBytes(st.colours ? VLOAD_LAYOUT_INDEXED : VLOAD_LAYOUT_RGB, st.width);
  if (!st.file || !band.buffer || band.rowCount < 0 || band.rowStride < 0 || !rowBytes ||
      uint32_t(band.rowStride) < *rowBytes || uint32_t(band.rowCount) > st.height - st.delivered)
    return Status::BadRequest;
  if (!st.colours) return st.failed = deliverRgb(st, band);
  if (!st.line && !allocLine(st)) return Status::NoMemory;
  for (int32_t i = 0; i < band.rowCount; ++i) {
    if (!st.ended) {
      if (decodeLine<true>(st.in, st.runs, st.line.get(), st.lineBytes) != st.lineBytes)
        return st.failed = Status::BadData;
      st.ended = st.in.atEnd() && (st.runs.count == 0 || st.runs.value == 255);
    } else if (!st.endLineReady) {
      std::memset(st.line.get(), 255, st.lineBytes);
      st.endLineReady = true;
    }
    mappedRow(st, rowAt(band.buffer, i, band.rowStride));
  }
  st.delivered += uint32_t(band.rowCount);
  return Status::Ok;
}

}  // namespace
}  // namespace ldr

extern "C" void registerLoadPCX(void) {
  ldr::registerOperations<ldr::describe, ldr::deliver, ldr::release>();
}
