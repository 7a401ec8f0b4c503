// bench/bench.h: what the benchmark files share. Each <format>_bench.cpp
// registers its benchmarks and pairs each with its reference; main prints the
// usual table and then every pair's share of its reference.
#pragma once

#include <benchmark/benchmark.h>

#include <cstddef>
#include <cstdint>
#include <string>

#include "tools/drive.h"

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

// The plain reference of a loader that reads its file once: each iteration
// freads the whole file into pages new from the kernel (`fresh`) or into the
// same warm pages, the first byte `offset` past a page boundary. Counts the
// file's bytes; returns its size.
size_t timeFread(benchmark::State& s, const char* path, bool fresh, size_t offset = 0);

// Each iteration installs `loader`, describes the file and delivers it in
// 64-row bands into fresh or warm pages, as a host would. Counts the file's
// bytes; returns the description.
vload_tool::Description timeLoad(benchmark::State& s, int32_t loader, const char* path, bool fresh);

// Peak resident memory of the process so far, in megabytes.
double peakResidentMegabytes();

}  // namespace vbench
