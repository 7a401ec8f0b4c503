// raster/psd.cpp: Photoshop documents (PSD) and large documents (PSB), loader 76.
// Reads: the merged picture of the image data section, raw or PackBits, 8 and
// 16 bits a channel (16-bit samples rounded to 8 bits): bitmap as layout 0;
// greyscale and duotone (its grey channel) as layout 1 with a grey ramp;
// indexed as layout 1 with the document's colour table; RGB as layout 2;
// CMYK and Lab converted to RGB (palette/colour_spaces.h) as layout 2. A
// document whose layer count is negative keeps the merged transparency in the
// channel after the colours: then grey, RGB, CMYK and Lab come as layout 7.
// Densities from the resolution resource. Layers are not composed.
// Refuses: versions other than 1 and 2, channel counts outside 1..56, depths
// other than 1, 8, 16 and 32, unknown colour modes, depth and mode that do
// not go together, too few channels for the mode, a header cut short (6);
// 32-bit documents, multichannel documents and ZIP-compressed image data (5);
// sides outside 1..30000 (PSD) or 1..300000 (PSB) (7); and, while delivering,
// data that ends early or PackBits rows that end before the row is full (7).
// Delivery: band addressing.
// Quirk: PackBits runs that reach past the end of a row are cut at the row's
// end, where strict readers give up; some writers pad their runs.
// Quirk: the resolution resource is taken as pixels per inch whatever unit
// it names for display, as the format stores it.
#include <sys/types.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>
#include <span>
#include <vector>

#include "framework/checked.h"
#include "framework/file.h"
#include "framework/io.h"
#include "framework/loader.h"
#include "framework/pixels.h"
#include "palette/colour_spaces.h"
#include "vload.h"

