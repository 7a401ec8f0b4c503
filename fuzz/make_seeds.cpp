// fuzz/make_seeds.cpp: writes the seed corpora of the loader fuzzer and,
// when EXIF_DIR is given, of the EXIF fuzzer, from the test writers
// (fuzz/seeds/*.cpp).
//   make_seeds DIR [EXIF_DIR]
#include <algorithm>
#include <cstdio>
#include <string>
#include <vector>

#include "fuzz/extensions.h"
#include "fuzz/seeds/seeds.h"
#include "tests/support/temp_file.h"

namespace vseed {

std::vector<void (*)(const Emit&)>& writers() {
  static std::vector<void (*)(const Emit&)> all;
  return all;
}

bool add(void (*writer)(const Emit& emit)) {
  writers().push_back(writer);
  return true;
}

std::vector<void (*)(const EmitBlock&)>& exifWriters() {
  static std::vector<void (*)(const EmitBlock&)> all;
  return all;
}

bool addExif(void (*writer)(const EmitBlock& emit)) {
  exifWriters().push_back(writer);
  return true;
}

}  // namespace vseed

int main(int argc, char** argv) {
  if (argc != 2 && argc != 3) {
    std::fprintf(stderr, "usage: make_seeds DIR [EXIF_DIR]\n");
    return 2;
  }
  int n = 0;
  const auto& extensions = vfuzz::extensions();
  const vseed::Emit emit = [&](const vtest::Bytes& file, int32_t loader) {
    // The choice byte: the loader's first extension for detection, its number
    // less one by number (see loader_fuzzer.cpp).
    const auto ext = std::find(extensions.begin(), extensions.end(), vfuzz::extensionOf(loader));
    const uint8_t byName = ext == extensions.end() ? 0 : uint8_t(ext - extensions.begin());
    const uint8_t byNumber = uint8_t(loader - 1);
    // Option bytes: detection with the whole picture; by number in 3-row bands; by number in 2.
    for (uint8_t options : {0x09, 0x83, 0x8A}) {
      vtest::Bytes b = file;
      b.push_back(options == 0x09 ? byName : byNumber);
      b.push_back(options);
      vtest::writeFile(std::string(argv[1]) + "/seed-" + std::to_string(n++), b);
    }
  };
  for (auto* writer : vseed::writers()) writer(emit);
  std::printf("%d seeds\n", n);
  if (argc == 3) {
    int blocks = 0;
    const vseed::EmitBlock emitBlock = [&](const vtest::Bytes& block) {
      vtest::writeFile(std::string(argv[2]) + "/exif-" + std::to_string(blocks++), block);
    };
    for (auto* writer : vseed::exifWriters()) writer(emitBlock);
    std::printf("%d EXIF seeds\n", blocks);
  }
  return 0;
}
