// jacquard/staubli.h: what the Staubli card loaders share. One per-thread
// state for the open card, the hook mapping and its column plans, reading card
// bytes across numbered volumes, and the close operation.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "framework/file.h"
#include "framework/loader.h"
#include "framework/status.h"

namespace ldr::staubli {

// ---- Limits and constants

constexpr uint32_t kMaxHooks = 262140;  // widest card any of these loaders delivers
constexpr uint32_t kMaxPicks = 262140;  // longest card
// Module sizes in the order the data-driven choice tries them.
constexpr uint32_t kModuleSizes[] = {1344, 1536, 3072};
// Records narrower than this many bytes are never mapped: they hold less than
// one harness module.
constexpr uint32_t kMinMappedRecordBytes = 168;
constexpr int kMaxVolumeSwitches = 100;  // volumes tried in a row for one byte of data

// ---- Hook mapping

// One module's hook order, moduleSize entries (1344, 1536; anything else is
// built as 3072).
void buildModuleOrder(uint32_t* map, int32_t moduleSize) noexcept;
// Column x of a card of `modules` modules of `moduleSize` hooks reads file
// hook position result[x]. Modules interleave group by group (12 hooks of
// each module in turn) unless `blockwise`, where they follow one another.
// Empty when moduleSize × modules is not a sensible size.
std::vector<uint32_t> cardMapping(uint32_t moduleSize, uint32_t modules, bool blockwise);

// The module size a card of `hooks` hooks would use before the data decide.
uint32_t preliminaryModuleSize(uint32_t hooks, bool nineThousandIsWide) noexcept;
// Modules of moduleSize needed for `hooks`, rounded up.
inline uint32_t modulesFor(uint32_t hooks, uint32_t moduleSize) noexcept {
  return (hooks + moduleSize - 1) / moduleSize;
}

// Turns records into rows: which file bit each output pixel shows, compiled
// into groups of up to 8 source bytes whose 64 bits go to up to 8 runs of
// consecutive pixels, so a band costs one 8x8 bit transpose per group.
class ColumnPlan {
 public:
  // map[x] is the file bit position of pixel x; positions at or beyond
  // recordBytes × 8 are not in the record and leave their pixel clear.
  void build(std::span<const uint32_t> map, uint32_t recordBytes);
  // Identity: pixel x shows file bit x (bit x % 8 of byte x / 8).
  void buildIdentity(uint32_t width, uint32_t recordBytes);
  // ORs one row into `out` (cleared by the caller): a pixel is set where its
  // file bit is 0 when setWhenZero, else where it is 1.
  void gather(const uint8_t* record, uint8_t* out, bool setWhenZero) const noexcept;
  bool empty() const noexcept { return groups_.empty(); }

 private:
  struct Group {
    uint32_t first = 0;  // byte of pixel 0 of every run
    int32_t stride = 0;  // bytes from one pixel's source to the next
    uint8_t length = 0;  // pixels a run covers, 1..8
    uint8_t present = 0; // bit b set: the run of file bit b exists
    bool whole = false;  // eight runs of 8 pixels, each filling one output byte
    uint32_t to[8] = {}; // first output pixel of the run of file bit b
  };
  std::vector<Group> groups_;
};

// Counts, for the chooser: the file bits of `rows` records of recordBytes
// bytes, `counts` holding recordBytes × 8 entries.
void countSetBits(const uint8_t* records, uint32_t rows, uint32_t recordBytes,
                  std::span<uint32_t> counts) noexcept;

// ---- Wide vector path

// Which code turns records into rows: the widest this processor runs (Auto),
// or one chosen by tests and benchmarks. Per thread.
enum class CardPath : uint8_t { Auto, Plain, Wide };
void forceCardPath(CardPath path) noexcept;
// True when the processor has what `path` needs (Auto and Plain always).
bool cardPathAvailable(CardPath path) noexcept;
// True when the wide path is to be used for the next load.
bool useWidePath() noexcept;

// The whole-record form of a mapping for 512-bit vector units. Every output
// byte shows one bit position of eight record bytes (a "column"); an 8 x 8
// bit transpose of a column's bytes gives the output bytes of all its bits.
// Runs of 14 pixels (1344-hook modules) are built as 16 and closed up.
// Two layouts of that work:
//  - Grouped: consecutive output vectors that share columns form a group of
//    at most 32 columns, held in at most 4 registers. A group's registers are
//    assembled straight from the record when each column's bytes lie close
//    together (JC3's modules), else eight registers at a time from eight
//    rows through a transpose network (JC4's interleaved modules); its output
//    vectors are then permuted out of those registers. Nothing passes
//    through memory between record and row.
//  - Tiled: any mapping of that shape, in three passes over scratch memory:
//    gather the columns' bytes into tiles, transpose each tile's 8 x 8 bit
//    blocks, gather the output bytes from the transposed tiles.
class RowKernel {
 public:
  enum class Layout : uint8_t { Best, Grouped, Tiled };
  // Compiles map (pixel x shows file bit map[x]) in `layout` (Best: grouped
  // when the mapping allows, else tiled); false when the wide path is off,
  // or the mapping does not have that shape.
  bool build(std::span<const uint32_t> map, uint32_t recordBytes, Layout layout = Layout::Best);
  bool ready() const noexcept { return ready_; }
  bool tried() const noexcept { return tried_; }
  // The layout built (Best when none was).
  Layout layout() const noexcept { return ready_ ? (grouped_ ? Layout::Grouped : Layout::Tiled) : Layout::Best; }
  // Bytes of a row that run writes, all of them: width / 8.
  uint32_t rowBytes() const noexcept { return rowBytes_; }
  // Writes bytes [0, rowBytes) of `row`: a pixel is set where its file bit is
  // 0 when setWhenZero, else where it is 1. Reads only the record's bytes.
  void run(const uint8_t* record, uint8_t* row, bool setWhenZero) noexcept;
  // What the chooser's smoothness gives for this mapping, from count planes
  // (see countPlanes): the longest stretch of columns whose neighbours'
  // counts differ by no more than `tolerance`.
  uint32_t smoothness(const uint8_t* planes, uint32_t tolerance) noexcept;

