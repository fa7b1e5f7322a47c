#include <atomic>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "corvane/smart_file.h"
#include "file/dull_file_manager.h"
#include "support/temp_dir.h"
#include "support/pattern_reads.h"

using testsupport::TempDir;

namespace {

// Several queues opened, read and closed at once share the block pools and
// the task engine: every byte must still be right.
TEST(Concurrency, EightThreadsOnThreeSharedFilesReadExactBytes) {
  TempDir dir;
  const long long sizes[3] = {3000000, 1234567, 65536 * 7 + 3};
  std::string paths[3];
  for (int i = 0; i < 3; ++i) {
    paths[i] = testsupport::writePatternFile(dir, "f" + std::to_string(i), sizes[i]);
  }
  const int before = webs::DullFileManager::openCount();
  std::atomic<long long> bad{0}, reads{0}, failures{0};
  auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(3);
  std::vector<std::thread> threads;
  for (int t = 0; t < 8; ++t) {
    threads.emplace_back([&, t] {
      std::mt19937 rng(static_cast<unsigned>(t * 7919 + 1));
      std::vector<char> buf(70000);
      while (std::chrono::steady_clock::now() < deadline) {
        int f = static_cast<int>(rng() % 3);
        int h = 0;
        if (x_smart_file_open(paths[f].c_str(), &h) != SMFR_OK) {
          ++failures;
          continue;
        }
        for (int step = 0; step < 6; ++step) {
          long long pos = static_cast<long long>(rng() % static_cast<unsigned>(sizes[f]));
          long long cur = 0;
          if (x_smart_file_seek(h, pos, &cur) != SMFR_OK || cur != pos) {
            ++failures;
            break;
          }
          int n = 1 + static_cast<int>(rng() % 70000);
          unsigned long got = 0;
          int r = x_smart_file_read(h, buf.data(), n, &got);
          if (r != SMFR_OK && r != SMFR_EOF) {
            ++failures;
            break;
          }
          long long expect = std::min<long long>(n, sizes[f] - pos);
          if (static_cast<long long>(got) != expect) ++bad;
          bad += testsupport::patternMismatches(buf.data(), pos, static_cast<long long>(got));
          ++reads;
        }
        if (x_smart_file_close(h) != SMFR_OK) ++failures;
      }
    });
  }
  for (std::thread& t : threads) t.join();
  EXPECT_GT(reads.load(), 100);
  EXPECT_EQ(bad.load(), 0);
  EXPECT_EQ(failures.load(), 0);
  EXPECT_EQ(webs::DullFileManager::openCount(), before);
}

}  // namespace
