#include <atomic>
#include <chrono>
#include <memory>
#include <mutex>
#include <vector>

#include <gtest/gtest.h>

#include "support/log_capture.h"
#include "support/wait.h"
#include "thread/rude_timer.h"

using testsupport::Gate;
using testsupport::LogCapture;
using testsupport::waitFor;

namespace {

struct Calls {
  std::mutex mutex;
  std::vector<void*> args;
  Gate* gate = nullptr;
  int size() {
    std::lock_guard<std::mutex> lock(mutex);
    return static_cast<int>(args.size());
  }
};
Calls* gCalls = nullptr;

void record(void* arg) {
  {
    std::lock_guard<std::mutex> lock(gCalls->mutex);
    gCalls->args.push_back(arg);
  }
  if (gCalls->gate) gCalls->gate->pass();
}

class RudeTimerTest : public ::testing::Test {
 protected:
  void SetUp() override { gCalls = &calls; }
  void TearDown() override { gCalls = nullptr; }
  Calls calls;
  int first = 1, second = 2;
};

double secondsOf(void (*f)(int), int ms) {
  auto begin = std::chrono::steady_clock::now();
  f(ms);
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
}

TEST(Delay, SleepsWholeSecondsOnly) {
  EXPECT_LT(secondsOf(&util::delay, 999), 0.5);
  EXPECT_LT(secondsOf(&util::delay, 100), 0.5);
  double oneAndHalf = secondsOf(&util::delay, 1500);
  EXPECT_GE(oneAndHalf, 0.95);
  EXPECT_LT(oneAndHalf, 1.9);
}

TEST_F(RudeTimerTest, TooShortPeriodWarnsAndIsKept) {
  LogCapture log(0);
  util::RudeTimer timer(50, false, &record);
  EXPECT_TRUE(log.contains("Error setting, the give timer time is too little:50 mseconds"));
  timer.start(&first);
  ASSERT_TRUE(waitFor([&] { return calls.size() == 1; }));
  EXPECT_TRUE(log.waitFor("Timer out:100 ~ 50"));
  EXPECT_TRUE(waitFor([&] { return !timer.isActive(); }));
}

TEST_F(RudeTimerTest, OneShotStartedTwiceWhileCountingCallsOnceWithTheFirstArgument) {
  LogCapture log(0);
  Gate gate;
  calls.gate = &gate;
  util::RudeTimer timer(1000, false, &record);
  timer.start(&first);
  timer.start(&second);  // before the callback has returned: only the count restarts
  gate.open();
  ASSERT_TRUE(waitFor([&] { return calls.size() == 1 && !timer.isActive(); }));
  EXPECT_TRUE(testsupport::staysFalse([&] { return calls.size() > 1; }, 200));
  EXPECT_EQ(calls.args[0], &first);
}

TEST_F(RudeTimerTest, StopDuringTheCountdownPreventsTheCallback) {
  LogCapture log(0);
  // The 100 ms steps do not sleep, so only a very long period gives the
  // countdown enough passes to be interrupted.
  util::RudeTimer timer(2000000000, false, &record);
  timer.start(&first);
  ASSERT_TRUE(log.waitFor("RudeTimer run loop"));
  timer.stop();
  ASSERT_TRUE(waitFor([&] { return log.countPrefix("Timer is interrupted:") == 1; }));
  EXPECT_FALSE(timer.isActive());
  EXPECT_EQ(calls.size(), 0);
}

TEST_F(RudeTimerTest, RepeatingTimerFiresOnEveryPassAfterExpiryUntilStopped) {
  LogCapture log(0);
  util::RudeTimer timer(300, true, &record);
  timer.start(&first);
  ASSERT_TRUE(waitFor([&] { return calls.size() >= 5; }));
  EXPECT_TRUE(log.contains("Timer out:300 ~ 300"));
  timer.stop();
  ASSERT_TRUE(waitFor([&] { return log.countPrefix("Timer is interrupted:") == 1 || log.contains("thread begin to sleep"); }));
  int settled = calls.size();
  EXPECT_TRUE(testsupport::staysFalse([&] { return calls.size() > settled; }, 200));
}

TEST_F(RudeTimerTest, ALaterStartWakesTheSameWorkerWithTheNewArgument) {
  LogCapture log(0);
  util::RudeTimer timer(200, false, &record);
  timer.start(&first);
  ASSERT_TRUE(log.waitFor("thread begin to sleep"));
  timer.start(&second);
  ASSERT_TRUE(waitFor([&] { return calls.size() == 2; }));
  EXPECT_EQ(calls.args[1], &second);
  EXPECT_EQ(log.count("create thread 0"), 1);
  EXPECT_TRUE(log.contains("Tend to wake up or restart thread, sleep:1, alive:0"));
}

TEST_F(RudeTimerTest, DestroyingAStoppedTimerEndsItsThread) {
  LogCapture log(0);
  auto timer = std::make_unique<util::RudeTimer>(200, false, &record);
  timer->start(&first);
  ASSERT_TRUE(waitFor([&] { return calls.size() == 1; }));
  timer->stop();
  timer.reset();
  EXPECT_TRUE(log.contains("begin to stop timer thread"));
  EXPECT_TRUE(log.waitFor("destroy thread"));
}

}  // namespace
