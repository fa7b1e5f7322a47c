// One GET through MethodRequest against the scripted server: bytes, the
// request on the wire, the range retry, the result codes and stop().
#include <algorithm>
#include <atomic>
#include <cstring>
#include <string>

#include <gtest/gtest.h>

#include "http/transfer_harness.h"
#include "support/log_capture.h"
#include "support/refusing_port.h"
#include "support/wait.h"

namespace testsupport {
namespace {

struct RangeCase {
  long long from;
  long long to;
  const char* rangeHeader;
  long long expectedBytes;
};

class RangedGet : public ::testing::TestWithParam<RangeCase> {};

TEST_P(RangedGet, BodyIsTheRequestedPatternRangeAndRangeHeaderIsSent) {
  const RangeCase c = GetParam();
  ScriptedHttpServer server(sized(300000));
  Transfer t;
  EXPECT_EQ(t.method.executeGet(server.url(), c.from, c.to, 7), 0);
  EXPECT_TRUE(isPatternAt(t.requestor.bytes(), c.from, c.expectedBytes));
  for (int v : t.requestor.versions()) EXPECT_EQ(v, 7);
  ASSERT_EQ(server.requestCount(), 1);
  EXPECT_EQ(server.requests()[0].header("Range"), c.rangeHeader);
  EXPECT_TRUE(t.method.isRangeGet());
  if (c.to == 0) { EXPECT_EQ(t.method.getFileSize(), c.from + c.expectedBytes); }
}

INSTANTIATE_TEST_SUITE_P(Ranges, RangedGet,
                         ::testing::Values(RangeCase{0, 0, "bytes=0-", 300000},
                                           RangeCase{12345, 0, "bytes=12345-", 300000 - 12345},
                                           RangeCase{1000, 99999, "bytes=1000-99999", 99000},
                                           RangeCase{299999, 0, "bytes=299999-", 1}),
                         [](const ::testing::TestParamInfo<RangeCase>& p) {
                           return "From" + std::to_string(p.param.from) + "To" +
                                  std::to_string(p.param.to);
                         });

// The default request, and one with user agent, cookie and parameters set.
TEST(MethodRequestTransfer, OptionsReachTheWire) {
  struct Case {
    const char* agent;   // nullptr: not set
    const char* cookie;  // nullptr: not set
    const char* target;  // parameters are pushed when it has a query
  };
  const char* query = "/file?token=a%20b%26c&id=7";
  for (Case c : {Case{nullptr, nullptr, "/file"},
                 Case{"CorvanePlayer/2.0", "session=abc; theme=dark", query}}) {
    ScriptedHttpServer server(sized(1000));
    Transfer t;
    if (c.agent != nullptr) t.method.setUserAgent(c.agent);
    if (c.cookie != nullptr) t.method.setCookie(c.cookie);
    if (std::string(c.target).find('?') != std::string::npos) {
      t.method.pushParam("token", "a b&c");
      t.method.pushParam("id", "7");
    }
    ASSERT_EQ(t.get(server.url()), 0);
    auto r = server.requests().at(0);
    EXPECT_EQ(r.method, "GET");
    EXPECT_EQ(r.target, c.target);
    EXPECT_NE(r.requestLine.find("HTTP/1.1"), std::string::npos);
    EXPECT_EQ(r.header("User-Agent"), c.agent != nullptr ? c.agent : "curl/7.19.5");
    EXPECT_EQ(r.hasHeader("Cookie"), c.cookie != nullptr);
    if (c.cookie != nullptr) { EXPECT_EQ(r.header("Cookie"), c.cookie); }
    EXPECT_EQ(r.header("Pragma"), "no-cache");
    EXPECT_EQ(t.requestor.received(), 1000);
  }
}

TEST(MethodRequestTransfer, ProxyTargetSeesAbsoluteFormRequest) {
  ScriptedHttpServer proxy(sized(5000));
  Transfer t;
  t.method.setProxy("127.0.0.1:" + std::to_string(proxy.port()));
  // The origin name is never resolved: the proxy is asked for it.
  ASSERT_EQ(t.get("http://origin.corvane.invalid/file", 100), 0);
  ASSERT_EQ(proxy.requestCount(), 1);
  EXPECT_EQ(proxy.requests()[0].target, "http://origin.corvane.invalid/file");
  EXPECT_EQ(proxy.requests()[0].header("Range"), "bytes=100-");
  EXPECT_TRUE(isPatternAt(t.requestor.bytes(), 100, 4900));
}

TEST(MethodRequestTransfer, RangeAnsweredWith416IsRetriedOnceWithoutRange) {
  Script s = sized(40000);
  s.rangeStatus = 416;
  ScriptedHttpServer server(s);
  LogCapture log(0);
  Transfer t;
  EXPECT_EQ(t.get(server.url(), 5000), 0);
  auto requests = server.requests();
  ASSERT_EQ(requests.size(), 2u);
  EXPECT_EQ(requests[0].header("Range"), "bytes=5000-");
  EXPECT_FALSE(requests[1].hasHeader("Range"));
  EXPECT_TRUE(log.contains("the range request is not supported by server, i4_retry = 0\n"));
  EXPECT_FALSE(t.method.isRangeGet());
  // The whole content arrives from offset 0: the caller skips what it needs.
  EXPECT_TRUE(isPatternAt(t.requestor.bytes(), 0, 40000));
}

TEST(MethodRequestTransfer, HbbtvUrlsSendNoRangeAndAreNotRetried) {
  for (const char* path : {"/hbbtv/app.ts", "/HBBTV/app.ts"}) {
    Script s;
    s.status = 416;
    ScriptedHttpServer server;
    server.route(path, s);
    Transfer t;
    EXPECT_EQ(t.get(server.url(path), 300), 416) << path;
    ASSERT_EQ(server.requestCount(), 1) << path;
    EXPECT_FALSE(server.requests()[0].hasHeader("Range")) << path;
    EXPECT_FALSE(t.method.isRangeGet()) << path;
  }
}

// What executeGet returns for each kind of answer, and the body it passed on.
TEST(MethodRequestTransfer, ResultFollowsTheAnswer) {
  struct Case {
    const char* name;
    int status;  // scripted status (0: content)
    long long size;
    bool honourRange;
    const char* statusLine;
    long long dropAfter;
    long long from;
    int expected;
    long long bodySize;  // pattern bytes from `from`; -1: not checked
    const char* log;
  };
  const Case cases[] = {
      {"404", 404, 0, true, "", -1, 0, 404, -1, nullptr},
      {"503", 503, 0, true, "", -1, 0, 503, -1, nullptr},
      {"empty 200", 0, 0, false, "", -1, 0, webs::kResultNotFound, 0, "error, file size is 0"},
      {"ICY", 0, 20000, false, "ICY 200 OK", -1, 0, 0, 20000, nullptr},
      {"dropped", 0, 500000, true, "", 100000, 1000, CURLE_PARTIAL_FILE, 100000, nullptr},
  };
  for (const Case& c : cases) {
    Script s = sized(c.size);
    s.status = c.status;
    s.body = c.status != 0 ? "<html>error page</html>" : "";
    s.honourRange = c.honourRange;
    s.statusLine = c.statusLine;
    s.dropAfter = c.dropAfter;
    ScriptedHttpServer server(s);
    LogCapture log(0);
    Transfer t;
    EXPECT_EQ(t.get(server.url(), c.from), c.expected) << c.name;
    std::string body = t.requestor.bytes();
    if (c.bodySize >= 0) { EXPECT_TRUE(isPatternAt(body, c.from, c.bodySize)) << c.name; }
    if (c.log != nullptr) { EXPECT_TRUE(log.contains(c.log)) << c.name; }
  }
}

TEST(MethodRequestTransfer, RefusedConnectionGivesConnectErrorWithSocketErrno) {
  RefusingPort refusing;
  Transfer t;
  EXPECT_EQ(t.get(refusing.url()), CURLE_COULDNT_CONNECT);
  EXPECT_EQ(t.method.getErrno(), 111);
  EXPECT_EQ(t.requestor.received(), 0);
}

TEST(MethodRequestTransfer, RefusedChunkEndsWithWriteError) {
  ScriptedHttpServer server(sized(100000));
  Transfer t;
  t.requestor.refuse = true;
  EXPECT_EQ(t.get(server.url()), CURLE_WRITE_ERROR);
  EXPECT_EQ(t.requestor.chunks(), 1);
}

TEST(MethodRequestTransfer, PeerAddressIsReportedAndNullBufferRefused) {
  ScriptedHttpServer server(sized(100));
  Transfer t;
  {
    LogCapture log(-4);
    EXPECT_EQ(t.method.getUrlIP(nullptr), -1);
    EXPECT_TRUE(log.contains("Error, input ip_buf shouldn't be NULL"));
  }
  ASSERT_EQ(t.get(server.url()), 0);
  for (int level : {1, 2}) {
    LogCapture log(level);
    // An IPv4 address and its terminator fit 16 bytes; nothing is written
    // past them.
    char guarded[4 + 16 + 4];
    std::memset(guarded, 'G', sizeof(guarded));
    EXPECT_EQ(t.method.getUrlIP(guarded + 4), 0);
    EXPECT_STREQ(guarded + 4, "127.0.0.1");
    EXPECT_EQ(std::string(guarded, 4), "GGGG");
    EXPECT_EQ(std::string(guarded + 4 + 10, 10), std::string(10, 'G'));
    EXPECT_EQ(log.contains("URL IP: 127.0.0.1\n"), level >= 2) << level;
  }
}

// A handle starts as IPv4 only and cannot reach [::1]; resolving IPv6 does.
TEST(MethodRequestTransfer, IPv6ResolveReachesLoopbackV6) {
  ScriptedHttpServer server(sized(70000), /*ipv6=*/true);
  if (!server.ok()) GTEST_SKIP() << "no IPv6 loopback here";
  Transfer v4;
  EXPECT_NE(v4.get(server.url()), 0);
  EXPECT_EQ(server.requestCount(), 0);
  Transfer t;
  t.method.setIpResolve("IPv6");
  EXPECT_EQ(t.get(server.url(), 10), 0);
  EXPECT_TRUE(isPatternAt(t.requestor.bytes(), 10, 69990));
  char ip[64] = {0};
  t.method.getUrlIP(ip);
  EXPECT_STREQ(ip, "::1");
}

TEST(MethodRequestIpFamily, SetIpResolveAndChangeIptype) {
  LogCapture log(0);
  webs::MethodRequest m;
  EXPECT_EQ(m.getIpType(), CURL_IPRESOLVE_V4);
  struct Case {
    const char* text;
    int expected;
    const char* line;
  };
  for (Case c : {Case{"IPv6", CURL_IPRESOLVE_V6, "set IPv6"},
                 Case{"IPv4", CURL_IPRESOLVE_V4, "set IPv4"},
                 Case{"whatever", CURL_IPRESOLVE_WHATEVER, "set WHATEVER"},
                 Case{"ipv6", CURL_IPRESOLVE_WHATEVER, "IpType is invalid (ipv6)"}}) {
    log.clear();
    m.setIpResolve(c.text);
    EXPECT_EQ(m.getIpType(), c.expected) << c.text;
    EXPECT_TRUE(log.contains(c.line)) << c.text;
  }
  // From "whatever": no swap gives IPv6, a swap IPv4, a swap of IPv4 IPv6.
  using Swap = std::pair<bool, int>;
  for (auto [swap, type] : {Swap{false, CURL_IPRESOLVE_V6}, Swap{true, CURL_IPRESOLVE_V4},
                            Swap{false, CURL_IPRESOLVE_V4}, Swap{true, CURL_IPRESOLVE_V6}}) {
    m.changeIptype(swap);
    EXPECT_EQ(m.getIpType(), type);
  }
}

TEST(MethodRequestTransfer, ParamRecordsReturnToTheStation) {
  int before = webs::MethodParamStation::_INS_.freeCount();
  {
    webs::MethodRequest m;
    m.pushParam("a", "1");
    m.pushParam("b", "2");
    EXPECT_EQ(m.buildUrl("http://h/p?x=1"), "http://h/p?x=1&a=1&b=2");
  }
  // The two records come from the free list when it has them, and go back.
  EXPECT_EQ(webs::MethodParamStation::_INS_.freeCount(), std::max(before, 2));
}

// Records the response code seen from inside the body callback.
class CodeRecorder : public CollectingRequestor {
 public:
  webs::MethodRequest* method = nullptr;
  std::atomic<long> firstCode{-1};
  int receive(void* data, int size, void* curl, int version) override {
    long expected = -1;
    firstCode.compare_exchange_strong(expected, method->getResponseCode());
    return CollectingRequestor::receive(data, size, curl, version);
  }
};

TEST(MethodRequestTransfer, ResponseCodeIsReadableFromTheBodyCallback) {
  for (auto [honourRange, code] : {std::pair<bool, long>{true, 206}, {false, 200}}) {
    Script s = sized(1000);
    s.honourRange = honourRange;
    ScriptedHttpServer server(s);
    CodeRecorder recorder;
    webs::MethodRequest m;
    recorder.method = &m;
    m.initialize(&recorder, "");
    EXPECT_EQ(m.executeGet(server.url(), 10, 0, 1), webs::kTransferOk);
    EXPECT_EQ(recorder.firstCode.load(), code);
  }
}

TEST(MethodRequestStop, StopEndsARunningTransferWith42AndWaitsForIt) {
  ScriptedHttpServer server(stallingAfter(65536, 20000));
  LogCapture log(1);
  BackgroundGet get;
  get.run(server.url());
  ASSERT_TRUE(waitFor([&] { return get.requestor.received() >= 65536; }, 10000));
  auto stopAt = Clock::now();
  get.method.stop();
  long long bytesAtStop = get.requestor.received();
  EXPECT_LT(msSince(stopAt), 5000);
  // stop() returned once the perform had ended: executeGet comes back at
  // once, no byte arrives after, and a second stop finds nothing active.
  EXPECT_TRUE(waitFor([&] { return get.done.load(); }, 1000));
  EXPECT_EQ(get.requestor.received(), bytesAtStop);
  EXPECT_TRUE(log.contains("notify curl to stop and wait stop end"));
  EXPECT_TRUE(log.contains("begin to break out from curl progress"));
  log.clear();
  get.method.stop();
  EXPECT_TRUE(log.contains("MethodRequest begin to stop active = 0"));
  get.thread.join();
  EXPECT_EQ(get.result.load(), webs::kTransferStopped);
  std::string body = get.requestor.bytes();
  EXPECT_TRUE(isPatternAt(body, 0, static_cast<long long>(body.size())));
}

TEST(MethodRequestStop, StopWithoutTransferReturnsAtOnceAndClearsStopWait) {
  webs::MethodRequest m;
  m.setStopWait();
  EXPECT_TRUE(m.getStopWait());
  m.stop();
  EXPECT_FALSE(m.getStopWait());
}

}  // namespace
}  // namespace testsupport
