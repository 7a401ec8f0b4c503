// tests/support/drape_writer.cpp
#include "tests/support/drape_writer.h"

#include <string>
#include <utility>

namespace vtest {

DrapeBuilder::DrapeBuilder() : DrapeBuilder("#NEW_REGION\n") {}

DrapeBuilder::DrapeBuilder(std::string_view firstLine) { putText(bytes_, firstLine); }

DrapeBuilder& DrapeBuilder::line(std::string_view text) {
  putText(bytes_, text);
  put8(bytes_, '\n');
  return *this;
}

DrapeBuilder& DrapeBuilder::region(uint32_t controlPoints, uint32_t hVectors, uint32_t vVectors) {
  line("#NEW_REGION");
  const std::pair<const char*, uint32_t> blocks[] = {
      {"#CPOINTS=", controlPoints}, {"#HVECT=", hVectors}, {"#VVECT=", vVectors}};
  for (const auto& [key, n] : blocks) {
    line(key + std::to_string(n));
    for (uint32_t i = 0; i < 4 * n; ++i) put8(bytes_, uint8_t(i * 31));  // '#' and '\n' among them
  }
  return *this;
}

DrapeBuilder& DrapeBuilder::texture(uint32_t declared) {
  line("#TEXTURE_START=" + std::to_string(declared));
  for (uint32_t i = 0; i <= declared; ++i) put8(bytes_, uint8_t('\n' + i));
  return *this;
}

DrapeBuilder& DrapeBuilder::startImage(const Bytes& image) {
  line("#START_IMAGE=" + std::to_string(image.size()));
  return bytes(image);
}

DrapeBuilder& DrapeBuilder::bytes(const Bytes& raw) {
  bytes_.insert(bytes_.end(), raw.begin(), raw.end());
  return *this;
}

}  // namespace vtest
