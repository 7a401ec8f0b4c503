// design/drawdown.cpp
#include "design/drawdown.h"

#include <algorithm>
#include <cstring>
#include <new>

namespace ldr {
namespace {

constexpr uint32_t kMaskShafts = 64;          // the mask form names a lifted set in 64 bits
constexpr size_t kCacheBytes = size_t{8} << 20;  // composed rows kept for reuse
constexpr uint32_t kMaxCachedRows = 4096;

}  // namespace

void Drawdown::prepare(uint32_t width, std::span<const uint32_t> first,
                       std::span<const uint32_t> second, uint32_t shaftLimit) {
  *this = {};
  width_ = width;
  rowBytes_ = uint32_t((uint64_t{width} + 7) / 8);
  const bool twoShafts = !second.empty();
  const auto usable = [&](uint32_t s) { return s < shaftLimit; };

  // Shafts in use, numbered in ascending order.
  uint32_t highest = 0;
  bool any = false;
  for (uint32_t x = 0; x < width; ++x) {
    if (usable(first[x])) highest = std::max(highest, first[x]), any = true;
    if (twoShafts && usable(second[x])) highest = std::max(highest, second[x]), any = true;
  }
  compactOf_.assign(any ? size_t{highest} + 1 : 0, kNoShaft);
  for (uint32_t x = 0; x < width; ++x) {
    if (usable(first[x])) compactOf_[first[x]] = 0;
    if (twoShafts && usable(second[x])) compactOf_[second[x]] = 0;
  }
  for (uint32_t s = 0; s < compactOf_.size(); ++s) {
    if (compactOf_[s] == kNoShaft) continue;
    compactOf_[s] = uint32_t(used_.size());
    used_.push_back(s);
  }
  const uint32_t none = uint32_t(used_.size());
  const auto compact = [&](uint32_t s) { return usable(s) ? compactOf_[s] : none; };

  first_.resize(width);
  bool secondUsed = false;
  for (uint32_t x = 0; x < width; ++x) {
    first_[x] = compact(first[x]);
    secondUsed |= twoShafts && compact(second[x]) != none && compact(second[x]) != first_[x];
  }
  if (secondUsed) {
    second_.resize(width);
    for (uint32_t x = 0; x < width; ++x) {
      const uint32_t s = compact(second[x]);
      second_[x] = s == first_[x] ? none : s;  // one shaft named twice is one shaft
    }
  }

  // Ends by shaft, for rows where few ends are raised.
  endsStart_.assign(size_t{none} + 2, 0);
  for (uint32_t x = 0; x < width; ++x) {
    ++endsStart_[first_[x] + 1];
    if (secondUsed) ++endsStart_[second_[x] + 1];
  }
  for (uint32_t u = 0; u <= none; ++u) endsStart_[u + 1] += endsStart_[u];
  ends_.resize(endsStart_[none + 1]);
  {
    std::vector<uint32_t> fill(endsStart_.begin(), endsStart_.end() - 1);
    for (uint32_t x = 0; x < width; ++x) {
      ends_[fill[first_[x]]++] = x;
      if (secondUsed) ends_[fill[second_[x]]++] = x;
    }
  }

  if (none <= kMaskShafts) {
    maskStride_ = (rowBytes_ + 15) / 16 * 16;
    masks_.assign(size_t{none} * maskStride_, 0);
    for (uint32_t u = 0; u < none; ++u)
      for (uint32_t k = endsStart_[u]; k < endsStart_[u + 1]; ++k)
        masks_[size_t{u} * maskStride_ + ends_[k] / 8] |= uint8_t(0x80 >> (ends_[k] % 8));
  }

  lifted_.assign(size_t{none} + 1, 0);
  liftedList_.reserve(none);
  cacheCapacity_ = rowBytes_ ? uint32_t(std::clamp<size_t>(kCacheBytes / rowBytes_, 1, kMaxCachedRows)) : 0;
}

void Drawdown::liftInUse(uint32_t i) noexcept {
  if (i >= used_.size() || lifted_[i]) return;
  lifted_[i] = 1;
  liftedList_.push_back(i);  // reserved for every shaft in use: never reallocates
  if (i < 64) liftedBits_ |= uint64_t{1} << i;
  liftedEnds_ += endsStart_[i + 1] - endsStart_[i];
}

void Drawdown::lowerAll() noexcept {
  for (uint32_t u : liftedList_) lifted_[u] = 0;
  liftedList_.clear();
  liftedBits_ = 0;
  liftedEnds_ = 0;
}

// Sixteen bytes of the row at a time, ORed over every lifted mask in a
// register before one store; the masks' stride is a multiple of 16 bytes.
void Drawdown::composeFromMasks(uint8_t* row) const noexcept {
  using Chunk = uint8_t __attribute__((vector_size(16)));
  const uint8_t* masks[kMaskShafts];
  const size_t lifted = liftedList_.size();
  for (size_t k = 0; k < lifted; ++k) masks[k] = &masks_[size_t{liftedList_[k]} * maskStride_];
  const size_t whole = rowBytes_ / 16 * 16;
  for (size_t i = 0; i < whole; i += 16) {
    Chunk acc, next;
    std::memcpy(&acc, masks[0] + i, 16);
    for (size_t k = 1; k < lifted; ++k) {
      std::memcpy(&next, masks[k] + i, 16);
      acc |= next;
    }
    std::memcpy(row + i, &acc, 16);
  }
  for (size_t i = whole; i < rowBytes_; ++i) {
    uint8_t acc = 0;
    for (size_t k = 0; k < lifted; ++k) acc |= masks[k][i];
    row[i] = acc;
  }
}

void Drawdown::composeSparse(uint8_t* row) const noexcept {
  std::memset(row, 0, rowBytes_);
  for (uint32_t u : liftedList_)
    for (uint32_t k = endsStart_[u]; k < endsStart_[u + 1]; ++k)
      row[ends_[k] / 8] |= uint8_t(0x80 >> (ends_[k] % 8));
}

// Eight ends make one output byte.
void Drawdown::composeDense(uint8_t* row) const noexcept {
  const uint8_t* up = lifted_.data();
  const uint32_t* f = first_.data();
  const uint32_t* s = second_.empty() ? nullptr : second_.data();
  const uint32_t whole = width_ / 8;
  for (uint32_t j = 0; j < whole; ++j, f += 8) {
    unsigned v = unsigned(up[f[0]]) << 7 | unsigned(up[f[1]]) << 6 | unsigned(up[f[2]]) << 5 |
                 unsigned(up[f[3]]) << 4 | unsigned(up[f[4]]) << 3 | unsigned(up[f[5]]) << 2 |
                 unsigned(up[f[6]]) << 1 | unsigned(up[f[7]]);
    if (s) {
      v |= unsigned(up[s[0]]) << 7 | unsigned(up[s[1]]) << 6 | unsigned(up[s[2]]) << 5 |
           unsigned(up[s[3]]) << 4 | unsigned(up[s[4]]) << 3 | unsigned(up[s[5]]) << 2 |
           unsigned(up[s[6]]) << 1 | unsigned(up[s[7]]);
      s += 8;
    }
    row[j] = uint8_t(v);
  }
  if (width_ % 8) {
    unsigned v = 0;
    for (uint32_t k = 0; k < width_ % 8; ++k)
      v |= unsigned(up[f[k]] | (s ? up[s[k]] : 0)) << (7 - k);
    row[whole] = uint8_t(v);
  }
}

bool Drawdown::reuse(uint8_t* row, uint64_t key) noexcept {
  const auto hit = byKey_.find(key);
  if (hit == byKey_.end()) return false;
  std::memcpy(row, &cacheRows_[size_t{hit->second} * rowBytes_], rowBytes_);
  return true;
}

void Drawdown::compose(uint8_t* row, uint64_t key) {
  // A row is cached under the caller's key, or in the mask form under its
  // lifted set.
  const bool byBits = key == kNoKey && used_.size() <= kMaskShafts;
  auto& cache = byBits ? byBits_ : byKey_;
  if (byBits) key = liftedBits_;
  if (key != kNoKey) {
    if (auto hit = cache.find(key); hit != cache.end()) {
      std::memcpy(row, &cacheRows_[size_t{hit->second} * rowBytes_], rowBytes_);
      lowerAll();
      return;
    }
  }
  if (liftedList_.empty()) {
    std::memset(row, 0, rowBytes_);
  } else {
    // Rough costs: sixteen bytes of masks, a scattered bit, half an end gathered.
    const uint64_t masks = masks_.empty() ? UINT64_MAX : uint64_t{liftedList_.size()} * (maskStride_ / 16);
    const uint64_t sparse = liftedEnds_ + rowBytes_ / 8;
    const uint64_t dense = uint64_t{width_} / 2 * (second_.empty() ? 1 : 2);
    if (masks <= sparse && masks <= dense) composeFromMasks(row);
    else if (sparse <= dense) composeSparse(row);
    else composeDense(row);
  }
  lowerAll();
  if (key == kNoKey || cachedRows_ >= cacheCapacity_) return;
  try {
    cacheRows_.resize(size_t{cachedRows_ + 1} * rowBytes_);
    std::memcpy(&cacheRows_[size_t{cachedRows_} * rowBytes_], row, rowBytes_);
    cache.emplace(key, cachedRows_);
    ++cachedRows_;
  } catch (const std::bad_alloc&) {
    cacheCapacity_ = 0;  // no room for a cache: compose every row
  }
}

}  // namespace ldr
