// fuzz/make_seeds.cpp: writes the seed corpus of the loader fuzzer from the
// test writers (fuzz/seeds/*.cpp).
//   make_seeds DIR
#include <cstdio>
#include <string>
#include <vector>

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

}  // namespace vseed

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: make_seeds DIR\n");
    return 2;
  }
  int n = 0;
  const vseed::Emit emit = [&](const vtest::Bytes& file, uint8_t choice) {
    // Option bytes: detection with the whole picture; by number in 3-row bands; by number in 2.
    for (uint8_t options : {0x09, 0x83, 0x8A}) {
      vtest::Bytes b = file;
      b.push_back(choice);
      b.push_back(options);
      vtest::writeFile(std::string(argv[1]) + "/seed-" + std::to_string(n++), b);
    }
  };
  for (auto* writer : vseed::writers()) writer(emit);
  std::printf("%d seeds\n", n);
  return 0;
}
