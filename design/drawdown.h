// design/drawdown.h: turns the shafts lifted on a pick into a row of the woven
// picture, given the shaft (or two) that each end is threaded on.
//
// Used by the weave loader (lift plan form) and the WIF loader. A row is
// composed in whichever way costs least for that pick:
//  - few shafts in use (up to 64): one bit mask of ends per shaft, and the
//    row is the OR of the masks of the lifted shafts, eight bytes at a time;
//    rows are cached by the set of lifted shafts, so a pattern that repeats
//    is composed once;
//  - few ends on the lifted shafts: only those ends' bits are set;
//  - otherwise each output byte is gathered from eight ends' shafts.
#pragma once

#include <cstdint>
#include <span>
#include <unordered_map>
#include <vector>

namespace ldr {

class Drawdown {
 public:
  static constexpr uint32_t kNoShaft = UINT32_MAX;
  static constexpr uint64_t kNoKey = UINT64_MAX;

  // Ends 0..width-1 hang on first[x] and, unless it is kNoShaft or `second`
  // is empty, on second[x] too. Shafts from `shaftLimit` on are never lifted.
  // Throws std::bad_alloc.
  void prepare(uint32_t width, std::span<const uint32_t> first, std::span<const uint32_t> second,
               uint32_t shaftLimit);

  // Distinct shafts that ends hang on, and the number of the i-th of them.
  uint32_t shaftsInUse() const noexcept { return uint32_t(used_.size()); }
  uint32_t shaftInUse(uint32_t i) const noexcept { return used_[i]; }

  // Lifts a shaft for the pick being composed; shafts no end hangs on are ignored.
  void lift(uint32_t shaft) noexcept {
    if (shaft < compactOf_.size() && compactOf_[shaft] != kNoShaft) liftInUse(compactOf_[shaft]);
  }
  void liftInUse(uint32_t i) noexcept;

  // Writes the row (width bits, whole bytes) for the shafts lifted since the
  // last call, then lowers them all. `key`, when given, names the lifted set
  // (a treadle, say): the row is cached under it. Throws std::bad_alloc.
  void compose(uint8_t* row, uint64_t key = kNoKey);
  // Writes the row cached under `key` and returns true, if there is one; a
  // caller may ask before it lifts anything.
  bool reuse(uint8_t* row, uint64_t key) noexcept;

  uint32_t rowBytes() const noexcept { return rowBytes_; }

 private:
  void composeFromMasks(uint8_t* row) const noexcept;
  void composeSparse(uint8_t* row) const noexcept;
  void composeDense(uint8_t* row) const noexcept;
  void lowerAll() noexcept;

  uint32_t width_ = 0, rowBytes_ = 0;
  std::vector<uint32_t> used_;       // shaft numbers in use, ascending
  std::vector<uint32_t> compactOf_;  // shaft number -> index into used_, or kNoShaft
  std::vector<uint32_t> first_, second_;  // per end: index into used_; used_.size() = none
  std::vector<uint32_t> endsStart_, ends_;  // ends hanging on each shaft in use
  std::vector<uint8_t> masks_;              // mask form: one row of ends per shaft in use
  uint32_t maskStride_ = 0;

  // The pick being composed.
  std::vector<uint8_t> lifted_;  // per shaft in use, plus an always-lowered "none"
  std::vector<uint32_t> liftedList_;
  uint64_t liftedBits_ = 0;  // mask form: the lifted set as bits
  uint64_t liftedEnds_ = 0;  // ends hanging on the lifted shafts

  // Composed rows by the caller's key or by lifted set, while they fit the budget.
  std::unordered_map<uint64_t, uint32_t> byKey_, byBits_;
  std::vector<uint8_t> cacheRows_;
  uint32_t cachedRows_ = 0, cacheCapacity_ = 0;
};

}  // namespace ldr
