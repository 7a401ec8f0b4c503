// tests/support/exif_writer.cpp
#include "tests/support/exif_writer.h"

#include <algorithm>
#include <cstring>

namespace vtest {

namespace {
constexpr uint32_t kComponentBytes[13] = {0, 1, 1, 2, 4, 8, 1, 1, 2, 4, 8, 4, 8};
}

void ExifBuilder::put16(Bytes& b, uint32_t v) const {
  if (big_) {
    put8(b, v >> 8);
    put8(b, v);
  } else {
    put16le(b, v);
  }
}

void ExifBuilder::put32(Bytes& b, uint32_t v) const {
  if (big_) {
    put16(b, v >> 16);
    put16(b, v & 0xFFFF);
  } else {
    put32le(b, v);
  }
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

ExifBuilder& ExifBuilder::shortValue(uint16_t tag, uint16_t v) {
  Bytes b;
  put16(b, v);
  return bytes(tag, 3, b);
}

ExifBuilder& ExifBuilder::longValue(uint16_t tag, uint32_t v) {
  Bytes b;
  put32(b, v);
  return bytes(tag, 4, b);
}

ExifBuilder& ExifBuilder::rational(uint16_t tag, uint32_t numerator, uint32_t denominator, bool isSigned) {
  Bytes b;
  put32(b, numerator);
  put32(b, denominator);
  return bytes(tag, isSigned ? 10 : 5, b);
}

ExifBuilder& ExifBuilder::raw(uint16_t tag, uint16_t format, uint32_t count, uint32_t valueField) {
  dirs_.back().push_back({tag, format, count, {}, valueField});
  return *this;
}

Bytes ExifBuilder::tiff() const {
  std::vector<uint32_t> at;  // offset of each directory
  uint32_t next = first_;
  for (const auto& d : dirs_) {
    at.push_back(next);
    next += 2 + 12 * uint32_t(d.size()) + 4;
  }
  if (!lastLink_) next -= 4;
  uint32_t valueAt = next;

  Bytes out;
  putText(out, big_ ? "MM" : "II");
  put16(out, 0x2A);
  put32(out, first_);
  out.resize(std::max<size_t>(out.size(), first_), 0);
  Bytes values;
  for (size_t i = 0; i < dirs_.size(); ++i) {
    out.resize(at[i], 0);
    put16(out, uint32_t(dirs_[i].size()));
    for (const Entry& e : dirs_[i]) {
      put16(out, e.tag);
      put16(out, e.format);
      put32(out, e.count);
      if (e.field) {
        put32(out, *e.field);
      } else if (e.value.size() <= 4) {
        Bytes v = e.value;
        v.resize(4, 0);
        out.insert(out.end(), v.begin(), v.end());
      } else {
        put32(out, valueAt + uint32_t(values.size()));
        values.insert(values.end(), e.value.begin(), e.value.end());
      }
    }
    const bool last = i + 1 == dirs_.size();
    if (!last) put32(out, at[i + 1]);
    else if (loop_) put32(out, at[*loop_]);
    else if (lastLink_) put32(out, 0);
  }
  out.insert(out.end(), values.begin(), values.end());
  return out;
}

// Both are built at their final size: GCC's bounds warnings misread an insert
// into a vector of two bytes.
Bytes ExifBuilder::app1() const {
  const Bytes t = tiff();
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
