// raster/pnm.cpp: portable bitmaps, greymaps and pixmaps (P1 to P6) and PAM
// (P7), loader 12.
// Reads: plain and raw PBM, PGM and PPM with maximum values 1..65535, and PAM
// of depth 1 to 4 (black and white, grey, RGB, each with or without alpha);
// comments wherever the header allows white space, also right after its last
// number and between the numbers of plain rasters. Of a file holding several
// pictures, the first.
// Delivers: bilevel as layout 0 (1 = black, as PBM stores it), grey as
// layout 1 with a grey ramp for colour map, colour as layout 2, PAM with
// alpha as layout 7. Samples are scaled from the maximum value to 0..255,
// rounded (16-bit samples included).
// Refuses: a header that breaks the format, or longer than 64 KiB, maximum
// values outside 1..65535, PAM without width, height, depth or maximum (6);
// PAM depths above 4 (5); sides outside 1..262140 (7); and, while
// delivering, a raster that ends early or a plain raster with other
// characters than digits, white space and comments (7).
// Delivery: band addressing.
// Quirk: a sample above the maximum value counts as the maximum, where
// stricter readers refuse the file; the picture stays usable.
#include <sys/types.h>

#include <algorithm>
#include <cstring>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "framework/checked.h"
#include "framework/file.h"
#include "framework/io.h"
#include "framework/loader.h"
#include "framework/pixels.h"
#include "vload.h"

namespace ldr {
namespace {

// ---- Limits and constants

constexpr uint32_t kMaxDimension = 262140;
constexpr uint32_t kMaxSample = 65535;
constexpr uint32_t kMaxDepth = 4;
constexpr size_t kMaxHeaderBytes = 64 * 1024;
constexpr uint32_t kTooBig = UINT32_MAX;  // what a number of more than 32 bits reads as
// Raw rows are read in pieces of about this size: the kernel copies pieces
// this large faster per byte than pieces of a quarter of the size, and a
// piece still fits the level-2 cache while its rows are converted.
constexpr size_t kChunkBytes = 1024 * 1024;

// ---- Header

struct PnmHeader {
  char kind = 0;  // '1'..'7'
  uint32_t width = 0, height = 0, depth = 0, maxval = 0;
  std::string tupleType;
  size_t dataOffset = 0;  // where the raster starts
};

constexpr bool isSpace(int c) { return c == ' ' || (c >= '\t' && c <= '\r'); }
constexpr bool isDigit(int c) { return c >= '0' && c <= '9'; }
constexpr bool isLineEnd(int c) { return c == '\n' || c == '\r'; }

// The header's bytes as a stream of characters; -1 past the end.
class HeaderText {
 public:
  explicit HeaderText(std::span<const uint8_t> bytes) : bytes_(bytes) {}
  int peek() const { return at_ < bytes_.size() ? bytes_[at_] : -1; }
  int get() { return at_ < bytes_.size() ? bytes_[at_++] : -1; }
  size_t offset() const { return at_; }

  // Past the rest of a comment line and its line end: CR or LF in the
  // classic headers, LF alone in PAM's, which are read line by line.
  void skipComment(bool crEnds = true) {
    while (peek() != -1 && peek() != '\n' && !(crEnds && peek() == '\r')) ++at_;
    get();
  }
  void skipSpaceAndComments() {
    for (;;) {
      if (isSpace(peek())) ++at_;
      else if (peek() == '#') skipComment();
      else return;
    }
  }
  // Digits, saturating at kTooBig; false when there is none.
  bool number(uint32_t& value) {
    if (!isDigit(peek())) return false;
    uint64_t v = 0;
    while (isDigit(peek())) v = std::min<uint64_t>(v * 10 + uint32_t(get() - '0'), kTooBig);
    value = uint32_t(v);
    return true;
  }

