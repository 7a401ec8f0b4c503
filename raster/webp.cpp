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
// call asks for the whole picture, else into a picture of its own from which
// bands are copied.
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
constexpr size_t kPieceBytes = 256 * 1024;  // the decoder is fed pieces of this size
// An animation is read whole to find its first frame; a larger one is refused.
constexpr uint64_t kMaxAnimationBytes = uint64_t{256} << 20;

// ---- State

struct DeleteDecoder {
  void operator()(WebPIDecoder* d) const noexcept { WebPIDelete(d); }
};
struct DeleteDemuxer {
  void operator()(WebPDemuxer* d) const noexcept { WebPDemuxDelete(d); }
};

// Where the compressed picture comes from: the file itself, or for an
// animation its first frame inside the file read whole.
struct Source {
  File file;
  uint64_t size = 0;
  Block whole;
  const uint8_t* frame = nullptr;
  uint64_t fed = 0;  // bytes handed to the decoder so far
};

struct WebpState {
  Source source;
  Block pixels;  // the decoded frame; the decoder writes into it
  std::unique_ptr<WebPIDecoder, DeleteDecoder> decoder;
  Block piece;
  uint32_t width = 0, height = 0;                // canvas
  uint32_t frameX = 0, frameY = 0, frameWidth = 0, frameHeight = 0;
  uint32_t pixelBytes = 3;
  int decodedRows = 0;  // rows of the frame the decoder has finished
  bool complete = false;
  uint32_t delivered = 0;
  Status failed = Status::Ok;
};
thread_local WebpState t_webp;

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
  src.whole = allocBlock(size_t(src.size));
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
  st.piece = allocBlock(kPieceBytes);
  if (!st.piece) return Status::NoMemory;
  const size_t bytes = stride * (st.frameHeight - 1) + size_t{st.frameWidth} * st.pixelBytes;
  st.decoder.reset(WebPINewRGB(st.pixelBytes == 4 ? MODE_RGBA : MODE_RGB, pixels, bytes, int(stride)));
  return st.decoder ? Status::Ok : Status::NoMemory;
}

// Decoding into a picture of our own, from which bands are copied: the
// decoder writes each row at its place in the whole frame.
Status startFrameDecoder(WebpState& st) {
  const size_t stride = size_t{st.frameWidth} * st.pixelBytes;
  size_t bytes = 0;
  if (!mulOk(stride, size_t{st.frameHeight}, bytes)) return Status::NoMemory;
  st.pixels = allocBlock(bytes);
  if (!st.pixels) return Status::NoMemory;
  return startDecoder(st, st.pixels.get(), stride);
}

// Hands the decoder the next piece of the picture's bytes.
Status feed(WebpState& st) {
  Source& src = st.source;
  const size_t want = size_t(std::min<uint64_t>(kPieceBytes, src.size - src.fed));
  const uint8_t* data = src.frame ? src.frame + src.fed : st.piece.get();
  const size_t got = src.frame ? want : readAt(::fileno(src.file.get()), st.piece.get(), want, off_t(src.fed));
  if (got == 0) return Status::BadData;  // the data ends before the rows do
  src.fed += got;
  const VP8StatusCode s = WebPIAppend(st.decoder.get(), data, got);
  if (s != VP8_STATUS_OK && s != VP8_STATUS_SUSPENDED) return Status::BadRequest;
  st.complete = s == VP8_STATUS_OK;
  int lastRow = 0;
  if (WebPIDecGetRGB(st.decoder.get(), &lastRow, nullptr, nullptr, nullptr))
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

// Canvas row `row`: the frame's row where the frame lies, transparent around it.
void composeRow(const WebpState& st, uint32_t row, uint8_t* dst) {
  const size_t canvasBytes = size_t{st.width} * st.pixelBytes;
  if (row < st.frameY || row >= st.frameY + st.frameHeight) {
    std::memset(dst, 0, canvasBytes);
    return;
  }
  const size_t left = size_t{st.frameX} * st.pixelBytes, frameBytes = size_t{st.frameWidth} * st.pixelBytes;
  std::memset(dst, 0, left);
  std::memcpy(dst + left, st.pixels.get() + size_t{row - st.frameY} * frameBytes, frameBytes);
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
    if (const Status s = startFrameDecoder(st); s != Status::Ok) return s;
  const uint32_t end = st.delivered + uint32_t(band.rowCount);
  const uint32_t frameRows = std::clamp(end, st.frameY, st.frameY + st.frameHeight) - st.frameY;
  if (const Status s = decodeRows(st, int(frameRows)); s != Status::Ok) return s;
  for (uint32_t i = 0; i < uint32_t(band.rowCount); ++i)
    composeRow(st, st.delivered + i, rowAt(band.buffer, i, band.rowStride));
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
}  // namespace ldr

extern "C" void registerLoadWebP(void) {
  ldr::registerOperations<ldr::describe, ldr::deliver, ldr::release>();
}
