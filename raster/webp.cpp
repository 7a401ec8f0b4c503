// raster/webp.cpp: WebP loader (loader 6), on libwebp.
// Reads: lossy and lossless pictures, with or without alpha, decoded
// incrementally: each band feeds the decoder just as much of the file as its
// rows need. An animation gives its first frame, placed on a transparent
// canvas as players show it.
// Refuses: files without "RIFF", a size and "WEBP" (6); a file that ends
// within its headers (3); data the decoder refuses, at tryLoad or while rows
// are decoded (4); sides outside 1..262140 (7); an animation without frames or
// larger than 256 MiB (5). A file that ends before its last row gives 7 from
// loadBand.
// Delivery: band addressing; layout 2, or 7 when the picture has alpha or the
// first frame of an animation leaves part of the canvas transparent.
// tryLoad reads only headers (and an animation's file); the decoder is set up
// by the first loadBand, decoding straight into the host's buffer when that
// call asks for the whole picture, else into a window of its own from which
// bands are copied.
#include "raster/webp.h"

#include <webp/decode.h>
#include <webp/demux.h>

#include <algorithm>
#include <cstring>
#include <memory>

#include "framework/checked.h"
#include "framework/file.h"
#include "framework/io.h"
#include "framework/loader.h"
#include "vload.h"

