// Asynchronous reads: completion reports with their ids, statuses and byte
// counts, the id limit, and withdrawal by abort and close.
#include <atomic>
#include <chrono>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "corvane/smart_file.h"
#include "file/dull_file.h"
#include "support/log_capture.h"
#include "support/pattern_reads.h"
#include "support/wait.h"
#include "tests/file/scripted_producer.h"
#include "thread/thread_engine.h"

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
  std::vector<Report> snapshot() {
    std::lock_guard<std::mutex> lock(mutex);
    return all;
  }
  size_t size() { return snapshot().size(); }
};

void onDone(int reqID, void* userdata, int status, int bytes) {
  Reports* reports = static_cast<Reports*>(userdata);
  std::lock_guard<std::mutex> lock(reports->mutex);
  reports->all.push_back(Report{reqID, status, bytes});
}

// Starts an asynchronous read and waits for its one report.
Report readAsync(int h, char* buf, int size, Reports& reports) {
  size_t before = reports.size();
  int id = 0;
  EXPECT_EQ(x_smart_file_read_async(h, buf, size, onDone, &reports, &id), SMFR_OK);
  EXPECT_TRUE(waitFor([&] { return reports.size() == before + 1; }));
  Report r = reports.size() > before ? reports.snapshot()[before] : Report{-1, -1, -1};
  EXPECT_EQ(r.reqID, id);
  return r;
}

TEST(AsyncRead, CompletesWithStatusOneThenFourAtTheEndAndIgnoresAbortsOfFinishedIds) {
  TempDir dir;
  int h = testsupport::openPatternFile(dir, 100000);
  ASSERT_GE(h, 1);
  Reports reports;
  std::vector<char> buf(60000);
  Report first = readAsync(h, buf.data(), 60000, reports);
  EXPECT_GE(first.reqID, 1);
  EXPECT_EQ(first.status, SMFR_ASYNC_DONE);
  EXPECT_EQ(first.bytes, 60000);
  EXPECT_EQ(testsupport::patternMismatches(buf.data(), 0, 60000), 0);
  EXPECT_TRUE(waitFor([&] { return x_smart_file_offset(h) == 60000; }));
  // The short read up to the end still completes normally, under the first
  // id, which is free again once its callback returned...
  Report second = readAsync(h, buf.data(), 60000, reports);
  EXPECT_EQ(second.reqID, first.reqID);
  EXPECT_EQ(second.status, SMFR_ASYNC_DONE);
  EXPECT_EQ(second.bytes, 40000);
  EXPECT_EQ(testsupport::patternMismatches(buf.data(), 60000, 40000), 0);
  EXPECT_TRUE(waitFor([&] { return x_smart_file_offset(h) == 100000; }));
  // ...and a read at the end reports the end of the content.
  Report third = readAsync(h, buf.data(), 100, reports);
  EXPECT_EQ(third.status, SMFR_ASYNC_EOF);
  EXPECT_EQ(third.bytes, 0);
  EXPECT_EQ(x_smart_file_offset(h), 100000);

  LogCapture log(-1);
  EXPECT_EQ(x_smart_file_read_abort(h, third.reqID), SMFR_OK);
  for (int invalid : {512, -1}) {
    EXPECT_EQ(x_smart_file_read_abort(h, invalid), SMFR_NOT_HTTP);
    EXPECT_TRUE(log.contains("reqID(" + std::to_string(invalid) + ") is invalid"));
  }
  EXPECT_TRUE(testsupport::staysFalse([&] { return reports.size() > 3; }, 100));
  EXPECT_EQ(x_smart_file_close(h), SMFR_OK);
}

// The read waits for the silent source while another thread seeks; either
// order of seek and completion ends at the seek's target.
TEST(AsyncRead, ASeekMadeMeanwhileWinsOverTheCompletedRead) {
  testsupport::ScriptedProducer::Install install;
  int h = 0;
  ASSERT_EQ(x_smart_file_open("/scripted/100000/silent", &h), SMFR_OK);
  Reports reports;
  std::vector<char> buf(1000);
  int id = 0;
  ASSERT_EQ(x_smart_file_read_async(h, buf.data(), 1000, onDone, &reports, &id), SMFR_OK);
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
  EXPECT_EQ(x_smart_file_offset(h), 5000);
  EXPECT_EQ(x_smart_file_close(h), SMFR_OK);
}

testsupport::Gate gExecutorsBusy;
std::atomic<int> gHolding{0};

