// MethodRequest: one GET against the scripted server (bytes, the request on
// the wire, the range retry, result codes, stop and stall limits), what it
// reads from response headers, and speed smoothing and limiting.
#include <atomic>
#include <cstring>
#include <thread>

#include "http/limit_speed.h"
#include "http/method_request.h"
#include "http/moving_average.h"
#include "http/requestor.h"
#include "support/scripted_http_server.h"

namespace testsupport {
namespace {

using Clock = std::chrono::steady_clock;

long long msSince(Clock::time_point start) {
  return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count();
}

class Collector : public webs::Requestor {
 public:
  int receive(void* data, int size, void*, int version) override {
    std::lock_guard<std::mutex> lock(mutex);
    bytes.append(static_cast<const char*>(data), static_cast<size_t>(size));
    versions.push_back(version);
    if (method != nullptr && code < 0) code = method->getResponseCode();
    return refuse ? 0 : size;
  }
  void readyReceive() override {}
  void finishReceive() override {}
  long long received() {
    std::lock_guard<std::mutex> lock(mutex);
    return static_cast<long long>(bytes.size());
  }
  std::mutex mutex;
  std::string bytes;
  std::vector<int> versions;
  bool refuse = false;
  webs::MethodRequest* method = nullptr;
  long code = -1;  // the response code as the first body chunk saw it
};

// A GET on the test thread or on its own (joined at the end).
struct Transfer {
  Transfer() {
    method.initialize(&collector, "");
    collector.method = &method;
  }
  ~Transfer() {
    if (thread.joinable()) thread.join();
  }
  int get(const std::string& url, long long from = 0, long long to = 0) {
    return method.executeGet(url, from, to, 7);
  }
  void start(const std::string& url) {
    started = Clock::now();
    thread = std::thread([this, url] { result = get(url); });
  }
  Collector collector;
  webs::MethodRequest method;
  std::thread thread;
  std::atomic<int> result{-1000};
  Clock::time_point started;
};

Script sized(long long size, bool ranges = true) {
  Script s;
  s.size = size;
  s.honourRange = ranges;
  return s;
}

TEST(MethodRequest, RangesAndOptionsOnTheWire) {
  const struct {
    long long from, to;
    const char* range;
    long long bytes;
  } ranges[] = {{0, 0, "bytes=0-", 300000},
                {12345, 0, "bytes=12345-", 300000 - 12345},
                {1000, 99999, "bytes=1000-99999", 99000},
                {299999, 0, "bytes=299999-", 1}};
  for (const auto& c : ranges) {
    ScriptedHttpServer server(sized(300000));
    Transfer t;
    EXPECT_EQ(t.get(server.url(), c.from, c.to), 0);
    EXPECT_TRUE(isPatternAt(t.collector.bytes, c.from, c.bytes));
    EXPECT_EQ(t.collector.versions, std::vector<int>(t.collector.versions.size(), 7));
    ASSERT_EQ(server.requestCount(), 1);
    RecordedRequest r = server.requests()[0];
    EXPECT_EQ(r.header("Range"), c.range);
    EXPECT_EQ(r.header("User-Agent"), "curl/7.19.5");
    EXPECT_EQ(r.header("Pragma"), "no-cache");
    EXPECT_FALSE(r.hasHeader("Cookie"));
    EXPECT_TRUE(t.method.isRangeGet());
    EXPECT_EQ(t.collector.code, 206);
    if (c.to == 0) EXPECT_EQ(t.method.getFileSize(), 300000);
  }
  ScriptedHttpServer server(sized(1000, false));
  Transfer t;
  t.method.setUserAgent("CorvanePlayer/2.0");
  t.method.setCookie("session=abc; theme=dark");
  t.method.pushParam("token", "a b&c");
  t.method.pushParam("id", "7");
  ASSERT_EQ(t.get(server.url()), 0);
  RecordedRequest r = server.requests().at(0);
  EXPECT_EQ(r.target, "/file?token=a%20b%26c&id=7");
  EXPECT_EQ(r.header("User-Agent"), "CorvanePlayer/2.0");
  EXPECT_EQ(r.header("Cookie"), "session=abc; theme=dark");
  EXPECT_EQ(t.collector.code, 200);
  // A proxy is asked for the origin, whose name is never resolved.
  Transfer proxied;
  proxied.method.setProxy("127.0.0.1:" + std::to_string(server.port()));
  ASSERT_EQ(proxied.get("http://origin.corvane.invalid/file", 100), 0);
  EXPECT_EQ(server.requests().back().target, "http://origin.corvane.invalid/file");
}

TEST(MethodRequest, ResultFollowsTheAnswer) {
  Script refused = sized(40000);
  refused.rangeStatus = 416;
  Script icy = sized(20000, false);
  icy.statusLine = "ICY 200 OK";
  Script dropped = sized(500000);
  dropped.dropPlan = {100000};
  Script empty = sized(0, false);
  Script notFound, busy;
  notFound.status = 404;
  busy.status = 503;
  const struct {
    const char* path;
    Script s;
    long long from;
    int result;
    long long bytes;   // pattern bytes from `from` (-1: not checked)
    long long bodyAt;  // where they start
    std::vector<long long> starts;
  } cases[] = {
      {"/404", notFound, 0, 404, -1, 0, {0}},
      {"/503", busy, 0, 503, -1, 0, {0}},
      {"/empty", empty, 0, webs::kResultNotFound, 0, 0, {0}},
      {"/icy", icy, 0, 0, 20000, 0, {0}},
      {"/dropped", dropped, 1000, CURLE_PARTIAL_FILE, 100000, 1000, {1000}},
      // Retried once without a range: the caller skips what it needs.
      {"/refused", refused, 5000, 0, 40000, 0, {5000, -1}},
      {"/hbbtv/app.ts", notFound, 300, 404, -1, 0, {-1}},
      {"/HBBTV/app.ts", refused, 300, 0, 40000, 0, {-1}},
  };
  for (const auto& c : cases) {
    ScriptedHttpServer server;
    server.route(c.path, c.s);
    Transfer t;
    EXPECT_EQ(t.get(server.url(c.path), c.from), c.result) << c.path;
    if (c.bytes >= 0) EXPECT_TRUE(isPatternAt(t.collector.bytes, c.bodyAt, c.bytes)) << c.path;
    EXPECT_EQ(server.rangeStarts(c.path), c.starts) << c.path;
    EXPECT_EQ(t.method.isRangeGet(), c.starts.back() != -1) << c.path;
  }
  RefusingPort refusing;
  Transfer t;
  EXPECT_EQ(t.get(refusing.url()), CURLE_COULDNT_CONNECT);
  EXPECT_EQ(t.method.getErrno(), 111);
  ScriptedHttpServer server(sized(100000));
  Transfer refusingChunks;
  refusingChunks.collector.refuse = true;
  EXPECT_EQ(refusingChunks.get(server.url()), CURLE_WRITE_ERROR);
  EXPECT_EQ(refusingChunks.collector.versions.size(), 1u);
  char ip[4 + 16 + 4];
  std::memset(ip, 'G', sizeof(ip));
  EXPECT_EQ(refusingChunks.method.getUrlIP(ip + 4), 0);
  EXPECT_STREQ(ip + 4, "127.0.0.1");
  EXPECT_EQ(std::string(ip + 14, 10), std::string(10, 'G'));
}

TEST(MethodRequest, IpFamily) {
  LogCapture log(0);
  webs::MethodRequest m;
  EXPECT_EQ(m.getIpType(), CURL_IPRESOLVE_V4);
  const std::tuple<const char*, int, const char*> texts[] = {{"IPv6", CURL_IPRESOLVE_V6, "set IPv6"},
                                                             {"IPv4", CURL_IPRESOLVE_V4, "set IPv4"},
                                                             {"whatever", CURL_IPRESOLVE_WHATEVER, "set WHATEVER"},
                                                             {"ipv6", CURL_IPRESOLVE_WHATEVER, "IpType is invalid (ipv6)"}};
  for (auto [text, type, line] : texts) {
    m.setIpResolve(text);
    EXPECT_EQ(m.getIpType(), type) << text;  // an invalid text changes nothing
    EXPECT_TRUE(log.contains(line)) << line;
  }
  // From "whatever": no swap gives IPv6, a swap IPv4, a swap of IPv4 IPv6.
  const std::pair<bool, int> swaps[] = {
      {false, CURL_IPRESOLVE_V6}, {true, CURL_IPRESOLVE_V4}, {false, CURL_IPRESOLVE_V4}, {true, CURL_IPRESOLVE_V6}};
  for (auto [swap, type] : swaps) {
    m.changeIptype(swap);
    EXPECT_EQ(m.getIpType(), type);
  }
  ScriptedHttpServer server(sized(70000), true);
  Transfer v4;
  EXPECT_NE(v4.get(server.url()), 0);  // a handle starts as IPv4 only
  EXPECT_EQ(server.requestCount(), 0);
  Transfer v6;
  v6.method.setIpResolve("IPv6");
  EXPECT_EQ(v6.get(server.url(), 10), 0);
  EXPECT_TRUE(isPatternAt(v6.collector.bytes, 10, 69990));
}

// stop() ends a running transfer and waits for it; a break before the first
// byte ends it after 2 s of silence; feature flag 1 cuts a stall after 4 s,
// while the default limit rides out 6 s.
TEST(MethodRequest, StopBreakAndStallLimits) {
  Script stalling = sized(4 << 20);
  stalling.stallAfter = 100000;
  stalling.stallMs = 30000;
  Script pause = sized(200000);
  pause.stallAfter = 100000;
  pause.stallMs = 6000;
  Script silent;
  silent.headerDelayMs = 20000;
  ScriptedHttpServer server(stalling);
  server.route("/pause", pause);
  server.route("/silent", silent);
  Transfer stopped, broken, cut, ridden;
  stopped.start(server.url());
  broken.method.setBreak();
  broken.start(server.url("/silent"));
  LogCapture log(-4);
  cut.method.setMethodFeatureFlag(1);
  cut.start(server.url("/stall"));
  ridden.start(server.url("/pause"));
  ASSERT_TRUE(waitFor([&] { return stopped.collector.received() >= 100000; }));
  auto stopAt = Clock::now();
  stopped.method.stop();
  EXPECT_LT(msSince(stopAt), 2000);
  EXPECT_TRUE(waitFor([&] { return stopped.result == CURLE_ABORTED_BY_CALLBACK; }, 1000));
  ASSERT_TRUE(waitFor([&] { return broken.result != -1000 && cut.result != -1000; }, 15000));
  EXPECT_EQ(broken.result, webs::kResultBroken);
  EXPECT_GE(msSince(broken.started), 1900);
  EXPECT_EQ(cut.result, webs::kResultStalled);
  EXPECT_EQ(cut.collector.received(), 100000);
  EXPECT_GE(log.countContaining("Too long time no data comes, the connection is die"), 1);
  ASSERT_TRUE(waitFor([&] { return ridden.result != -1000; }, 20000));
  EXPECT_EQ(ridden.result, 0);
  EXPECT_TRUE(isPatternAt(ridden.collector.bytes, 0, 200000));
}

// Header lines fed as libcurl feeds them (no transfer: the code reads 0).
void feed(webs::MethodRequest& m, const std::vector<std::string>& lines) {
  for (const auto& line : lines) {
    std::string withEnd = line + "\r\n";
    EXPECT_EQ(m.headerContentIn(&withEnd[0], 1, withEnd.size()), static_cast<int>(withEnd.size()));
  }
}

TEST(MethodRequest, WhatHeadersSay) {
  const struct {
    std::vector<std::string> lines;
    bool length, seekable;
    long long rangeSize;
    std::string server;
  } cases[] = {
      {{"HTTP/1.1 200 OK", "Content-Length: 10", "Accept-Ranges: none"}, true, true, 0, ""},
      {{"HTTP/1.1 200 OK", "content-length: 10", "Server: Corvane/1 \t  "}, true, true, 0, "Corvane/1"},
      {{"HTTP/1.1 200 OK", "CONTENT-LENGTH: 10", "server: lower"}, true, true, 0, ""},
      {{"HTTP/1.1 200 OK", "content-Length: 10"}, false, true, 0, ""},
      {{"Accept-Ranges: none", "Content-length: 4"}, true, false, 0, ""},
      {{"ACCEPT-RANGES: bytes", "X-Content-Length: 10"}, false, true, 0, ""},
      {{"Access-Control-Allow-Headers: Origin, Range"}, false, true, 0, ""},
      {{"HTTP/1.1 206 Partial Content", "Content-Range: bytes 0-99/1000"}, false, true, 1000, ""},
      {{"HTTP/1.1 206 Partial Content", "CONTENT-RANGE: bytes */1000"}, false, true, 1000, ""},
      {{"HTTP/1.1 206 Partial Content", "content-range: bytes 0-99/1000"}, false, true, 0, ""},
      {{"Content-Range: bytes 0-99/12345678901x"}, false, true, 12345678901LL, ""},
      {{}, false, false, 0, ""},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.lines.empty() ? "empty" : c.lines.back());
    webs::MethodRequest m;
    feed(m, c.lines);
    EXPECT_EQ(m.checkFromContentLength(), c.length);
    EXPECT_EQ(m.seekAbleCheckFromResponse(), c.seekable);
    EXPECT_EQ(m.getSizeFromResponseRange(), c.rangeSize);
    EXPECT_EQ(m.getServerName(), c.server);
  }
  webs::MethodRequest m;
  feed(m, {"HTTP/1.1 200 OK"});
  char buf[8];
  std::memset(buf, '#', sizeof(buf));
  int length = -1;
  EXPECT_EQ(m.getResponseHeader(buf, 4, &length), 0);
  EXPECT_EQ(length, 17);
  EXPECT_EQ(std::string(buf, 8), "HTTP####");
  // A range answered without Content-Range cannot be sought in.
  ScriptedHttpServer server(sized(4000, false));
  Transfer t;
  ASSERT_EQ(t.get(server.url(), 100), 0);
  EXPECT_FALSE(t.method.seekAbleCheckFromResponse());
}

TEST(MethodRequest, HeaderBlockKeepsTheFinalAnswerUpTo8192Bytes) {
  for (int status : {302, 301, 303, 307}) {
    ScriptedHttpServer server;
    Script redirect;
    redirect.status = status;
    redirect.location = "/final";
    server.route("/start", redirect);
    server.route("/final", sized(3000));
    Transfer t;
    ASSERT_EQ(t.get(server.url("/start")), 0) << status;
    int length = 0;
    char block[8192];
    t.method.getResponseHeader(block, sizeof(block), &length);
    std::string text(block, static_cast<size_t>(length));
    // 301 and 302 drop their own lines; the others keep them.
    EXPECT_EQ(text.find("Location: /final") != std::string::npos, status > 302) << status;
    EXPECT_NE(text.find("HTTP/1.1 206 Partial Content\r\n"), std::string::npos) << status;
  }
  Script padded = sized(50000);
  for (int i = 0; i < 120; ++i) padded.extraHeaders.push_back("X-Pad-" + std::to_string(i) + ": " + std::string(100, 'p'));
  ScriptedHttpServer server(padded);
  Transfer t;
  EXPECT_EQ(t.get(server.url()), 0);
  EXPECT_TRUE(isPatternAt(t.collector.bytes, 0, 50000));
  int length = 0;
  t.method.getResponseHeader(nullptr, 0, &length);
  EXPECT_EQ(length, 8192);
}

TEST(Speed, MovingAverageAndLimit) {
  const struct {
    int capacity;
    std::vector<long long> pushes, answers;
  } cases[] = {
      {10, {5000}, {5000}},
      // Path 200, spread 100: alpha 0.165; 0.165 * 100 + 0.835 * 200.
      {10, {100, 200}, {100, 183}},
      {10, {4000, 4000, 4000}, {4000, 4000, 4000}},
      // Capacity 2 drops 100: 0.165 * 183 + 0.835 * 300.
      {2, {100, 200, 300}, {100, 183, 280}},
  };
  for (const auto& c : cases) {
    webs::MovingAverage average(c.capacity);
    std::vector<long long> answers;
    for (long long sample : c.pushes) answers.push_back(average.push(sample));
    EXPECT_EQ(answers, c.answers);
  }
  webs::LimitSpeed unlimited;
  auto start = Clock::now();
  unlimited.Limitspeed(100u << 20);
  EXPECT_LT(msSince(start), 100);
  webs::LimitSpeed limiter;
  limiter.setMaxSpeed(1000000);
  start = Clock::now();
  limiter.InitSpeed();
  limiter.Limitspeed(150000);
  limiter.Limitspeed(150000);  // 300 ms worth
  EXPECT_GE(msSince(start), 280);
  EXPECT_LT(msSince(start), 1500);
  limiter.CalAvgSpeed();
  EXPECT_GT(limiter.GetAvgSpeed(), 200000);
  EXPECT_LE(limiter.GetAvgSpeed(), 1100000);
}

}  // namespace
}  // namespace testsupport
