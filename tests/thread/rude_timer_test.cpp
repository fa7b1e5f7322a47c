#include <atomic>
#include <chrono>
#include <memory>

#include <gtest/gtest.h>

#include "support/log_capture.h"
#include "support/wait.h"
#include "thread/rude_timer.h"

using testsupport::Gate;
using testsupport::LogCapture;
using testsupport::waitFor;

namespace {

// What the timer callbacks saw: how often they ran and the last argument.
std::atomic<int> gCalls{0};
std::atomic<void*> gLastArg{nullptr};
Gate* gGate = nullptr;  // set before the timer starts

void record(void* arg) {
  gLastArg = arg;
  ++gCalls;
  if (gGate) gGate->pass();
}

class RudeTimerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    gCalls = 0;
    gGate = nullptr;
  }
  int first = 1, second = 2;
};

TEST(Delay, SleepsWholeSecondsOnly) {
  for (int ms : {100, 999, 1500}) {
    auto begin = std::chrono::steady_clock::now();
    util::delay(ms);
    double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
    EXPECT_GE(seconds, ms / 1000 - 0.05) << ms;
    EXPECT_LT(seconds, ms / 1000 + 0.9) << ms;
  }
}

TEST_F(RudeTimerTest, OneShotStartedTwiceWhileCountingCallsOnceWithTheFirstArgument) {
  Gate gate;
  gGate = &gate;
  util::RudeTimer timer(1000, false, &record);
  timer.start(&first);
  timer.start(&second);  // before the callback has returned: only the count restarts
  gate.open();
  ASSERT_TRUE(waitFor([&] { return gCalls == 1 && !timer.isActive(); }));
  EXPECT_TRUE(testsupport::staysFalse([&] { return gCalls > 1; }, 200));
  EXPECT_EQ(gLastArg.load(), &first);
}

TEST_F(RudeTimerTest, StopDuringTheCountdownPreventsTheCallback) {
  LogCapture log(0);
  // The 100 ms steps do not sleep, so only a very long period gives the
  // countdown enough passes to be interrupted.
  util::RudeTimer timer(2000000000, false, &record);
  // A stop that lands between "RudeTimer run loop" and the pass's first
  // look at the active flag finds no count in progress: the worker ends
  // without a line and sleeps. Then the test starts the timer again.
  bool interrupted = false;
  for (int attempt = 1; attempt <= 5 && !interrupted; ++attempt) {
    timer.start(&first);
    ASSERT_TRUE(waitFor([&] { return log.count("RudeTimer run loop") == attempt; }));
    timer.stop();
    ASSERT_TRUE(waitFor([&] {
      return log.countPrefix("Timer is interrupted:") == 1 ||
             log.count("thread begin to sleep") == attempt;
    }, 30000));
    interrupted = log.countPrefix("Timer is interrupted:") == 1;
  }
  EXPECT_TRUE(interrupted);
  EXPECT_FALSE(timer.isActive());
  EXPECT_EQ(gCalls.load(), 0);
}

TEST_F(RudeTimerTest, RepeatingTimerFiresOnEveryPassAfterExpiryUntilStopped) {
  LogCapture log(0);
  util::RudeTimer timer(300, true, &record);
  timer.start(&first);
  ASSERT_TRUE(waitFor([&] { return gCalls >= 5; }));
  EXPECT_TRUE(log.contains("Timer out:300 ~ 300"));
  timer.stop();
  ASSERT_TRUE(waitFor([&] { return log.countPrefix("Timer is interrupted:") == 1 || log.contains("thread begin to sleep"); }));
  int settled = gCalls;
  EXPECT_TRUE(testsupport::staysFalse([&] { return gCalls > settled; }, 200));
}

// A period under 100 ms is warned about and kept.
TEST_F(RudeTimerTest, ShortPeriodIsKeptALaterStartWakesTheSameWorkerAndDestroyingEndsIt) {
  LogCapture log(0);
  auto timer = std::make_unique<util::RudeTimer>(50, false, &record);
  EXPECT_TRUE(log.contains("Error setting, the give timer time is too little:50 mseconds"));
  timer->start(&first);
  ASSERT_TRUE(log.waitFor("thread begin to sleep"));
  EXPECT_TRUE(log.contains("Timer out:100 ~ 50"));
  EXPECT_FALSE(timer->isActive());
  timer->start(&second);
  ASSERT_TRUE(waitFor([&] { return gCalls == 2; }));
  EXPECT_EQ(gLastArg.load(), &second);
  EXPECT_EQ(log.count("create thread 0"), 1);
  EXPECT_TRUE(log.contains("Tend to wake up or restart thread, sleep:1, alive:0"));
  timer->stop();
  timer.reset();
  EXPECT_TRUE(log.contains("begin to stop timer thread"));
  EXPECT_TRUE(log.waitFor("destroy thread"));
}

}  // namespace
