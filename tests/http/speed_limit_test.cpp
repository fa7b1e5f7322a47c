// A speed limit holds a real transfer down (seconds-long, labelled slow).
#include <chrono>
#include <string>

#include <gtest/gtest.h>

#include "http/collecting_requestor.h"
#include "http/method_request.h"
#include "support/log_capture.h"
#include "support/scripted_http_server.h"

using testsupport::CollectingRequestor;
using testsupport::firstPatternMismatch;
using testsupport::LogCapture;
using testsupport::Script;
using testsupport::ScriptedHttpServer;

namespace {

TEST(SpeedLimit, TwoHundredKiBPerSecondHoldsOneMiBToAboutFiveSeconds) {
  Script s;
  s.size = 1 << 20;
  ScriptedHttpServer server(s);
  CollectingRequestor requestor;
  webs::MethodRequest m;
  m.initialize(&requestor, "");
  m.setSpeed(200 * 1024);
  LogCapture log(0);
  auto start = std::chrono::steady_clock::now();
  ASSERT_EQ(m.executeGet(server.url(), 0, 0, 1), 0);
  long long took = std::chrono::duration_cast<std::chrono::milliseconds>(
                       std::chrono::steady_clock::now() - start).count();
  // The limiter paces what has arrived, so the last chunk may land before
  // its pause ends: about 5 s, bounded loosely.
  EXPECT_GE(took, 3500);
  EXPECT_LT(took, 9000);
  std::string body = requestor.bytes();
  ASSERT_EQ(body.size(), 1u << 20);
  EXPECT_EQ(firstPatternMismatch(body.data(), 0, 1 << 20), -1);

  // Intervals of a second were measured, so the report is the smoothed rate.
  long long speed = m.getSpeed();
  EXPECT_GT(speed, 100 * 1024);
  EXPECT_LT(speed, 400 * 1024);
  bool dash = false;
  for (const auto& t : log.texts()) dash = dash || t.find("show dash_speed :") != std::string::npos;
  EXPECT_TRUE(dash);
  EXPECT_GE(log.countPrefix("handle:"), 4);  // interval lines and the end-of-transfer line
}

}  // namespace
