// fuzz/colour_fuzzer.cpp: drives every colour tool with sizes, strides,
// counts, strengths, noise, maps, flags and pixels taken from the input.
//
// The input is read front to back (bytes past its end read as 0):
//   1 byte   the tool (quantize, quantize RGBA, quantize an index picture,
//            remap, remap RGBA, dither, dither RGBA, dither 16-bit, checks)
//   2 bytes  width and height, -1..62 each
//   2 bytes  output width and height for the ditherers, -1..62 each
//   2 bytes  slack added to the source and index strides, -1..6 each
//   2 bytes  colour count (little-endian; up to 299, or 1199 for 16 bits)
//   2 bytes  strength and noise, each -20..235
//   the map (count entries), one flag byte per entry (set when below 16),
//   then the pixels, repeated as needed.
// Buffers are exactly as long as the arguments say, so that a read or write
// past them is a sanitizer report. Invariants that crash on purpose: indices
// within the count, a count within what was asked for.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include "vload.h"

namespace {

struct Input {
  const uint8_t* data;
  size_t size, at = 0;
  uint8_t next() { return at < size ? data[at++] : 0; }
};

void require(bool ok, const char* what) {
  if (!ok) {
    std::fprintf(stderr, "invariant broken: %s\n", what);
    std::abort();
  }
}

bool fits(int32_t width, int32_t height, int32_t stride, int32_t unit) {
  return width >= 1 && height >= 1 && stride >= width * unit;
}

// Bytes a picture of these arguments spans, or a token buffer when they are bad.
size_t spanOf(int32_t width, int32_t height, int32_t stride, int32_t unit) {
  if (!fits(width, height, stride, unit)) return 8;
  return size_t(height - 1) * size_t(stride) + size_t(width) * size_t(unit);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) { return 0; }

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Input in{data, size};
  const int tool = in.next() % 10;
  const int32_t w = in.next() % 64 - 1, h = in.next() % 64 - 1;
  const int32_t dw = in.next() % 64 - 1, dh = in.next() % 64 - 1;
  const int32_t srcSlack = in.next() % 8 - 1, dstSlack = in.next() % 8 - 1;
  const bool wide = tool == 7;
  const int32_t count = (in.next() | in.next() << 8) % (wide ? 1200 : 300);
  const int32_t strength = in.next() - 20, noise = in.next() - 20;
  const int32_t bpp = tool == 1 || tool == 4 || tool == 6 || tool == 9 ? 4 : 3;
  const int32_t indexBytes = wide ? 2 : 1;

  std::vector<uint8_t> map(size_t(count > 0 ? count : 1) * 3 + (tool <= 2 ? 768 : 0));
  for (uint8_t& b : map) b = in.next();
  std::vector<uint8_t> flags(map.size() / 3 < 256 ? 256 : map.size() / 3);
  for (int32_t i = 0; i < count && i < int32_t(flags.size()); ++i) flags[size_t(i)] = in.next() < 16;

  const bool dithering = tool >= 5 && tool <= 7;
  const int32_t ow = dithering ? dw : w, oh = dithering ? dh : h;
  const int32_t srcStride = w * bpp + srcSlack, dstStride = ow * indexBytes + dstSlack;
  std::vector<uint8_t> src(spanOf(w, h, srcStride, bpp));
  const size_t pixelsAt = in.at;
  for (size_t i = 0; i < src.size(); ++i)
    src[i] = size > pixelsAt ? data[pixelsAt + i % (size - pixelsAt)] : uint8_t(i * 37);
  std::vector<uint8_t> dst(spanOf(ow, oh, dstStride, indexBytes));
  const size_t indices = ow > 0 && oh > 0 ? size_t(ow) * size_t(oh) : 0;
  const auto indexAt = [&](size_t i) {  // the i-th index of the output picture
    const size_t y = i / size_t(ow), x = i % size_t(ow);
    const uint8_t* p = &dst[y * size_t(dstStride) + x * size_t(indexBytes)];
    return wide ? uint32_t(p[0] | p[1] << 8) : uint32_t(p[0]);
  };
  const bool valid = fits(w, h, srcStride, bpp) && fits(ow, oh, dstStride, indexBytes);

  switch (tool) {
    case 0:
    case 1:
    case 2: {
      int32_t got = count;
      if (tool == 2) {
        for (size_t i = 0; i < dst.size(); ++i) dst[i] = src[i % src.size()];
        colorQuantizeRGBA(nullptr, 0, dst.data(), dstStride, w, h, map.data(), &got, flags.data());
      } else if (tool == 1) {
        colorQuantizeRGBA(src.data(), srcStride, dst.data(), dstStride, w, h, map.data(), &got, flags.data());
      } else {
        colorQuantize(src.data(), srcStride, dst.data(), dstStride, w, h, map.data(), &got);
      }
      if (valid && count >= 1 && count <= 256) {
        require(got >= 1 && got <= count, "quantizer count within what was asked");
        for (size_t i = 0; i < indices; ++i) require(indexAt(i) < uint32_t(got), "quantized index within count");
      }
      break;
    }
    case 3:
    case 4: {
      const int32_t ok = tool == 3
                             ? trueColorRemapToCmap(src.data(), srcStride, dst.data(), dstStride, w, h,
                                                    map.data(), count, noise)
                             : RGBARemapToCmap(src.data(), srcStride, dst.data(), dstStride, w, h,
                                               map.data(), count, flags.data(), noise);
      require(ok == (valid && count >= 1 && count <= 256), "remapper answers 1 exactly for good arguments");
      for (size_t i = 0; ok && i < indices; ++i) require(indexAt(i) < uint32_t(count), "remapped index within count");
      break;
    }
    case 5:
    case 6:
    case 7: {
      if (tool == 7)
        colorQuantizeDitherFS16(src.data(), srcStride, reinterpret_cast<uint16_t*>(dst.data()), dstStride,
                                w, h, dw, dh, map.data(), count, strength, noise);
      else
        colorQuantizeDitherFS_Internal(src.data(), srcStride, dst.data(), dstStride, w, h, dw, dh,
                                       map.data(), count, tool == 6 ? flags.data() : nullptr, strength,
                                       noise, bpp);
      const bool done = valid && count >= 1 && dstStride % indexBytes == 0;
      for (size_t i = 0; done && i < indices; ++i) require(indexAt(i) < uint32_t(count), "dithered index within count");
      break;
    }
    default: {
      uint8_t out[768];
      const int32_t n = bpp == 4 ? checkRGBAPalette(src.data(), srcStride, w, h, out)
                                 : checkTrueColorPalette(src.data(), srcStride, w, h, out);
      require(n >= 0 && n <= 256, "palette check within 256");
    }
  }
  return 0;
}