  // Output byte i = source byte source[i] (kNone: 0), compiled into steps of
  // one two-register byte permute each.
  struct Program {
    struct Step {
      uint32_t a = 0, b = 0;  // the two 64-byte source windows
      uint64_t mask = 0;      // output bytes this step provides
    };
    static constexpr uint32_t kNone = UINT32_MAX;
    std::vector<Step> steps;
    std::vector<uint8_t> index;      // 64 permute indices a step
    std::vector<uint8_t> perVector;  // steps of each 64 output bytes
    uint32_t outBytes = 0;
    void compile(const std::vector<uint32_t>& source, uint32_t sourceBytes, bool aligned);
  };
  // Grouped layout: registers assembled together, and the output vectors
  // permuted from them. Register pair p is registers 2p and 2p + 1.
  struct Block {
    bool network = false;   // eight registers from eight rows, else `registers` straight
    uint8_t registers = 0;  // registers assembled straight from the record
    uint8_t repeats = 0;    // network rows 0..repeats-1: row 0's steps, windows moved by `delta` a row
    int32_t delta = 0;
    uint32_t outputs = 0;   // output vectors that follow
  };
  struct Output {
    uint32_t at = 0;          // first (padded) row byte
    uint64_t mask[4] = {};    // bytes register pair p provides
    uint32_t index[4] = {};   // its permute indices, in outputIndex_
  };
  struct alignas(64) Indices {
    uint8_t at[64];
  };

 private:
  bool planGrouped(const std::vector<uint32_t>& pixels, uint32_t recordBytes);
  bool planTiled(const std::vector<uint32_t>& pixels, uint32_t recordBytes);
  void findRepeats();
  void runInto(const uint8_t* record, uint8_t* out, bool setWhenZero) noexcept;

  Program columns_, bytes_;  // tiled
  Program assembly_;         // grouped: network rows and straight registers, block by block
  std::vector<Block> blocks_;
  std::vector<Output> outputs_;
  std::vector<Indices> outputIndex_;
  uint32_t tiles_ = 0, rowBytes_ = 0, recordBytes_ = 0, paddedBytes_ = 0;
  bool runsOf14_ = false, grouped_ = false, ready_ = false, tried_ = false;
  std::vector<uint8_t> scratch_, planeRows_, counts_;
};

// Bit planes of the per-position set-bit counts over `rows` records (at most
// 255, at least 1): bit p % 8 of byte p / 8 of plane w is bit w of the count
// of file bit p, so a plane maps like a record. `planes` holds 8 planes of
// recordBytes bytes (at least 64) one after another. Wide path only.
constexpr uint32_t kMaxPlaneRows = 255;
void countPlanes(const uint8_t* records, uint32_t rows, uint32_t recordBytes, uint8_t* planes) noexcept;

// Joins JC5 sections, each padded to whole bytes in a record, side by side
// into a row (ceil(total / 8) bytes, first pixel in the top bit, padding bits
// of the last byte clear). On the wide path each 512 bits of the row are cut
// from the record by a precomputed piece of each section they overlap: two
// loads and a funnel shift, and a mask where sections meet, with no scratch
// between.
constexpr size_t kSectionLead = 64;   // readable bytes a record needs before it
constexpr size_t kSectionSlack = 80;  // and after it
class SectionJoin {
 public:
  void build(std::span<const uint32_t> sectionHooks);
  bool empty() const noexcept { return hooks_.empty(); }
  void run(const uint8_t* record, uint8_t* row) noexcept;

