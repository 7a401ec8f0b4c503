// design/fabric.cpp: the fabric description's per-thread key table.
//
// The fabric loader (41) is not available in this build; its registration
// still refuses every file. The key table is set up all the same on each
// thread's first dispatch, beside the weave table, so that the thread set-up
// is complete when the loader arrives. A fabric file may carry its binding in
// the weave form, which readVelmorWeave reads.
#include <cstdint>
#include <cstring>
#include <iterator>

#include "vload.h"

namespace ldr {
namespace {

// What is known of the format so far: "# Fabric" opens the file, and a
// binding in the weave form starts at a "#BINDING" line. The loader adds its
// value keys here.
constexpr const char* kFabricKeyWords[] = {"# Fabric", "#BINDING\n"};
constexpr int kFabricKeyCount = int(std::size(kFabricKeyWords));

struct FabricKeyTable {
  uint8_t length[kFabricKeyCount] = {};
  uint8_t ready = 0;
};
thread_local FabricKeyTable t_fabricKeys;

}  // namespace
}  // namespace ldr

extern "C" void initLoadFabric(void) {
  for (int k = 0; k < ldr::kFabricKeyCount; ++k)
    ldr::t_fabricKeys.length[k] = uint8_t(std::strlen(ldr::kFabricKeyWords[k]));
  ldr::t_fabricKeys.ready = 1;
}
