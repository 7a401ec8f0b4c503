// fuzz/seeds/seeds.h: each format's file in this folder registers a writer
// of seed files for the loader fuzzer; make_seeds runs them all.
#pragma once

#include <functional>

#include "tests/support/bytes.h"

namespace vseed {

// Hands one file to the seed corpus; it is written three times, with option
// bytes for detection (whole picture), the loader by number (3-row bands) and
// by number again (2-row bands). `choice` picks the extension or loader.
using Emit = std::function<void(const vtest::Bytes& file, uint8_t choice)>;

bool add(void (*writer)(const Emit& emit));

}  // namespace vseed
