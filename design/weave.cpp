// design/weave.cpp: weave (binding) files, loader 11, and their header reader
// readVelmorWeave, which the fabric loader shares.
//
// Reads: "#" lines of a key and a value, some followed by a raw or
// zlib-compressed block: the dimensions (DIM, XDIM, YDIM, SHAFTSNO), the
// shaft of each end (HARNENDS as numbers, HARNANDS as one character an end,
// HARNUNDS as a zlib block of one byte an end), the weave as a lift plan by
// shafts (BITMAP raw, BUTMAP zlib) or row by row (BATMAP raw, BETMAP zlib),
// and a table of repeated rows (LINES_REPEAT), up to an END line.
// Refuses: a first line other than "#BINDING" and a line feed, a carriage
// return right after it, and every file in a thread whose key table was never
// set up (6); a header that breaks off or holds a line without "#", a
// dimension outside 1..262140, a wrong harness, a damaged zlib block, and a
// header that never gives both sides of the picture (7).
// Delivery: band addressing; tryLoad reads the whole weave and closes the
// file, loadBand works from memory.
//
// Memory follows the file, not the header: a block is never larger than the
// bytes the file really holds (raw) or can inflate to (zlib), the rest of a
// block reads as zeros, and a repeat table is kept as a table of which stored
// row each row shows rather than spread out. readVelmorWeave, whose callers
// get whole blocks, spreads them out at the end.
#include <sys/stat.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <vector>

#include "design/drawdown.h"
#include "design/text.h"
#include "framework/file.h"
#include "framework/loader.h"
#include "vload.h"

namespace ldr {
namespace {

// ---- Limits and constants

constexpr uint32_t kMaxDimension = 262140;
constexpr size_t kLineBytes = 100000;     // header lines are read with fgets up to this
constexpr int kFirstLineLimit = 20;       // the signature line is read with this limit
constexpr char kSignature[] = "#BINDING\n";
constexpr size_t kSignatureBytes = sizeof kSignature - 1;
constexpr uint32_t kNarrowRepeatRows = 65520;  // up to this height repeat entries are 16-bit
constexpr long kMinCompressed = 3, kMaxCompressed = 999999999;  // as readCompressedData takes them
// deflate codes 258 bytes in at least two bits, so no stream inflates to more
// than 1032 times its length.
constexpr uint64_t kMaxInflateRatio = 1032;
constexpr size_t kReadPiece = size_t{1} << 20;
constexpr uint32_t kNoRow = UINT32_MAX;

// ---- Key table

enum Key : uint8_t {
  kBinding, kBatmap, kBetmap, kBitmap, kButmap, kLinesRepeat, kHarnends, kHarnands, kHarnunds,
  kDim, kXdim, kYdim, kShaftsNo, kEnd, kKeyCount
};
constexpr const char* kKeyWords[kKeyCount] = {
    "BINDING\n", "BATMAP=", "BETMAP=", "BITMAP=", "BUTMAP=", "LINES_REPEAT=", "HARNENDS=",
    "HARNANDS=", "HARNUNDS=", "DIM=", "XDIM=", "YDIM=", "SHAFTSNO=", "END"};

// Set up once per thread by initLoadWeave. A key matches a line whose text
// after the "#" begins with the key word over the word's stored length, so
// "#ENDING" is an END line.
struct KeyTable {
  uint8_t length[kKeyCount] = {};
  uint8_t ready = 0;
};
thread_local KeyTable t_keys;

bool isKey(const char* line, Key k) noexcept {
  return line[0] == '#' && std::strncmp(line + 1, kKeyWords[k], t_keys.length[k]) == 0;
}

// ---- Blocks

// A block as the header describes it: `size` bytes, of which the first
// `stored` came from the file; the rest reads as zero. After a repeat table,
// row r of the block (rows of `rowBytes`) shows stored row source[r], or
// nothing for kNoRow; rows past the table show themselves.
struct WeaveBlock {
  Block data;
  uint64_t size = 0;
  size_t stored = 0;
  uint32_t rowBytes = 0;
  std::vector<uint32_t> source;

