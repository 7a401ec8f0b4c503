// Every public sample file goes through detection and the whole protocol in
// several band sizes: whatever a file holds, the answer is a status, never a
// crash (this suite also runs under the sanitizers), and no descriptor stays
// open. Skipped without the corpus.
#include <gtest/gtest.h>

#include <filesystem>
#include <set>
#include <string>
#include <vector>

#include "tests/support/harness.h"
#include "tests/support/temp_file.h"
#include "vload.h"

namespace {

namespace fs = std::filesystem;

TEST(Corpus, EveryFileGivesAStatus) {
  const fs::path root = VLOAD_CORPUS_DIR;
  if (!fs::is_directory(root)) GTEST_SKIP() << "no corpus at " << root;
  const std::set<uint32_t> statuses = {VLOAD_OK, VLOAD_NO_MEMORY, VLOAD_CANNOT_OPEN,
                                       VLOAD_BAD_REQUEST, VLOAD_UNSUPPORTED,
                                       VLOAD_NOT_THIS_FORMAT, VLOAD_BAD_DATA,
                                       VLOAD_NOT_RECOGNISED, VLOAD_NOT_A_PICTURE};
  std::vector<fs::path> files;
  for (const fs::directory_entry& e : fs::recursive_directory_iterator(root))
    if (e.is_regular_file() && e.file_size() <= (64u << 20)) files.push_back(e.path());
  const int fds = vtest::openFdCount();
  size_t loaded = 0;
  for (const fs::path& file : files) {
    const std::string path = file.string();
    for (uint32_t band : {0u, 1u, 7u}) {
      SCOPED_TRACE(path + " band " + std::to_string(band));
      const vtest::Loaded l = vtest::load(path.c_str(), 0, band);
      EXPECT_TRUE(statuses.count(l.status)) << l.status;
      EXPECT_EQ(vtest::openFdCount(), fds);  // whatever the outcome, nothing stays open
      loaded += band == 0 && l.status == VLOAD_OK;
    }
  }
  EXPECT_GT(files.size(), 0u);
  RecordProperty("files", int(files.size()));
  RecordProperty("loaded", int(loaded));
}

}  // namespace
