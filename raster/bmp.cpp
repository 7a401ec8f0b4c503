// raster/bmp.cpp: BMP loader (loader 24).
// Reads: uncompressed Windows bitmaps with a 12-byte core header or a 40- or
// 125-byte header, 1, 4, 8, 24 and 32 bits per pixel, rows bottom-up.
// Refuses: other header sizes (108, 124 among them), planes other than 1,
// compressed and bit-field bitmaps, other depths (6); widths or heights
// outside 1..262140, top-down bitmaps included (7).
// Delivery: whole-image addressing. The buffer is the whole picture and file
// row k goes to picture row height - 1 - k, so every row lands in its final
// place whatever the band size.
// Quirk: pixel rows are read from where the colour table ends; the data
// offset of the file header is never used. A 24- or 32-bit bitmap that carries
// a colour table is therefore read from the start of that table.
// Quirk: a 1-bit picture whose first colour is darker than its second comes
// out complemented, so that bit 1 is the dark state whatever the table says.
#include <limits.h>
#include <sys/types.h>
#include <sys/uio.h>

#include <algorithm>
#include <cstring>
#include <span>
#include <string_view>

#include "framework/checked.h"
#include "framework/file.h"
#include "framework/io.h"
#include "framework/loader.h"
#include "framework/pixels.h"
#include "framework/settings.h"
#include "vload.h"