 private:
  std::span<const uint8_t> bytes_;
  size_t at_ = 0;
};

// P1 to P6: width, height and (but for bitmaps) the maximum value, then one
// white space character, or a comment up to its line end.
bool parseClassicHeader(HeaderText& in, PnmHeader& h) {
  const bool bitmap = h.kind == '1' || h.kind == '4';
  h.depth = h.kind == '3' || h.kind == '6' ? 3 : 1;
  h.maxval = 1;
  for (uint32_t* field : {&h.width, &h.height, &h.maxval}) {
    if (bitmap && field == &h.maxval) break;
    in.skipSpaceAndComments();
    if (!in.number(*field)) return false;
  }
  const int last = in.get();
  if (last == '#') in.skipComment();
  else if (!isSpace(last)) return false;
  h.dataOffset = in.offset();
  return true;
}

// P7: lines of a keyword and its value up to ENDHDR; '#' lines are comments.
// Several TUPLTYPE lines make one type, their values joined by blanks.
bool parsePamHeader(HeaderText& in, PnmHeader& h) {
  bool seen[4] = {};
  for (;;) {
    while (isSpace(in.peek())) in.get();
    if (in.peek() == -1) return false;
    if (in.peek() == '#') {
      in.skipComment(false);
      continue;
    }
    std::string keyword;
    while (in.peek() != -1 && !isSpace(in.peek())) keyword += char(in.get());
    while (in.peek() == ' ' || in.peek() == '\t') in.get();
    if (keyword == "ENDHDR") {
      if (!isLineEnd(in.get())) return false;
      h.dataOffset = in.offset();
      return seen[0] && seen[1] && seen[2] && seen[3];
    }
    if (keyword == "TUPLTYPE") {
      std::string value;
      while (in.peek() != -1 && !isLineEnd(in.peek())) value += char(in.get());
      while (!value.empty() && isSpace(value.back())) value.pop_back();
      h.tupleType += (h.tupleType.empty() ? "" : " ") + value;
      continue;
    }
    constexpr std::string_view kNumbers[] = {"WIDTH", "HEIGHT", "DEPTH", "MAXVAL"};
    uint32_t* const fields[] = {&h.width, &h.height, &h.depth, &h.maxval};
    const auto k = std::find(std::begin(kNumbers), std::end(kNumbers), keyword);
    if (k == std::end(kNumbers) || !in.number(*fields[k - kNumbers])) return false;
    seen[k - kNumbers] = true;
    while (in.peek() == ' ' || in.peek() == '\t') in.get();
    if (in.peek() != -1 && !isLineEnd(in.peek())) return false;
  }
}

// The header of the first picture in `bytes`, the start of the file.
Status parseHeader(std::span<const uint8_t> bytes, PnmHeader& h) {
  if (bytes.size() < 3 || bytes[0] != 'P' || bytes[1] < '1' || bytes[1] > '7')
    return Status::NotThisFormat;
  h.kind = char(bytes[1]);
  HeaderText in(bytes.subspan(2));
  if (!isSpace(in.peek()) && in.peek() != '#') return Status::NotThisFormat;
  if (!(h.kind == '7' ? parsePamHeader(in, h) : parseClassicHeader(in, h)))
    return Status::NotThisFormat;
  h.dataOffset += 2;
  if (h.maxval < 1 || h.maxval > kMaxSample || h.depth == 0) return Status::NotThisFormat;
  if (h.depth > kMaxDepth) return Status::Unsupported;
  if (h.width < 1 || h.width > kMaxDimension || h.height < 1 || h.height > kMaxDimension)
    return Status::BadData;
  return Status::Ok;
}

// ---- State

// How the samples of a row become the caller's pixels.
enum class Pack : uint8_t {
  StoredBits,  // PBM bits as they are stored
  WhiteBits,   // PAM black and white: a sample 0 is black, bit 1
  Same,        // one byte a sample, as the layout has them (grey, RGB, RGBA)
  GreyAlpha,   // grey and alpha to R, G, B, A
};

struct PnmState {
  File file;
  bool plain = false;
  Pack pack = Pack::Same;
  bool wide = false;  // two bytes a sample
  uint32_t width = 0, height = 0, depth = 1, maxval = 255;
  uint32_t storedRowBytes = 0, outRowBytes = 0;
  off_t offset = 0;  // raw rasters: where the next stored row starts
  // Raw rows to convert or stream are read ahead into `chunk` and go from
  // there to the caller's rows (see readRaw).
  MatchedChunk chunk;
  uint32_t chunkRows = 0;
  StoreChoice stores;
  Block samples;     // one row of samples scaled to 0..255
  uint8_t scale[256] = {};  // 8-bit samples to 0..255
  uint32_t delivered = 0;
  Status failed = Status::Ok;
};
thread_local PnmState t_pnm;

void release() noexcept { t_pnm = {}; }

uint8_t scaled(const PnmState& st, uint32_t v) {
  v = std::min(v, st.maxval);
  return uint8_t((v * 255 + st.maxval / 2) / st.maxval);
}

// Raw rows whose stored bytes are the caller's pixels.
bool copiesRows(const PnmState& st) {
  return st.pack == Pack::StoredBits || (st.pack == Pack::Same && st.maxval == 255 && !st.wide);
}

// ---- Loader operations

Status describe(const char* fileName, Picture& out, uint8_t* colorMap, bool readColorMap) {
  t_pnm = {};
  const uint8_t* probe = loadImgCheckHeader(fileName);
  if (!probe || loadImgLastFilesize() < 3 || probe[0] != 'P' || probe[1] < '1' || probe[1] > '7')
    return Status::NotThisFormat;

  PnmState& st = t_pnm;
  st.file = openForReading(fileName);
  if (!st.file) return Status::CannotOpen;
  std::vector<uint8_t> head(kMaxHeaderBytes);
  head.resize(std::fread(head.data(), 1, head.size(), st.file.get()));
  PnmHeader h;
  if (const Status s = parseHeader(head, h); s != Status::Ok) return s;

  st.plain = h.kind <= '3';
  st.width = h.width;
  st.height = h.height;
  st.depth = h.depth;
  st.maxval = h.maxval;
  st.wide = h.maxval > 255;
  const bool pamBlackWhite =
      h.kind == '7' && h.depth == 1 && h.maxval == 1 && h.tupleType == "BLACKANDWHITE";
  if (h.kind == '1' || h.kind == '4' || pamBlackWhite) {
    out.layout = VLOAD_LAYOUT_BILEVEL;
    st.pack = pamBlackWhite ? Pack::WhiteBits : Pack::StoredBits;
  } else {
    static constexpr uint8_t kLayouts[] = {VLOAD_LAYOUT_INDEXED, VLOAD_LAYOUT_RGBA, VLOAD_LAYOUT_RGB,
                                           VLOAD_LAYOUT_RGBA};
    out.layout = kLayouts[h.depth - 1];
    st.pack = h.depth == 2 ? Pack::GreyAlpha : Pack::Same;
  }
  if (out.layout == VLOAD_LAYOUT_INDEXED && readColorMap)
    for (int i = 0; i < kColourMapEntries; ++i) std::memset(colorMap + 3 * i, i, 3);

  // Within the limits every row size fits comfortably in 32 bits.
  st.storedRowBytes = st.pack == Pack::StoredBits ? *rowBytes(h.width, 1)
                                                  : h.width * h.depth * (st.wide ? 2 : 1);
  st.outRowBytes = *layoutRowBytes(out.layout, h.width);
  for (uint32_t v = 0; v < 256; ++v) st.scale[v] = scaled(st, v);
  st.offset = off_t(h.dataOffset);
  if (st.plain && fseeko(st.file.get(), st.offset, SEEK_SET) != 0) return Status::BadData;
  if (st.plain || !copiesRows(st)) {
    st.samples = allocBlock(size_t{h.width} * h.depth);
    if (!st.samples) return Status::NoMemory;
  }
  if (!st.plain) {
    st.chunkRows = std::clamp<uint32_t>(uint32_t(kChunkBytes / st.storedRowBytes), 1, h.height);
    if (!st.chunk.reserve(size_t{st.chunkRows} * st.storedRowBytes)) return Status::NoMemory;
  }

  out.width = h.width;
  out.height = h.height;
  if (out.layout == VLOAD_LAYOUT_BILEVEL && h.kind != '7') out.setInfo("P%c", h.kind);
  else out.setInfo("P%c%s%s, maximum value %u", h.kind, h.tupleType.empty() ? "" : " ",
                   h.tupleType.c_str(), h.maxval);
  return Status::Ok;
}

// ---- Rows

// Samples of one plain row, scaled, into st.samples; for plain bitmaps the
// bits themselves into `bits`. False when the raster ends or holds other
// characters.
bool readPlainRow(PnmState& st, uint8_t* bits) {
  std::FILE* f = st.file.get();
  const auto next = [f]() {
    for (;;) {
      int c = getc_unlocked(f);
      if (c == '#')
        while (c != EOF && !isLineEnd(c)) c = getc_unlocked(f);
      if (!isSpace(c)) return c;
    }
  };
  if (st.pack == Pack::StoredBits) {
    std::memset(bits, 0, st.outRowBytes);
    for (uint32_t x = 0; x < st.width; ++x) {
      const int c = next();
      if (c != '0' && c != '1') return false;
      if (c == '1') bits[x / 8] |= uint8_t(0x80 >> (x % 8));
    }
    return true;
  }
  const uint32_t count = st.width * st.depth;
  for (uint32_t i = 0; i < count; ++i) {
    int c = next();
    if (!isDigit(c)) return false;
    uint32_t v = 0;
    for (; isDigit(c); c = getc_unlocked(f))
      v = std::min<uint32_t>(v * 10 + uint32_t(c - '0'), kMaxSample + 1);
    if (c != EOF) ungetc(c, f);
    st.samples[i] = scaled(st, v);
  }
  return true;
}

// Samples of one stored raw row, scaled, to `samples`.
void scaleRawRow(const PnmState& st, const uint8_t* stored, uint8_t* samples) {
  const uint32_t count = st.width * st.depth;
  if (st.wide) {
    for (uint32_t i = 0; i < count; ++i)
      samples[i] = scaled(st, uint32_t(stored[2 * i] << 8 | stored[2 * i + 1]));
  } else {
    for (uint32_t i = 0; i < count; ++i) samples[i] = st.scale[stored[i]];
  }
}

// Scaled samples to the caller's row.
void packRow(const PnmState& st, const uint8_t* samples, uint8_t* out) {
  switch (st.pack) {
    case Pack::WhiteBits:
      std::memset(out, 0, st.outRowBytes);
      for (uint32_t x = 0; x < st.width; ++x)
        if (samples[x] == 0) out[x / 8] |= uint8_t(0x80 >> (x % 8));
      break;
    case Pack::GreyAlpha:
      for (uint32_t x = 0; x < st.width; ++x) {
        out[4 * x] = out[4 * x + 1] = out[4 * x + 2] = samples[2 * x];
        out[4 * x + 3] = samples[2 * x + 1];
      }
      break;
    case Pack::Same: std::memcpy(out, samples, st.outRowBytes); break;
    case Pack::StoredBits: break;  // read straight into place
  }
}

// Raw rows that need no converting and go through the caches are read
// straight into the caller's rows: in one read when the rows are packed, else
// one read a row.
Status readRawInPlace(PnmState& st, const Band& band) {
  const int fd = ::fileno(st.file.get());
  const size_t rowBytes = st.storedRowBytes;
  if (uint32_t(band.rowStride) == rowBytes) {
    const size_t want = rowBytes * uint32_t(band.rowCount);
    const size_t got = readAt(fd, band.buffer, want, st.offset);
    st.offset += off_t(got);
    return got == want ? Status::Ok : Status::BadData;
  }
  for (int32_t i = 0; i < band.rowCount; ++i) {
    const size_t got = readAt(fd, rowAt(band.buffer, i, band.rowStride), rowBytes, st.offset);
    st.offset += off_t(got);
    if (got != rowBytes) return Status::BadData;
  }
  return Status::Ok;
}

// Other raw rows are read into the chunk, at addresses matching their file
// offsets, and copied or converted from there. For rows to stream that
// beats reading them in place: the caller's rows start at addresses skewed
// from their file offsets (by the header's length), and the kernel's copy to
// a skewed address costs more than its copy to the chunk and a streamed copy
// onwards together.
Status readRaw(PnmState& st, const Band& band, Store store) {
  const int fd = ::fileno(st.file.get());
  const bool copies = copiesRows(st);
  for (uint32_t first = 0; first < uint32_t(band.rowCount);) {
    const uint32_t rows = std::min(st.chunkRows, uint32_t(band.rowCount) - first);
    const size_t got = st.chunk.read(fd, st.offset, size_t{rows} * st.storedRowBytes);
    st.offset += off_t(got);
    const uint32_t whole = uint32_t(got / st.storedRowBytes);
    // Packed rows go in one copy: a row that ends inside a cache line would
    // otherwise leave that line to two copies.
    if (copies && uint32_t(band.rowStride) == st.storedRowBytes) {
      copyBytes(st.chunk.data(), rowAt(band.buffer, first, band.rowStride), size_t{whole} * st.storedRowBytes, store);
      if (whole < rows) return Status::BadData;
      first += rows;
      continue;
    }
    for (uint32_t i = 0; i < whole; ++i) {
      uint8_t* out = rowAt(band.buffer, first + i, band.rowStride);
      const uint8_t* stored = st.chunk.data() + size_t{i} * st.storedRowBytes;
      if (copies) {
        copyBytes(stored, out, st.storedRowBytes, store);
        continue;
      }
      // Samples that keep their layout are scaled straight into place.
      uint8_t* samples = st.pack == Pack::Same ? out : st.samples.get();
      scaleRawRow(st, stored, samples);
      if (samples != out) packRow(st, samples, out);
    }
    if (whole < rows) return Status::BadData;
    first += rows;
  }
  return Status::Ok;
}

Status deliver(const Band& band) {
  PnmState& st = t_pnm;
  if (st.failed != Status::Ok) return st.failed;
  if (!st.file || !band.buffer || band.rowCount < 0 || band.rowStride < 0 ||
      uint32_t(band.rowStride) < st.outRowBytes || uint32_t(band.rowCount) > st.height - st.delivered)
    return Status::BadRequest;
  Status s = Status::Ok;
  if (st.plain) {
    for (int32_t i = 0; i < band.rowCount && s == Status::Ok; ++i) {
      uint8_t* out = rowAt(band.buffer, i, band.rowStride);
      if (!readPlainRow(st, out)) s = Status::BadData;
      else if (st.pack != Pack::StoredBits) packRow(st, st.samples.get(), out);
    }
  } else {
    const Store store = st.stores.forBand(band.buffer, band.rowCount, band.rowStride, st.outRowBytes, st.height);
    s = copiesRows(st) && store == Store::Cached ? readRawInPlace(st, band) : readRaw(st, band, store);
    if (store == Store::Streamed) fenceStreamed();
  }
  if (s != Status::Ok) return st.failed = s;
  st.delivered += uint32_t(band.rowCount);
  return Status::Ok;
}

}  // namespace
}  // namespace ldr

extern "C" void registerLoadPBM(void) {
  ldr::registerOperations<ldr::describe, ldr::deliver, ldr::release>();
}
