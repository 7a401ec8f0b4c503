// raster/exif.cpp: the EXIF reader (process_EXIF and its helpers).
// Reads: the chain of image directories of an EXIF block in either byte
// order; the tags listed in handleTag. Sub-directories (EXIF, GPS,
// interoperability pointers) are not followed, only the chain of links.
// Refuses: nothing with a status. Every inconsistency is a non-fatal message
// and parsing goes on or stops quietly.
// Safety: every offset and count from the block is checked against the bytes
// handed in before anything is read, strings included.
#include <algorithm>
#include <cmath>
#include <cstring>

#include "framework/helpers.h"
#include "framework/probe.h"
#include "vload.h"

extern "C" const int32_t BytesPerFormat[13] = {0, 1, 1, 2, 4, 8, 1, 1, 2, 4, 8, 4, 8};

namespace ldr {
namespace {

// ---- Limits and constants

constexpr int kMaxNesting = 4;             // deeper chains are taken for loops
constexpr uint32_t kMaxComponents = 65536;
constexpr int64_t kMaxValueOffset = 65536;  // an APP1 marker holds no more
constexpr int kMaxDateFields = 10;
constexpr size_t kTiffHeaderAt = 8;         // "Exif\0\0" after the two length bytes
constexpr int64_t kEntryBytes = 12;
constexpr int64_t kMaxCommentBytes = 15999;
constexpr int64_t kMaxWideCommentBytes = sizeof(ExifInfo::comments);
constexpr int kMakeBytes = 31, kModelBytes = 39, kDateBytes = 19;

enum Format : int32_t { kByte = 1, kAscii, kShort, kLong, kRational, kSByte, kUndefined,
                        kSShort, kSLong, kSRational, kFloat, kDouble };

// ---- State

struct ExifParser {
  double focalPlaneXRes = 0;
  double focalPlaneUnits = 0;  // millimetres per focal plane unit
  int32_t exifImageWidth = 0;
  int32_t orientationCount = 0;
  ExifInfo* record = nullptr;
};
thread_local ExifParser t_exif;

// The walk's view of the block: offsets count from the TIFF header.
struct View {
  const uint8_t* base;
  int64_t length;  // bytes from base that belong to the block; may be negative
  bool holds(int64_t offset, int64_t bytes) const {
    return offset >= 0 && bytes >= 0 && offset <= length - bytes;
  }
};

// A double as the int field stores it: truncated, wrapping like a 32-bit
// store; NaN and values beyond 64 bits give 0.
int32_t toInt(double v) {
  if (!(v > -9.2e18 && v < 9.2e18)) return 0;
  return int32_t(uint32_t(uint64_t(int64_t(v))));
}

// ConvertAnyFormat for a value with `available` bytes left in the block: a
// component that does not fit reads as 0.
double convert(const uint8_t* p, int64_t available, int32_t format) {
  const bool known = format >= kByte && format <= kDouble && format != kAscii && format != kUndefined;
  if (known && available < BytesPerFormat[format]) return 0;
  return ConvertAnyFormat(p, format);
}

// Copies at most `count` bytes, stopping at a zero byte or at the end of the
// block, and terminates `dst` (which holds count + 1 bytes).
void copyText(char* dst, int count, const uint8_t* src, int64_t available) {
  int n = 0;
  for (; n < count && n < available && src[n]; ++n) dst[n] = char(src[n]);
  std::memset(dst + n, 0, size_t(count + 1 - n));
}

void recordDatePosition(ExifInfo& r, int64_t position) {
  if (r.numDateTimeTags < 0) r.numDateTimeTags = 0;  // a caller's stale count
  if (r.numDateTimeTags < kMaxDateFields)
    r.dateTimeOffsets[r.numDateTimeTags++] = int32_t(position);
  else
    ErrNonfatal("More than %d date fields in Exif.  This is nuts", kMaxDateFields);
}

// The user comment: trailing blanks count as ends of the text; an "ASCII"
// character-code prefix and the blanks and zeros after it are skipped.
void userComment(ExifInfo& r, const uint8_t* value, int64_t byteCount, int64_t available) {
  int64_t end = std::min(byteCount, available);
  while (end > 0 && value[end - 1] == ' ') --end;
  const int64_t length = std::min({byteCount, available, kMaxCommentBytes});
  int64_t from = 0;
  if (length >= 6 && std::memcmp(value, "ASCII", 5) == 0) {
    from = -1;
    for (int64_t a = 5; a < 10 && a < length; ++a) {
      if (a < end && value[a] != 0 && value[a] != ' ') {
        from = a;
        break;
      }
    }
    if (from < 0) return;
  }
  const int64_t stop = std::min(length, end);
  int64_t n = 0;
  for (int64_t i = from; i < stop && value[i]; ++i) r.comments[n++] = char(value[i]);
  r.comments[n] = 0;
}

void wideComment(ExifInfo& r, const uint8_t* value, int64_t byteCount, int64_t available) {
  // The count follows what was copied, so that it never points past the field.
  const int64_t copied = std::min({byteCount, available, kMaxWideCommentBytes});
  std::memcpy(r.comments, value, size_t(copied));
  r.commentWidecharCount = int32_t(copied / 2);
}

constexpr double kLn2 = 0.693147180559945309417;

// One entry's tag. `value` has `byteCount` bytes, `available` bytes remain in
// the block from it, `position` is its offset from the TIFF header.
void handleTag(ExifParser& p, uint16_t tag, int32_t format, const uint8_t* value,
               int64_t byteCount, int64_t available, int64_t position, int nesting,
               int32_t& thumbnailOffset, int32_t& thumbnailSize) {
  ExifInfo& r = *p.record;
  const auto number = [&] { return convert(value, available, format); };
  switch (tag) {
    case 0x010F: copyText(r.cameraMake, kMakeBytes, value, available); break;
    case 0x0110: copyText(r.cameraModel, kModelBytes, value, available); break;
    case 0x0112:
      if (p.orientationCount == 0) r.orientation = toInt(number());
      if (p.orientationCount < 2) {
        if (r.orientation < 0 || r.orientation > 8)
          ErrNonfatal("Undefined rotation value %d in Exif", r.orientation);
        ++p.orientationCount;
      } else {
        ErrNonfatal("More than two orientation in Exif");
      }
      break;
    case 0x011A:
      if (nesting == 0) {
        r.xResolution = float(number());
        if (r.yResolution == 0) r.yResolution = r.xResolution;
      }
      break;
    case 0x011B:
      if (nesting == 0) {
        r.yResolution = float(number());
        if (r.xResolution == 0) r.xResolution = r.yResolution;
      }
      break;
    case 0x0128:
      if (nesting == 0) r.resolutionUnit = toInt(number());
      break;
    case 0x0132:
    case 0x9004:
      if (r.dateTime[0] < '0' || r.dateTime[0] > '9') copyText(r.dateTime, kDateBytes, value, available);
      recordDatePosition(r, position);
      break;
    case 0x9003:
      copyText(r.dateTime, kDateBytes, value, available);
      recordDatePosition(r, position);
      break;
    case 0x0201: thumbnailOffset = toInt(number()); break;
    case 0x0202:
      thumbnailSize = toInt(number());
      r.thumbnailSizeOffset = int32_t(position);
      break;
    case 0x829A: r.exposureTime = float(number()); break;
    case 0x829D: r.apertureFNumber = float(number()); break;
    case 0x8822: r.exposureProgram = toInt(number()); break;
    case 0x8827: r.isoEquivalent = toInt(number()); break;
    case 0x9201:
      if (r.exposureTime == 0) r.exposureTime = float(1 / std::exp(number() * kLn2));
      break;
    case 0x9202:
    case 0x9205:
      if (r.apertureFNumber == 0) r.apertureFNumber = float(std::exp(number() * kLn2 * 0.5));
      break;
    case 0x9204: r.exposureBias = float(number()); break;
    case 0x9206: r.distance = float(number()); break;
    case 0x9207: r.meteringMode = toInt(number()); break;
    case 0x9208: r.lightSource = toInt(number()); break;
    case 0x9209: r.flash = toInt(number()); break;
    case 0x920A: r.focalLength = float(number()); break;
    case 0x9286:
      if (r.comments[0] == 0) userComment(r, value, byteCount, available);
      break;
    case 0x9C9C:
      if (r.comments[0] == 0 && byteCount > 1) wideComment(r, value, byteCount, available);
      break;
    case 0xA002:
    case 0xA003: p.exifImageWidth = std::max(p.exifImageWidth, toInt(number())); break;
    case 0xA20E: p.focalPlaneXRes = number(); break;
    case 0xA210:
      switch (toInt(number())) {
        case 1: case 2: p.focalPlaneUnits = 25.4; break;  // inch
        case 3: p.focalPlaneUnits = 10; break;             // centimetre
        case 4: p.focalPlaneUnits = 1; break;              // millimetre
        case 5: p.focalPlaneUnits = 0.001; break;          // micrometre
        default: break;
      }
      break;
    case 0xA215:
      if (r.isoEquivalent == 0) r.isoEquivalent = toInt(number());
      break;
    case 0xA402: r.exposureMode = toInt(number()); break;
    case 0xA403: r.whitebalance = toInt(number()); break;
    case 0xA404: r.digitalZoomRatio = float(number()); break;
    case 0xA405: r.focalLength35mmEquiv = toInt(number()); break;
    case 0xA40C: r.distanceRange = toInt(number()); break;
    default: break;  // the maker note (0x927C) and everything else
  }
}

void raiseLargestOffset(ExifInfo& r, int64_t offset) {
  if (offset > r.largestExifOffset) r.largestExifOffset = int32_t(std::min<int64_t>(offset, INT32_MAX));
}

void walkDirectory(ExifParser& p, const View& v, int64_t start, int nesting) {
  ExifInfo& r = *p.record;
  if (nesting > kMaxNesting) {
    ErrNonfatal("Maximum Exif directory nesting exceeded (corrupt Exif header)");
    return;
  }
  // A directory that starts where its entry count cannot be read is no
  // directory; it is reported like one too short for its entries, with none.
  if (!v.holds(start, 2)) {
    ErrNonfatal("Illegally sized Exif subdirectory (%d entries)", 0);
    return;
  }
  const int entries = Get16u(v.base + start);
  const int64_t end = start + 2 + kEntryBytes * entries;
  if (end + 4 > v.length && end != v.length && end != v.length - 2) {
    ErrNonfatal("Illegally sized Exif subdirectory (%d entries)", entries);
    return;
  }

  int32_t thumbnailOffset = 0, thumbnailSize = 0;
  for (int i = 0; i < entries; ++i) {
    const uint8_t* entry = v.base + start + 2 + kEntryBytes * i;
    const uint16_t tag = Get16u(entry);
    const uint16_t format = Get16u(entry + 2);
    const uint32_t components = Get32u(entry + 4);
    if (format > kDouble) {
      ErrNonfatal("Illegal number format %d for tag %04x in Exif", format, tag);
      continue;
    }
    if (components > kMaxComponents) {
      ErrNonfatal("Too many components %d for tag %04x in Exif", int(components), tag);
      continue;
    }
    const int64_t byteCount = int64_t{BytesPerFormat[format]} * components;
    int64_t position = start + 2 + kEntryBytes * i + 8;
    if (byteCount > 4) {
      const int64_t offset = Get32s(entry + 8);
      if (offset < 0 || offset > kMaxValueOffset || offset + byteCount > v.length) {
        ErrNonfatal("Illegal value pointer for tag %04x in Exif", tag);
        continue;
      }
      position = offset;
      raiseLargestOffset(r, offset);
    }
    handleTag(p, tag, format, v.base + position, byteCount, v.length - position, position,
              nesting, thumbnailOffset, thumbnailSize);
  }

  if (v.holds(end, 4)) {
    const uint32_t link = Get32u(v.base + end);
    if (link != 0) {
      if (v.holds(link, 2)) walkDirectory(p, v, link, nesting + 1);
      raiseLargestOffset(r, link);
    }
  }

  // Offsets below 0 would describe a thumbnail before the block: not stored.
  if (thumbnailOffset != 0) {
    r.thumbnailAtEnd = 0;
    if (thumbnailOffset > 0 && thumbnailOffset <= v.length) {
      r.thumbnailOffset = thumbnailOffset;
      r.thumbnailSize = int32_t(std::clamp<int64_t>(thumbnailSize, 0, v.length - thumbnailOffset));
    }
  }
}

// The 35 mm equivalent from the sensor width, when the block gives the focal
// plane resolution and the picture width but no equivalent of its own.
void deriveSensorWidth(const ExifParser& p, ExifInfo& r) {
  if (std::fabs(p.focalPlaneXRes) <= 1e-9 || p.exifImageWidth == 0) return;
  const double width = p.exifImageWidth * p.focalPlaneUnits / p.focalPlaneXRes;
  r.ccdWidth = float(width);
  if (r.focalLength != 0 && r.focalLength35mmEquiv == 0 && width != 0)
    r.focalLength35mmEquiv = toInt(r.focalLength / width * 36 + 0.5);
}

void parse(ExifParser& p, const uint8_t* data, uint32_t length) {
  ExifInfo& r = *p.record;
  // The header fields are checked in order; a block too short to hold one
  // fails that field's check.
  const auto has = [&](size_t bytes) { return length >= bytes; };
  if (!has(kTiffHeaderAt + 2)) {
    ErrNonfatal("Invalid Exif alignment marker.");
    p.record = nullptr;
    return;
  }
  const uint8_t* tiff = data + kTiffHeaderAt;
  if (tiff[0] == 'I' && tiff[1] == 'I') {
    setBigEndian(false);
  } else if (tiff[0] == 'M' && tiff[1] == 'M') {
    setBigEndian(true);
  } else {
    ErrNonfatal("Invalid Exif alignment marker.");
    p.record = nullptr;
    return;
  }
  if (!has(kTiffHeaderAt + 4) || Get16u(tiff + 2) != 0x2A) {
    ErrNonfatal("Invalid Exif start (1)");
    p.record = nullptr;
    return;
  }
  if (!has(kTiffHeaderAt + 8)) {
    ErrNonfatal("invalid offset for first Exif IFD value");
    p.record = nullptr;
    return;
  }
  const uint32_t first = Get32u(tiff + 4);
  if (first < 8 || first > 16) {
    if (first < 16 || int64_t{first} >= int64_t{length} - 15 || length < 16) {
      ErrNonfatal("invalid offset for first Exif IFD value");
      p.record = nullptr;
      return;
    }
    ErrNonfatal("Suspicious offset of first Exif IFD value");
  }
  const View v{tiff, int64_t{length} - int64_t{kTiffHeaderAt}};
  walkDirectory(p, v, first, 0);
  r.thumbnailAtEnd = r.largestExifOffset <= r.thumbnailOffset;
  deriveSensorWidth(p, r);
}

}  // namespace
}  // namespace ldr

