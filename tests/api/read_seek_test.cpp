// Reading and seeking local files through the C interface: every byte checked.
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "corvane/smart_file.h"
#include "file/dull_file_manager.h"
#include "support/log_capture.h"
#include "support/pattern_reads.h"

using testsupport::LogCapture;
using testsupport::TempDir;
using testsupport::patternBytes;

namespace {

TEST(ReadSeek, SequentialReadsReturnEveryByteThenEof) {
  // File size and read size.
  for (auto [size, chunk] : std::vector<std::pair<long long, int>>{
           {1, 1}, {1000, 7}, {32768, 32768}, {32769, 4096}, {300000, 65536}, {3000000, 100000}}) {
    TempDir dir;
    int h = testsupport::openPatternFile(dir, size);
    ASSERT_GE(h, 1);
    EXPECT_EQ(x_smart_file_size(h), size);
    int code = 0;
    std::string got = testsupport::readBytes(h, size + 10, chunk, &code);
    EXPECT_EQ(code, SMFR_EOF) << size;
    EXPECT_EQ(got.size(), static_cast<size_t>(size));
    EXPECT_TRUE(got == patternBytes(0, size)) << size;
    EXPECT_EQ(x_smart_file_offset(h), size);
    EXPECT_EQ(x_smart_file_close(h), SMFR_OK);
  }
}

TEST(ReadSeek, SeeksMoveTheReadPointBeyondTheEndClampAndOnAnEmptyFileFail) {
  TempDir dir;
  const long long size = 1500000;
  int h = testsupport::openPatternFile(dir, size);
  ASSERT_GE(h, 1);
  // A target beyond the end is clamped to it; a read there gives the end.
  for (long long target : {0LL, 1LL, 32767LL, 32768LL, 1000000LL, 999999LL, 5LL, size - 1, 400000LL,
                           size + 12345}) {
    const long long at = std::min(target, size);
    long long cur = -1;
    ASSERT_EQ(x_smart_file_seek(h, target, &cur), SMFR_OK);
    EXPECT_EQ(cur, at);
    EXPECT_EQ(x_smart_file_offset(h), at);
    char buf[5000];
    unsigned long got = 99;
    int r = x_smart_file_read(h, buf, sizeof(buf), &got);
    long long expect = std::min<long long>(5000, size - at);
    EXPECT_TRUE(at == size ? r == SMFR_EOF : r == SMFR_OK || (r == SMFR_EOF && at + 5000 >= size))
        << target << " " << r;
    ASSERT_EQ(static_cast<long long>(got), expect) << target;
    EXPECT_EQ(testsupport::patternMismatches(buf, at, expect), 0) << target;
  }
  EXPECT_EQ(x_smart_file_close(h), SMFR_OK);

  long long cur = 0;
  ASSERT_EQ(x_smart_file_open(dir.write("empty", "").c_str(), &h), SMFR_OK);
  LogCapture log(0);
  EXPECT_EQ(x_smart_file_seek(h, 10, &cur), SMFR_FAILED);
  EXPECT_TRUE(log.contains("lseek in a 0 size of file"));
  EXPECT_EQ(x_smart_file_close(h), SMFR_OK);
}

// Opens of one location text share one file; a location differing only in
// case is another file. Each handle keeps its own position.
TEST(ReadSeek, HandlesOnOneLocationShareAndReadIndependently) {
  TempDir dir;
  const long long size = 700000;
  std::string path = testsupport::writePatternFile(dir, "f", size);
  std::string upper = testsupport::writePatternFile(dir, "F", 1000);
  const int before = webs::DullFileManager::openCount();
  int a = 0, b = 0, other = 0;
  ASSERT_EQ(x_smart_file_open(path.c_str(), &a), SMFR_OK);
  ASSERT_EQ(x_smart_file_open(upper.c_str(), &other), SMFR_OK);
  LogCapture log(1);
  ASSERT_EQ(x_smart_file_open(path.c_str(), &b), SMFR_OK);
  EXPECT_TRUE(log.contains("have got a existing dull file because this file is seekable and non-volatile"));
  EXPECT_EQ(webs::DullFileManager::openCount(), before + 2);
  EXPECT_EQ(x_smart_file_close(other), SMFR_OK);
  long long cur = 0;
  ASSERT_EQ(x_smart_file_seek(b, 500000, &cur), SMFR_OK);
  std::string fromA, fromB;
  char buf[30000];
  for (int i = 0; i < 5; ++i) {
    unsigned long got = 0;
    ASSERT_EQ(x_smart_file_read(a, buf, sizeof(buf), &got), SMFR_OK);
    fromA.append(buf, got);
    ASSERT_EQ(x_smart_file_read(b, buf, sizeof(buf), &got), SMFR_OK);
    fromB.append(buf, got);
  }
  EXPECT_TRUE(fromA == patternBytes(0, 150000));
  EXPECT_TRUE(fromB == patternBytes(500000, 150000));
  EXPECT_EQ(x_smart_file_close(a), SMFR_OK);
  EXPECT_EQ(webs::DullFileManager::openCount(), before + 1);
  int code = 0;
  std::string rest = testsupport::readBytes(b, size, 12345, &code);
  EXPECT_EQ(code, SMFR_EOF);
  EXPECT_TRUE(rest == patternBytes(650000, size - 650000));
  EXPECT_EQ(x_smart_file_close(b), SMFR_OK);
  EXPECT_EQ(webs::DullFileManager::openCount(), before);
}

}  // namespace
