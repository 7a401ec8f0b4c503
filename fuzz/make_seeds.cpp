// fuzz/make_seeds.cpp: writes the seed corpus of the loader fuzzer from the
// test writers: one bitmap of each depth and header size, each with an
// option byte for detection and one for the loader by number.
//   make_seeds DIR
#include <cstdio>
#include <string>

#include "tests/support/bmp_writer.h"
#include "tests/support/temp_file.h"

using vtest::BmpBuilder;

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: make_seeds DIR\n");
    return 2;
  }
  int n = 0;
  const auto seed = [&](vtest::Bytes file) {
    for (uint8_t options : {0x09, 0x83, 0x8A}) {  // detect, whole picture / by number, 3 rows / 2 rows
      vtest::Bytes b = file;
      b.push_back(0);  // choice: the first extension or available loader
      b.push_back(options);
      vtest::writeFile(std::string(argv[1]) + "/seed-" + std::to_string(n++), b);
    }
  };
  for (uint32_t header : {12u, 40u, 125u}) {
    seed(BmpBuilder{}.headerSize(header).size(9, 5).bits(1).palette(vtest::blackWhite()).build());
    seed(BmpBuilder{}.headerSize(header).size(9, 5).bits(4).palette(vtest::greyRamp(16)).build());
    seed(BmpBuilder{}.headerSize(header).size(9, 5).bits(8).palette(vtest::greyRamp(7)).build());
    seed(BmpBuilder{}.headerSize(header).size(9, 5).bits(24).pixelsPerMetre(3780, 3780).build());
    if (header != 12) seed(BmpBuilder{}.headerSize(header).size(9, 5).bits(32).build());
  }
  std::printf("%d seeds\n", n);
  return 0;
}