  // Copies n bytes of the block from `offset`; bytes outside it read as zero.
  void copy(uint8_t* dst, uint64_t offset, size_t n) const noexcept {
    while (n > 0) {
      if (offset >= size) {
        std::memset(dst, 0, n);
        return;
      }
      size_t piece = size_t(std::min<uint64_t>(n, size - offset));
      uint64_t from = offset;
      if (rowBytes && offset / rowBytes < source.size()) {
        const uint32_t within = uint32_t(offset % rowBytes);
        piece = std::min<size_t>(piece, rowBytes - within);
        const uint32_t row = source[offset / rowBytes];
        from = row == kNoRow ? UINT64_MAX : uint64_t{row} * rowBytes + within;
      }
      copyStored(dst, from, piece);
      dst += piece;
      offset += piece;
      n -= piece;
    }
  }

  bool bit(uint64_t k) const noexcept {
    uint8_t b;
    if (source.empty()) {
      const uint64_t i = k / 8;
      b = i < size && i < stored ? data[i] : 0;
    } else {
      copy(&b, k / 8, 1);
    }
    return b >> (k % 8) & 1;
  }

 private:
  void copyStored(uint8_t* dst, uint64_t from, size_t n) const noexcept {
    const uint64_t end = std::min<uint64_t>(size, stored);
    const size_t have = from >= end ? 0 : size_t(std::min<uint64_t>(n, end - from));
    if (have) std::memcpy(dst, data.get() + from, have);
    std::memset(dst + have, 0, n - have);
  }
};

// What a weave header holds.
struct Weave {
  uint8_t rowsPacked = 0;
  uint32_t width = 0, height = 0;
  uint8_t mirrorX = 0;
  bool hasMap = false;
  std::vector<uint32_t> map;  // shaft of each end, 0-based; entries no key sets are 0
  bool hasPicture = false;
  WeaveBlock picture;
  uint64_t planBits = 0;      // shafts x picks of the lift plan when it was read
  Key pictureKey = kEnd;
};

enum : uint64_t { kFailed = 0, kRead = 1, kNoMemoryForBlock = 2 };

// ---- Header reader

class HeaderReader {
 public:
  HeaderReader(std::FILE* f, char* line, Weave& w) : f_(f), line_(line), w_(w) {}

  uint64_t run() {
    if (!isKey(line_, kBinding)) return kRead;  // Quirk: not a weave header, nothing to do
    for (;;) {
      if (!std::fgets(line_, int(kLineBytes), f_)) return kFailed;
      if (line_[0] != '#') return kFailed;
      if (isKey(line_, kEnd)) return kRead;
      const char* v = std::strchr(line_, '=');  // every key word below ends in its "="
      v = v ? v + 1 : line_ + std::strlen(line_);
      uint64_t r = kRead;
      if (isKey(line_, kDim)) r = dim(v);
      else if (isKey(line_, kXdim)) r = xdim(v);
      else if (isKey(line_, kYdim)) r = ydim(v);
      else if (isKey(line_, kShaftsNo)) r = shaftsNo(v);
      else if (isKey(line_, kHarnends)) r = harnends();
      else if (isKey(line_, kHarnands)) r = harnands(v);
      else if (isKey(line_, kHarnunds)) r = harnunds(v);
      else if (isKey(line_, kBitmap)) r = liftPlan(v, false);
      else if (isKey(line_, kButmap)) r = liftPlan(v, true);
      else if (isKey(line_, kBatmap)) r = rows(v, false);
      else if (isKey(line_, kBetmap)) r = rows(v, true);
      else if (isKey(line_, kLinesRepeat)) r = linesRepeat(v);
      if (r != kRead) return r;
    }
  }

 private:
  static bool inRange(int32_t v) noexcept { return uint32_t(v) - 1u < kMaxDimension; }

  // A map of `entries` ends, end i on shaft i for the first `identity` of them.
  void newMap(size_t entries, uint32_t identity) {
    w_.map.assign(entries, 0);
    for (uint32_t i = 0; i < std::min<size_t>(identity, entries); ++i) w_.map[i] = i;
    w_.hasMap = true;
  }

