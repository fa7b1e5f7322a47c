// Silence on a running transfer: a break request with 2 s of silence and
// the stall limits (seconds-long, hence labelled slow).
#include <string>

#include <gtest/gtest.h>

#include "http/transfer_harness.h"
#include "support/log_capture.h"
#include "support/wait.h"

namespace testsupport {
namespace {

TEST(MethodRequestStop, BreakBeforeTheFirstByteAlsoEndsAfterTwoSeconds) {
  Script s;
  s.headerDelayMs = 20000;
  ScriptedHttpServer server(s);
  BackgroundGet get;
  get.method.setBreak();
  get.run(server.url());
  ASSERT_TRUE(waitFor([&] { return get.done.load(); }, 10000));
  EXPECT_EQ(get.result.load(), webs::kResultBroken);
  EXPECT_GE(msSince(get.started), 1900);
  EXPECT_EQ(get.requestor.received(), 0);
}

// The short stall limit: each stall is cut after about 4 s.
TEST(MethodRequestStall, FeatureFlagOneCutsAStallAfterFourSeconds) {
  ScriptedHttpServer server(stallingAfter(100000, 30000));
  LogCapture log(-4);
  BackgroundGet get;
  get.method.setMethodFeatureFlag(1);
  get.run(server.url());
  ASSERT_TRUE(waitFor([&] { return get.done.load(); }, 15000));
  long long took = msSince(get.started);
  EXPECT_EQ(get.result.load(), webs::kResultStalled);
  EXPECT_GE(took, 3900);
  EXPECT_LT(took, 9000);
  EXPECT_EQ(get.requestor.received(), 100000);
  EXPECT_GE(log.countContaining("Too long time no data comes, the connection is die"), 1);
}

// Without the flag a stall is tolerated well past four seconds: a server
// that pauses 6 s and goes on completes.
TEST(MethodRequestStall, DefaultLimitRidesOutASixSecondStall) {
  ScriptedHttpServer server(stallingAfter(100000, 6000, 200000));
  BackgroundGet get;
  get.run(server.url());
  ASSERT_TRUE(waitFor([&] { return get.done.load(); }, 20000));
  EXPECT_EQ(get.result.load(), 0);
  EXPECT_TRUE(isPatternAt(get.requestor.bytes(), 0, 200000));
}

}  // namespace
}  // namespace testsupport
