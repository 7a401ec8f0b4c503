// tools/png_out.cpp: PNG output through libpng.
//
// libpng reports errors with longjmp. Everything here is plain C data: no
// object with a destructor lives in a frame the jump could cross.
#include "tools/png_out.h"

#include <png.h>

#include <cstdio>

#include "vload.h"

namespace vload_tool {
namespace {

// Bilevel rows keep their packing: a two-entry palette shows bit 1 dark.
const png_color kBilevelPalette[2] = {{255, 255, 255}, {0, 0, 0}};

struct Writer {
  png_structp png = nullptr;
  png_infop info = nullptr;
  std::FILE* file = nullptr;
};

void onWarning(png_structp, png_const_charp) {}

// The only frame with a jump point; returns false when libpng gave up.
bool writeAll(Writer* w, const PngPicture* p) {
  if (setjmp(png_jmpbuf(w->png))) return false;
  png_init_io(w->png, w->file);
  int colourType = PNG_COLOR_TYPE_PALETTE, depth = 8;
  switch (p->layout) {
    case VLOAD_LAYOUT_BILEVEL: depth = 1; break;
    case VLOAD_LAYOUT_RGB: colourType = PNG_COLOR_TYPE_RGB; break;
    case VLOAD_LAYOUT_RGBA: colourType = PNG_COLOR_TYPE_RGB_ALPHA; break;
    default: break;
  }
  png_set_IHDR(w->png, w->info, p->width, p->height, depth, colourType, PNG_INTERLACE_NONE,
               PNG_COMPRESSION_TYPE_DEFAULT, PNG_FILTER_TYPE_DEFAULT);
  if (p->layout == VLOAD_LAYOUT_BILEVEL) {
    png_set_PLTE(w->png, w->info, kBilevelPalette, 2);
  } else if (p->layout == VLOAD_LAYOUT_INDEXED) {
    png_color palette[256];
    for (int i = 0; i < p->colours; ++i)
      palette[i] = {p->colourMap[3 * i], p->colourMap[3 * i + 1], p->colourMap[3 * i + 2]};
    png_set_PLTE(w->png, w->info, palette, p->colours);
    if (p->transparent >= 0 && p->transparent < p->colours) {
      png_byte alpha[256];
      for (int i = 0; i <= p->transparent; ++i) alpha[i] = i == p->transparent ? 0 : 255;
      png_set_tRNS(w->png, w->info, alpha, p->transparent + 1, nullptr);
    }
  }
  if (p->xDensity && p->yDensity)  // thousandths of a dpi to pixels per metre
    png_set_pHYs(w->png, w->info, png_uint_32(p->xDensity / 25.4 + 0.5),
                 png_uint_32(p->yDensity / 25.4 + 0.5), PNG_RESOLUTION_METER);
  png_set_compression_level(w->png, 6);
  png_write_info(w->png, w->info);
  for (uint32_t y = 0; y < p->height; ++y)
    png_write_row(w->png, p->pixels + static_cast<std::ptrdiff_t>(y) * p->stride);
  png_write_end(w->png, w->info);
  return true;
}

}  // namespace

const char* writePng(const char* path, const PngPicture& picture) noexcept {
  Writer w;
  w.file = std::fopen(path, "wb");
  if (!w.file) return "cannot create the output file";
  w.png = png_create_write_struct(PNG_LIBPNG_VER_STRING, nullptr, nullptr, onWarning);
  if (w.png) w.info = png_create_info_struct(w.png);
  const bool ok = w.png && w.info && writeAll(&w, &picture);
  png_destroy_write_struct(&w.png, &w.info);
  const bool closed = std::fclose(w.file) == 0;
  if (!ok) return "the PNG encoder failed";
  return closed ? nullptr : "cannot write the output file";
}

}  // namespace vload_tool
