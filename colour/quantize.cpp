// colour/quantize.cpp: reduction of a true-colour or RGBA picture (or of an
// index picture through its colour map) to at most N colours.
//
// A picture with no more distinct colours than wanted keeps them exactly, in
// order of first appearance. Otherwise a variance-driven median cut splits the
// 64 x 64 x 64 colour cube into boxes: always the box of the largest spread
// (sum of squared deviations over the whole picture's pixel count), along the
// channel whose two halves spread least together. Pixels then take the nearest
// box colour through the per-cell cache.
//
// Transparency (RGBA with a flags array, when some pixel has alpha 0): the
// exact path reserves entry 0, the median cut the entry after its boxes. The
// transparent entry reads 0, 0, 0; only its flag says what it is.
#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>
#include <new>

#include "colour/colour.h"
#include "vload.h"

namespace ldr::colour {
namespace {

// ---- Limits and constants
constexpr int32_t kLevels = 64;              // values of a 6-bit channel
constexpr double kLeastPriority = 0.00001;   // boxes spread less than this are not split
constexpr double kUnsplittable = std::numeric_limits<double>::infinity();

// ---- Boxes
struct Box {
  double priority;          // spread over the picture's pixel count; 0 when empty
  float mean[3];            // per channel, in cube units 0..63
  uint64_t count;           // pixels inside
  uint64_t hist[3][kLevels];  // per channel, pixels by 6-bit value
  uint32_t lo[3], hi[3];    // bounds per channel: lo inclusive, hi exclusive
};

void computeStatistics(Box& b, double total) {
  if (b.count == 0) {  // no mean to take: the middle of the bounds stands in
    b.priority = 0;
    for (int c = 0; c < 3; ++c) b.mean[c] = float(b.lo[c] + b.hi[c] - 1) / 2;
    return;
  }
  // Sums stay exact in 64 bits for any picture that fits memory: count x 63^2.
  double spread = 0;
  for (int c = 0; c < 3; ++c) {
    uint64_t s1 = 0, s2 = 0;
    for (uint32_t v = b.lo[c]; v < b.hi[c]; ++v) {
      s1 += b.hist[c][v] * v;
      s2 += b.hist[c][v] * v * v;
    }
    const double mean = double(s1) / double(b.count);
    b.mean[c] = float(mean);
    spread += double(s2) - mean * mean * double(b.count);
  }
  b.priority = spread / total;
}

struct Cut {
  uint32_t at;  // the last value of the low half
  uint64_t lowCount;
};

// Where box b is cut along channel c: the value t between the midpoints of
// lower bound and mean and of mean and upper bound that maximises
// (m - T)^2 x L / (count - L), L the pixels up to t, in single precision.
Cut findCut(const Box& b, int c) {
  const uint64_t* h = b.hist[c];
  const float m = b.mean[c];
  const uint32_t lo = b.lo[c], hi = b.hi[c];
  // m lies in [lo, hi - 1], so both ends do too; the clamps only guard that.
  const uint32_t first = std::max(lo, uint32_t((m + float(lo)) / 2));
  const uint32_t last = std::min(hi - 1, uint32_t((float(hi) + m) / 2));
  uint64_t low = 0;
  for (uint32_t v = lo; v < first; ++v) low += h[v];
  Cut cut{first, b.count};
  const float count = float(b.count);
  float best = -1, running = 0;
  for (uint32_t t = first; t <= last; ++t) {
    low += h[t];
    if (low == b.count) break;
    // Quirk: the running term starts at the search's first value, not at the
    // box's lower bound, so it is not the low half's share of the mean as in
    // a textbook cut. Kept: the same picture gives the same palette it always
    // gave, which saved designs depend on.
    running += float(h[t] * t) / count;
    const float d = m - running;
    const float score = d * d * float(low) / float(b.count - low);
    if (score > best) {
      best = score;
      cut = {t, low};
    }
  }
  return cut;
}

class MedianCut {
 public:
  [[nodiscard]] bool init(int32_t boxes) noexcept {
    cube_ = allocArray<uint64_t>(kCells);
    boxes_.reset(new (std::nothrow) Box[size_t(boxes > 0 ? boxes : 1)]);
    return cube_ && boxes_;
  }
  uint64_t* cube() noexcept { return cube_.get(); }

