#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <memory>
#include <vector>

#include <gtest/gtest.h>

#include "support/log_capture.h"
#include "support/wait.h"
#include "thread/thread_engine.h"

using testsupport::Gate;
using testsupport::LogCapture;
using testsupport::staysFalse;
using testsupport::waitFor;
using util::TEngineEvent_E;
using util::ThreadEngine;

namespace {

// A job the tests queue: records how it was called, optionally blocks.
struct Job {
  std::atomic<int> executed{0};
  std::atomic<int> cancelled{0};
  std::atomic<int> startedAs{0};  // 1 for the first job of the test to start, ...
  Gate* gate = nullptr;
};

std::atomic<int> gRunningNow{0};
std::atomic<int> gMostAtOnce{0};
std::atomic<int> gStarted{0};

void jobCallback(void* arg, TEngineEvent_E event) {
  Job* job = static_cast<Job*>(arg);
  if (event != util::TENGINE_EVENT_EXECUTE) {
    ++job->cancelled;
    return;
  }
  int now = ++gRunningNow;
  int most = gMostAtOnce;
  while (now > most && !gMostAtOnce.compare_exchange_weak(most, now)) {
  }
  job->startedAs = ++gStarted;
  if (job->gate) job->gate->pass();
  ++job->executed;
  --gRunningNow;  // the last touch of the job: the test may free it after this
}

// The same work under another function, to tell two tasks of one arg apart.
void otherCallback(void* arg, TEngineEvent_E event) { jobCallback(arg, event); }

class ThreadEngineTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ThreadEngine::_INS_.initialize();
    gStarted = 0;
  }
  // Jobs live in the fixture, so executors still finishing one after the
  // test body has returned touch live memory; TearDown drains them.
  Job* newJobs(int n) {
    jobs_.emplace_back(new Job[n]);
    return jobs_.back().get();
  }
  // Occupies `n` executors with jobs of sender `this` blocked on `blocker`.
  Job* occupy(int n = 6) {
    Job* busy = newJobs(n);
    for (int i = 0; i < n; ++i) {
      busy[i].gate = &blocker;
      ThreadEngine::_INS_.requestExecute(&jobCallback, &busy[i], this);
    }
    EXPECT_TRUE(waitFor([&] { return gRunningNow == n; }));
    return busy;
  }
  void TearDown() override {
    blocker.open();
    ASSERT_TRUE(waitFor([&] { return gRunningNow == 0; }));
  }
  Gate blocker;
  std::vector<std::unique_ptr<Job[]>> jobs_;
};

// Six tasks run at once; the others wait in the one queue, whichever call
// queued them, and go out first in first out: with only the first executor
// returning, they run one after another in order.
TEST_F(ThreadEngineTest, SixTasksRunTogetherAndTheRestFollowFirstInFirstOut) {
  Gate first;
  Job* jobs = newJobs(14);
  jobs[0].gate = &first;
  for (int i = 1; i < 6; ++i) jobs[i].gate = &blocker;
  for (int i = 0; i < 14; ++i) {
    if (i % 2 == 0) ThreadEngine::_INS_.requestExecute(&jobCallback, &jobs[i], nullptr);
    if (i % 2 == 1) ThreadEngine::_INS_.requestExecuteOrderly(&jobCallback, &jobs[i], nullptr);
  }
  ASSERT_TRUE(waitFor([&] { return gRunningNow == 6; }));
  EXPECT_TRUE(staysFalse([&] { return jobs[6].executed + gRunningNow > 6; }, 200));
  EXPECT_EQ(gStarted, 6);
  first.open();
  ASSERT_TRUE(waitFor([&] { return jobs[13].executed == 1; }));
  for (int i = 6; i < 14; ++i) EXPECT_EQ(jobs[i].startedAs, i + 1) << i;
  EXPECT_EQ(gMostAtOnce, 6);
}

