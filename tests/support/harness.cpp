// tests/support/harness.cpp
#include "tests/support/harness.h"

namespace vtest {

Loaded load(const char* path, int32_t loader, uint32_t band) {
  Loaded out;
  const uint32_t installed = vload_tool::install(loader, path);
  if (installed < 1 || installed > VLOAD_LOADER_COUNT) {
    out.status = installed;
    return out;
  }
  out.description.loader = installed;
  out.status = vload_tool::describe(path, out.description, true);
  if (out.status != VLOAD_OK) return out;
  out.rows.assign(vload_tool::imageBytes(out.description), 0);
  out.delivering = true;
  out.status = vload_tool::deliverAll(out.description, out.rows.data(), band);
  vload_tool::endLoad();
  return out;
}

uint32_t tryLoadStatus(const char* path, int32_t loader, bool readColourMap) {
  const uint32_t installed = vload_tool::install(loader, path);
  if (installed < 1 || installed > VLOAD_LOADER_COUNT) return installed;
  vload_tool::Description d;
  const uint32_t status = vload_tool::describe(path, d, readColourMap);
  if (status == VLOAD_OK) vload_tool::endLoad();
  return status;
}

}  // namespace vtest
