// tests/support/jpeg_writer.cpp
#include "tests/support/jpeg_writer.h"

#include <cstdio>
#include <cstdlib>

#include <jpeglib.h>

namespace vtest {

Bytes JpegBuilder::build() const {
  jpeg_compress_struct c{};
  jpeg_error_mgr err{};
  c.err = jpeg_std_error(&err);  // the writer's parameters are always valid: errors exit
  jpeg_create_compress(&c);
  unsigned char* mem = nullptr;
  unsigned long memSize = 0;
  jpeg_mem_dest(&c, &mem, &memSize);
  c.image_width = width_;
  c.image_height = height_;
  c.input_components = components_;
  c.in_color_space = components_ == 1 ? JCS_GRAYSCALE : components_ == 4 ? JCS_CMYK : JCS_RGB;
  jpeg_set_defaults(&c);
  jpeg_set_quality(&c, quality_, TRUE);
  if (progressive_) jpeg_simple_progression(&c);
  c.write_JFIF_header = jfif_ ? TRUE : FALSE;
  c.density_unit = uint8_t(unit_);
  c.X_density = xDensity_;
  c.Y_density = yDensity_;
  jpeg_start_compress(&c, TRUE);
  for (const Bytes& a : app1_) jpeg_write_marker(&c, JPEG_APP0 + 1, a.data(), unsigned(a.size()));
  Bytes row(size_t(width_) * components_);
  while (c.next_scanline < c.image_height) {
    for (uint32_t x = 0; x < width_; ++x)
      for (int ch = 0; ch < components_; ++ch) row[x * components_ + ch] = sample_(x, c.next_scanline, ch);
    JSAMPROW r = row.data();
    jpeg_write_scanlines(&c, &r, 1);
  }
  jpeg_finish_compress(&c);
  jpeg_destroy_compress(&c);
  Bytes out(mem, mem + memSize);
  std::free(mem);
  return out;
}

}  // namespace vtest