  uint64_t dim(const char* v) {
    const bool comma = std::strchr(v, ','), space = std::strchr(v, ' ');
    int32_t a = 0, b = 0, c = 0;
    const char* p = v;
    uint32_t width, height, shafts;
    if (!comma && !space) {
      a = leadingInt(v);
      width = height = shafts = uint32_t(a);
    } else if (!comma) {
      if (!(scanInt(p, a) && scanInt(p, b))) return kFailed;
      width = shafts = uint32_t(a), height = uint32_t(b);
    } else if (!space) {
      if (!(scanInt(p, a) && scanChar(p, ',') && scanInt(p, b))) return kFailed;
      width = height = uint32_t(a), shafts = uint32_t(b);
    } else {
      if (!(scanInt(p, a) && scanInt(p, b) && scanChar(p, ',') && scanInt(p, c))) return kFailed;
      width = uint32_t(a), height = uint32_t(b), shafts = uint32_t(c);
    }
    if (!inRange(int32_t(width)) || !inRange(int32_t(height)) || !inRange(int32_t(shafts)))
      return kFailed;
    w_.width = width, w_.height = height, shafts_ = shafts;
    newMap(std::max(width, shafts), std::max(width, shafts));
    return kRead;
  }

  uint64_t xdim(const char* v) {
    const int32_t n = leadingInt(v);
    if (!inRange(n)) return kFailed;
    w_.width = w_.height = shafts_ = uint32_t(n);
    newMap(uint32_t(n), uint32_t(n));
    return kRead;
  }

  uint64_t ydim(const char* v) {
    const int32_t n = leadingInt(v);
    if (!inRange(n)) return kFailed;
    w_.height = uint32_t(n);
    return kRead;
  }

  // Quirk: entries from the shaft count on stay unset until a harness key
  // gives them; they read as shaft 0.
  uint64_t shaftsNo(const char* v) {
    const int32_t n = leadingInt(v);
    if (!inRange(n)) return kFailed;
    shafts_ = uint32_t(n);
    newMap(std::max(w_.width, shafts_), shafts_);
    return kRead;
  }

  // scanf's "%d ": a number, then any white space, line ends included.
  bool readNumber(int32_t& v) {
    skipBlanks();
    int c = std::getc(f_);
    const bool negative = c == '-';
    if (c == '-' || c == '+') c = std::getc(f_);
    if (c < '0' || c > '9') return false;
    int64_t n = 0;
    for (; c >= '0' && c <= '9'; c = std::getc(f_))
      if (n <= INT32_MAX) n = n * 10 + (c - '0');
    if (c != EOF) std::ungetc(c, f_);
    v = n > INT32_MAX ? (negative ? INT32_MIN : INT32_MAX) : int32_t(negative ? -n : n);
    skipBlanks();
    return true;
  }

  void skipBlanks() {
    int c;
    while ((c = std::getc(f_)) != EOF && isBlank(char(c))) {
    }
    if (c != EOF) std::ungetc(c, f_);
  }

  // The value on the key line is ignored; the numbers follow it, separated
  // by any white space.
  uint64_t harnends() {
    if (w_.hasMap) {
      for (uint32_t x = 0; x < w_.width; ++x) {
        int32_t v = 0;
        if (!readNumber(v) || v < 0 || uint32_t(v) >= shafts_) return kFailed;
        if (x < w_.map.size()) w_.map[x] = uint32_t(v);
      }
    }
    skipBlanks();
    return kRead;
  }

  // Quirk: character c is shaft c - '1' above '1' and shaft 0 otherwise, so
  // "0" and "1" are both the first shaft and letters carry on past "9" ("A"
  // is 16). Characters are signed, as the format's writers had them: bytes
  // above 127 are below '1'. The count includes the line feed.
  uint64_t harnands(const char* v) {
    const size_t length = std::strlen(v);
    if (!w_.hasMap || length == 0 || length - 1 != w_.width) return kFailed;
    for (uint32_t x = 0; x < w_.width && x < w_.map.size(); ++x) {
      const int c = static_cast<signed char>(v[x]);
      w_.map[x] = c > '1' ? uint32_t(c - '1') : 0;
    }
    return kRead;
  }

  // Quirk: no range check on the bytes; a shaft outside the lift plan is a
  // shaft that never lifts.
  uint64_t harnunds(const char* v) {
    if (w_.width == 0) return kRead;  // nothing to read into; the block is left in the file
    std::vector<uint8_t> shafts(w_.width, 0);
    if (!readCompressedData(v, shafts.data(), shafts.size(), f_)) return kFailed;
    if (w_.hasMap)
      for (uint32_t x = 0; x < w_.width && x < w_.map.size(); ++x) w_.map[x] = shafts[x];
    return kRead;
  }

