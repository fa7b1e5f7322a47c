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

TEST(ThreadObject, RunsOncePerStartAndSleepsBetweenRuns) {
  LogCapture log(0);
  Probe probe;
  util::ThreadObject worker(&routine);
  probe.self = &worker;
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

// Starts `worker` on `probe` (whose gate is closed) and waits for the run.
void startBlocked(util::ThreadObject& worker, Probe& probe) {
  ASSERT_TRUE(worker.start(&probe));
  ASSERT_TRUE(waitFor([&] { return probe.runs == 1; }));
}

TEST(ThreadObject, StartWhileRunningRunsOnceMoreAndASecondRequestIsRefused) {
  LogCapture log(0);
  Gate gate;
  Probe probe;
  probe.gate = &gate;
  util::ThreadObject worker(&routine);
  probe.self = &worker;
  startBlocked(worker, probe);
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

TEST(ThreadObject, PauseClearsAPendingRequest) {
  LogCapture log(0);
  Gate gate;
  Probe probe;
  probe.gate = &gate;
  util::ThreadObject worker(&routine);
  startBlocked(worker, probe);
  ASSERT_TRUE(worker.start(&probe));
  worker.stop(false);
  EXPECT_TRUE(log.contains("stop OK"));
  gate.open();
  ASSERT_TRUE(log.waitFor("thread begin to sleep"));
  EXPECT_EQ(probe.runs, 1);
}

TEST(ThreadObject, StopsOfANeverStartedObjectAndStartsAfterAForcedStop) {
  LogCapture log(0);
  util::ThreadObject idle(&routine);
  idle.stop(false);
  idle.stop(true);
  EXPECT_EQ(log.texts(), (std::vector<std::string>{"1", "have already paused", "1",
                                                   "hasn't ever started"}));
  Probe probe;
  util::ThreadObject worker(&routine);
  ASSERT_TRUE(worker.start(&probe));
  ASSERT_TRUE(log.waitFor("thread begin to sleep"));
  worker.stop(true);
  EXPECT_TRUE(log.contains("wait for thread object to be destroyed"));
  EXPECT_FALSE(worker.start(&probe));
  EXPECT_TRUE(log.contains("The thread has been froced to destroyed yet, start failed 0"));
  worker.stop(true);
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
    startBlocked(*worker, probe);
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