  struct Piece {
    int32_t offset = 0;    // record byte of lane 0's source, from -64 on
    uint32_t shift = 0;    // bits to drop from it, 0..7
    uint32_t vector = 0;   // which 64 bytes of the row
    uint64_t lanes[8] = {};  // row bits this section provides there
  };
  // The row in order: runs of vectors that each lie inside one section (its
  // piece for the first, moved 64 bytes on for each next), and vectors where
  // sections meet, ORed from their pieces.
  struct Span {
    uint32_t vector = 0;
    uint32_t run = 0;     // vectors of a run; 0 for a meeting
    uint32_t pieces = 0;  // a meeting's pieces, next in order
    int32_t offset = 0;
    uint32_t shift = 0;
  };

 private:
  std::vector<Span> spans_;
  std::vector<Piece> meetings_;
  std::vector<uint32_t> hooks_;
  std::vector<uint64_t> words_;
  uint32_t rowBytes_ = 0;
};
// Bit order reversal of n bytes from src into dst (which may be src),
// complemented when `negate`.
void reverseBytes(uint8_t* dst, const uint8_t* src, size_t n, bool negate) noexcept;

// ---- Volumes

// Advances a name's two-digit volume suffix ("09" to "10"); false when the
// name has no such suffix or is at "99".
bool nextVolumeName(std::string& name) noexcept;
// True when `name` ends in `tail` followed by two decimal digits.
bool hasVolumeSuffix(const std::string& name, const char* tail) noexcept;

// ---- Shared state

// A file this library made and must delete: removed when the owner is reset
// or destroyed.
class TemporaryFile {
 public:
  TemporaryFile() = default;
  explicit TemporaryFile(std::string path) noexcept : path_(std::move(path)) {}
  TemporaryFile(TemporaryFile&& other) noexcept : path_(std::move(other.path_)) { other.path_.clear(); }
  TemporaryFile& operator=(TemporaryFile&& other) noexcept {
    if (this != &other) {
      remove();
      path_ = std::move(other.path_);
      other.path_.clear();
    }
    return *this;
  }
  ~TemporaryFile() { remove(); }
  void remove() noexcept;
  const std::string& path() const noexcept { return path_; }

 private:
  std::string path_;
};

// Card data between the file and the kernels: one buffer, records starting
// on a 64-byte boundary, with readable bytes before and after them for the
// kernels' whole-window loads. It may hold data read ahead of the band.
class RecordBuffer {
 public:
  static constexpr size_t kLead = 64, kSlack = 128;
  size_t buffered() const noexcept { return end_ - begin_; }
  // Room for `bytes` more behind the buffered bytes, which move to the
  // front; false when the memory cannot be had.
  [[nodiscard]] bool reserve(size_t bytes) noexcept;
  uint8_t* tail() noexcept { return data_ + end_; }
  void commit(size_t bytes) noexcept { end_ += bytes; }
  // The next `bytes` buffered bytes (at most buffered()).
  const uint8_t* take(size_t bytes) noexcept {
    const uint8_t* at = data_ + begin_;
    begin_ += bytes;
    return at;
  }

