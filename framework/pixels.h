// framework/pixels.h: pixel reorderings that loaders need on their hot paths.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>

namespace ldr {

// How converted rows are written. Cached stores leave the rows in the
// caches, where a host that reads them soon finds them; Streamed stores
// (non-temporal) go round the caches straight to memory, which saves reading
// each destination line before it is overwritten, and is right for a picture
// too big to stay in the caches until the host reads it. Streamed is a hint:
// paths without such stores store as Cached. After streamed stores, call
// fenceStreamed() before the rows are handed back to the host.
enum class Store : uint8_t { Cached, Streamed };

// The copying conversions below read `src` and write `dst`, which must not
// overlap.

// Copies n bytes.
void copyBytes(const uint8_t* src, uint8_t* dst, size_t n, Store store) noexcept;

// Copies `count` pixels swapping their first and third byte: B, G, R becomes
// R, G, B (3 bytes a pixel), B, G, R, A becomes R, G, B, A (4).
void swapRedBlue3(const uint8_t* src, uint8_t* dst, size_t count, Store store) noexcept;
void swapRedBlue4(const uint8_t* src, uint8_t* dst, size_t count, Store store) noexcept;

// Interleaves `count` pixels kept as separate planes (one byte a pixel each)
// into R, G, B (3 bytes a pixel) or R, G, B, A (4).
void interleave3(const uint8_t* r, const uint8_t* g, const uint8_t* b, uint8_t* out, size_t count,
                 Store store = Store::Cached) noexcept;
void interleave4(const uint8_t* r, const uint8_t* g, const uint8_t* b, const uint8_t* a,
                 uint8_t* out, size_t count) noexcept;

// Orders streamed stores before whatever the thread does next (a host may
// pass the rows to another thread).
void fenceStreamed() noexcept;

// Pictures at least this large are filled with streamed stores: together
// with the file they come from they outgrow a last-level cache of 32 MiB, so
// by the time the host reads the first rows back, the last ones have pushed
// them out anyway. Smaller pictures may stay in the cache, where cached
// stores leave them for the host.
constexpr uint64_t kStreamedPictureBytes = 16u << 20;

// Prepares the rows of one band of a picture of `pictureBytes` bytes that
// is being filled, and says how to store into them. The rows lie from the
// one starting at `low` to the one starting at `high`, rowBytes each.
// Pictures that large are filled with streamed stores. When the band's pages
// are not backed by memory yet (a fresh allocation), they are first
// populated in one call: that costs far less than a page fault at the first
// store to each page, and leaves nothing for the stores to do but store.
// Should that fail, the stores are cached: a page zeroed at a fault has its
// lines in the cache, where cached stores find them and streamed ones would
// have to push them out first.
Store prepareRows(uint8_t* low, uint8_t* high, size_t rowBytes, uint64_t pictureBytes) noexcept;

// Chooses the stores for the bands of one load with band addressing. A host
// filling a picture shows it by passing band after band at consecutive
// addresses; one that reuses a band buffer reads each band while it is in the
// caches, so its bands stay Cached.
class StoreChoice {
 public:
  Store forBand(uint8_t* buffer, int32_t rows, int32_t stride, uint32_t rowBytes, uint32_t pictureRows) noexcept;

 private:
  uintptr_t next_ = 0;  // where the band after the last one would start
};

// For tests: makes prepareRows and every StoreChoice of this thread
// answer `store`, or choose as above again when empty.
void forceStore(std::optional<Store> store) noexcept;

// Which code runs the conversions: the widest this processor has (Auto), or
// one chosen by tests. Per thread.
enum class PixelPath : uint8_t { Auto, Plain, Ssse3, Avx512 };
void forcePixelPath(PixelPath path) noexcept;
// True when this processor runs `path` (Auto and Plain always).
bool pixelPathAvailable(PixelPath path) noexcept;
// The path in effect for this thread (never Auto), for loaders that keep
// vector versions of their own loops.
PixelPath activePixelPath() noexcept;

}  // namespace ldr
