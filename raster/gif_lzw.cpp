// raster/gif_lzw.cpp: GIF's LZW decoding, codes packed least significant bit
// first, with two decoders over one table.
//
// The fast decoder keeps every table string as a chain of 8-byte chunks and
// writes it with whole-word stores into a row buffer, which is copied out row
// by row. The unwinding decoder follows each code's prefix chain through a
// pixel stack, the classic way. They decode every stream the same. The fast
// one hands over for good when a stream refers to a code it has not entered
// yet (a code beyond the next free one, or a table code right after a clear),
// since what such a code means depends on how the table is rewritten later,
// which only the unwinding decoder follows entry by entry; and when a pixel
// after a clear lies above the colour mask, whose first byte then differs
// from its string's. Images whose colour count exceeds the clear code use the
// unwinding decoder from the start.
//
// Quirk: a string is unwound while its code exceeds the colour mask (colours
// minus one), not while it is at least the clear code as other decoders do,
// and its first byte is the code at the end of the chain masked with the
// colour mask. Where the minimum code size equals the colour table's depth,
// as it usually does, the two rules agree. Elsewhere designs are meant to
// decode this way for their hosts: with a smaller code size, table codes up
// to the colour mask come out as single pixels; with a larger one, a pixel
// value above the colour mask comes out as two pixels of colour 0.
// Quirk: the code after a clear code is a pixel whatever its value, so a
// second clear code (or an end code) right after a clear is a pixel of that
// code masked with the colour mask. Other decoders clear again (or stop).
// Quirk: codes come from a window that is topped up with one sub-block
// whenever fewer than three bytes are left in it. Once the terminating empty
// sub-block has been read, every further code read with fewer than three bytes
// left is 0 (a pixel of colour 0) and the bit position stays: codes that start
// in the last two bytes of the data, but for the first of them, are never
// read. Sub-blocks of one or two bytes likewise leave a code short of bytes,
// which read as 0. Other decoders read every bit.
// Quirk: a stream whose first code is not a clear code starts as though one
// had come first, as other decoders do.
#include "raster/gif_lzw.h"

#include <algorithm>
#include <bit>
#include <cstring>
#include <new>

#include "framework/checked.h"

