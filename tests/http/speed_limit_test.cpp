// A speed limit holds a real transfer down (seconds-long, labelled slow).
#include <gtest/gtest.h>

#include "http/transfer_harness.h"
#include "support/log_capture.h"

namespace testsupport {
namespace {

TEST(SpeedLimit, TwoHundredKiBPerSecondHoldsOneMiBToAboutFiveSeconds) {
  ScriptedHttpServer server(sized(1 << 20));
  Transfer t;
  t.method.setSpeed(200 * 1024);
  LogCapture log(0);
  auto start = Clock::now();
  ASSERT_EQ(t.get(server.url()), 0);
  long long took = msSince(start);
  // The limiter paces what has arrived, so the last chunk may land before
  // its pause ends: about 5 s, bounded loosely.
  EXPECT_GE(took, 3500);
  EXPECT_LT(took, 9000);
  EXPECT_TRUE(isPatternAt(t.requestor.bytes(), 0, 1 << 20));

  // Intervals of a second were measured, so the report is the smoothed rate.
  long long speed = t.method.getSpeed();
  EXPECT_GT(speed, 100 * 1024);
  EXPECT_LT(speed, 400 * 1024);
  EXPECT_GE(log.countContaining("show dash_speed :"), 1);
  EXPECT_GE(log.countPrefix("handle:"), 4);  // interval lines and the end-of-transfer line
}

}  // namespace
}  // namespace testsupport
