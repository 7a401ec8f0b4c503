// tests/support/webp_writer.cpp
#include "tests/support/webp_writer.h"

#include <webp/encode.h>

#include <algorithm>
#include <stdexcept>
#include <string_view>

namespace vtest {

namespace {

void put24le(Bytes& b, uint32_t v) {
  put16le(b, v & 0xFFFF);
  put8(b, v >> 16);
}

void putChunk(Bytes& b, const char* tag, const Bytes& payload) {
  putText(b, tag);
  put32le(b, uint32_t(payload.size()));
  b.insert(b.end(), payload.begin(), payload.end());
  if (payload.size() % 2) put8(b, 0);
}

// The chunks of a still file that carry its picture (ALPH, VP8, VP8L).
Bytes pictureChunks(const Bytes& file) {
  Bytes out;
  for (size_t at = 12; at + 8 <= file.size();) {
    const uint32_t size = uint32_t(file[at + 4]) | file[at + 5] << 8 | file[at + 6] << 16 | uint32_t(file[at + 7]) << 24;
    const size_t next = at + 8 + size + size % 2;
    if (std::string_view(reinterpret_cast<const char*>(&file[at]), 4) != "VP8X")
      out.insert(out.end(), file.begin() + long(at), file.begin() + long(std::min(next, file.size())));
    at = next;
  }
  return out;
}

}  // namespace

Bytes webpFile(const WebpPicture& pic) {
  const int channels = pic.alpha ? 4 : 3;
  Bytes rgb;
  for (uint32_t y = 0; y < pic.height; ++y)
    for (uint32_t x = 0; x < pic.width; ++x)
      for (int c = 0; c < channels; ++c) rgb.push_back(pic.pixel(x, y, c));
  WebPConfig config;
  WebPPicture picture;
  if (!WebPConfigInit(&config) || !WebPPictureInit(&picture)) throw std::runtime_error("webp init");
  config.lossless = pic.lossless;
  config.exact = 1;
  picture.use_argb = pic.lossless;
  picture.width = int(pic.width);
  picture.height = int(pic.height);
  WebPMemoryWriter writer;
  WebPMemoryWriterInit(&writer);
  picture.writer = WebPMemoryWrite;
  picture.custom_ptr = &writer;
  const int stride = int(pic.width) * channels;
  const bool ok = (pic.alpha ? WebPPictureImportRGBA(&picture, rgb.data(), stride)
                              : WebPPictureImportRGB(&picture, rgb.data(), stride)) &&
                  WebPEncode(&config, &picture);
  Bytes out(writer.mem, writer.mem + writer.size);
  WebPPictureFree(&picture);
  WebPMemoryWriterClear(&writer);
  if (!ok) throw std::runtime_error("webp encode");
  return out;
}

Bytes webpAnimation(uint32_t canvasWidth, uint32_t canvasHeight, const Bytes& frame,
                    uint32_t frameWidth, uint32_t frameHeight, uint32_t x, uint32_t y) {
  Bytes vp8x, anim, body;
  put8(vp8x, 0x02 | 0x10);  // animation, alpha
  put24le(vp8x, 0);
  put24le(vp8x, canvasWidth - 1);
  put24le(vp8x, canvasHeight - 1);
  put32le(anim, 0);  // background
  put16le(anim, 0);  // loop for ever
  putChunk(body, "VP8X", vp8x);
  putChunk(body, "ANIM", anim);
  for (const uint32_t at : {x, 0u}) {
    Bytes anmf;
    put24le(anmf, at / 2);
    put24le(anmf, (at == x ? y : 0) / 2);
    put24le(anmf, frameWidth - 1);
    put24le(anmf, frameHeight - 1);
    put24le(anmf, 100);  // duration
    put8(anmf, 0x02);    // no blending
    const Bytes chunks = pictureChunks(frame);
    anmf.insert(anmf.end(), chunks.begin(), chunks.end());
    putChunk(body, "ANMF", anmf);
  }
  Bytes out;
  putText(out, "RIFF");
  put32le(out, uint32_t(body.size() + 4));
  putText(out, "WEBP");
  out.insert(out.end(), body.begin(), body.end());
  return out;
}

}  // namespace vtest