namespace ldr {
namespace {

// ---- Limits and constants

constexpr uint32_t kMaxDimension = 262140;
constexpr size_t kSignatureBytes = 12;
constexpr size_t kFirstHeaderBytes = 4096;  // grown fourfold while the headers need more
// For bands, each piece of the file handed to the decoder should finish about
// this many bytes of rows: few enough to stay in the cache until they are
// copied out, enough that the lossless decoder's going back to its last
// checkpoint (every 8 rows) when a piece ends mid-row costs little.
constexpr size_t kRowBytesPerPiece = size_t{2} << 20;
constexpr size_t kMinPieceBytes = 1024;
// A whole picture is handed over in pieces that double from this size, so
// that a decoder that refuses the data or finishes early stops the reading.
constexpr size_t kFirstWholePiece = 256 * 1024;
// An animation is read whole to find its first frame; a larger one is refused.
constexpr uint64_t kMaxAnimationBytes = uint64_t{256} << 20;

// ---- State

struct DeleteDecoder {
  void operator()(WebPIDecoder* d) const noexcept { WebPIDelete(d); }
};
struct DeleteDemuxer {
  void operator()(WebPDemuxer* d) const noexcept { WebPDemuxDelete(d); }
};

// The compressed picture. A still picture's file is read into `bytes` as the
// decoder needs it; an animation's file is read whole at tryLoad and its
// first frame lies within. The decoder is handed ever longer runs from the
// picture's first byte (WebPIUpdate, which follows the run when its block
// moves) and copies nothing; appending pieces instead makes it copy all it
// keeps (a lossless picture's every byte) each time its own buffer grows.
struct Source {
  File file;
  uint64_t size = 0;  // of the file; for an animation, of its first frame
  Block bytes;        // the file's first `fed` bytes, in a block grown by doubling
  size_t capacity = 0;
  LargeBlock whole;
  const uint8_t* frame = nullptr;
  uint64_t fed = 0;                      // bytes handed to the decoder so far
  uint64_t lastPiece = 0, lastRows = 0;  // the last piece handed over, and the rows it finished
  const uint8_t* data() const { return frame ? frame : bytes.get(); }
};

struct WebpState {
  Source source;
  LargeBlock window;     // frame rows decoded for bands, from `windowRow` on
  WebPDecBuffer output;  // where the decoder writes; it keeps a pointer to this
  std::unique_ptr<WebPIDecoder, DeleteDecoder> decoder;
  uint32_t width = 0, height = 0;                // canvas
  uint32_t frameX = 0, frameY = 0, frameWidth = 0, frameHeight = 0;
  uint32_t pixelBytes = 3;
  int decodedRows = 0;  // rows of the frame the decoder has finished
  int windowRow = 0;    // the frame row at the start of `window`
  bool complete = false;
  uint32_t delivered = 0;
  Status failed = Status::Ok;
};
thread_local WebpState t_webp;
thread_local size_t t_pieceLimit = 0;

void release() noexcept { t_webp = {}; }

// ---- Header

bool looksLikeWebp(const uint8_t* b, int64_t size) {
  return size >= int64_t(kSignatureBytes) && std::memcmp(b, "RIFF", 4) == 0 &&
         std::memcmp(b + 8, "WEBP", 4) == 0;
}

// Decoder answers other than success and "more data" mean it refuses the data.
Status refusal(VP8StatusCode s) {
  return s == VP8_STATUS_NOT_ENOUGH_DATA ? Status::CannotOpen : Status::BadRequest;
}

// Reads the file's first bytes, more of them while the headers go on.
Status readFeatures(WebpState& st, WebPBitstreamFeatures& features) {
  size_t have = size_t(std::min<uint64_t>(st.source.size, kFirstHeaderBytes));
  for (;;) {
    const Block head = allocBlock(have);
    if (!head) return Status::NoMemory;
    if (readAt(::fileno(st.source.file.get()), head.get(), have, 0) != have) return Status::CannotOpen;
    const VP8StatusCode s = WebPGetFeatures(head.get(), have, &features);
    if (s == VP8_STATUS_OK) return Status::Ok;
    if (s != VP8_STATUS_NOT_ENOUGH_DATA || have == st.source.size) return refusal(s);
    have = size_t(std::min<uint64_t>(st.source.size, uint64_t{have} * 4));
  }
}

// The first frame of an animation: its place on the canvas and its bytes.
Status findFirstFrame(WebpState& st, Picture& out) {
  Source& src = st.source;
  if (src.size > kMaxAnimationBytes) return Status::Unsupported;
  src.whole = allocLargeBlock(size_t(src.size));
  if (!src.whole) return Status::NoMemory;
  if (readAt(::fileno(src.file.get()), src.whole.get(), size_t(src.size), 0) != src.size)
    return Status::CannotOpen;
  const WebPData data{src.whole.get(), size_t(src.size)};
  const std::unique_ptr<WebPDemuxer, DeleteDemuxer> demux(WebPDemux(&data));
  if (!demux) return Status::BadRequest;
  WebPIterator frame;
  if (!WebPDemuxGetFrame(demux.get(), 1, &frame)) return Status::Unsupported;
  const uint32_t frames = uint32_t(frame.num_frames);
  st.frameX = uint32_t(frame.x_offset);
  st.frameY = uint32_t(frame.y_offset);
  st.frameWidth = uint32_t(frame.width);
  st.frameHeight = uint32_t(frame.height);
  src.frame = frame.fragment.bytes;  // within `whole`, which outlives the demuxer
  src.size = frame.fragment.size;
  const bool covers = st.frameWidth == st.width && st.frameHeight == st.height;
  st.pixelBytes = frame.has_alpha || !covers ? 4 : 3;
  WebPDemuxReleaseIterator(&frame);
  // The demuxer keeps frames within the canvas; checked again all the same,
  // as composing rows relies on it.
  if (st.frameX + st.frameWidth > st.width || st.frameY + st.frameHeight > st.height)
    return Status::BadRequest;
  out.setInfo("animation of %u frames, the first shown", frames);
  return Status::Ok;
}

// ---- Loader operations

Status describe(const char* fileName, Picture& out, uint8_t*, bool) {
  release();
  const uint8_t* probe = loadImgCheckHeader(fileName);
  if (!probe || !looksLikeWebp(probe, loadImgLastFilesize())) return Status::NotThisFormat;
  WebpState& st = t_webp;
  st.source.file = openForReading(fileName);
  if (!st.source.file) return Status::CannotOpen;
  const off_t size = ::lseek(::fileno(st.source.file.get()), 0, SEEK_END);
  if (size < off_t(kSignatureBytes)) return Status::CannotOpen;
  st.source.size = uint64_t(size);

  WebPBitstreamFeatures features;
  if (const Status s = readFeatures(st, features); s != Status::Ok) return s;
  if (features.width < 1 || features.width > int(kMaxDimension) || features.height < 1 ||
      features.height > int(kMaxDimension))
    return Status::BadData;
  st.width = st.frameWidth = uint32_t(features.width);
  st.height = st.frameHeight = uint32_t(features.height);
  st.pixelBytes = features.has_alpha ? 4 : 3;
  // A file with an extended header may not say which coding it holds.
  const char* kinds[] = {"", "lossy", "lossless"};
  const char* kind = kinds[std::clamp(features.format, 0, 2)];
  if (*kind || features.has_alpha)
    out.setInfo("%s%s%s", kind, *kind && features.has_alpha ? ", " : "", features.has_alpha ? "alpha" : "");
  if (features.has_animation)
    if (const Status s = findFirstFrame(st, out); s != Status::Ok) return s;

  out.width = st.width;
  out.height = st.height;
  out.layout = st.pixelBytes == 4 ? VLOAD_LAYOUT_RGBA : VLOAD_LAYOUT_RGB;
  return Status::Ok;
}

// ---- Rows

// Sets up the decoder to write into `pixels`, rows `stride` bytes apart.
Status startDecoder(WebpState& st, uint8_t* pixels, size_t stride) {
  if (!WebPInitDecBuffer(&st.output)) return Status::NoMemory;  // a libwebp of another interface
  st.output.colorspace = st.pixelBytes == 4 ? MODE_RGBA : MODE_RGB;
  st.output.is_external_memory = 1;
  st.output.u.RGBA.rgba = pixels;
  st.output.u.RGBA.stride = int(stride);
  st.output.u.RGBA.size = stride * (st.frameHeight - 1) + size_t{st.frameWidth} * st.pixelBytes;
  st.decoder.reset(WebPINewDecoder(&st.output));
  return st.decoder ? Status::Ok : Status::NoMemory;
}

// Bands are copied out of a window of our own. libwebp places a row at
// rgba + y * stride when it writes it, and lets a caller that owns the memory
// move rgba between calls; a call writes just the rows from those finished
// before it on, each once and in order. So before each call rgba is pointed
// `decodedRows` rows before the window, and that call's rows land at the
// window's start, over rows the bands have already taken. The window is as
// large as the frame, since one call may finish all the rest, but it is
// mapped lazily: with pieces sized to finish a few MiB of rows, a load
// touches only that much of it, never the whole frame of fresh pages, and the
// copy out reads memory that is still in the cache.
Status startWindowDecoder(WebpState& st) {
  const size_t stride = size_t{st.frameWidth} * st.pixelBytes;
  size_t bytes = 0;
  if (!mulOk(stride, size_t{st.frameHeight}, bytes)) return Status::NoMemory;
  st.window = allocLargeBlock(bytes);
  if (!st.window) return Status::NoMemory;
  return startDecoder(st, st.window.get(), stride);
}

// Points the decoder's output so that frame row `decodedRows` falls at the
// window's start. The address is formed as an integer, as it lies before the
// window; only rows from the window's start on are written through it.
void moveWindow(WebpState& st) {
  WebPRGBABuffer& out = st.output.u.RGBA;
  const size_t before = size_t(st.decodedRows) * size_t(out.stride);
  const size_t rows = size_t(st.frameHeight) - size_t(st.decodedRows);
  out.rgba = reinterpret_cast<uint8_t*>(reinterpret_cast<uintptr_t>(st.window.get()) - before);
  out.size = before + (rows - 1) * size_t(out.stride) + size_t{st.frameWidth} * st.pixelBytes;
  st.windowRow = st.decodedRows;
}

// Bytes to hand over next. A whole picture gets pieces that double. Bands get
// pieces meant to finish kRowBytesPerPiece bytes of rows, first at the file's
// average bytes per row. Compressed rows may cost very different amounts
// within one picture, so each later piece is scaled by what the last one
// gave, growing at most twofold; a piece that gave no row (still in the
// headers) is doubled, and the piece after the first rows, whose bytes were
// mostly headers, starts again from the average.
uint64_t nextPiece(const WebpState& st) {
  const Source& src = st.source;
  uint64_t left = src.size - src.fed;
  if (t_pieceLimit) left = std::min<uint64_t>(left, t_pieceLimit);
  if (!st.window) return std::min<uint64_t>(left, std::max<uint64_t>(kFirstWholePiece, src.fed));
  const uint64_t rows = std::max<uint64_t>(1, kRowBytesPerPiece / (uint64_t{st.frameWidth} * st.pixelBytes));
  uint64_t piece = src.size * rows / st.frameHeight;
  if (src.lastRows == 0 && src.lastPiece > 0) piece = 2 * src.lastPiece;
  else if (src.lastRows > 0 && uint64_t(st.decodedRows) > src.lastRows)
    piece = std::min(2 * src.lastPiece, src.lastPiece * rows / src.lastRows);
  return std::min(left, std::max<uint64_t>(kMinPieceBytes, piece));
}

// Reads the next `want` bytes of a still picture's file into `bytes`; `got`
// is fewer only where the file ends early.
Status readMore(Source& src, size_t want, size_t& got) {
  if (src.frame) {
    got = want;
    return Status::Ok;
  }
  if (src.fed + want > src.capacity) {
    const size_t grown = size_t(std::min(src.size, std::max<uint64_t>(src.fed + want, 2 * uint64_t{src.capacity})));
    auto* p = static_cast<uint8_t*>(std::realloc(src.bytes.get(), grown));
    if (!p) return Status::NoMemory;
    (void)src.bytes.release();
    src.bytes.reset(p);
    src.capacity = grown;
  }
  got = readAt(::fileno(src.file.get()), src.bytes.get() + src.fed, want, off_t(src.fed));
  return Status::Ok;
}

// Hands the decoder more of the picture's bytes.
Status feed(WebpState& st) {
  Source& src = st.source;
  size_t got = 0;
  if (const Status s = readMore(src, size_t(nextPiece(st)), got); s != Status::Ok) return s;
  if (got == 0) return Status::BadData;  // the data ends before the rows do
  src.fed += got;
  if (st.window) moveWindow(st);
  const VP8StatusCode s = WebPIUpdate(st.decoder.get(), src.data(), size_t(src.fed));
  if (s != VP8_STATUS_OK && s != VP8_STATUS_SUSPENDED) return Status::BadRequest;
  st.complete = s == VP8_STATUS_OK;
  int lastRow = 0;
  WebPIDecGetRGB(st.decoder.get(), &lastRow, nullptr, nullptr, nullptr);
  src.lastPiece = got;
  src.lastRows = uint64_t(std::max(lastRow - st.decodedRows, 0));
  st.decodedRows = std::max(st.decodedRows, lastRow);
  return Status::Ok;
}

Status decodeRows(WebpState& st, int rows) {
  while (st.decodedRows < rows) {
    if (st.complete) return Status::BadData;
    if (const Status s = feed(st); s != Status::Ok) return s;
  }
  return Status::Ok;
}

// Canvas row `row`: the frame's row where the frame lies, transparent around
// it. A frame row is in the window once decoded, until the decoder is fed again.
void composeRow(const WebpState& st, uint32_t row, uint8_t* dst) {
  const size_t canvasBytes = size_t{st.width} * st.pixelBytes;
  if (row < st.frameY || row >= st.frameY + st.frameHeight) {
    std::memset(dst, 0, canvasBytes);
    return;
  }
  const size_t left = size_t{st.frameX} * st.pixelBytes, frameBytes = size_t{st.frameWidth} * st.pixelBytes;
  const uint8_t* src = st.window.get() + size_t{row - st.frameY - uint32_t(st.windowRow)} * frameBytes;
  std::memset(dst, 0, left);
  std::memcpy(dst + left, src, frameBytes);
  std::memset(dst + left + frameBytes, 0, canvasBytes - left - frameBytes);
}

Status deliverRows(WebpState& st, const Band& band) {
  // A host that asks for the whole picture at once has it decoded straight
  // into its buffer: no picture of our own to fill and copy.
  const bool whole = uint32_t(band.rowCount) == st.height && st.frameWidth == st.width && st.frameHeight == st.height;
  if (!st.decoder && whole) {
    if (const Status s = startDecoder(st, band.buffer, size_t(band.rowStride)); s != Status::Ok) return s;
    return decodeRows(st, int(st.height));
  }
  if (!st.decoder)
    if (const Status s = startWindowDecoder(st); s != Status::Ok) return s;
  // Row by row: the decoder is fed only once every row in the window has
  // been copied out, as feeding moves the window on.
  for (uint32_t i = 0; i < uint32_t(band.rowCount); ++i) {
    const uint32_t row = st.delivered + i;
    if (row >= st.frameY && row < st.frameY + st.frameHeight)
      if (const Status s = decodeRows(st, int(row - st.frameY) + 1); s != Status::Ok) return s;
    composeRow(st, row, rowAt(band.buffer, i, band.rowStride));
  }
  return Status::Ok;
}

Status deliver(const Band& band) {
  WebpState& st = t_webp;
  if (st.failed != Status::Ok) return st.failed;
  if (!st.source.file || !band.buffer || band.rowCount < 0 || band.rowStride < 0 ||
      uint64_t(band.rowStride) < uint64_t{st.width} * st.pixelBytes ||
      uint32_t(band.rowCount) > st.height - st.delivered)
    return Status::BadRequest;
  if (const Status s = deliverRows(st, band); s != Status::Ok) return st.failed = s;
  st.delivered += uint32_t(band.rowCount);
  return Status::Ok;
}

}  // namespace

void webpLimitPieces(size_t bytes) noexcept { t_pieceLimit = bytes; }

}  // namespace ldr

extern "C" void registerLoadWebP(void) {
  ldr::registerOperations<ldr::describe, ldr::deliver, ldr::release>();
}
