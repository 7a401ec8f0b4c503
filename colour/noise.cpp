// colour/noise.cpp: the colour tools' random numbers and noise offsets.
//
// The generator is PCG-XSH-RR (64-bit state, 32-bit output), one per thread so
// that threads never share a sequence and need no lock; the tools use the top
// 31 bits. Any uniform generator of at least 15 bits would do for noise: this
// one is small, fast and its low bits are as good as its high ones.
#include "colour/colour.h"

namespace ldr::colour {
namespace {

constexpr uint64_t kMultiplier = 6364136223846793005u;
constexpr uint64_t kIncrement = 1442695040888963407u;
constexpr uint64_t kDefaultSeed = 0x853c49e6748fea9bu;

thread_local uint64_t t_state = kDefaultSeed;

uint32_t rotateRight(uint32_t v, uint32_t by) noexcept { return v >> by | v << (-by & 31); }

}  // namespace

uint32_t nextRandom() noexcept {
  const uint64_t old = t_state;
  t_state = old * kMultiplier + kIncrement;
  const uint32_t xorShifted = uint32_t(((old >> 18) ^ old) >> 27);
  return rotateRight(xorShifted, uint32_t(old >> 59)) >> 1;
}

void seedRandom(uint64_t seed) noexcept {
  t_state = 0;
  nextRandom();
  t_state += seed;
  nextRandom();
}

NoiseTable::NoiseTable(int32_t noise) noexcept {
  const uint32_t span = uint32_t(2 * noise + 1);
  for (uint32_t i = 0; i <= kMask; ++i) offsets_[i] = int8_t(int32_t((nextRandom() >> 3) % span) - noise);
  std::memcpy(offsets_ + kMask + 1, offsets_, kRunBytes);
}

}  // namespace ldr::colour
