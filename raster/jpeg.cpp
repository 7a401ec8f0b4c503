// raster/jpeg.cpp: JPEG loader (loader 4), on libjpeg.
// Reads: every JPEG libjpeg decodes: greyscale (colour-mapped, 256 greys),
// YCbCr and RGB (R, G, B), CMYK and YCCK (converted to R, G, B here). A host
// that asks for layout 1 gets a colour map of 128 colours from libjpeg's
// two-pass quantizer. Densities come from a JFIF header in dots per inch,
// else from the EXIF block's resolution.
// Refuses: files not starting with FF D8, and anything libjpeg stops on while
// reading the header or starting (6), pictures whose progressive or
// colour-mapped decoding would take more than kMaxWorkingMemory among them;
// libjpeg errors while reading rows (4).
// Delivery: band addressing, rows in file order.
// Quirk: CMYK is taken as the inverted CMYK that most writers store, and each
// channel is K x C / 256, so full ink gives 254 rather than 255.
// Quirk: a JFIF density in dots per centimetre is not used; the EXIF block,
// or nothing, gives the density then.
//
// libjpeg reports errors by longjmp. Every libjpeg call goes through jpegCall,
// whose frame holds the jump target; the functions it runs own nothing with a
// destructor, and everything the error path needs lives in t_jpeg.
#include <algorithm>
#include <csetjmp>
#include <cstdio>
#include <cstring>
#include <memory>

#include <jpeglib.h>

#include "framework/checked.h"
#include "framework/file.h"
#include "framework/helpers.h"
#include "framework/loader.h"
#include "vload.h"

