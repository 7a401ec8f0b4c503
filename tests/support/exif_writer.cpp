// tests/support/exif_writer.cpp
#include "tests/support/exif_writer.h"

#include <algorithm>
#include <cstring>

namespace vtest {

namespace {
constexpr uint32_t kComponentBytes[13] = {0, 1, 1, 2, 4, 8, 1, 1, 2, 4, 8, 4, 8};
}

ExifBuilder& ExifBuilder::ascii(uint16_t tag, std::string_view text) {
  Bytes v(text.begin(), text.end());
  v.push_back(0);
  return bytes(tag, 2, v);
}

ExifBuilder& ExifBuilder::bytes(uint16_t tag, uint16_t format, const Bytes& value) {
  const uint32_t size = format < 13 && kComponentBytes[format] ? kComponentBytes[format] : 1;
  dirs_.back().push_back({tag, format, uint32_t(value.size() / size), value, std::nullopt});
  return *this;
}

// Both are built at their final size: GCC's bounds warnings misread an insert
// into a vector of two bytes.
Bytes ExifBuilder::app1() const {
  std::vector<uint32_t> at;  // offset of each directory
  uint32_t next = first_;
  for (const auto& d : dirs_) {
    at.push_back(next);
    next += 2 + 12 * uint32_t(d.size()) + 4;
  }
  const uint32_t valueAt = lastLink_ ? next : next - 4;
  Bytes t, values;
  putText(t, big_ ? "MM" : "II");
  put16(t, 0x2A);
  put32(t, first_);
  for (size_t i = 0; i < dirs_.size(); ++i) {
    t.resize(at[i], 0);
    put16(t, uint32_t(dirs_[i].size()));
    for (const Entry& e : dirs_[i]) {
      put16(t, e.tag);
      put16(t, e.format);
      put32(t, e.count);
      if (e.field) {
        put32(t, *e.field);
      } else if (e.value.size() <= 4) {
        t.insert(t.end(), e.value.begin(), e.value.end());
        t.resize(t.size() + 4 - e.value.size(), 0);
      } else {
        put32(t, valueAt + uint32_t(values.size()));
        values.insert(values.end(), e.value.begin(), e.value.end());
      }
    }
    if (i + 1 < dirs_.size()) put32(t, at[i + 1]);
    else if (loop_) put32(t, at[*loop_]);
    else if (lastLink_) put32(t, 0);
  }
  t.insert(t.end(), values.begin(), values.end());
  Bytes out(6 + t.size(), 0);
  std::memcpy(out.data(), "Exif", 4);
  std::copy(t.begin(), t.end(), out.begin() + 6);
  return out;
}

Bytes ExifBuilder::block() const {
  const Bytes a = app1();
  Bytes out(2 + a.size());
  out[0] = uint8_t((a.size() + 2) >> 8);
  out[1] = uint8_t(a.size() + 2);
  std::copy(a.begin(), a.end(), out.begin() + 2);
  return out;
}

}  // namespace vtest
