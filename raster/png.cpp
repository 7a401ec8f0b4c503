// raster/png.cpp: PNG loader (loader 2), on libpng.
// Reads: every colour type and depth. Grey comes colour-mapped (1-bit grey
// bilevel), palette colour-mapped, RGB as R, G, B, grey with alpha and RGBA as
// R, G, B, A, 16-bit samples cut to their high byte. A tRNS chunk turns a grey
// or palette picture into R, G, B, A. Text keys "MulX" and "MulY" give the
// repeat counts; pHYs the densities.
// Refuses: a wrong signature (6); libpng errors in the header (3) or in the
// rows (3); no memory for libpng's structures (2).
// Delivery: band addressing, rows in file order. An interlaced picture is
// decoded whole on the first band and handed out from there, so every band
// size gives the same rows.
// Quirk: grey samples are delivered inverted, with a colour map that inverts
// them back, so bilevel pictures have 1 as the dark state and colour-mapped
// greys show as in the file.
// Quirk: in a transparent grey or palette picture, index or grey 255 has
// alpha 0 unless a palette tRNS entry covers it, and the transparent grey is
// matched by the low byte of its 16-bit value.
//
// libpng reports errors by longjmp. Every libpng call goes through pngCall,
// whose frame holds the jump target; the functions it runs own nothing with a
// destructor, and everything the error path needs lives in t_png.
#include <algorithm>
#include <csetjmp>
#include <cstdlib>
#include <cstring>

#include <png.h>

#include "design/text.h"
#include "framework/checked.h"
#include "framework/file.h"
#include "framework/loader.h"
#include "vload.h"

