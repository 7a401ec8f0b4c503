// jacquard/staubli.cpp: the Staubli hook mapping, what the card loaders
// share, and the JC4 card loader (loader 13).
//
// JC4 reads: a 64-byte big-endian header (hooks, a 16-character design name,
// the count of card data bytes) and one record of ceil(hooks / 8) bytes a
// pick, bit 0 first, stored in the controller's hook order. A card may be
// split into volumes "NAME.jc4.01", ".02", ...; each has its own header and
// the records run on from one volume into the next, even within a record.
// Refuses (6): a name byte of 0x80 or above, header bytes 34..36 above 80, 2
// and 18, hooks that are a multiple of neither 1344 nor 1536, no picks, and a
// file under 1 450 000 bytes too short for the picks it announces; more than
// 262140 picks (7). A volume that cannot be opened while reading gives 3.
// Delivery: band addressing. Each band's records are read in one go and
// turned into design order through a column plan (see ColumnPlan).
// Quirk: a pixel is set where the file bit is 0; the controller stores lifted
// hooks as cleared bits.
// Quirk: where several module sizes divide the hook count, the size is chosen
// afresh for every band from that band's records, so two bands of one card
// may be mapped differently; setDefaultMappingJC4 pins it.
#include "jacquard/staubli.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <map>
#include <new>
#include <tuple>

#include "framework/checked.h"
#include "framework/io.h"
#include "vload.h"