  // Bytes the stream still holds, when it is a regular file.
  uint64_t bytesLeft() const noexcept {
    struct stat st;
    const off_t at = ftello(f_);
    if (at < 0 || fstat(fileno(f_), &st) != 0 || !S_ISREG(st.st_mode)) return UINT64_MAX;
    return st.st_size > at ? uint64_t(st.st_size - at) : 0;
  }

  // Up to `size` raw bytes, as many as the file holds. False: no memory.
  // Quirk: a short read is not an error; what is missing reads as zeros.
  bool readRaw(WeaveBlock& b, uint64_t size) {
    b = {};
    b.size = size;
    const uint64_t wanted = std::min(size, bytesLeft());
    size_t capacity = 0;
    while (b.stored < wanted) {
      const size_t piece = size_t(std::min<uint64_t>(kReadPiece, wanted - b.stored));
      if (b.stored + piece > capacity) {
        const size_t grown = size_t(std::min<uint64_t>(wanted, std::max<uint64_t>(b.stored + piece, uint64_t{capacity} * 2)));
        auto* p = static_cast<uint8_t*>(std::realloc(b.data.get(), grown));
        if (!p) return false;
        (void)b.data.release();
        b.data.reset(p);
        capacity = grown;
      }
      const size_t got = std::fread(b.data.get() + b.stored, 1, piece, f_);
      b.stored += got;
      if (got < piece) break;
    }
    return true;
  }

  // A zlib block of `size` bytes, inflated into no more than its stream can
  // give. kNoMemoryForBlock, kFailed, or kRead.
  uint64_t readZlib(WeaveBlock& b, uint64_t size, const char* v) {
    b = {};
    b.size = size;
    uint64_t capacity = 0;
    const long compressed = std::strtol(v, nullptr, 10);
    if (compressed >= kMinCompressed && compressed <= kMaxCompressed) {
      const uint64_t readable = std::min<uint64_t>(uint64_t(compressed), bytesLeft());
      capacity = std::min(size, readable * kMaxInflateRatio + kMaxInflateRatio);
    }
    b.data = allocBlock(size_t(capacity));
    if (!b.data) return kNoMemoryForBlock;
    const size_t produced = readCompressedData(v, b.data.get(), size_t(capacity), f_);
    if (!produced) return kFailed;
    b.stored = std::min<size_t>(produced, size_t(capacity));
    if (b.stored < capacity / 2) {  // give back what the stream did not fill
      if (auto* p = static_cast<uint8_t*>(std::realloc(b.data.get(), b.stored ? b.stored : 1))) {
        (void)b.data.release();
        b.data.reset(p);
      }
    }
    return kRead;
  }

  uint64_t liftPlan(const char* v, bool zlib) {
    w_.rowsPacked = 0;
    w_.hasPicture = false;
    w_.pictureKey = zlib ? kButmap : kBitmap;
    const uint64_t bits = uint64_t{shafts_} * w_.height;
    const uint64_t size = bits / 8 + 1;
    const uint64_t r = zlib ? readZlib(w_.picture, size, v)
                            : readRaw(w_.picture, size) ? kRead : kNoMemoryForBlock;
    if (r == kRead) w_.hasPicture = true, w_.planBits = bits;
    return r;
  }

  // Quirk: BETMAP alone marks the weave as mirrored.
  uint64_t rows(const char* v, bool zlib) {
    w_.rowsPacked = 1;
    w_.hasPicture = false;
    w_.pictureKey = zlib ? kBetmap : kBatmap;
    rowSize_ = uint32_t((uint64_t{w_.width} + 7) / 8);
    const uint64_t size = uint64_t{rowSize_} * w_.height;
    if (zlib) {
      w_.mirrorX = 1;
      const uint64_t r = readZlib(w_.picture, size, v);
      if (r != kRead) return kFailed;  // out of memory included
    } else if (!readRaw(w_.picture, size)) {
      return kNoMemoryForBlock;
    }
    w_.hasPicture = true;
    return kRead;
  }

