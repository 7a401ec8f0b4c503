// fuzz/loader_fuzzer.cpp: drives detection and every available loader through
// the whole protocol with the input as the file.
//
// The last byte of the input picks the options (the rest is the file):
//   bits 0-2  band rows: 0 means the whole picture in one call, else 1..7
//   bit 3     readColorMap
//   bits 4-7  0..7: detection (loader number 0) with the extension chosen by
//             the next input byte from the catalogue; 8..15: loader number
//             (that byte % 77) + 1, or the next available one after it when it
//             is not available, installed by number, the file named with the
//             loader's first extension. Numbering by loader rather than by
//             place among the available ones keeps saved inputs aimed at their
//             loader as more loaders become available.
// Inputs of odd length have WebP files fed to the decoder in pieces of a few
// bytes, so that small files take the paths of large ones.
// Invariants that crash on purpose: no descriptor left open after a load, no
// file left in the fuzzing folder, and no status outside the documented set.
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "framework/catalogue.h"
#include "framework/file.h"
#include "fuzz/extensions.h"
#include "raster/webp.h"
#include "tools/drive.h"
#include "vload.h"

namespace {

// Bigger pictures are described, not delivered: they exercise nothing that
// smaller ones do not, and under the fuzzer's instrumentation delivering tens
// of megabytes can take longer than its per-input time limit.
constexpr uint64_t kMaxPictureBytes = 16u << 20;

std::string g_dir;
unsigned g_counter = 0;

// A descriptor left open takes the lowest free number, so the lowest free
// number before and after a load tells.
int lowestFreeFd() {
  const int fd = ::open("/dev/null", O_RDONLY);
  ::close(fd);
  return fd;
}

void require(bool ok, const char* what) {
  if (!ok) {
    std::fprintf(stderr, "invariant broken: %s\n", what);
    std::abort();
  }
}

bool emptyFolder(const std::string& dir) {
  DIR* d = ::opendir(dir.c_str());
  if (!d) return false;
  int entries = 0;
  while (const dirent* e = ::readdir(d)) entries += e->d_name[0] != '.';
  ::closedir(d);
  return entries == 0;
}

bool knownStatus(uint32_t s) { return s == 0 || (s >= 2 && s <= 7); }

// Loader `choice % 77 + 1`, or the first available loader after it.
int32_t loaderFor(uint8_t choice) {
  const auto all = ldr::loaders();
  for (size_t step = 0; step < all.size(); ++step) {
    const ldr::LoaderInfo& l = all[(choice % all.size() + step) % all.size()];
    if (l.available) return l.number;
  }
  return 0;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  const char* base = std::getenv("TMPDIR");
  std::string pattern = std::string(base && *base ? base : "/tmp") + "/vload-fuzz-XXXXXX";
  if (!::mkdtemp(pattern.data())) std::abort();
  g_dir = pattern;
  // ZC5 cards unpack into the fuzzing folder, which must be empty again after each input.
  llibSetTmpDir(g_dir.c_str());
  llibSetGzipCommand("gzip");
  SuppressNonFatalErrors = 1;
  std::freopen("/dev/null", "w", stdout);  // loaders' notes would flood the log
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 2) return 0;
  const uint8_t options = data[size - 1], choice = data[size - 2];
  const uint32_t band = options & 7;
  const bool readMap = options & 8;
  const bool byNumber = (options >> 4) >= 8;
  const int32_t asked = byNumber ? loaderFor(choice) : 0;
  const std::string ext = byNumber ? vfuzz::extensionOf(asked)
                                   : vfuzz::extensions()[choice % vfuzz::extensions().size()];
  // A fresh name for every input: the probe cache keys on name and size.
  const std::string path = g_dir + "/in" + std::to_string(g_counter++) + ext;
  if (std::FILE* f = std::fopen(path.c_str(), "wb")) {
    std::fwrite(data, 1, size - 2, f);
    std::fclose(f);
  } else {
    return 0;
  }

  ldr::webpLimitPieces(size % 2 ? 61 : 0);
  const int fds = lowestFreeFd();
  vload_tool::Description d;
  d.loader = vload_tool::install(asked, path.c_str());
  if (ldr::loaderInfo(int32_t(d.loader))) {
    const uint32_t status = vload_tool::describe(path.c_str(), d, readMap);
    require(knownStatus(status), "tryLoad status");
    if (status == VLOAD_OK) {
      const uint64_t bytes = vload_tool::imageBytes(d);
      if (bytes && bytes <= kMaxPictureBytes) {
        ldr::Block image = ldr::allocBlock(size_t(bytes));
        if (image) require(knownStatus(vload_tool::deliverAll(d, image.get(), band)), "loadBand status");
      }
      vload_tool::endLoad();
    }
  }
  require(lowestFreeFd() == fds, "a descriptor was left open");
  std::remove(path.c_str());
  require(emptyFolder(g_dir), "a temporary file was left behind");
  return 0;
}
