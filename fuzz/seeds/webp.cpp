// Seeds for the WebP loader: lossless with alpha, lossy, an animation.
#include "fuzz/seeds/seeds.h"
#include "tests/support/webp_writer.h"

namespace {

void webp(const vseed::Emit& emit) {
  vtest::WebpPicture s;
  s.alpha = true;
  const vtest::Bytes lossless = vtest::webpFile(s);
  emit(lossless, 6);
  s.lossless = false;
  emit(vtest::webpFile(s), 6);
  emit(vtest::webpAnimation(40, 30, lossless, s.width, s.height, 6, 8), 6);
}

const bool added = vseed::add(webp);

}  // namespace
