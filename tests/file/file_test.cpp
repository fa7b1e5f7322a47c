// SmartFile's rules through the C interface: seeks on a stream that cannot
// be read at random, and many threads on shared files at once.
#include <atomic>
#include <random>
#include <thread>

#include "corvane/smart_file.h"
#include "file/dull_file_manager.h"
#include "support/scripted_http_server.h"

namespace testsupport {
namespace {

TEST(NonSeekable, SeeksFartherThanOneMebibyteAreBusyAndBytesComeInOrder) {
  ScriptedHttpServer server(Script(8000000, false));
  const struct {
    long long from, to;
    int result;
  } cases[] = {{0, 1048576, SMFR_OK},       {0, 1048577, SMFR_BUSY},
               {5000000, 1048576, SMFR_OK}, {5000000, 6048577, SMFR_BUSY},
               {5000000, 6048576, SMFR_OK}};
  for (const auto& c : cases) {
    Handle h(server.url());
    long long cur = 0;
    for (long long p = 0; p < c.from; p = std::min(c.from, p + 1048576)) {
      ASSERT_EQ(x_smart_file_seek(h.id, std::min(c.from, p + 1048576), &cur), SMFR_OK);
    }
    LogCapture log(0);
    EXPECT_EQ(x_smart_file_seek(h.id, c.to, &cur), c.result) << c.from << " -> " << c.to;
    EXPECT_EQ(cur, c.to);  // written even when refused
    long long at = c.result == SMFR_OK ? c.to : c.from;
    EXPECT_EQ(x_smart_file_offset(h.id), at);
    if (c.result == SMFR_BUSY) {
      EXPECT_TRUE(log.contains("lumora seek busy: range:" + std::to_string(c.to - c.from) +
                               ", new position:" + std::to_string(c.to)));
    }
    int code = 0;
    EXPECT_TRUE(isPatternAt(readBytes(h.id, 100000, 40000, &code), at, 100000)) << code;
  }
}

// Queues opened, read and closed at once share the block pools and the
// task engine: every byte must still be right.
TEST(Concurrency, EightThreadsOnThreeSharedFilesReadExactBytes) {
  TempDir dir;
  const long long sizes[3] = {3000000, 1234567, 65536 * 7 + 3};
  std::string paths[3];
  for (int i = 0; i < 3; ++i) paths[i] = dir.writePattern("f" + std::to_string(i), sizes[i]);
  const int before = webs::DullFileManager::openCount();
  std::atomic<long long> bad{0}, reads{0};
  auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(2);
  std::vector<std::thread> threads;
  for (int t = 0; t < 8; ++t) {
    threads.emplace_back([&, t] {
      std::mt19937 rng(static_cast<unsigned>(t * 7919 + 1));
      std::vector<char> buf(70000);
      while (std::chrono::steady_clock::now() < deadline) {
        int f = static_cast<int>(rng() % 3);
        int h = 0;
        bad += x_smart_file_open(paths[f].c_str(), &h) != SMFR_OK;
        for (int step = 0; step < 6; ++step) {
          long long pos = static_cast<long long>(rng() % static_cast<unsigned>(sizes[f]));
          long long cur = 0;
          bad += x_smart_file_seek(h, pos, &cur) != SMFR_OK || cur != pos;
          int n = 1 + static_cast<int>(rng() % 70000);
          unsigned long got = 0;
          int r = x_smart_file_read(h, buf.data(), n, &got);
          bad += (r != SMFR_OK && r != SMFR_EOF) ||
                 static_cast<long long>(got) != std::min<long long>(n, sizes[f] - pos) ||
                 firstPatternMismatch(buf.data(), pos, static_cast<long long>(got)) != -1;
          ++reads;
        }
        bad += x_smart_file_close(h) != SMFR_OK;
      }
    });
  }
  for (std::thread& t : threads) t.join();
  EXPECT_GT(reads.load(), 100);
  EXPECT_EQ(bad.load(), 0);
  EXPECT_EQ(webs::DullFileManager::openCount(), before);
}

}  // namespace
}  // namespace testsupport
