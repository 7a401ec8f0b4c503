// tests/support/drape_writer.cpp
#include "tests/support/drape_writer.h"

#include <jpeglib.h>
#include <png.h>

#include <cstdio>
#include <cstdlib>
#include <algorithm>
#include <stdexcept>
#include <string>

namespace vtest {

namespace {

uint8_t pattern(uint32_t x, uint32_t y, int c) { return uint8_t(x * 7 + y * 3 + c * 85); }

void pngWrite(png_structp png, png_bytep data, png_size_t n) {
  auto* out = static_cast<Bytes*>(png_get_io_ptr(png));
  out->insert(out->end(), data, data + n);
}

}  // namespace

DrapeBuilder::DrapeBuilder() : DrapeBuilder("#NEW_REGION\n") {}

DrapeBuilder::DrapeBuilder(std::string_view firstLine) { putText(bytes_, firstLine); }

DrapeBuilder& DrapeBuilder::line(std::string_view text) {
  putText(bytes_, text);
  put8(bytes_, '\n');
  return *this;
}

DrapeBuilder& DrapeBuilder::region(uint32_t controlPoints, uint32_t hVectors, uint32_t vVectors) {
  line("#NEW_REGION");
  const std::pair<const char*, uint32_t> blocks[] = {
      {"#CPOINTS=", controlPoints}, {"#HVECT=", hVectors}, {"#VVECT=", vVectors}};
  for (const auto& [key, n] : blocks) {
    line(key + std::to_string(n));
    for (uint32_t i = 0; i < 4 * n; ++i) put8(bytes_, uint8_t(i * 31));  // '#' and '\n' among them
  }
  return *this;
}

DrapeBuilder& DrapeBuilder::texture(uint32_t declared) {
  line("#TEXTURE_START=" + std::to_string(declared));
  for (uint32_t i = 0; i <= declared; ++i) put8(bytes_, uint8_t('\n' + i));
  return *this;
}

DrapeBuilder& DrapeBuilder::startImage(const Bytes& image) {
  line("#START_IMAGE=" + std::to_string(image.size()));
  return bytes(image);
}

DrapeBuilder& DrapeBuilder::bytes(const Bytes& raw) {
  bytes_.insert(bytes_.end(), raw.begin(), raw.end());
  return *this;
}

Bytes jpegFile(uint32_t width, uint32_t height) {
  jpeg_compress_struct c{};
  jpeg_error_mgr err{};
  c.err = jpeg_std_error(&err);
  jpeg_create_compress(&c);
  unsigned char* mem = nullptr;
  unsigned long size = 0;
  jpeg_mem_dest(&c, &mem, &size);
  c.image_width = width;
  c.image_height = height;
  c.input_components = 3;
  c.in_color_space = JCS_RGB;
  jpeg_set_defaults(&c);
  jpeg_start_compress(&c, TRUE);
  Bytes row(size_t{width} * 3);
  while (c.next_scanline < height) {
    for (uint32_t x = 0; x < width; ++x)
      for (int k = 0; k < 3; ++k) row[3 * x + k] = pattern(x, c.next_scanline, k);
    JSAMPROW r = row.data();
    jpeg_write_scanlines(&c, &r, 1);
  }
  jpeg_finish_compress(&c);
  Bytes out(mem, mem + size);
  jpeg_destroy_compress(&c);
  std::free(mem);
  return out;
}

Bytes pngFile(uint32_t width, uint32_t height) {
  Bytes out;
  png_structp png = png_create_write_struct(PNG_LIBPNG_VER_STRING, nullptr, nullptr, nullptr);
  png_infop info = png_create_info_struct(png);
  if (setjmp(png_jmpbuf(png))) throw std::runtime_error("png");
  png_set_write_fn(png, &out, pngWrite, nullptr);
  png_set_IHDR(png, info, width, height, 8, PNG_COLOR_TYPE_RGB, PNG_INTERLACE_NONE,
               PNG_COMPRESSION_TYPE_DEFAULT, PNG_FILTER_TYPE_DEFAULT);
  png_write_info(png, info);
  Bytes row(size_t{width} * 3);
  for (uint32_t y = 0; y < height; ++y) {
    for (uint32_t x = 0; x < width; ++x)
      for (int k = 0; k < 3; ++k) row[3 * x + k] = pattern(x, y, k);
    png_write_row(png, row.data());
  }
  png_write_end(png, info);
  png_destroy_write_struct(&png, &info);
  return out;
}

// Codes of 9 bits only: a clear code before every 254 pixels keeps the code
// table from growing into 10-bit codes.
Bytes gifFile(uint32_t width, uint32_t height) {
  Bytes out;
  putText(out, "GIF89a");
  put16le(out, width);
  put16le(out, height);
  put8(out, 0xF7);  // global table of 256 entries
  put8(out, 0);
  put8(out, 0);
  for (int i = 0; i < 256; ++i) out.insert(out.end(), {uint8_t(i), uint8_t(i), uint8_t(i)});
  put8(out, 0x2C);
  put32le(out, 0);
  put16le(out, width);
  put16le(out, height);
  put8(out, 0);
  put8(out, 8);  // minimum code size
  Bytes codes;
  uint32_t acc = 0, bits = 0;
  const auto code = [&](uint32_t c) {
    acc |= c << bits;
    for (bits += 9; bits >= 8; bits -= 8, acc >>= 8) codes.push_back(uint8_t(acc));
  };
  uint32_t n = 0;
  for (uint32_t y = 0; y < height; ++y)
    for (uint32_t x = 0; x < width; ++x, ++n) {
      if (n % 254 == 0) code(256);
      code(pattern(x, y, 0));
    }
  code(257);
  if (bits) codes.push_back(uint8_t(acc));
  for (size_t at = 0; at < codes.size(); at += 255) {
    const size_t len = std::min<size_t>(255, codes.size() - at);
    put8(out, uint32_t(len));
    out.insert(out.end(), codes.begin() + long(at), codes.begin() + long(at + len));
  }
  put8(out, 0);
  put8(out, 0x3B);
  return out;
}

}  // namespace vtest