 private:
  Block block_;
  uint8_t* data_ = nullptr;
  size_t capacity_ = 0, begin_ = 0, end_ = 0;
};

static_assert(RecordBuffer::kLead >= kSectionLead && RecordBuffer::kSlack >= kSectionSlack);

enum class Card : uint8_t { None, Jc4, Jc4Email, Jc4Network, Jc3, Jc5 };

// CardState::offset when the next read starts where the open volume's stream
// stands (after tryLoad, or after a volume was opened and positioned).
constexpr uint64_t kAtStream = UINT64_MAX;

// The card being read, from tryLoad to endLoad. Owns the open volume, the
// temporary file of a decompressed card, and the band buffers.
struct CardState {
  Card card = Card::None;
  File file;
  std::string name;  // working name: the volume suffix is rewritten in place
  uint32_t hooks = 0, recordBytes = 0, moduleSize = 0, modules = 0;
  uint32_t height = 0, delivered = 0;
  // JC4 family: data bytes of the present volume and how many were used.
  uint64_t volumeBytes = 0, consumed = 0;
  uint64_t dataStart = 0;   // where records start in a volume
  uint64_t offset = kAtStream;  // the open volume's next byte, read with positioned reads
  bool volumeMode = false;  // JC3, JC5: a numbered set
  uint32_t volumePicks = 0, volumeRead = 0;  // JC3: records a volume holds, read from it
  bool lengthened = false;  // JC4 e-mail: a volume letter was inserted into the name
  // JC5 sections, side by side: hooks of each, and the padded record width.
  std::vector<uint32_t> sectionHooks;
  uint64_t paddedBits = 0;
  TemporaryFile temporary;  // a decompressed card, deleted with the state
  RecordBuffer records;
  // Column plans by module size (index into kModuleSizes; 3 = identity) and
  // the mappings the chooser walks.
  ColumnPlan plans[4];
  RowKernel kernels[4];
  std::vector<uint8_t> planes;          // count planes for the wide chooser
  SectionJoin sectionJoin;               // JC5
  std::vector<uint32_t> candidateMaps[3];
  std::vector<uint32_t> counts;
  Status failed = Status::Ok;
};

extern thread_local CardState t_card;
// The host's default module choice for ambiguous JC4 cards (0 = the data decide).
extern thread_local int32_t t_defaultMapping;

// Resets the state: closes the volume and deletes a temporary card now.
void release() noexcept;

// ---- Shared steps

// The 64-byte JC4 header, which the e-mail variant embeds.
constexpr size_t kJc4HeaderBytes = 64;
struct Jc4Header {
  uint32_t hooks = 0, dataBytes = 0, picks = 0;
  char design[17] = {};  // the 16 name bytes and a terminator
};
// Hooks, data bytes and the limits on bytes 34..36; NotThisFormat for a
// header that breaks them, BadData for more picks than any card has.
Status parseJc4Header(const uint8_t* h, Jc4Header& out);
// loadBand of the JC4 family: reads the band's records (across volumes, with
// `nextVolume` opening the next) and maps them into the rows.
Status deliverJc4Family(const Band& band, Status (*nextVolume)(CardState&));

// Band checks every card loader makes: a load is open, the buffer and
// counts make sense, and no more rows are asked for than remain.
Status checkBand(const CardState& st, const Band& band);

// The fixed outputs of a card: one bit a pixel, mirrored, single layer.
void describeCard(Picture& out, uint8_t* colorMap, uint32_t width, uint32_t height);

// Reading ahead: one read brings at most this much beyond the band, which
// keeps it in the processor's second-level cache until the kernels use it.
constexpr size_t kReadAheadBytes = 256 * 1024;
// The next n bytes of card data, into `out`, from the buffer and then from
// the open volume, reading up to `ahead` bytes more while at it. Bytes past
// the end of a file read as zero. With `nextVolume` (the JC4 family), each
// volume gives volumeBytes bytes and the next is opened when one is used up;
// reading ahead stays within the volume.
Status takeCardBytes(CardState& st, size_t n, uint64_t ahead, Status (*nextVolume)(CardState&),
                     const uint8_t*& out);

// JC4 family: the plan for this band (identity for narrow records, else the
// module size chosen from the band's records) gathered into the rows.
void mapRows(CardState& st, const uint8_t* records, uint32_t rows, const Band& band);

// Rows from `rows` records through the kernel when it is ready, else through
// the plan; the rest of each row's stride is cleared.
void mapRecords(RowKernel& kernel, const ColumnPlan& plan, const uint8_t* records, uint32_t recordBytes,
                uint32_t rows, const Band& band);

// Bit order reversal of every byte (bit 0 becomes bit 7), complemented too
// when `negate`.
void reverseNegateBytes(uint8_t* bytes, size_t n, bool negate) noexcept;

// Size of an open file; -1 when unknown.
int64_t fileSize(std::FILE* f) noexcept;

uint32_t be16(const uint8_t* p) noexcept;
uint32_t be32(const uint8_t* p) noexcept;

}  // namespace ldr::staubli
