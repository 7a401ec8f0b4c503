// Seeds for the JPEG loader: greyscale, RGB and CMYK, with JFIF densities and
// EXIF blocks in both byte orders.
#include "fuzz/seeds/seeds.h"
#include "tests/support/exif_writer.h"
#include "tests/support/jpeg_writer.h"

namespace {

using vtest::ExifBuilder;
using vtest::JpegBuilder;

void jpeg(const vseed::Emit& emit) {
  const auto exif = [](bool big) {
    return ExifBuilder(big).rational(0x011A, 2835, 100).rational(0x011B, 2835, 100).shortValue(0x0128, 3)
        .ascii(0x010F, "Make").app1();
  };
  emit(JpegBuilder{}.size(9, 7).components(1).quality(50).build(), 4);
  emit(JpegBuilder{}.size(17, 9).jfif(1, 300, 300).quality(50).build(), 4);
  emit(JpegBuilder{}.size(8, 8).components(4).quality(50).app1(exif(true)).build(), 4);
  emit(JpegBuilder{}.size(12, 5).jfif(2, 118, 118).app1(exif(false)).quality(50).build(), 4);
}

const bool added = vseed::add(jpeg);

}  // namespace
