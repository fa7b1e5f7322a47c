// webs::HttpFileRequest driven against the scripted server with a recording
// sink: size and seekability from the first answer, delivery from the
// requested offset, and the end of each transfer as a stream event and a
// download status.
#include <atomic>
#include <chrono>
#include <ostream>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "source/failing_endpoint.h"
#include "source/http_file_request.h"
#include "source/recording_sink.h"
#include "support/log_capture.h"
#include "support/pattern_check.h"
#include "support/wait.h"

namespace testsupport {
namespace {

constexpr long long kUnknown = 0x0FFFFFFFFFFFFFFFLL;

// Also notes what the source reports at the moment it announces the start
// (event 0), which is when the queue asks for it.
class ObservingSink : public RecordingSink {
 public:
  explicit ObservingSink(FileRequest* request) : request_(request) {}
  void notifyStreamException(int event) override {
    if (event == util::EVENT_STREAM_NORMAL) {
      sizeAtStart = request_->getContentSize();
      seekableAtStart = request_->isRandomAccess();
    }
    RecordingSink::notifyStreamException(event);
  }
  std::atomic<long long> sizeAtStart{-1};
  std::atomic<bool> seekableAtStart{false};

 private:
  FileRequest* request_;
};

struct Source {
  explicit Source(const std::string& url) : request(url), sink(&request) {
    EXPECT_TRUE(request.initialize());
    request.setOut(&sink);
  }
  webs::HttpFileRequest request;
  ObservingSink sink;
};

// The sink got exactly the pattern from `from` to `end`, all with `version`.
void expectPatternFrom(const RecordingSink& sink, long long from, long long end, int version) {
  EXPECT_TRUE(isPatternAt(sink.bytes(), from, end - from));
  for (const RecordedChunk& chunk : sink.chunks()) EXPECT_EQ(chunk.version, version);
}

// What the first answer says about the resource.
struct FirstAnswerCase {
  const char* name;
  Script script;
  long long from;
  long long count;        // 0: to the end
  long long sizeAtStart;  // what getContentSize() answers at event 0
  bool seekable;
  long long sizeAtEnd;
};

Script scriptOf(long long size, bool honourRange, bool contentLength) {
  Script s;
  s.size = size;
  s.honourRange = honourRange;
  s.contentLength = contentLength;
  return s;
}

void PrintTo(const FirstAnswerCase& c, std::ostream* os) { *os << c.name; }

class FirstAnswer : public ::testing::TestWithParam<FirstAnswerCase> {};

TEST_P(FirstAnswer, SizeSeekabilityAndBytesFromTheRequestedOffset) {
  const FirstAnswerCase& c = GetParam();
  ScriptedHttpServer server(c.script);
  Source source(server.url());
  EXPECT_EQ(source.request.startStreaming(4, c.from, c.count), 0);
  EXPECT_EQ(source.sink.events(), (std::vector<int>{util::EVENT_STREAM_NORMAL,
                                                   util::EVENT_STREAM_PARTIAL_END}));
  EXPECT_EQ(source.sink.sizeAtStart.load(), c.sizeAtStart);
  EXPECT_EQ(source.sink.seekableAtStart.load(), c.seekable);
  EXPECT_EQ(source.request.isRandomAccess(), c.seekable);
  EXPECT_EQ(source.request.getContentSize(), c.sizeAtEnd);
  long long end = c.count != 0 ? c.from + c.count : c.script.size;
  expectPatternFrom(source.sink, c.from, end, 4);
  EXPECT_EQ(source.request.getDownloadStatus(), 0);
  ASSERT_EQ(server.requestCount(), 1);
  // A bounded start asks for its last byte.
  std::string last = c.count != 0 ? std::to_string(end - 1) : "";
  EXPECT_EQ(server.requests()[0].header("Range"), "bytes=" + std::to_string(c.from) + "-" + last);
}

INSTANTIATE_TEST_SUITE_P(
    Answers, FirstAnswer,
    ::testing::Values(
        FirstAnswerCase{"RangedStart", scriptOf(3 << 20, true, true), 100000, 0, 3 << 20, true,
                        3 << 20},
        FirstAnswerCase{"RangedStartAtZero", scriptOf(1 << 20, true, true), 0, 0, 1 << 20, true,
                        1 << 20},
        // The size of a ranged answer is the resource's, not the range's.
        FirstAnswerCase{"BoundedStart", scriptOf(1 << 20, true, true), 1000, 5000, 1 << 20, true,
                        1 << 20},
        // The server sends the whole file from 0: not seekable, and the
        // bytes before the requested offset are dropped.
        FirstAnswerCase{"RangeIgnored", scriptOf(2 << 20, false, true), 70000, 0, 2 << 20, false,
                        2 << 20},
        // A trusted short length.
        FirstAnswerCase{"Small200WithLength", scriptOf(500, false, true), 0, 0, 500, false, 500},
        FirstAnswerCase{"SizeOnlyFromContentRange", scriptOf(300000, true, false), 12345, 0,
                        300000, true, 300000},
        // No size until the end of the transfer gives it.
        FirstAnswerCase{"UnknownSize", scriptOf(200000, false, false), 0, 0, kUnknown, false,
                        200000}),
    [](const ::testing::TestParamInfo<FirstAnswerCase>& p) { return p.param.name; });

TEST(HttpFileRequest, NonSeekableRestartRequestsFromZeroAndSkipsToTheOffset) {
  Script s = scriptOf(1 << 20, false, true);
  ScriptedHttpServer server(s);
  Source source(server.url());
  ASSERT_EQ(source.request.startStreaming(1, 0, 65536), 0);
  ASSERT_FALSE(source.request.isRandomAccess());
  source.sink.clear();
  LogCapture log(-4);
  // 32768 + 1 is not a chunk boundary, so one chunk is cut in the middle.
  ASSERT_EQ(source.request.startStreaming(2, 32769, 0), 0);
  EXPECT_TRUE(log.contains(
      "server not support seek, but requestOffset is 32769, so download data from 0"));
  expectPatternFrom(source.sink, 32769, 1 << 20, 2);
  ASSERT_EQ(server.requestCount(), 2);
  EXPECT_EQ(server.requests()[1].header("Range"), "bytes=0-");
}

// How a failed transfer ends.
struct FailureCase {
  const char* name;
  Place place;
  int status;       // the scripted answer's status
  int featureFlag;  // -1: not set
  std::vector<int> events;
  int downloadStatus;
  std::vector<const char*> logs = {};
  int logLevel = 0;  // the lowest level the lines show at
};

void PrintTo(const FailureCase& c, std::ostream* os) { *os << c.name; }

class FailedTransfer : public ::testing::TestWithParam<FailureCase> {};

TEST_P(FailedTransfer, EndsWithItsEventAndStatus) {
  const FailureCase& c = GetParam();
  FailingEndpoint location(c.place, c.status);
  Source source(location.url());
  LogCapture log(c.logLevel);
  if (c.featureFlag != -1) source.request.setFeatureFlag(c.featureFlag);
  EXPECT_EQ(source.request.startStreaming(1, 0, 0), 0);
  for (const char* line : c.logs) EXPECT_TRUE(log.contains(line)) << line;
  EXPECT_EQ(source.sink.events(), c.events);
  EXPECT_EQ(source.request.getDownloadStatus(), c.downloadStatus);
  EXPECT_TRUE(source.sink.chunks().empty());
}

constexpr int kNotFound = util::EVENT_STREAM_NOT_FOUND;
constexpr int kNotAvailable = util::EVENT_STREAM_NOT_AVAILABLE;

INSTANTIATE_TEST_SUITE_P(
    Answers, FailedTransfer,
    ::testing::Values(
        FailureCase{"NotFound", Place::Server, 404, -1, {kNotFound}, 404},
        FailureCase{"Forbidden", Place::Server, 403, -1, {kNotFound}, 403},
        FailureCase{"Unavailable", Place::Server, 503, -1, {kNotAvailable}, 503},
        FailureCase{"InternalError", Place::Server, 500, -1, {kNotAvailable}, 500},
        // Neither content nor an error: the source says so itself and the
        // refused body then ends the transfer as cancelled.
        FailureCase{"NonContentSuccess", Place::Server, 203, -1,
                    {util::EVENT_STREAM_ERROR, util::EVENT_STREAM_CANCEL}, 0},
        FailureCase{"ConnectionRefused", Place::ClosedPort, 0, -1, {kNotFound},
                    webs::DOWNLOAD_CONNECT_REJECT,
                    {"set status DOWNLOAD_CONNECT_REJECT", "notify EVENT_STREAM_ERROR"}},
        FailureCase{"UnresolvableHost", Place::UnresolvableHost, 0, -1, {kNotFound},
                    webs::DOWNLOAD_DNS_UNABLE_RESOLVED, {"NO GJZ CASE, couldn't resolve host"}, -4},
        // With feature flag 1 an error the queue may retry.
        FailureCase{"UnresolvableHostGJZ", Place::UnresolvableHost, 0, 1,
                    {util::EVENT_STREAM_ERROR}, webs::DOWNLOAD_DNS_UNABLE_RESOLVED,
                    {"GJZ Case DOWNLOAD_DNS_UNABLE_RESOLVED"}}),
    [](const ::testing::TestParamInfo<FailureCase>& p) { return p.param.name; });

// How a transfer that is cut from another thread ends.
struct InterruptCase {
  const char* name;
  bool stop;  // stopStreaming; else setBreak and two silent seconds
  int event;
  const char* log;
};

void PrintTo(const InterruptCase& c, std::ostream* os) { *os << c.name; }

class InterruptedTransfer : public ::testing::TestWithParam<InterruptCase> {};

TEST_P(InterruptedTransfer, EndsWithItsEventAndDisconnected) {
  const InterruptCase& c = GetParam();
  ScriptedHttpServer server(stallingAfter(65536, 20000, 4 << 20));
  Source source(server.url());
  LogCapture log(0);
  std::atomic<bool> returned{false};
  std::thread worker([&] {
    source.request.startStreaming(1, 0, 0);
    returned = true;
  });
  // The stall check logs this only once the transfer thread has left the
  // last chunk's receive(); a stop that came while it was still inside it
  // would rightly end with a refused chunk (23) instead.
  EXPECT_TRUE(waitFor([&] { return log.countContaining("The http connection speed is low") > 0; },
                      10000));
  EXPECT_EQ(source.sink.bytes().size(), 65536u);
  if (c.stop) {
    source.request.stopStreaming();
    // stopStreaming waits for the end: the event is there when it returns.
    EXPECT_EQ(source.sink.events().size(), 2u);
    EXPECT_TRUE(log.contains("begin to stop streaming"));
    EXPECT_TRUE(log.contains("End to stop streaming"));
  }
  auto cut = std::chrono::steady_clock::now();
  if (!c.stop) source.request.setBreak();
  EXPECT_TRUE(waitFor([&] { return returned.load(); }, 6000));
  if (!c.stop) {
    // Two seconds of silence after the last byte; the wait above began
    // about one second into it.
    EXPECT_GE(std::chrono::steady_clock::now() - cut, std::chrono::milliseconds(700));
    EXPECT_EQ(log.countContaining("s no data comes, customer cancel read"), 1);
  }
  worker.join();
  EXPECT_EQ(source.sink.events(), (std::vector<int>{util::EVENT_STREAM_NORMAL, c.event}));
  EXPECT_EQ(source.request.getDownloadStatus(), webs::DOWNLOAD_DISCONNECTED);
  EXPECT_TRUE(log.contains(c.log)) << c.log;
  expectPatternFrom(source.sink, 0, 65536, 1);
}

INSTANTIATE_TEST_SUITE_P(
    Interrupts, InterruptedTransfer,
    ::testing::Values(
        InterruptCase{"Stop", true, util::EVENT_STREAM_CANCEL, "aborted by callback :42"},
        InterruptCase{"BreakThenSilence", false, util::EVENT_STREAM_DEAD, "connection is dead"}),
    [](const ::testing::TestParamInfo<InterruptCase>& p) { return p.param.name; });

// A stop that comes after the source decided to transfer but before libcurl
// began must still end that transfer at once, not wait for a silent server.
// Each case stops at a line the transfer thread prints in that stretch.
struct EarlyStopCase {
  const char* name;
  bool nonSeekable;  // a first transfer makes the source restart from 0
  long long from;
  const char* stopAt;
};

void PrintTo(const EarlyStopCase& c, std::ostream* os) { *os << c.name; }

class EarlyStop : public ::testing::TestWithParam<EarlyStopCase> {};

TEST_P(EarlyStop, EndsTheTransferBeforeItBegins) {
  const EarlyStopCase& c = GetParam();
  Script quick = scriptOf(5000, !c.nonSeekable, true);
  Script silent = quick;
  silent.headerDelayMs = 15000;
  ScriptedHttpServer server(quick);
  Source source(server.url());
  if (c.nonSeekable) {
    ASSERT_EQ(source.request.startStreaming(1, 0, 0), 0);
    ASSERT_FALSE(source.request.isRandomAccess());
    source.sink.clear();
  }
  server.route("/file", silent);
  int requestsBefore = server.requestCount();
  std::atomic<bool> stopPassedMethod{false};
  std::atomic<bool> stopReturned{false};
  std::atomic<bool> performBegan{false};
  std::thread stopper;
  bool fired = false;  // transfer thread only
  LogCapture log(1);
  log.onLine([&](const std::string& line) {
    if (line == "MethodRequest begin to stop End") stopPassedMethod = true;
    if (line.find("PFFFF begin to perform") != std::string::npos) performBegan = true;
    if (line != c.stopAt || fired) return;
    fired = true;
    stopper = std::thread([&] {
      source.request.stopStreaming();
      stopReturned = true;
    });
    EXPECT_TRUE(waitFor([&] { return stopPassedMethod.load(); }, 5000));
  });
  auto began = std::chrono::steady_clock::now();
  EXPECT_EQ(source.request.startStreaming(2, c.from, 0), 0);
  EXPECT_TRUE(waitFor([&] { return stopReturned.load(); }, 3000));
  if (stopper.joinable()) stopper.join();
  EXPECT_LT(std::chrono::steady_clock::now() - began, std::chrono::seconds(5));
  EXPECT_TRUE(fired);
  EXPECT_FALSE(performBegan.load());
  EXPECT_EQ(source.sink.events(), std::vector<int>{util::EVENT_STREAM_CANCEL});
  EXPECT_EQ(source.request.getDownloadStatus(), webs::DOWNLOAD_DISCONNECTED);
  EXPECT_EQ(server.requestCount(), requestsBefore);
  // That stop, and one made while idle, do not cut the next transfer short.
  server.route("/file", quick);
  source.sink.clear();
  source.request.stopStreaming();
  EXPECT_EQ(source.request.startStreaming(3, c.from, 0), 0);
  expectPatternFrom(source.sink, c.from, 5000, 3);
}

INSTANTIATE_TEST_SUITE_P(
    Stretches, EarlyStop,
    ::testing::Values(
        EarlyStopCase{"JustBeforeThePerform", false, 0, "set fgrangeget to true"},
        EarlyStopCase{"WhileTurningToOffsetZero", true, 1000,
                      "server not support seek, but requestOffset is 1000, so download data "
                      "from 0"}),
    [](const ::testing::TestParamInfo<EarlyStopCase>& p) { return p.param.name; });

TEST(HttpFileRequest, RefusedChunkEndsTheTransferAsCancelled) {
  ScriptedHttpServer server(scriptOf(4 << 20, true, true));
  Source source(server.url());
  source.sink.refuseAfter(1);
  LogCapture log(0);
  ASSERT_EQ(source.request.startStreaming(1, 0, 0), 0);
  EXPECT_EQ(source.sink.events(),
            (std::vector<int>{util::EVENT_STREAM_NORMAL, util::EVENT_STREAM_CANCEL}));
  EXPECT_EQ(source.sink.refused(), 1);
  EXPECT_TRUE(log.contains("to terminate http perform"));
  EXPECT_EQ(source.request.getDownloadStatus(), 0);
}

TEST(HttpFileRequest, StartWithoutSinkIsRefusedAndStopWhenIdleReturns) {
  ScriptedHttpServer server(scriptOf(1000, true, true));
  webs::HttpFileRequest request(server.url());
  ASSERT_TRUE(request.initialize());
  EXPECT_EQ(request.startStreaming(1, 0, 0), -1);
  EXPECT_EQ(server.requestCount(), 0);
  EXPECT_EQ(request.stopStreaming(), 0);
  EXPECT_EQ(request.getRequestType(), 1);
  EXPECT_FALSE(request.isRandomAccess());
  EXPECT_EQ(request.getContentSize(), 0);
}

TEST(HttpFileRequest, SettersLogTheirValueAndReachTheWire) {
  ScriptedHttpServer server(scriptOf(1000, true, true));
  Source source(server.url());
  LogCapture log(0);
  using R = webs::HttpFileRequest;
  struct Option {
    void (R::*set)(std::string const&);
    const char* value;
    const char* line;
  };
  for (Option o : {Option{&R::setUserAgent, "TestAgent/1", "set UAString = TestAgent/1"},
                   Option{&R::setCookie, "a=b", "set http cookie :a=b"},
                   Option{&R::setProxy, "", "set http proxy :"},
                   Option{&R::setCAPath, "/nonexistent/ca", "set CA path:/nonexistent/ca"},
                   Option{&R::setCA, "/nonexistent/ca.pem", "set CA Info:/nonexistent/ca.pem"},
                   Option{&R::setClientAuthertication, "", "set Client Authertication:"},
                   Option{&R::setPrivateKey, "", "set Private Key:"},
                   Option{&R::setKeyType, "PEM", "set Key Type:PEM"},
                   Option{&R::setIpResolve, "IPv4", "set ip resolve:IPv4"}}) {
    (source.request.*o.set)(o.value);
    EXPECT_TRUE(log.contains(o.line)) << o.line;
  }
  source.request.setSpeed(0);
  source.request.setFeatureFlag(7);
  EXPECT_TRUE(log.contains("set speed:0"));
  EXPECT_TRUE(log.contains("set feature flag:7"));
  ASSERT_EQ(source.request.startStreaming(1, 0, 0), 0);
  ASSERT_EQ(server.requestCount(), 1);
  EXPECT_EQ(server.requests()[0].header("User-Agent"), "TestAgent/1");
  EXPECT_EQ(server.requests()[0].header("Cookie"), "a=b");
  log.clear();
  EXPECT_EQ(source.request.getDownloadStatus(), 0);
  EXPECT_TRUE(log.contains("download status:0"));
  char ip[64] = {0};
  EXPECT_EQ(source.request.getUrlIP(ip), 0);
  EXPECT_STREQ(ip, "127.0.0.1");
}

}  // namespace
}  // namespace testsupport
