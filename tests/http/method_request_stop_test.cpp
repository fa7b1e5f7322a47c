// Ending a running transfer with stop() from another thread.
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

TEST(MethodRequestStop, StopEndsARunningTransferWith42AndWaitsForIt) {
  ScriptedHttpServer server(stallingAfter(65536, 20000));
  LogCapture log(1);
  BackgroundGet get;
  get.run(server.url(), 0);
  ASSERT_TRUE(waitFor([&] { return get.requestor.received() >= 65536; }, 10000));
  auto stopAt = Clock::now();
  get.method.stop();
  long long bytesAtStop = get.requestor.received();
  EXPECT_LT(msSince(stopAt), 5000);
  // stop() returned once the perform had ended: executeGet comes back at
  // once, no byte arrives after, and a second stop finds nothing active.
  EXPECT_TRUE(waitFor([&] { return get.done.load(); }, 1000));
  EXPECT_EQ(get.requestor.received(), bytesAtStop);
  EXPECT_TRUE(log.contains("notify curl to stop and wait stop end"));
  EXPECT_TRUE(log.contains("begin to break out from curl progress"));
  log.clear();
  get.method.stop();
  EXPECT_TRUE(log.contains("MethodRequest begin to stop active = 0"));
  get.thread.join();
  EXPECT_EQ(get.result.load(), CURLE_ABORTED_BY_CALLBACK);
  std::string body = get.requestor.bytes();
  EXPECT_EQ(firstPatternMismatch(body.data(), 0, static_cast<long long>(body.size())), -1);
}

TEST(MethodRequestStop, StopWithoutTransferReturnsAtOnceAndClearsStopWait) {
  webs::MethodRequest m;
  m.setStopWait();
  EXPECT_TRUE(m.getStopWait());
  m.stop();
  EXPECT_FALSE(m.getStopWait());
}

}  // namespace
