// bench/loaders_bench.cpp: decode throughput of each loader beside its
// reference, in the same run. Inputs are generated at start-up.
//
// BMP's reference is the limit any reader of a file meets: fread of the same
// bytes into a buffer. Two things move that limit on these machines, so the
// benchmark names the case it times:
//  - "aligned": the destination address equals the file offset modulo 4096,
//    so the kernel copies page onto page; "skewed": they differ by a few
//    bytes, which can make the copy several times slower;
//  - "warm": the destination was touched before; "fresh": new pages each
//    time, paying about a millisecond of page faults per megabyte.
// The loader is timed writing into a warm destination, like a host that
// reuses its picture buffer, and fresh, like one that allocates per picture.
#include <benchmark/benchmark.h>
#include <sys/mman.h>
#include <sys/utsname.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>

#include "framework/file.h"
#include "tests/support/bmp_writer.h"
#include "tests/support/harness.h"
#include "tests/support/temp_file.h"

namespace {

using vtest::BmpBuilder;

constexpr uint32_t kWidth = 4000, kHeight = 3000;
constexpr size_t kPage = 4096;

const vtest::TempFile& bmpFile(uint16_t bits) {
  static std::map<uint16_t, vtest::TempFile*> files;
  vtest::TempFile*& f = files[bits];
  if (!f) {
    BmpBuilder b = BmpBuilder{}.size(kWidth, kHeight).bits(bits).pixels(
        [](uint32_t x, uint32_t y, int c) { return uint8_t((x * 7 + y * 13 + c * 101) ^ (x >> 3)); });
    if (bits == 8) b.palette(vtest::greyRamp(256));
    f = new vtest::TempFile(b.build(), ".bmp");
  }
  return *f;
}

void setRates(benchmark::State& s, uint64_t bytes) {
  s.SetBytesProcessed(int64_t(s.iterations() * bytes));
  s.counters["MP/s"] = benchmark::Counter(double(s.iterations()) * kWidth * kHeight / 1e6,
                                          benchmark::Counter::kIsRate);
}

// A buffer of new pages straight from the kernel, `at` a page boundary plus
// `offset`.
struct Destination {
  uint8_t* base = nullptr;
  uint8_t* at = nullptr;
  size_t mapped = 0;
  Destination(size_t bytes, size_t offset) : mapped(bytes + 2 * kPage) {
    void* p = ::mmap(nullptr, mapped, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (p == MAP_FAILED) std::abort();
    base = static_cast<uint8_t*>(p);
    at = base + offset % kPage;
  }
  ~Destination() { ::munmap(base, mapped); }
};

// fread of the whole file, the limit for any reader.
void BM_Fread(benchmark::State& s, uint16_t bits, bool aligned, bool fresh) {
  const vtest::TempFile& f = bmpFile(bits);
  const size_t size = vtest::readFile(f.path()).size();
  Destination warm(size, aligned ? 0 : 54);
  std::memset(warm.base, 1, size + kPage);
  for (auto _ : s) {
    Destination freshOne(fresh ? size : 0, aligned ? 0 : 54);
    uint8_t* to = fresh ? freshOne.at : warm.at;
    std::FILE* in = std::fopen(f.path(), "rb");
    benchmark::DoNotOptimize(std::fread(to, 1, size, in));
    std::fclose(in);
    benchmark::ClobberMemory();
  }
  setRates(s, size);
}

void BM_BmpLoad(benchmark::State& s, uint16_t bits, bool fresh) {
  const vtest::TempFile& f = bmpFile(bits);
  const size_t size = vtest::readFile(f.path()).size();
  vload_tool::Description d;
  d.loader = vload_tool::install(24, f.path());
  if (vload_tool::describe(f.path(), d, true) != VLOAD_OK) std::abort();
  vload_tool::endLoad();
  const size_t bytes = vload_tool::imageBytes(d);
  Destination warm(bytes, 0);
  std::memset(warm.base, 1, bytes);
  for (auto _ : s) {
    Destination freshOne(fresh ? bytes : 0, 0);
    vload_tool::install(24, f.path());
    if (vload_tool::describe(f.path(), d, true) != VLOAD_OK) std::abort();
    if (vload_tool::deliverAll(d, fresh ? freshOne.at : warm.at, 64) != VLOAD_OK) std::abort();
    vload_tool::endLoad();
    benchmark::ClobberMemory();
  }
  setRates(s, size);
}

BENCHMARK_CAPTURE(BM_Fread, bmp24_aligned_warm, 24, true, false)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_Fread, bmp24_skewed_warm, 24, false, false)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_Fread, bmp24_aligned_fresh, 24, true, true)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_BmpLoad, bmp24_warm, 24, false)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_BmpLoad, bmp24_fresh, 24, true)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_Fread, bmp8_aligned_warm, 8, true, false)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_Fread, bmp8_skewed_warm, 8, false, false)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_Fread, bmp8_aligned_fresh, 8, true, true)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_BmpLoad, bmp8_warm, 8, false)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_BmpLoad, bmp8_fresh, 8, true)->Unit(benchmark::kMillisecond);

// Prints, after the usual table, each loader's speed as a share of its
// reference in the same run.
class RatioReporter : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& runs) override {
    for (const Run& r : runs)
      if (r.run_type == Run::RT_Iteration || r.aggregate_name == "median")
        seconds_[r.benchmark_name()] = r.GetAdjustedRealTime();
    ConsoleReporter::ReportRuns(runs);
  }
  void Finalize() override {
    ConsoleReporter::Finalize();
    std::printf("\nshare of the reference (1.00 = as fast as reading the file):\n");
    for (const char* bits : {"bmp24", "bmp8"}) {
      for (const char* fresh : {"warm", "fresh"}) {
        const std::string load = find(std::string("BM_BmpLoad/") + bits + "_" + fresh);
        const std::string ref = find(std::string("BM_Fread/") + bits + "_aligned_" + fresh);
        if (load.empty() || ref.empty()) continue;
        std::printf("  %-24s %.2f of %s\n", load.c_str(), seconds_[ref] / seconds_[load], ref.c_str());
      }
    }
    utsname u{};
    uname(&u);
    std::printf("machine: %s %s, compiler: %s\n", u.machine, u.release, __VERSION__);
  }

 private:
  std::string find(const std::string& prefix) const {
    for (const auto& [name, t] : seconds_)
      if (name.rfind(prefix, 0) == 0) return name;
    return {};
  }
  std::map<std::string, double> seconds_;
};

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  RatioReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  benchmark::Shutdown();
  return 0;
}