namespace ldr::staubli {

thread_local CardState t_card;
thread_local int32_t t_defaultMapping = 0;

// ---- Bytes

uint32_t be16(const uint8_t* p) noexcept { return uint32_t(p[0]) << 8 | p[1]; }
uint32_t be32(const uint8_t* p) noexcept {
  return uint32_t(p[0]) << 24 | uint32_t(p[1]) << 16 | uint32_t(p[2]) << 8 | p[3];
}

int64_t fileSize(std::FILE* f) noexcept {
  struct stat st;
  if (!f || ::fstat(::fileno(f), &st) != 0) return -1;
  return int64_t(st.st_size);
}

void reverseNegateBytes(uint8_t* bytes, size_t n, bool negate) noexcept { reverseBytes(bytes, bytes, n, negate); }

// ---- Hook mapping

namespace {

constexpr uint32_t kGroupHooks = 12;  // a harness is wired in rows of 12 hooks
constexpr uint32_t kWideModule = 3072;
constexpr uint32_t kWideBlock = 96;   // halves of a 3072 module interleave in blocks of 96
constexpr uint64_t kMaxMapEntries = uint64_t{1} << 28;  // far beyond any card

struct ModuleShape {
  uint32_t size, rowHooks, groupStride;
};

ModuleShape shapeOf(int32_t moduleSize) noexcept {
  if (moduleSize == 1344) return {1344, 112, 14};
  if (moduleSize == 1536) return {1536, 128, 16};
  return {kWideModule, 256, 32};
}

// Writes the moduleSize × modules extended order into x: module m's hook k
// becomes map[k] + m × S, placed group by group across modules unless
// blockwise. Entries a size that is no multiple of 12 cannot place stay 0.
void extendOrder(const uint32_t* map, uint32_t size, uint32_t modules, bool blockwise,
                 std::vector<uint32_t>& x) {
  const uint64_t n = uint64_t{size} * modules;
  x.assign(size_t(n), 0);
  for (uint32_t m = 0; m < modules; ++m)
    for (uint32_t k = 0; k < size; ++k) {
      const uint64_t at = blockwise ? uint64_t{m} * size + k
                                    : (uint64_t{k / kGroupHooks} * modules + m) * kGroupHooks + k % kGroupHooks;
      if (at < n) x[size_t(at)] = map[k] + m * size;
    }
}

}  // namespace

void buildModuleOrder(uint32_t* map, int32_t moduleSize) noexcept {
  const ModuleShape s = shapeOf(moduleSize);
  uint32_t row = 0, col = 0, cur = 0;
  for (uint32_t i = 0; i < s.size; ++i) {
    if (i % kGroupHooks == 0) {
      cur = col;
      col += s.groupStride;
      if (col >= s.rowHooks) col = ++row;
    }
    map[i] = cur;
    cur += s.rowHooks;
  }
  if (s.size != kWideModule) return;
  // The two halves of a wide module interleave in blocks of 96 hooks.
  uint32_t aside[kWideModule];
  std::memcpy(aside, map, sizeof aside);
  const uint32_t half = kWideModule / 2;
  for (uint32_t j = 0; j < half; ++j) {
    const uint32_t at = j / kWideBlock * 2 * kWideBlock + j % kWideBlock;
    map[at] = aside[j];
    map[at + kWideBlock] = aside[j + half];
  }
}

std::vector<uint32_t> cardMapping(uint32_t moduleSize, uint32_t modules, bool blockwise) {
  const uint32_t size = shapeOf(int32_t(moduleSize)).size;
  const uint64_t n = uint64_t{size} * modules;
  if (modules == 0 || n > kMaxMapEntries) return {};
  std::vector<uint32_t> order(size), x;
  buildModuleOrder(order.data(), int32_t(size));
  extendOrder(order.data(), size, modules, blockwise, x);
  std::vector<uint32_t> map(size_t(n), 0);
  for (size_t p = n; p-- > 0;)
    if (x[p] < n) map[x[p]] = uint32_t(p);
  return map;
}

uint32_t preliminaryModuleSize(uint32_t hooks, bool nineThousandIsWide) noexcept {
  if (hooks == 12288 || (nineThousandIsWide && hooks == 9216)) return kWideModule;
  return hooks % 1344 == 0 ? 1344 : 1536;
}

// ---- Column plans

namespace {

// Bit b of byte k becomes bit k of byte b.
inline uint64_t transpose8x8(uint64_t x) noexcept {
  uint64_t t = (x ^ (x >> 7)) & 0x00AA00AA00AA00AAull;
  x ^= t ^ (t << 7);
  t = (x ^ (x >> 14)) & 0x0000CCCC0000CCCCull;
  x ^= t ^ (t << 14);
  t = (x ^ (x >> 28)) & 0x00000000F0F0F0F0ull;
  x ^= t ^ (t << 28);
  return x;
}

}  // namespace

void ColumnPlan::build(std::span<const uint32_t> map, uint32_t recordBytes) {
  groups_.clear();
  const uint64_t bits = uint64_t{recordBytes} * 8;
  const size_t width = map.size();
  std::map<std::tuple<uint32_t, int32_t, uint8_t>, size_t> open;
  for (size_t x = 0; x < width;) {
    const uint32_t p = map[x];
    if (p >= bits) {
      ++x;  // not in the record: the pixel stays clear
      continue;
    }
    const uint32_t bit = p % 8, first = p / 8;
    int32_t stride = 0;
    uint8_t length = 1;
    // A run: up to 8 pixels whose file bits sit in the same bit of bytes a
    // fixed distance apart.
    while (length < 8 && x + length < width) {
      const uint32_t q = map[x + length];
      if (q >= bits || q % 8 != bit) break;
      const int64_t step = int64_t(q / 8) - int64_t(first);
      if (length == 1) {
        if (step == 0) break;
        stride = int32_t(step);  // |step| < 2^29: records are far shorter
      } else if (step != int64_t(stride) * length) {
        break;
      }
      ++length;
    }
    // Runs over the same bytes share a group, one run per bit.
    const auto key = std::make_tuple(first, stride, length);
    auto found = open.find(key);
    if (found == open.end() || groups_[found->second].present >> bit & 1) {
      Group g;
      g.first = first;
      g.stride = stride;
      g.length = length;
      groups_.push_back(g);
      found = open.insert_or_assign(key, groups_.size() - 1).first;
    }
    Group& g = groups_[found->second];
    g.present = uint8_t(g.present | 1u << bit);
    g.to[bit] = uint32_t(x);
    x += length;
  }
  for (Group& g : groups_) {
    g.whole = g.present == 0xFF && g.length == 8;
    for (uint32_t to : g.to) g.whole = g.whole && to % 8 == 0;
  }
}

void ColumnPlan::buildIdentity(uint32_t width, uint32_t recordBytes) {
  std::vector<uint32_t> map(width);
  for (uint32_t x = 0; x < width; ++x) map[x] = x;
  build(map, recordBytes);
}

void ColumnPlan::gather(const uint8_t* record, uint8_t* out, bool setWhenZero) const noexcept {
  const uint64_t flip = setWhenZero ? ~uint64_t{0} : 0;
  for (const Group& g : groups_) {
    // Pixel k's byte goes to byte 7 - k, so that after the transpose each
    // byte holds its run with the first pixel in the top bit.
    uint64_t v = 0;
    const uint8_t* s = record + g.first;
    if (g.length == 8) {
      const ptrdiff_t d = g.stride;
      v = uint64_t(s[0]) << 56 | uint64_t(s[d]) << 48 | uint64_t(s[2 * d]) << 40 |
          uint64_t(s[3 * d]) << 32 | uint64_t(s[4 * d]) << 24 | uint64_t(s[5 * d]) << 16 |
          uint64_t(s[6 * d]) << 8 | uint64_t(s[7 * d]);
    } else {
      for (int k = 0; k < g.length; ++k) v |= uint64_t(s[ptrdiff_t(k) * g.stride]) << (56 - 8 * k);
    }
    const uint64_t t = transpose8x8(v) ^ flip;
    if (g.whole) {
      // The common case of the wide module sizes: whole bytes, stored as they are.
      for (int b = 0; b < 8; ++b) out[g.to[b] / 8] = uint8_t(t >> (8 * b));
      continue;
    }
    const unsigned mask = (0xFF00u >> g.length) & 0xFF;
    for (unsigned present = g.present; present; present &= present - 1) {
      const int b = __builtin_ctz(present);
      const unsigned run = unsigned(t >> (8 * b)) & mask;
      const uint32_t x = g.to[b], shift = x % 8;
      out[x / 8] = uint8_t(out[x / 8] | run >> shift);
      if (shift + g.length > 8) out[x / 8 + 1] = uint8_t(out[x / 8 + 1] | run << (8 - shift));
    }
  }
}

// ---- Choosing the module size

// Bits are counted 16 bytes at a time into byte-wide counters, one vector
// per bit of the byte, which are added into `counts` before they can wrap.
void countSetBits(const uint8_t* records, uint32_t rows, uint32_t recordBytes,
                  std::span<uint32_t> counts) noexcept {
  using V16 = uint8_t __attribute__((vector_size(16)));
  constexpr uint32_t kLanes = 16, kMaxRowsPerFlush = 255;
  std::fill(counts.begin(), counts.end(), 0u);
  const uint32_t chunks = recordBytes / kLanes;
  std::vector<V16> acc;
  try {
    acc.resize(size_t{chunks} * 8);
  } catch (const std::bad_alloc&) {
    return;  // counts stay 0: every mapping scores alike
  }
  for (uint32_t first = 0; first < rows; first += kMaxRowsPerFlush) {
    const uint32_t last = std::min(rows, first + kMaxRowsPerFlush);
    std::fill(acc.begin(), acc.end(), V16{});
    for (uint32_t r = first; r < last; ++r) {
      const uint8_t* rec = records + size_t{r} * recordBytes;
      for (uint32_t c = 0; c < chunks; ++c) {
        V16 v;
        std::memcpy(&v, rec + size_t{c} * kLanes, kLanes);
        V16* a = &acc[size_t{c} * 8];
        for (int b = 0; b < 8; ++b) a[b] += (v >> b) & 1;
      }
      for (uint32_t i = chunks * kLanes; i < recordBytes; ++i)
        for (uint32_t b = 0; b < 8; ++b) counts[size_t{i} * 8 + b] += rec[i] >> b & 1;
    }
    for (uint32_t c = 0; c < chunks; ++c)
      for (uint32_t b = 0; b < 8; ++b)
        for (uint32_t lane = 0; lane < kLanes; ++lane)
          counts[(size_t{c} * kLanes + lane) * 8 + b] += acc[size_t{c} * 8 + b][lane];
  }
}

namespace {

// The longest stretch of pixel columns whose neighbours' counts differ by no
// more than `tolerance`.
uint32_t smoothness(const std::vector<uint32_t>& map, uint32_t hooks,
                    const std::vector<uint32_t>& counts, uint32_t tolerance) {
  uint32_t run = 1, best = 1;
  for (uint32_t x = 1; x < hooks; ++x) {
    const uint32_t a = counts[map[x - 1]], b = counts[map[x]];
    run = (a > b ? a - b : b - a) > tolerance ? 1 : run + 1;
    best = std::max(best, run);
  }
  return best;
}

uint32_t defaultModuleSize(int32_t choice) noexcept {
  if (choice == 2) return 1536;
  return choice >= 3 ? kWideModule : 1344;
}

// The chooser's scores on the wide path: the counts stay bit-sliced in
// planes, which each candidate's kernel maps like records, so the counts
// come out in column order with no per-column lookup. False when some
// candidate has no kernel or the band is too tall for byte-wide counts.
bool wideScores(CardState& st, const uint8_t* records, uint32_t rows, const bool* eligible,
                uint32_t tolerance, uint32_t* score) {
  if (rows > kMaxPlaneRows || !useWidePath()) return false;
  for (int i = 0; i < 3; ++i) {
    if (!eligible[i]) continue;
    RowKernel& kernel = st.kernels[i];
    if (!kernel.tried()) kernel.build(cardMapping(kModuleSizes[i], st.hooks / kModuleSizes[i], false), st.recordBytes);
    if (!kernel.ready()) return false;
  }
  st.planes.resize(size_t{st.recordBytes} * 8);
  countPlanes(records, rows, st.recordBytes, st.planes.data());
  for (int i = 0; i < 3; ++i)
    if (eligible[i]) score[i] = st.kernels[i].smoothness(st.planes.data(), tolerance);
  return true;
}

// The module size for this band's records: the only one that divides the
// hooks, the host's default, or the one whose mapping gives the smoothest
// picture, 1344 winning ties, then 1536.
uint32_t chooseModuleSize(CardState& st, const uint8_t* records, uint32_t rows) {
  bool eligible[3];
  int many = 0, only = 0;
  for (int i = 0; i < 3; ++i) {
    eligible[i] = st.hooks % kModuleSizes[i] == 0;
    if (eligible[i]) ++many, only = i;
  }
  if (many == 0) return 1536;
  if (many == 1) return kModuleSizes[only];
  if (t_defaultMapping != 0) return defaultModuleSize(t_defaultMapping);
  if (rows == 0) return 1344;

  const uint32_t tolerance = rows / 50;
  uint32_t score[3] = {};
  if (!wideScores(st, records, rows, eligible, tolerance, score)) {
    st.counts.resize(size_t{st.recordBytes} * 8);
    countSetBits(records, rows, st.recordBytes, st.counts);
    for (int i = 0; i < 3; ++i) {
      if (!eligible[i]) continue;
      std::vector<uint32_t>& map = st.candidateMaps[i];
      if (map.empty()) map = cardMapping(kModuleSizes[i], st.hooks / kModuleSizes[i], false);
      score[i] = smoothness(map, st.hooks, st.counts, tolerance);
    }
  }
  if (score[0] >= score[1] && score[0] >= score[2]) return 1344;
  if (score[1] >= score[0] && score[1] >= score[2]) return 1536;
  return kWideModule;
}

size_t planIndex(uint32_t moduleSize) {
  for (size_t i = 0; i < 3; ++i)
    if (kModuleSizes[i] == moduleSize) return i;
  return 2;
}

constexpr size_t kIdentityPlan = 3;

}  // namespace

// Pixels from the hook count to the end of a wider stride are not part of
// the card and stay clear: plans cover the first `hooks` columns only.
void mapRows(CardState& st, const uint8_t* records, uint32_t rows, const Band& band) {
  size_t index = kIdentityPlan;
  if (st.recordBytes >= kMinMappedRecordBytes) {
    st.moduleSize = chooseModuleSize(st, records, rows);
    st.modules = modulesFor(st.hooks, st.moduleSize);
    index = planIndex(st.moduleSize);
  }
  const auto columnMap = [&] {
    std::vector<uint32_t> map;
    if (index == kIdentityPlan) {
      map.resize(st.hooks);
      for (uint32_t x = 0; x < st.hooks; ++x) map[x] = x;
    } else {
      map = cardMapping(st.moduleSize, st.modules, false);
      map.resize(std::min<size_t>(map.size(), st.hooks));
    }
    return map;
  };
  RowKernel& kernel = st.kernels[index];
  ColumnPlan& plan = st.plans[index];
  if (!kernel.tried()) kernel.build(columnMap(), st.recordBytes);
  if (!kernel.ready() && plan.empty()) plan.build(columnMap(), st.recordBytes);
  mapRecords(kernel, plan, records, st.recordBytes, rows, band);
}

void mapRecords(RowKernel& kernel, const ColumnPlan& plan, const uint8_t* records, uint32_t recordBytes,
                uint32_t rows, const Band& band) {
  const size_t stride = size_t(band.rowStride);
  for (uint32_t r = 0; r < rows; ++r) {
    const uint8_t* record = records + size_t{r} * recordBytes;
    uint8_t* row = rowAt(band.buffer, r, band.rowStride);
    if (kernel.ready()) {
      kernel.run(record, row, true);
      if (stride > kernel.rowBytes()) std::memset(row + kernel.rowBytes(), 0, stride - kernel.rowBytes());
    } else {
      std::memset(row, 0, stride);
      plan.gather(record, row, true);
    }
  }
}

// ---- Volumes

bool hasVolumeSuffix(const std::string& name, const char* tail) noexcept {
  const size_t t = std::strlen(tail), n = name.size();
  if (n < t + 2) return false;
  const char a = name[n - 2], b = name[n - 1];
  return name.compare(n - 2 - t, t, tail) == 0 && a >= '0' && a <= '9' && b >= '0' && b <= '9';
}

bool nextVolumeName(std::string& name) noexcept {
  const size_t n = name.size();
  if (n < 2) return false;
  char& tens = name[n - 2];
  char& units = name[n - 1];
  if (tens < '0' || tens > '9' || units < '0' || units > '9') return false;
  if (units != '9') {
    ++units;
    return true;
  }
  if (tens == '9') return false;  // no volume 100 in two digits
  units = '0';
  ++tens;
  return true;
}

// ---- Shared state and steps

void TemporaryFile::remove() noexcept {
  if (path_.empty()) return;
  ::unlink(path_.c_str());
  path_.clear();
}

void release() noexcept { t_card = {}; }

Status checkBand(const CardState& st, const Band& band) {
  if (st.failed != Status::Ok) return st.failed;
  if (st.card == Card::None || !band.buffer || band.rowCount < 0 || band.rowStride < 0 ||
      uint64_t(band.rowStride) * 8 < st.hooks || uint32_t(band.rowCount) > st.height - st.delivered)
    return Status::BadRequest;
  return Status::Ok;
}

bool RecordBuffer::reserve(size_t bytes) noexcept {
  const size_t kept = buffered();
  size_t room = 0, total = 0;
  if (!addOk(kept, bytes, room) || !addOk(room, kLead + kSlack + 63, total)) return false;
  if (room <= capacity_) {
    std::memmove(data_, data_ + begin_, kept);
  } else {
    Block grown = allocBlock(total);
    if (!grown) return false;
    uint8_t* at = grown.get() + kLead;
    at += -reinterpret_cast<uintptr_t>(at) % 64;
    if (kept) std::memcpy(at, data_ + begin_, kept);
    block_ = std::move(grown);
    data_ = at;
    capacity_ = room;
  }
  begin_ = 0;
  end_ = kept;
  return true;
}

void describeCard(Picture& out, uint8_t* colorMap, uint32_t width, uint32_t height) {
  out.layout = VLOAD_LAYOUT_BILEVEL;
  out.width = width;
  out.height = height;
  out.xDensity = out.yDensity = 0;
  out.xRepeat = out.yRepeat = 1;
  out.mirrorX = 1;
  colorMap[0] = 0;
}

namespace {

// n bytes of the open volume from st.offset on, zeros past its end.
void readVolume(CardState& st, uint8_t* dst, size_t n) noexcept {
  std::FILE* f = st.file.get();
  if (f && st.offset == kAtStream) {
    const off_t at = ftello(f);
    st.offset = at < 0 ? 0 : uint64_t(at);
  }
  const size_t got = f && st.offset <= uint64_t(INT64_MAX) - n ? readAt(::fileno(f), dst, n, off_t(st.offset)) : 0;
  std::memset(dst + got, 0, n - got);
  if (st.offset != kAtStream) st.offset = st.offset <= uint64_t(INT64_MAX) - n ? st.offset + n : uint64_t(INT64_MAX);
}

}  // namespace

Status takeCardBytes(CardState& st, size_t n, uint64_t ahead, Status (*nextVolume)(CardState&),
                     const uint8_t*& out) {
  RecordBuffer& buffer = st.records;
  if (buffer.buffered() < n) {
    // Ahead by whole bands, so that the next refill finds nothing left over
    // to move to the front.
    const size_t least = n - buffer.buffered();
    const size_t most = least + size_t(std::min<uint64_t>(ahead, kReadAheadBytes / n * n));
    if (!buffer.reserve(most)) return Status::NoMemory;
    uint8_t* dst = buffer.tail();
    size_t done = 0;
    int switches = 0;
    while (done < least) {
      if (nextVolume && st.consumed >= st.volumeBytes) {
        // A run of empty volumes ends somewhere: give up after a hundred.
        if (++switches > kMaxVolumeSwitches) return Status::CannotOpen;
        if (const Status s = nextVolume(st); s != Status::Ok) return s;
        st.offset = kAtStream;
        continue;
      }
      switches = 0;
      const size_t take = nextVolume ? size_t(std::min<uint64_t>(least - done, st.volumeBytes - st.consumed)) : least - done;
      readVolume(st, dst + done, take);
      st.consumed += take;
      done += take;
    }
    // Ahead, but never into the next volume: opening it is the band's that needs it.
    const size_t extra = nextVolume ? size_t(std::min<uint64_t>(most - done, st.volumeBytes - st.consumed)) : most - done;
    readVolume(st, dst + done, extra);
    st.consumed += extra;
    buffer.commit(done + extra);
  }
  out = buffer.take(n);
  return Status::Ok;
}

// ---- JC4 cards

constexpr size_t kDesignNameBytes = 16;
constexpr uint8_t kMaxByte34 = 80, kMaxByte35 = 2, kMaxByte36 = 18;
// Below this size a card must hold the records it announces; larger files
// are usually volume sets and are not checked.
constexpr int64_t kPlausibilityLimit = 1450000;

Status parseJc4Header(const uint8_t* h, Jc4Header& out) {
  out.hooks = be16(h);
  out.dataBytes = be32(h + 20);
  std::memcpy(out.design, h + 2, kDesignNameBytes);
  out.design[kDesignNameBytes] = '\0';
  const uint64_t picks = out.hooks ? uint64_t{out.dataBytes} * 8 / out.hooks : 0;
  if (h[34] > kMaxByte34 || h[35] > kMaxByte35 || h[36] > kMaxByte36 ||
      (out.hooks % 1344 != 0 && out.hooks % 1536 != 0) || out.hooks < 1 || picks < 1)
    return Status::NotThisFormat;
  if (picks > kMaxPicks) return Status::BadData;
  out.picks = uint32_t(picks);
  return Status::Ok;
}

namespace {

Status nextJc4Volume(CardState& st) {
  st.file.reset();
  if (!nextVolumeName(st.name)) return Status::CannotOpen;
  st.file = openForReading(st.name.c_str());
  if (!st.file) return Status::CannotOpen;
  const int64_t size = fileSize(st.file.get());
  (void)std::fseek(st.file.get(), long(kJc4HeaderBytes), SEEK_SET);
  st.volumeBytes = size > int64_t(kJc4HeaderBytes) ? uint64_t(size) - kJc4HeaderBytes : 0;
  st.consumed = 0;
  return Status::Ok;
}

Status describeJc4(const char* fileName, Picture& out, uint8_t* colorMap, bool) {
  t_card = {};
  CardState& st = t_card;
  if (!fileName) return Status::CannotOpen;
  st.name = fileName;
  // Any volume of a set opens the set at its first volume.
  if (st.name.size() > 6 && hasVolumeSuffix(st.name, "jc4.")) {
    out.firstPart = st.name.compare(st.name.size() - 2, 2, "01") == 0;
    st.name.replace(st.name.size() - 2, 2, "01");
  }
  st.file = openForReading(st.name.c_str());
  if (!st.file) return Status::CannotOpen;
  uint8_t h[kJc4HeaderBytes];
  if (!readExact(st.file.get(), h, sizeof h)) return Status::CannotOpen;
  for (size_t i = 2; i < 2 + kDesignNameBytes; ++i)
    if (h[i] >= 0x80) return Status::NotThisFormat;
  Jc4Header hdr;
  if (const Status s = parseJc4Header(h, hdr); s != Status::Ok) return s;

  st.hooks = hdr.hooks;
  st.recordBytes = (hdr.hooks + 7) / 8;
  st.moduleSize = preliminaryModuleSize(hdr.hooks, true);
  st.modules = modulesFor(hdr.hooks, st.moduleSize);
  const int64_t size = fileSize(st.file.get());
  if (size < 0) return Status::CannotOpen;
  if (size < kPlausibilityLimit && uint64_t{hdr.picks} * st.recordBytes > uint64_t(size))
    return Status::NotThisFormat;

  st.volumeBytes = uint64_t(size) - kJc4HeaderBytes;
  st.consumed = 0;
  st.height = hdr.picks;
  st.card = Card::Jc4;
  describeCard(out, colorMap, hdr.hooks, hdr.picks);
  out.setInfo("\ndesign: %s", hdr.design);
  return Status::Ok;
}

}  // namespace

Status deliverJc4Family(const Band& band, Status (*nextVolume)(CardState&)) {
  CardState& st = t_card;
  if (const Status s = checkBand(st, band); s != Status::Ok) return s;
  const uint32_t rows = uint32_t(band.rowCount);
  const uint64_t ahead = uint64_t{st.height - st.delivered - rows} * st.recordBytes;
  const uint8_t* records = nullptr;
  if (const Status s = takeCardBytes(st, size_t{rows} * st.recordBytes, ahead, nextVolume, records); s != Status::Ok)
    return s == Status::NoMemory ? s : st.failed = s;
  mapRows(st, records, rows, band);
  st.delivered += rows;
  return Status::Ok;
}

namespace {

Status deliverJc4(const Band& band) { return deliverJc4Family(band, nextJc4Volume); }

}  // namespace
}  // namespace ldr::staubli