  // Entry p of the table is 0 for a row stored in the block (stored rows come
  // in order) or k for a row equal to row k - 1.
  // Quirk: the table is applied with the row size of the last row key, 1 byte
  // before any; to a lift plan too. Rows beyond the block are dropped; a row
  // equal to a row outside the table, or to itself through a chain, is empty.
  uint64_t linesRepeat(const char* v) {
    const uint32_t rowsInTable = w_.height;
    const uint32_t entryBytes = rowsInTable > kNarrowRepeatRows ? 4 : 2;
    const size_t tableBytes = size_t{rowsInTable} * entryBytes;
    Block table = allocBlock(tableBytes);
    if (!table) return kRead;  // skipped, and its block is left in the file
    if (!readCompressedData(v, table.get(), tableBytes, f_)) return kFailed;
    if (!w_.hasPicture || rowSize_ == 0) return kRead;

    const auto entry = [&](uint32_t p) -> uint32_t {
      const uint8_t* e = table.get() + size_t{p} * entryBytes;
      return entryBytes == 2 ? uint32_t(e[0] | e[1] << 8)
                             : uint32_t(e[0]) | uint32_t(e[1]) << 8 | uint32_t(e[2]) << 16 |
                                   uint32_t(e[3]) << 24;
    };
    std::vector<uint32_t> source(rowsInTable, kNoRow);
    std::vector<uint8_t> state(rowsInTable, 0);  // 0 open, 1 on the chain being followed, 2 settled
    uint32_t stored = 0;
    for (uint32_t p = 0; p < rowsInTable; ++p)
      if (entry(p) == 0) source[p] = stored++, state[p] = 2;
    std::vector<uint32_t> chain;
    for (uint32_t p = 0; p < rowsInTable; ++p) {
      if (state[p] != 0) continue;
      chain.clear();
      uint32_t q = p, shows = kNoRow;
      for (;;) {
        if (state[q] == 2) { shows = source[q]; break; }
        if (state[q] == 1) break;  // a loop
        state[q] = 1;
        chain.push_back(q);
        const uint32_t k = entry(q);  // not 0: stored rows are settled
        if (k - 1 >= rowsInTable) break;
        q = k - 1;
      }
      for (uint32_t c : chain) source[c] = shows, state[c] = 2;
    }

    // A second table works on what the first one made.
    WeaveBlock& b = w_.picture;
    if (!b.source.empty() && b.rowBytes == rowSize_) {
      for (uint32_t& s : source)
        if (s != kNoRow && s < b.source.size()) s = b.source[s];
      for (size_t p = rowsInTable; p < b.source.size(); ++p) source.push_back(b.source[p]);
    }
    b.source = std::move(source);
    b.rowBytes = rowSize_;
    return kRead;
  }

