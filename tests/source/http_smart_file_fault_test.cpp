// HTTP faults through the C interface: failing locations as read codes,
// download statuses and stream events; stalling and silent servers; a close
// that breaks a read blocked on a stalled server.
#include <atomic>
#include <chrono>
#include <memory>
#include <ostream>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "corvane/smart_file.h"
#include "source/failing_endpoint.h"
#include "source/smart_file_reading.h"
#include "support/log_capture.h"
#include "support/pattern_check.h"
#include "support/wait.h"

namespace testsupport {
namespace {

using Clock = std::chrono::steady_clock;

double secondsSince(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

struct FailureCase {
  const char* name;
  Place place;
  int status;       // the scripted answer's status
  int featureFlag;  // -1: not set
  int downloadStatus;
  int event;        // the stream event the source sent
  int firstRead;    // the failing read
};

void PrintTo(const FailureCase& c, std::ostream* os) { *os << c.name; }

class FailingLocation : public ::testing::TestWithParam<FailureCase> {};

TEST_P(FailingLocation, ReadCodeDownloadStatusAndEvent) {
  const FailureCase& c = GetParam();
  FailingEndpoint location(c.place, c.status);
  LogCapture log(0);
  Handle h(location.url());
  ASSERT_EQ(h.opened, SMFR_OK);
  if (c.featureFlag != -1) {
    EXPECT_EQ(x_smart_file_set_featureflag(h.id, c.featureFlag), SMFR_OK);
  }
  char buf[100];
  unsigned long got = 7;
  // A failure that makes the stream final before the read looks at it (a
  // refused connection can be that fast) is answered as a finished stream.
  int first = x_smart_file_read(h.id, buf, sizeof(buf), &got);
  EXPECT_TRUE(first == c.firstRead || first == -1) << "first read " << first;
  EXPECT_EQ(got, 0u);
  EXPECT_EQ(x_smart_file_http_get_download_status(h.id), c.downloadStatus);
  EXPECT_TRUE(log.contains("stream event " + std::to_string(c.event)));
  // Once the stream is final every read answers that it has finished.
  for (int i = 0; i < 2; ++i) {
    EXPECT_EQ(x_smart_file_read(h.id, buf, sizeof(buf), &got), -1);
  }
}

INSTANTIATE_TEST_SUITE_P(
    Failures, FailingLocation,
    ::testing::Values(
        FailureCase{"NotFound", Place::Server, 404, -1, 404, 5, SMFR_NOT_FOUND},
        FailureCase{"Unavailable", Place::Server, 503, -1, 503, 6, SMFR_NOT_AVAILABLE},
        FailureCase{"UnresolvableHost", Place::UnresolvableHost, 0, -1, -6, 5, SMFR_NOT_FOUND},
        // An error the queue retries once before it gives up.
        FailureCase{"UnresolvableHostGJZ", Place::UnresolvableHost, 0, 1, -6, 1, SMFR_FAILED},
        FailureCase{"ConnectionRefused", Place::ClosedPort, 0, -1, -8, 5, SMFR_NOT_FOUND}),
    [](const ::testing::TestParamInfo<FailureCase>& p) { return p.param.name; });

// Answers after the first one: an error page never reaches the reader as
// content, and an answer that starts at 0 (a request without a range: an
// "hbbtv" location, or the retry after a 416) is skipped up to the offset
// wanted. On a seek and on the reconnection after a drop.
struct LaterAnswerCase {
  const char* name;
  const char* path;
  int status;      // of the later answers (0: content)
  int rangeStatus; // of the later answers to a request with a range
  bool seek;       // far seek, else read on over a drop at kDrop
  int code;        // of the read: SMFR_OK when it completes
  bool lastRanged; // whether the last request carried a range
};

void PrintTo(const LaterAnswerCase& c, std::ostream* os) { *os << c.name; }

class LaterAnswer : public ::testing::TestWithParam<LaterAnswerCase> {};

TEST_P(LaterAnswer, OnlyContentBytesAtTheirOffsets) {
  const LaterAnswerCase& c = GetParam();
  constexpr long long kDrop = 300000;
  constexpr long long kSeekTo = 3 << 20;
  Script s;
  s.size = 4 << 20;
  if (!c.seek) s.dropPlan = {kDrop, -1};
  auto later = std::make_shared<Script>();
  later->size = s.size;
  later->status = c.status;
  later->body = std::string(5000, 'E');
  later->rangeStatus = c.rangeStatus;
  s.after = later;
  ScriptedHttpServer server(s);
  Handle h(server.url(c.path));
  ASSERT_EQ(h.opened, SMFR_OK);
  int code = 0;
  long long at = 0;
  long long want = 1 << 20;
  if (c.seek) {
    ASSERT_TRUE(isPatternAt(readBytes(h.id, 100000, 50000, &code), 0, 100000));
    long long cur = -1;
    ASSERT_EQ(x_smart_file_seek(h.id, kSeekTo, &cur), SMFR_OK);
    at = kSeekTo;
    want = 200000;
  }
  std::string bytes = readBytes(h.id, want, 50000, &code);
  EXPECT_TRUE(isPatternAt(bytes, at, static_cast<long long>(bytes.size())));
  // A failure that made the stream final before the next read looked at it
  // is answered as a finished stream.
  EXPECT_TRUE(code == c.code || (c.code != SMFR_OK && code == -1)) << code;
  if (c.code == SMFR_OK) {
    EXPECT_EQ(static_cast<long long>(bytes.size()), want);
  }
  // An error page is not held either, where the reader stopped or beyond:
  // what the first connection brought before its drop was either read or
  // is still held (the reader may lag behind the failure), and no more.
  if (c.code != SMFR_OK) {
    long long held = x_smart_file_bufferedSize(h.id);
    EXPECT_EQ(static_cast<long long>(bytes.size()) + held, c.seek ? 0 : kDrop);
  }
  std::vector<RecordedRequest> requests = server.requests();
  ASSERT_GE(requests.size(), 2u);
  EXPECT_EQ(requests.back().hasHeader("Range"), c.lastRanged);
}

INSTANTIATE_TEST_SUITE_P(
    Answers, LaterAnswer,
    ::testing::Values(
        LaterAnswerCase{"UnavailableOnReconnect", "/f", 503, 0, false, SMFR_NOT_AVAILABLE, true},
        LaterAnswerCase{"NotFoundOnSeek", "/f", 404, 0, true, SMFR_NOT_FOUND, true},
        LaterAnswerCase{"RangeRefusedOnReconnect", "/f", 0, 416, false, SMFR_OK, false},
        LaterAnswerCase{"RangeRefusedOnSeek", "/f", 0, 416, true, SMFR_OK, false},
        LaterAnswerCase{"HbbtvOnReconnect", "/hbbtv/f", 0, 0, false, SMFR_OK, false},
        LaterAnswerCase{"HbbtvOnSeek", "/HBBTV/f", 0, 0, true, SMFR_OK, false}),
    [](const ::testing::TestParamInfo<LaterAnswerCase>& p) { return p.param.name; });

// With feature flag 1 every stall is cut after about four seconds and the
// next connection goes on from the bytes held.
TEST(HttpFaults, StallsAreCutAfterFourSecondsWithFeatureFlagOne) {
  Script s = stallingAfter(400 << 10, 60000, 1 << 20);
  ScriptedHttpServer server(s);
  LogCapture log(-4);
  Handle h(server.url());
  ASSERT_EQ(h.opened, SMFR_OK);
  EXPECT_EQ(x_smart_file_set_featureflag(h.id, 1), SMFR_OK);
  auto began = Clock::now();
  int code = 0;
  std::string bytes = readBytes(h.id, s.size, 50000, &code);
  double seconds = secondsSince(began);
  ASSERT_TRUE(isPatternAt(bytes, 0, s.size)) << "last code " << code;
  // Two stalls (the third connection has less than 400 KiB to send).
  EXPECT_EQ(log.countContaining("Too long time no data comes, the connection is die"), 2);
  EXPECT_GT(seconds, 7.5);
  EXPECT_LT(seconds, 20.0);
  EXPECT_EQ(rangeStarts(server, "/file"), (std::vector<long long>{0, 400 << 10, 800 << 10}));
}

// A server that accepts and never answers: the read fails after the
// first-byte limit (35 s), with one retry when feature flag 1 makes it a
// time-out, and never hangs.
TEST(HttpFaults, SilentServerFailsTheReadAfterTheFirstByteLimit) {
  Script s;
  s.headerDelayMs = 300000;
  ScriptedHttpServer server(s);
  struct Reader {
    const char* path;
    int flag;
    std::unique_ptr<Handle> handle;
    std::atomic<int> code{1};
    std::atomic<double> seconds{0};
    std::thread thread;
  };
  Reader readers[2];
  readers[0].path = "/plain";
  readers[0].flag = -1;
  readers[1].path = "/gjz";
  readers[1].flag = 1;
  for (Reader& r : readers) {
    r.handle.reset(new Handle(server.url(r.path)));
    ASSERT_EQ(r.handle->opened, SMFR_OK);
    if (r.flag != -1) {
      EXPECT_EQ(x_smart_file_set_featureflag(r.handle->id, r.flag), SMFR_OK);
    }
  }
  auto began = Clock::now();
  for (Reader& r : readers) {
    r.thread = std::thread([&r, began] {
      char buf[1000];
      unsigned long got = 0;
      r.code = x_smart_file_read(r.handle->id, buf, sizeof(buf), &got);
      r.seconds = secondsSince(began);
    });
  }
  bool ended = waitFor([&] { return readers[0].code != 1 && readers[1].code != 1; }, 100000);
  // A hung read is broken by the close, so the test ends either way.
  for (Reader& r : readers) r.handle->close();
  for (Reader& r : readers) r.thread.join();
  ASSERT_TRUE(ended);
  EXPECT_EQ(readers[0].code.load(), SMFR_NOT_FOUND);
  EXPECT_GT(readers[0].seconds.load(), 33.0);
  EXPECT_LT(readers[0].seconds.load(), 50.0);
  EXPECT_EQ(rangeStarts(server, "/plain").size(), 1u);
  EXPECT_EQ(readers[1].code.load(), SMFR_TIMEOUT);
  EXPECT_GT(readers[1].seconds.load(), 68.0);
  EXPECT_LT(readers[1].seconds.load(), 95.0);
  EXPECT_EQ(rangeStarts(server, "/gjz").size(), 2u);
}

// A transfer held back by a speed limit sleeps in its body callback: a
// close, a far seek and a lower limit still take effect at once, and a stop
// in the making does not flood the log.
TEST(HttpFaults, SpeedLimitedTransferAnswersAtOnce) {
  enum Action { kClose, kFarSeek, kLowerLimit };
  for (Action action : {kClose, kFarSeek, kLowerLimit}) {
    SCOPED_TRACE(action);
    Script s;
    s.size = 16 << 20;
    ScriptedHttpServer server(s);
    LogCapture log(0);
    // Two blocks: what the reader gets next has to come through the limit.
    // At 4 kB/s the chunk that brought the first bytes holds the transfer
    // for seconds.
    int id = -1;
    ASSERT_EQ(x_smart_file_open_x(server.url().c_str(), &id, 65536), SMFR_OK);
    ASSERT_EQ(x_smart_file_http_set_speed(id, action == kLowerLimit ? 4 << 20 : 4000),
              SMFR_OK);
    int code = 0;
    const long long first = action == kLowerLimit ? 1 << 20 : 1000;
    ASSERT_TRUE(isPatternAt(readBytes(id, first, 50000, &code), 0, first)) << code;
    auto began = Clock::now();
    if (action == kClose) {
      EXPECT_EQ(x_smart_file_close(id), SMFR_OK);
      id = -1;
    } else if (action == kFarSeek) {
      long long cur = -1;
      ASSERT_EQ(x_smart_file_seek(id, 12 << 20, &cur), SMFR_OK);
      ASSERT_TRUE(isPatternAt(readBytes(id, 1000, 1000, &code), 12 << 20, 1000)) << code;
    } else {
      // At 200 kB/s the next 100 kB take about half a second; paying back
      // the first MiB at the new rate would take five.
      ASSERT_EQ(x_smart_file_http_set_speed(id, 200000), SMFR_OK);
      ASSERT_TRUE(isPatternAt(readBytes(id, 100000, 50000, &code), first, 100000)) << code;
    }
    EXPECT_LT(secondsSince(began), 3.0);
    EXPECT_LE(log.count("wait stop flag"), 2);
    if (id > 0) {
      EXPECT_EQ(x_smart_file_close(id), SMFR_OK);
    }
  }
}

TEST(HttpFaults, CloseReturnsAReadBlockedOnAStalledServer) {
  ScriptedHttpServer server(stallingAfter(65536, 60000, 4 << 20));
  Handle h(server.url());
  ASSERT_EQ(h.opened, SMFR_OK);
  const int id = h.id;
  std::atomic<bool> returned{false};
  std::atomic<long long> gotTotal{0};
  std::thread reader([&] {
    int code = 0;
    gotTotal = static_cast<long long>(readBytes(id, 1 << 20, 200000, &code).size());
    returned = true;
  });
  ASSERT_TRUE(waitFor([&] { return server.bytesSent() >= 65536; }, 10000));
  EXPECT_TRUE(staysFalse([&] { return returned.load(); }, 300));
  auto closing = Clock::now();
  EXPECT_EQ(h.close(), SMFR_OK);
  EXPECT_TRUE(waitFor([&] { return returned.load(); }, 3000));
  reader.join();
  EXPECT_LT(secondsSince(closing), 3.0);
  EXPECT_LE(gotTotal.load(), 65536);
}

}  // namespace
}  // namespace testsupport