// ---- Exported

extern "C" {

void makeStaubliMapping(uint32_t* map, int32_t moduleSize) {
  if (map) ldr::staubli::buildModuleOrder(map, moduleSize);
}

void invertStaubliMapping(uint32_t* map, int32_t moduleSize, int32_t modules, int32_t invert,
                          int32_t blockwise) {
  if (!map || moduleSize <= 0 || modules <= 0) return;
  const uint64_t n = uint64_t(moduleSize) * uint64_t(modules);
  if (n > ldr::staubli::kMaxMapEntries) return;
  try {
    std::vector<uint32_t> x;
    ldr::staubli::extendOrder(map, uint32_t(moduleSize), uint32_t(modules), blockwise != 0, x);
    if (!invert) {
      std::copy(x.begin(), x.end(), map);
      return;
    }
    // Entries no module hook points at keep their value; entries that point
    // outside the extended order are ignored.
    for (size_t p = size_t(n); p-- > 0;)
      if (x[p] < n) map[x[p]] = uint32_t(p);
  } catch (const std::bad_alloc&) {
    // No memory for the extended order: the map is left as it was.
  }
}

void setDefaultMappingJC4(int32_t value) { ldr::staubli::t_defaultMapping = value; }

void registerLoadStaubli(void) {
  ldr::registerOperations<ldr::staubli::describeJc4, ldr::staubli::deliverJc4, ldr::staubli::release>();
}

}  // extern "C"
