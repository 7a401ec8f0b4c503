// Seeds for the drape loader: regions, a texture and a start image of each
// nested format this build reads; named ".drape", which the loader requires.

#include "fuzz/seeds/seeds.h"
#include "tests/support/drape_writer.h"
#include "tests/support/gif_writer.h"
#include "tests/support/jpeg_writer.h"
#include "tests/support/png_writer.h"
#include "tests/support/tiff_writer.h"
#include "tests/support/webp_writer.h"

namespace {

void drape(const vseed::Emit& emit) {
  vtest::TiffPicture tiff;
  tiff.width = 11;
  tiff.height = 7;
  vtest::WebpPicture webp;
  webp.width = 9;
  webp.height = 5;
  for (const vtest::Bytes& image :
       {vtest::tiffFile(tiff), vtest::webpFile(webp), vtest::GifBuilder{}.size(6, 4).build(),
        vtest::PngBuilder{}.size(6, 4).build(), vtest::JpegBuilder{}.size(6, 4).build()})
    emit(vtest::DrapeBuilder{}.region(2, 1, 1).texture(3).startImage(image).build(), 40);
}

const bool added = vseed::add(drape);

}  // namespace
