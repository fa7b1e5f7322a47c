#include <atomic>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "corvane/smart_file.h"
#include "file/dull_file.h"
#include "support/log_capture.h"
#include "support/temp_dir.h"
#include "support/wait.h"
#include "thread/thread_engine.h"
#include "tests/api/api_fixture.h"

using testsupport::LogCapture;
using testsupport::TempDir;
using testsupport::waitFor;

namespace {

struct Report {
  int reqID;
  int status;
  int bytes;
};

// Collects the callback reports of one test.
struct Reports {
  std::mutex mutex;
  std::vector<Report> all;
  void add(int reqID, int status, int bytes) {
    std::lock_guard<std::mutex> lock(mutex);
    all.push_back(Report{reqID, status, bytes});
  }
  std::vector<Report> snapshot() {
    std::lock_guard<std::mutex> lock(mutex);
    return all;
  }
  int countOf(int reqID, int status) {
    int n = 0;
    for (const Report& r : snapshot()) n += r.reqID == reqID && r.status == status ? 1 : 0;
    return n;
  }
  size_t size() { return snapshot().size(); }
};

void onDone(int reqID, void* userdata, int status, int bytes) {
  static_cast<Reports*>(userdata)->add(reqID, status, bytes);
}

TEST(AsyncRead, CompletesWithStatusOneThenFourAtTheEnd) {
  TempDir dir;
  std::string path = testsupport::writePatternFile(dir, "f", 100000);
  int h = 0;
  ASSERT_EQ(x_smart_file_open(path.c_str(), &h), SMFR_OK);
  Reports reports;
  std::vector<char> buf(60000);
  int id = 0;
  ASSERT_EQ(x_smart_file_read_async(h, buf.data(), 60000, onDone, &reports, &id), SMFR_OK);
  EXPECT_GE(id, 1);
  ASSERT_TRUE(waitFor([&] { return reports.size() == 1; }));
  EXPECT_EQ(reports.countOf(id, SMFR_ASYNC_DONE), 1);
  EXPECT_EQ(reports.snapshot()[0].bytes, 60000);
  EXPECT_EQ(testsupport::patternMismatches(buf.data(), 0, 60000), 0);
  EXPECT_TRUE(waitFor([&] { return x_smart_file_offset(h) == 60000; }));

  int id2 = 0;
  ASSERT_EQ(x_smart_file_read_async(h, buf.data(), 60000, onDone, &reports, &id2), SMFR_OK);
  // The first id is free again once its callback returned.
  EXPECT_EQ(id2, id);
  ASSERT_TRUE(waitFor([&] { return reports.size() == 2; }));
  // The short read up to the end still completes normally...
  EXPECT_EQ(reports.snapshot()[1].status, SMFR_ASYNC_DONE);
  EXPECT_EQ(reports.snapshot()[1].bytes, 40000);
  EXPECT_EQ(testsupport::patternMismatches(buf.data(), 60000, 40000), 0);
  EXPECT_TRUE(waitFor([&] { return x_smart_file_offset(h) == 100000; }));
  // ...and a read at the end reports the end of the content.
  int id3 = 0;
  ASSERT_EQ(x_smart_file_read_async(h, buf.data(), 100, onDone, &reports, &id3), SMFR_OK);
  ASSERT_TRUE(waitFor([&] { return reports.size() == 3; }));
  EXPECT_EQ(reports.snapshot()[2].status, SMFR_ASYNC_EOF);
  EXPECT_EQ(reports.snapshot()[2].bytes, 0);
  EXPECT_EQ(x_smart_file_offset(h), 100000);
  EXPECT_EQ(x_smart_file_close(h), SMFR_OK);
}

// Blocks the first callback until the test opens the gate, so the test can
// seek while the asynchronous read is "in flight".
struct GatedReports : Reports {
  testsupport::Gate gate;
  std::atomic<int> seekDone{0};
};

TEST(AsyncRead, ASeekMadeMeanwhileWinsOverTheCompletedRead) {
  TempDir dir;
  std::string path = testsupport::writePatternFile(dir, "f", 100000);
  testsupport::ScriptedProducer::Install install;
  int h = 0;
  ASSERT_EQ(x_smart_file_open("/scripted/100000/silent", &h), SMFR_OK);
  Reports reports;
  std::vector<char> buf(1000);
  int id = 0;
  ASSERT_EQ(x_smart_file_read_async(h, buf.data(), 1000, onDone, &reports, &id), SMFR_OK);
  // The read waits for the silent source; the seek does not need its data
  // size... the size is asked by seek, so seek from another thread.
  std::atomic<int> seekResult{99};
  std::thread seeker([&] {
    long long cur = 0;
    seekResult = x_smart_file_seek(h, 5000, &cur);
  });
  testsupport::ScriptedProducer::speak();
  seeker.join();
  ASSERT_TRUE(waitFor([&] { return reports.size() == 1; }));
  EXPECT_EQ(seekResult, SMFR_OK);
  EXPECT_EQ(reports.snapshot()[0].status, SMFR_ASYNC_DONE);
  EXPECT_EQ(testsupport::patternMismatches(buf.data(), 0, 1000), 0);
  // Either order of seek and completion ends at the seek's target.
  EXPECT_EQ(x_smart_file_offset(h), 5000);
  EXPECT_EQ(x_smart_file_close(h), SMFR_OK);
}

TEST(AsyncRead, InvalidIdsAreRefusedAndFinishedIdsAreIgnored) {
  TempDir dir;
  std::string path = testsupport::writePatternFile(dir, "f", 1000);
  int h = 0;
  ASSERT_EQ(x_smart_file_open(path.c_str(), &h), SMFR_OK);
  LogCapture log(-1);
  EXPECT_EQ(x_smart_file_read_abort(h, 512), SMFR_NOT_HTTP);
  EXPECT_EQ(x_smart_file_read_abort(h, -1), SMFR_NOT_HTTP);
  EXPECT_TRUE(log.contains("reqID(512) is invalid"));
  EXPECT_TRUE(log.contains("reqID(-1) is invalid"));
  Reports reports;
  char buf[100];
  int id = 0;
  ASSERT_EQ(x_smart_file_read_async(h, buf, 100, onDone, &reports, &id), SMFR_OK);
  ASSERT_TRUE(waitFor([&] { return reports.size() == 1; }));
  EXPECT_EQ(x_smart_file_read_abort(h, id), SMFR_OK);
  EXPECT_TRUE(testsupport::staysFalse([&] { return reports.size() > 1; }, 100));
  EXPECT_EQ(x_smart_file_close(h), SMFR_OK);
}

TEST(AsyncRead, The512thOutstandingRequestFailsAndQueuedOnesAreCancelledTwiceOrAtClose) {
  testsupport::ScriptedProducer::Install install;
  int h = 0;
  ASSERT_EQ(x_smart_file_open("/scripted/100000/silent", &h), SMFR_OK);
  // Every executor is held busy first, so all requests stay queued: closing
  // then has a known set of queued requests to withdraw. (Otherwise executors
  // freed by the close's break would run some of them between the break and
  // the withdrawal, and those fail rather than being cancelled.)
  testsupport::Gate executorsBusy;
  std::atomic<int> holding{0};
  struct Hold {
    testsupport::Gate* gate;
    std::atomic<int>* holding;
  } hold{&executorsBusy, &holding};
  auto holdExecutor = [](void* arg, util::TEngineEvent_E event) {
    if (event != util::TENGINE_EVENT_EXECUTE) return;
    Hold* self = static_cast<Hold*>(arg);
    ++*self->holding;
    self->gate->pass();
    --*self->holding;
  };
  for (int i = 0; i < util::ThreadEngine::kExecutorCount; ++i) {
    util::ThreadEngine::_INS_.requestExecute(holdExecutor, &hold, nullptr);
  }
  ASSERT_TRUE(waitFor([&] { return holding == util::ThreadEngine::kExecutorCount; }));
  Reports reports;
  static char buf[511][16];
  std::vector<int> ids;
  for (int i = 0; i < 511; ++i) {
    int id = 0;
    ASSERT_EQ(x_smart_file_read_async(h, buf[i], 16, onDone, &reports, &id), SMFR_OK) << i;
    ids.push_back(id);
  }
  {
    LogCapture log(0);
    int id = 0;
    EXPECT_EQ(x_smart_file_read_async(h, buf[0], 16, onDone, &reports, &id), SMFR_FAILED);
    EXPECT_TRUE(log.contains("send too many read request, exceed the limitation 511\n"));
    EXPECT_TRUE(log.contains("alloc request id fail\n"));
  }
  // The last request is surely still queued behind the blocked ones.
  int last = ids.back();
  EXPECT_EQ(x_smart_file_read_abort(h, last), SMFR_OK);
  EXPECT_EQ(reports.countOf(last, SMFR_ASYNC_CANCELLED), 2);
  for (const Report& r : reports.snapshot()) EXPECT_EQ(r.bytes, 0);

  // Closing the handle withdraws the queued rest, each reported once with 3.
  EXPECT_EQ(x_smart_file_close(h), SMFR_OK);
  ASSERT_TRUE(waitFor([&] { return reports.size() == 512; }, 10000));
  for (const Report& r : reports.snapshot()) EXPECT_EQ(r.status, SMFR_ASYNC_CANCELLED);
  for (int id : ids) EXPECT_EQ(reports.countOf(id, SMFR_ASYNC_CANCELLED), id == last ? 2 : 1);
  EXPECT_TRUE(waitFor([&] { return webs::DullFile::pendingRequestCount() == 0; }));
  executorsBusy.open();
  EXPECT_TRUE(waitFor([&] { return holding == 0; }));
}

}  // namespace
