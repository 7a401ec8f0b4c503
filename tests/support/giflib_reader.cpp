// tests/support/giflib_reader.cpp
#include "tests/support/giflib_reader.h"

#include <gif_lib.h>

#include <functional>

namespace vtest {
namespace {

// Walks to the first image descriptor and hands its size to `place`, which
// returns where the rows go (nullptr: stop); then reads every row.
bool readFirstImage(const char* path, const std::function<uint8_t*(uint32_t, uint32_t)>& place) {
  int error = 0;
  GifFileType* gif = DGifOpenFileName(path, &error);
  if (!gif) return false;
  bool ok = false;
  for (GifRecordType type; DGifGetRecordType(gif, &type) == GIF_OK;) {
    if (type == EXTENSION_RECORD_TYPE) {
      int code = 0;
      GifByteType* block = nullptr;
      if (DGifGetExtension(gif, &code, &block) != GIF_OK) break;
      while (block && DGifGetExtensionNext(gif, &block) == GIF_OK) {}
      if (block) break;
      continue;
    }
    if (type != IMAGE_DESC_RECORD_TYPE || DGifGetImageDesc(gif) != GIF_OK || gif->Image.Interlace)
      break;
    const uint32_t width = uint32_t(gif->Image.Width), height = uint32_t(gif->Image.Height);
    uint8_t* rows = place(width, height);
    if (!rows) break;
    ok = true;
    for (uint32_t y = 0; y < height && ok; ++y)
      ok = DGifGetLine(gif, rows + uint64_t{y} * width, int(width)) == GIF_OK;
    break;
  }
  DGifCloseFile(gif, &error);
  return ok;
}

}  // namespace

GiflibImage giflibFirstImage(const char* path) {
  GiflibImage image;
  image.ok = readFirstImage(path, [&](uint32_t w, uint32_t h) {
    image.pixels.assign(uint64_t{w} * h, 0);
    return image.pixels.empty() ? nullptr : image.pixels.data();
  });
  return image;
}

bool giflibDecodeInto(const char* path, uint8_t* pixels, uint64_t capacity) {
  return readFirstImage(path, [&](uint32_t w, uint32_t h) {
    return uint64_t{w} * h <= capacity ? pixels : nullptr;
  });
}

}  // namespace vtest
