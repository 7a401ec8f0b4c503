// tests/support/temp_file.cpp
#include "tests/support/temp_file.h"

#include <dirent.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <stdexcept>

namespace vtest {

namespace {

struct Dir {
  std::string path;
  Dir() {
    const char* base = std::getenv("TMPDIR");
    std::string pattern = std::string(base && *base ? base : "/tmp") + "/vload-test-XXXXXX";
    if (!::mkdtemp(pattern.data())) throw std::runtime_error("mkdtemp failed");
    path = pattern;
  }
  ~Dir() {
    std::error_code ignored;
    std::filesystem::remove_all(path, ignored);
  }
};

std::atomic<unsigned> g_counter{0};

}  // namespace

const std::string& tempDir() {
  static const Dir dir;
  return dir.path;
}

void writeFile(const std::string& path, const Bytes& bytes) {
  std::FILE* f = std::fopen(path.c_str(), "wb");
  if (!f) throw std::runtime_error("cannot create " + path);
  const bool ok = bytes.empty() || std::fwrite(bytes.data(), 1, bytes.size(), f) == bytes.size();
  if (std::fclose(f) != 0 || !ok) throw std::runtime_error("cannot write " + path);
}

Bytes readFile(const std::string& path) {
  Bytes bytes;
  std::FILE* f = std::fopen(path.c_str(), "rb");
  if (!f) return bytes;
  uint8_t piece[65536];
  for (size_t n; (n = std::fread(piece, 1, sizeof piece, f)) > 0;)
    bytes.insert(bytes.end(), piece, piece + n);
  std::fclose(f);
  return bytes;
}

TempFile::TempFile(const Bytes& bytes, std::string_view suffix)
    : path_(tempDir() + "/f" + std::to_string(::getpid()) + "-" + std::to_string(g_counter++) +
            std::string(suffix)) {
  writeFile(path_, bytes);
}

TempFile::TempFile(const Bytes& bytes, std::string_view name, bool)
    : path_(tempDir() + "/" + std::string(name)) {
  writeFile(path_, bytes);
}

TempFile::~TempFile() { std::remove(path_.c_str()); }

void TempFile::rewrite(const Bytes& bytes) const { writeFile(path_, bytes); }

int openFdCount() {
  int n = 0;
  if (DIR* d = ::opendir("/proc/self/fd")) {
    while (::readdir(d)) ++n;
    ::closedir(d);
  }
  return n;
}

}  // namespace vtest