namespace ldr {
namespace {

// ---- Limits and constants

constexpr int32_t kMaxDimension = 262140;  // widths and heights above this are refused
constexpr size_t kFileHeaderBytes = 14;
constexpr uint32_t kCoreHeaderBytes = 12;
constexpr uint32_t kInfoHeaderBytes = 40;
constexpr uint32_t kLongInfoHeaderBytes = 125;  // read with the fields of the 40-byte header
constexpr size_t kMaxHeaderBytes = kFileHeaderBytes + kLongInfoHeaderBytes;
constexpr uint32_t kMaxAspect = 50;      // densities further apart than this are nonsense
constexpr uint32_t kMinAspectX = 10;     // the aspect test applies above these densities
constexpr uint32_t kMinAspectY = 1;
// Rows are read in pieces of about this size: the kernel copies pieces this
// large faster per byte than pieces of a quarter of the size, and a piece
// still fits the level-2 cache while its rows are converted.
constexpr size_t kChunkBytes = 1024 * 1024;
// Rows read straight into the caller's buffer go in batches of at most
// IOV_MAX / 2 rows (two pieces a row: the row and its padding).
constexpr size_t kInPlaceBatchBytes = 256 * 1024;
constexpr uint32_t kMaxInPlaceBatchRows = IOV_MAX / 2;

// ---- Header

struct BmpHeader {
  uint32_t headerBytes = 0;
  int32_t width = 0, height = 0;
  uint16_t bits = 0;
  uint32_t compression = 0;
  uint32_t coloursUsed = 0;
  uint32_t xPixelsPerMetre = 0, yPixelsPerMetre = 0;
};

uint16_t le16(const uint8_t* p) { return uint16_t(p[0] | p[1] << 8); }
uint32_t le32(const uint8_t* p) {
  return uint32_t(p[0]) | uint32_t(p[1]) << 8 | uint32_t(p[2]) << 16 | uint32_t(p[3]) << 24;
}

// The signature test on the first bytes of the file: "BM", a header size we
// read, and one plane. `bytes` holds at least the file header and the bitmap
// header up to its planes field, or the test fails.
bool looksLikeBmp(std::span<const uint8_t> bytes) {
  if (bytes.size() < kFileHeaderBytes + 4) return false;
  if (bytes[0] != 'B' || bytes[1] != 'M' || bytes[15] || bytes[16] || bytes[17]) return false;
  const uint8_t size = bytes[14];
  if (size != kCoreHeaderBytes && size != kInfoHeaderBytes && size != kLongInfoHeaderBytes)
    return false;
  const size_t planesAt = kFileHeaderBytes + (size == kCoreHeaderBytes ? 8 : 12);
  return bytes.size() >= planesAt + 2 && le16(&bytes[planesAt]) == 1;
}

// Fields of a header whose signature test passed; `bytes` is the file header
// and the whole bitmap header.
BmpHeader parseHeader(std::span<const uint8_t> bytes) {
  const uint8_t* h = bytes.data() + kFileHeaderBytes;
  BmpHeader b;
  b.headerBytes = h[0];
  if (b.headerBytes == kCoreHeaderBytes) {
    b.width = le16(h + 4);
    b.height = le16(h + 6);
    b.bits = le16(h + 10);
    return b;
  }
  b.width = int32_t(le32(h + 4));
  b.height = int32_t(le32(h + 8));
  b.bits = le16(h + 14);
  b.compression = le32(h + 16);
  b.xPixelsPerMetre = le32(h + 24);
  b.yPixelsPerMetre = le32(h + 28);
  b.coloursUsed = le32(h + 32);
  return b;
}

// Pixels per metre to thousandths of a dot per inch, truncated. A value that
// does not fit a signed 32-bit number is no real density: unknown.
uint32_t densityFromPixelsPerMetre(uint32_t ppm) {
  const double v = ppm * 25.4;
  return v < 2147483648.0 ? uint32_t(int32_t(v)) : 0;
}

// Densities further apart than 50 to 1 are taken for garbage.
void dropImplausibleAspect(uint32_t& x, uint32_t& y) {
  if (x <= kMinAspectX || y <= kMinAspectY) return;
  const uint32_t ratio = x > y ? x / y : y / x;
  if (ratio > kMaxAspect) x = y = 0;
}

// Quirk: designs saved under the ".dsn" extension carry their densities the
// other way round, so they are swapped for those names (longer than 5
// characters) alone.
bool hasSwappedDensities(const char* fileName) {
  const std::string_view name(fileName);
  if (name.size() <= 5) return false;
  const std::string_view ext = name.substr(name.size() - 4);
  return ext[0] == '.' && tolowerAZ(uint8_t(ext[1])) == 'd' && tolowerAZ(uint8_t(ext[2])) == 's' &&
         tolowerAZ(uint8_t(ext[3])) == 'n';
}

// ---- State

enum class Conversion : uint8_t { Copy, Invert, Bgr, Bgra, Nibbles, Bits };

struct BmpState {
  File file;
  off_t offset = 0;  // where the next stored row starts in the file
  // Rows are read ahead into `chunk` and copied or converted from there to
  // the caller's rows, but for Copy rows that go through the caches: those
  // are read straight into the caller's rows. For rows to stream or convert
  // the chunk is faster: the caller's rows start at addresses skewed from
  // their file offsets, and the kernel's copy to a skewed address costs more
  // than its copy to the chunk and a streamed copy onwards together.
  MatchedChunk chunk;
  uint32_t chunkCapacity = 0;  // rows the chunk holds
  uint32_t chunkRows = 0;      // rows in the chunk now
  uint32_t chunkNext = 0;      // next of them to deliver
  uint32_t rowsFetched = 0;    // rows read from the file so far
  uint32_t width = 0, height = 0;
  uint32_t storedRowBytes = 0;  // padded, as in the file
  uint32_t usedRowBytes = 0;    // without the padding
  uint32_t outRowBytes = 0;     // one row in the caller's buffer
  uint32_t delivered = 0;
  Conversion conversion = Conversion::Copy;
  Status failed = Status::Ok;  // sticky: a load that failed keeps failing
};
thread_local BmpState t_bmp;

void release() noexcept { t_bmp = {}; }

// ---- Colour table

// Reads `count` entries of `entryBytes` bytes; the first 256 go to `map` as
// R, G, B, the rest are skipped so that the rows start where they should.
// Entries the file does not hold read as black.
bool readColourTable(std::FILE* f, uint32_t count, uint32_t entryBytes, uint8_t* map) {
  uint8_t raw[kColourMapEntries * 4] = {};
  const uint32_t kept = std::min<uint32_t>(count, kColourMapEntries);
  (void)std::fread(raw, entryBytes, kept, f);
  std::memset(map, 0, kColourMapBytes);
  for (uint32_t i = 0; i < kept; ++i) {
    map[3 * i] = raw[entryBytes * i + 2];
    map[3 * i + 1] = raw[entryBytes * i + 1];
    map[3 * i + 2] = raw[entryBytes * i];
  }
  const off_t skipped = off_t(count - kept) * entryBytes;  // at most 2^32 x 4: fits off_t
  return skipped == 0 || fseeko(f, skipped, SEEK_CUR) == 0;
}

// ---- Loader operations

Status describe(const char* fileName, Picture& out, uint8_t* colorMap, bool readColorMap) {
  t_bmp = {};
  const uint8_t* probe = loadImgCheckHeader(fileName);
  if (!probe) return Status::NotThisFormat;
  const size_t probed = size_t(std::clamp<int64_t>(loadImgLastFilesize(), 0, 256));
  if (!looksLikeBmp({probe, probed})) return Status::NotThisFormat;

  BmpState& st = t_bmp;
  st.file = openForReading(fileName);
  if (!st.file) return Status::CannotOpen;
  uint8_t raw[kMaxHeaderBytes];
  const size_t headerBytes = kFileHeaderBytes + probe[14];
  if (!readExact(st.file.get(), raw, headerBytes)) return Status::NotThisFormat;
  // The file may have changed since it was probed: test what was read.
  if (!looksLikeBmp({raw, headerBytes}) || raw[14] != probe[14]) return Status::NotThisFormat;
  BmpHeader h = parseHeader({raw, headerBytes});

  if (h.headerBytes != kCoreHeaderBytes) {
    out.xDensity = densityFromPixelsPerMetre(h.xPixelsPerMetre);
    out.yDensity = densityFromPixelsPerMetre(h.yPixelsPerMetre);
    dropImplausibleAspect(out.xDensity, out.yDensity);
    if (hasSwappedDensities(fileName)) std::swap(out.xDensity, out.yDensity);
  }
  if (h.compression != 0) return Status::NotThisFormat;
  if (h.coloursUsed == 0 && h.bits != 24) h.coloursUsed = 1u << (h.bits % 32);

  const bool expand = upscale1BitBmp();
  const uint32_t w = uint32_t(h.width);  // range-checked below before any size is used
  switch (h.bits) {
    case 1:
      out.layout = expand ? VLOAD_LAYOUT_INDEXED : VLOAD_LAYOUT_BILEVEL;
      st.conversion = expand ? Conversion::Bits : Conversion::Copy;
      break;
    case 4: out.layout = VLOAD_LAYOUT_INDEXED; st.conversion = Conversion::Nibbles; break;
    case 8: out.layout = VLOAD_LAYOUT_INDEXED; st.conversion = Conversion::Copy; break;
    case 24: out.layout = VLOAD_LAYOUT_RGB; st.conversion = Conversion::Bgr; break;
    case 32: out.layout = VLOAD_LAYOUT_RGBA; st.conversion = Conversion::Bgra; break;
    default: return Status::NotThisFormat;
  }
  if (h.width <= 0 || h.width > kMaxDimension || h.height <= 0 || h.height > kMaxDimension)
    return Status::BadData;

  // Within the limits above every row size fits comfortably in 32 bits.
  st.usedRowBytes = *rowBytes(w, h.bits);
  st.storedRowBytes = *rowBytes(w, h.bits, 4);
  st.outRowBytes = *layoutRowBytes(out.layout, w);

  if (h.bits <= 8) {
    // The table is read even when the caller does not want it: it decides
    // the inversion, and the rows start behind it.
    uint8_t map[kColourMapBytes];
    const uint32_t entryBytes = h.headerBytes == kCoreHeaderBytes ? 3 : 4;
    if (!readColourTable(st.file.get(), h.coloursUsed, entryBytes, map)) return Status::BadData;
    if (readColorMap) std::memcpy(colorMap, map, sizeof map);
    const bool darkFirst = map[0] + map[1] + map[2] < map[3] + map[4] + map[5];
    if (h.bits == 1 && darkFirst && !expand) st.conversion = Conversion::Invert;
  }

  st.offset = ftello(st.file.get());
  if (st.offset < 0) return Status::BadData;
  st.chunkCapacity = std::clamp<uint32_t>(uint32_t(kChunkBytes / st.storedRowBytes), 1, uint32_t(h.height));
  if (!st.chunk.reserve(size_t{st.chunkCapacity} * st.storedRowBytes)) return Status::NoMemory;

  st.width = w;
  st.height = uint32_t(h.height);
  out.width = st.width;
  out.height = st.height;
  return Status::Ok;
}

// ---- Rows

uint8_t* destinationRow(const BmpState& st, const Band& band, uint32_t i) {
  return rowAt(band.buffer, int64_t{st.height} - st.delivered - i - 1, band.rowStride);
}

// Copy rows that go through the caches go from the file straight to their
// place in the caller's buffer, a batch at a time; the padding goes to a
// scratch pad. Returns the rows of the batch read whole.
uint32_t readRowsInPlace(BmpState& st, const Band& band, uint32_t first, uint32_t rows) {
  iovec pieces[2 * kMaxInPlaceBatchRows];
  uint8_t pad[4];
  const uint32_t padding = st.storedRowBytes - st.usedRowBytes;
  int count = 0;
  for (uint32_t i = 0; i < rows; ++i) {
    pieces[count++] = {destinationRow(st, band, first + i), st.usedRowBytes};
    if (padding) pieces[count++] = {pad, padding};
  }
  const size_t got = readAt(::fileno(st.file.get()), pieces, count, st.offset);
  st.offset += off_t(got);
  st.rowsFetched += uint32_t(got / st.storedRowBytes);
  return uint32_t(got / st.storedRowBytes);
}

// The next stored row from the read-ahead chunk; nullptr when the file ends
// before it.
const uint8_t* nextStoredRow(BmpState& st) {
  if (st.chunkNext == st.chunkRows) {
    const uint32_t want = std::min(st.chunkCapacity, st.height - st.rowsFetched);
    const size_t got = st.chunk.read(::fileno(st.file.get()), st.offset, size_t{want} * st.storedRowBytes);
    st.offset += off_t(got);
    st.chunkRows = uint32_t(got / st.storedRowBytes);
    st.chunkNext = 0;
    st.rowsFetched += st.chunkRows;
    if (st.chunkRows == 0) return nullptr;
  }
  return st.chunk.data() + size_t{st.chunkNext++} * st.storedRowBytes;
}

void convertRow(const BmpState& st, const uint8_t* src, uint8_t* dst, Store store) {
  switch (st.conversion) {
    case Conversion::Copy: copyBytes(src, dst, st.usedRowBytes, store); break;
    case Conversion::Invert:
      for (uint32_t k = 0; k < st.usedRowBytes; ++k) dst[k] = uint8_t(~src[k]);
      break;
    case Conversion::Bgr: swapRedBlue3(src, dst, st.width, store); break;
    case Conversion::Bgra: swapRedBlue4(src, dst, st.width, store); break;
    case Conversion::Nibbles:
      for (uint32_t x = 0; x + 1 < st.width; x += 2) {
        dst[x] = src[x / 2] >> 4;
        dst[x + 1] = src[x / 2] & 0x0F;
      }
      if (st.width & 1) dst[st.width - 1] = src[st.width / 2] >> 4;
      break;
    case Conversion::Bits:
      for (uint32_t x = 0; x < st.width; ++x) dst[x] = (src[x / 8] >> (7 - x % 8)) & 1;
      break;
  }
}

Status readInPlace(BmpState& st, const Band& band, uint32_t rows) {
  const uint32_t batchRows =
      std::clamp<uint32_t>(uint32_t(kInPlaceBatchBytes / st.storedRowBytes), 1, kMaxInPlaceBatchRows);
  for (uint32_t first = 0; first < rows; first += batchRows) {
    const uint32_t batch = std::min(batchRows, rows - first);
    if (readRowsInPlace(st, band, first, batch) < batch) return Status::BadData;
  }
  return Status::Ok;
}

Status readConverted(BmpState& st, const Band& band, uint32_t rows, Store store) {
  for (uint32_t i = 0; i < rows; ++i) {
    const uint8_t* src = nextStoredRow(st);
    if (!src) return Status::BadData;
    convertRow(st, src, destinationRow(st, band, i), store);
  }
  return Status::Ok;
}

Status deliver(const Band& band) {
  BmpState& st = t_bmp;
  if (st.failed != Status::Ok) return st.failed;
  if (!st.file || !band.buffer || band.rowCount < 0 || band.rowStride < 0 ||
      uint32_t(band.rowStride) < st.outRowBytes ||
      uint32_t(band.rowCount) > st.height - st.delivered)
    return Status::BadRequest;
  const uint32_t rows = uint32_t(band.rowCount);
  if (rows == 0) return Status::Ok;
  const Store store = prepareRows(destinationRow(st, band, rows - 1), destinationRow(st, band, 0), st.outRowBytes,
                                  uint64_t{st.height} * uint32_t(band.rowStride));
  // Rows the chunk holds already are delivered from there in any case.
  const bool inPlace = st.conversion == Conversion::Copy && store == Store::Cached && st.chunkNext == st.chunkRows;
  const Status s = inPlace ? readInPlace(st, band, rows) : readConverted(st, band, rows, store);
  if (store == Store::Streamed) fenceStreamed();
  if (s != Status::Ok) return st.failed = s;
  st.delivered += rows;
  return Status::Ok;
}

}  // namespace
}  // namespace ldr

extern "C" void registerLoadBMP(void) {
  ldr::registerOperations<ldr::describe, ldr::deliver, ldr::release>();
}
