// fuzz/seeds/seeds.h: each format's file in this folder registers a writer
// of seed files for the loader fuzzer; make_seeds runs them all.
#pragma once

#include <cstdint>
#include <functional>

#include "framework/catalogue.h"
#include "tests/support/bytes.h"

namespace vseed {

// Hands one file to the seed corpus; it is written three times, with option
// bytes for detection (whole picture), the loader by number (3-row bands) and
// by number again (2-row bands). `choice` picks the extension or loader.
using Emit = std::function<void(const vtest::Bytes& file, uint8_t choice)>;

bool add(void (*writer)(const Emit& emit));

// The `choice` that makes the loader fuzzer install `loader` by number: its
// place among the available loaders.
inline uint8_t choiceFor(int32_t loader) {
  uint8_t place = 0;
  for (const ldr::LoaderInfo& l : ldr::loaders()) {
    if (l.number == loader) return place;
    place = uint8_t(place + l.available);
  }
  return 0;
}

// Hands one block to the seed corpus of the EXIF fuzzer, as it stands.
using EmitBlock = std::function<void(const vtest::Bytes& block)>;

bool addExif(void (*writer)(const EmitBlock& emit));

}  // namespace vseed
