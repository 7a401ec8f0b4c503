// Seeds for the EXIF fuzzer: blocks in both byte orders with every kind of
// value the reader handles, a chain of directories and a loop.
#include "fuzz/seeds/seeds.h"
#include "tests/support/exif_writer.h"

namespace {

using vtest::Bytes;
using vtest::ExifBuilder;

void exif(const vseed::EmitBlock& emit) {
  for (bool big : {false, true}) {
    ExifBuilder b(big);
    Bytes apex;
    b.put32(apex, 5);
    b.put32(apex, 2);
    b.ascii(0x010F, "Make").ascii(0x0110, "Model").shortValue(0x0112, 1).rational(0x011A, 300, 1)
        .rational(0x011B, 300, 1).shortValue(0x0128, 2).ascii(0x0132, "2024:01:02 03:04:05")
        .rational(0x829A, 1, 60).bytes(0x9201, 10, apex).rational(0x920A, 35, 1)
        .bytes(0x9286, 7, Bytes{'A', 'S', 'C', 'I', 'I', 0, 0, 0, 'h', 'i', ' ', ' '})
        .bytes(0x9C9C, 1, Bytes{'h', 0, 'i', 0}).longValue(0xA002, 640).rational(0xA20E, 3000, 1)
        .shortValue(0xA210, 2)
        .directory().longValue(0x0201, 200).longValue(0x0202, 64);
    emit(b.block());
    emit(ExifBuilder(big).rational(0x011A, 72, 1).directory().loopTo(0).block());
    emit(ExifBuilder(big).firstOffset(20).raw(0x011A, 5, 1, 0xFFFF).block());
  }
}

const bool added = vseed::addExif(exif);

}  // namespace
