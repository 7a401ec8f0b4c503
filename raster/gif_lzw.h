// raster/gif_lzw.h: the LZW decoder of the GIF loader (raster/gif.cpp).
//
// Call sequence: create(width) once per image, begin() at the image data's
// minimum code size byte, then fill() for successive bands. A band may end in
// the middle of a string; the rest of it opens the next band.
#pragma once

#include <cstdint>
#include <memory>

#include "framework/file.h"
#include "framework/read_ahead.h"
#include "framework/status.h"

namespace ldr {

class LzwDecoder {
 public:
  static constexpr uint32_t kMaxCodes = 4096;
  // The unwinding decoder's pixel stack holds this many entries; a longer
  // chain is a broken stream (BadData).
  static constexpr uint32_t kStackEntries = 5001;

  // A decoder for rows of `width` pixels; nullptr without memory.
  static std::unique_ptr<LzwDecoder> create(uint32_t width) noexcept;

  // Reads the minimum code size and the first code from `in`, which the
  // decoder keeps using. `colourMask` is the number of colours minus one.
  Status begin(ReadAhead& in, uint32_t colourMask) noexcept;

  // Delivers `rows` rows of index bytes at `buffer`, `stride` bytes apart,
  // continuing the image. After the end code it returns Ok and writes nothing
  // more; a row the data stops in keeps what the caller's buffer held beyond
  // the last pixel.
  Status fill(uint8_t* buffer, uint32_t rows, int32_t stride) noexcept;

  // A string of the fast decoder, kept as 8-byte chunks: `tail` holds its
  // last 1 to 8 bytes, and the chunk code names the entry whose full chunks
  // make up the bytes before them. `meta` packs the length (bits 0-15; 0 for
  // an entry not built yet), the chunk code (16-31) and the first byte
  // (32-39). Entries are built from prefix_ and suffix_ when first used.
  struct Entry {
    uint64_t tail;
    uint64_t meta;
  };

 private:
  // The caller's band.
  struct Band {
    uint8_t* buffer;
    uint32_t rows;
    int32_t stride;
    uint32_t done;  // rows written
  };

  // The decoder state the loops keep in locals: a store into a row could
  // otherwise alias a member and force it to be read again.
  struct Regs {
    uint64_t bitPos;
    int64_t readEnd;  // the last byte a code may start in and still have three
    uint32_t size, mask, growAt, next;
    uint32_t cur, old, filled;
    uint8_t first;  // first byte of the last string decoded
  };

  LzwDecoder() = default;

  Regs regs() const noexcept;
  void keep(const Regs& r) noexcept;
  uint32_t readCode() noexcept;
  uint32_t readCode(Regs& r) noexcept;
  uint32_t readCodeAtBlockEnd() noexcept;
  void readSubBlock() noexcept;
  void enter(Regs& r, uint8_t last) noexcept;
  void build(uint32_t code) noexcept;
  bool clearTable(Regs& r) noexcept;
  bool finishString(Regs& r, Band& band, uint32_t length, Status& s) noexcept;
  uint32_t flushRows(Band& band, uint32_t filled) noexcept;
  Status stop(Band& band, Status s) noexcept;
  Status fillDry(Band& band) noexcept;
  Status decodeFast(Band& band) noexcept;
  Status decodeUnwinding(Band& band) noexcept;

  // The table as entered: each code's string is its prefix code's string and
  // its suffix byte. The unwinding decoder reads these alone.
  uint16_t prefix_[kMaxCodes];
  uint8_t suffix_[kMaxCodes];
  Entry table_[kMaxCodes];
  uint8_t stack_[kStackEntries];  // the unwinding decoder's pixel stack

  // Compressed bytes of the sub-blocks read so far, from where the next code
  // starts (give or take two bytes); 8 spare bytes for whole-word loads.
  static constexpr uint32_t kDataBytes = 4096;
  uint8_t data_[kDataBytes + 8];
  uint64_t bitPos_ = 0;       // next code's first bit in data_
  uint32_t dataEnd_ = 0;      // bytes in data_
  uint32_t lastBlock_ = 255;  // bytes the last sub-block gave; 0 once the data ended
  ReadAhead* in_ = nullptr;
  Status readError_ = Status::Ok;

  // The picture row being assembled, and any pixels beyond it that the last
  // band could not take; room for a row, the longest string and a spill of
  // up to 7 bytes from whole-chunk writes.
  Block row_;
  uint32_t width_ = 0;
  uint32_t filled_ = 0;
  bool needCode_ = false;  // the current code is used up; read one before going on

  uint32_t colourMask_ = 0;
  uint32_t clear_ = 0, end_ = 0, firstFree_ = 0;
  uint32_t initialSize_ = 0, size_ = 0, mask_ = 0;
  uint32_t growAt_ = 0;   // the next free code at which codes grow a bit; 0 at 12 bits
  uint32_t next_ = 0;     // the next free code, kept at kMaxCodes once the table is full
  uint32_t current_ = 0;  // the code to decode next
  uint32_t old_ = 0;
  uint8_t lastFirst_ = 0;
  bool unwinding_ = false;
};

// Per thread: decode with the unwinding decoder alone, which the fast one
// otherwise hands over to only for streams it cannot follow. For tests and
// benchmarks that compare the two.
void setGifUnwindingOnly(bool on) noexcept;

}  // namespace ldr