namespace ldr {
namespace {

// ---- Limits and constants

constexpr size_t kHeaderBytes = 26;
constexpr uint32_t kMaxSidePsd = 30000, kMaxSidePsb = 300000;
constexpr uint16_t kMaxChannels = 56;
constexpr uint16_t kResolutionResource = 1005;
constexpr size_t kResolutionBytes = 16;
constexpr size_t kResourceHeadBytes = 12;  // signature, id, empty name, size
constexpr size_t kColourTableBytes = 768;
constexpr uint32_t kMaxUsedChannels = 5;  // CMYK and alpha
// A channel's rows are read in pieces of about this size.
constexpr size_t kChunkBytes = 256 * 1024;
// PackBits copies go in whole blocks of this size, a vector's worth: a short
// copy of unknown length costs more than a few bytes copied in vain, and a
// run (at most 128 bytes) takes one or two blocks. The blocks reach up to
// kBlockSlack - 1 bytes beyond a run, into the rest of the row (written by the
// runs that follow), the next row (unpacked next) or the slack that every
// buffer they touch carries at its end.
constexpr size_t kBlockSlack = 64;

enum Mode : uint16_t {
  kBitmap = 0, kGrey = 1, kIndexed = 2, kRgb = 3, kCmyk = 4, kMultichannel = 7, kDuotone = 8, kLab = 9
};
enum Compression : uint16_t { kRaw = 0, kPackBits = 1, kZip = 2, kZipPredicted = 3 };

// How the channels of a row become the caller's pixels.
enum class Compose : uint8_t { Copy, GreyAlpha, Rgb, Cmyk, Lab };

// ---- Header

struct PsdHeader {
  bool large = false;  // PSB: wider lengths, bigger sides
  uint16_t channels = 0;
  uint32_t height = 0, width = 0;
  uint16_t depth = 0, mode = 0;
};

uint32_t be16(const uint8_t* p) { return uint32_t(p[0] << 8 | p[1]); }
uint32_t be32(const uint8_t* p) { return be16(p) << 16 | be16(p + 2); }

// Channels the colours of a mode take.
uint32_t colourChannels(uint16_t mode) {
  switch (mode) {
    case kRgb: case kLab: return 3;
    case kCmyk: return 4;
    default: return 1;
  }
}

Status parseHeader(std::span<const uint8_t> b, PsdHeader& h) {
  if (b.size() < kHeaderBytes || std::memcmp(b.data(), "8BPS", 4) != 0) return Status::NotThisFormat;
  const uint32_t version = be16(&b[4]);
  if (version != 1 && version != 2) return Status::NotThisFormat;
  h.large = version == 2;
  h.channels = uint16_t(be16(&b[12]));
  h.height = be32(&b[14]);
  h.width = be32(&b[18]);
  h.depth = uint16_t(be16(&b[22]));
  h.mode = uint16_t(be16(&b[24]));
  if (h.channels < 1 || h.channels > kMaxChannels) return Status::NotThisFormat;
  if (h.depth != 1 && h.depth != 8 && h.depth != 16 && h.depth != 32) return Status::NotThisFormat;
  switch (h.mode) {
    case kBitmap:
      if (h.depth != 1) return Status::NotThisFormat;
      break;
    case kIndexed:
      if (h.depth != 8) return Status::NotThisFormat;
      break;
    case kGrey: case kRgb: case kCmyk: case kDuotone: case kLab:
      if (h.depth == 1) return Status::NotThisFormat;
      break;
    case kMultichannel: return Status::Unsupported;
    default: return Status::NotThisFormat;
  }
  if (h.depth == 32) return Status::Unsupported;
  if (h.channels < colourChannels(h.mode)) return Status::NotThisFormat;
  const uint32_t maxSide = h.large ? kMaxSidePsb : kMaxSidePsd;
  if (h.width < 1 || h.width > maxSide || h.height < 1 || h.height > maxSide) return Status::BadData;
  return Status::Ok;
}

// Big-endian reads through stdio; a read past the end sets a sticky flag.
class SectionReader {
 public:
  explicit SectionReader(std::FILE* f) : f_(f) {}
  uint64_t number(size_t bytes) {
    uint8_t b[8] = {};
    if (!read(b, bytes)) return 0;
    uint64_t v = 0;
    for (size_t i = 0; i < bytes; ++i) v = v << 8 | b[i];
    return v;
  }
  bool read(void* to, size_t n) {
    if (!failed_ && !readExact(f_, to, n)) failed_ = true;
    return !failed_;
  }
  // To an absolute offset; one beyond the file fails at the next read.
  void seek(uint64_t offset) {
    if (offset > uint64_t(INT64_MAX) || fseeko(f_, off_t(offset), SEEK_SET) != 0) failed_ = true;
  }
  uint64_t tell() const { return uint64_t(ftello(f_)); }
  bool failed() const { return failed_; }

