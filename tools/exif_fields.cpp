// tools/exif_fields.cpp
#include "tools/exif_fields.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <memory>

#include "framework/file.h"
#include "framework/utf16.h"
#include "vload.h"

namespace vload_tool {
namespace {

// The last EXIF block among the markers before a JPEG file's first scan, with
// its two length bytes in front as process_EXIF takes it; empty when none.
std::vector<uint8_t> exifBlock(const std::string& path) {
  std::vector<uint8_t> found;
  const ldr::File f = ldr::openForReading(path.c_str());
  uint8_t head[2];
  if (!f || !ldr::readExact(f.get(), head, 2) || head[0] != 0xFF || head[1] != 0xD8) return found;
  for (;;) {
    int marker = std::fgetc(f.get());
    if (marker != 0xFF) return found;
    while (marker == 0xFF) marker = std::fgetc(f.get());
    if (marker == EOF || marker == 0xDA || marker == 0xD9) return found;  // scan, end
    if (marker == 0x01 || (marker >= 0xD0 && marker <= 0xD7)) continue;  // no length
    if (!ldr::readExact(f.get(), head, 2)) return found;
    const size_t length = size_t(head[0]) << 8 | head[1];
    if (length < 2) return found;
    std::vector<uint8_t> segment(length);
    segment[0] = head[0];
    segment[1] = head[1];
    if (!ldr::readExact(f.get(), segment.data() + 2, length - 2)) return found;
    if (marker == 0xE1 && length >= 7 && std::memcmp(segment.data() + 2, "Exif", 5) == 0)
      found = std::move(segment);
  }
}

// A wide-character comment (UTF-16, little-endian) as UTF-8.
std::string wideComment(const ExifInfo& e) {
  const size_t units =
      std::min<size_t>(size_t(std::max(e.commentWidecharCount, 0)), sizeof e.comments / 2);
  return ldr::utf8FromUtf16({reinterpret_cast<const uint8_t*>(e.comments), 2 * units}, false);
}

std::vector<ExifField> exifFields(const ExifInfo& e) {
  const auto num = [](double v) {
    char t[32];
    std::snprintf(t, sizeof t, "%g", v);
    return std::string(t);
  };
  const auto in = [](const char* s, size_t n) { return std::string(s, strnlen(s, n)); };
  return {
      {"cameraMake", in(e.cameraMake, sizeof e.cameraMake), true},
      {"cameraModel", in(e.cameraModel, sizeof e.cameraModel), true},
      {"dateTime", in(e.dateTime, sizeof e.dateTime), true},
      {"orientation", num(e.orientation), false},
      {"flash", num(e.flash), false},
      {"focalLength", num(e.focalLength), false},
      {"focalLength35mmEquiv", num(e.focalLength35mmEquiv), false},
      {"exposureTime", num(e.exposureTime), false},
      {"apertureFNumber", num(e.apertureFNumber), false},
      {"distance", num(e.distance), false},
      {"ccdWidth", num(e.ccdWidth), false},
      {"exposureBias", num(e.exposureBias), false},
      {"digitalZoomRatio", num(e.digitalZoomRatio), false},
      {"whitebalance", num(e.whitebalance), false},
      {"meteringMode", num(e.meteringMode), false},
      {"exposureProgram", num(e.exposureProgram), false},
      {"exposureMode", num(e.exposureMode), false},
      {"isoEquivalent", num(e.isoEquivalent), false},
      {"lightSource", num(e.lightSource), false},
      {"distanceRange", num(e.distanceRange), false},
      {"xResolution", num(e.xResolution), false},
      {"yResolution", num(e.yResolution), false},
      {"resolutionUnit", num(e.resolutionUnit), false},
      {"comments", e.commentWidecharCount ? wideComment(e) : in(e.comments, sizeof e.comments), true},
      {"thumbnailOffset", num(e.thumbnailOffset), false},
      {"thumbnailSize", num(e.thumbnailSize), false},
  };
}


}  // namespace

std::optional<std::vector<ExifField>> exifFieldsOf(const std::string& path) {
  std::vector<uint8_t> block = exifBlock(path);
  if (block.empty()) return std::nullopt;
  const auto e = std::make_unique<ExifInfo>();
  process_EXIF(block.data(), uint32_t(block.size()), e.get(), 0);
  return exifFields(*e);
}

}  // namespace vload_tool
