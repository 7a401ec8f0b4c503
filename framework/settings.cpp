// framework/settings.cpp: per-thread settings and switches.
#include "framework/settings.h"

#include <memory>
#include <string>

#include "vload.h"

namespace ldr {
namespace {

struct Settings {
  std::unique_ptr<std::string> tmpDir, gzip, unzip, msExpand, vectorPreview;
  bool upscale1BitBmp = false;
  int bonasLinePadding = 0;
  int verboseXml = 0;
};
thread_local Settings t_settings;

void store(std::unique_ptr<std::string>& slot, const char* text) noexcept {
  try {
    slot = text ? std::make_unique<std::string>(text) : nullptr;
  } catch (...) {
    slot = nullptr;  // out of memory: the setting reads as unset
  }
}

const char* view(const std::unique_ptr<std::string>& slot) noexcept {
  return slot ? slot->c_str() : nullptr;
}

}  // namespace

bool upscale1BitBmp() noexcept { return t_settings.upscale1BitBmp; }
int bonasLinePadding() noexcept { return t_settings.bonasLinePadding; }
int verboseXml() noexcept { return t_settings.verboseXml; }

}  // namespace ldr

using ldr::t_settings;

extern "C" {

void llibSetTmpDir(const char* text) { ldr::store(t_settings.tmpDir, text); }
const char* llibGetTmpDir(void) { return ldr::view(t_settings.tmpDir); }
void llibSetGzipCommand(const char* text) { ldr::store(t_settings.gzip, text); }
const char* llibGetGzipCommand(void) { return ldr::view(t_settings.gzip); }
void llibSetUnzipCommand(const char* text) { ldr::store(t_settings.unzip, text); }
const char* llibGetUnzipCommand(void) { return ldr::view(t_settings.unzip); }
void llibSetMsExpandCommand(const char* text) { ldr::store(t_settings.msExpand, text); }
const char* llibGetMsExpandCommand(void) { return ldr::view(t_settings.msExpand); }
void llibSetVectorPreviewCommand(const char* text) { ldr::store(t_settings.vectorPreview, text); }
const char* llibGetVectorPreviewCommand(void) { return ldr::view(t_settings.vectorPreview); }

void llibUpscale1BitToCmapBMP(int flag) { t_settings.upscale1BitBmp = flag != 0; }
void llibSetBonasLinePadding(int value) { t_settings.bonasLinePadding = value; }
void setVerboseXML(int value) { t_settings.verboseXml = value; }

}  // extern "C"
