// design/drape.h: the drape loader's switch for tests.
#pragma once

namespace ldr {

// For the calling thread: hand start images to the raster loaders in a file
// made with mkstemp in the temporary directory, as when anonymous files are
// not available, rather than in an anonymous file.
void drapeUseNamedFiles(bool named) noexcept;

}  // namespace ldr
