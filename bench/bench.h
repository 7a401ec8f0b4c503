// bench/bench.h: what the benchmark files share. Each <format>_bench.cpp
// registers its benchmarks and pairs each with its reference; main prints the
// usual table and then every pair's share of its reference.
#pragma once

#include <benchmark/benchmark.h>

#include <cstddef>
#include <cstdint>
#include <string>

namespace vbench {

// After the run, prints how fast `subject` ran as a share of `reference`
// (names as the table shows them, without an aggregate suffix).
bool pair(const std::string& subject, const std::string& reference);

// A buffer of pages new from the kernel, its `at` a page boundary plus
// `offset`; touched once when `warm`, so that no page fault falls into a
// timing.
struct Pages {
  Pages(size_t bytes, size_t offset = 0, bool warm = false);
  ~Pages();
  Pages(const Pages&) = delete;
  Pages& operator=(const Pages&) = delete;
  uint8_t* at = nullptr;

 private:
  uint8_t* base_ = nullptr;
  size_t mapped_ = 0;
};

// Sets the "MP/s" counter from the pixels each iteration handled.
void megapixels(benchmark::State& s, double pixelsPerIteration);

// Peak resident memory of the process so far, in megabytes.
double peakResidentMegabytes();

}  // namespace vbench
