// fuzz/replay_main.cpp: runs the fuzz target on files, without libFuzzer, so
// that regressions replay in every build.
//   loader_replay FILE...
#include <cstdint>
#include <cstdio>
#include <vector>

extern "C" int LLVMFuzzerInitialize(int*, char***);
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

int main(int argc, char** argv) {
  LLVMFuzzerInitialize(&argc, &argv);
  for (int i = 1; i < argc; ++i) {
    std::FILE* f = std::fopen(argv[i], "rb");
    if (!f) {
      std::fprintf(stderr, "cannot read %s\n", argv[i]);
      return 1;
    }
    std::vector<uint8_t> bytes;
    for (int c; (c = std::fgetc(f)) != EOF;) bytes.push_back(uint8_t(c));
    std::fclose(f);
    LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
  }
  std::fprintf(stderr, "replayed %d inputs\n", argc - 1);
  return 0;
}
