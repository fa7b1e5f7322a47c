// The task engine (six executors, one queue, withdrawal) and ThreadObject
// (one run per start, pauses, stops).
#include <atomic>
#include <memory>
#include <thread>

#include "support/support.h"
#include "thread/thread_engine.h"
#include "thread/thread_object.h"

namespace testsupport {
namespace {

using util::ThreadEngine;

struct Job {
  std::atomic<int> executed{0}, cancelled{0}, startedAs{0};
  Gate* gate = nullptr;
};
std::atomic<int> gRunning{0}, gMost{0}, gStarted{0};

void runJob(void* arg, util::TEngineEvent_E event) {
  Job* job = static_cast<Job*>(arg);
  if (event != util::TENGINE_EVENT_EXECUTE) {
    ++job->cancelled;
    return;
  }
  int now = ++gRunning;
  for (int most = gMost; now > most && !gMost.compare_exchange_weak(most, now);) {
  }
  job->startedAs = ++gStarted;
  if (job->gate) job->gate->pass();
  ++job->executed;
  --gRunning;
}

TEST(ThreadEngine, SixAtOnceTheRestInOrderAndWithdrawals) {
  ThreadEngine& engine = ThreadEngine::_INS_;
  engine.initialize();
  Gate first, blocker;
  std::unique_ptr<Job[]> jobs(new Job[20]);
  jobs[0].gate = &first;
  for (int i = 1; i < 6; ++i) jobs[i].gate = &blocker;
  for (int i = 0; i < 6; ++i) engine.requestExecute(&runJob, &jobs[i], nullptr);
  ASSERT_TRUE(waitFor([&] { return gRunning == 6; }));
  EXPECT_TRUE(staysFalse([&] { return gStarted > 6; }, 200));
  // Queued behind the six: withdrawn by argument (the first pending only)
  // or by sender; never a running one.
  int senderA = 0, senderB = 0;
  engine.requestExecute(&runJob, &jobs[14], &senderA);
  engine.requestExecute(&runJob, &jobs[15], &senderB);
  engine.requestExecute(&runJob, &jobs[16], &senderA);
  engine.requestExecute(&runJob, &jobs[17], nullptr);
  engine.requestExecute(&runJob, &jobs[17], nullptr);
  EXPECT_FALSE(engine.cancel(&jobs[1]));
  EXPECT_TRUE(engine.cancel(&jobs[17]));
  EXPECT_EQ(engine.cancelAll(&senderA), 2);
  EXPECT_EQ(engine.cancelAll(&senderA), 0);
  EXPECT_EQ(engine.cancelAll(), 2);  // B's and 17's second, dropped without a report
  for (int i = 6; i < 14; ++i) {
    if (i % 2) {
      engine.requestExecuteOrderly(&runJob, &jobs[i], nullptr);
    } else {
      engine.requestExecute(&runJob, &jobs[i], nullptr);
    }
  }
  first.open();
  // With one executor free the rest run one after another, in order.
  ASSERT_TRUE(waitFor([&] { return jobs[13].executed == 1; }));
  for (int i = 6; i < 14; ++i) EXPECT_EQ(jobs[i].startedAs, i + 1) << i;
  blocker.open();
  ASSERT_TRUE(waitFor([&] { return gRunning == 0; }));
  EXPECT_EQ(gMost, 6);
  const int cancelled[] = {1, 0, 1, 1};
  for (int i = 14; i < 18; ++i) {
    EXPECT_EQ(jobs[i].cancelled, cancelled[i - 14]) << i;
    EXPECT_EQ(jobs[i].executed, 0) << i;
  }
}

struct Probe {
  std::atomic<int> runs{0}, exitSeen{0};
  Gate* gate = nullptr;
  util::ThreadObject* self = nullptr;
};

void* probeRun(void* arg) {
  Probe* probe = static_cast<Probe*>(arg);
  ++probe->runs;
  if (probe->gate) probe->gate->pass();
  if (probe->self->needExit()) ++probe->exitSeen;
  return nullptr;
}

TEST(ThreadObject, OneRunPerStartPausesAndStops) {
  LogCapture log(0);
  Probe probe;
  util::ThreadObject worker(&probeRun);
  probe.self = &worker;
  ASSERT_TRUE(worker.start(&probe));
  ASSERT_TRUE(log.waitFor("thread begin to sleep"));
  EXPECT_EQ(probe.exitSeen, 1);
  Gate gate;
  probe.gate = &gate;
  ASSERT_TRUE(worker.start(&probe));  // wakes the sleeper
  ASSERT_TRUE(waitFor([&] { return probe.runs == 2; }));
  EXPECT_TRUE(worker.start(&probe));   // once more while running
  EXPECT_FALSE(worker.start(&probe));  // requested and not yet begun
  EXPECT_TRUE(log.contains("error, has already started"));
  gate.open();
  ASSERT_TRUE(waitFor([&] { return probe.runs == 3 && log.count("thread begin to sleep") == 2; }));
  EXPECT_EQ(probe.exitSeen, 2);  // the restarted run saw no exit request
  Gate held;
  probe.gate = &held;
  ASSERT_TRUE(worker.start(&probe));
  ASSERT_TRUE(waitFor([&] { return probe.runs == 4; }));
  ASSERT_TRUE(worker.start(&probe));
  worker.stop(false);  // a pause clears the pending request
  held.open();
  ASSERT_TRUE(waitFor([&] { return log.count("thread begin to sleep") == 3; }));
  EXPECT_TRUE(staysFalse([&] { return probe.runs > 4; }, 100));
  worker.stop(true);
  EXPECT_FALSE(worker.start(&probe));
  EXPECT_TRUE(log.contains("The thread has been froced to destroyed yet, start failed 0"));
}

}  // namespace
}  // namespace testsupport
