// tools/exif_fields.h: the EXIF fields of a JPEG file, for `vload info --exif`.
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace vload_tool {

struct ExifField {
  const char* key;    // the record's field name, for JSON
  std::string value;  // as text; quoted when `text`
  bool text;
};

// The fields process_EXIF finds in the last EXIF block before the file's
// first scan, in the record's order; empty when the file holds none.
std::optional<std::vector<ExifField>> exifFieldsOf(const std::string& path);

}  // namespace vload_tool