void holdExecutor(void*, util::TEngineEvent_E event) {
  if (event != util::TENGINE_EVENT_EXECUTE) return;
  ++gHolding;
  gExecutorsBusy.pass();
  --gHolding;
}

TEST(AsyncRead, The512thOutstandingRequestFailsAndQueuedOnesAreCancelledTwiceOrAtClose) {
  testsupport::ScriptedProducer::Install install;
  int h = 0;
  ASSERT_EQ(x_smart_file_open("/scripted/100000/silent", &h), SMFR_OK);
  // Every executor is held busy first, so all requests stay queued and the
  // close has a known set to withdraw (a request an executor freed by the
  // close's break runs would fail rather than be cancelled).
  for (int i = 0; i < util::ThreadEngine::kExecutorCount; ++i) {
    util::ThreadEngine::_INS_.requestExecute(holdExecutor, nullptr, nullptr);
  }
  ASSERT_TRUE(waitFor([&] { return gHolding == util::ThreadEngine::kExecutorCount; }));
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
  ASSERT_EQ(reports.size(), 2u);  // both reports of the withdrawn request, at once
  for (const Report& r : reports.snapshot()) EXPECT_EQ(r.reqID, last);

  // Closing the handle withdraws the queued rest, each reported once with 3.
  EXPECT_EQ(x_smart_file_close(h), SMFR_OK);
  ASSERT_TRUE(waitFor([&] { return reports.size() == 512; }, 10000));
  std::map<int, int> cancelled;
  for (const Report& r : reports.snapshot()) {
    EXPECT_EQ(r.status, SMFR_ASYNC_CANCELLED);
    EXPECT_EQ(r.bytes, 0);
    ++cancelled[r.reqID];
  }
  for (int id : ids) EXPECT_EQ(cancelled[id], id == last ? 2 : 1) << id;
  EXPECT_TRUE(waitFor([&] { return webs::DullFile::pendingRequestCount() == 0; }));
  gExecutorsBusy.open();
  EXPECT_TRUE(waitFor([&] { return gHolding == 0; }));
}

// A callback may call the library: close its own handle, the last on its
// location, or open and close another location while a second thread closes
// the location of the read. Every call returns.
struct Reentry {
  int handle = -1;
  std::string other;               // a location the callback opens and closes
  std::atomic<bool> entered{false};
  std::atomic<bool> othersClosing{false};
  std::atomic<int> closeResult{1};
  std::atomic<bool> returned{false};
};

void reenter(int, void* userdata, int, int) {
  Reentry* r = static_cast<Reentry*>(userdata);
  r->entered = true;
  if (r->other.empty()) {
    r->closeResult = x_smart_file_close(r->handle);
  } else {
    waitFor([&] { return r->othersClosing.load(); }, 5000);
    std::this_thread::sleep_for(std::chrono::milliseconds(50));  // let the close go in
    int h = -1;
    if (x_smart_file_open(r->other.c_str(), &h) == SMFR_OK) r->closeResult = x_smart_file_close(h);
  }
  r->returned = true;
}

TEST(AsyncRead, CallbacksMayCallTheLibrary) {
  TempDir dir;
  for (bool ownHandle : {true, false}) {
    SCOPED_TRACE(ownHandle ? "closes its own handle" : "opens another while its file closes");
    Reentry r;
    r.handle = testsupport::openPatternFile(dir, 100000);
    ASSERT_GE(r.handle, 1);
    if (!ownHandle) r.other = testsupport::writePatternFile(dir, "other", 1000);
    static char buf[1000];
    int id = 0;
    ASSERT_EQ(x_smart_file_read_async(r.handle, buf, sizeof(buf), reenter, &r, &id), SMFR_OK);
    ASSERT_TRUE(waitFor([&] { return r.entered.load(); }));
    std::atomic<bool> closed{false};
    std::thread closer;
    if (!ownHandle) {
      closer = std::thread([&] {
        r.othersClosing = true;
        EXPECT_EQ(x_smart_file_close(r.handle), SMFR_OK);
        closed = true;
      });
    }
    bool done = waitFor([&] { return r.returned.load() && (ownHandle || closed.load()); }, 10000);
    if (closer.joinable()) {
      if (done) {
        closer.join();
      } else {
        closer.detach();  // deadlocked: the failure is the finding
      }
    }
    ASSERT_TRUE(done);
    EXPECT_EQ(r.closeResult.load(), SMFR_OK);
  }
}

}  // namespace
