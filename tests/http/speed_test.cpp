// Speed smoothing, throttling and the speed report.
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "http/limit_speed.h"
#include "http/moving_average.h"
#include "http/transfer_harness.h"
#include "support/log_capture.h"

namespace testsupport {
namespace {

TEST(MovingAverage, EachPushAnswersTheSmoothedRate) {
  struct Case {
    int capacity;
    std::vector<long long> pushes;
    std::vector<long long> answers;
  };
  const Case cases[] = {
      // A first sample is answered as it is.
      {10, {0}, {0}},
      {10, {1}, {1}},
      {10, {5000}, {5000}},
      {10, {123456789}, {123456789}},
      // [100, 200]: path |100-0| + |200-100| = 200, spread 100, alpha 0.165;
      // 0.165 * 100 + 0.835 * 200 = 183.5, truncated.
      {10, {100, 200}, {100, 183}},
      // A steady run: spread 0 gives alpha 0, the sample itself.
      {10, {4000, 4000, 4000, 4000, 4000}, {4000, 4000, 4000, 4000, 4000}},
      // Capacity 2: pushing 300 drops 100, so the path is |200-100| +
      // |300-200| = 200 and the spread 100: 0.165 * 183 + 0.835 * 300 = 280.695.
      {2, {100, 200, 300}, {100, 183, 280}},
  };
  for (const Case& c : cases) {
    webs::MovingAverage average(c.capacity);
    std::vector<long long> answers;
    for (long long sample : c.pushes) answers.push_back(average.push(sample));
    EXPECT_EQ(answers, c.answers) << c.pushes.back();
  }
}

TEST(LimitSpeed, NoLimitNeverSleeps) {
  webs::LimitSpeed limiter;
  auto start = Clock::now();
  limiter.Limitspeed(100u * 1024 * 1024);
  EXPECT_LT(msSince(start), 100);
  EXPECT_EQ(limiter.getAllSize(), 100LL * 1024 * 1024);
}

TEST(LimitSpeed, SleepsUntilTheBytesFitTheLimit) {
  webs::LimitSpeed limiter;
  limiter.setMaxSpeed(1000000);
  auto start = Clock::now();
  limiter.InitSpeed();
  limiter.Limitspeed(150000);  // 150 ms worth
  limiter.Limitspeed(150000);  // 300 ms worth in total
  long long took = msSince(start);
  EXPECT_GE(took, 280);
  EXPECT_LT(took, 1500);
  limiter.CalAvgSpeed();
  EXPECT_GT(limiter.GetAvgSpeed(), 200000);
  EXPECT_LE(limiter.GetAvgSpeed(), 1100000);
}

TEST(LimitSpeed, LogsWantAndActual) {
  webs::LimitSpeed limiter;
  limiter.setMaxSpeed(1000000000);
  limiter.InitSpeed();
  LogCapture log(2);
  limiter.Limitspeed(1000);
  EXPECT_EQ(log.countPrefix("allsize:1000, want_ms  = 0, actual_ms = "), 1);
}

TEST(SpeedReport, ShortTransferReportsTheMeanRate) {
  // Some milliseconds long: a transfer within one millisecond tick leaves no
  // time for the mean (another report), one over a second a smoothed figure.
  Script s = sized(200000);
  s.trickleBytes = 50000;
  s.trickleMs = 5;
  ScriptedHttpServer server(s);
  Transfer t;
  ASSERT_EQ(t.get(server.url()), 0);
  LogCapture log(0);
  long long speed = t.method.getSpeed();
  EXPECT_GT(speed, 0);
  EXPECT_EQ(log.countPrefix("handle:"), 1);
  EXPECT_EQ(log.countContaining("show cal_avg_speed :" + std::to_string(speed)), 1);
}

}  // namespace
}  // namespace testsupport
