// framework/file.cpp: blocks for whole pictures.
//
// A decoded picture of tens of MiB, taken fresh at every load, costs one page
// fault per 4 KiB page when it is first written: on a virtual machine about
// half a millisecond per MiB, as long as decoding a fast format into it takes.
// In 2 MiB pages it costs one fault per 2 MiB, and the kernel clears each
// page at memory speed. So a large block gets a mapping of its own, aligned
// to and rounded up to 2 MiB and advised to use huge pages; where the kernel
// gives none (transparent huge pages off, or no free 2 MiB page), it works in
// small pages as a heap block would. Anonymous pages come zeroed, as calloc's
// do. Under AddressSanitizer every block comes from the heap, so that the
// sanitizer's guards watch its ends.
#include <sys/mman.h>

#include "framework/file.h"

namespace ldr {
namespace {

constexpr size_t kHugePage = size_t{2} << 20;

}  // namespace

void ReleaseLargeBlock::operator()(uint8_t* p) const noexcept {
  if (mapped) ::munmap(p, mapped);
  else std::free(p);
}

LargeBlock allocLargeBlock(size_t n) noexcept {
  if (kLargeBlocksOnHeap || n < kLargeBlock || n > SIZE_MAX / 2)
    return LargeBlock(static_cast<uint8_t*>(std::calloc(n ? n : 1, 1)));
  const size_t length = (n + kHugePage - 1) & ~(kHugePage - 1);
  // Over-map by one huge page, then give back the unaligned head and tail.
  void* const m = ::mmap(nullptr, length + kHugePage, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (m == MAP_FAILED) return LargeBlock();
  const uintptr_t base = reinterpret_cast<uintptr_t>(m);
  const uintptr_t start = (base + kHugePage - 1) & ~uintptr_t{kHugePage - 1};
  if (start > base) ::munmap(m, start - base);
  ::munmap(reinterpret_cast<void*>(start + length), base + kHugePage - start);
  ::madvise(reinterpret_cast<void*>(start), length, MADV_HUGEPAGE);  // advice: failing it only costs speed
  return LargeBlock(reinterpret_cast<uint8_t*>(start), ReleaseLargeBlock{length});
}

}  // namespace ldr
