// raster/gif.cpp: GIF loader (loader 1).
// Reads: the first image of a "GIF87a" or "GIF89a" file that has a global
// colour table, is not interlaced and has no colour table of its own, as one
// index byte a pixel; the global table is the colour map, read whatever
// readColorMap says. Extensions before the image (plain text, graphic control,
// comment, application) are skipped; transparency and later images are not
// looked at.
// Refuses: other signatures (6); no global colour table, no image descriptor
// after the extensions, a side of 0, an interlaced image or one with its own
// colour table (5); an unknown extension label (7); a file ending in the
// header, the colour table, an extension or the image descriptor (3).
// Decoding stops with 3 at a short sub-block and with 7 at a minimum code size
// outside 2..11 or a string longer than the pixel stack.
// Delivery: band addressing. The LZW decoder (raster/gif_lzw.cpp) carries a
// string cut off at the end of a band over to the next one; after the end
// code, rows not reached keep what the caller's buffer held.
// Quirk: the densities come from the pixel aspect byte alone (see densities()).
#include <unistd.h>

#include <cstring>

#include "framework/file.h"
#include "framework/loader.h"
#include "framework/read_ahead.h"
#include "raster/gif_lzw.h"
#include "vload.h"

namespace ldr {
namespace {

// ---- Limits and constants

constexpr size_t kSignatureBytes = 6;
constexpr size_t kScreenBytes = 13;  // signature and logical screen descriptor
constexpr uint8_t kGlobalTable = 0x80;
constexpr uint8_t kImageHasTable = 0x80, kInterlaced = 0x40;
constexpr int kExtensionIntroducer = 0x21, kImageSeparator = 0x2C;
constexpr int kPlainText = 0x01, kGraphicControl = 0xF9, kComment = 0xFE, kApplication = 0xFF;
constexpr uint32_t kAspectDensity = 100000;

// ---- Header

bool isGifSignature(const uint8_t* bytes) {
  return std::memcmp(bytes, "GIF87a", kSignatureBytes) == 0 ||
         std::memcmp(bytes, "GIF89a", kSignatureBytes) == 0;
}

uint32_t le16(const uint8_t* p) { return uint32_t(p[0]) | uint32_t(p[1]) << 8; }

// Quirk: a non-zero aspect byte A gives 100000 vertically and 100000 x
// ((A + 15) div 64) horizontally, the fraction dropped: A up to 48 gives a
// horizontal density of 0, 49 to 112 the same as the vertical one. Only the
// ratio of the two means anything; other readers compute (A + 15) / 64 as a
// fraction or ignore the byte.
void densities(uint8_t aspect, Picture& out) {
  if (!aspect) return;
  out.yDensity = kAspectDensity;
  out.xDensity = kAspectDensity * ((uint32_t{aspect} + 15) / 64);
}

// Skips one extension after its introducer.
Status skipExtension(ReadAhead& in) {
  const int label = in.next();
  if (label < 0) return Status::CannotOpen;
  if (label == kPlainText || label == kGraphicControl || label == kApplication) {
    const int length = in.next();
    if (length < 0 || !in.skip(size_t(length))) return Status::CannotOpen;
  } else if (label != kComment) {
    return Status::BadData;
  }
  for (;;) {
    const int length = in.next();
    if (length < 0) return Status::CannotOpen;
    if (length == 0) return Status::Ok;
    if (!in.skip(size_t(length))) return Status::CannotOpen;
  }
}

// ---- State

struct GifState {
  File file;
  ReadAhead in;  // after describe, at the image's minimum code size byte
  std::unique_ptr<LzwDecoder> lzw;  // made by the first loadBand
  uint32_t width = 0, height = 0;
  uint32_t colourMask = 0;
  uint32_t delivered = 0;
  Status failed = Status::Ok;  // sticky: a load that failed keeps failing
};
thread_local GifState t_gif;

void release() noexcept { t_gif = {}; }

// ---- Loader operations

Status describe(const char* fileName, Picture& out, uint8_t* colorMap, bool) {
  t_gif = {};
  const uint8_t* probe = loadImgCheckHeader(fileName);
  if (!probe || loadImgLastFilesize() < int64_t(kSignatureBytes) || !isGifSignature(probe))
    return Status::NotThisFormat;

  GifState& st = t_gif;
  st.file = openForReading(fileName);
  if (!st.file) return Status::CannotOpen;
  if (!st.in.start(::fileno(st.file.get()), 0)) return Status::NoMemory;
  ReadAhead& in = st.in;
  uint8_t screen[kScreenBytes];
  if (in.read(screen, kScreenBytes) != kScreenBytes) return Status::CannotOpen;
  const uint8_t flags = screen[10];
  if (!(flags & kGlobalTable)) return Status::Unsupported;
  const uint32_t colours = 2u << (flags & 7);
  out.layout = VLOAD_LAYOUT_INDEXED;
  densities(screen[12], out);
  if (in.read(colorMap, size_t{colours} * 3) != size_t{colours} * 3) return Status::CannotOpen;

  int introducer;
  while ((introducer = in.next()) == kExtensionIntroducer)
    if (const Status s = skipExtension(in); s != Status::Ok) return s;
  if (introducer != kImageSeparator) return Status::Unsupported;
  uint8_t image[8];  // left, top, width, height
  if (in.read(image, sizeof image) != sizeof image) return Status::CannotOpen;
  st.width = le16(image + 4);
  st.height = le16(image + 6);
  if (st.width == 0 || st.height == 0) return Status::Unsupported;
  const int imageFlags = in.next();
  if (imageFlags < 0) return Status::CannotOpen;
  if (imageFlags & (kImageHasTable | kInterlaced)) return Status::Unsupported;

  st.colourMask = colours - 1;
  out.width = st.width;
  out.height = st.height;
  return Status::Ok;
}

Status deliver(const Band& band) {
  GifState& st = t_gif;
  if (st.failed != Status::Ok) return st.failed;
  if (!st.file || !band.buffer || band.rowCount < 0 || band.rowStride < 0 ||
      uint32_t(band.rowStride) < st.width || uint32_t(band.rowCount) > st.height - st.delivered)
    return Status::BadRequest;
  if (!st.lzw) {
    st.lzw = LzwDecoder::create(st.width);
    if (!st.lzw) return Status::NoMemory;  // nothing read yet: the host may try again
    if (const Status s = st.lzw->begin(st.in, st.colourMask); s != Status::Ok) return st.failed = s;
  }
  if (const Status s = st.lzw->fill(band.buffer, uint32_t(band.rowCount), band.rowStride);
      s != Status::Ok)
    return st.failed = s;
  st.delivered += uint32_t(band.rowCount);
  return Status::Ok;
}

}  // namespace
}  // namespace ldr

extern "C" void registerLoadGIF(void) {
  ldr::registerOperations<ldr::describe, ldr::deliver, ldr::release>();
}
