// tests/support/temp_file.h: files that exist for one test.
#pragma once

#include <string>
#include <string_view>

#include "tests/support/bytes.h"

namespace vtest {

// A private directory for this process, removed with its contents at exit.
const std::string& tempDir();

// A file with the given bytes under a fresh name ending in `suffix`; the probe
// cache keys on name and size, so every file gets a name of its own.
class TempFile {
 public:
  explicit TempFile(const Bytes& bytes, std::string_view suffix = ".bin");
  // A file with exactly this name inside tempDir().
  TempFile(const Bytes& bytes, std::string_view name, bool exactName);
  ~TempFile();
  TempFile(const TempFile&) = delete;
  TempFile& operator=(const TempFile&) = delete;

  const char* path() const { return path_.c_str(); }
  void rewrite(const Bytes& bytes) const;

 private:
  std::string path_;
};

void writeFile(const std::string& path, const Bytes& bytes);
Bytes readFile(const std::string& path);

// Descriptors this process holds open now.
int openFdCount();

}  // namespace vtest
