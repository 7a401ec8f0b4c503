// fuzz/extensions.h: the file name endings the loader fuzzer picks from, so
// that seed writers can name the one their format needs.
#pragma once

#include <algorithm>
#include <string>
#include <string_view>
#include <vector>

#include "framework/catalogue.h"

namespace vfuzz {

// ".bin", which names nothing, then each extension of the catalogue once, in
// loader order.
inline const std::vector<std::string>& extensions() {
  static const std::vector<std::string> all = [] {
    std::vector<std::string> e{".bin"};
    for (const ldr::LoaderInfo& l : ldr::loaders()) {
      const std::string_view list = l.extensions;
      for (size_t start = 0; start < list.size();) {
        const size_t end = std::min(list.find(' ', start), list.size());
        e.push_back("." + std::string(list.substr(start, end - start)));
        start = end + 1;
      }
    }
    return e;
  }();
  return all;
}

// The name ending for a file handed to a loader by number: its first
// extension, so that loaders that go by the name see one they accept. JC4
// network cards carry their hook count there (1348: a count no module size
// divides), mailed JC4 cards a ".dat".
inline std::string extensionOf(int32_t loader) {
  if (loader == 16) return ".1348";
  if (loader == 17) return ".dat";
  const ldr::LoaderInfo* l = ldr::loaderInfo(loader);
  if (!l || !*l->extensions) return ".bin";
  const std::string_view list = l->extensions;
  return "." + std::string(list.substr(0, list.find(' ')));
}

}  // namespace vfuzz
