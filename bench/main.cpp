// bench/main.cpp: runs every registered benchmark, then prints each pair's
// share of its reference, the machine and the compiler.
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/utsname.h>

#include <cstdio>
#include <cstdlib>
#include <map>
#include <utility>
#include <vector>

#include "bench/bench.h"
#include "tests/support/temp_file.h"
#include "vload.h"

namespace vbench {
namespace {

std::vector<std::pair<std::string, std::string>>& pairs() {
  static std::vector<std::pair<std::string, std::string>> all;
  return all;
}

class RatioReporter : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& runs) override {
    for (const Run& r : runs) {
      if (r.run_type == Run::RT_Iteration) seconds_[r.run_name.str()] = r.GetAdjustedRealTime();
      if (r.run_type == Run::RT_Aggregate && r.aggregate_name == "median")
        medians_[r.run_name.str()] = r.GetAdjustedRealTime();
    }
    ConsoleReporter::ReportRuns(runs);
  }
  void Finalize() override {
    ConsoleReporter::Finalize();
    std::printf("\nshare of the reference in the same run (1.00 = as fast; medians when repeated):\n");
    for (const auto& [subject, reference] : pairs()) {
      const double s = time(subject), r = time(reference);
      if (s > 0 && r > 0) std::printf("  %-40s %5.2f of %s\n", subject.c_str(), r / s, reference.c_str());
    }
    utsname u{};
    uname(&u);
    std::printf("peak resident memory: %.0f MB; machine: %s %s; compiler: %s\n", peakResidentMegabytes(),
                u.machine, u.release, __VERSION__);
  }

 private:
  double time(const std::string& name) const {
    if (auto m = medians_.find(name); m != medians_.end()) return m->second;
    auto s = seconds_.find(name);
    return s == seconds_.end() ? 0 : s->second;
  }
  std::map<std::string, double> seconds_, medians_;
};

}  // namespace

bool pair(const std::string& subject, const std::string& reference) {
  pairs().emplace_back(subject, reference);
  return true;
}

Pages::Pages(size_t bytes, size_t offset, bool warm) : mapped_(bytes + 2 * 4096) {
  void* p = ::mmap(nullptr, mapped_, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (p == MAP_FAILED) std::abort();
  base_ = static_cast<uint8_t*>(p);
  at = base_ + offset % 4096;
  if (warm)
    for (size_t i = 0; i < mapped_; i += 4096) base_[i] = 1;
}

Pages::~Pages() { ::munmap(base_, mapped_); }

void megapixels(benchmark::State& s, double pixelsPerIteration) {
  s.counters["MP/s"] = benchmark::Counter(double(s.iterations()) * pixelsPerIteration / 1e6,
                                          benchmark::Counter::kIsRate);
}

size_t timeFread(benchmark::State& s, const char* path, bool fresh, size_t offset) {
  const size_t size = vtest::readFile(path).size();
  Pages warm(size, offset, true);
  for (auto _ : s) {
    Pages page(fresh ? size : 0, offset);
    std::FILE* in = std::fopen(path, "rb");
    benchmark::DoNotOptimize(std::fread(fresh ? page.at : warm.at, 1, size, in));
    std::fclose(in);
    benchmark::ClobberMemory();
  }
  s.SetBytesProcessed(int64_t(s.iterations() * size));
  return size;
}

vload_tool::Description timeLoad(benchmark::State& s, int32_t loader, const char* path, bool fresh) {
  vload_tool::Description d;
  d.loader = vload_tool::install(loader, path);
  if (vload_tool::describe(path, d, true) != VLOAD_OK) std::abort();
  vload_tool::endLoad();
  const size_t bytes = vload_tool::imageBytes(d);
  Pages warm(bytes, 0, true);
  for (auto _ : s) {
    Pages page(fresh ? bytes : 0);
    vload_tool::install(loader, path);
    if (vload_tool::describe(path, d, true) != VLOAD_OK) std::abort();
    if (vload_tool::deliverAll(d, fresh ? page.at : warm.at, 64) != VLOAD_OK) std::abort();
    vload_tool::endLoad();
    benchmark::ClobberMemory();
  }
  s.SetBytesProcessed(int64_t(s.iterations() * vtest::readFile(path).size()));
  return d;
}

double peakResidentMegabytes() {
  rusage u{};
  getrusage(RUSAGE_SELF, &u);
  return double(u.ru_maxrss) / 1024.0;
}

}  // namespace vbench

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  vbench::RatioReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  benchmark::Shutdown();
  return 0;
}
