// design/wif.cpp: WIF drafts (Weaving Information File), loader 22.
//
// Reads: the plain-text draft of any weaving program: [CONTENTS] flags,
// [WEAVING] shafts and treadles, [WARP] and [WEFT] thread counts, and the
// [THREADING] (one or two shafts an end), [TIEUP], [TREADLING] and [LIFTPLAN]
// sections, in any case and with any line ends. Delivers the woven picture:
// width = ends, height = picks, a set bit where the end rises on that pick.
// Refuses (6): a name that does not end in ".wif", a file of nothing but
// "[WIF]" lines, and drafts without more than one shaft, treadle, end and
// pick (so a lift-plan draft must still give a treadle count), or with more
// than 262140 ends or picks.
// Delivery: band addressing; rows are composed from the draft as they are
// asked for. tryLoad with readColorMap 0 only describes the draft.
//
// The working tables are sized from the draft: a shaft (two at most) an end,
// a treadle a pick, and the tie-up and lift plan lines as the file lists them.
#include <cstdio>
#include <cstring>
#include <memory>
#include <string_view>
#include <vector>

#include "design/drawdown.h"
#include "design/text.h"
#include "framework/file.h"
#include "framework/loader.h"
#include "vload.h"

namespace ldr {
namespace {

// ---- Limits and constants

constexpr int32_t kMaxDimension = 262140;  // ends and picks
constexpr int32_t kMaxShaft = 8192;        // shaft and treadle numbers a draft may use
constexpr uint32_t kShaftBits = 13;        // a listed shaft packs as row << 13 | shaft
constexpr int kLineLimit = 49152;
constexpr size_t kLineBytes = kLineLimit + 1;
constexpr int kSignatureLines = 11;
constexpr uint32_t kNoShaft16 = 0xFFFF;  // "no second shaft" in the draft's 16-bit tables

enum class Section : uint8_t {
  Other, Start, Contents, Weaving, Warp, Weft, Threading, LiftPlan, TieUp, Treadling
};

struct SectionName {
  std::string_view name;
  Section section;
};
constexpr SectionName kSections[] = {
    {"[contents]", Section::Contents}, {"[weaving]", Section::Weaving},
    {"[warp]", Section::Warp},         {"[weft]", Section::Weft},
    {"[threading]", Section::Threading}, {"[liftplan]", Section::LiftPlan},
    {"[tieup]", Section::TieUp},       {"[treadling]", Section::Treadling},
};

bool startsWith(const char* line, std::string_view prefix) noexcept {
  return std::strncmp(line, prefix.data(), prefix.size()) == 0;
}

// Section lines are known by their start, so "[weaving] ; notes" counts.
Section sectionOf(const char* line) noexcept {
  for (const SectionName& s : kSections)
    if (startsWith(line, s.name)) return s.section;
  return Section::Other;
}

bool yes(const char* value) noexcept {
  return startsWith(value, "yes") || startsWith(value, "1") || startsWith(value, "on") ||
         startsWith(value, "true");
}

// ---- Lines

// The draft's lines, lower-cased, with LF, CR LF or CR ends; a line longer
// than the buffer comes in pieces.
class Lines {
 public:
  explicit Lines(std::FILE* f) : f_(f), buffer_(std::make_unique<char[]>(kLineBytes)) {}
  const char* next() noexcept {
    fgetsDosMac(buffer_.get(), kLineLimit, f_);  // an empty or missing line leaves ""
    stringToLower(buffer_.get());
    return buffer_.get();
  }
  bool atEnd() const noexcept { return std::feof(f_) != 0; }
  void rewind() noexcept { std::rewind(f_); }

 private:
  std::FILE* f_;
  std::unique_ptr<char[]> buffer_;
};

// Hands every line from `line` to the end of the file to onKey with its
// section. Quirk: the line after a section line is always taken as a key line
// of that section, so a section line right after another is ignored and the
// second section's keys count for the first.
template <class OnKey>
void walk(Lines& lines, const char* line, OnKey&& onKey) {
  Section section = Section::Start;
  for (;;) {
    if (line[0] == '[') {
      section = sectionOf(line);
      line = lines.next();
    }
    onKey(section, line);
    if (lines.atEnd()) return;
    line = lines.next();
  }
}

// ---- Header (first pass)

struct Header {
  int32_t shafts = 0, treadles = 0, width = 0, height = 0;
  bool tieUp = false, threading = false, treadling = false, liftPlan = false;
};

void headerKey(Header& h, Section section, const char* line) {
  const auto number = [&](std::string_view key, int32_t& to) {
    if (!startsWith(line, key)) return false;
    const int32_t n = leadingInt(line + key.size());
    if (n > 0) to = n;
    return n > 0;
  };
  const auto flag = [&](std::string_view key, bool& to) {
    if (startsWith(line, key)) to = yes(line + key.size());
  };
  switch (section) {
    case Section::Contents:
      flag("tieup=", h.tieUp);
      flag("threading=", h.threading);
      flag("treadling=", h.treadling);
      flag("liftplan=", h.liftPlan);
      break;
    case Section::Weaving:
      // Quirk: the shaft count is also the width until [WARP] gives one, and
      // after it when [WEAVING] comes later.
      if (number("shafts=", h.shafts)) h.width = h.shafts;
      number("treadles=", h.treadles);
      break;
    case Section::Warp: number("threads=", h.width); break;
    case Section::Weft: number("threads=", h.height); break;
    default: break;
  }
}

// ---- Draft (second pass)

// Rows of listed shafts (tie-up rows by treadle, lift plan rows by pick).
struct ShaftRows {
  std::vector<uint32_t> start, shafts;