  std::FILE* f_;
  char* line_;
  Weave& w_;
  uint32_t shafts_ = 1;   // S
  uint32_t rowSize_ = 1;  // R: bytes of a row of the last row key
};

uint64_t readWeave(std::FILE* f, char* line, Weave& w) noexcept {
  try {
    return HeaderReader(f, line, w).run();
  } catch (const std::bad_alloc&) {
    return kFailed;
  }
}

// ---- State

struct WeaveState {
  bool open = false;
  Weave weave;
  Drawdown drawdown;  // lift plan form
  uint32_t rowBytes = 0;
  uint32_t delivered = 0;
};
thread_local WeaveState t_weave;

void release() noexcept { t_weave = {}; }

// ---- Loader operations

Status describe(const char* fileName, Picture& out, uint8_t* colorMap, bool /*readColorMap*/) {
  t_weave = {};
  const uint8_t* probe = loadImgCheckHeader(fileName);
  const int64_t probed = loadImgLastFilesize();
  if (!probe || probed < int64_t(kSignatureBytes) ||
      std::memcmp(probe, kSignature, kSignatureBytes) != 0 ||
      (probed > int64_t(kSignatureBytes) && probe[kSignatureBytes] == '\r') || t_keys.ready != 1)
    return Status::NotThisFormat;

  auto line = std::make_unique<char[]>(kLineBytes);
  File file = openForReading(fileName);
  if (!file) return Status::CannotOpen;
  if (!std::fgets(line.get(), kFirstLineLimit, file.get()) || std::strlen(line.get()) < 8 ||
      !isKey(line.get(), kBinding))
    return Status::NotThisFormat;

  WeaveState& st = t_weave;
  Weave& w = st.weave;
  // Quirk: a block there was no memory for still counts as read; it is an
  // empty weave.
  if (readWeave(file.get(), line.get(), w) == kFailed) return Status::BadData;
  file.reset();
  if (w.width == 0 || w.height == 0) return Status::BadData;

  if (!w.rowsPacked) {
    // Ends whose shaft has no bits in the plan never rise; the map covers
    // every end unless the header broke that.
    std::vector<uint32_t> shafts(w.width, 0);
    for (uint32_t x = 0; x < w.width; ++x) {
      const uint32_t s = x < w.map.size() ? w.map[x] : 0;
      shafts[x] = w.hasPicture && uint64_t{s} * w.height < w.planBits ? s : Drawdown::kNoShaft;
    }
    st.drawdown.prepare(w.width, shafts, {}, kMaxDimension + 1);
  }
  st.rowBytes = uint32_t((uint64_t{w.width} + 7) / 8);
  st.open = true;

  out.layout = VLOAD_LAYOUT_BILEVEL;
  out.width = w.width;
  out.height = w.height;
  out.mirrorX = w.mirrorX;
  colorMap[0] = 0;  // Quirk: the first byte of the caller's map is cleared, whatever it asked
  return Status::Ok;
}

Status deliver(const Band& band) {
  WeaveState& st = t_weave;
  const Weave& w = st.weave;
  if (!st.open || !band.buffer || band.rowCount < 0 || band.rowStride < 0 ||
      uint32_t(band.rowStride) < st.rowBytes || uint32_t(band.rowCount) > w.height - st.delivered)
    return Status::BadRequest;
  const uint32_t shafts = st.drawdown.shaftsInUse();
  for (uint32_t i = 0; i < uint32_t(band.rowCount); ++i) {
    uint8_t* row = band.buffer + size_t{i} * uint32_t(band.rowStride);
    const uint32_t pick = st.delivered + i;
    if (w.rowsPacked) {
      w.picture.copy(row, uint64_t{pick} * st.rowBytes, st.rowBytes);
    } else {
      // Bit s x H + p of the plan: shaft s on pick p.
      for (uint32_t u = 0; u < shafts; ++u)
        if (w.picture.bit(uint64_t{st.drawdown.shaftInUse(u)} * w.height + pick))
          st.drawdown.liftInUse(u);
      st.drawdown.compose(row);
    }
    // Rows wider than the picture get zeros, never bytes of the next row.
    std::memset(row + st.rowBytes, 0, uint32_t(band.rowStride) - st.rowBytes);
  }
  st.delivered += uint32_t(band.rowCount);
  return Status::Ok;
}

// The whole block, as callers of readVelmorWeave get it; nullptr when there
// is no memory for it.
uint8_t* spreadOut(const WeaveBlock& b) noexcept {
  if (b.size > SIZE_MAX) return nullptr;
  auto* p = static_cast<uint8_t*>(std::malloc(b.size ? size_t(b.size) : 1));
  if (p) b.copy(p, 0, size_t(b.size));
  return p;
}

}  // namespace
}  // namespace ldr

extern "C" {

void initLoadWeave(void) {
  for (int k = 0; k < ldr::kKeyCount; ++k)
    ldr::t_keys.length[k] = uint8_t(std::strlen(ldr::kKeyWords[k]));
  ldr::t_keys.ready = 1;
}

uint64_t readVelmorWeave(FILE* stream, char* line, uint8_t* rowsPacked, uint32_t* width,
                         uint32_t* height, uint8_t* mirrorX, uint32_t** map, uint8_t** bits) {
  using namespace ldr;
  if (mirrorX) *mirrorX = 0;
  if (!stream || !line || !rowsPacked || !width || !height || !map || !bits || t_keys.ready != 1)
    return kFailed;
  if (!isKey(line, kBinding)) return kRead;
  *map = nullptr;
  *bits = nullptr;
  Weave w;
  uint64_t result = readWeave(stream, line, w);
  *rowsPacked = w.rowsPacked;
  *width = w.width;
  *height = w.height;
  if (mirrorX) *mirrorX = w.mirrorX;
  if (w.hasMap) {
    *map = static_cast<uint32_t*>(std::malloc(w.map.size() * sizeof(uint32_t)));
    if (!*map) return kFailed;
    std::memcpy(*map, w.map.data(), w.map.size() * sizeof(uint32_t));
  }
  if (w.hasPicture) {
    *bits = spreadOut(w.picture);
    if (!*bits && result == kRead) result = w.pictureKey == kBetmap ? kFailed : kNoMemoryForBlock;
  }
  return result;
}

void registerLoadWeave(void) {
  ldr::registerOperations<ldr::describe, ldr::deliver, ldr::release>();
}

}  // extern "C"