namespace ldr {
namespace {

// ---- Limits and constants

constexpr int kExifMarker = JPEG_APP0 + 1;
constexpr unsigned kMaxMarkerBytes = 0xFFFF;
constexpr int kGreyColours = 256;     // a greyscale file always comes colour-mapped
constexpr int kMappedColours = 128;   // what the quantizer builds when the host asks for layout 1
constexpr int kDensityDotsPerInch = 1;
constexpr int32_t kExifUnitCentimetre = 3;
constexpr int kRowsPerCall = 16;       // row pointers handed to libjpeg at once
constexpr size_t kExifLengthBytes = 2;  // the APP1 length in front of "Exif"
// Progressive and two-pass colour-mapped decoding keep the whole picture in
// libjpeg's memory (about 6 bytes a pixel); a few hundred bytes of header can
// ask for gigabytes. This allows pictures of some 170 megapixels.
constexpr long kMaxWorkingMemory = 1L << 30;

// ---- State

struct JpegError {
  jpeg_error_mgr pub;  // first, so that libjpeg's pointer to it is one to the whole
  std::jmp_buf jump;
};

struct JpegState {
  jpeg_decompress_struct cinfo;
  JpegError error;
  File file;
  Block scanline;  // one CMYK row before conversion
  size_t scanlineBytes = 0;
  bool created = false;  // the decompressor exists and must be destroyed
  bool started = false;  // decompression was started and may be finished
  bool cmyk = false;
  uint32_t height = 0;
  uint32_t outRowBytes = 0;
  uint32_t delivered = 0;
  Status failed = Status::Ok;  // sticky: a load that failed keeps failing
};
thread_local JpegState t_jpeg;

// libjpeg's default handlers print on stderr, which is the host's to use: an
// error only fails the call (the status says so), and a warning about data it
// recovered from goes to the warning channel, where the host can silence it.
void onJpegMessage(j_common_ptr c) noexcept {
  char text[JMSG_LENGTH_MAX];
  (*c->err->format_message)(c, text);
  ErrNonfatal("JPEG: %s", text);
}

[[noreturn]] void onJpegError(j_common_ptr c) noexcept {
  std::longjmp(reinterpret_cast<JpegError*>(c->err)->jump, 1);
}

// Runs one libjpeg step with the jump point armed; false when libjpeg failed.
template <class Step>
[[nodiscard]] bool jpegCall(JpegState& st, Step&& step) noexcept {
  if (setjmp(st.error.jump)) return false;
  step();
  return true;
}

// A decompression is finished only when every row was read: libjpeg refuses
// to finish earlier, and the decompressor is destroyed either way.
void release() noexcept {
  JpegState& st = t_jpeg;
  if (st.created) {
    if (st.started && st.cinfo.output_scanline >= st.cinfo.output_height)
      (void)jpegCall(st, [&] { jpeg_finish_decompress(&st.cinfo); });
    (void)jpegCall(st, [&] { jpeg_destroy_decompress(&st.cinfo); });
  }
  t_jpeg = {};
}

// ---- Header

void readHeader(JpegState& st) {
  jpeg_create_decompress(&st.cinfo);
  st.cinfo.mem->max_memory_to_use = kMaxWorkingMemory;
  jpeg_save_markers(&st.cinfo, kExifMarker, kMaxMarkerBytes);
  jpeg_stdio_src(&st.cinfo, st.file.get());
  jpeg_read_header(&st.cinfo, TRUE);
}

// Output set-up: greyscale through the one-pass quantizer as 256 greys,
// CMYK and YCCK as CMYK for our own conversion, the rest as RGB; the
// two-pass quantizer when the host wants a colour-mapped picture.
void chooseOutput(jpeg_decompress_struct& c, bool readColorMap, uint8_t requestedLayout) {
  c.quantize_colors = FALSE;
  c.dither_mode = JDITHER_NONE;
  if (c.out_color_space == JCS_GRAYSCALE) {
    c.quantize_colors = TRUE;
    c.two_pass_quantize = FALSE;
    c.desired_number_of_colors = kGreyColours;
  } else if (c.out_color_space == JCS_CMYK || c.out_color_space == JCS_YCCK) {
    c.out_color_space = JCS_CMYK;
  } else {
    c.out_color_space = JCS_RGB;
  }
  if (readColorMap && requestedLayout == VLOAD_LAYOUT_INDEXED) {
    c.quantize_colors = TRUE;
    c.two_pass_quantize = TRUE;
    c.dither_mode = JDITHER_NONE;
    c.desired_number_of_colors = kMappedColours;
  }
}

// One CMYK pixel (inverted, as most writers store it) to R, G, B.
void cmykToRgb(unsigned c, unsigned m, unsigned y, unsigned k, uint8_t* rgb) {
  rgb[0] = uint8_t(k * c >> 8);
  rgb[1] = uint8_t(k * m >> 8);
  rgb[2] = uint8_t(k * y >> 8);
}

// The quantizer's map, entry by entry for the colours asked for; entries it
// did not fill (a picture with fewer colours) are black. A CMYK picture
// quantizes in CMYK, so its entries are converted like its pixels would be.
void copyColourMap(const jpeg_decompress_struct& c, uint8_t* map) {
  const int wanted = std::min(c.desired_number_of_colors, kColourMapEntries);
  for (int i = 0; i < wanted; ++i) {
    uint8_t* e = map + 3 * i;
    if (i >= c.actual_number_of_colors) {
      e[0] = e[1] = e[2] = 0;
    } else if (c.out_color_space == JCS_GRAYSCALE) {
      e[0] = e[1] = e[2] = c.colormap[0][i];
    } else if (c.out_color_space == JCS_CMYK) {
      cmykToRgb(c.colormap[0][i], c.colormap[1][i], c.colormap[2][i], c.colormap[3][i], e);
    } else {
      e[0] = c.colormap[0][i];
      e[1] = c.colormap[1][i];
      e[2] = c.colormap[2][i];
    }
  }
}

// A density in thousandths of a dpi; a value that does not fit is unknown.
uint32_t fitDensity(double v) { return v >= 0 && v < 4294967296.0 ? uint32_t(v) : 0; }

// The last saved APP1 marker that holds an EXIF block, or nullptr.
const jpeg_marker_struct* exifMarker(const jpeg_decompress_struct& c) {
  const jpeg_marker_struct* found = nullptr;
  for (const jpeg_marker_struct* m = c.marker_list; m; m = m->next)
    if (m->marker == kExifMarker && m->data_length >= 5 && std::memcmp(m->data, "Exif", 5) == 0)
      found = m;
  return found;
}

// Densities from the EXIF resolution, when the block has both.
// Quirk: the EXIF reader is called with its messages on, which clears a
// host's SuppressNonFatalErrors for the whole process, as hosts of this
// loader have always seen it do.
void densitiesFromExif(const jpeg_marker_struct& m, Picture& out) {
  // The block goes to the reader with room for the APP1 length in front, so
  // that its offsets count as in the file; the copy keeps libjpeg's own
  // buffer out of the reader's reach.
  const Block block = allocBlock(m.data_length + kExifLengthBytes);
  const auto info = std::make_unique<ExifInfo>();
  if (!block) return;
  block[0] = uint8_t((m.data_length + kExifLengthBytes) >> 8);
  block[1] = uint8_t(m.data_length + kExifLengthBytes);
  std::memcpy(block.get() + kExifLengthBytes, m.data, m.data_length);
  // The reader sets the thread's byte order for Get16u and friends; a load
  // leaves it as the host had it.
  const bool hostOrder = bigEndian();
  process_EXIF(block.get(), m.data_length, info.get(), 0);
  setBigEndian(hostOrder);
  if (!(info->xResolution > 0 && info->yResolution > 0)) return;
  out.xDensity = fitDensity(double(info->xResolution) * 1000);
  out.yDensity = fitDensity(double(info->yResolution) * 1000);
  if (info->resolutionUnit == kExifUnitCentimetre) {
    out.xDensity = fitDensity(out.xDensity * 2.54 + 0.5);
    out.yDensity = fitDensity(out.yDensity * 2.54 + 0.5);
  }
}

// ---- Loader operations

Status describe(const char* fileName, Picture& out, uint8_t* colorMap, bool readColorMap) {
  release();
  const uint8_t* probe = loadImgCheckHeader(fileName);
  if (!probe || loadImgLastFilesize() < 2 || probe[0] != 0xFF || probe[1] != 0xD8)
    return Status::NotThisFormat;

  JpegState& st = t_jpeg;
  st.file = openForReading(fileName);
  if (!st.file) return Status::CannotOpen;
  jpeg_decompress_struct& c = st.cinfo;
  c.err = jpeg_std_error(&st.error.pub);
  st.error.pub.error_exit = onJpegError;
  st.error.pub.output_message = onJpegMessage;
  st.created = true;  // destroying a decompressor whose creation failed is harmless
  if (!jpegCall(st, [&] { readHeader(st); })) return Status::NotThisFormat;

  chooseOutput(c, readColorMap, out.requestedLayout);
  if (readColorMap) {
    if (!jpegCall(st, [&] { jpeg_start_decompress(&c); })) return Status::NotThisFormat;
    st.started = true;
  }
  out.width = c.image_width;
  out.height = c.image_height;
  out.layout = !c.quantize_colors && c.out_color_space != JCS_GRAYSCALE ? VLOAD_LAYOUT_RGB
                                                                          : VLOAD_LAYOUT_INDEXED;
  if (st.started && c.quantize_colors && c.colormap) copyColourMap(c, colorMap);

  if (c.density_unit == kDensityDotsPerInch) {
    out.xDensity = uint32_t{c.X_density} * 1000;
    out.yDensity = uint32_t{c.Y_density} * 1000;
  } else if (const jpeg_marker_struct* m = exifMarker(c)) {
    densitiesFromExif(*m, out);
  }

  // libjpeg caps dimensions far below what a 32-bit stride could not hold.
  // Quantized CMYK arrives as indexes, which need no conversion.
  st.cmyk = c.out_color_space == JCS_CMYK && !c.quantize_colors;
  st.height = c.image_height;
  st.outRowBytes = *layoutRowBytes(out.layout, c.image_width);
  return Status::Ok;
}

// ---- Rows

bool readRows(JpegState& st, const Band& band) {
  JSAMPROW rows[kRowsPerCall];
  const uint32_t count = uint32_t(band.rowCount);
  for (uint32_t done = 0; done < count;) {
    const uint32_t batch = std::min<uint32_t>(kRowsPerCall, count - done);
    for (uint32_t i = 0; i < batch; ++i) rows[i] = rowAt(band.buffer, done + i, band.rowStride);
    JDIMENSION got = 0;
    if (!jpegCall(st, [&] { got = jpeg_read_scanlines(&st.cinfo, rows, batch); })) return false;
    if (got == 0) return false;  // a source that cannot go on
    done += got;
  }
  return true;
}

// Quirk: the pixels converted per row are counted from the stride (stride / 3),
// not from the width; the scanline buffer is sized to match, and pixels past
// the width come out black.
Status readCmykRows(JpegState& st, const Band& band) {
  const size_t pixels = uint32_t(band.rowStride) / 3;
  if (st.scanlineBytes < pixels * 4) {
    st.scanline = allocBlock(pixels * 4);
    if (!st.scanline) return Status::NoMemory;
    st.scanlineBytes = pixels * 4;
  }
  for (int32_t r = 0; r < band.rowCount; ++r) {
    JSAMPROW line = st.scanline.get();
    JDIMENSION got = 0;
    if (!jpegCall(st, [&] { got = jpeg_read_scanlines(&st.cinfo, &line, 1); }) || got == 0)
      return Status::BadRequest;
    const uint8_t* s = st.scanline.get();
    uint8_t* d = rowAt(band.buffer, r, band.rowStride);
    for (size_t x = 0; x < pixels; ++x, s += 4, d += 3) cmykToRgb(s[0], s[1], s[2], s[3], d);
  }
  return Status::Ok;
}

Status deliver(const Band& band) {
  JpegState& st = t_jpeg;
  if (st.failed != Status::Ok) return st.failed;
  if (!st.started || !band.buffer || band.rowCount < 0 || band.rowStride < 0 ||
      uint32_t(band.rowStride) < st.outRowBytes ||
      uint32_t(band.rowCount) > st.height - st.delivered)
    return Status::BadRequest;
  const Status s = st.cmyk ? readCmykRows(st, band)
                           : readRows(st, band) ? Status::Ok : Status::BadRequest;
  if (s != Status::Ok) return st.failed = s;
  st.delivered += uint32_t(band.rowCount);
  return Status::Ok;
}

}  // namespace
}  // namespace ldr

extern "C" void registerLoadJPEG(void) {
  ldr::registerOperations<ldr::describe, ldr::deliver, ldr::release>();
}
