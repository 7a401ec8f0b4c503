// fuzz/seeds/seeds.h: each format's file in this folder registers a writer
// of seed files for the loader fuzzer; make_seeds runs them all.
#pragma once

#include <cstdint>
#include <functional>

#include "tests/support/bytes.h"

namespace vseed {

// Hands one file of loader `loader` to the seed corpus; it is written three
// times, with option bytes for detection (whole picture, the name ending in
// the loader's first extension), the loader by number (3-row bands) and by
// number again (2-row bands).
using Emit = std::function<void(const vtest::Bytes& file, int32_t loader)>;

bool add(void (*writer)(const Emit& emit));

// Hands one block to the seed corpus of the EXIF fuzzer, as it stands.
using EmitBlock = std::function<void(const vtest::Bytes& block)>;

bool addExif(void (*writer)(const EmitBlock& emit));

}  // namespace vseed
