// jacquard/staubli_jc5.cpp: Staubli JC3 (loader 14), JC5 (15) and
// gzip-compressed JC5 (ZC5, 43) cards.
//
// JC3 reads: a 512-byte header of ASCII numbers ("B", hooks, design name,
// picks, picks of this volume) and records of ceil(hooks / 8) bytes in the
// wiring order of 1344-hook modules laid one after another; volume sets
// "NAME.jc3.01", ".02", ... Refuses (6): another first letter, hooks that are
// no multiple of 1344 or above 262140, picks outside 2..262140.
// JC5 reads: magic 0x81 0xFE, versions, a first block of descriptors (design
// name, picks, volume word), a second block of sections (type 100: hooks and a
// name), then records holding every section in turn, each padded to whole
// bytes, bit 0 first; volume sets "NAME.j01", ".j02", ... Refuses (6): another
// magic, more than 256 first-block descriptors, second-block data over 9999
// bytes, a volume set whose volume word does not say so, total hooks or picks
// outside 2..262140. Headers cut short give 3.
// ZC5 reads: a gzip stream of a JC5 card, unpacked by the configured gzip
// command into a temporary file. Refuses (6): no temporary directory or gzip
// command set, a name not ending in ".zc5", no gzip magic.
// Delivery: band addressing; rows are read as they are asked for.
// Quirk: JC3 and JC4 set a pixel for a 0 bit, JC5 for a 1 bit: that is how
// each controller stores a lifted hook.
#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include "design/text.h"
#include "framework/checked.h"
#include "framework/probe.h"
#include "jacquard/staubli.h"
#include "vload.h"

extern char** environ;

