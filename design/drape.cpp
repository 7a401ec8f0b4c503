// design/drape.cpp: drape projects (loader 40).
//
// A drape project lays fabric over regions of a photograph. This loader reads
// only the photograph, the project's start image: it walks the "#" header
// lines, skips the region geometry and the texture by their declared sizes,
// hands the embedded picture file to the raster loaders in a file of its own,
// and reports what the first of them that accepts it reports.
// Reads: names of at least 7 characters ending in ".drape" or ".drp" (any
// case) whose first line begins with "#NEW_REGION" and does not end in a
// carriage return right after it; start images that the JPEG, PNG, TIFF, WebP,
// GIF or PCX loader reads, tried in that order.
// Refuses: other names and first lines, a start image that no loader accepts,
// sides outside 1..262140, a full load that fails (6); a project or temporary
// file that cannot be opened or written (3); a header line without "#", a
// negative size and a start image cut short (7).
// Delivery: tryLoad with readColorMap 0 only describes the start image; with
// any other value it loads the whole picture into a block held here, and
// loadBand copies from that block.
// Quirk: loadBand does not advance; every call copies from the top of the
// picture. Hosts ask for the whole picture in one call (the catalogue says
// so); one that asks in bands gets the top rows again.
// Quirk: a project without a start image answers 0 and leaves every output
// as it was.
// Quirk: the information text is " " after a description and empty after a
// full load; mirrorX is 0, firstPart 1 and the repeats 1 whatever the start
// image says.
#include "design/drape.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/sendfile.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>
#include <string_view>

#include "design/text.h"
#include "framework/checked.h"
#include "framework/file.h"
#include "framework/loader.h"
#include "framework/probe.h"
#include "vload.h"

namespace ldr {
namespace {

// ---- Limits and constants

constexpr uint32_t kMaxDimension = 262140;
constexpr int kLineBytes = 1000;  // header lines are read with fgets up to this
// The raster loaders that may read a start image, in the order they are tried.
constexpr int32_t kInnerLoaders[] = {4, 2, 5, 6, 1, 3};
// A held picture larger than this is refused as out of memory: a start image
// whose header claims more is not trusted with the allocation.
constexpr uint64_t kMaxPictureBytes = uint64_t{1} << 30;
constexpr size_t kCopyPiece = 1 << 20;

// ---- State

struct DrapeState {
  LargeBlock picture;
  uint32_t height = 0;
  uint32_t rowBytes = 0;
};
thread_local DrapeState t_drape;
thread_local bool t_namedFiles = false;

// ---- Header

bool startsWith(const char* line, std::string_view key) {
  return std::strncmp(line, key.data(), key.size()) == 0;
}

// The number after the first "=" of a key line, as atoi reads it.
int64_t valueOf(const char* line) {
  const char* equals = std::strchr(line, '=');
  return equals ? leadingInt(equals + 1) : 0;
}

struct StartImage {
  bool found = false;
  off_t offset = 0;
  uint64_t size = 0;
};

// Walks the header lines up to the start image. A file that ends first has
// none; so has one whose region sizes point past its end.
Status findStartImage(std::FILE* f, StartImage& image) {
  char line[kLineBytes];
  while (std::fgets(line, sizeof line, f)) {
    if (line[0] != '#') return Status::BadData;
    int64_t skip = 0;
    if (startsWith(line, "#START_IMAGE=")) {
      const int64_t n = valueOf(line);
      image.offset = ftello(f);
      if (n < 0 || image.offset < 0) return Status::BadData;
      image.found = true;
      image.size = uint64_t(n);
      return Status::Ok;
    }
    if (startsWith(line, "#CPOINTS=") || startsWith(line, "#HVECT=") || startsWith(line, "#VVECT="))
      skip = 4 * valueOf(line);
    else if (startsWith(line, "#TEXTURE_START="))
      skip = valueOf(line) + 1;
    else
      continue;  // "#NEW_REGION" and every other "#" line
    // A negative size would walk back over the same lines for ever.
    if (skip < 0 || fseeko(f, off_t(skip), SEEK_CUR) != 0) return Status::BadData;
  }
  return Status::Ok;
}

// ---- The start image's own file
//
// Every load gets an anonymous file, which the raster loaders open by its
// /proc/self/fd name: threads and processes loading projects at once never
// share one, and nothing is left on disk whatever happens. Where anonymous
// files or /proc are missing, a file made with mkstemp in the temporary
// directory (llibSetTmpDir, else the system's) serves, removed before tryLoad
// returns.
class StartImageFile {
 public:
  StartImageFile() = default;
  StartImageFile(const StartImageFile&) = delete;
  StartImageFile& operator=(const StartImageFile&) = delete;
  ~StartImageFile() {
    if (fd_ >= 0) ::close(fd_);
    if (onDisk_) ::unlink(name_.c_str());
  }

