// tests/support/png_writer.cpp
#include "tests/support/png_writer.h"

#include <png.h>

#include <cstdio>

namespace vtest {
namespace {

void appendToBytes(png_structp png, png_bytep data, png_size_t length) {
  auto* out = static_cast<Bytes*>(png_get_io_ptr(png));
  out->insert(out->end(), data, data + length);
}

void flushNothing(png_structp) {}

// The libpng calls of decodePngSamples; what they fill belongs to the caller.
bool readPng(png_structp png, png_infop info, FILE* file, PngSamples* out, Bytes* pixels,
             std::vector<png_bytep>* rows) {
  if (setjmp(png_jmpbuf(png))) return false;
  png_init_io(png, file);
  png_read_info(png, info);
  png_get_IHDR(png, info, &out->width, &out->height, &out->depth, &out->type, nullptr, nullptr, nullptr);
  out->channels = png_get_channels(png, info);
  png_colorp plte = nullptr;
  int entries = 0;
  if (png_get_PLTE(png, info, &plte, &entries))
    for (int i = 0; i < entries; ++i) out->palette.insert(out->palette.end(), {plte[i].red, plte[i].green, plte[i].blue});
  png_bytep alpha = nullptr;
  int count = 0;
  png_color_16p colour = nullptr;
  if (png_get_valid(png, info, PNG_INFO_tRNS) && png_get_tRNS(png, info, &alpha, &count, &colour)) {
    out->hasTrns = true;
    if (alpha) out->trnsAlpha.assign(alpha, alpha + count);
    if (colour) out->trnsGrey = colour->gray;
  }
  if (out->depth < 8) png_set_packing(png);
  png_set_interlace_handling(png);
  png_read_update_info(png, info);
  const size_t rowBytes = png_get_rowbytes(png, info);
  pixels->assign(rowBytes * out->height, 0);
  for (uint32_t y = 0; y < out->height; ++y) rows->push_back(pixels->data() + y * rowBytes);
  png_read_image(png, rows->data());
  png_read_end(png, nullptr);
  return true;
}

}  // namespace

Bytes PngBuilder::build() const {
  const int ch = type_ == 2 ? 3 : type_ == 4 ? 2 : type_ == 6 ? 4 : 1;
  const size_t perRow = size_t(width_) * ch, wide = depth_ == 16 ? 2 : 1;
  std::vector<Bytes> rows(height_, Bytes(perRow * wide));  // a sample a byte below 8 bits: libpng packs
  std::vector<png_bytep> pointers;
  for (uint32_t y = 0; y < height_; ++y) {
    for (size_t i = 0; i < perRow; ++i) {
      const uint32_t v = sample_(uint32_t(i / ch), y, int(i % ch)) & ((1u << depth_) - 1);
      if (wide == 2) rows[y][2 * i] = uint8_t(v >> 8);
      rows[y][wide * i + wide - 1] = uint8_t(v);
    }
    pointers.push_back(rows[y].data());
  }
  std::vector<png_text> texts(texts_.size());
  for (size_t i = 0; i < texts.size(); ++i) {
    texts[i].compression = PNG_TEXT_COMPRESSION_NONE;
    texts[i].key = const_cast<char*>(texts_[i].first.c_str());
    texts[i].text = const_cast<char*>(texts_[i].second.c_str());
  }
  std::vector<png_color> palette;
  for (size_t i = 0; i + 2 < palette_.size(); i += 3) palette.push_back({palette_[i], palette_[i + 1], palette_[i + 2]});
  png_color_16 grey{};
  grey.gray = trnsGrey_;

  // The builder's parameters are valid, so no jump target is set: should
  // libpng fail all the same, it aborts.
  Bytes out;
  png_structp png = png_create_write_struct(PNG_LIBPNG_VER_STRING, nullptr, nullptr, nullptr);
  png_infop info = png_create_info_struct(png);
  png_set_write_fn(png, &out, appendToBytes, flushNothing);
  png_set_IHDR(png, info, width_, height_, depth_, type_, interlaced_ ? PNG_INTERLACE_ADAM7 : PNG_INTERLACE_NONE,
               PNG_COMPRESSION_TYPE_DEFAULT, PNG_FILTER_TYPE_DEFAULT);
  if (!palette.empty()) png_set_PLTE(png, info, palette.data(), int(palette.size()));
  if (!trnsAlpha_.empty() || hasTrnsGrey_)
    png_set_tRNS(png, info, trnsAlpha_.data(), int(trnsAlpha_.size()), hasTrnsGrey_ ? &grey : nullptr);
  if (!texts.empty()) png_set_text(png, info, texts.data(), int(texts.size()));
  if (hasPhys_) png_set_pHYs(png, info, physX_, physY_, physUnit_);
  png_write_info(png, info);
  if (depth_ < 8) png_set_packing(png);
  png_write_image(png, pointers.data());
  png_write_end(png, info);
  png_destroy_write_struct(&png, &info);
  return out;
}

PngSamples decodePngSamples(const char* path) {
  PngSamples out;
  Bytes pixels;
  std::vector<png_bytep> rows;
  FILE* file = std::fopen(path, "rb");
  if (!file) return out;
  png_structp png = png_create_read_struct(PNG_LIBPNG_VER_STRING, nullptr, nullptr, nullptr);
  png_infop info = png_create_info_struct(png);
  const bool ok = readPng(png, info, file, &out, &pixels, &rows);
  png_destroy_read_struct(&png, &info, nullptr);
  std::fclose(file);
  if (!ok) return PngSamples{};
  const size_t count = size_t(out.width) * out.height * out.channels;
  out.samples.resize(count);
  for (size_t i = 0; i < count; ++i)
    out.samples[i] = out.depth == 16 ? uint16_t(pixels[2 * i] << 8 | pixels[2 * i + 1]) : pixels[i];
  return out;
}

}  // namespace vtest