namespace ldr::staubli {
namespace {

// ---- Limits and constants

constexpr size_t kJc3HeaderBytes = 512;
constexpr uint32_t kJc3Module = 1344;
constexpr uint8_t kJc5Magic[2] = {0x81, 0xFE};
constexpr uint32_t kMaxFirstBlock = 256;
constexpr uint32_t kMaxDescriptorData = 9999;
constexpr uint32_t kMaxKeptName = 199;
constexpr uint32_t kDefaultVolumeWord = 257;
constexpr uint32_t kSectionType = 100;
constexpr uint32_t kNameType = 1, kPicksType = 2, kVolumeType = 3;
constexpr uint32_t kKnownTypes[] = {4, 5, 6, 8, 9, 13, 17};
constexpr uint8_t kGzipMagic[2] = {0x1F, 0x8B};
constexpr size_t kGzipProbeBytes = 5;

bool isDigit(char c) noexcept { return c >= '0' && c <= '9'; }

// The number in a fixed-width ASCII field, read as atoi reads it.
int32_t fieldNumber(const uint8_t* field, size_t width) {
  char text[16] = {};
  std::memcpy(text, field, std::min(width, sizeof text - 1));
  return leadingInt(text);
}

bool inRange(int32_t v, uint32_t low, uint32_t high) noexcept {
  return v >= int32_t(low) && uint32_t(v) <= high;
}

// Bytes worth reading beyond a band of `rows`: the rest of the picture, but
// none in a volume set, where each volume's records are counted as they go.
uint64_t readAhead(const CardState& st, uint32_t rows) noexcept {
  return st.volumeMode ? 0 : uint64_t{st.height - st.delivered - rows} * st.recordBytes;
}

// ---- JC3

Status describeJc3(const char* fileName, Picture& out, uint8_t* colorMap, bool) {
  t_card = {};
  CardState& st = t_card;
  if (!fileName) return Status::CannotOpen;
  st.name = fileName;
  if (st.name.size() > 6 && hasVolumeSuffix(st.name, "jc3.")) {
    out.firstPart = st.name.compare(st.name.size() - 2, 2, "01") == 0;
    st.name.replace(st.name.size() - 2, 2, "01");
    st.volumeMode = true;
  }
  st.file = openForReading(st.name.c_str());
  if (!st.file) return Status::CannotOpen;
  uint8_t h[kJc3HeaderBytes];
  if (!readExact(st.file.get(), h, sizeof h)) return Status::CannotOpen;
  if (h[0] != 'B') return Status::NotThisFormat;
  const int32_t hooks = fieldNumber(h + 1, 4), picks = fieldNumber(h + 21, 6);
  const int32_t volumePicks = fieldNumber(h + 66, 4);
  if (!inRange(hooks, 1, kMaxHooks) || hooks % int32_t(kJc3Module) != 0 || !inRange(picks, 2, kMaxPicks))
    return Status::NotThisFormat;
  char design[17] = {};
  std::memcpy(design, h + 5, 16);

  st.hooks = uint32_t(hooks);
  st.recordBytes = (st.hooks + 7) / 8;
  st.moduleSize = kJc3Module;
  st.modules = modulesFor(st.hooks, kJc3Module);
  // A negative count never matches the records read: the volume never ends.
  st.volumePicks = volumePicks < 0 ? UINT32_MAX : uint32_t(volumePicks);
  st.volumeRead = 0;
  st.height = uint32_t(picks);
  st.card = Card::Jc3;
  describeCard(out, colorMap, st.hooks, st.height);
  out.setInfo("\ndesign: %s\n head type: %d", design, int(st.moduleSize));
  return Status::Ok;
}

Status nextJc3Volume(CardState& st) {
  st.file.reset();
  if (!nextVolumeName(st.name)) return Status::CannotOpen;
  st.file = openForReading(st.name.c_str());
  if (!st.file || std::fseek(st.file.get(), long(kJc3HeaderBytes), SEEK_SET) != 0)
    return Status::CannotOpen;
  st.volumeRead = 0;
  return Status::Ok;
}

// A record is ceil(hooks / 8) bytes whatever stride the caller passes, so a
// wider stride never reads into the next record; its extra bytes stay clear.
Status deliverJc3(const Band& band) {
  CardState& st = t_card;
  if (const Status s = checkBand(st, band); s != Status::Ok) return s;
  ColumnPlan& plan = st.plans[0];
  RowKernel& kernel = st.kernels[0];
  if (!kernel.tried()) {
    std::vector<uint32_t> map = cardMapping(kJc3Module, st.modules, true);
    map.resize(std::min<size_t>(map.size(), st.hooks));
    if (!kernel.build(map, st.recordBytes)) plan.build(map, st.recordBytes);
  }
  const uint32_t rows = uint32_t(band.rowCount);
  for (uint32_t r = 0; r < rows;) {
    if (st.volumeMode && st.volumeRead == st.volumePicks) {
      if (const Status s = nextJc3Volume(st); s != Status::Ok) return st.failed = s;
      st.offset = kAtStream;
    }
    // As many records as this volume still holds, in one read.
    uint32_t n = rows - r;
    if (st.volumeMode) n = std::max<uint32_t>(1, std::min(n, st.volumePicks - st.volumeRead));
    const uint8_t* records = nullptr;
    if (const Status s = takeCardBytes(st, size_t{n} * st.recordBytes, readAhead(st, rows), nullptr, records);
        s != Status::Ok)
      return s;
    st.volumeRead += n;
    Band part = band;
    part.buffer = rowAt(band.buffer, r, band.rowStride);
    mapRecords(kernel, plan, records, st.recordBytes, n, part);
    r += n;
  }
  st.delivered += rows;
  return Status::Ok;
}

// ---- JC5

struct Descriptor {
  uint32_t type = 0, length = 0;
};

// The next descriptor's type and length, and its data (up to the limit) in
// `data`, zero-padded to 8 bytes. False when the file ends in it.
bool readDescriptor(std::FILE* f, Descriptor& d, std::vector<uint8_t>& data, bool skipLong) {
  uint8_t head[8];
  if (!readExact(f, head, sizeof head)) return false;
  d.type = be32(head);
  d.length = be32(head + 4);
  if (d.length > kMaxDescriptorData) {
    data.assign(8, 0);
    return !skipLong || fseeko(f, off_t(d.length), SEEK_CUR) == 0;
  }
  data.assign(std::max<size_t>(d.length, 8), 0);
  return readExact(f, data.data(), d.length);
}

bool isKnownType(uint32_t type) {
  return std::find(std::begin(kKnownTypes), std::end(kKnownTypes), type) != std::end(kKnownTypes);
}

// Reads the card whose working name is in the state: descriptors, sections,
// and, for a volume set, the records the first volume holds.
Status readJc5(CardState& st, Picture& out, uint8_t* colorMap) {
  st.file = openForReading(st.name.c_str());
  if (!st.file) return Status::CannotOpen;
  std::FILE* f = st.file.get();
  uint8_t h[8];
  if (!readExact(f, h, sizeof h)) return Status::CannotOpen;
  const uint32_t firstBlock = be32(h + 4);
  if (firstBlock > kMaxFirstBlock) return Status::NotThisFormat;

  std::vector<uint8_t> data;
  std::string design;
  uint32_t picks = 0, volumeWord = kDefaultVolumeWord;
  Descriptor d;
  for (uint32_t i = 0; i < firstBlock; ++i) {
    if (!readDescriptor(f, d, data, true)) return Status::CannotOpen;
    const bool read = d.length <= kMaxDescriptorData;
    if (d.type == kNameType) {
      if (d.length <= kMaxKeptName)
        design.assign(reinterpret_cast<const char*>(data.data()), strnlen(reinterpret_cast<const char*>(data.data()), d.length));
    } else if (d.type == kPicksType) {
      if (read) picks = be32(data.data());
    } else if (d.type == kVolumeType) {
      if (read) volumeWord = be32(data.data());
    } else if (!isKnownType(d.type)) {
      std::printf("JC5: Unknown descriptor %u in file %s!\n", d.type, st.name.c_str());
    }
  }

  uint8_t countBytes[4];
  if (!readExact(f, countBytes, sizeof countBytes)) return Status::CannotOpen;
  const uint32_t secondBlock = be32(countBytes);
  // The sections' text is built as they come; the info text has a fixed room.
  std::string sectionText;
  uint64_t totalHooks = 0;
  for (uint32_t i = 0; i < secondBlock; ++i) {
    if (!readDescriptor(f, d, data, false)) return Status::CannotOpen;
    if (d.length > kMaxDescriptorData) return Status::NotThisFormat;
    if (d.type != kSectionType) {
      std::printf("JC5: Unknown descriptor %u!", d.type);
      continue;
    }
    const uint32_t hooks = be32(data.data());
    // Past the limit the card is refused below; stop adding before 64 bits could wrap.
    if (totalHooks <= kMaxHooks) {
      totalHooks += hooks;
      st.paddedBits += (uint64_t{hooks} + 7) / 8 * 8;
    }
    st.sectionHooks.push_back(hooks);
    if (sectionText.size() < VLOAD_INFO_TEXT_SIZE) {
      const char* name = d.length > 8 ? reinterpret_cast<const char*>(data.data() + 8) : "";
      const size_t nameBytes = d.length > 8 ? strnlen(name, d.length - 8) : 0;
      sectionText += std::to_string(int32_t(hooks)) + "(" + std::string(name, nameBytes) + ") ";
    }
  }

  const off_t start = ftello(f);
  if (start < 0) return Status::CannotOpen;
  st.dataStart = uint64_t(start);
  if (st.volumeMode) {
    const int64_t size = fileSize(f);
    st.volumePicks = st.paddedBits && size > start
                         ? uint32_t(std::min<uint64_t>((uint64_t(size) - st.dataStart) * 8 / st.paddedBits, UINT32_MAX))
                         : 0;
    if (volumeWord >> 16 != 1) return Status::NotThisFormat;
  }
  if (totalHooks < 2 || totalHooks > kMaxHooks || picks < 2 || picks > kMaxPicks)
    return Status::NotThisFormat;

  st.hooks = uint32_t(totalHooks);
  st.recordBytes = uint32_t(st.paddedBits / 8);
  st.height = picks;
  st.card = Card::Jc5;
  describeCard(out, colorMap, st.hooks, st.height);
  const std::string sections = st.sectionHooks.size() > 1 ? "\n" + sectionText : "";
  out.setInfo("\nStaubli JC5 v%d.%d\n%s%s", h[2], h[3], design.c_str(), sections.c_str());
  return Status::Ok;
}

// Volume names of a JC5 set end in ".j" (either case) and two digits.
bool isJc5VolumeName(const std::string& name) {
  const size_t n = name.size();
  return n > 5 && name[n - 4] == '.' && (name[n - 3] == 'j' || name[n - 3] == 'J') &&
         isDigit(name[n - 2]) && isDigit(name[n - 1]);
}

Status describeJc5(const char* fileName, Picture& out, uint8_t* colorMap, bool) {
  t_card = {};
  CardState& st = t_card;
  if (!fileName) return Status::CannotOpen;
  st.name = fileName;
  if (isJc5VolumeName(st.name)) {
    out.firstPart = st.name.compare(st.name.size() - 2, 2, "01") == 0;
    st.name.replace(st.name.size() - 2, 2, "01");
    st.volumeMode = true;
  }
  const uint8_t* probe = loadImgCheckHeader(fileName);
  if (!probe || loadImgLastFilesize() < 2 || probe[0] != kJc5Magic[0] || probe[1] != kJc5Magic[1])
    return Status::NotThisFormat;
  return readJc5(st, out, colorMap);
}

// Quirk: later volumes are taken to have headers as long as the first
// volume's, so their records are read from the first volume's data start.
Status nextJc5Volume(CardState& st) {
  st.file.reset();
  if (!nextVolumeName(st.name)) return Status::CannotOpen;
  st.file = openForReading(st.name.c_str());
  uint8_t magic[2];
  if (!st.file || !readExact(st.file.get(), magic, 2) || magic[0] != kJc5Magic[0] ||
      magic[1] != kJc5Magic[1])
    return Status::CannotOpen;
  const int64_t size = fileSize(st.file.get());
  st.volumePicks = size > int64_t(st.dataStart)
                       ? uint32_t(std::min<uint64_t>((uint64_t(size) - st.dataStart) / st.recordBytes, UINT32_MAX))
                       : 0;
  if (fseeko(st.file.get(), off_t(st.dataStart), SEEK_SET) != 0) return Status::CannotOpen;
  return Status::Ok;
}

// As for JC3, a record is its padded width in bytes whatever the stride.
Status deliverJc5(const Band& band) {
  CardState& st = t_card;
  if (const Status s = checkBand(st, band); s != Status::Ok) return s;
  const uint32_t rows = uint32_t(band.rowCount);
  const bool packed = st.hooks == st.paddedBits;
  const size_t rowBytes = (size_t{st.hooks} + 7) / 8;
  if (!packed && st.sectionJoin.empty()) st.sectionJoin.build(st.sectionHooks);
  for (uint32_t r = 0; r < rows;) {
    int switches = 0;
    while (st.volumeMode && st.volumePicks == 0) {
      if (++switches > kMaxVolumeSwitches) return st.failed = Status::CannotOpen;
      if (const Status s = nextJc5Volume(st); s != Status::Ok) return st.failed = s;
      st.offset = kAtStream;
    }
    const uint32_t n = st.volumeMode ? std::min(rows - r, st.volumePicks) : rows - r;
    const uint8_t* records = nullptr;
    if (const Status s = takeCardBytes(st, size_t{n} * st.recordBytes, readAhead(st, rows), nullptr, records);
        s != Status::Ok)
      return s;
    if (st.volumeMode) st.volumePicks -= n;
    for (uint32_t k = 0; k < n; ++k) {
      const uint8_t* rec = records + size_t{k} * st.recordBytes;
      uint8_t* row = rowAt(band.buffer, r + k, band.rowStride);
      // Sections side by side, without the padding between them.
      if (packed)
        reverseBytes(row, rec, rowBytes, false);
      else
        st.sectionJoin.run(rec, row);
      if (size_t(band.rowStride) > rowBytes) std::memset(row + rowBytes, 0, size_t(band.rowStride) - rowBytes);
    }
    r += n;
  }
  st.delivered += rows;
  return Status::Ok;
}

// ---- ZC5

bool hasZc5Name(const char* fileName) {
  const size_t n = std::strlen(fileName);
  return n >= 6 && fileName[n - 4] == '.' && tolowerAZ(uint8_t(fileName[n - 3])) == 'z' &&
         tolowerAZ(uint8_t(fileName[n - 2])) == 'c' && fileName[n - 1] == '5';
}

// The configured command's words (split at blanks and tabs; no quoting).
std::vector<std::string> commandWords(const char* command) {
  std::vector<std::string> words;
  std::string word;
  for (const char* p = command;; ++p) {
    if (*p && *p != ' ' && *p != '\t') {
      word += *p;
      continue;
    }
    if (!word.empty()) words.push_back(word);
    word.clear();
    if (!*p) break;
  }
  return words;
}

// Runs "COMMAND... -dc SOURCE" with standard output to `out`, without a
// shell, so no character of the file name can start anything else. A source
// name that starts with "-" is passed as "./-..." so that gzip does not take
// it for an option. The card is judged by what lands in the file, so the
// command's exit status is not needed.
void unpack(const char* command, const char* source, int out) {
  std::vector<std::string> words = commandWords(command);
  if (words.empty()) return;
  words.emplace_back("-dc");
  words.emplace_back(source[0] == '-' ? std::string("./") + source : std::string(source));
  std::vector<char*> argv;
  for (std::string& w : words) argv.push_back(w.data());
  argv.push_back(nullptr);

  posix_spawn_file_actions_t actions;
  if (posix_spawn_file_actions_init(&actions) != 0) return;
  pid_t pid = -1;
  if (posix_spawn_file_actions_adddup2(&actions, out, STDOUT_FILENO) == 0 &&
      posix_spawnp(&pid, argv[0], &actions, nullptr, argv.data(), environ) == 0) {
    int status = 0;
    while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
  }
  posix_spawn_file_actions_destroy(&actions);
}

Status describeZc5(const char* fileName, Picture& out, uint8_t* colorMap, bool readColorMap) {
  t_card = {};
  const char* dir = llibGetTmpDir();
  const char* command = llibGetGzipCommand();
  if (!dir || !command) return Status::NotThisFormat;
  if (!fileName || !hasZc5Name(fileName)) return Status::NotThisFormat;
  {
    const File f = openForReading(fileName);
    if (!f) return Status::CannotOpen;
    uint8_t h[kGzipProbeBytes];
    if (!readExact(f.get(), h, sizeof h) || h[0] != kGzipMagic[0] || h[1] != kGzipMagic[1])
      return Status::NotThisFormat;
  }
  std::string path = std::string(dir) + "/zc5-XXXXXX.jc5";
  const int fd = ::mkostemps(path.data(), 4, O_CLOEXEC);
  if (fd < 0) {
    std::fprintf(stderr, "llib zc5 tmp file creation failed: %s\n", std::strerror(errno));
    return Status::CannotOpen;
  }
  TemporaryFile unpacked(path);
  unpack(command, fileName, fd);
  ::close(fd);
  // The unpacked card may reuse the name of an earlier one of the same size.
  forgetCachedHeader();
  const Status s = describeJc5(unpacked.path().c_str(), out, colorMap, readColorMap);
  // Kept for delivery only when asked for; a description alone leaves nothing behind.
  if (s == Status::Ok && readColorMap) t_card.temporary = std::move(unpacked);
  return s;
}

}  // namespace
}  // namespace ldr::staubli

extern "C" {

void registerLoadStaubliJC3(void) {
  ldr::registerOperations<ldr::staubli::describeJc3, ldr::staubli::deliverJc3, ldr::staubli::release>();
}

void registerLoadStaubliJC5(void) {
  ldr::registerOperations<ldr::staubli::describeJc5, ldr::staubli::deliverJc5, ldr::staubli::release>();
}

void registerLoadStaubliZC5(void) {
  ldr::registerOperations<ldr::staubli::describeZc5, ldr::staubli::deliverJc5, ldr::staubli::release>();
}

}  // extern "C"