 private:
  std::FILE* f_;
  bool failed_ = false;
};

// Thousandths of a dpi from a 16.16 fixed-point pixels-per-inch value.
uint32_t density(uint32_t fixed) { return uint32_t((uint64_t{fixed} * 1000 + 32768) >> 16); }

// Walks the image resources for the resolution; the reader ends behind the section.
void readResources(SectionReader& in, Picture& out) {
  const uint64_t length = in.number(4);
  const uint64_t start = in.tell(), end = start + length;
  for (uint64_t at = start; !in.failed() && at + kResourceHeadBytes <= end;) {
    in.seek(at + 4);  // past the signature
    const uint32_t id = uint32_t(in.number(2));
    const uint32_t nameBytes = uint32_t(in.number(1));
    in.seek(at + 6 + ((nameBytes + 2) & ~1u));  // a Pascal string padded to even length
    const uint64_t size = in.number(4);
    const uint64_t data = in.tell();
    if (id == kResolutionResource && size >= kResolutionBytes) {
      uint8_t r[kResolutionBytes];
      if (in.read(r, sizeof r)) {
        out.xDensity = density(be32(r));
        out.yDensity = density(be32(r + 8));
      }
    }
    at = data + ((size + 1) & ~uint64_t{1});
  }
  in.seek(end);
}

// Reads the layer section's layer count; negative means that the merged
// picture carries its transparency. The reader ends behind the section.
bool readLayersForAlpha(SectionReader& in, bool large) {
  const size_t width = large ? 8 : 4;
  const uint64_t length = in.number(width);
  const uint64_t start = in.tell();
  bool alpha = false;
  if (length >= width + 2 && in.number(width) >= 2) alpha = int16_t(in.number(2)) < 0;
  in.seek(start + length);
  return alpha;
}

// ---- State

struct PsdState {
  File file;
  int fd = -1;
  uint32_t width = 0, height = 0, depth = 8;
  Compose compose = Compose::Copy;
  uint32_t used = 1;  // channels read: the colours, then alpha if kept
  bool alpha = false;
  bool packBits = false;
  uint32_t storedRowBytes = 0;  // one channel's row in the file
  uint32_t planeRowBytes = 0;   // one channel's row at 8 bits (bitmaps: the packed bits)
  uint32_t maxPackedRow = 0;
  off_t dataStart = 0;  // raw: channel c, row y at dataStart + (c * height + y) * storedRowBytes
  std::vector<uint32_t> rowCounts;  // PackBits: compressed bytes of each row, channel after channel
  std::array<off_t, kMaxUsedChannels> next{};  // PackBits: where each channel's next row starts
  uint32_t chunkRows = 0;
  // The file's bytes are read into chunks at addresses matching their file
  // offsets, which the kernel copies to fastest: raw 8-bit (and 1-bit) rows,
  // one chunk per used channel, which then serve as the planes themselves;
  // or, in chunks[0], raw 16-bit rows or one channel's PackBits rows, which
  // are then rounded or unpacked into `planes`.
  std::array<MatchedChunk, kMaxUsedChannels> chunks;
  Block planes;  // `used` channels of chunkRows rows of planeRowBytes, when not read straight
  Block wide;    // a 16-bit PackBits row before it is rounded
  std::array<const uint8_t*, kMaxUsedChannels> plane{};  // each channel's rows in hand
  uint32_t outRowBytes = 0;
  StoreChoice stores;
  uint32_t delivered = 0;
  Status failed = Status::Ok;
};
thread_local PsdState t_psd;

void release() noexcept { t_psd = {}; }

// The most a PackBits row of n bytes may take: a literal byte a header byte.
uint32_t maxPacked(uint32_t n) { return 2 * n + 2; }

// Reads the row byte counts of the used channels and skips the others'.
Status readRowCounts(SectionReader& in, PsdState& st, uint16_t channels, bool large) {
  const size_t width = large ? 4 : 2;
  const size_t usedRows = size_t{st.used} * st.height;
  std::vector<uint8_t> raw(usedRows * width);
  if (!in.read(raw.data(), raw.size())) return Status::NotThisFormat;
  st.rowCounts.resize(usedRows);
  for (size_t i = 0; i < usedRows; ++i) {
    const uint32_t n = large ? be32(&raw[4 * i]) : be16(&raw[2 * i]);
    if (n > st.maxPackedRow) return Status::NotThisFormat;
    st.rowCounts[i] = n;
  }
  uint64_t at = in.tell() + uint64_t{channels - st.used} * st.height * width;
  for (uint32_t c = 0; c < st.used; ++c) {
    st.next[c] = off_t(at);
    for (uint32_t y = 0; y < st.height; ++y) at += st.rowCounts[size_t{c} * st.height + y];
  }
  return Status::Ok;
}

const char* modeName(uint16_t mode) {
  switch (mode) {
    case kBitmap: return "bitmap";
    case kGrey: return "greyscale";
    case kIndexed: return "indexed";
    case kRgb: return "RGB";
    case kCmyk: return "CMYK";
    case kDuotone: return "duotone";
    default: return "Lab";
  }
}

// ---- Loader operations

Status describe(const char* fileName, Picture& out, uint8_t* colorMap, bool readColorMap) {
  t_psd = {};
  const uint8_t* probe = loadImgCheckHeader(fileName);
  if (!probe || loadImgLastFilesize() < 4 || std::memcmp(probe, "8BPS", 4) != 0)
    return Status::NotThisFormat;

  PsdState& st = t_psd;
  st.file = openForReading(fileName);
  if (!st.file) return Status::CannotOpen;
  st.fd = ::fileno(st.file.get());
  SectionReader in(st.file.get());
  uint8_t raw[kHeaderBytes];
  if (!in.read(raw, sizeof raw)) return Status::NotThisFormat;
  PsdHeader h;
  if (const Status s = parseHeader(raw, h); s != Status::Ok) return s;

  // Colour mode data: the colour table of indexed documents, planar.
  const uint64_t modeData = in.number(4);
  const uint64_t resources = in.tell() + modeData;
  uint8_t table[kColourTableBytes] = {};
  if (h.mode == kIndexed && (modeData < sizeof table || !in.read(table, sizeof table)))
    return Status::NotThisFormat;
  in.seek(resources);
  readResources(in, out);
  const bool mergedAlpha = readLayersForAlpha(in, h.large);
  const uint32_t compression = uint32_t(in.number(2));
  if (in.failed()) return Status::NotThisFormat;
  if (compression == kZip || compression == kZipPredicted) return Status::Unsupported;
  if (compression != kRaw && compression != kPackBits) return Status::NotThisFormat;

  const uint32_t colours = colourChannels(h.mode);
  st.alpha = mergedAlpha && h.channels > colours && h.mode != kBitmap && h.mode != kIndexed;
  st.used = colours + st.alpha;
  switch (h.mode) {
    case kBitmap: out.layout = VLOAD_LAYOUT_BILEVEL; break;
    case kGrey: case kDuotone: case kIndexed:
      out.layout = st.alpha ? VLOAD_LAYOUT_RGBA : VLOAD_LAYOUT_INDEXED;
      st.compose = st.alpha ? Compose::GreyAlpha : Compose::Copy;
      break;
    default:
      out.layout = st.alpha ? VLOAD_LAYOUT_RGBA : VLOAD_LAYOUT_RGB;
      st.compose = h.mode == kRgb ? Compose::Rgb : h.mode == kCmyk ? Compose::Cmyk : Compose::Lab;
      break;
  }
  if (readColorMap && out.layout == VLOAD_LAYOUT_INDEXED) {
    for (int i = 0; i < kColourMapEntries; ++i) {
      const bool grey = h.mode != kIndexed;
      colorMap[3 * i] = grey ? uint8_t(i) : table[i];
      colorMap[3 * i + 1] = grey ? uint8_t(i) : table[256 + i];
      colorMap[3 * i + 2] = grey ? uint8_t(i) : table[512 + i];
    }
  }

  // Within the side limits every row size fits comfortably in 32 bits.
  st.width = h.width;
  st.height = h.height;
  st.depth = h.depth;
  st.storedRowBytes = *rowBytes(h.width, h.depth);
  st.planeRowBytes = h.depth == 1 ? st.storedRowBytes : h.width;
  st.outRowBytes = *layoutRowBytes(out.layout, h.width);
  st.maxPackedRow = maxPacked(st.storedRowBytes);
  st.packBits = compression == kPackBits;
  if (st.packBits) {
    if (const Status s = readRowCounts(in, st, h.channels, h.large); s != Status::Ok) return s;
  } else {
    st.dataStart = off_t(in.tell());
  }

  st.chunkRows = std::clamp<uint32_t>(uint32_t(kChunkBytes / st.storedRowBytes), 1, h.height);
  if (!st.packBits && h.depth != 16) {
    for (uint32_t c = 0; c < st.used; ++c)
      if (!st.chunks[c].reserve(size_t{st.chunkRows} * st.storedRowBytes)) return Status::NoMemory;
  } else {
    const uint32_t readRowBytes = st.packBits ? st.maxPackedRow : st.storedRowBytes;
    st.planes = allocBlock(size_t{st.used} * st.chunkRows * st.planeRowBytes + kBlockSlack);
    if (st.packBits && h.depth == 16) st.wide = allocBlock(st.storedRowBytes + kBlockSlack);
    if (!st.chunks[0].reserve(size_t{st.chunkRows} * readRowBytes, kBlockSlack) || !st.planes ||
        (st.packBits && h.depth == 16 && !st.wide))
      return Status::NoMemory;
  }

  out.width = h.width;
  out.height = h.height;
  out.setInfo("%s%s, %u bit%s, %u channel%s%s, %s", h.large ? "PSB " : "", modeName(h.mode), h.depth,
              h.depth == 1 ? "" : "s", h.channels, h.channels == 1 ? "" : "s",
              st.alpha ? " (merged transparency)" : "", st.packBits ? "PackBits" : "uncompressed");
  return Status::Ok;
}

// ---- Rows

[[gnu::always_inline]] inline void copyBlocks(uint8_t* dst, const uint8_t* src, size_t n) {
  for (size_t k = 0; k < n; k += kBlockSlack) std::memcpy(dst + k, src + k, kBlockSlack);
}

[[gnu::always_inline]] inline void fillBlocks(uint8_t* dst, uint8_t value, size_t n) {
  uint8_t block[kBlockSlack];
  std::memset(block, value, sizeof block);
  for (size_t k = 0; k < n; k += kBlockSlack) std::memcpy(dst + k, block, kBlockSlack);
}

// Unpacks one PackBits row of `rowBytes` bytes from the `count` bytes at
// `src`. False when the data ends before the row is full.
[[gnu::always_inline]] inline bool unpackRow(const uint8_t* src, size_t count, uint8_t* dst, size_t rowBytes) {
  size_t in = 0, out = 0;
  while (out < rowBytes) {
    if (in >= count) return false;
    const int8_t header = int8_t(src[in++]);
    if (header == -128) continue;  // no operation
    if (header >= 0) {
      const size_t n = size_t(header) + 1;
      if (n > count - in) return false;
      const size_t kept = std::min(n, rowBytes - out);
      copyBlocks(dst + out, src + in, kept);
      in += n;
      out += kept;
    } else {
      if (in >= count) return false;
      const size_t kept = std::min(size_t(1 - header), rowBytes - out);
      fillBlocks(dst + out, src[in++], kept);
      out += kept;
    }
  }
  return true;
}

#if defined(__x86_64__)
// The same compiled for 512-bit vectors: a block is then one load and one
// store, where the baseline instruction set needs four of each.
__attribute__((target("avx512f,avx512bw"))) bool unpackRowWide(const uint8_t* src, size_t count, uint8_t* dst,
                                                              size_t rowBytes) {
  return unpackRow(src, count, dst, rowBytes);
}
#endif

bool unpackBits(const uint8_t* src, size_t count, uint8_t* dst, size_t rowBytes) {
#if defined(__x86_64__)
  if (activePixelPath() == PixelPath::Avx512) return unpackRowWide(src, count, dst, rowBytes);
#endif
  return unpackRow(src, count, dst, rowBytes);
}

// 16-bit big-endian samples rounded to 8 bits.
void narrow(const uint8_t* wide, uint8_t* out, uint32_t count) {
  for (uint32_t i = 0; i < count; ++i)
    out[i] = uint8_t(((wide[2 * i] << 8 | wide[2 * i + 1]) * 255u + 32767) / 65535);
}

// Rows first..first+rows-1 of one channel at 8 bits; st.plane[channel]
// points to them.
Status readChannel(PsdState& st, uint32_t channel, uint32_t first, uint32_t rows) {
  const bool wide = st.depth == 16;
  uint8_t* planeRows = st.planes ? st.planes.get() + size_t{channel} * st.chunkRows * st.planeRowBytes : nullptr;
  if (!st.packBits) {
    const uint64_t at = (uint64_t{channel} * st.height + first) * st.storedRowBytes;
    const size_t bytes = size_t{rows} * st.storedRowBytes;
    MatchedChunk& chunk = st.chunks[wide ? 0 : channel];
    if (chunk.read(st.fd, st.dataStart + off_t(at), bytes) != bytes) return Status::BadData;
    if (wide) narrow(chunk.data(), planeRows, rows * st.width);
    st.plane[channel] = wide ? planeRows : chunk.data();
    return Status::Ok;
  }
  const uint32_t* counts = &st.rowCounts[size_t{channel} * st.height + first];
  size_t bytes = 0;
  for (uint32_t i = 0; i < rows; ++i) bytes += counts[i];
  if (st.chunks[0].read(st.fd, st.next[channel], bytes) != bytes) return Status::BadData;
  st.next[channel] += off_t(bytes);
  const uint8_t* src = st.chunks[0].data();
  for (uint32_t i = 0; i < rows; src += counts[i++]) {
    uint8_t* row = planeRows + size_t{i} * st.planeRowBytes;
    uint8_t* to = wide ? st.wide.get() : row;
    if (!unpackBits(src, counts[i], to, st.storedRowBytes)) return Status::BadData;
    if (wide) narrow(to, row, st.width);
  }
  st.plane[channel] = planeRows;
  return Status::Ok;
}

void composeRow(const PsdState& st, uint32_t row, uint8_t* out, Store store) {
  const uint8_t* c[kMaxUsedChannels] = {};
  for (uint32_t k = 0; k < st.used; ++k) c[k] = st.plane[k] + size_t{row} * st.planeRowBytes;
  const uint32_t step = st.alpha ? 4 : 3;
  const uint8_t* a = st.alpha ? c[st.used - 1] : nullptr;
  switch (st.compose) {
    case Compose::Copy: copyBytes(c[0], out, st.planeRowBytes, store); return;
    case Compose::GreyAlpha:
      for (uint32_t x = 0; x < st.width; ++x, out += 4) {
        out[0] = out[1] = out[2] = c[0][x];
        out[3] = a[x];
      }
      return;
    case Compose::Rgb:
      if (a) interleave4(c[0], c[1], c[2], a, out, st.width);
      else interleave3(c[0], c[1], c[2], out, st.width, store);
      return;
    case Compose::Cmyk:
      // The document stores ink inverted (255 = none), so each colour is
      // the product of its channel and black's.
      for (uint32_t x = 0; x < st.width; ++x, out += step) {
        const uint32_t k = c[3][x];
        out[0] = uint8_t((c[0][x] * k + 127) / 255);
        out[1] = uint8_t((c[1][x] * k + 127) / 255);
        out[2] = uint8_t((c[2][x] * k + 127) / 255);
        if (a) out[3] = a[x];
      }
      return;
    case Compose::Lab: {
      uint32_t lastLab = 0x008080;  // L, a and b packed: black, whose a and b are stored as 128
      Rgb last = rgbFromLab(0, 0, 0);
      for (uint32_t x = 0; x < st.width; ++x, out += step) {
        const uint32_t lab = uint32_t(c[0][x]) << 16 | uint32_t(c[1][x]) << 8 | c[2][x];
        if (lab != lastLab) {  // neighbours often repeat; the conversion is dear
          last = rgbFromLab(c[0][x] * 100 / 255.0, c[1][x] - 128.0, c[2][x] - 128.0);
          lastLab = lab;
        }
        out[0] = last.r;
        out[1] = last.g;
        out[2] = last.b;
        if (a) out[3] = a[x];
      }
      return;
    }
  }
}

Status deliver(const Band& band) {
  PsdState& st = t_psd;
  if (st.failed != Status::Ok) return st.failed;
  if (!st.file || !band.buffer || band.rowCount < 0 || band.rowStride < 0 ||
      uint32_t(band.rowStride) < st.outRowBytes || uint32_t(band.rowCount) > st.height - st.delivered)
    return Status::BadRequest;
  const Store store = st.stores.forBand(band.buffer, band.rowCount, band.rowStride, st.outRowBytes, st.height);
  Status s = Status::Ok;
  for (uint32_t done = 0; done < uint32_t(band.rowCount) && s == Status::Ok;) {
    const uint32_t rows = std::min(st.chunkRows, uint32_t(band.rowCount) - done);
    for (uint32_t k = 0; k < st.used && s == Status::Ok; ++k) s = readChannel(st, k, st.delivered + done, rows);
    for (uint32_t i = 0; i < rows && s == Status::Ok; ++i)
      composeRow(st, i, rowAt(band.buffer, done + i, band.rowStride), store);
    done += rows;
  }
  if (store == Store::Streamed) fenceStreamed();
  if (s != Status::Ok) return st.failed = s;
  st.delivered += uint32_t(band.rowCount);
  return Status::Ok;
}

}  // namespace
}  // namespace ldr

extern "C" void registerLoadPSD(void) {
  ldr::registerOperations<ldr::describe, ldr::deliver, ldr::release>();
}