  void build(uint32_t rows, const std::vector<uint32_t>& packed) {
    start.assign(size_t{rows} + 1, 0);
    for (uint32_t p : packed) ++start[(p >> kShaftBits) + 1];
    for (uint32_t r = 0; r < rows; ++r) start[r + 1] += start[r];
    shafts.resize(packed.size());
    std::vector<uint32_t> fill(start.begin(), start.end() - 1);
    for (uint32_t p : packed) shafts[fill[p >> kShaftBits]++] = p & ((1u << kShaftBits) - 1);
  }
};

enum class Mode : uint8_t { Empty, LiftPlan, Treadles };

struct Draft {
  Mode mode = Mode::Empty;
  uint32_t width = 0, height = 0;
  std::vector<uint32_t> first, second;  // shafts of each end, 0-based
  bool twoShafts = false;
  std::vector<uint32_t> treadle;        // treadle of each pick, 0-based
  std::vector<uint32_t> listed;         // tie-up or lift plan items, packed
};

bool inRange(int32_t v, int32_t top) noexcept { return v >= 1 && v <= top; }

// Adds the shafts listed after the line's first "=" to row `row`, skipping
// numbers out of range. A line without "=" lists nothing.
void listShafts(Draft& d, const char* line, uint32_t row) {
  const char* p = std::strchr(line, '=');
  while (p) {
    const int32_t s = leadingInt(++p);
    if (inRange(s, kMaxShaft)) d.listed.push_back(row << kShaftBits | uint32_t(s - 1));
    p = std::strchr(p, ',');
  }
}

void draftKey(Draft& d, Section section, const char* line) {
  const char* p = line;
  int32_t a = 0, b = 0, c = 0;
  switch (section) {
    case Section::Treadling:
      // Only the first treadle of a pick counts.
      if (d.mode == Mode::Treadles && scanInt(p, a) && scanChar(p, '=') && scanInt(p, b) &&
          inRange(a, kMaxDimension) && inRange(b, kMaxShaft) && uint32_t(a) <= d.height)
        d.treadle[a - 1] = uint32_t(b - 1);
      break;
    case Section::TieUp:
      if (d.mode == Mode::Treadles && scanInt(p, a) && inRange(a, kMaxShaft))
        listShafts(d, line, uint32_t(a - 1));
      break;
    case Section::LiftPlan:
      if (d.mode == Mode::LiftPlan && scanInt(p, a) && inRange(a, kMaxDimension) &&
          uint32_t(a) <= d.height)
        listShafts(d, line, uint32_t(a - 1));
      break;
    case Section::Threading: {
      const bool two = std::strchr(line, ',') != nullptr;
      if (!(scanInt(p, a) && scanChar(p, '=') && scanInt(p, b))) break;
      if (two && !(scanChar(p, ',') && scanInt(p, c))) break;
      if (!inRange(a, kMaxDimension) || uint32_t(a) > d.width) break;
      if (inRange(b, kMaxShaft)) d.first[a - 1] = uint32_t(b - 1);  // each shaft on its own
      if (two && inRange(c, kMaxShaft)) d.second[a - 1] = uint32_t(c - 1), d.twoShafts = true;
      break;
    }
    default: break;
  }
}

// ---- State

struct WifState {
  bool prepared = false;
  Mode mode = Mode::Empty;
  uint32_t height = 0, rowBytes = 0, delivered = 0;
  bool identityTieUp = false;
  std::vector<uint32_t> treadle;
  ShaftRows rows;  // lift plan rows by pick, or tie-up rows by treadle
  Drawdown drawdown;
};
thread_local WifState t_wif;

void release() noexcept { t_wif = {}; }

bool hasWifName(const char* fileName) noexcept {
  const size_t n = fileName ? std::strlen(fileName) : 0;
  if (n <= 4 || fileName[n - 4] != '.') return false;
  return tolowerAZ(uint8_t(fileName[n - 3])) == 'w' && tolowerAZ(uint8_t(fileName[n - 2])) == 'i' &&
         tolowerAZ(uint8_t(fileName[n - 1])) == 'f';
}

// ---- Loader operations

Status describe(const char* fileName, Picture& out, uint8_t*, bool readColorMap) {
  t_wif = {};
  if (!hasWifName(fileName)) return Status::NotThisFormat;
  const File file(std::fopen(fileName, "r"));
  if (!file) return Status::CannotOpen;
  Lines lines(file.get());

  // Quirk: only a file of nothing but "[WIF]" lines (up to eleven, or to its
  // end) is refused; a file that does not begin with one passes. The line
  // that ended the loop is the first line of the header.
  const char* line = lines.next();
  for (int read = 1; startsWith(line, "[wif]") && read < kSignatureLines && !lines.atEnd(); ++read)
    line = lines.next();
  if (startsWith(line, "[wif]")) return Status::NotThisFormat;

  Header h;
  walk(lines, line, [&](Section s, const char* l) { headerKey(h, s, l); });
  if (h.shafts <= 1 || h.treadles <= 1 || h.width <= 1 || h.height <= 1 ||
      h.width > kMaxDimension || h.height > kMaxDimension)
    return Status::NotThisFormat;

  out.layout = VLOAD_LAYOUT_BILEVEL;
  out.width = uint32_t(h.width);
  out.height = uint32_t(h.height);
  out.mirrorX = 1;
  out.setInfo("\nshafts %d treadles %d treading %d tieup %d", h.shafts, h.treadles,
              h.treadling ? 1 : 0, h.tieUp ? 1 : 0);
  if (!readColorMap) return Status::Ok;

  WifState& st = t_wif;
  Draft d;
  d.width = out.width;
  d.height = out.height;
  d.mode = h.liftPlan ? Mode::LiftPlan
           : h.treadling || h.tieUp || h.threading ? Mode::Treadles
                                                   : Mode::Empty;
  if (d.mode != Mode::Empty) {
    // Quirk: an end without a threading line hangs on the shaft of its own
    // number, a pick without a treadling line uses the treadle of its own
    // number, both kept in 16 bits.
    d.first.resize(d.width);
    d.second.assign(d.width, kNoShaft16);
    for (uint32_t x = 0; x < d.width; ++x) d.first[x] = x & 0xFFFF;
    if (d.mode == Mode::Treadles) {
      d.treadle.resize(d.height);
      for (uint32_t y = 0; y < d.height; ++y) d.treadle[y] = y & 0xFFFF;
    }
    lines.rewind();
    walk(lines, lines.next(), [&](Section s, const char* l) { draftKey(d, s, l); });

    st.rows.build(d.mode == Mode::LiftPlan ? d.height : uint32_t(kMaxShaft), d.listed);
    d.listed = {};
    // Shafts from 8192 on have no bit in a tie-up or lift plan row: they never rise.
    st.drawdown.prepare(d.width, d.first, d.twoShafts ? std::span<const uint32_t>(d.second)
                                                       : std::span<const uint32_t>(),
                        uint32_t(kMaxShaft));
    st.treadle = std::move(d.treadle);
  }
  st.mode = d.mode;
  st.identityTieUp = !h.tieUp;
  st.height = d.height;
  st.rowBytes = uint32_t((uint64_t{d.width} + 7) / 8);
  st.prepared = true;
  return Status::Ok;
}

Status deliver(const Band& band) {
  WifState& st = t_wif;
  if (!st.prepared || !band.buffer || band.rowCount < 0 || band.rowStride < 0 ||
      uint32_t(band.rowStride) < st.rowBytes || uint32_t(band.rowCount) > st.height - st.delivered)
    return Status::BadRequest;
  for (uint32_t i = 0; i < uint32_t(band.rowCount); ++i) {
    uint8_t* row = band.buffer + size_t{i} * uint32_t(band.rowStride);
    const uint32_t pick = st.delivered + i;
    switch (st.mode) {
      case Mode::Empty: std::memset(row, 0, st.rowBytes); break;
      case Mode::LiftPlan:
        for (uint32_t k = st.rows.start[pick]; k < st.rows.start[pick + 1]; ++k)
          st.drawdown.lift(st.rows.shafts[k]);
        st.drawdown.compose(row);
        break;
      case Mode::Treadles: {
        // Treadles from 8192 on have no tie-up row: nothing rises.
        const uint32_t t = st.treadle[pick];
        if (st.drawdown.reuse(row, t)) break;
        if (t < uint32_t(kMaxShaft)) {
          for (uint32_t k = st.rows.start[t]; k < st.rows.start[t + 1]; ++k)
            st.drawdown.lift(st.rows.shafts[k]);
          if (st.identityTieUp) st.drawdown.lift(t);  // without a tie-up, treadle k lifts shaft k
        }
        st.drawdown.compose(row, t);
        break;
      }
    }
    std::memset(row + st.rowBytes, 0, uint32_t(band.rowStride) - st.rowBytes);
  }
  st.delivered += uint32_t(band.rowCount);
  return Status::Ok;
}

}  // namespace
}  // namespace ldr

extern "C" void registerLoadWIF(void) {
  ldr::registerOperations<ldr::describe, ldr::deliver, ldr::release>();
}
