// tests/support/png_writer.cpp
#include "tests/support/png_writer.h"

#include <png.h>

#include <algorithm>
#include <csetjmp>

namespace vtest {

namespace {

void appendToBytes(png_structp png, png_bytep data, png_size_t length) {
  auto* out = static_cast<Bytes*>(png_get_io_ptr(png));
  out->insert(out->end(), data, data + length);
}

void flushNothing(png_structp) {}

// The libpng calls, apart from anything with a destructor; false on a libpng error.
bool writePng(png_structp png, png_infop info, Bytes* out, png_bytepp rows, png_textp texts,
              int textCount, const png_color* palette, int paletteEntries, png_bytep trnsAlpha,
              int trnsCount, png_color_16* trnsColour, uint32_t width, uint32_t height,
              int depth, int type, bool interlaced, const uint32_t* phys) {
  if (setjmp(png_jmpbuf(png))) return false;
  png_set_write_fn(png, out, appendToBytes, flushNothing);
  png_set_IHDR(png, info, width, height, depth, type,
               interlaced ? PNG_INTERLACE_ADAM7 : PNG_INTERLACE_NONE, PNG_COMPRESSION_TYPE_DEFAULT,
               PNG_FILTER_TYPE_DEFAULT);
  if (paletteEntries) png_set_PLTE(png, info, palette, paletteEntries);
  if (trnsCount || trnsColour) png_set_tRNS(png, info, trnsAlpha, trnsCount, trnsColour);
  if (textCount) png_set_text(png, info, texts, textCount);
  if (phys) png_set_pHYs(png, info, phys[0], phys[1], int(phys[2]));
  png_write_info(png, info);
  if (depth == 16) png_set_swap(png);  // rows below are little-endian 16-bit
  png_write_image(png, rows);
  png_write_end(png, info);
  return true;
}

}  // namespace

int PngBuilder::channels() const {
  switch (type_) {
    case 2: return 3;
    case 4: return 2;
    case 6: return 4;
    default: return 1;
  }
}

uint16_t PngBuilder::sample(uint32_t x, uint32_t y, int c) const {
  return uint16_t(sample_(x, y, c) & ((1u << depth_) - 1));
}

Bytes PngBuilder::build() const {
  const int ch = channels();
  const size_t rowBytes = depth_ >= 8 ? size_t(width_) * ch * (depth_ / 8) : (size_t(width_) * depth_ + 7) / 8;
  std::vector<Bytes> rows(height_, Bytes(rowBytes, 0));
  for (uint32_t y = 0; y < height_; ++y) {
    for (uint32_t x = 0; x < width_; ++x) {
      for (int c = 0; c < ch; ++c) {
        const uint16_t v = sample(x, y, c);
        if (depth_ == 16) {
          rows[y][2 * (x * ch + c)] = uint8_t(v);
          rows[y][2 * (x * ch + c) + 1] = uint8_t(v >> 8);
        } else if (depth_ == 8) {
          rows[y][x * ch + c] = uint8_t(v);
        } else {
          const size_t bit = size_t(x) * depth_;
          rows[y][bit / 8] |= uint8_t(v << (8 - depth_ - bit % 8));
        }
      }
    }
  }
  std::vector<png_bytep> pointers;
  for (Bytes& r : rows) pointers.push_back(r.data());
  std::vector<png_text> texts;
  for (const auto& [key, value] : texts_) {
    png_text t{};
    t.compression = PNG_TEXT_COMPRESSION_NONE;
    t.key = const_cast<char*>(key.c_str());
    t.text = const_cast<char*>(value.c_str());
    t.text_length = value.size();
    texts.push_back(t);
  }
  std::vector<png_color> palette;
  for (size_t i = 0; i + 2 < palette_.size(); i += 3) palette.push_back({palette_[i], palette_[i + 1], palette_[i + 2]});
  std::vector<uint8_t> alpha = trnsAlpha_;
  png_color_16 grey{};
  grey.gray = trnsGrey_;
  const uint32_t phys[3] = {physX_, physY_, uint32_t(physUnit_)};

  Bytes out;
  png_structp png = png_create_write_struct(PNG_LIBPNG_VER_STRING, nullptr, nullptr, nullptr);
  png_infop info = png_create_info_struct(png);
  const bool ok = writePng(png, info, &out, pointers.data(), texts.data(), int(texts.size()),
                           palette.data(), int(palette.size()), alpha.empty() ? nullptr : alpha.data(),
                           int(alpha.size()), hasTrnsGrey_ ? &grey : nullptr, width_, height_,
                           depth_, type_, interlaced_, hasPhys_ ? phys : nullptr);
  png_destroy_write_struct(&png, &info);
  return ok ? out : Bytes{};
}

}  // namespace vtest

namespace vtest {

namespace {

struct MemoryReader {
  const Bytes* file;
  size_t at;
};

void readFromBytes(png_structp png, png_bytep data, png_size_t length) {
  auto* r = static_cast<MemoryReader*>(png_get_io_ptr(png));
  if (length > r->file->size() - r->at) png_error(png, "end of data");
  std::copy_n(r->file->data() + r->at, length, data);
  r->at += length;
}

// The libpng calls of decodePngSamples; the objects they fill belong to the caller.
bool readPng(png_structp png, png_infop info, MemoryReader* reader, PngSamples* out, Bytes* pixels) {
  if (setjmp(png_jmpbuf(png))) return false;
  png_set_read_fn(png, reader, readFromBytes);
  png_read_info(png, info);
  png_uint_32 w = 0, h = 0;
  int interlace = 0;
  png_get_IHDR(png, info, &w, &h, &out->depth, &out->type, &interlace, nullptr, nullptr);
  out->width = w;
  out->height = h;
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
  pixels->assign(rowBytes * h, 0);
  for (int pass = png_set_interlace_handling(png); pass > 0; --pass)
    for (uint32_t y = 0; y < h; ++y) png_read_row(png, pixels->data() + y * rowBytes, nullptr);
  png_read_end(png, nullptr);
  return true;
}

}  // namespace

PngSamples decodePngSamples(const Bytes& file) {
  PngSamples out;
  Bytes pixels;
  MemoryReader reader{&file, 0};
  png_structp png = png_create_read_struct(PNG_LIBPNG_VER_STRING, nullptr, nullptr, nullptr);
  png_infop info = png_create_info_struct(png);
  const bool ok = readPng(png, info, &reader, &out, &pixels);
  png_destroy_read_struct(&png, &info, nullptr);
  if (!ok) return PngSamples{};
  const size_t count = size_t(out.width) * out.height * out.channels;
  out.samples.resize(count);
  for (size_t i = 0; i < count; ++i)
    out.samples[i] = out.depth == 16 ? uint16_t(pixels[2 * i] << 8 | pixels[2 * i + 1]) : pixels[i];
  return out;
}

}  // namespace vtest
