// A server that ignores Range and drops connections part-way, through the C
// interface: every restart begins at 0 and must carry the stream on from the
// end of the data held, byte-exact, within a bounded time.
#include <atomic>
#include <ostream>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "corvane/smart_file.h"
#include "source/smart_file_reading.h"
#include "support/pattern_check.h"
#include "support/wait.h"

namespace testsupport {
namespace {

struct DropCase {
  const char* name;
  bool honourRange;
  long long size;
  std::vector<long long> dropPlan;  // per connection, body bytes before the close
  long long readTotal;              // bytes read from 0 in pieces of `piece`
  int piece;
  bool completes;                   // false: the read must fail, in bounded time and tries
  std::vector<long long> starts;    // where the connections start (empty: not checked)
};

void PrintTo(const DropCase& c, std::ostream* os) { *os << c.name; }

class DroppedConnections : public ::testing::TestWithParam<DropCase> {};

TEST_P(DroppedConnections, EveryByteIsRightAndRestartsAreBounded) {
  const DropCase& c = GetParam();
  Script s;
  s.size = c.size;
  s.honourRange = c.honourRange;
  s.dropPlan = c.dropPlan;
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
  if (c.completes) {
    EXPECT_EQ(static_cast<long long>(bytes.size()), c.readTotal) << "last code " << code;
    EXPECT_EQ(x_smart_file_size(h.id), c.size);
    // One restart per drop and a few spare, never a storm.
    EXPECT_LE(server.requestCount(), static_cast<int>(c.dropPlan.size()) + 4);
  } else {
    // The read fails after a bounded number of tries.
    EXPECT_LT(static_cast<long long>(bytes.size()), c.readTotal);
    EXPECT_NE(code, SMFR_OK);
    EXPECT_NE(code, SMFR_EOF);
    EXPECT_LE(server.requestCount(), 10);
  }
  if (!c.starts.empty()) {
    EXPECT_EQ(rangeStarts(server, "/f"), c.starts);
  }
}

INSTANTIATE_TEST_SUITE_P(
    Drops, DroppedConnections,
    ::testing::Values(
        // Servers that ignore ranges: every restart begins at 0 on the wire.
        DropCase{"TwoDropsInsideTheFirstBlockSpan", false, 5 << 20, {200000, 200000, -1},
                 240000, 60000, true, {}},
        DropCase{"OneDropThenTheWholeContent", false, 1 << 20, {300000, -1}, 1 << 20, 50000,
                 true, {}},
        DropCase{"DropsPastTheBuffersReach", false, 3 << 20, {700000, 700000, 700000, -1},
                 3 << 20, 64000, true, {}},
        DropCase{"ServerThatNeverGetsThere", false, 1 << 20, {200000}, 300000, 60000, false,
                 {}},
        // A connection that brings no byte says nothing about the size: the
        // next one starts where the held data ends.
        DropCase{"HeadersThenDrop", true, 1 << 20, {0, -1}, 1 << 20, 50000, true, {0, 0}},
        DropCase{"DropAtOnceMidFile", true, 1 << 20, {300000, 0, -1}, 1 << 20, 50000, true,
                 {0, 300000, 300000}},
        DropCase{"AlwaysDropsAtOnceMidFile", true, 1 << 20, {300000, 0}, 1 << 20, 50000,
                 false, {}}),
    [](const ::testing::TestParamInfo<DropCase>& p) { return std::string(p.param.name); });

}  // namespace
}  // namespace testsupport