namespace ldr {
namespace {

static_assert(std::endian::native == std::endian::little, "table strings are stored as little-endian words");

constexpr uint32_t kMinCodeSize = 2;   // GIF's smallest minimum code size
constexpr uint32_t kMaxCodeSize = 11;  // a clear code of 4096 would leave no table
constexpr uint32_t kMaxCodeBits = 12;
constexpr uint32_t kReadFailed = 1u << 16;  // readCode's answer after a short sub-block
constexpr uint32_t kDry = 1u << 17;         // its answer once the data has ended
constexpr uint32_t kMaxSubBlock = 255;
constexpr uint32_t kSpill = 8;  // whole-chunk writes reach up to 7 bytes past a string

thread_local bool t_unwindingOnly = false;

// The fields of an entry's meta word.
constexpr uint64_t kChunkField = uint64_t{0xFFFF} << 16;
constexpr uint64_t makeMeta(uint32_t length, uint32_t chunk, uint32_t first) {
  return uint64_t{length} | uint64_t{chunk} << 16 | uint64_t{first} << 32;
}
constexpr uint32_t lengthOf(uint64_t m) { return uint32_t(m) & 0xFFFF; }
constexpr uint32_t chunkOf(uint64_t m) { return uint32_t(m >> 16) & 0xFFFF; }
constexpr uint8_t firstOf(uint64_t m) { return uint8_t(m >> 32); }

constexpr uint32_t growAtFor(uint32_t size) { return size < kMaxCodeBits ? 1u << size : 0; }

using Entry = LzwDecoder::Entry;

// The entry for the string of `prefix` (its tail and meta) and `last`.
inline Entry extend(uint64_t tail, uint64_t meta, uint32_t prefix, uint8_t last) {
  const uint32_t used = lengthOf(meta) & 7;  // bytes in the prefix's last chunk; 0 when it is whole
  return {used ? tail | uint64_t{last} << (8 * used) : last,
          ((meta + 1) & ~kChunkField) | (used ? meta & kChunkField : uint64_t{prefix} << 16)};
}

// Writes the string of an entry at `dst`, and up to 7 bytes of whatever after it.
inline void writeString(uint8_t* dst, const Entry* table, uint64_t tail, uint64_t meta) {
  uint8_t* at = dst + ((lengthOf(meta) - 1) & ~7u);
  std::memcpy(at, &tail, 8);
  for (uint32_t c = chunkOf(meta); at != dst; c = chunkOf(table[c].meta)) {
    at -= 8;
    std::memcpy(at, &table[c].tail, 8);
  }
}

}  // namespace

void setGifUnwindingOnly(bool on) noexcept { t_unwindingOnly = on; }

std::unique_ptr<LzwDecoder> LzwDecoder::create(uint32_t width) noexcept {
  std::unique_ptr<LzwDecoder> d(new (std::nothrow) LzwDecoder());
  if (!d) return nullptr;
  d->row_ = allocBlock(size_t{width} + kStackEntries + kSpill);
  if (!d->row_) return nullptr;
  d->width_ = width;
  return d;
}

LzwDecoder::Regs LzwDecoder::regs() const noexcept {
  return {bitPos_, int64_t{dataEnd_} - 3, size_, mask_, growAt_, next_, current_, old_, filled_, lastFirst_};
}

void LzwDecoder::keep(const Regs& r) noexcept {
  bitPos_ = r.bitPos;
  size_ = r.size;
  mask_ = r.mask;
  growAt_ = r.growAt;
  next_ = r.next;
  current_ = r.cur;
  old_ = r.old;
  filled_ = r.filled;
  lastFirst_ = r.first;
}

// ---- Codes

// Tops the window up with the next sub-block. The bytes before the one the
// next code starts in are dropped first when the window is nearly full.
void LzwDecoder::readSubBlock() noexcept {
  if (dataEnd_ + kMaxSubBlock > kDataBytes) {
    const uint32_t at = uint32_t(std::min<uint64_t>(bitPos_ >> 3, dataEnd_));
    std::memmove(data_, data_ + at, dataEnd_ - at);
    dataEnd_ -= at;
    bitPos_ -= uint64_t{at} * 8;
  }
  const int length = in_->next();
  const size_t got = length > 0 ? in_->read(data_ + dataEnd_, size_t(length)) : 0;
  dataEnd_ += uint32_t(got);
  lastBlock_ = uint32_t(got);
  if (length < 0 || got < size_t(length)) readError_ = Status::CannotOpen;
}

// A code read with fewer than three bytes in the window. A position past
// the bytes read (after short sub-blocks) counts as no bytes left. Once the
// data has ended, the answer is 0 without moving on, so every later code is
// 0 too: kDry says so.
uint32_t LzwDecoder::readCodeAtBlockEnd() noexcept {
  uint64_t at = bitPos_ >> 3;
  if (at + 3 > dataEnd_) {
    if (lastBlock_ == 0) return kDry;
    readSubBlock();
    at = bitPos_ >> 3;
  }
  const uint64_t left = at < dataEnd_ ? dataEnd_ - at : 0;
  uint32_t v = 0;
  if (left >= 1) v = data_[at];
  if (left >= 2) v |= uint32_t(data_[at + 1]) << 8;
  if (left >= 3 && size_ > 7) v |= uint32_t(data_[at + 2]) << 16;
  const uint32_t code = (v >> (bitPos_ & 7)) & mask_;
  bitPos_ += size_;
  return readError_ == Status::Ok ? code : kReadFailed;
}

uint32_t LzwDecoder::readCode() noexcept {
  Regs r = regs();
  const uint32_t code = readCode(r);
  keep(r);
  return code;
}

[[gnu::always_inline]] inline uint32_t LzwDecoder::readCode(Regs& r) noexcept {
  const uint64_t at = r.bitPos >> 3;
  if (int64_t(at) <= r.readEnd) [[likely]] {
    uint32_t v;
    std::memcpy(&v, data_ + at, 4);
    const uint32_t code = (v >> (r.bitPos & 7)) & r.mask;
    r.bitPos += r.size;
    return code;
  }
  bitPos_ = r.bitPos;
  size_ = r.size;
  mask_ = r.mask;
  const uint32_t code = readCodeAtBlockEnd();
  r.bitPos = bitPos_;
  r.readEnd = int64_t{dataEnd_} - 3;
  return code;
}

// ---- Setting up

Status LzwDecoder::begin(ReadAhead& in, uint32_t colourMask) noexcept {
  in_ = &in;
  const int minCodeSize = in.next();
  if (minCodeSize < 0) return Status::CannotOpen;
  if (uint32_t(minCodeSize) < kMinCodeSize || uint32_t(minCodeSize) > kMaxCodeSize)
    return Status::BadData;
  colourMask_ = colourMask;
  clear_ = 1u << minCodeSize;
  end_ = clear_ + 1;
  firstFree_ = clear_ + 2;
  initialSize_ = uint32_t(minCodeSize) + 1;
  size_ = initialSize_;
  mask_ = (1u << size_) - 1;
  growAt_ = growAtFor(size_);
  next_ = firstFree_;
  // A code up to the colour mask stands for itself. Any other code reads as
  // its zeroed entry until it is entered: colour 0 after colour 0. The clear
  // and end codes stay unbuilt, which sends them off the fast path.
  for (uint32_t c = 0; c < kMaxCodes; ++c)
    table_[c] = c <= colourMask ? Entry{c, makeMeta(1, 0, c)} : Entry{0, makeMeta(2, 0, 0)};
  table_[clear_].meta = table_[end_].meta = 0;
  unwinding_ = t_unwindingOnly || colourMask_ >= firstFree_;

  current_ = readCode();
  if (current_ == kReadFailed) return readError_;
  if (current_ != clear_ && current_ != end_ && current_ != kDry) {
    // As after a clear code: this code is a pixel, and the next one is read
    // when the pixel has been delivered.
    lastFirst_ = uint8_t(current_ & colourMask_);
    row_[0] = lastFirst_;
    filled_ = 1;
    old_ = current_;
    needCode_ = true;
    unwinding_ = unwinding_ || current_ > colourMask_;
  }
  return Status::Ok;
}

// ---- Rows

// Copies the whole rows assembled so far into the band, as far as it goes,
// and keeps the rest at the start of the row buffer.
uint32_t LzwDecoder::flushRows(Band& band, uint32_t filled) noexcept {
  const uint8_t* from = row_.get();
  while (filled >= width_ && band.done < band.rows) {
    std::memcpy(rowAt(band.buffer, band.done++, band.stride), from, width_);
    from += width_;
    filled -= width_;
  }
  if (from != row_.get()) std::memmove(row_.get(), from, filled);
  return filled;
}

// Decoding stops (end code or error): the row it stopped in gets the pixels
// decoded so far, and no later call writes anything.
Status LzwDecoder::stop(Band& band, Status s) noexcept {
  if (filled_ && band.done < band.rows)
    std::memcpy(rowAt(band.buffer, band.done, band.stride), row_.get(), filled_);
  filled_ = 0;
  return s;
}

// Every code from here on is 0, a pixel of colour 0 each (entering strings
// that no later code can show): the rest of the image is 0.
Status LzwDecoder::fillDry(Band& band) noexcept {
  std::memset(row_.get() + filled_, 0, width_ - filled_);
  flushRows(band, width_);
  while (band.done < band.rows) std::memset(rowAt(band.buffer, band.done++, band.stride), 0, width_);
  filled_ = 0;
  return Status::Ok;
}

Status LzwDecoder::fill(uint8_t* buffer, uint32_t rows, int32_t stride) noexcept {
  Band band{buffer, rows, stride, 0};
  filled_ = flushRows(band, filled_);
  if (band.done == rows && filled_ != 0) return Status::Ok;  // the band took only part of a string
  if (needCode_) {
    needCode_ = false;
    current_ = readCode();
    if (current_ == kReadFailed) return stop(band, readError_);
  }
  if (current_ == end_) return stop(band, Status::Ok);
  if (band.done == rows) return Status::Ok;
  return unwinding_ ? decodeUnwinding(band) : decodeFast(band);
}

// ---- Decoding

// Enters the string of the last code followed by `last` as the next free
// code, to be built when first used; a full table takes no more.
[[gnu::always_inline]] inline void LzwDecoder::enter(Regs& r, uint8_t last) noexcept {
  if (r.next == kMaxCodes) return;
  prefix_[r.next] = uint16_t(r.old);
  suffix_[r.next] = last;
  table_[r.next].meta = 0;
  if (++r.next == r.growAt) {
    ++r.size;
    r.mask = (1u << r.size) - 1;
    r.growAt = growAtFor(r.size);
  }
}

// A clear code: the table starts again, and the next code is a pixel, its
// value masked with the colour mask, whatever it is. False when the read fails.
[[gnu::always_inline]] inline bool LzwDecoder::clearTable(Regs& r) noexcept {
  r.size = initialSize_;
  r.mask = (1u << r.size) - 1;
  r.growAt = growAtFor(r.size);
  r.next = firstFree_;
  uint32_t code = readCode(r);
  if (code == kReadFailed) return false;
  if (code == kDry) code = 0;
  r.first = uint8_t(code & colourMask_);
  row_[r.filled] = r.first;
  r.old = code;
  return true;
}

// After a string of `length` pixels: full rows go to the band, and the next
// code is read, unless the band ends inside the string. True when the call
// is over, with its status in `s`.
[[gnu::always_inline]] inline bool LzwDecoder::finishString(Regs& r, Band& band, uint32_t length,
                                                            Status& s) noexcept {
  r.filled += length;
  if (r.filled >= width_) {
    r.filled = flushRows(band, r.filled);
    if (band.done == band.rows) {
      s = Status::Ok;
      if (r.filled != 0) {
        needCode_ = true;  // the rest of the string opens the next band
        return true;
      }
      r.cur = readCode(r);
      if (r.cur == kReadFailed) s = readError_;
      return true;
    }
  }
  r.cur = readCode(r);
  return false;
}

// Builds the entry of `code`. Its prefix is the code decoded just before it
// was entered, built then; the fast decoder never sees a code entered
// before the last clear, so the prefix has not been entered again since.
void LzwDecoder::build(uint32_t code) noexcept {
  const uint32_t p = prefix_[code];
  table_[code] = extend(table_[p].tail, table_[p].meta, p, suffix_[code]);
}

Status LzwDecoder::decodeFast(Band& band) noexcept {
  Regs r = regs();
  Entry* const table = table_;
  uint8_t* const row = row_.get();
  const uint32_t clear = clear_, colourMask = colourMask_;
  // The last code's entry is built, and its first byte is the last string's
  // (a pixel after a clear that would break this hands over).
  for (;;) {
    const uint32_t cur = r.cur;
    uint32_t length = 1;
    if (cur <= colourMask) {  // a pixel of its own, as most codes of noisy pictures are
      row[r.filled] = uint8_t(cur);
      enter(r, uint8_t(cur));
      r.old = cur;
      Status s;
      if (finishString(r, band, 1, s)) {
        r.first = uint8_t(r.old);
        keep(r);
        return s;
      }
      continue;
    }
    bool ready = cur < r.next;
    if (ready && lengthOf(table[cur].meta) == 0) [[unlikely]] {
      // Not built yet; or the clear or end code, which never are.
      if (cur - clear > 1) build(cur);
      else ready = false;
    }
    if (ready) [[likely]] {
      const uint64_t tail = table[cur].tail, meta = table[cur].meta;
      length = lengthOf(meta);
      writeString(row + r.filled, table, tail, meta);
      enter(r, firstOf(meta));
      r.old = cur;
    } else if (cur == r.next) {
      // The code being defined: the last string and its own first byte.
      const Entry& last = table[r.old];
      const Entry e = extend(last.tail, last.meta, r.old, firstOf(last.meta));
      length = lengthOf(e.meta);
      writeString(row + r.filled, table, e.tail, e.meta);
      enter(r, firstOf(last.meta));
      table[cur] = e;
      r.old = cur;
    } else {
      r.first = firstOf(table[r.old].meta);
      keep(r);
      if (cur == end_) return stop(band, Status::Ok);
      if (cur == kReadFailed) return stop(band, readError_);
      if (cur == kDry) return fillDry(band);
      if (cur != clear) {  // a code beyond the table
        unwinding_ = true;
        return decodeUnwinding(band);
      }
      if (!clearTable(r)) {
        keep(r);
        return stop(band, readError_);
      }
      Status s;
      if (finishString(r, band, 1, s)) {
        unwinding_ = r.old > colourMask_;
        keep(r);
        return s;
      }
      if (r.old > colourMask_) {
        keep(r);
        unwinding_ = true;
        return decodeUnwinding(band);
      }
      continue;
    }
    Status s;
    if (finishString(r, band, length, s)) {
      r.first = firstOf(table[r.old].meta);
      keep(r);
      return s;
    }
  }
}

Status LzwDecoder::decodeUnwinding(Band& band) noexcept {
  Regs r = regs();
  uint8_t* const row = row_.get();
  for (;;) {
    const uint32_t cur = r.cur;
    uint32_t length = 1;
    const auto finish = [&](Status s) {
      keep(r);
      return cur == kDry ? fillDry(band) : stop(band, s);
    };
    if (cur == end_ || cur == kDry) return finish(Status::Ok);
    if (cur == kReadFailed) return finish(readError_);
    if (cur == clear_) {
      if (!clearTable(r)) return finish(readError_);
    } else {
      uint32_t work = cur, count = 0;
      if (work >= r.next) {
        work = r.old;
        stack_[count++] = r.first;
      }
      for (; work > colourMask_; work = prefix_[work]) {
        if (count == kStackEntries) return finish(Status::BadData);
        stack_[count++] = suffix_[work];
      }
      if (count == kStackEntries) return finish(Status::BadData);
      r.first = uint8_t(work);
      stack_[count++] = r.first;
      for (uint32_t i = 0; i < count; ++i) row[r.filled + i] = stack_[count - 1 - i];
      length = count;
      enter(r, r.first);
      r.old = cur;
    }
    Status s;
    if (finishString(r, band, length, s)) {
      keep(r);
      return s;
    }
  }
}

}  // namespace ldr
