// Silence on a running transfer: a break request with 2 s of silence and
// the stall limits (seconds-long, hence labelled slow).
#include <atomic>
#include <chrono>
#include <thread>

#include <gtest/gtest.h>

#include "http/background_get.h"
#include "http/method_request.h"
#include "support/log_capture.h"
#include "support/scripted_http_server.h"
#include "support/wait.h"

using testsupport::BackgroundGet;
using testsupport::Clock;
using testsupport::msSince;
using testsupport::stallingAfter;
using testsupport::firstPatternMismatch;
using testsupport::LogCapture;
using testsupport::Script;
using testsupport::ScriptedHttpServer;
using testsupport::waitFor;

namespace {

TEST(MethodRequestStop, BreakBeforeTheFirstByteAlsoEndsAfterTwoSeconds) {
  Script s;
  s.headerDelayMs = 20000;
  ScriptedHttpServer server(s);
  BackgroundGet get;
  get.method.setBreak();
  get.run(server.url(), 0);
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
  get.run(server.url(), 0);
  ASSERT_TRUE(waitFor([&] { return get.done.load(); }, 15000));
  long long took = msSince(get.started);
  EXPECT_EQ(get.result.load(), webs::kResultStalled);
  EXPECT_GE(took, 3900);
  EXPECT_LT(took, 9000);
  EXPECT_EQ(get.requestor.received(), 100000);
  bool sawDie = false;
  for (const auto& line : log.texts()) {
    if (line.find("Too long time no data comes, the connection is die") != std::string::npos) {
      sawDie = true;
    }
  }
  EXPECT_TRUE(sawDie);
}

// Without the flag a stall is tolerated well past four seconds: a server
// that pauses 6 s and goes on completes.
TEST(MethodRequestStall, DefaultLimitRidesOutASixSecondStall) {
  Script s = stallingAfter(100000, 6000);
  s.size = 200000;
  ScriptedHttpServer server(s);
  BackgroundGet get;
  get.run(server.url(), 0);
  ASSERT_TRUE(waitFor([&] { return get.done.load(); }, 20000));
  EXPECT_EQ(get.result.load(), 0);
  std::string body = get.requestor.bytes();
  ASSERT_EQ(body.size(), 200000u);
  EXPECT_EQ(firstPatternMismatch(body.data(), 0, 200000), -1);
}

}  // namespace