  // Cuts the counted cube into at most `wanted` boxes; returns how many were made.
  int32_t run(int32_t wanted, uint64_t pixels) noexcept {
    if (wanted < 1) return 0;
    total_ = double(pixels);
    Box& first = boxes_[0];
    std::memset(&first, 0, sizeof first);
    for (int c = 0; c < 3; ++c) first.hi[c] = kLevels;
    first.count = pixels;
    for (uint32_t cell = 0; cell < kCells; ++cell)
      if (const uint64_t n = cube_[cell]) {
        first.hist[0][cell >> 12] += n;
        first.hist[1][cell >> 6 & 63] += n;
        first.hist[2][cell & 63] += n;
      }
    computeStatistics(first, total_);
    int32_t made = 1;
    for (; made < wanted; ++made) {
      int32_t widest = 0;  // the first of equal priorities wins
      for (int32_t j = 1; j < made; ++j)
        if (boxes_[j].priority > boxes_[widest].priority) widest = j;
      Box& b = boxes_[widest];
      if (b.priority < kLeastPriority || b.count == 0) break;
      if (!split(b, boxes_[made])) break;
    }
    return made;
  }

  // Entry i = box i's mean scaled from 0..63 to 0..255, rounded half up.
  void writeMap(uint8_t* map, int32_t boxes) const noexcept {
    for (int32_t i = 0; i < boxes; ++i)
      for (int c = 0; c < 3; ++c)
        map[3 * i + c] = uint8_t(std::min(255.0, std::trunc(0.5 + double(boxes_[i].mean[c]) * 255 / 63)));
  }

 private:
  // Splits b into its low half (kept in b) and its high half (into `high`).
  // Every channel wider than one value is cut and scored by the two halves'
  // summed priorities; the lowest score wins, red before green before blue
  // on equal scores. False when no channel can be cut.
  bool split(Box& b, Box& high) noexcept {
    Cut cuts[3];
    int64_t lastLow[3];  // -1: channel not cut, so no cell falls below
    for (int c = 0; c < 3; ++c) {
      const bool cuttable = b.hi[c] - b.lo[c] > 1;
      if (cuttable) cuts[c] = findCut(b, c);
      lastLow[c] = cuttable ? int64_t(cuts[c].at) : -1;
    }
    // One pass over the box's cells gives every candidate's low half. Only
    // the span its pixels occupy is visited: outside it every cell is empty.
    uint32_t from[3], to[3];
    for (int c = 0; c < 3; ++c) {
      from[c] = b.lo[c];
      to[c] = b.hi[c];
      while (from[c] < to[c] && !b.hist[c][from[c]]) ++from[c];
      while (to[c] > from[c] && !b.hist[c][to[c] - 1]) --to[c];
    }
    uint64_t lowHist[3][3][kLevels] = {};
    for (uint32_t r = from[0]; r < to[0]; ++r)
      for (uint32_t g = from[1]; g < to[1]; ++g) {
        const uint64_t* row = cube_.get() + (r << 12 | g << 6);
        for (uint32_t bl = from[2]; bl < to[2]; ++bl) {
          const uint64_t n = row[bl];
          if (!n) continue;
          const uint32_t v[3] = {r, g, bl};
          for (int c = 0; c < 3; ++c)
            if (int64_t(v[c]) <= lastLow[c])
              for (int k = 0; k < 3; ++k) lowHist[c][k][v[k]] += n;
        }
      }
    Box lows[3], highs[3];
    double score[3];
    for (int c = 0; c < 3; ++c) {
      score[c] = kUnsplittable;
      if (lastLow[c] < 0) continue;
      Box& lo = lows[c];
      Box& hi = highs[c];
      lo = b;
      hi = b;
      lo.hi[c] = cuts[c].at + 1;
      hi.lo[c] = cuts[c].at + 1;
      lo.count = cuts[c].lowCount;
      hi.count = b.count - cuts[c].lowCount;
      std::memcpy(lo.hist, lowHist[c], sizeof lo.hist);
      for (int k = 0; k < 3; ++k)
        for (int v = 0; v < kLevels; ++v) hi.hist[k][v] -= lowHist[c][k][v];
      computeStatistics(lo, total_);
      computeStatistics(hi, total_);
      score[c] = lo.priority + hi.priority;
    }
    const int chosen = score[0] <= score[1] && score[0] <= score[2]   ? 0
                       : score[1] <= score[0] && score[1] <= score[2] ? 1
                                                                      : 2;
    if (lastLow[chosen] < 0) return false;
    b = lows[chosen];
    high = highs[chosen];
    return true;
  }

