// A server that ignores Range and drops connections part-way, through the C
// interface: every restart begins at 0 and must carry the stream on from the
// end of the data held, byte-exact, within a bounded time.
#include <atomic>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "corvane/smart_file.h"
#include "source/smart_file_reading.h"
#include "support/pattern_check.h"
#include "support/wait.h"

namespace testsupport {
namespace {

struct DropCase {
  const char* name;
  long long size;
  long long dropAfter;
  int dropTimes;        // -1: every connection drops, so the read never gets there
  long long readTotal;  // bytes read from 0 in pieces of `piece`
  int piece;
};

class NonSeekableDrops : public ::testing::TestWithParam<DropCase> {};

TEST_P(NonSeekableDrops, EveryByteIsRightAndRestartsAreBounded) {
  const DropCase& c = GetParam();
  Script s;
  s.size = c.size;
  s.honourRange = false;
  s.dropAfter = c.dropAfter;
  s.dropTimes = c.dropTimes;
  ScriptedHttpServer server(s);
  Handle h(server.url("/f"));
  ASSERT_EQ(h.opened, SMFR_OK);
  ASSERT_EQ(x_smart_file_set_featureflag(h.id, 1), SMFR_OK);

  std::string bytes;
  int code = 0;
  std::atomic<bool> done{false};
  std::thread reader([&] {
    bytes = readBytes(h.id, c.readTotal, c.piece, &code);
    done = true;
  });
  // A hang fails the test instead of the run: closing breaks a blocked read.
  bool finished = waitFor([&] { return done.load(); }, 30000);
  if (!finished) h.close();
  reader.join();
  ASSERT_TRUE(finished) << "read still blocked after 30 s, got " << bytes.size();
  EXPECT_TRUE(isPatternAt(bytes, 0, static_cast<long long>(bytes.size())));
  if (c.dropTimes >= 0) {
    EXPECT_EQ(static_cast<long long>(bytes.size()), c.readTotal) << "last code " << code;
    // One restart per drop and a few spare, never a storm.
    EXPECT_LE(server.requestCount(), c.dropTimes + 4);
  } else {
    // The read fails after a bounded number of tries.
    EXPECT_LT(static_cast<long long>(bytes.size()), c.readTotal);
    EXPECT_NE(code, SMFR_OK);
    EXPECT_LE(server.requestCount(), 10);
  }
}

INSTANTIATE_TEST_SUITE_P(
    Drops, NonSeekableDrops,
    ::testing::Values(
        DropCase{"TwoDropsInsideTheFirstBlockSpan", 5 << 20, 200000, 2, 240000, 60000},
        DropCase{"OneDropThenTheWholeContent", 1 << 20, 300000, 1, 1 << 20, 50000},
        DropCase{"DropsPastTheBuffersReach", 3 << 20, 700000, 3, 3 << 20, 64000},
        DropCase{"ServerThatNeverGetsThere", 1 << 20, 200000, -1, 300000, 60000}),
    [](const ::testing::TestParamInfo<DropCase>& p) { return std::string(p.param.name); });

}  // namespace
}  // namespace testsupport