TEST_F(ThreadEngineTest, CancelWithdrawsOnlyTheFirstPendingTaskOfItsArgumentNeverARunningOne) {
  Job* busy = occupy();
  EXPECT_FALSE(ThreadEngine::_INS_.cancel(&busy[0]));
  EXPECT_EQ(ThreadEngine::_INS_.cancelAll(this), 0);
  Job& shared = *newJobs(1);
  Job& other = *newJobs(1);
  ThreadEngine::_INS_.requestExecute(&jobCallback, &shared, nullptr);
  ThreadEngine::_INS_.requestExecute(&otherCallback, &shared, nullptr);
  ThreadEngine::_INS_.requestExecute(&jobCallback, &other, nullptr);
  EXPECT_TRUE(ThreadEngine::_INS_.cancel(&shared));
  EXPECT_EQ(shared.cancelled, 1);
  blocker.open();
  ASSERT_TRUE(waitFor([&] { return shared.executed == 1 && other.executed == 1; }));
  EXPECT_TRUE(staysFalse([&] { return shared.executed > 1; }, 100));
  EXPECT_EQ(shared.cancelled, 1);
  EXPECT_FALSE(ThreadEngine::_INS_.cancel(&shared));
  EXPECT_TRUE(waitFor([&] { return busy[0].executed == 1; }));
  EXPECT_EQ(busy[0].cancelled, 0);
}

TEST_F(ThreadEngineTest, CancelAllBySenderReportsEachOfItsTasksOnceAndWithoutSenderNone) {
  occupy();
  int senderA = 0, senderB = 0;
  Job* jobs = newJobs(3);  // two of sender A around one of sender B
  void* senders[3] = {&senderA, &senderB, &senderA};
  for (int i = 0; i < 3; ++i) ThreadEngine::_INS_.requestExecute(&jobCallback, &jobs[i], senders[i]);
  EXPECT_EQ(ThreadEngine::_INS_.cancelAll(&senderA), 2);
  EXPECT_EQ(ThreadEngine::_INS_.cancelAll(&senderA), 0);
  EXPECT_EQ(ThreadEngine::_INS_.cancelAll(), 1);  // B's task, dropped silently
  blocker.open();
  // A task queued now runs; the withdrawn ones never do.
  Job& after = *newJobs(1);
  ThreadEngine::_INS_.requestExecute(&jobCallback, &after, nullptr);
  ASSERT_TRUE(waitFor([&] { return after.executed == 1; }));
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(jobs[i].executed, 0) << i;
    EXPECT_EQ(jobs[i].cancelled, i == 1 ? 0 : 1) << i;
  }
}

TEST(ThreadEngineInit, InitializingTwiceCreatesSixExecutorsOnceAndReadsTheLevelOnce) {
  LogCapture log(1);
  // A private engine (_INS_ may be up already), never destroyed: its
  // executors keep running for the rest of the process.
  static util::ThreadEngine* engine = new util::ThreadEngine;
  engine->initialize();
  engine->initialize();
  for (int i = 0; i < 6; ++i) EXPECT_EQ(log.count("creat thread " + std::to_string(i) + " OK"), 1);
  EXPECT_EQ(log.countPrefix("Log level=="), 1);
  EXPECT_EQ(log.count("end to init"), 1);
  Job job;
  engine->requestExecute(&jobCallback, &job, nullptr);
  EXPECT_TRUE(waitFor([&] { return job.executed == 1; }));
}

TEST(ThreadEngineExit, AProcessWithIdleExecutorsExitsPromptly) {
  pid_t child = fork();
  ASSERT_NE(child, -1);
  if (child == 0) {
    ThreadEngine::_INS_.initialize();
    Job job;
    ThreadEngine::_INS_.requestExecute(&jobCallback, &job, nullptr);
    while (job.executed == 0) usleep(1000);
    exit(7);  // runs the static destructors with six executors asleep
  }
  int status = 0;
  bool exited = waitFor([&] { return waitpid(child, &status, WNOHANG) == child; }, 20000);
  if (!exited) kill(child, SIGKILL);
  ASSERT_TRUE(exited) << "process exit hung";
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 7);
}

}  // namespace
