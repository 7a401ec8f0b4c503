// framework/settings.h: the calling thread's switches, for loaders.
#pragma once

namespace ldr {

bool upscale1BitBmp() noexcept;
int bonasLinePadding() noexcept;
int verboseXml() noexcept;

}  // namespace ldr
