// framework/registry.cpp: the calling thread's current loader and dispatch by
// loader number.
#include "framework/catalogue.h"
#include "framework/detect.h"
#include "vload.h"

namespace ldr {
namespace {

thread_local TryLoadFn t_tryLoad = nullptr;
thread_local LoadBandFn t_loadBand = nullptr;
thread_local EndLoadFn t_endLoad = nullptr;
thread_local bool t_firstCall = true;

// Per-thread tables that loaders build once, before the thread's first
// dispatch.
void setUpThreadTables() noexcept {
  initLoadFabric();
  initLoadWeave();
}

}  // namespace
}  // namespace ldr

extern "C" {

void registerLoader(TryLoadFn tryLoad, LoadBandFn loadBand, EndLoadFn endLoad) {
  ldr::t_tryLoad = tryLoad;
  ldr::t_loadBand = loadBand;
  ldr::t_endLoad = endLoad;
}

TryLoadFn getTryLoad(void) { return ldr::t_tryLoad; }
LoadBandFn getLoadBand(void) { return ldr::t_loadBand; }
EndLoadFn getEndLoad(void) { return ldr::t_endLoad; }

uint32_t returnLoaderFunctions(int32_t loaderNumber, const char* fileName) {
  if (ldr::t_firstCall) {
    ldr::t_firstCall = false;
    ldr::setUpThreadTables();
  }
  if (loaderNumber == 0) {
    const uint32_t detected = ldr::detectLoader(fileName);
    if (ldr::loaderInfo(int32_t(detected)) == nullptr) return detected;  // nothing installed
    return returnLoaderFunctions(int32_t(detected), fileName);
  }
  const ldr::LoaderInfo* loader = ldr::loaderInfo(loaderNumber);
  if (!loader) return VLOAD_NO_SUCH_LOADER;
  loader->registration();
  return uint32_t(loaderNumber);
}

}  // extern "C"
