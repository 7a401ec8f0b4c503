// tests/support/palette_writer.cpp
#include "tests/support/palette_writer.h"

#include "tests/support/big_endian.h"

namespace vtest {

namespace {

std::string triple(Rgb c) {
  return std::to_string(c.r) + " " + std::to_string(c.g) + " " + std::to_string(c.b);
}

// A UTF-16 text with its length in code units, terminator included.
void putName(Bytes& b, std::u16string_view name, bool wideLength) {
  const uint32_t units = uint32_t(name.size() + 1);
  wideLength ? put32be(b, units) : put16be(b, units);
  putUtf16(b, name);
  put16be(b, 0);
}

}  // namespace

Bytes jascPalette(const std::vector<Rgb>& colours, std::string_view lineEnd, long count,
                  bool byteOrderMark) {
  Bytes b;
  if (byteOrderMark) putText(b, "\xEF\xBB\xBF");
  const std::string end(lineEnd);
  putText(b, "JASC-PAL" + end + "0100" + end);
  putText(b, std::to_string(count < 0 ? long(colours.size()) : count) + end);
  for (const Rgb& c : colours) putText(b, triple(c) + end);
  return b;
}

Bytes gimpPalette(std::string_view name, const std::vector<Rgb>& colours,
                  const std::vector<std::string>& names, std::string_view lineEnd) {
  Bytes b;
  const std::string end(lineEnd);
  putText(b, "GIMP Palette" + end + "Name: " + std::string(name) + end + "Columns: 4" + end + "#" + end);
  for (size_t i = 0; i < colours.size(); ++i) {
    putText(b, triple(colours[i]));
    if (i < names.size()) putText(b, "\t" + names[i]);
    putText(b, end);
    if (i == 0) putText(b, "# a comment between colours" + end + end);
  }
  return b;
}

Bytes acoFile(const std::vector<AcoColour>& colours, bool version1, bool version2) {
  Bytes b;
  for (uint16_t version : {1, 2}) {
    if ((version == 1 && !version1) || (version == 2 && !version2)) continue;
    put16be(b, version);
    put16be(b, uint32_t(colours.size()));
    for (const AcoColour& c : colours) {
      put16be(b, c.space);
      for (uint16_t v : c.values) put16be(b, v);
      if (version == 2) putName(b, c.name, true);
    }
  }
  return b;
}

Bytes acbFile(const AcbBook& book) {
  Bytes b;
  const auto text = [&](std::u16string_view s) {
    put32be(b, uint32_t(s.size()));
    putUtf16(b, s);
  };
  putText(b, "8BCB");
  put16be(b, book.version);
  put16be(b, 3000);  // the book's identifier
  text(book.title);
  text(book.prefix);
  text(book.suffix);
  text(book.description);
  put16be(b, uint32_t(book.count < 0 ? long(book.colours.size()) : book.count));
  put16be(b, 7);  // colours a page
  put16be(b, 4);  // the key colour's place on a page
  put16be(b, book.space);
  for (const AcbColour& c : book.colours) {
    text(c.name);
    putText(b, "CODE01");
    b.insert(b.end(), c.components.begin(), c.components.end());
  }
  putText(b, "spflspot");
  return b;
}

AseBuilder& AseBuilder::block(uint16_t type, const Bytes& body) {
  put16be(body_, type);
  put32be(body_, uint32_t(body.size()));
  body_.insert(body_.end(), body.begin(), body.end());
  ++blocks_;
  return *this;
}

AseBuilder& AseBuilder::groupStart(std::u16string_view name) {
  Bytes body;
  putName(body, name, false);
  return block(0xC001, body);
}

AseBuilder& AseBuilder::groupEnd() { return block(0xC002, {}); }

AseBuilder& AseBuilder::colour(std::u16string_view name, std::string_view model,
                               std::vector<float> values) {
  Bytes body;
  putName(body, name, false);
  putText(body, model);
  for (float v : values) putFloatBe(body, v);
  put16be(body, 2);  // a normal colour
  return block(0x0001, body);
}

Bytes AseBuilder::build() const {
  Bytes b;
  putText(b, "ASEF");
  put16be(b, major_);
  put16be(b, 0);
  put32be(b, announced_ < 0 ? blocks_ : uint32_t(announced_));
  b.insert(b.end(), body_.begin(), body_.end());
  return b;
}

}  // namespace vtest