  Status create() {
    if (!t_namedFiles && createAnonymous()) return Status::Ok;
    const char* configured = llibGetTmpDir();
    const std::string dir = configured && *configured ? configured : P_tmpdir;
    struct stat st;
    if (::stat(dir.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) {
      std::perror("iolib drape loader: failed to get temp path");
      return Status::CannotOpen;
    }
    name_ = dir + "/VIdrapeXXXXXX";
    fd_ = ::mkostemp(name_.data(), O_CLOEXEC);
    if (fd_ < 0) {
      std::perror("iolib drape loader:");
      return Status::CannotOpen;
    }
    onDisk_ = true;
    return Status::Ok;
  }

  int fd() const { return fd_; }
  const char* name() const { return name_.c_str(); }

 private:
  bool createAnonymous() {
    fd_ = ::memfd_create("VIdrape", MFD_CLOEXEC);
    if (fd_ < 0) return false;
    name_ = "/proc/self/fd/" + std::to_string(fd_);
    if (::access(name_.c_str(), R_OK) == 0) return true;
    ::close(fd_);
    fd_ = -1;
    return false;
  }

  int fd_ = -1;
  std::string name_;
  bool onDisk_ = false;
};

bool writeAll(int out, const uint8_t* data, size_t n) {
  while (n > 0) {
    const ssize_t put = ::write(out, data, n);
    if (put < 0 && errno == EINTR) continue;
    if (put <= 0) return false;
    data += put;
    n -= size_t(put);
  }
  return true;
}

// Copies `size` bytes of `in` from `offset` to `out`, in the kernel where it
// can. BadData when `in` ends first, CannotOpen when reading or writing fails.
Status copyRange(int in, off_t offset, uint64_t size, int out) {
  Block piece;  // only where sendfile cannot join the two files
  while (size > 0) {
    const size_t want = size_t(std::min<uint64_t>(size, kCopyPiece));
    ssize_t moved = 0;
    if (!piece) {
      moved = ::sendfile(out, in, &offset, want);
      if (moved < 0 && (errno == EINVAL || errno == ENOSYS)) {
        piece = allocBlock(kCopyPiece);
        if (!piece) return Status::NoMemory;
        continue;
      }
    } else {
      moved = ::pread(in, piece.get(), want, offset);
      if (moved > 0 && !writeAll(out, piece.get(), size_t(moved))) return Status::CannotOpen;
      offset += moved > 0 ? moved : 0;
    }
    if (moved < 0 && errno == EINTR) continue;
    if (moved < 0) return Status::CannotOpen;
    if (moved == 0) return Status::BadData;
    size -= uint64_t(moved);
  }
  return Status::Ok;
}

// ---- The raster loaders

struct Inner {
  uint8_t layout = VLOAD_LAYOUT_RGB;  // the JPEG loader reads it as the layout asked for
  uint32_t width = 0, height = 0, xDensity = 0, yDensity = 0, xRepeat = 1, yRepeat = 1;
  uint8_t map[kColourMapBytes] = {};
  char info[VLOAD_INFO_TEXT_SIZE] = {};
  uint8_t mirrorX = 0, firstPart = 1;
};

// Installs the raster loaders in turn until one accepts the file. On VLOAD_OK
// that loader's load is open; otherwise the last loader's status returns.
uint32_t openInner(const char* name, Inner& in, bool full) {
  uint32_t status = VLOAD_NOT_THIS_FORMAT;
  for (const int32_t loader : kInnerLoaders) {
    returnLoaderFunctions(loader, name);
    in = Inner{};
    status = getTryLoad()(name, &in.layout, &in.width, &in.height, &in.xDensity, &in.yDensity,
                          &in.xRepeat, &in.yRepeat, in.map, in.info, &in.mirrorX, &in.firstPart,
                          full ? 1 : 0);
    if (status == VLOAD_OK) return status;
  }
  return status;
}

void endInner() { getEndLoad()(nullptr, 0, 0, nullptr); }

void reportFailure(uint32_t status) { std::printf("llib drape load error %d\n", int(status)); }

// Describes the start image, or with `full` loads all its rows into the
// held block.
Status readStartImage(const char* name, Inner& in, bool full) {
  const uint32_t status = openInner(name, in, full);
  if (status != VLOAD_OK) {
    if (full) reportFailure(status);
    return Status::NotThisFormat;
  }
  const auto rowBytes = layoutRowBytes(in.layout, in.width);
  uint64_t bytes = 0;
  if (in.width < 1 || in.width > kMaxDimension || in.height < 1 || in.height > kMaxDimension ||
      !rowBytes) {
    endInner();
    return Status::NotThisFormat;
  }
  if (!full) {
    endInner();
    return Status::Ok;
  }
  DrapeState& st = t_drape;
  if (!mulOk(uint64_t{*rowBytes}, uint64_t{in.height}, bytes) || bytes > kMaxPictureBytes ||
      !(st.picture = allocLargeBlock(size_t(bytes)))) {
    endInner();
    return Status::NoMemory;
  }
  // One call for every row with the buffer at the first row suits every
  // loader, whichever way it addresses its buffer.
  const uint32_t delivered = getLoadBand()(st.picture.get(), int32_t(in.height), int32_t(*rowBytes), nullptr);
  endInner();
  if (delivered != VLOAD_OK) {
    reportFailure(delivered);
    st = {};
    return Status::NotThisFormat;
  }
  st.height = in.height;
  st.rowBytes = *rowBytes;
  return Status::Ok;
}

// ---- Loader operations

struct Outputs {
  uint8_t* pixelFormat;
  uint32_t *width, *height, *xDensity, *yDensity, *xRepeat, *yRepeat;
  uint8_t* colorMap;
  char* infoText;
  uint8_t *mirrorX, *firstPart;
};

template <class T>
void put(T* out, T value) {
  if (out) *out = value;
}

Status load(const char* fileName, const Outputs& out, bool full) {
  if (!isDrapeProject(fileName)) return Status::NotThisFormat;
  const File project = openForReading(fileName);
  if (!project) return Status::CannotOpen;
  StartImage image;
  if (const Status s = findStartImage(project.get(), image); s != Status::Ok) return s;
  if (!image.found) return Status::Ok;
  struct stat info;
  const int fd = ::fileno(project.get());
  if (::fstat(fd, &info) != 0 || uint64_t(info.st_size) < uint64_t(image.offset) + image.size)
    return Status::BadData;  // the start image is cut short

  StartImageFile file;
  if (const Status s = file.create(); s != Status::Ok) return s;
  if (const Status s = copyRange(fd, image.offset, image.size, file.fd()); s != Status::Ok) return s;
  // The probe cache keys on name and size, and descriptor numbers and
  // mkstemp names come round again. The project's own probe has just replaced
  // the cache; it is dropped all the same, so that an earlier start image of
  // the same size can never answer for this one whatever probed last.
  forgetCachedHeader();
  Inner in;
  if (const Status s = readStartImage(file.name(), in, full); s != Status::Ok) return s;

  put(out.pixelFormat, in.layout);
  put(out.width, in.width);
  put(out.height, in.height);
  put(out.xDensity, in.xDensity);
  put(out.yDensity, in.yDensity);
  put(out.xRepeat, uint32_t{1});
  put(out.yRepeat, uint32_t{1});
  put(out.mirrorX, uint8_t{0});
  put(out.firstPart, uint8_t{1});
  if (out.infoText) {
    if (full) out.infoText[0] = '\0';
    else std::strcpy(out.infoText, " ");
  }
  if (full && in.layout == VLOAD_LAYOUT_INDEXED && out.colorMap)
    std::memcpy(out.colorMap, in.map, kColourMapBytes);
  return Status::Ok;
}

uint32_t tryLoad(const char* fileName, uint8_t* pixelFormat, uint32_t* width, uint32_t* height,
                 uint32_t* xDensity, uint32_t* yDensity, uint32_t* xRepeat, uint32_t* yRepeat,
                 uint8_t* colorMap, char* infoText, uint8_t* mirrorX, uint8_t* firstPart,
                 uint8_t readColorMap) noexcept {
  t_drape = {};
  Status s = Status::Ok;
  try {
    s = load(fileName, {pixelFormat, width, height, xDensity, yDensity, xRepeat, yRepeat, colorMap,
                        infoText, mirrorX, firstPart},
             readColorMap != 0);
  } catch (const std::bad_alloc&) {
    s = Status::NoMemory;
  }
  if (s != Status::Ok) t_drape = {};
  registerLoadDrape();  // the raster loaders took this thread's slots
  return code(s);
}

// Rows are copied one at a time, so that a stride wider than a row places
// them as every other loader does; with packed rows this is one block copy
// of rowCount x rowStride bytes.
uint32_t loadBand(uint8_t* buffer, int32_t rowCount, int32_t rowStride, void*) noexcept {
  const DrapeState& st = t_drape;
  if (!st.picture || !buffer || rowCount < 0 || rowStride < 0 || uint32_t(rowStride) < st.rowBytes ||
      uint32_t(rowCount) > st.height)
    return code(Status::BadRequest);
  for (int32_t r = 0; r < rowCount; ++r)
    std::memcpy(rowAt(buffer, r, rowStride), st.picture.get() + size_t(r) * st.rowBytes, st.rowBytes);
  return code(Status::Ok);
}

uint32_t endLoad(uint8_t*, int32_t, int32_t, void*) noexcept {
  t_drape = {};
  return 0;
}

}  // namespace

void drapeUseNamedFiles(bool named) noexcept { t_namedFiles = named; }

}  // namespace ldr

extern "C" void registerLoadDrape(void) { registerLoader(ldr::tryLoad, ldr::loadBand, ldr::endLoad); }
