// ThreadObject: one run per start, restarts while running, pauses, forced
// stops and destruction, seen through the routine and the log.
#include <atomic>
#include <memory>
#include <thread>

#include <gtest/gtest.h>

#include "support/log_capture.h"
#include "support/wait.h"
#include "thread/thread_object.h"

using testsupport::Gate;
using testsupport::LogCapture;
using testsupport::waitFor;

namespace {

// What the worker routine sees; the routine blocks on the gate when one is set.
struct Probe {
  std::atomic<int> runs{0};
  std::atomic<int> exitSeen{0};  // runs that saw needExit() true at their end
  Gate* gate = nullptr;
  util::ThreadObject* self = nullptr;
};

void* routine(void* arg) {
  Probe* probe = static_cast<Probe*>(arg);
  ++probe->runs;
  if (probe->gate) probe->gate->pass();
  if (probe->self && probe->self->needExit()) ++probe->exitSeen;
  return nullptr;
}

class ThreadObjectTest : public ::testing::Test {
 protected:
  ThreadObjectTest() { probe.self = &worker; }
  // Starts the worker with its routine held at the gate and waits for the run.
  void startBlocked() {
    probe.gate = &gate;
    ASSERT_TRUE(worker.start(&probe));
    ASSERT_TRUE(waitFor([&] { return probe.runs == 1; }));
  }
  LogCapture log{0};
  Gate gate;
  Probe probe;
  util::ThreadObject worker{&routine};
};

TEST_F(ThreadObjectTest, RunsOncePerStartAndSleepsBetweenRuns) {
  ASSERT_TRUE(worker.start(&probe));
  EXPECT_TRUE(log.contains("create thread 0"));
  ASSERT_TRUE(log.waitFor("thread begin to sleep"));
  EXPECT_EQ(probe.runs, 1);
  EXPECT_EQ(probe.exitSeen, 1);

  ASSERT_TRUE(worker.start(&probe));
  // Waking a sleeper goes on into the re-alive step: both lines appear.
  EXPECT_TRUE(log.contains("Tend to wake up or restart thread, sleep:1, alive:0"));
  EXPECT_TRUE(log.contains("re-alive a thread before it is going to sleep"));
  ASSERT_TRUE(log.waitFor("thread begin to sleep", 2));
  EXPECT_EQ(probe.runs, 2);
  EXPECT_TRUE(log.contains("thread woken up"));
  EXPECT_TRUE(log.contains("thread continues next loop"));
}

TEST_F(ThreadObjectTest, StartWhileRunningRunsOnceMoreAndASecondRequestIsRefused) {
  startBlocked();
  EXPECT_TRUE(worker.start(&probe));  // re-alive while the routine runs
  EXPECT_TRUE(log.contains("re-alive a thread before it is going to sleep"));
  EXPECT_FALSE(worker.start(&probe));  // requested and not yet begun
  EXPECT_EQ(log.count("error, has already started"), 1);
  gate.open();
  ASSERT_TRUE(log.waitFor("thread begin to sleep"));
  EXPECT_EQ(probe.runs, 2);
  EXPECT_TRUE(log.contains("thread continues next loop 1"));
  // The first run was restarted meanwhile, so it did not see an exit request.
  EXPECT_EQ(probe.exitSeen, 1);
}

TEST_F(ThreadObjectTest, PauseClearsAPendingRequest) {
  startBlocked();
  ASSERT_TRUE(worker.start(&probe));
  worker.stop(false);
  EXPECT_TRUE(log.contains("stop OK"));
  gate.open();
  ASSERT_TRUE(log.waitFor("thread begin to sleep"));
  EXPECT_EQ(probe.runs, 1);
}

TEST_F(ThreadObjectTest, StopsOfANeverStartedObjectAndStartsAfterAForcedStop) {
  worker.stop(false);
  worker.stop(true);
  EXPECT_EQ(log.texts(), (std::vector<std::string>{"1", "have already paused", "1",
                                                   "hasn't ever started"}));
  util::ThreadObject used(&routine);
  probe.self = &used;
  ASSERT_TRUE(used.start(&probe));
  ASSERT_TRUE(log.waitFor("thread begin to sleep"));
  used.stop(true);
  EXPECT_TRUE(log.contains("wait for thread object to be destroyed"));
  EXPECT_FALSE(used.start(&probe));
  EXPECT_TRUE(log.contains("The thread has been froced to destroyed yet, start failed 0"));
  used.stop(true);
  EXPECT_TRUE(log.contains("have already stopped"));
  EXPECT_EQ(probe.runs, 1);
}

// Destroying the object ends its thread without another run, whether the
// thread sleeps or its routine is still running (then it waits for the run).
TEST(ThreadObject, DestroyingEndsTheThreadSleepingOrRunning) {
  for (bool running : {false, true}) {
    SCOPED_TRACE(running);
    LogCapture log(0);
    Gate gate;
    Probe probe;
    if (running) probe.gate = &gate;
    auto worker = std::make_unique<util::ThreadObject>(&routine);
    ASSERT_TRUE(worker->start(&probe));
    ASSERT_TRUE(waitFor([&] { return probe.runs == 1; }));
    if (!running) {
      ASSERT_TRUE(log.waitFor("thread begin to sleep"));
    }
    std::thread opener([&] {
      if (running) log.waitFor("wait for thread object to be destroyed");
      gate.open();
    });
    worker.reset();
    opener.join();
    EXPECT_TRUE(log.contains("stop OK"));
    EXPECT_TRUE(log.waitFor("attached end "));
    EXPECT_TRUE(log.contains("destroy thread"));
    EXPECT_EQ(probe.runs, 1);
  }
}

}  // namespace
