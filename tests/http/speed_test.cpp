// Speed smoothing, throttling and the speed report.
#include <chrono>
#include <string>

#include <gtest/gtest.h>

#include "http/collecting_requestor.h"
#include "http/limit_speed.h"
#include "http/method_request.h"
#include "http/moving_average.h"
#include "support/log_capture.h"
#include "support/scripted_http_server.h"

using testsupport::CollectingRequestor;
using testsupport::LogCapture;
using testsupport::Script;
using testsupport::ScriptedHttpServer;

namespace {

using Clock = std::chrono::steady_clock;

long long msSince(Clock::time_point start) {
  return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count();
}

TEST(MovingAverage, FirstSampleIsReturnedAsIs) {
  for (long long sample : {0LL, 1LL, 5000LL, 123456789LL}) {
    webs::MovingAverage average(10);
    EXPECT_EQ(average.push(sample), sample);
  }
}

TEST(MovingAverage, SwingingSeriesIsDampedWithTheSpreadOverPathWeight) {
  // [100, 200]: path |100-0| + |200-100| = 200, spread 100, alpha 0.165;
  // 0.165 * 100 + 0.835 * 200 = 183.5, truncated.
  webs::MovingAverage average(10);
  average.push(100);
  EXPECT_EQ(average.push(200), 183);
  // A steady run: spread 0 gives alpha 0, the sample itself.
  webs::MovingAverage steady(10);
  for (int i = 0; i < 5; ++i) EXPECT_EQ(steady.push(4000), 4000);
}

TEST(MovingAverage, FullWindowDropsTheOldestIntoThePath) {
  // Capacity 2: after 100, 200 (avg 183) pushing 300 drops 100, so the path
  // is |200-100| + |300-200| = 200 and the spread 100: alpha 0.165;
  // 0.165 * 183 + 0.835 * 300 = 280.695.
  webs::MovingAverage average(2);
  average.push(100);
  average.push(200);
  EXPECT_EQ(average.push(300), 280);
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
  Script s;
  s.size = 200000;
  ScriptedHttpServer server(s);
  CollectingRequestor requestor;
  webs::MethodRequest m;
  m.initialize(&requestor, "");
  ASSERT_EQ(m.executeGet(server.url(), 0, 0, 1), 0);
  LogCapture log(0);
  long long speed = m.getSpeed();
  EXPECT_GT(speed, 0);
  EXPECT_EQ(log.countPrefix("handle:"), 1);
  bool meanLine = false;
  for (const auto& t : log.texts()) {
    meanLine = meanLine || t.find("show cal_avg_speed :" + std::to_string(speed)) != std::string::npos;
  }
  EXPECT_TRUE(meanLine);
}

TEST(SpeedReport, ExportedFreeGetSpeedIsZero) { EXPECT_EQ(::getSpeed(), 0); }

}  // namespace