namespace ldr {
namespace {

// ---- Limits and constants

constexpr size_t kSignatureBytes = 8;
constexpr double kMillimetresPerInch = 25.4;
constexpr double kCentimetresPerInch = 2.54;
// Files carrying all ten standard keywords with empty texts store their
// density per centimetre rather than per metre.
constexpr const char* kStandardKeywords[] = {"Author",     "Description", "Copyright", "Creation time",
                                             "Software",   "Disclaimer",  "Warning",   "Source",
                                             "Comment",    "Title"};
constexpr int kEmptyKeywordsForCentimetres = 10;
// libpng only warns about an ancillary chunk longer than its limit and then
// allocates the length the file claims, up to 2 GiB, for a few bytes of data.
// Its blocks are refused above this size (rows of a million 16-bit RGBA
// pixels take 8 MB); it then skips such a chunk.
constexpr png_alloc_size_t kMaxLibpngBlock = png_alloc_size_t{64} << 20;

// ---- State

// How rows libpng wrote become the host's rows.
enum class Expansion : uint8_t {
  None,         // libpng's rows are the host's
  GreyAlpha,    // grey and alpha bytes to R, G, B, A
  GreyTrns,     // grey bytes to R, G, B, A through the alpha table
  PaletteTrns,  // indexes to R, G, B, A through the colour map and the alpha table
};

struct PngState {
  File file;
  png_structp png = nullptr;
  png_infop info = nullptr;
  uint32_t width = 0, height = 0;
  int colourType = 0, bitDepth = 0;
  int passes = 1;
  uint32_t delivered = 0;
  size_t pngRowBytes = 0;     // what libpng writes per row after the transforms
  uint32_t outRowBytes = 0;   // one row in the host's layout
  bool transparency = false;
  bool invertRows = false;    // grey bytes are inverted here rather than by libpng
  Expansion expansion = Expansion::None;
  uint8_t alpha[256] = {};
  // The colour map as written to the host, kept here rather than as a pointer
  // to the host's array, which may be gone by the time rows are delivered.
  uint8_t map[kColourMapBytes] = {};
  uint8_t grey[256] = {};     // file grey of each delivered (inverted) grey byte
  Block whole;                // an interlaced picture, decoded on the first band
  Status failed = Status::Ok;  // sticky: a load that failed keeps failing
};
thread_local PngState t_png;

png_voidp boundedMalloc(png_structp, png_alloc_size_t size) noexcept {
  return size > kMaxLibpngBlock ? nullptr : std::malloc(size);
}

void plainFree(png_structp, png_voidp p) noexcept { std::free(p); }

// libpng's default handlers print on stderr, which is the host's to use: an
// error only fails the call (the status says so), and a warning goes to the
// warning channel, where the host can silence it.
[[noreturn]] void onPngError(png_structp png, png_const_charp) { png_longjmp(png, 1); }
void onPngWarning(png_structp, png_const_charp message) { ErrNonfatal("PNG: %s", message); }

// Runs libpng steps with the jump point armed; false when libpng failed.
template <class Step>
[[nodiscard]] bool pngCall(png_structp png, Step&& step) noexcept {
  if (setjmp(png_jmpbuf(png))) return false;
  step();
  return true;
}

void release() noexcept {
  PngState& st = t_png;
  if (st.png) png_destroy_read_struct(&st.png, st.info ? &st.info : nullptr, nullptr);
  t_png = {};
}

// ---- Header

struct Header {
  png_uint_32 width = 0, height = 0;
  int bitDepth = 0, colourType = 0, interlace = 0;
};

void readInfo(PngState& st, Header& h) {
  png_init_io(st.png, st.file.get());
  png_set_sig_bytes(st.png, int(kSignatureBytes));
  png_read_info(st.png, st.info);
  png_get_IHDR(st.png, st.info, &h.width, &h.height, &h.bitDepth, &h.colourType, &h.interlace,
               nullptr, nullptr);
}

bool startsWith(const char* s, const char* prefix) {
  return std::strncmp(s, prefix, std::strlen(prefix)) == 0;
}

// Repeat counts from "MulX"/"MulY"; returns how many texts are empty under a
// standard keyword.
int readTexts(png_structp png, png_infop info, Picture& out) {
  png_textp texts = nullptr;
  const int count = png_get_text(png, info, &texts, nullptr);
  int emptyStandard = 0;
  for (int i = 0; i < count; ++i) {
    const char* key = texts[i].key ? texts[i].key : "";
    const char* text = texts[i].text ? texts[i].text : "";
    if (startsWith(key, "MulX")) out.xRepeat = uint32_t(leadingInt(text));
    if (startsWith(key, "MulY")) out.yRepeat = uint32_t(leadingInt(text));
    if (*text) continue;
    for (const char* k : kStandardKeywords)
      if (startsWith(key, k)) {
        ++emptyStandard;
        break;
      }
  }
  return emptyStandard;
}

// A density in thousandths of a dpi; a value that does not fit is unknown.
uint32_t fitDensity(double v) { return v >= 0 && v < 4294967296.0 ? uint32_t(v) : 0; }

// Quirk: the pHYs unit is not examined; pixels per unit are taken as per
// metre, or as per centimetre when all ten standard keywords came empty.
void readDensities(png_structp png, png_infop info, int emptyStandard, Picture& out) {
  png_uint_32 x = 0, y = 0;
  int unit = 0;
  if (!png_get_pHYs(png, info, &x, &y, &unit)) return;
  const double scale = emptyStandard == kEmptyKeywordsForCentimetres
                           ? kMillimetresPerInch * kCentimetresPerInch
                           : kMillimetresPerInch;
  out.xDensity = fitDensity(x * scale + 0.5);
  out.yDensity = fitDensity(y * scale + 0.5);
}

// The alpha table: opaque but for the tRNS entries; entry 255 stays 0 unless
// a palette tRNS of 256 entries sets it.
void readTransparency(PngState& st) {
  png_bytep alphas = nullptr;
  int count = 0;
  png_color_16p colour = nullptr;
  st.transparency = (st.colourType == PNG_COLOR_TYPE_PALETTE || st.colourType == PNG_COLOR_TYPE_GRAY) &&
                    png_get_valid(st.png, st.info, PNG_INFO_tRNS) &&
                    png_get_tRNS(st.png, st.info, &alphas, &count, &colour);
  if (!st.transparency) return;
  std::memset(st.alpha, 255, 255);
  if (st.colourType == PNG_COLOR_TYPE_GRAY) {
    if (colour) st.alpha[colour->gray & 0xFF] = 0;
  } else if (alphas) {
    std::memcpy(st.alpha, alphas, size_t(std::clamp(count, 0, 256)));
  }
}

// Grey maps: the host's follows each depth; ours, for the expansions, turns
// an inverted byte back into the file's grey scaled to 8 bits.
void greyMaps(PngState& st, uint8_t* colorMap) {
  const int depth = std::min(st.bitDepth, 8);
  const int top = (1 << depth) - 1;
  for (int b = 0; b <= top; ++b) st.grey[b] = uint8_t((top - b) * (255 / top));
  if (depth == 1) {  // bilevel: entry 0 black, entry 1 white
    std::memset(st.map, 0, 3);
    std::memset(st.map + 3, 255, 3);
  } else {
    // 16-bit grey is cut to 8 bits and gets the 8-bit map, so that its
    // indexes mean something to the host.
    for (int i = 0; i <= top; ++i) std::memset(st.map + 3 * i, st.grey[i], 3);
  }
  std::memcpy(colorMap, st.map, size_t(3 * (top + 1)));
}

// Transforms and the host's layout for the colour type.
void chooseLayout(PngState& st, Picture& out, uint8_t* colorMap) {
  png_structp png = st.png;
  // Whole bytes of grey are inverted here, a word at a time, which costs less
  // than libpng's byte loop; packed and grey-with-alpha rows are left to libpng.
  st.invertRows = st.colourType == PNG_COLOR_TYPE_GRAY && st.bitDepth >= 8;
  if (!st.invertRows) png_set_invert_mono(png);
  st.passes = png_set_interlace_handling(png);
  if (st.bitDepth == 16) png_set_strip_16(png);
  switch (st.colourType) {
    case PNG_COLOR_TYPE_GRAY:
    case PNG_COLOR_TYPE_GRAY_ALPHA:
      // 1-bit grey is delivered packed unless it becomes R, G, B, A, whose
      // expansion reads one byte a pixel.
      if (st.bitDepth == 2 || st.bitDepth == 4 || (st.bitDepth == 1 && st.transparency))
        png_set_packing(png);
      out.layout = st.bitDepth == 1 ? VLOAD_LAYOUT_BILEVEL : VLOAD_LAYOUT_INDEXED;
      greyMaps(st, colorMap);
      if (st.colourType == PNG_COLOR_TYPE_GRAY_ALPHA) {
        out.layout = VLOAD_LAYOUT_RGBA;
        st.expansion = Expansion::GreyAlpha;
      } else if (st.transparency) {
        out.layout = VLOAD_LAYOUT_RGBA;
        st.expansion = Expansion::GreyTrns;
      }
      break;
    case PNG_COLOR_TYPE_RGB: out.layout = VLOAD_LAYOUT_RGB; break;
    case PNG_COLOR_TYPE_PALETTE:
      if (st.bitDepth < 8) png_set_packing(png);
      out.layout = VLOAD_LAYOUT_INDEXED;
      if (st.transparency) {
        out.layout = VLOAD_LAYOUT_RGBA;
        st.expansion = Expansion::PaletteTrns;
      }
      break;
    default: out.layout = VLOAD_LAYOUT_RGBA; break;  // RGB with alpha
  }
}

// Everything libpng is asked while describing; runs under pngCall.
void readHeader(PngState& st, Header& h, Picture& out, uint8_t* colorMap) {
  readInfo(st, h);
  st.colourType = h.colourType;
  st.bitDepth = h.bitDepth;
  png_colorp palette = nullptr;
  int entries = 0;
  if (png_get_PLTE(st.png, st.info, &palette, &entries) && palette) {
    entries = std::clamp(entries, 0, kColourMapEntries);
    for (int i = 0; i < entries; ++i) {
      st.map[3 * i] = colorMap[3 * i] = palette[i].red;
      st.map[3 * i + 1] = colorMap[3 * i + 1] = palette[i].green;
      st.map[3 * i + 2] = colorMap[3 * i + 2] = palette[i].blue;
    }
  }
  readDensities(st.png, st.info, readTexts(st.png, st.info, out), out);
  readTransparency(st);
  chooseLayout(st, out, colorMap);
  png_read_update_info(st.png, st.info);
  st.pngRowBytes = png_get_rowbytes(st.png, st.info);
}

// ---- Loader operations

Status describe(const char* fileName, Picture& out, uint8_t* colorMap, bool) {
  release();
  PngState& st = t_png;
  st.file = openForReading(fileName);
  if (!st.file) return Status::CannotOpen;
  uint8_t signature[kSignatureBytes];
  if (!readExact(st.file.get(), signature, sizeof signature) ||
      png_sig_cmp(signature, 0, sizeof signature) != 0)
    return Status::NotThisFormat;
  st.png = png_create_read_struct_2(PNG_LIBPNG_VER_STRING, nullptr, onPngError, onPngWarning, nullptr,
                                    boundedMalloc, plainFree);
  if (!st.png) return Status::NoMemory;
  st.info = png_create_info_struct(st.png);
  if (!st.info) return Status::NoMemory;

  Header h;
  if (!pngCall(st.png, [&] { readHeader(st, h, out, colorMap); })) return Status::CannotOpen;
  const std::optional<uint32_t> outRow = layoutRowBytes(out.layout, h.width);
  // libpng limits dimensions to a million pixels; its rows then fit in ours.
  if (!outRow || st.pngRowBytes > *outRow) return Status::BadData;
  st.width = h.width;
  st.height = h.height;
  st.outRowBytes = *outRow;
  out.width = h.width;
  out.height = h.height;
  return Status::Ok;
}

// ---- Rows

void invertRow(uint8_t* row, size_t bytes) {
  size_t i = 0;
  for (; i + 8 <= bytes; i += 8) {
    uint64_t w;
    std::memcpy(&w, row + i, 8);
    w = ~w;
    std::memcpy(row + i, &w, 8);
  }
  for (; i < bytes; ++i) row[i] = uint8_t(~row[i]);
}

// Widens rows in place, from the last pixel backwards, to four bytes a pixel.
void expandRow(const PngState& st, uint8_t* row) {
  switch (st.expansion) {
    case Expansion::GreyAlpha:
      for (uint32_t x = st.width; x-- > 0;) {
        const uint8_t g = st.grey[row[2 * x]], a = row[2 * x + 1];
        row[4 * x] = row[4 * x + 1] = row[4 * x + 2] = g;
        row[4 * x + 3] = a;
      }
      break;
    case Expansion::GreyTrns:
      for (uint32_t x = st.width; x-- > 0;) {
        const uint8_t g = st.grey[row[x]];
        row[4 * x] = row[4 * x + 1] = row[4 * x + 2] = g;
        row[4 * x + 3] = st.alpha[g];
      }
      break;
    case Expansion::PaletteTrns:
      for (uint32_t x = st.width; x-- > 0;) {
        const uint8_t i = row[x];
        std::memcpy(row + 4 * x, st.map + 3 * i, 3);
        row[4 * x + 3] = st.alpha[i];
      }
      break;
    case Expansion::None: break;
  }
}

// Every pass of every row into `whole`, once.
bool decodeWhole(PngState& st) {
  size_t bytes = 0;
  if (!mulOk(st.pngRowBytes, size_t{st.height}, bytes)) return false;
  st.whole = allocBlock(bytes);
  if (!st.whole) return false;
  uint8_t* base = st.whole.get();
  return pngCall(st.png, [&] {
    for (int pass = 0; pass < st.passes; ++pass)
      for (uint32_t y = 0; y < st.height; ++y) png_read_row(st.png, base + y * st.pngRowBytes, nullptr);
  });
}

Status deliver(const Band& band) {
  PngState& st = t_png;
  if (st.failed != Status::Ok) return st.failed;
  if (!st.png || !st.info) return Status::CannotOpen;
  if (!band.buffer || band.rowCount < 0 || band.rowStride < 0 ||
      uint32_t(band.rowStride) < st.outRowBytes ||
      uint32_t(band.rowCount) > st.height - st.delivered)
    return Status::BadRequest;
  const uint32_t rows = uint32_t(band.rowCount);
  if (st.passes > 1) {
    if (!st.whole && !decodeWhole(st)) return st.failed = st.whole ? Status::CannotOpen : Status::NoMemory;
    for (uint32_t i = 0; i < rows; ++i)
      std::memcpy(rowAt(band.buffer, i, band.rowStride),
                  st.whole.get() + (st.delivered + i) * st.pngRowBytes, st.pngRowBytes);
  } else if (!pngCall(st.png, [&] {
               for (uint32_t i = 0; i < rows; ++i)
                 png_read_row(st.png, rowAt(band.buffer, i, band.rowStride), nullptr);
             })) {
    return st.failed = Status::CannotOpen;
  }
  for (uint32_t i = 0; i < rows; ++i) {
    uint8_t* row = rowAt(band.buffer, i, band.rowStride);
    if (st.invertRows) invertRow(row, st.pngRowBytes);
    expandRow(st, row);
  }
  st.delivered += rows;
  if (st.delivered == st.height && !pngCall(st.png, [&] { png_read_end(st.png, nullptr); }))
    return st.failed = Status::CannotOpen;
  return Status::Ok;
}

}  // namespace
}  // namespace ldr

extern "C" void registerLoadPNG(void) {
  ldr::registerOperations<ldr::describe, ldr::deliver, ldr::release>();
}