  Array<uint64_t> cube_;
  std::unique_ptr<Box[]> boxes_;
  double total_ = 1;
};

// ---- Requests
struct Request {
  const uint8_t* src;
  int32_t srcStride;
  uint8_t* dst;
  int32_t dstStride;
  int32_t width, height;
  uint8_t* map;
  int32_t* count;
  uint8_t* flags;  // 256 entries, or null
  int32_t bytesPerPixel;
};

bool anyTransparentPixel(const Request& q) noexcept {
  if (q.bytesPerPixel != 4 || !q.flags) return false;
  for (int32_t y = 0; y < q.height; ++y) {
    const uint8_t* p = rowOf(q.src, y, q.srcStride);
    for (int32_t x = 0; x < q.width; ++x)
      if (p[4 * x + 3] == 0) return true;
  }
  return false;
}

void writeFlags(uint8_t* flags, int32_t transparentIndex) noexcept {
  if (!flags) return;
  std::memset(flags, 0, kMaxColours);
  if (transparentIndex >= 0) flags[transparentIndex] = 1;
}

// Writes indices while collecting exact colours; false when the picture has
// more colours than wanted (the indices written so far are then meaningless).
bool quantizeExactly(const Request& q, int32_t wanted, bool transparent) noexcept {
  ExactColours table(wanted);
  if (transparent) table.reserveFirst();
  for (int32_t y = 0; y < q.height; ++y) {
    const uint8_t* p = rowOf(q.src, y, q.srcStride);
    uint8_t* out = rowOf(q.dst, y, q.dstStride);
    for (int32_t x = 0; x < q.width; ++x, p += q.bytesPerPixel) {
      if (transparent && p[3] == 0) {
        out[x] = 0;
        continue;
      }
      const int32_t entry = table.find(packRgb(p));
      if (entry < 0) return false;
      out[x] = uint8_t(entry);
    }
  }
  table.writeMap(q.map);
  writeFlags(q.flags, transparent ? 0 : -1);
  *q.count = table.count();
  return true;
}

// The colour map of `boxes` boxes and, in transparent mode, the transparent
// entry after them; returns the entry count.
int32_t finishMap(const MedianCut& cut, int32_t boxes, bool transparent, uint8_t* map,
                  uint8_t* flags) noexcept {
  std::memset(map, 0, kMaxColours * 3);
  std::memset(flags, 0, kMaxColours);
  cut.writeMap(map, boxes);
  if (transparent) flags[boxes] = 1;
  return boxes + transparent;
}

void quantizePixels(const Request& q) noexcept {
  const int32_t wanted = *q.count;
  const bool transparent = anyTransparentPixel(q);
  if (quantizeExactly(q, wanted, transparent)) return;

  // Quirk: the cube counts every pixel, transparent ones by their colour too,
  // and the spread is taken over all of them; a tool that ignored transparent
  // pixels would give other boxes. Kept so that a picture gives the same
  // palette with or without an alpha channel's holes.
  MedianCut cut;
  if (!cut.init(wanted - transparent)) return;
  uint64_t* cube = cut.cube();
  const bool wide = useWideColour();
  for (int32_t y = 0; y < q.height; ++y) {
    const uint8_t* p = rowOf(q.src, y, q.srcStride);
    if (wide) {
      countCellsWide(p, q.width, q.bytesPerPixel, cube);
      continue;
    }
    for (int32_t x = 0; x < q.width; ++x, p += q.bytesPerPixel) ++cube[cellOf(p[0], p[1], p[2])];
  }
  const int32_t boxes = cut.run(wanted - transparent, uint64_t(q.width) * uint64_t(q.height));
  uint8_t map[kMaxColours * 3], flags[kMaxColours];
  const int32_t count = finishMap(cut, boxes, transparent, map, flags);

  Palette palette;
  NearestCache cache;
  if (!palette.assign(map, count, flags) || !cache.init(palette)) return;
  remapRows({q.src, q.srcStride, q.dst, q.dstStride, q.width, q.height, q.bytesPerPixel,
             transparent ? boxes : -1, nullptr},
            cache);
  std::memcpy(q.map, map, size_t(count) * 3);
  if (q.flags) std::memcpy(q.flags, flags, kMaxColours);
  *q.count = count;
}

// The index picture in dst is reduced through its 256-entry colour map: the
// cube counts each entry's colour by its uses, and every old entry moves to
// its nearest new one (a transparent entry to the new transparent entry).
void quantizeIndices(const Request& q) noexcept {
  const int32_t wanted = *q.count;
  uint8_t oldMap[kMaxColours * 3], oldFlags[kMaxColours] = {};
  std::memcpy(oldMap, q.map, sizeof oldMap);
  if (q.flags) std::memcpy(oldFlags, q.flags, sizeof oldFlags);
  uint64_t uses[kMaxColours] = {};
  for (int32_t y = 0; y < q.height; ++y) {
    const uint8_t* row = rowOf(q.dst, y, q.dstStride);
    for (int32_t x = 0; x < q.width; ++x) ++uses[row[x]];
  }
  bool transparent = false;
  for (int32_t i = 0; i < kMaxColours; ++i) transparent |= uses[i] && oldFlags[i];

  MedianCut cut;
  if (!cut.init(wanted - transparent)) return;
  for (int32_t i = 0; i < kMaxColours; ++i)
    cut.cube()[cellOf(oldMap[3 * i], oldMap[3 * i + 1], oldMap[3 * i + 2])] += uses[i];
  const int32_t boxes = cut.run(wanted - transparent, uint64_t(q.width) * uint64_t(q.height));
  uint8_t map[kMaxColours * 3], flags[kMaxColours];
  const int32_t count = finishMap(cut, boxes, transparent, map, flags);

  Palette palette;
  if (!palette.assign(map, count, flags)) return;
  uint8_t mapping[kMaxColours];
  for (int32_t i = 0; i < kMaxColours; ++i)
    mapping[i] = transparent && oldFlags[i]
                     ? uint8_t(boxes)
                     : uint8_t(palette.nearest(oldMap[3 * i], oldMap[3 * i + 1], oldMap[3 * i + 2]));
  // Only the picture's own bytes are rewritten, never the padding of a row:
  // the caller may not own the padding after the last row.
  for (int32_t y = 0; y < q.height; ++y) {
    uint8_t* row = rowOf(q.dst, y, q.dstStride);
    for (int32_t x = 0; x < q.width; ++x) row[x] = mapping[row[x]];
  }
  // Quirk: for every old entry i below the new count, the new entry it moved
  // to takes i's old colour, overwriting the box mean (the last such i wins).
  // A plain median cut would keep the means; this keeps a design's leading
  // colours exact when it is reduced again.
  for (int32_t i = 0; i < count; ++i) std::memcpy(map + 3 * mapping[i], oldMap + 3 * i, 3);
  std::memcpy(q.map, map, size_t(count) * 3);
  if (q.flags) std::memcpy(q.flags, flags, kMaxColours);
  *q.count = count;
}

void quantize(const Request& q) noexcept {
  if (!q.count || *q.count < 1 || *q.count > kMaxColours || !q.map) return;
  if (!pictureOk(q.dst, q.dstStride, q.width, q.height, 1)) return;
  if (!q.src) return quantizeIndices(q);
  if (!pictureOk(q.src, q.srcStride, q.width, q.height, q.bytesPerPixel)) return;
  quantizePixels(q);
}

}  // namespace
}  // namespace ldr::colour

using ldr::colour::quantize;

extern "C" int32_t colorQuantize(const uint8_t* src, int32_t srcStride, uint8_t* dst,
                                 int32_t dstStride, int32_t width, int32_t height,
                                 uint8_t* colourMap, int32_t* colourCount) {
  quantize({src, srcStride, dst, dstStride, width, height, colourMap, colourCount, nullptr, 3});
  return 0;
}

extern "C" int32_t colorQuantizeRGBA(const uint8_t* src, int32_t srcStride, uint8_t* dst,
                                     int32_t dstStride, int32_t width, int32_t height,
                                     uint8_t* colourMap, int32_t* colourCount,
                                     uint8_t* transparentFlags) {
  quantize({src, srcStride, dst, dstStride, width, height, colourMap, colourCount,
            transparentFlags, 4});
  return 0;
}