extern "C" {

double ConvertAnyFormat(const void* valuePtr, int32_t format) {
  const auto* p = static_cast<const uint8_t*>(valuePtr);
  switch (format) {
    case ldr::kByte: return p[0];
    case ldr::kSByte: return int8_t(p[0]);
    case ldr::kShort: return Get16u(p);
    case ldr::kSShort: return int16_t(Get16u(p));
    case ldr::kLong: return Get32u(p);
    case ldr::kSLong: return Get32s(p);
    case ldr::kRational: {
      const uint32_t num = Get32u(p), den = Get32u(p + 4);
      return den == 0 ? 0 : double(num) / double(den);
    }
    case ldr::kSRational: {
      const int32_t num = Get32s(p), den = Get32s(p + 4);
      return den == 0 ? 0 : double(num) / double(den);
    }
    // Quirk: floats and doubles are read in the machine's byte order whatever
    // the block says, where other readers swap them like the integers. Hosts
    // of this reader have always had them so; they are rare in practice.
    case ldr::kFloat: {
      float f;
      std::memcpy(&f, p, sizeof f);
      return f;
    }
    case ldr::kDouble: {
      double d;
      std::memcpy(&d, p, sizeof d);
      return d;
    }
    default:
      ErrNonfatal("Illegal format code %d in Exif header", format);
      return 0;
  }
}

void Clear_EXIF(void) {
  ldr::t_exif = {};
  ldr::setBigEndian(false);
}

void process_EXIF(uint8_t* data, uint32_t length, ExifInfo* record, uint8_t suppress) {
  if (!record) return;
  record->xResolution = 0;
  record->yResolution = 0;
  record->resolutionUnit = 0;
  record->numDateTimeTags = 0;
  record->commentWidecharCount = 0;
  record->reserved = 0;
  ldr::suppressNonFatalErrors(suppress != 0);
  Clear_EXIF();
  ldr::t_exif.record = record;
  if (data) ldr::parse(ldr::t_exif, data, length);
}

}  // extern "C"
